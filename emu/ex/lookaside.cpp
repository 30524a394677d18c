// Non-paged lookaside lists: a free list of fixed-size blocks in front of the
// pool, with the counters of GENERAL_LOOKASIDE.
//
// NT tunes Depth from a timer between its minimum of 4 and MaximumDepth; this
// machine has no such timer and keeps the depth the caller asked for (4 when
// it asked for 0), so what a list caches is deterministic.
#include <cstring>

#include "machine/machine_impl.h"
#include "machine/services.h"

namespace tervane::emu {

namespace {
constexpr USHORT kMinimumDepth = 4;
constexpr USHORT kMaximumDepth = 256;

// The routines a list uses when its owner gives none. A driver image calls
// them from its inline allocate and free, on a stack it keeps aligned to 4
// only, and what it allocates so is its own.
MACHINE_ENTRY PVOID NTAPI DefaultAllocate(POOL_TYPE type, SIZE_T bytes, ULONG tag) {
    const void* image = LdrImageContaining(__builtin_return_address(0));
    return ExAllocatePoolFor(image ? image : LdrCurrentOwner(), type, bytes, tag);
}
MACHINE_ENTRY VOID NTAPI DefaultFree(PVOID block) { ExFreePool(block); }

bool Registered(Machine::Impl& m, PNPAGED_LOOKASIDE_LIST list) {
    return m.lookasideLists.count(list) != 0;
}
}  // namespace

void LookasideDrainAll() {
    Machine::Impl& m = CurrentMachine();
    std::vector<void*> lists;
    {
        std::lock_guard<std::mutex> guard(m.lookasideListsLock);
        lists.assign(m.lookasideLists.begin(), m.lookasideLists.end());
    }
    for (void* list : lists) ExDeleteNPagedLookasideList(static_cast<PNPAGED_LOOKASIDE_LIST>(list));
}

}  // namespace tervane::emu

using namespace tervane::emu;

extern "C" VOID ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                                PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag,
                                                USHORT Depth) {
    std::memset(Lookaside, 0, sizeof(*Lookaside));
    Lookaside->L.Depth = Depth == 0 ? kMinimumDepth : (Depth > kMaximumDepth ? kMaximumDepth : Depth);
    Lookaside->L.MaximumDepth = kMaximumDepth;
    Lookaside->L.Type = NonPagedPool;
    Lookaside->L.Tag = Tag;
    Lookaside->L.Size = static_cast<ULONG>(Size);
    Lookaside->L.Allocate = Allocate ? Allocate : DefaultAllocate;
    Lookaside->L.Free = Free ? Free : DefaultFree;
    InitializeListHead(&Lookaside->L.ListEntry);
    Machine::Impl& m = CurrentMachine();
    std::lock_guard<std::mutex> guard(m.lookasideListsLock);
    m.lookasideLists.insert(Lookaside);
}

extern "C" VOID ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside) {
    Machine::Impl& m = CurrentMachine();
    {
        std::lock_guard<std::mutex> guard(m.lookasideListsLock);
        if (!Registered(m, Lookaside)) {
            VerifierViolation("ExDeleteNPagedLookasideList on a list that is not initialised");
            return;
        }
        m.lookasideLists.erase(Lookaside);
    }
    while (PSINGLE_LIST_ENTRY entry = InterlockedPopEntrySList(&Lookaside->L.ListHead)) Lookaside->L.Free(entry);
}

// The same steps as the DDK's inline versions, so that lists a driver image
// works on itself and lists the machine works on behave alike.
extern "C" PVOID ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside) {
    __atomic_fetch_add(&Lookaside->L.TotalAllocates, 1, __ATOMIC_RELAXED);
    PSINGLE_LIST_ENTRY entry = InterlockedPopEntrySList(&Lookaside->L.ListHead);
    if (!entry) {
        __atomic_fetch_add(&Lookaside->L.AllocateMisses, 1, __ATOMIC_RELAXED);
        return Lookaside->L.Allocate(Lookaside->L.Type, Lookaside->L.Size, Lookaside->L.Tag);
    }
    // NT trims lists from a timer, so any call may find the list empty and
    // fail in pool: fault injection counts a cached entry as an allocation.
    if (CurrentMachine().pool.ShouldFail(Lookaside->L.Tag)) {
        InterlockedPushEntrySList(&Lookaside->L.ListHead, entry);
        return nullptr;
    }
    return entry;
}

extern "C" VOID ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry) {
    __atomic_fetch_add(&Lookaside->L.TotalFrees, 1, __ATOMIC_RELAXED);
    // The list's depth is read without its lock, as NT reads it; the list's
    // operations store it atomically.
    if (__atomic_load_n(&Lookaside->L.ListHead.Depth, __ATOMIC_RELAXED) >= Lookaside->L.Depth) {
        __atomic_fetch_add(&Lookaside->L.FreeMisses, 1, __ATOMIC_RELAXED);
        Lookaside->L.Free(Entry);
        return;
    }
    InterlockedPushEntrySList(&Lookaside->L.ListHead, static_cast<PSINGLE_LIST_ENTRY>(Entry));
}
