// What every file service shares: resolving the handle (and the caller's
// event), the packet's common fields, its transfer buffer by the device's
// I/O method, and the tail that sends it and, for synchronous file objects
// or synchronous APIs, waits for it.
#include "io/io_internal.h"

namespace tervane::emu {

NTSTATUS IopReferenceFileRequest(HANDLE handle, ACCESS_MASK access, HANDLE event, KPROCESSOR_MODE mode,
                                 FileRequest* request) {
    *request = {};
    PVOID object;
    OBJECT_HANDLE_INFORMATION info{};
    NTSTATUS status = ObpReferenceByHandle(handle, 0, *IoFileObjectType, mode, &object, &info);
    if (!NT_SUCCESS(status)) return status;
    // ACCESS lists the rights of which the handle needs at least one.
    if (mode != KernelMode && access && !(info.GrantedAccess & access)) {
        ObpDereferenceHeld(object);
        return STATUS_ACCESS_DENIED;
    }
    if (event) {
        PVOID eventObject;
        status = ObpReferenceByHandle(event, EVENT_MODIFY_STATE, ObpEventType, mode, &eventObject, nullptr);
        if (!NT_SUCCESS(status)) {
            ObpDereferenceHeld(object);
            return status;
        }
        request->event = static_cast<PKEVENT>(eventObject);
        KeClearEvent(request->event);
    }
    request->file = static_cast<PFILE_OBJECT>(object);
    request->granted = info.GrantedAccess;
    request->synchronous = (request->file->Flags & FO_SYNCHRONOUS_IO) != 0;
    if (request->synchronous) IopAcquireFileObjectLock(request->file);
    request->device = IoGetRelatedDeviceObject(request->file);
    return STATUS_SUCCESS;
}

void IopReleaseRequest(FileRequest* request) {
    if (!request->file) return;
    if (request->synchronous) IopReleaseFileObjectLock(request->file);
    if (request->event) ObpDereferenceHeld(request->event);
    ObpDereferenceHeld(request->file);
    *request = {};
}

void IopInitializeServiceIrp(PIRP irp, PFILE_OBJECT file, UCHAR major, KPROCESSOR_MODE mode,
                             PIO_STATUS_BLOCK userIosb, PKEVENT userEvent) {
    irp->AllocationFlags |= kIrpService;
    irp->RequestorMode = mode;
    irp->UserIosb = userIosb;
    irp->UserEvent = userEvent;
    IopSetRequestingThread(irp, CurrentThread());
    irp->Tail.Overlay.OriginalFileObject = file;
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->MajorFunction = major;
    sp->FileObject = file;
}

PIRP IopBuildServiceIrp(PDEVICE_OBJECT device, PFILE_OBJECT file, UCHAR major, KPROCESSOR_MODE mode,
                        PIO_STATUS_BLOCK userIosb, PKEVENT userEvent) {
    PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    if (irp) IopInitializeServiceIrp(irp, file, major, mode, userIosb, userEvent);
    return irp;
}

PIRP IopBuildRequestIrp(FileRequest* request, UCHAR major, KPROCESSOR_MODE mode, PIO_STATUS_BLOCK userIosb,
                        PIO_APC_ROUTINE apcRoutine, PVOID apcContext) {
    PIRP irp = IopBuildServiceIrp(request->device, request->file, major, mode, userIosb, request->event);
    if (!irp) return nullptr;
    irp->Overlay.AsynchronousParameters.UserApcRoutine = apcRoutine;
    irp->Overlay.AsynchronousParameters.UserApcContext = apcContext;
    return irp;
}

void IopDiscardIrp(PIRP irp) {
    IopReleaseIrpBuffers(irp);
    IoFreeIrp(irp);
}

NTSTATUS IopAbandonRequest(FileRequest* request, PIRP irp, NTSTATUS status) {
    if (irp) IopDiscardIrp(irp);
    IopReleaseRequest(request);
    return status;
}

NTSTATUS IopSetSystemBuffer(PIRP irp, PVOID buffer, ULONG length, bool output) {
    PVOID system = ExAllocatePoolWithTag(NonPagedPool, length, kTagBuffer);
    if (!system) return STATUS_INSUFFICIENT_RESOURCES;
    if (output) {
        memset(system, 0, length);
        irp->UserBuffer = buffer;
        irp->Flags |= IRP_INPUT_OPERATION;
    } else {
        memcpy(system, buffer, length);
    }
    irp->AssociatedIrp.SystemBuffer = system;
    irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
    return STATUS_SUCCESS;
}

NTSTATUS IopSetTransferBuffer(PIRP irp, PDEVICE_OBJECT device, PVOID buffer, ULONG length, bool read,
                              KPROCESSOR_MODE mode) {
    if (length && !buffer) return STATUS_INVALID_USER_BUFFER;
    if (device->Flags & DO_BUFFERED_IO) {
        if (length) {
            PVOID system = ExAllocatePoolWithTag(NonPagedPool, length, kTagBuffer);
            if (!system) return STATUS_INSUFFICIENT_RESOURCES;
            if (!read) memcpy(system, buffer, length);
            irp->AssociatedIrp.SystemBuffer = system;
            irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER | (read ? IRP_INPUT_OPERATION : 0);
        }
        irp->UserBuffer = buffer;
    } else if (device->Flags & DO_DIRECT_IO) {
        if (length) {
            PMDL mdl = IoAllocateMdl(buffer, length, FALSE, TRUE, irp);
            if (!mdl) return STATUS_INSUFFICIENT_RESOURCES;
            MmProbeAndLockPages(mdl, mode, read ? IoWriteAccess : IoReadAccess);
        }
    } else {
        irp->UserBuffer = buffer;
    }
    return STATUS_SUCCESS;
}

NTSTATUS IopSynchronousServiceTail(FileRequest* request, PIRP irp) {
    PFILE_OBJECT file = request->file;
    bool synchronous = request->synchronous;
    // The packet now holds the request's references; keep the file object
    // alive ourselves while we wait on it. As NT, every request clears the
    // file object's event: a caller of an asynchronous file object without
    // an event of its own waits on the file object for this request.
    ObpReferenceHeld(file);
    KeClearEvent(&file->Event);
    NTSTATUS status = IofCallDriver(request->device, irp);
    if (synchronous) {
        if (status == STATUS_PENDING) {
            KeWaitForSingleObject(&file->Event, Executive, irp->RequestorMode, (file->Flags & FO_ALERTABLE_IO) != 0,
                                  nullptr);
            status = file->FinalStatus;
        }
        IopReleaseFileObjectLock(file);
    }
    ObpDereferenceHeld(file);
    *request = {};
    return status;
}

NTSTATUS IopSynchronousApi(FileRequest* request, PIRP irp, PIO_STATUS_BLOCK callerIosb, PKEVENT localEvent,
                           PIO_STATUS_BLOCK localIosb) {
    irp->Flags |= IRP_SYNCHRONOUS_API;
    if (request->synchronous) {
        irp->UserIosb = callerIosb;
        return IopSynchronousServiceTail(request, irp);
    }
    KeInitializeEvent(localEvent, NotificationEvent, FALSE);
    irp->UserIosb = localIosb;
    irp->UserEvent = localEvent;
    PFILE_OBJECT file = request->file;
    ObpReferenceHeld(file);
    if (request->event) ObpDereferenceHeld(request->event);  // a synchronous API signals no caller event
    *request = {};
    NTSTATUS status = IofCallDriver(IoGetRelatedDeviceObject(file), irp);
    bool pended = status == STATUS_PENDING;
    if (pended) {
        KeWaitForSingleObject(localEvent, Executive, KernelMode, FALSE, nullptr);
        status = localIosb->Status;
    }
    if (pended || !NT_ERROR(status)) *callerIosb = *localIosb;
    ObpDereferenceHeld(file);
    return status;
}

NTSTATUS IopFinishFastIo(FileRequest* request, const IO_STATUS_BLOCK& result, PIO_STATUS_BLOCK callerIosb) {
    *callerIosb = result;
    if (request->event) KeSetEvent(request->event, 0, FALSE);
    IopReleaseRequest(request);
    return result.Status;
}

}  // namespace tervane::emu
