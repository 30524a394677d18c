// IofCallDriver and IofCompleteRequest: moving a packet down a device stack
// and walking its completion routines back up. Packets the I/O manager
// built then get the I/O manager's own completion (the second stage NT runs
// as a kernel APC in the requesting thread): buffered output copied back,
// MDLs unlocked and freed, status block written, events signalled, the
// packet freed and its file object released.
#include "io/irp_tracker.h"

namespace tervane::emu {
namespace {

std::string DriverName(PDEVICE_OBJECT device) {
    PDRIVER_OBJECT driver = device->DriverObject;
    if (!driver || !driver->DriverName.Buffer) return "?";
    return Utf16ToUtf8(driver->DriverName);
}

void ZeroStackLocation(PIO_STACK_LOCATION sp) {
    sp->MinorFunction = 0;
    sp->Flags = 0;
    sp->Control = 0;
    sp->Parameters.Others.Argument1 = nullptr;
    sp->Parameters.Others.Argument2 = nullptr;
    sp->Parameters.Others.Argument3 = nullptr;
    sp->Parameters.Others.Argument4 = nullptr;
    sp->FileObject = nullptr;
}

// The second stage of completion for a packet the I/O manager built.
void CompleteServiceIrp(PIRP irp) {
    PFILE_OBJECT file = irp->Tail.Overlay.OriginalFileObject;
    NTSTATUS status = irp->IoStatus.Status;
    if (irp->Flags & IRP_CLOSE_OPERATION) {  // cleanup and close: no file object reference to drop
        *irp->UserIosb = irp->IoStatus;
        KeSetEvent(irp->UserEvent, 0, FALSE);
        IoFreeIrp(irp);
        return;
    }
    if ((irp->Flags & IRP_BUFFERED_IO) && (irp->Flags & IRP_INPUT_OPERATION) && !NT_ERROR(status) &&
        irp->IoStatus.Information && irp->UserBuffer)
        memcpy(irp->UserBuffer, irp->AssociatedIrp.SystemBuffer, irp->IoStatus.Information);
    IopReleaseIrpBuffers(irp);
    bool create = (irp->Flags & IRP_CREATE_OPERATION) != 0;
    bool synchronousApi = (irp->Flags & IRP_SYNCHRONOUS_API) != 0;
    PKEVENT userEvent = irp->UserEvent;
    // A failure that did not pend is returned by the service itself; NT then
    // leaves the status block and the events alone. An open always reports.
    if (!NT_ERROR(status) || irp->PendingReturned || create) {
        if (irp->UserIosb) *irp->UserIosb = irp->IoStatus;
        // NT runs this stage in the requesting thread, which therefore sees
        // the caller's APC queued by the time it sees the event signalled.
        if (PIO_APC_ROUTINE apc = irp->Overlay.AsynchronousParameters.UserApcRoutine; apc && !create)
            KeQueueUserApc(irp->Tail.Overlay.Thread ? &irp->Tail.Overlay.Thread->Tcb : nullptr, apc,
                           irp->Overlay.AsynchronousParameters.UserApcContext, irp->UserIosb);
        if (userEvent) {
            KeSetEvent(userEvent, 0, FALSE);
            if (file && !create && (file->Flags & FO_SYNCHRONOUS_IO)) {
                file->FinalStatus = status;
                KeSetEvent(&file->Event, 0, FALSE);
            }
        } else if (file) {
            file->FinalStatus = status;
            KeSetEvent(&file->Event, 0, FALSE);
        }
    }
    IoFreeIrp(irp);
    if (userEvent && file && !synchronousApi) ObfDereferenceObject(userEvent);  // the caller's event object
    if (file && !create) ObfDereferenceObject(file);
}

}  // namespace

void IopReleaseIrpBuffers(PIRP irp) {
    if (irp->Flags & IRP_DEALLOCATE_BUFFER) {
        ExFreePoolWithTag(irp->AssociatedIrp.SystemBuffer, kTagBuffer);
        irp->AssociatedIrp.SystemBuffer = nullptr;
    }
    irp->Flags &= ~(IRP_DEALLOCATE_BUFFER | IRP_BUFFERED_IO);
    for (PMDL mdl = irp->MdlAddress; mdl;) {
        PMDL next = mdl->Next;
        if (mdl->MdlFlags & MDL_PAGES_LOCKED) MmUnlockPages(mdl);
        IoFreeMdl(mdl);
        mdl = next;
    }
    irp->MdlAddress = nullptr;
    if (irp->Tail.Overlay.AuxiliaryBuffer) {
        ExFreePoolWithTag(irp->Tail.Overlay.AuxiliaryBuffer, kTagBuffer);
        irp->Tail.Overlay.AuxiliaryBuffer = nullptr;
    }
}

}  // namespace tervane::emu

