// Request routing: one dispatch entry for every device of the driver. The
// control device serves the control protocol; a filter device passes every
// request down unless it belongs to an open served from a filter directory.
#include "base/log.h"
#include "core/tervane.h"

#include "control/process_list.h"
#include "dispatch/dispatch.h"

// A handler of requests on a redirected open. It owns the request from then
// on: it completes it or passes it down itself.
typedef NTSTATUS (*PTERVANE_REQUEST_HANDLER)(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry Entry);

// Handlers by major function for file objects that have an entry in the
// open-file table; a null slot is logged as not implemented and passed down.
static PTERVANE_REQUEST_HANDLER RoutingTableHandler(UCHAR MajorFunction) {
    switch (MajorFunction) {
    case IRP_MJ_CLOSE: return TervaneClose;
    case IRP_MJ_READ: return TervaneRead;
    case IRP_MJ_WRITE: return TervaneWrite;
    case IRP_MJ_QUERY_INFORMATION: return TervaneQueryInformation;
    case IRP_MJ_SET_INFORMATION: return TervaneSetInformation;
    case IRP_MJ_FLUSH_BUFFERS: return TervaneFlushBuffers;
    case IRP_MJ_QUERY_VOLUME_INFORMATION: return TervaneQueryVolumeInformation;
    case IRP_MJ_DIRECTORY_CONTROL: return TervaneDirectoryControl;
    case IRP_MJ_FILE_SYSTEM_CONTROL: return TervaneFileSystemControl;
    case IRP_MJ_LOCK_CONTROL: return TervaneLockControl;
    case IRP_MJ_CLEANUP: return TervaneCleanup;
    case IRP_MJ_QUERY_SECURITY: return TervaneQuerySecurity;
    case IRP_MJ_SET_SECURITY: return TervaneSetSecurity;
    default: return NULL;
    }
}

NTSTATUS TervaneDeviceRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    Irp->IoStatus.Status = STATUS_SUCCESS;
    Irp->IoStatus.Information = 0;

    PIO_STACK_LOCATION pStack = IoGetCurrentIrpStackLocation(Irp);
    if (pStack->MajorFunction == IRP_MJ_DEVICE_CONTROL) {
        TRVN_LOG("TervaneDeviceRoutine", 702, "IRP_MJ_DEVICE_CONTROL\n");
        PVOID pInput = Irp->AssociatedIrp.SystemBuffer;
        PVOID pOutput = Irp->AssociatedIrp.SystemBuffer;
        if (Irp->MdlAddress != NULL) {
            pOutput = MmGetSystemAddressForMdlSafe(Irp->MdlAddress, NormalPagePriority);
        }
        TervaneFastIoDeviceControl(pStack->FileObject, TRUE, pInput,
                                   pStack->Parameters.DeviceIoControl.InputBufferLength, pOutput,
                                   pStack->Parameters.DeviceIoControl.OutputBufferLength,
                                   pStack->Parameters.DeviceIoControl.IoControlCode, &Irp->IoStatus, DeviceObject);
    }

    // The status returned is the one the request completed with: a caller
    // that reaches the control device through request packets learns of a
    // failure only from it (the I/O manager writes no status block for a
    // failure that did not pend).
    const NTSTATUS nStatus = Irp->IoStatus.Status;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return nStatus;
}

NTSTATUS TervaneHookRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    PTervaneDeviceExtension pExtension = (PTervaneDeviceExtension)DeviceObject->DeviceExtension;
    PIO_STACK_LOCATION pStack = IoGetCurrentIrpStackLocation(Irp);

    if (pStack->MajorFunction == IRP_MJ_CREATE) {
        if (IsFilteringEnabled() && pExtension->m_bHooked) {
            return TervaneCreate(DeviceObject, Irp);
        }
        // Redirected opens stay served while filtering is off, and the
        // driver's own opens for them still carry the bypass suffix.
        NTSTATUS nStatus;
        if (TervanePassOwnOpenDown(DeviceObject, Irp, &nStatus)) {
            return nStatus;
        }
        return TervanePassThrough(DeviceObject, Irp);
    }

    // A redirected open is served by its handlers for as long as it exists,
    // whatever the switches say: the file system below never saw its
    // FILE_OBJECT, whose context belongs to the driver's own open.
    PFileHandleEntry pEntry = FindFileHandleEntry(pStack->FileObject);
    if (pEntry == NULL) {
        return TervanePassThrough(DeviceObject, Irp);
    }

    // Name the sender in the log heads; the routing does not depend on it.
    WCHAR awcName[LOG_PROCESS_NAME_CHARS];
    UNICODE_STRING ustrName = {0, sizeof(awcName), awcName};
    if (!IsMonitoredProcess((ULONG)(ULONG_PTR)PsGetCurrentProcessId(), &ustrName) &&
        !GetCurrentProcessName(&ustrName)) {
        ustrName.Length = 0;
    }
    SetCurrentProcessName(&ustrName);

    PTERVANE_REQUEST_HANDLER pHandler = RoutingTableHandler(pStack->MajorFunction);
    if (pHandler != NULL) {
        return pHandler(DeviceObject, Irp, pEntry);
    }
    TRVN_LOG("TervaneHookRoutine", 588, "## Not Implemented IRP: MJFunc [0x%x], MNFunc[0x%x]\r\n",
             (ULONG)pStack->MajorFunction, (ULONG)pStack->MinorFunction);
    return TervanePassThrough(DeviceObject, Irp);
}

NTSTATUS NTAPI TervaneDispatch(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    PTervaneDeviceExtension pExtension = (PTervaneDeviceExtension)DeviceObject->DeviceExtension;
    if (pExtension->m_ulIsHookDevice == 0) {
        return TervaneDeviceRoutine(DeviceObject, Irp);
    }
    return TervaneHookRoutine(DeviceObject, Irp);
}
