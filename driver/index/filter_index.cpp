// The index of the last filter directory: loaded once from the control
// request's index record into the filter directory's holder, and asked
// whether a path is listed.
#include "base/global_state.h"
#include "base/log.h"
#include "base/scoped.h"
#include "control/filter_directory.h"
#include "index/file_index.h"

// A counted string over a path slot of the index record: the characters
// before the zero. FALSE when the slot holds no zero (an unterminated slot).
static BOOLEAN SlotToCountedString(PWSTR pwcSlot, PUNICODE_STRING pustr) {
    for (ULONG i = 0; i < PATH_SLOT_CHARS; i++) {
        if (pwcSlot[i] == L'\0') {
            pustr->Length = (USHORT)(i * sizeof(WCHAR));
            pustr->MaximumLength = pustr->Length;
            pustr->Buffer = pwcSlot;
            return TRUE;
        }
    }
    return FALSE;
}

BOOLEAN LoadFilterIndex(ULONG ulFilterFlag, PVOID pIndexRecord) {
    if (pIndexRecord == NULL) {
        return FALSE;
    }
    ResourceLock lock(&g_FilterDirectoryListLock, TRUE);
    PFilterDirectoryEntry pEntry = GetFilterDirectory(ulFilterFlag);
    if (pEntry == NULL) {
        return FALSE;
    }
    if (pEntry->m_ppIndexHolder != NULL && *pEntry->m_ppIndexHolder != NULL) {
        return FALSE;
    }
    UNICODE_STRING ustrNodeFile;
    UNICODE_STRING ustrNameFile;
    PWSTR pwcRecord = (PWSTR)pIndexRecord;
    if (!SlotToCountedString(pwcRecord, &ustrNodeFile) ||
        !SlotToCountedString(pwcRecord + PATH_SLOT_CHARS, &ustrNameFile)) {
        return FALSE;
    }
    if (pEntry->m_ppIndexHolder == NULL) {
        // Without a cell there is nowhere to keep an index: the load fails.
        FileIndex** ppCell = (FileIndex**)ExAllocatePoolWithTag(NonPagedPool, sizeof(FileIndex*), TRVN_TAG_GENERAL);
        if (ppCell == NULL) {
            return FALSE;
        }
        *ppCell = NULL;
        InterlockedExchangePointer((PVOID volatile*)&pEntry->m_ppIndexHolder, ppCell);
    }
    PFileIndex pIndex =
        LoadFileIndex(&ustrNodeFile, FILTER_INDEX_AREA_SIZE, &ustrNameFile, FILTER_INDEX_AREA_SIZE);
    InterlockedExchangePointer((PVOID volatile*)pEntry->m_ppIndexHolder, pIndex);
    return pIndex != NULL;
}

// A null path is reported and, with an index to ask, found in none.
BOOLEAN LookupFilterIndex(struct FileIndex** ppIndexHolder, PCUNICODE_STRING pustrPath) {
    TRVN_ASSERT(pustrPath, "filter_directory", 142);
    if (ppIndexHolder == NULL) {
        return TRUE;
    }
    PFileIndex pIndex = __atomic_load_n(ppIndexHolder, __ATOMIC_ACQUIRE);
    if (pIndex == NULL) {
        return TRUE;
    }
    if (pustrPath == NULL) {
        return FALSE;
    }
    FileIndexEntry result;
    return LookupIndexPath(pIndex, pustrPath, &result);
}
