// The child table of a file index: a hash of every listed entry by its
// parent's offset and its upcased name, chained through one ULONG per entry
// slot. It mirrors the child lists exactly (an entry is in the table while
// it stands in its parent's list), so a lookup finds what a walk of the
// list would find, without comparing every sibling.
#include "index/index_internal.h"

// Marks a slot not yet met while the table is made.
#define INDEX_SLOT_UNSEEN 0xFFFFFFFFUL

static ULONG SlotsOf(ULONG ulNodeAreaSize) {
    return ulNodeAreaSize < FILE_INDEX_NODE_HEADER_SIZE
               ? 0
               : (ulNodeAreaSize - FILE_INDEX_NODE_HEADER_SIZE) / FILE_INDEX_ENTRY_SIZE;
}

// One bucket per slot, rounded up to a power of two.
static ULONG BucketsFor(ULONG ulSlots) {
    ULONG ulBuckets = 1;
    while (ulBuckets < ulSlots && ulBuckets < 0x40000000UL) {
        ulBuckets <<= 1;
    }
    return ulBuckets;
}

ULONG IndexChildTableSize(ULONG ulNodeAreaSize) {
    const ULONG ulSlots = SlotsOf(ulNodeAreaSize);
    const ULONGLONG ullBytes = ((ULONGLONG)BucketsFor(ulSlots) + ulSlots) * sizeof(ULONG);
    return ullBytes > 0x7FFFFFFFULL ? 0 : (ULONG)ullBytes;
}

// A character as the case-blind compare of counted strings sees it.
static WCHAR UpcaseChar(WCHAR wc) {
    if (wc < L'a') {
        return wc;
    }
    if (wc <= L'z') {
        return (WCHAR)(wc - (L'a' - L'A'));
    }
    return wc < 0x80 ? wc : RtlUpcaseUnicodeChar(wc);
}

static ULONG ChildBucket(PFileIndex pIndex, ULONG ulParentOffset, PCUNICODE_STRING pustrName) {
    ULONG ulHash = 2166136261UL ^ (ulParentOffset * 0x9E3779B1UL);
    for (ULONG i = 0; i < pustrName->Length / sizeof(WCHAR); i++) {
        ulHash = (ulHash ^ UpcaseChar(pustrName->Buffer[i])) * 16777619UL;
    }
    return (ulHash ^ (ulHash >> 15)) & pIndex->m_Children.m_ulBucketMask;
}

static PFileIndexEntry SlotEntry(PFileIndex pIndex, ULONG ulSlot) {
    return (PFileIndexEntry)(pIndex->m_pNodeArea + FILE_INDEX_NODE_HEADER_SIZE + ulSlot * FILE_INDEX_ENTRY_SIZE);
}

BOOLEAN FindIndexChildInTable(PFileIndex pIndex, ULONG ulParentOffset, PCUNICODE_STRING pustrName,
                              PFileIndexEntry* ppFound) {
    const IndexChildTable* pTable = &pIndex->m_Children;
    for (ULONG ulLink = pTable->m_pulBuckets[ChildBucket(pIndex, ulParentOffset, pustrName)]; ulLink != 0;
         ulLink = pTable->m_pulNext[ulLink - 1]) {
        PFileIndexEntry pEntry = SlotEntry(pIndex, ulLink - 1);
        UNICODE_STRING ustrEntryName;
        if (pEntry->m_ulParentOffset == ulParentOffset && IndexEntryName(pIndex, pEntry, &ustrEntryName) &&
            RtlEqualUnicodeString(&ustrEntryName, pustrName, TRUE)) {
            *ppFound = pEntry;
            return TRUE;
        }
    }
    return FALSE;
}

VOID AddToIndexChildTable(PFileIndex pIndex, const FileIndexEntry* pEntry) {
    IndexChildTable* pTable = &pIndex->m_Children;
    const ULONG ulSlot = pEntry->m_ulOffset / FILE_INDEX_ENTRY_SIZE;
    UNICODE_STRING ustrName;
    if (pTable->m_pulBuckets == NULL || ulSlot >= pTable->m_ulSlots) {
        return;
    }
    if (!IndexEntryName(pIndex, pEntry, &ustrName)) {
        pTable->m_pulNext[ulSlot] = 0;  // a name no lookup can match: listed, never found
        return;
    }
    PULONG pulHead = &pTable->m_pulBuckets[ChildBucket(pIndex, pEntry->m_ulParentOffset, &ustrName)];
    pTable->m_pulNext[ulSlot] = *pulHead;
    *pulHead = ulSlot + 1;
}

