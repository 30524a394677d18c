// Request packets: allocation (with lookasides of packets of up to eight
// stack locations, one per group of threads as NT keeps one per processor),
// initialisation, reuse and freeing.
// Each packet the I/O manager allocates is preceded by a small tracker that
// lets the verifier tell a live packet from a freed one and see whether a
// packet is still with a driver.
#include "io/irp_tracker.h"
#include "machine/adaptive_mutex.h"
#include "machine/machine_impl.h"
#include "machine/sharded_set.h"

#include <utility>

namespace tervane::emu {
namespace {

constexpr CCHAR kLookasideStackSize = 8;
constexpr size_t kLookasides = 8;
constexpr int kLookasideDepth = 8;  // per lookaside

// Freed packets of kLookasideStackSize locations. A thread takes and gives
// back packets at the lookaside of its group, so that threads on different
// cores rarely share one.
struct alignas(64) Lookaside {
    AdaptiveMutex lock;
    IrpTracker* head = nullptr;
    int count = 0;
};
Lookaside g_lookasides[kLookasides];

Lookaside& ThreadLookaside() { return g_lookasides[ThreadShardIndex(kLookasides)]; }

PIRP TrackedIrp(IrpTracker* tracker) {
    return reinterpret_cast<PIRP>(reinterpret_cast<char*>(tracker) + kIrpTrackerSize);
}

}  // namespace

IrpTracker* IopTracker(PIRP irp) {
    if (!(irp->AllocationFlags & kIrpTracked)) return nullptr;
    return reinterpret_cast<IrpTracker*>(reinterpret_cast<char*>(irp) - kIrpTrackerSize);
}

void IopSetRequestingThread(PIRP irp, _ETHREAD* thread) {
    irp->Tail.Overlay.Thread = thread;
    IrpTracker* tracker = IopTracker(irp);
    if (!tracker) return;  // the I/O manager's reserve: always waited for by its thread
    if (thread) PsReferenceThread(thread);
    if (tracker->thread) PsDereferenceThread(tracker->thread);
    tracker->thread = thread;
}

namespace {
void ReleaseRequestingThread(IrpTracker* tracker) {
    if (tracker && tracker->thread) PsDereferenceThread(std::exchange(tracker->thread, nullptr));
}
}  // namespace

void IopDrainIrpLookaside() {
    for (Lookaside& lookaside : g_lookasides) {
        std::lock_guard<AdaptiveMutex> guard(lookaside.lock);
        while (IrpTracker* packet = lookaside.head) {
            lookaside.head = packet->nextFree;
            packet->~IrpTracker();
            ExFreePoolWithTag(packet, kTagIrp);
        }
        lookaside.count = 0;
    }
}

PIRP IopAllocateIrpMustSucceed(CCHAR stackSize) {
    PIRP irp = IoAllocateIrp(stackSize, FALSE);
    if (irp) return irp;
    // The reserve: host memory, outside pool accounting and fault injection.
    USHORT size = IoSizeOfIrp(stackSize);
    irp = static_cast<PIRP>(calloc(1, size));
    IoInitializeIrp(irp, size, stackSize);
    irp->AllocationFlags = IRP_ALLOCATED_MUST_SUCCEED;
    return irp;
}

}  // namespace tervane::emu

using namespace tervane::emu;

VOID IoInitializeIrp(PIRP Irp, USHORT PacketSize, CCHAR StackSize) {
    memset(Irp, 0, PacketSize);
    Irp->Type = IO_TYPE_IRP;
    Irp->Size = PacketSize;
    Irp->StackCount = StackSize;
    Irp->CurrentLocation = CHAR(StackSize + 1);
    InitializeListHead(&Irp->ThreadListEntry);
    Irp->Tail.Overlay.CurrentStackLocation =
        reinterpret_cast<PIO_STACK_LOCATION>(reinterpret_cast<char*>(Irp) + sizeof(IRP)) + StackSize;
}

PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota) {
    if (StackSize < 1) return nullptr;
    IrpTracker* tracker = nullptr;
    UCHAR flags = kIrpTracked;
    if (StackSize <= kLookasideStackSize) {
        flags |= IRP_LOOKASIDE_ALLOCATION;
        // A packet from the lookaside counts as an allocation for fault
        // injection: NT's list may be empty at any call.
        Lookaside& lookaside = ThreadLookaside();
        {
            std::lock_guard<AdaptiveMutex> guard(lookaside.lock);
            if ((tracker = lookaside.head)) {
                lookaside.head = tracker->nextFree;
                --lookaside.count;
            }
        }
        if (tracker && CurrentMachine().pool.ShouldFail(kTagIrp)) {
            std::lock_guard<AdaptiveMutex> guard(lookaside.lock);
            tracker->nextFree = lookaside.head;
            lookaside.head = tracker;
            ++lookaside.count;
            return nullptr;
        }
    }
    if (!tracker) {
        CCHAR locations = StackSize <= kLookasideStackSize ? kLookasideStackSize : StackSize;
        void* block = ExAllocatePoolWithTag(NonPagedPool, kIrpTrackerSize + IoSizeOfIrp(locations), kTagIrp);
        if (!block) return nullptr;
        tracker = new (block) IrpTracker();
    }
    tracker->magic = kIrpLiveMagic;
    tracker->dispatched.store(false, std::memory_order_relaxed);
    tracker->nextFree = nullptr;
    tracker->thread = nullptr;
    PIRP irp = TrackedIrp(tracker);
    IoInitializeIrp(irp, IoSizeOfIrp(StackSize), StackSize);
    irp->AllocationFlags = flags | (ChargeQuota ? IRP_QUOTA_CHARGED : 0);
    return irp;
}

VOID IoReuseIrp(PIRP Irp, NTSTATUS Status) {
    ReleaseRequestingThread(IopTracker(Irp));
    UCHAR flags = Irp->AllocationFlags;
    IoInitializeIrp(Irp, Irp->Size, Irp->StackCount);
    Irp->AllocationFlags = flags;
    Irp->IoStatus.Status = Status;
}

VOID IoFreeIrp(PIRP Irp) {
    if (Irp->AllocationFlags & IRP_ALLOCATED_MUST_SUCCEED) {
        free(Irp);
        return;
    }
    IrpTracker* tracker = IopTracker(Irp);
    if (!tracker) return;  // the caller's own memory (IoInitializeIrp)
    if (tracker->magic != kIrpLiveMagic || Irp->Type != IO_TYPE_IRP) {
        VerifierViolation("IoFreeIrp on a packet that is already freed");
        return;
    }
    if (tracker->dispatched.load(std::memory_order_acquire)) {
        // Freeing would pull the packet from under the driver that holds it:
        // report and leave it allocated.
        VerifierViolation("IoFreeIrp on a packet still in use by a driver (sent and not completed)");
        return;
    }
    ReleaseRequestingThread(tracker);
    tracker->magic = kIrpFreeMagic;
    Irp->Type = 0;
    if (Irp->AllocationFlags & IRP_LOOKASIDE_ALLOCATION) {
        Lookaside& lookaside = ThreadLookaside();
        std::lock_guard<AdaptiveMutex> guard(lookaside.lock);
        if (lookaside.count < kLookasideDepth) {
            tracker->nextFree = lookaside.head;
            lookaside.head = tracker;
            ++lookaside.count;
            return;
        }
    }
    tracker->~IrpTracker();
    ExFreePoolWithTag(tracker, kTagIrp);
}

BOOLEAN IoIsOperationSynchronous(PIRP Irp) {
    PFILE_OBJECT file = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    if (file && (file->Flags & FO_SYNCHRONOUS_IO) && !(Irp->Flags & IRP_PAGING_IO)) return TRUE;
    if (Irp->Flags & IRP_SYNCHRONOUS_API) return TRUE;
    ULONG paging = IRP_PAGING_IO | IRP_SYNCHRONOUS_PAGING_IO;
    return (Irp->Flags & paging) == paging;
}

PEPROCESS IoGetRequestorProcess(PIRP Irp) {
    PETHREAD thread = Irp->Tail.Overlay.Thread;
    return thread ? thread->Tcb.Process : nullptr;
}

ULONG IoGetRequestorProcessId(PIRP Irp) {
    PEPROCESS process = IoGetRequestorProcess(Irp);
    return process ? process->UniqueProcessId : 0;
}

PEPROCESS IoGetCurrentProcess(VOID) { return CurrentProcess(); }
