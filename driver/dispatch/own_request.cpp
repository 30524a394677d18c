// Own request packets of the handlers, addressed to the real FILE_OBJECT of
// a redirected open and sent below the filter.
#include "dispatch/handler_common.h"

#include "base/log.h"
#include "base/global_state.h"
#include "filemgr/file_manager.h"

static PDEVICE_OBJECT LowerDeviceOf(PDEVICE_OBJECT FilterDevice) {
    return ((PTervaneDeviceExtension)FilterDevice->DeviceExtension)->m_pLowerDevice;
}

BOOLEAN PrepareOwnRequest(OwnRequest* Request, PDEVICE_OBJECT FilterDevice, ULONG RouteFlag,
                          PFILE_OBJECT RealFileObject) {
    KeInitializeEvent(&Request->m_kEvent, SynchronizationEvent, FALSE);
    Request->m_IoStatus.Status = STATUS_SUCCESS;
    Request->m_IoStatus.Information = 0;

    // The route may lead to another volume's stack than the one below this
    // filter device: the packet has room for the deeper of the two.
    CCHAR cStackSize = FilterDevice->StackSize;
    PDEVICE_OBJECT pFilterC = g_apFilterDevices['C' - 'A'];
    if ((RouteFlag & 3) != 0 && pFilterC != NULL && pFilterC->StackSize > cStackSize) {
        cStackSize = pFilterC->StackSize;
    }
    PIRP pRealIrp = IoAllocateIrp(cStackSize, FALSE);
    Request->m_pIrp = pRealIrp;
    TRVN_ASSERT(pRealIrp, DISPATCH_SOURCE, __LINE__);
    if (pRealIrp == NULL) {
        return FALSE;
    }
    pRealIrp->UserEvent = &Request->m_kEvent;
    pRealIrp->UserIosb = &Request->m_IoStatus;
    pRealIrp->Tail.Overlay.Thread = PsGetCurrentThread();
    pRealIrp->Tail.Overlay.OriginalFileObject = RealFileObject;
    pRealIrp->RequestorMode = KernelMode;
    PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(pRealIrp);
    pNext->DeviceObject = FilterDevice;
    pNext->FileObject = RealFileObject;
    IoSetCompletionRoutine(pRealIrp, OwnIrpCompletion, NULL, TRUE, TRUE, TRUE);
    return TRUE;
}

NTSTATUS SendOwnRequest(OwnRequest* Request, PDEVICE_OBJECT FilterDevice, ULONG RouteFlag,
                        BOOLEAN bPendingIsUnexpected) {
    NTSTATUS nStatus = CallLowerDevice(RouteFlag, LowerDeviceOf(FilterDevice), Request->m_pIrp);
    // The packet is freed by its completion; it must not be touched again.
    Request->m_pIrp = NULL;
    if (nStatus == STATUS_PENDING && bPendingIsUnexpected) {
        TRVN_ASSERT(FALSE, DISPATCH_SOURCE, __LINE__);
    }
    KeWaitForSingleObject(&Request->m_kEvent, Executive, KernelMode, TRUE, NULL);
    return nStatus;
}
