// Storage of a file index: the pool of index objects, creation of an empty
// index, and the four tree primitives on which the path operations stand.
//
// Every link read from an area is checked (IndexEntryAt) and every sibling or
// parent chain is bounded (IndexWalkLimit), because the areas of a loaded
// index come from files the driver does not trust. The primitives resolve
// their entry arguments by m_ulOffset to the live entry in the node area, so a
// copy taken before an earlier change in the same operation is never stale.
// A child is looked up in the index's child table when it has one, so the
// cost of a lookup does not grow with the number of siblings.
#include "index/index_internal.h"

static NPAGED_LOOKASIDE_LIST g_FileIndexPool;
static BOOLEAN g_bFileIndexPoolReady;

VOID InitFileIndexPool() {
    ExInitializeNPagedLookasideList(&g_FileIndexPool, NULL, NULL, 0, sizeof(FileIndex), TRVN_TAG_FILE_INDEX_POOL,
                                    32);
    g_bFileIndexPoolReady = TRUE;
}

VOID DeleteFileIndexPool() {
    if (g_bFileIndexPoolReady) {
        g_bFileIndexPoolReady = FALSE;
        ExDeleteNPagedLookasideList(&g_FileIndexPool);
    }
}

PFileIndex InitFileIndex(PVOID pNodeArea, ULONG ulNodeAreaSize, const IndexFileMapping* pNodeMapping,
                         HANDLE hNodeFile, PVOID pNameArea, ULONG ulNameAreaSize,
                         const IndexFileMapping* pNameMapping, HANDLE hNameFile) {
    // Areas below the minimum sizes would make the capacities wrap; refuse them.
    if (!g_bFileIndexPoolReady || pNodeArea == NULL || pNameArea == NULL ||
        ulNodeAreaSize < FILE_INDEX_MIN_NODE_AREA || ulNameAreaSize < FILE_INDEX_MIN_NAME_AREA) {
        return NULL;
    }
    PFileIndex pIndex = (PFileIndex)ExAllocateFromNPagedLookasideList(&g_FileIndexPool);
    if (pIndex == NULL) {
        return NULL;
    }
    RtlZeroMemory(pIndex, sizeof(FileIndex));
    pIndex->m_pNodeArea = (PUCHAR)pNodeArea;
    pIndex->m_ulNodeAreaSize = ulNodeAreaSize;
    pIndex->m_pNameArea = (PUCHAR)pNameArea;
    pIndex->m_ulNameAreaSize = ulNameAreaSize;
    if (pNodeMapping != NULL) {
        pIndex->m_NodeMapping = *pNodeMapping;
    }
    if (pNameMapping != NULL) {
        pIndex->m_NameMapping = *pNameMapping;
    }
    pIndex->m_hNodeFile = hNodeFile;
    pIndex->m_hNameFile = hNameFile;
    pIndex->m_ulNodeCapacity = ulNodeAreaSize - FILE_INDEX_NODE_RESERVE;
    pIndex->m_ulNameCapacity = ulNameAreaSize - FILE_INDEX_NAME_RESERVE;
    ExInitializeResourceLite(&pIndex->m_Lock);
    return pIndex;
}

VOID ResetIndexAreas(PFileIndex pIndex) {
    RtlZeroMemory(pIndex->m_pNodeArea, FILE_INDEX_NODE_RESERVE);
    IndexRoot(pIndex)->m_ulType = FILE_INDEX_TYPE_DIRECTORY;
    pIndex->m_ulNameUsed = 0;
    pIndex->m_ulNodeUsed = FILE_INDEX_ENTRY_SIZE;
    RtlZeroMemory(pIndex->m_pNameArea, FILE_INDEX_NAME_RESERVE);
}

