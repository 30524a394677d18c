// Helpers shared by the file index sources: checked access to entries and
// names inside the areas. The operations hold m_Lock through a ResourceLock:
// shared for lookups, which only read, exclusive for changes; a shared
// request of the exclusive holder is granted, so a change may look up paths.
#pragma once

#include "base/log.h"
#include "base/scoped.h"
#include "base/global_state.h"
#include "index/file_index.h"

#define FILE_INDEX_SOURCE "file_index"

// The entry designated by an entry offset (the 48-byte slot the offset falls
// in), or null when that slot does not lie wholly inside the node area. Every
// offset read from an area goes through here: a loaded index is not trusted.
inline PFileIndexEntry IndexEntryAt(PFileIndex pIndex, ULONG ulOffset) {
    ULONG ulSlot = ulOffset / FILE_INDEX_ENTRY_SIZE;
    ULONG ulSlots = (pIndex->m_ulNodeAreaSize - FILE_INDEX_NODE_HEADER_SIZE) / FILE_INDEX_ENTRY_SIZE;
    if (ulSlot >= ulSlots) {
        return NULL;
    }
    return (PFileIndexEntry)(pIndex->m_pNodeArea + FILE_INDEX_NODE_HEADER_SIZE + ulSlot * FILE_INDEX_ENTRY_SIZE);
}

inline PFileIndexEntry IndexRoot(PFileIndex pIndex) {
    return (PFileIndexEntry)(pIndex->m_pNodeArea + FILE_INDEX_NODE_HEADER_SIZE);
}

// A counted string over an entry's name in the name area. FALSE when the name
// would reach outside the area or has an odd length.
inline BOOLEAN IndexEntryName(PFileIndex pIndex, const FileIndexEntry* pEntry, PUNICODE_STRING pustrName) {
    ULONGLONG ullStart = FILE_INDEX_NAME_HEADER_SIZE + (ULONGLONG)(pEntry->m_ulNameOffset & ~1UL);
    USHORT usLength = (USHORT)(pEntry->m_ulNameLength & 0xFFFF);
    if ((usLength & 1) != 0 || ullStart + usLength > pIndex->m_ulNameAreaSize) {
        return FALSE;
    }
    pustrName->Length = usLength;
    pustrName->MaximumLength = usLength;
    pustrName->Buffer = (PWSTR)(pIndex->m_pNameArea + ullStart);
    return TRUE;
}

// The longest chain of siblings or parents a consistent index can hold: one
// step per entry ever stored. A longer walk has met a cycle.
inline ULONG IndexWalkLimit(PFileIndex pIndex) {
    return pIndex->m_ulNodeUsed / FILE_INDEX_ENTRY_SIZE + 1;
}

// The child table (index_children.cpp). The caller holds m_Lock; the three
// that change it, exclusively.
BOOLEAN FindIndexChildInTable(PFileIndex pIndex, ULONG ulParentOffset, PCUNICODE_STRING pustrName,
                              PFileIndexEntry* ppFound);
VOID AddToIndexChildTable(PFileIndex pIndex, const FileIndexEntry* pEntry);
VOID RemoveFromIndexChildTable(PFileIndex pIndex, const FileIndexEntry* pEntry);

inline BOOLEAN HasIndexChildTable(PFileIndex pIndex) {
    return pIndex->m_Children.m_pulBuckets != NULL;
}

// Where the child table starts in a block that holds a node area of
// ulNodeAreaSize bytes and the table after it; 0 when the sum overflows.
inline ULONG IndexChildTableOffset(ULONG ulNodeAreaSize) {
    const ULONGLONG ullOffset = ((ULONGLONG)ulNodeAreaSize + 7) & ~7ULL;
    const ULONG ulTable = IndexChildTableSize(ulNodeAreaSize);
    return ulTable == 0 || ullOffset + ulTable > 0xFFFFFFFFULL ? 0 : (ULONG)ullOffset;
}