VOID RemoveFromIndexChildTable(PFileIndex pIndex, const FileIndexEntry* pEntry) {
    IndexChildTable* pTable = &pIndex->m_Children;
    const ULONG ulSlot = pEntry->m_ulOffset / FILE_INDEX_ENTRY_SIZE;
    UNICODE_STRING ustrName;
    if (pTable->m_pulBuckets == NULL || ulSlot >= pTable->m_ulSlots || !IndexEntryName(pIndex, pEntry, &ustrName)) {
        return;
    }
    PULONG pulLink = &pTable->m_pulBuckets[ChildBucket(pIndex, pEntry->m_ulParentOffset, &ustrName)];
    while (*pulLink != 0 && *pulLink != ulSlot + 1) {
        pulLink = &pTable->m_pulNext[*pulLink - 1];
    }
    if (*pulLink != 0) {
        *pulLink = pTable->m_pulNext[ulSlot];
        pTable->m_pulNext[ulSlot] = 0;
    }
}

// The entry that a list link designates, when it is one the table can
// stand for: a used slot, at exactly its own offset, not yet met.
static PFileIndexEntry ListedEntry(PFileIndex pIndex, ULONG ulOffset) {
    if (ulOffset == 0 || ulOffset % FILE_INDEX_ENTRY_SIZE != 0 || ulOffset >= pIndex->m_ulNodeUsed) {
        return NULL;
    }
    PFileIndexEntry pEntry = IndexEntryAt(pIndex, ulOffset);
    if (pEntry == NULL || pEntry->m_ulOffset != ulOffset ||
        pIndex->m_Children.m_pulNext[ulOffset / FILE_INDEX_ENTRY_SIZE] != INDEX_SLOT_UNSEEN) {
        return NULL;
    }
    return pEntry;
}

// Walks every directory's child list from the root, depth first, through
// the tree's own links (down by first child, along by next sibling, up by
// parent), adding each entry. FALSE when the lists are not a proper tree.
static BOOLEAN FillFromLists(PFileIndex pIndex) {
    ULONG ulParent = 0;
    ULONG ulPrev = 0;
    ULONG ulOffset = IndexRoot(pIndex)->m_ulFirstChildOffset;
    for (;;) {
        if (ulOffset == 0) {
            if (ulParent == 0) {
                return TRUE;
            }
            PFileIndexEntry pParent = IndexEntryAt(pIndex, ulParent);
            ulPrev = ulParent;
            ulOffset = pParent->m_ulNextSiblingOffset;
            ulParent = pParent->m_ulParentOffset;
            continue;
        }
        PFileIndexEntry pEntry = ListedEntry(pIndex, ulOffset);
        if (pEntry == NULL || pEntry->m_ulParentOffset != ulParent || pEntry->m_ulPrevSiblingOffset != ulPrev) {
            return FALSE;
        }
        UNICODE_STRING ustrName;
        PFileIndexEntry pSame;
        if (IndexEntryName(pIndex, pEntry, &ustrName) && FindIndexChildInTable(pIndex, ulParent, &ustrName, &pSame)) {
            return FALSE;  // two children alike: a walk would find only the first
        }
        AddToIndexChildTable(pIndex, pEntry);
        if (pEntry->m_ulType == FILE_INDEX_TYPE_DIRECTORY && pEntry->m_ulFirstChildOffset != 0) {
            ulParent = ulOffset;
            ulPrev = 0;
            ulOffset = pEntry->m_ulFirstChildOffset;
        } else {
            ulPrev = ulOffset;
            ulOffset = pEntry->m_ulNextSiblingOffset;
        }
    }
}

VOID BuildIndexChildTable(PFileIndex pIndex, PVOID pTable) {
    IndexChildTable* pChildren = &pIndex->m_Children;
    RtlZeroMemory(pChildren, sizeof(IndexChildTable));
    if (pTable == NULL || IndexChildTableSize(pIndex->m_ulNodeAreaSize) == 0) {
        return;
    }
    const ULONG ulSlots = SlotsOf(pIndex->m_ulNodeAreaSize);
    const ULONG ulBuckets = BucketsFor(ulSlots);
    pChildren->m_pulBuckets = (PULONG)pTable;
    pChildren->m_pulNext = pChildren->m_pulBuckets + ulBuckets;
    pChildren->m_ulBucketMask = ulBuckets - 1;
    pChildren->m_ulSlots = ulSlots;
    RtlZeroMemory(pChildren->m_pulBuckets, ulBuckets * sizeof(ULONG));
    RtlFillMemory(pChildren->m_pulNext, ulSlots * sizeof(ULONG), 0xFF);
    if (!FillFromLists(pIndex)) {
        RtlZeroMemory(pChildren, sizeof(IndexChildTable));
        return;
    }
    for (ULONG ulSlot = 0; ulSlot < ulSlots; ulSlot++) {
        if (pChildren->m_pulNext[ulSlot] == INDEX_SLOT_UNSEEN) {
            pChildren->m_pulNext[ulSlot] = 0;
        }
    }
}
