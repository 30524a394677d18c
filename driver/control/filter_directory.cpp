// Filter directories: set once, then read without a lock; drive paths map to
// real paths inside one filter directory.
#include "control/filter_directory.h"

#include "base/strings.h"
#include "base/scoped.h"
#include "base/log.h"
#include "base/global_state.h"

PFilterDirectoryEntry g_pFilterDirectoryList = NULL;
ULONG g_ulFilterMask = 0;
ERESOURCE g_FilterDirectoryListLock;

// A filter mask has a flag for 31 filter directories; more would share flags.
#define MAX_FILTER_DIRECTORIES 31

VOID InitFilterDirectoryList() {
    g_pFilterDirectoryList = NULL;
    g_ulFilterMask = 0;
    InitFilterPathPool();
    ExInitializeResourceLite(&g_FilterDirectoryListLock);
}

static VOID FreeFilterDirectoryEntries(PFilterDirectoryEntry Entry) {
    while (Entry != NULL) {
        PFilterDirectoryEntry pNext = Entry->m_pNext;
        FreeFilterPathBlock(Entry->m_ustrRoot.Buffer);
        ExFreePoolWithTag(Entry, TRVN_TAG_GENERAL);
        Entry = pNext;
    }
}

// Refuses more than 31 filter directories (they could not all be named by a
// mask) and, when memory runs out, gives back what it took and stays unset.
BOOLEAN SetFilterDirectories(PVOID PathSlots, ULONG Length) {
    ResourceLock lock(&g_FilterDirectoryListLock, TRUE);
    if (g_pFilterDirectoryList != NULL) {
        return FALSE;
    }
    const ULONG ulCount = Length / PATH_SLOT_SIZE;
    if (ulCount == 0 || ulCount > MAX_FILTER_DIRECTORIES) {
        return FALSE;
    }

    PFilterDirectoryEntry pHead = NULL;
    PFilterDirectoryEntry* ppTail = &pHead;
    for (ULONG i = 0; i < ulCount; i++) {
        PFilterDirectoryEntry pEntry = (PFilterDirectoryEntry)ExAllocatePoolWithTag(
            NonPagedPool, sizeof(FilterDirectoryEntry), TRVN_TAG_GENERAL);
        PWSTR pRoot = (PWSTR)AllocateFilterPathBlock();
        if (pEntry == NULL || pRoot == NULL) {
            if (pEntry != NULL) {
                ExFreePoolWithTag(pEntry, TRVN_TAG_GENERAL);
            }
            if (pRoot != NULL) {
                FreeFilterPathBlock(pRoot);
            }
            FreeFilterDirectoryEntries(pHead);
            return FALSE;
        }
        CopyStringToBuffer(pRoot, PATH_BUFFER_SIZE, (PCWSTR)((PUCHAR)PathSlots + i * PATH_SLOT_SIZE));
        RtlInitUnicodeString(&pEntry->m_ustrRoot, pRoot);
        pEntry->m_ppIndexHolder = NULL;
        pEntry->m_pNext = NULL;
        *ppTail = pEntry;
        ppTail = &pEntry->m_pNext;
    }

    // Publish the mask first and the head last, so that a reader that sees
    // the head sees the whole list.
    g_ulFilterMask = (ulCount >= 32) ? 0xFFFFFFFF : ((1UL << ulCount) - 1);
    __atomic_store_n(&g_pFilterDirectoryList, pHead, __ATOMIC_RELEASE);
    return TRUE;
}

static PFilterDirectoryEntry FilterDirectoryListHead() {
    return __atomic_load_n(&g_pFilterDirectoryList, __ATOMIC_ACQUIRE);
}

BOOLEAN GetFilterDirectoryList(PVOID Output, ULONG OutputLength, PULONG BytesWritten) {
    ULONG ulWritten = 0;
    BOOLEAN bComplete = TRUE;
    for (PFilterDirectoryEntry pEntry = FilterDirectoryListHead(); pEntry != NULL; pEntry = pEntry->m_pNext) {
        if (ulWritten + PATH_SLOT_SIZE > OutputLength) {
            bComplete = FALSE;
            break;
        }
        CopyStringToBuffer((PWSTR)((PUCHAR)Output + ulWritten), PATH_SLOT_SIZE, pEntry->m_ustrRoot.Buffer);
        ulWritten += PATH_SLOT_SIZE;
    }
    if (BytesWritten != NULL) {
        *BytesWritten = ulWritten;
    }
    return bComplete;
}

