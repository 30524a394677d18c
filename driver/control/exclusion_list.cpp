// Excluded paths, kept sorted by case-insensitive comparison so that a test
// can stop at the first entry that sorts after the path.
#include "control/exclusion_list.h"

#include "control/filter_directory.h"
#include "base/strings.h"
#include "base/scoped.h"
#include "base/global_state.h"

PExcludedPathEntry g_pExcludedPathList = NULL;
ERESOURCE g_ExcludedPathListLock;

VOID InitExcludedPathList() {
    g_pExcludedPathList = NULL;
    ExInitializeResourceLite(&g_ExcludedPathListLock);
}

// Copies a slot's path, cut to 259 characters, into Buffer (one slot long)
// and makes Path a counted string over it.
static VOID MakeSlotPath(PWSTR Buffer, PCWSTR Slot, PUNICODE_STRING Path) {
    CopyStringToBuffer(Buffer, PATH_SLOT_SIZE, Slot);
    RtlInitUnicodeString(Path, Buffer);
}

// Every entry is allocated before any is linked: without memory for all of
// them the list stays as it was and the caller is told.
NTSTATUS AddExcludedPaths(PVOID PathSlots, ULONG Length) {
    ResourceLock lock(&g_ExcludedPathListLock, TRUE);
    const ULONG ulCount = Length / PATH_SLOT_SIZE;
    PExcludedPathEntry pNew = NULL;
    PExcludedPathEntry* ppTail = &pNew;  // in input order, so that the first spelling of a path is kept
    for (ULONG i = 0; i < ulCount; i++) {
        PoolBlock pathBlock(PATH_SLOT_SIZE, TRVN_TAG_GENERAL);
        PoolBlock entryBlock(sizeof(ExcludedPathEntry), TRVN_TAG_GENERAL);
        if (pathBlock.Get() == NULL || entryBlock.Get() == NULL) {
            while (pNew != NULL) {
                PExcludedPathEntry pNext = pNew->m_pNext;
                ExFreePoolWithTag(pNew->m_ustrPath.Buffer, TRVN_TAG_GENERAL);
                ExFreePoolWithTag(pNew, TRVN_TAG_GENERAL);
                pNew = pNext;
            }
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        PExcludedPathEntry pEntry = (PExcludedPathEntry)entryBlock.Detach();
        MakeSlotPath((PWSTR)pathBlock.Get(), (PCWSTR)((PUCHAR)PathSlots + i * PATH_SLOT_SIZE), &pEntry->m_ustrPath);
        pathBlock.Detach();
        pEntry->m_pNext = NULL;
        *ppTail = pEntry;
        ppTail = &pEntry->m_pNext;
    }
    // New entries go in sorted; a path listed already is dropped.
    while (pNew != NULL) {
        PExcludedPathEntry pEntry = pNew;
        pNew = pNew->m_pNext;
        PExcludedPathEntry* ppLink = &g_pExcludedPathList;
        LONG lOrder = 1;
        for (; *ppLink != NULL; ppLink = &(*ppLink)->m_pNext) {
            lOrder = RtlCompareUnicodeString(&(*ppLink)->m_ustrPath, &pEntry->m_ustrPath, TRUE);
            if (lOrder >= 0) {
                break;
            }
        }
        if (*ppLink != NULL && lOrder == 0) {
            ExFreePoolWithTag(pEntry->m_ustrPath.Buffer, TRVN_TAG_GENERAL);
            ExFreePoolWithTag(pEntry, TRVN_TAG_GENERAL);
            continue;
        }
        pEntry->m_pNext = *ppLink;
        *ppLink = pEntry;
    }
    return STATUS_SUCCESS;
}

VOID RemoveExcludedPaths(PVOID PathSlots, ULONG Length) {
    ResourceLock lock(&g_ExcludedPathListLock, TRUE);
    const ULONG ulCount = Length / PATH_SLOT_SIZE;
    WCHAR wszPath[PATH_SLOT_CHARS];
    for (ULONG i = 0; i < ulCount; i++) {
        UNICODE_STRING ustrPath;
        MakeSlotPath(wszPath, (PCWSTR)((PUCHAR)PathSlots + i * PATH_SLOT_SIZE), &ustrPath);
        for (PExcludedPathEntry* ppLink = &g_pExcludedPathList; *ppLink != NULL; ppLink = &(*ppLink)->m_pNext) {
            PExcludedPathEntry pEntry = *ppLink;
            LONG lOrder = RtlCompareUnicodeString(&pEntry->m_ustrPath, &ustrPath, TRUE);
            if (lOrder == 0) {
                *ppLink = pEntry->m_pNext;
                ExFreePoolWithTag(pEntry->m_ustrPath.Buffer, TRVN_TAG_GENERAL);
                ExFreePoolWithTag(pEntry, TRVN_TAG_GENERAL);
                break;
            }
            if (lOrder > 0) {
                break;
            }
        }
    }
}

BOOLEAN GetExcludedPathList(PVOID Output, ULONG OutputLength, PULONG BytesWritten) {
    ULONG ulWritten = 0;
    BOOLEAN bComplete = TRUE;
    {
        ResourceLock lock(&g_ExcludedPathListLock, FALSE);
        for (PExcludedPathEntry pEntry = g_pExcludedPathList; pEntry != NULL; pEntry = pEntry->m_pNext) {
            if (ulWritten + PATH_SLOT_SIZE > OutputLength) {
                bComplete = FALSE;
                break;
            }
            CopyStringToBuffer((PWSTR)((PUCHAR)Output + ulWritten), PATH_SLOT_SIZE, pEntry->m_ustrPath.Buffer);
            ulWritten += PATH_SLOT_SIZE;
        }
    }
    if (BytesWritten != NULL) {
        *BytesWritten = ulWritten;
    }
    return bComplete;
}

BOOLEAN GetExcludedPathCount(PULONG Count) {
    if (Count == NULL) {
        return FALSE;
    }
    ResourceLock lock(&g_ExcludedPathListLock, FALSE);
    ULONG ulCount = 0;
    for (PExcludedPathEntry pEntry = g_pExcludedPathList; pEntry != NULL; pEntry = pEntry->m_pNext) {
        ulCount++;
    }
    *Count = ulCount;
    return TRUE;
}

BOOLEAN IsExcludedPath(PCUNICODE_STRING Path) {
    ResourceLock lock(&g_ExcludedPathListLock, FALSE);
    for (PExcludedPathEntry pEntry = g_pExcludedPathList; pEntry != NULL; pEntry = pEntry->m_pNext) {
        LONG lOrder = RtlCompareUnicodeString(&pEntry->m_ustrPath, Path, TRUE);
        if (lOrder == 0) {
            return TRUE;
        }
        if (RtlPrefixUnicodeString(&pEntry->m_ustrPath, Path, TRUE)) {
            if (Path->Buffer[pEntry->m_ustrPath.Length / sizeof(WCHAR)] == L'\\') {
                return TRUE;
            }
        } else if (lOrder > 0) {
            return FALSE;
        }
    }
    return FALSE;
}