PFileIndex CreateFileIndex(ULONG ulNodeAreaSize, ULONG ulNameAreaSize) {
    if (ulNodeAreaSize < FILE_INDEX_MIN_NODE_AREA || ulNameAreaSize < FILE_INDEX_MIN_NAME_AREA) {
        return NULL;
    }
    // The child table shares the node area's block, after the area.
    const ULONG ulTableOffset = IndexChildTableOffset(ulNodeAreaSize);
    const ULONG ulNodeBlockSize =
        ulTableOffset != 0 ? ulTableOffset + IndexChildTableSize(ulNodeAreaSize) : ulNodeAreaSize;
    PVOID pNodeArea = ExAllocatePoolWithTag(NonPagedPool, ulNodeBlockSize, TRVN_TAG_INDEX_AREA);
    if (pNodeArea == NULL) {
        return NULL;
    }
    PVOID pNameArea = ExAllocatePoolWithTag(NonPagedPool, ulNameAreaSize, TRVN_TAG_INDEX_AREA);
    if (pNameArea == NULL) {
        ExFreePoolWithTag(pNodeArea, TRVN_TAG_INDEX_AREA);
        return NULL;
    }
    PFileIndex pIndex = InitFileIndex(pNodeArea, ulNodeAreaSize, NULL, NULL, pNameArea, ulNameAreaSize, NULL, NULL);
    if (pIndex == NULL) {
        ExFreePoolWithTag(pNameArea, TRVN_TAG_INDEX_AREA);
        ExFreePoolWithTag(pNodeArea, TRVN_TAG_INDEX_AREA);
        return NULL;
    }
    ResetIndexAreas(pIndex);
    BuildIndexChildTable(pIndex, ulTableOffset != 0 ? (PUCHAR)pNodeArea + ulTableOffset : NULL);
    return pIndex;
}

VOID ReleaseIndexFile(HANDLE hFile, PIndexFileMapping pMapping);  // index_file.cpp

VOID FreeFileIndex(PFileIndex pIndex) {
    if (pIndex == NULL) {
        return;
    }
    if (pIndex->m_NodeMapping.m_pView != NULL || pIndex->m_hNodeFile != NULL) {
        ReleaseIndexFile(pIndex->m_hNodeFile, &pIndex->m_NodeMapping);
        ReleaseIndexFile(pIndex->m_hNameFile, &pIndex->m_NameMapping);
    } else {
        ExFreePoolWithTag(pIndex->m_pNodeArea, TRVN_TAG_INDEX_AREA);
        ExFreePoolWithTag(pIndex->m_pNameArea, TRVN_TAG_INDEX_AREA);
    }
    ExDeleteResourceLite(&pIndex->m_Lock);
    ExFreeToNPagedLookasideList(&g_FileIndexPool, pIndex);
}

// A name argument fit to be stored or compared: even length, buffer present.
static BOOLEAN IsUsableName(PCUNICODE_STRING pustrName) {
    return pustrName != NULL && (pustrName->Length & 1) == 0 && (pustrName->Length == 0 || pustrName->Buffer != NULL);
}

static BOOLEAN NamesParent(PCUNICODE_STRING pustrName) {
    return pustrName->Length == 0 || (pustrName->Length == sizeof(WCHAR) && pustrName->Buffer[0] == L'\\');
}

BOOLEAN FindIndexChild(PFileIndex pIndex, const FileIndexEntry* pParent, PCUNICODE_STRING pustrName,
                       PFileIndexEntry pResult) {
    if (pIndex == NULL || pParent == NULL || !IsUsableName(pustrName) || pResult == NULL) {
        return FALSE;
    }
    if (NamesParent(pustrName)) {
        *pResult = *pParent;
        return TRUE;
    }
    PFileIndexEntry pLiveParent = IndexEntryAt(pIndex, pParent->m_ulOffset);
    if (pLiveParent == NULL || pLiveParent->m_ulType != FILE_INDEX_TYPE_DIRECTORY ||
        pLiveParent->m_ulFirstChildOffset == 0) {
        return FALSE;
    }
    if (HasIndexChildTable(pIndex)) {
        PFileIndexEntry pFound;
        if (!FindIndexChildInTable(pIndex, pLiveParent->m_ulOffset, pustrName, &pFound)) {
            return FALSE;
        }
        *pResult = *pFound;
        return TRUE;
    }
    ULONG ulOffset = pLiveParent->m_ulFirstChildOffset;
    ULONG ulLimit = IndexWalkLimit(pIndex);
    for (ULONG ulStep = 0; ulStep < ulLimit; ulStep++) {
        PFileIndexEntry pEntry = IndexEntryAt(pIndex, ulOffset);
        if (pEntry == NULL || pEntry->m_ulOffset == 0) {
            return FALSE;
        }
        UNICODE_STRING ustrEntryName;
        if (IndexEntryName(pIndex, pEntry, &ustrEntryName) &&
            RtlEqualUnicodeString(&ustrEntryName, pustrName, TRUE)) {
            *pResult = *pEntry;
            return TRUE;
        }
        ulOffset = pEntry->m_ulNextSiblingOffset;
    }
    return FALSE;
}

