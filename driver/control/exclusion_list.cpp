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

// A path whose buffer or entry cannot be allocated is left out; the control
// code has no way to report it.
VOID AddExcludedPaths(PVOID PathSlots, ULONG Length) {
    ResourceLock lock(&g_ExcludedPathListLock, TRUE);
    const ULONG ulCount = Length / PATH_SLOT_SIZE;
    for (ULONG i = 0; i < ulCount; i++) {
        PoolBlock pathBlock(PATH_SLOT_SIZE, TRVN_TAG_GENERAL);
        if (pathBlock.Get() == NULL) {
            continue;
        }
        UNICODE_STRING ustrPath;
        MakeSlotPath((PWSTR)pathBlock.Get(), (PCWSTR)((PUCHAR)PathSlots + i * PATH_SLOT_SIZE), &ustrPath);

        PExcludedPathEntry* ppLink = &g_pExcludedPathList;
        LONG lOrder = 1;
        for (; *ppLink != NULL; ppLink = &(*ppLink)->m_pNext) {
            lOrder = RtlCompareUnicodeString(&(*ppLink)->m_ustrPath, &ustrPath, TRUE);
            if (lOrder >= 0) {
                break;
            }
        }
        if (*ppLink != NULL && lOrder == 0) {
            continue;  // listed already
        }

        PExcludedPathEntry pEntry =
            (PExcludedPathEntry)ExAllocatePoolWithTag(NonPagedPool, sizeof(ExcludedPathEntry), TRVN_TAG_GENERAL);
        if (pEntry == NULL) {
            continue;
        }
        pEntry->m_ustrPath = ustrPath;
        pEntry->m_ustrPath.Buffer = (PWSTR)pathBlock.Detach();
        pEntry->m_pNext = *ppLink;
        *ppLink = pEntry;
    }
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