using namespace tervane::emu;

NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    if (Irp->CurrentLocation <= 1) {
        VerifierViolation("IofCallDriver to " + DriverName(DeviceObject) +
                          " with no stack location left (the packet was allocated too small)");
        return STATUS_INVALID_PARAMETER;
    }
    Irp->CurrentLocation--;
    PIO_STACK_LOCATION sp = --Irp->Tail.Overlay.CurrentStackLocation;
    sp->DeviceObject = DeviceObject;
    if (IrpTracker* tracker = IopTracker(Irp)) tracker->dispatched.store(true, std::memory_order_release);
    LONG depth = EmuKeGetCriticalRegionDepth();
    NTSTATUS status = DeviceObject->DriverObject->MajorFunction[sp->MajorFunction](DeviceObject, Irp);
    if (EmuKeGetCriticalRegionDepth() != depth)
        VerifierCheckCriticalRegion(depth, "major function " + std::to_string(sp->MajorFunction) + " of " +
                                               DriverName(DeviceObject));
    return status;
}

VOID FASTCALL IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost) {
    IrpTracker* tracker = IopTracker(Irp);
    if ((tracker && tracker->magic != kIrpLiveMagic) || Irp->Type != IO_TYPE_IRP ||
        Irp->CurrentLocation > Irp->StackCount + 1) {
        VerifierViolation("IRP completed twice (IofCompleteRequest on a packet already completed)");
        return;
    }
    if (Irp->IoStatus.Status == STATUS_PENDING)
        VerifierViolation("IRP completed with STATUS_PENDING as its final status");
    if (tracker) tracker->dispatched.store(false, std::memory_order_release);

    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(Irp);
    Irp->CurrentLocation++;
    Irp->Tail.Overlay.CurrentStackLocation++;
    for (; Irp->CurrentLocation <= Irp->StackCount + 1;
         ++sp, Irp->CurrentLocation++, Irp->Tail.Overlay.CurrentStackLocation++) {
        Irp->PendingReturned = (sp->Control & SL_PENDING_RETURNED) != 0;
        NTSTATUS status = Irp->IoStatus.Status;
        bool invoke = (NT_SUCCESS(status) && (sp->Control & SL_INVOKE_ON_SUCCESS)) ||
                      (!NT_SUCCESS(status) && (sp->Control & SL_INVOKE_ON_ERROR)) ||
                      (Irp->Cancel && (sp->Control & SL_INVOKE_ON_CANCEL));
        if (invoke && sp->CompletionRoutine) {
            PIO_COMPLETION_ROUTINE routine = sp->CompletionRoutine;
            PVOID context = sp->Context;
            ZeroStackLocation(sp);
            PDEVICE_OBJECT device = Irp->CurrentLocation == Irp->StackCount + 1
                                        ? nullptr
                                        : IoGetCurrentIrpStackLocation(Irp)->DeviceObject;
            // The routine may free the packet: MORE_PROCESSING_REQUIRED means
            // it is no longer ours to touch.
            if (routine(device, Irp, context) == STATUS_MORE_PROCESSING_REQUIRED) return;
        } else {
            if (Irp->PendingReturned && Irp->CurrentLocation <= Irp->StackCount) IoMarkIrpPending(Irp);
            ZeroStackLocation(sp);
        }
    }
    if (Irp->AllocationFlags & kIrpService) CompleteServiceIrp(Irp);
}
