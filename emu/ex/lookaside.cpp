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

PVOID DefaultAllocate(POOL_TYPE type, SIZE_T bytes, ULONG tag) { return ExAllocatePoolWithTag(type, bytes, tag); }
VOID DefaultFree(PVOID block) { ExFreePool(block); }

PSINGLE_LIST_ENTRY Pop(PNPAGED_LOOKASIDE_LIST list) {
    PSINGLE_LIST_ENTRY entry = list->L.ListHead.Next.Next;
    if (entry) {
        list->L.ListHead.Next.Next = entry->Next;
        list->L.ListHead.Depth--;
    }
    return entry;
}

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
    KeInitializeSpinLock(&Lookaside->Lock);
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
    KIRQL irql;
    KeAcquireSpinLock(&Lookaside->Lock, &irql);
    PSINGLE_LIST_ENTRY entries = Lookaside->L.ListHead.Next.Next;
    Lookaside->L.ListHead.Next.Next = nullptr;
    Lookaside->L.ListHead.Depth = 0;
    KeReleaseSpinLock(&Lookaside->Lock, irql);
    while (entries) {
        PSINGLE_LIST_ENTRY next = entries->Next;
        Lookaside->L.Free(entries);
        entries = next;
    }
}

extern "C" PVOID ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside) {
    KIRQL irql;
    KeAcquireSpinLock(&Lookaside->Lock, &irql);
    Lookaside->L.TotalAllocates++;
    PSINGLE_LIST_ENTRY entry = Pop(Lookaside);
    if (!entry) Lookaside->L.AllocateMisses++;
    KeReleaseSpinLock(&Lookaside->Lock, irql);
    if (entry) return entry;
    return Lookaside->L.Allocate(Lookaside->L.Type, Lookaside->L.Size, Lookaside->L.Tag);
}

extern "C" VOID ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry) {
    KIRQL irql;
    KeAcquireSpinLock(&Lookaside->Lock, &irql);
    Lookaside->L.TotalFrees++;
    if (Lookaside->L.ListHead.Depth >= Lookaside->L.Depth) {
        Lookaside->L.FreeMisses++;
        KeReleaseSpinLock(&Lookaside->Lock, irql);
        Lookaside->L.Free(Entry);
        return;
    }
    auto* entry = static_cast<PSINGLE_LIST_ENTRY>(Entry);
    entry->Next = Lookaside->L.ListHead.Next.Next;
    Lookaside->L.ListHead.Next.Next = entry;
    Lookaside->L.ListHead.Depth++;
    KeReleaseSpinLock(&Lookaside->Lock, irql);
}
