// Fast mutexes: a count and a synchronization event, as on NT. Not
// recursive: a second acquire by the owner is reported instead of hanging.
#include "ke/dispatcher.h"
#include "machine/machine_impl.h"
#include "ps/process.h"

using namespace tervane::emu;

extern "C" VOID ExInitializeFastMutex(PFAST_MUTEX FastMutex) {
    VerifierLockForget(FastMutex);
    FastMutex->Count = 1;
    FastMutex->Owner = nullptr;
    FastMutex->Contention = 0;
    FastMutex->OldIrql = 0;
    KeInitializeEvent(&FastMutex->Event, SynchronizationEvent, FALSE);
}

extern "C" VOID ExAcquireFastMutex(PFAST_MUTEX FastMutex) {
    _ETHREAD* self = CurrentThread();
    if (self && __atomic_load_n(&FastMutex->Owner, __ATOMIC_ACQUIRE) == self) {
        VerifierViolation("ExAcquireFastMutex: fast mutex acquired again by its owner");
        return;
    }
    VerifierLockAcquiring(FastMutex, "fast mutex", true);
    KIRQL old = KeCurrentIrqlRef();
    if (__atomic_sub_fetch(&FastMutex->Count, 1, __ATOMIC_ACQ_REL) != 0) {
        __atomic_add_fetch(&FastMutex->Contention, 1, __ATOMIC_RELAXED);
        KeWaitForSingleObject(&FastMutex->Event, Executive, KernelMode, FALSE, nullptr);
    }
    __atomic_store_n(&FastMutex->Owner, static_cast<PVOID>(self), __ATOMIC_RELEASE);
    FastMutex->OldIrql = old;
    KeCurrentIrqlRef() = APC_LEVEL;
    VerifierLockAcquired(FastMutex);
}

extern "C" VOID ExReleaseFastMutex(PFAST_MUTEX FastMutex) {
    _ETHREAD* self = CurrentThread();
    if (__atomic_load_n(&FastMutex->Owner, __ATOMIC_ACQUIRE) != self) {
        VerifierViolation("ExReleaseFastMutex: fast mutex released by a thread that does not own it");
        return;
    }
    VerifierLockReleased(FastMutex, self);
    KIRQL old = static_cast<KIRQL>(FastMutex->OldIrql);
    __atomic_store_n(&FastMutex->Owner, static_cast<PVOID>(nullptr), __ATOMIC_RELEASE);
    if (__atomic_add_fetch(&FastMutex->Count, 1, __ATOMIC_ACQ_REL) != 1) KeSetEvent(&FastMutex->Event, 0, FALSE);
    KeCurrentIrqlRef() = old;
}
