// Interlocked operations and interlocked singly linked lists.
#include <mutex>

#include <nt/ntifs.h>

namespace {
// NT changes an SLIST header with one compare-exchange of the whole header;
// the machine serialises all of them instead, so that a pop never reads the
// link of an entry another thread has just taken and freed. Depth is stored
// atomically: a lookaside list's free reads it without the lock.
std::mutex g_sListLock;
}  // namespace

extern "C" LONG FASTCALL InterlockedIncrement(LONG volatile* Addend) {
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

extern "C" LONG FASTCALL InterlockedDecrement(LONG volatile* Addend) {
    return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

extern "C" LONG FASTCALL InterlockedExchange(LONG volatile* Target, LONG Value) {
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}

extern "C" LONG FASTCALL InterlockedExchangeAdd(LONG volatile* Addend, LONG Value) {
    return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}

extern "C" LONG FASTCALL InterlockedCompareExchange(LONG volatile* Destination, LONG Exchange, LONG Comparand) {
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comparand;  // the initial value, whether or not it was replaced
}

extern "C" PVOID InterlockedExchangePointer(PVOID volatile* Target, PVOID Value) {
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}

extern "C" PVOID InterlockedCompareExchangePointer(PVOID volatile* Destination, PVOID Exchange, PVOID Comparand) {
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comparand;
}

extern "C" PSINGLE_LIST_ENTRY FASTCALL InterlockedPushEntrySList(PSLIST_HEADER ListHead,
                                                                 PSINGLE_LIST_ENTRY ListEntry) {
    std::lock_guard<std::mutex> guard(g_sListLock);
    PSINGLE_LIST_ENTRY first = ListHead->Next.Next;
    ListEntry->Next = first;
    ListHead->Next.Next = ListEntry;
    __atomic_store_n(&ListHead->Depth, USHORT(ListHead->Depth + 1), __ATOMIC_RELAXED);
    ListHead->Sequence++;
    return first;
}

extern "C" PSINGLE_LIST_ENTRY FASTCALL InterlockedPopEntrySList(PSLIST_HEADER ListHead) {
    std::lock_guard<std::mutex> guard(g_sListLock);
    PSINGLE_LIST_ENTRY first = ListHead->Next.Next;
    if (first) {
        ListHead->Next.Next = first->Next;
        __atomic_store_n(&ListHead->Depth, USHORT(ListHead->Depth - 1), __ATOMIC_RELAXED);
        ListHead->Sequence++;
    }
    return first;
}

extern "C" PSINGLE_LIST_ENTRY ExInterlockedPushEntrySList(PSLIST_HEADER ListHead, PSINGLE_LIST_ENTRY ListEntry,
                                                          PKSPIN_LOCK Lock) {
    KIRQL irql;
    KeAcquireSpinLock(Lock, &irql);
    PSINGLE_LIST_ENTRY first = ListHead->Next.Next;
    ListEntry->Next = first;
    ListHead->Next.Next = ListEntry;
    __atomic_store_n(&ListHead->Depth, USHORT(ListHead->Depth + 1), __ATOMIC_RELAXED);
    ListHead->Sequence++;
    KeReleaseSpinLock(Lock, irql);
    return first;
}

extern "C" PSINGLE_LIST_ENTRY ExInterlockedPopEntrySList(PSLIST_HEADER ListHead, PKSPIN_LOCK Lock) {
    KIRQL irql;
    KeAcquireSpinLock(Lock, &irql);
    PSINGLE_LIST_ENTRY first = ListHead->Next.Next;
    if (first) {
        ListHead->Next.Next = first->Next;
        __atomic_store_n(&ListHead->Depth, USHORT(ListHead->Depth - 1), __ATOMIC_RELAXED);
        ListHead->Sequence++;
    }
    KeReleaseSpinLock(Lock, irql);
    return first;
}