ULONG GetFilterDirectoryCount(PULONG LastFilterFlag) {
    ULONG ulCount = 0;
    for (PFilterDirectoryEntry pEntry = FilterDirectoryListHead(); pEntry != NULL; pEntry = pEntry->m_pNext) {
        ulCount++;
    }
    if (LastFilterFlag != NULL) {
        *LastFilterFlag = (ulCount == 0 || ulCount > 32) ? 0 : (1UL << (ulCount - 1));
    }
    return ulCount;
}

ULONG GetFilterMask() {
    return FilterDirectoryListHead() != NULL ? g_ulFilterMask : 0;
}

PFilterDirectoryEntry GetFilterDirectory(ULONG FilterMask) {
    const ULONG ulAll = GetFilterMask();
    ULONG ulFlag = 1;
    for (PFilterDirectoryEntry pEntry = FilterDirectoryListHead(); pEntry != NULL && ulFlag != 0 && ulFlag <= ulAll;
         pEntry = pEntry->m_pNext, ulFlag <<= 1) {
        if (FilterMask & ulFlag) {
            return pEntry;
        }
    }
    return NULL;
}

BOOLEAN GetRealFilePath(PCUNICODE_STRING Root, PCUNICODE_STRING Path, PUNICODE_STRING RealPath, BOOLEAN NewBuffer) {
    if (NewBuffer) {
        RealPath->Buffer = (PWSTR)AllocateFilterPathBlock();
        if (RealPath->Buffer == NULL) {
            TRVN_LOG("GetRealFilePath", 95, "failed to allocate memory\r\n");
            RealPath->Length = 0;
            RealPath->MaximumLength = 0;
            return FALSE;
        }
        RealPath->Length = 0;
        RealPath->MaximumLength = PATH_BUFFER_SIZE;
    }

    if (Root->Length <= Path->Length) {
        UNICODE_STRING ustrHead = *Path;
        ustrHead.Length = Root->Length;
        ustrHead.MaximumLength = Root->Length;
        if (RtlCompareUnicodeString(Root, &ustrHead, TRUE) == 0) {
            RtlCopyUnicodeString(RealPath, Path);
            return TRUE;
        }
    }

    RtlCopyUnicodeString(RealPath, Root);
    // The path without its drive letter and colon; shorter paths are invalid.
    const ULONG ulPathChars = Path->Length / sizeof(WCHAR);
    NTSTATUS nStatus = STATUS_INVALID_PARAMETER;
    if (ulPathChars >= 2) {
        nStatus = AppendStringToCountedN(RealPath, Path->Buffer + 2, ulPathChars - 2);
    }
    TRVN_ASSERT(NT_SUCCESS( nStatus ), "filter_directory", 121);
    return TRUE;
}

BOOLEAN GetRealFilePathForFilter(PCUNICODE_STRING Path, PUNICODE_STRING RealPath, ULONG FilterMask,
                                 BOOLEAN NewBuffer) {
    if (FilterMask == 0) {
        return CopyCountedString(RealPath, Path) == STATUS_SUCCESS;
    }
    PFilterDirectoryEntry pEntry = GetFilterDirectory(FilterMask);
    if (pEntry == NULL) {
        return FALSE;
    }
    return GetRealFilePath(&pEntry->m_ustrRoot, Path, RealPath, NewBuffer);
}

VOID FreeRealFilePath(PUNICODE_STRING RealPath) {
    if (RealPath != NULL && RealPath->Buffer != NULL) {
        FreeFilterPathBlock(RealPath->Buffer);
    }
}

BOOLEAN IsFilterIndexLoaded() {
    if (FilterDirectoryListHead() == NULL) {
        return FALSE;
    }
    ULONG ulLastFlag = 0;
    GetFilterDirectoryCount(&ulLastFlag);
    PFilterDirectoryEntry pEntry = GetFilterDirectory(ulLastFlag);
    return pEntry != NULL && pEntry->m_ppIndexHolder != NULL &&
           __atomic_load_n(pEntry->m_ppIndexHolder, __ATOMIC_ACQUIRE) != NULL;
}