// Room for one more entry and a name of ulNameLength bytes.
static BOOLEAN HasRoom(PFileIndex pIndex, ULONG ulNameLength) {
    return pIndex->m_ulNodeUsed <= pIndex->m_ulNodeCapacity &&
           (ULONGLONG)pIndex->m_ulNameUsed + ulNameLength <= pIndex->m_ulNameCapacity;
}

// Appends a name to the names region; returns its offset. The caller checked the room.
static ULONG StoreName(PFileIndex pIndex, PCUNICODE_STRING pustrName) {
    ULONG ulNameOffset = pIndex->m_ulNameUsed;
    RtlCopyMemory(pIndex->m_pNameArea + FILE_INDEX_NAME_HEADER_SIZE + ulNameOffset, pustrName->Buffer,
                  pustrName->Length);
    pIndex->m_ulNameUsed += pustrName->Length;
    return ulNameOffset;
}

BOOLEAN AddIndexChild(PFileIndex pIndex, const FileIndexEntry* pParent, PCUNICODE_STRING pustrName,
                      ULONG ulType) {
    if (pIndex == NULL || pParent == NULL || !IsUsableName(pustrName)) {
        return FALSE;
    }
    PFileIndexEntry pLiveParent = IndexEntryAt(pIndex, pParent->m_ulOffset);
    if (pLiveParent == NULL || pLiveParent->m_ulType != FILE_INDEX_TYPE_DIRECTORY) {
        return FALSE;
    }
    FileIndexEntry existing;
    if (FindIndexChild(pIndex, pParent, pustrName, &existing)) {
        return FALSE;
    }
    if (!HasRoom(pIndex, pustrName->Length)) {
        return FALSE;
    }
    PFileIndexEntry pNew = IndexEntryAt(pIndex, pIndex->m_ulNodeUsed);
    if (pNew == NULL) {
        return FALSE;
    }
    ULONG ulOldFirst = pLiveParent->m_ulFirstChildOffset;
    FileIndexEntry entry;
    RtlZeroMemory(&entry, sizeof(entry));
    entry.m_ulType = ulType;
    entry.m_ulNameLength = pustrName->Length;
    entry.m_ulOffset = pIndex->m_ulNodeUsed;
    entry.m_ulParentOffset = pLiveParent->m_ulOffset;
    entry.m_ulNextSiblingOffset = ulOldFirst;
    entry.m_ulNameOffset = StoreName(pIndex, pustrName);
    *pNew = entry;
    pIndex->m_ulNodeUsed += FILE_INDEX_ENTRY_SIZE;

    PFileIndexEntry pOldFirst = ulOldFirst != 0 ? IndexEntryAt(pIndex, ulOldFirst) : NULL;
    if (pOldFirst != NULL) {
        pOldFirst->m_ulPrevSiblingOffset = entry.m_ulOffset;
    }
    pLiveParent->m_ulFirstChildOffset = entry.m_ulOffset;
    AddToIndexChildTable(pIndex, pNew);
    return TRUE;
}

// The neighbours an unlink rewrites. FALSE when a link of the entry leads
// outside the node area; nothing has been written then.
typedef struct _UnlinkPlan {
    PFileIndexEntry pEntry;
    PFileIndexEntry pPrev;
    PFileIndexEntry pNext;
    PFileIndexEntry pParent;
} UnlinkPlan;

static BOOLEAN PlanUnlink(PFileIndex pIndex, const FileIndexEntry* pEntry, UnlinkPlan* pPlan) {
    if (pEntry->m_ulOffset == 0) {
        return FALSE;
    }
    pPlan->pEntry = IndexEntryAt(pIndex, pEntry->m_ulOffset);
    if (pPlan->pEntry == NULL) {
        return FALSE;
    }
    const FileIndexEntry* pLive = pPlan->pEntry;
    pPlan->pPrev = pLive->m_ulPrevSiblingOffset != 0 ? IndexEntryAt(pIndex, pLive->m_ulPrevSiblingOffset) : NULL;
    pPlan->pNext = pLive->m_ulNextSiblingOffset != 0 ? IndexEntryAt(pIndex, pLive->m_ulNextSiblingOffset) : NULL;
    pPlan->pParent = IndexEntryAt(pIndex, pLive->m_ulParentOffset);
    return (pLive->m_ulPrevSiblingOffset == 0 || pPlan->pPrev != NULL) &&
           (pLive->m_ulNextSiblingOffset == 0 || pPlan->pNext != NULL) && pPlan->pParent != NULL;
}

