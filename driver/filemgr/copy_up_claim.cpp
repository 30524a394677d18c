// Copy-up claims: a copy into filter directory 0 is made per file, not per
// open. Whoever copies a drive path up claims it first; a second copy-up of
// the same path waits for the claim to end and then finds the copy made.
// The list of claims has its own lock, held only for the walk and the link
// change: never across the copy, never while waiting, never with another
// list's lock.
#include "base/scoped.h"
#include "base/global_state.h"
#include "filemgr/file_manager.h"

struct CopyUpClaim {
    struct CopyUpClaim* m_pNext;
    KEVENT m_kReleased;           // notification event, set when the claim ends
    ULONG m_ulReferences;         // the holder and every waiter; under the list's lock
    UNICODE_STRING m_ustrPath;    // the claimed drive path, in the record's own tail
};

static PCopyUpClaim s_pCopyUpClaims;
static ERESOURCE s_CopyUpClaimLock;
static LONG volatile s_lCopyUpGeneration;

VOID InitCopyUpClaims() {
    s_pCopyUpClaims = NULL;
    s_lCopyUpGeneration = 0;
    ExInitializeResourceLite(&s_CopyUpClaimLock);
}

// Drops one reference; the last one frees the record.
static VOID DereferenceClaim(PCopyUpClaim pClaim) {
    BOOLEAN bLast;
    {
        ResourceLock lock(&s_CopyUpClaimLock, TRUE);
        bLast = --pClaim->m_ulReferences == 0;
    }
    if (bLast) {
        ExFreePoolWithTag(pClaim, TRVN_TAG_GENERAL);
    }
}

NTSTATUS ClaimCopyUpPath(PCUNICODE_STRING pustrPath, PCopyUpClaim* ppClaim) {
    *ppClaim = NULL;
    // The record and its path are one block, taken before the lock.
    PCopyUpClaim pOwn = (PCopyUpClaim)ExAllocatePoolWithTag(NonPagedPool, sizeof(CopyUpClaim) + pustrPath->Length,
                                                            TRVN_TAG_GENERAL);
    if (pOwn == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    KeInitializeEvent(&pOwn->m_kReleased, NotificationEvent, FALSE);
    pOwn->m_ulReferences = 1;
    pOwn->m_ustrPath.Length = pOwn->m_ustrPath.MaximumLength = pustrPath->Length;
    pOwn->m_ustrPath.Buffer = (PWSTR)(pOwn + 1);
    RtlCopyMemory(pOwn->m_ustrPath.Buffer, pustrPath->Buffer, pustrPath->Length);

    for (;;) {
        PCopyUpClaim pHeld = NULL;
        {
            ResourceLock lock(&s_CopyUpClaimLock, TRUE);
            for (pHeld = s_pCopyUpClaims; pHeld != NULL; pHeld = pHeld->m_pNext) {
                if (RtlEqualUnicodeString(&pHeld->m_ustrPath, &pOwn->m_ustrPath, TRUE)) {
                    break;
                }
            }
            if (pHeld == NULL) {
                pOwn->m_pNext = s_pCopyUpClaims;
                s_pCopyUpClaims = pOwn;
                *ppClaim = pOwn;
                return STATUS_SUCCESS;
            }
            pHeld->m_ulReferences++;
        }
        KeWaitForSingleObject(&pHeld->m_kReleased, Executive, KernelMode, FALSE, NULL);
        DereferenceClaim(pHeld);
    }
}

VOID ReleaseCopyUpPath(PCopyUpClaim pClaim) {
    if (pClaim == NULL) {
        return;
    }
    {
        ResourceLock lock(&s_CopyUpClaimLock, TRUE);
        PCopyUpClaim* ppLink = &s_pCopyUpClaims;
        while (*ppLink != NULL && *ppLink != pClaim) {
            ppLink = &(*ppLink)->m_pNext;
        }
        if (*ppLink != NULL) {
            *ppLink = pClaim->m_pNext;
        }
    }
    KeSetEvent(&pClaim->m_kReleased, 0, FALSE);
    DereferenceClaim(pClaim);
}

VOID NoteCopyInPackLocation() {
    InterlockedIncrement(&s_lCopyUpGeneration);
}

ULONG CurrentCopyUpGeneration() {
    return (ULONG)InterlockedCompareExchange(&s_lCopyUpGeneration, 0, 0);
}

VOID ReleaseCopyUpClaims() {
    ExDeleteResourceLite(&s_CopyUpClaimLock);
}
