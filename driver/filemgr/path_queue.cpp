// Joining path pieces, and the first-in first-out queue of relative paths
// that walks a directory tree breadth-first during a directory copy.
#include "base/strings.h"
#include "base/global_state.h"
#include "filemgr/file_manager.h"

// Appends a backslash unless the string already ends in one or the tail
// begins with one (an empty tail begins with nothing), then the tail.
static BOOLEAN AppendPathComponent(PUNICODE_STRING pustrOut, PCUNICODE_STRING pustrTail) {
    const ULONG ulChars = pustrOut->Length / sizeof(WCHAR);
    const BOOLEAN bEndsInSeparator = ulChars != 0 && pustrOut->Buffer[ulChars - 1] == L'\\';
    const BOOLEAN bTailBegins = pustrTail != NULL && pustrTail->Length != 0 && pustrTail->Buffer[0] == L'\\';
    NTSTATUS nStatus = STATUS_SUCCESS;
    if (!bEndsInSeparator && !bTailBegins) {
        nStatus = AppendStringToCounted(pustrOut, L"\\");
    }
    if (NT_SUCCESS(nStatus) && pustrTail != NULL && pustrTail->Length != 0) {
        nStatus = AppendCountedString(pustrOut, pustrTail);
    }
    return NT_SUCCESS(nStatus);
}

BOOLEAN JoinPath(PCUNICODE_STRING pustrBase, PCUNICODE_STRING pustrTail, PUNICODE_STRING pustrOut,
                 BOOLEAN bTakeBuffer) {
    if (pustrOut == NULL) {
        return FALSE;
    }
    if (bTakeBuffer && !AllocatePathBuffer(pustrOut)) {
        return FALSE;
    }
    // Joined in place when the base is the output: the base is already there.
    if (pustrBase != pustrOut) {
        pustrOut->Length = 0;
        if (pustrBase != NULL) {
            RtlCopyUnicodeString(pustrOut, pustrBase);
        }
    }
    // What does not fit is cut by the bounded append; the join itself counts
    // as made, and the cut path then fails where it is used.
    AppendPathComponent(pustrOut, pustrTail);
    return TRUE;
}

// ---- Path queue ---------------------------------------------------------------

struct PathQueueElement {
    UNICODE_STRING m_ustrRelativePath;  // in a general path pool block
    PathQueueElement* m_pNext;
};

static VOID FreePathQueueElement(PathQueueElement* pElement) {
    FreePathBuffer(&pElement->m_ustrRelativePath);
    ExFreePoolWithTag(pElement, TRVN_TAG_GENERAL);
}

PPathQueue CreatePathQueue(PCUNICODE_STRING pustrRealDirectory, PCUNICODE_STRING pustrDrivePath) {
    PPathQueue pQueue = (PPathQueue)ExAllocatePoolWithTag(NonPagedPool, sizeof(PathQueue), TRVN_TAG_GENERAL);
    if (pQueue == NULL) {
        return NULL;
    }
    RtlZeroMemory(pQueue, sizeof(PathQueue));
    if (!AllocatePathBuffer(&pQueue->m_ustrRealDirectory) || !AllocatePathBuffer(&pQueue->m_ustrDrivePath) ||
        !NT_SUCCESS(CopyCountedString(&pQueue->m_ustrRealDirectory, pustrRealDirectory)) ||
        !NT_SUCCESS(CopyCountedString(&pQueue->m_ustrDrivePath, pustrDrivePath))) {
        DestroyPathQueue(pQueue);
        return NULL;
    }
    return pQueue;
}

BOOLEAN PushPathQueue(PPathQueue pQueue, PCUNICODE_STRING pustrRelativePath) {
    if (pQueue == NULL) {
        return FALSE;
    }
    PathQueueElement* pElement =
        (PathQueueElement*)ExAllocatePoolWithTag(NonPagedPool, sizeof(PathQueueElement), TRVN_TAG_GENERAL);
    if (pElement == NULL) {
        return FALSE;
    }
    RtlZeroMemory(pElement, sizeof(PathQueueElement));
    if (!AllocatePathBuffer(&pElement->m_ustrRelativePath)) {
        ExFreePoolWithTag(pElement, TRVN_TAG_GENERAL);
        return FALSE;
    }
    if (!NT_SUCCESS(CopyCountedString(&pElement->m_ustrRelativePath, pustrRelativePath))) {
        FreePathQueueElement(pElement);
        return FALSE;
    }
    if (pQueue->m_pTail == NULL) {
        pQueue->m_pHead = pElement;
    } else {
        pQueue->m_pTail->m_pNext = pElement;
    }
    pQueue->m_pTail = pElement;
    return TRUE;
}

BOOLEAN PopPathQueue(PPathQueue pQueue, PUNICODE_STRING pustrOut, BOOLEAN bTakeBuffer) {
    if (pQueue == NULL || pQueue->m_pHead == NULL) {
        return FALSE;
    }
    PathQueueElement* pElement = pQueue->m_pHead;
    pQueue->m_pHead = pElement->m_pNext;
    if (pQueue->m_pHead == NULL) {
        pQueue->m_pTail = NULL;
    }
    BOOLEAN bResult = TRUE;
    if (pustrOut != NULL) {
        if (bTakeBuffer && !AllocatePathBuffer(pustrOut)) {
            bResult = FALSE;
        } else {
            bResult = NT_SUCCESS(CopyCountedString(pustrOut, &pElement->m_ustrRelativePath));
        }
    }
    FreePathQueueElement(pElement);
    return bResult;
}

VOID DestroyPathQueue(PPathQueue pQueue) {
    if (pQueue == NULL) {
        return;
    }
    while (pQueue->m_pHead != NULL) {
        PopPathQueue(pQueue, NULL, FALSE);
    }
    if (pQueue->m_ustrRealDirectory.Buffer != NULL) {
        FreePathBuffer(&pQueue->m_ustrRealDirectory);
    }
    if (pQueue->m_ustrDrivePath.Buffer != NULL) {
        FreePathBuffer(&pQueue->m_ustrDrivePath);
    }
    ExFreePoolWithTag(pQueue, TRVN_TAG_GENERAL);
}
