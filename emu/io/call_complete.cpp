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

// A dispatch routine that completes a request without pending it must return
// the status it completed it with: callers above take the returned value as
// the outcome. Each IofCallDriver on a thread keeps a frame; the completion
// walk notes in it the status the packet carried when the walk reached that
// driver's stack location (its own and every lower driver's completion done).
struct DispatchFrame {
    PIRP irp;
    PIO_STACK_LOCATION location;
    bool completed = false;
    NTSTATUS completedStatus = STATUS_SUCCESS;
    bool lowerMismatch = false;  // the call this driver made down with the packet was reported
    NTSTATUS lowerReturned = STATUS_SUCCESS;
};
thread_local std::vector<DispatchFrame> tDispatchFrames;

void NoteCompletionAt(PIRP irp, PIO_STACK_LOCATION location) {
    for (auto it = tDispatchFrames.rbegin(); it != tDispatchFrames.rend(); ++it) {
        if (it->irp == irp && it->location == location) {
            it->completed = true;
            it->completedStatus = irp->IoStatus.Status;
            return;
        }
    }
}

std::string MajorName(UCHAR major) {
    static const char* const names[] = {
        "IRP_MJ_CREATE", "IRP_MJ_CREATE_NAMED_PIPE", "IRP_MJ_CLOSE", "IRP_MJ_READ", "IRP_MJ_WRITE",
        "IRP_MJ_QUERY_INFORMATION", "IRP_MJ_SET_INFORMATION", "IRP_MJ_QUERY_EA", "IRP_MJ_SET_EA",
        "IRP_MJ_FLUSH_BUFFERS", "IRP_MJ_QUERY_VOLUME_INFORMATION", "IRP_MJ_SET_VOLUME_INFORMATION",
        "IRP_MJ_DIRECTORY_CONTROL", "IRP_MJ_FILE_SYSTEM_CONTROL", "IRP_MJ_DEVICE_CONTROL",
        "IRP_MJ_INTERNAL_DEVICE_CONTROL", "IRP_MJ_SHUTDOWN", "IRP_MJ_LOCK_CONTROL", "IRP_MJ_CLEANUP",
        "IRP_MJ_CREATE_MAILSLOT", "IRP_MJ_QUERY_SECURITY", "IRP_MJ_SET_SECURITY"};
    if (major < sizeof(names) / sizeof(names[0])) return names[major];
    return "major function " + std::to_string(major);
}

// Called once the dispatch routine returned RETURNED: pops its frame and
// reports a disagreement, unless the routine only handed on what the driver
// below returned and that was reported already.
void CheckDispatchStatus(PDEVICE_OBJECT device, UCHAR major, NTSTATUS returned) {
    DispatchFrame frame = tDispatchFrames.back();
    tDispatchFrames.pop_back();
    bool mismatch = returned != STATUS_PENDING && frame.completed && returned != frame.completedStatus;
    bool inherited = frame.lowerMismatch && frame.lowerReturned == returned;
    if (mismatch && !inherited) {
        VerifierViolation(MajorName(major) + " dispatch of " + DriverName(device) + " returned " +
                          StatusName(returned) + " for a request it completed with " +
                          StatusName(frame.completedStatus));
    }
    for (auto it = tDispatchFrames.rbegin(); it != tDispatchFrames.rend(); ++it) {
        if (it->irp != frame.irp) continue;
        it->lowerMismatch = mismatch;
        it->lowerReturned = returned;
        break;
    }
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
    if (userEvent && file && !synchronousApi) ObpDereferenceHeld(userEvent);  // the caller's event object
    if (file && !create) ObpDereferenceHeld(file);
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
    const UCHAR major = sp->MajorFunction;
    // File systems are called at PASSIVE_LEVEL (paging I/O also at
    // APC_LEVEL): a spin lock or a fast mutex held here would be held across
    // the call down the stack.
    KIRQL irql = KeGetCurrentIrql();
    if (irql > APC_LEVEL || (irql == APC_LEVEL && !(Irp->Flags & IRP_PAGING_IO))) {
        VerifierViolation(MajorName(major) + " sent to " + DriverName(DeviceObject) + " at IRQL " +
                          std::to_string(irql) + ": a " + (irql > APC_LEVEL ? "spin lock" : "fast mutex") +
                          " is held across a call down the stack");
    }
    if (IrpTracker* tracker = IopTracker(Irp)) tracker->dispatched.store(true, std::memory_order_release);
    LONG depth = EmuKeGetCriticalRegionDepth();
    tDispatchFrames.push_back(DispatchFrame{Irp, sp});
    NTSTATUS status = DeviceObject->DriverObject->MajorFunction[major](DeviceObject, Irp);
    CheckDispatchStatus(DeviceObject, major, status);
    if (EmuKeGetCriticalRegionDepth() != depth)
        VerifierCheckCriticalRegion(depth, "major function " + std::to_string(major) + " of " +
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
        NoteCompletionAt(Irp, sp);
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