static VOID ApplyUnlink(const UnlinkPlan* pPlan) {
    PFileIndexEntry pEntry = pPlan->pEntry;
    if (pPlan->pPrev != NULL) {
        pPlan->pPrev->m_ulNextSiblingOffset = pEntry->m_ulNextSiblingOffset;
    }
    if (pPlan->pNext != NULL) {
        pPlan->pNext->m_ulPrevSiblingOffset = pEntry->m_ulPrevSiblingOffset;
    }
    if (pPlan->pParent->m_ulFirstChildOffset == pEntry->m_ulOffset) {
        pPlan->pParent->m_ulFirstChildOffset = pEntry->m_ulNextSiblingOffset;
    }
}

BOOLEAN UnlinkIndexEntry(PFileIndex pIndex, const FileIndexEntry* pEntry) {
    UnlinkPlan plan;
    if (pIndex == NULL || pEntry == NULL || !PlanUnlink(pIndex, pEntry, &plan)) {
        return FALSE;
    }
    RemoveFromIndexChildTable(pIndex, plan.pEntry);
    ApplyUnlink(&plan);
    return TRUE;
}

// TRUE when the entry at ulOffset is ulAncestor or lies below it. A parent
// chain that leaves the area or does not end within the walk limit counts as
// below, so that nothing is moved on a corrupt chain.
static BOOLEAN IsAtOrBelow(PFileIndex pIndex, ULONG ulOffset, ULONG ulAncestor) {
    ULONG ulLimit = IndexWalkLimit(pIndex);
    for (ULONG ulStep = 0; ulStep < ulLimit; ulStep++) {
        if (ulOffset == ulAncestor) {
            return TRUE;
        }
        if (ulOffset == 0) {
            return FALSE;
        }
        PFileIndexEntry pEntry = IndexEntryAt(pIndex, ulOffset);
        if (pEntry == NULL) {
            return TRUE;
        }
        ulOffset = pEntry->m_ulParentOffset;
    }
    return TRUE;
}

BOOLEAN MoveIndexEntry(PFileIndex pIndex, const FileIndexEntry* pEntry, const FileIndexEntry* pNewParent,
                       PCUNICODE_STRING pustrNewName) {
    if (pIndex == NULL || pEntry == NULL || pNewParent == NULL || !IsUsableName(pustrNewName) ||
        pEntry->m_ulOffset == 0) {
        return FALSE;
    }
    FileIndexEntry existing;
    if (FindIndexChild(pIndex, pNewParent, pustrNewName, &existing)) {
        return FALSE;
    }
    // The new parent must be a directory that is not the entry itself or one
    // of its descendants: either would leave the entry where no lookup reaches.
    PFileIndexEntry pLiveParent = IndexEntryAt(pIndex, pNewParent->m_ulOffset);
    if (pLiveParent == NULL || pLiveParent->m_ulType != FILE_INDEX_TYPE_DIRECTORY ||
        IsAtOrBelow(pIndex, pNewParent->m_ulOffset, pEntry->m_ulOffset)) {
        return FALSE;
    }
    UnlinkPlan plan;
    if (!PlanUnlink(pIndex, pEntry, &plan)) {
        return FALSE;
    }
    PFileIndexEntry pLive = plan.pEntry;
    UNICODE_STRING ustrOldName;
    const BOOLEAN bNewName =
        !IndexEntryName(pIndex, pLive, &ustrOldName) || !RtlEqualUnicodeString(&ustrOldName, pustrNewName, TRUE);
    if (bNewName && (ULONGLONG)pIndex->m_ulNameUsed + pustrNewName->Length > pIndex->m_ulNameCapacity) {
        return FALSE;
    }
    // Out of the table under its old parent and name, back in under the new.
    RemoveFromIndexChildTable(pIndex, pLive);
    if (bNewName) {
        pLive->m_ulNameOffset = StoreName(pIndex, pustrNewName);
        pLive->m_ulNameLength = pustrNewName->Length;
    }
    ApplyUnlink(&plan);

    ULONG ulFirst = pLiveParent->m_ulFirstChildOffset;
    pLive->m_ulParentOffset = pNewParent->m_ulOffset;
    pLive->m_ulPrevSiblingOffset = 0;
    pLive->m_ulNextSiblingOffset = ulFirst;
    PFileIndexEntry pFirst = ulFirst != 0 ? IndexEntryAt(pIndex, ulFirst) : NULL;
    if (pFirst != NULL) {
        pFirst->m_ulPrevSiblingOffset = pLive->m_ulOffset;
    }
    pLiveParent->m_ulFirstChildOffset = pLive->m_ulOffset;
    AddToIndexChildTable(pIndex, pLive);
    return TRUE;
}
