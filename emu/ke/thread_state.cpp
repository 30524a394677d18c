// Per-thread kernel state: critical regions, IRQL and spin locks.
#include <sched.h>

#include "ke/dispatcher.h"
#include "machine/machine_impl.h"
#include "ps/process.h"

namespace tervane::emu {

namespace {
thread_local KIRQL tIrql = PASSIVE_LEVEL;
}

KIRQL& KeCurrentIrqlRef() { return tIrql; }

void VerifierCheckCriticalRegion(LONG depthBefore, const std::string& what) {
    _ETHREAD* thread = CurrentThread();
    if (!thread) return;
    LONG depth = thread->Tcb.CriticalRegionDepth;
    if (depth == depthBefore) return;
    thread->Tcb.CriticalRegionDepth = depthBefore;
    VerifierViolation("unbalanced critical region: " + what + " returned at depth " + std::to_string(depth) +
                      ", entered at depth " + std::to_string(depthBefore));
}

}  // namespace tervane::emu

using namespace tervane::emu;

extern "C" VOID KeEnterCriticalRegion(VOID) { RequireCurrentThread("KeEnterCriticalRegion")->Tcb.CriticalRegionDepth++; }

extern "C" VOID KeLeaveCriticalRegion(VOID) {
    _ETHREAD* thread = RequireCurrentThread("KeLeaveCriticalRegion");
    if (thread->Tcb.CriticalRegionDepth == 0) {
        VerifierViolation("KeLeaveCriticalRegion without a matching KeEnterCriticalRegion (thread " +
                          std::to_string(thread->Tcb.UniqueThreadId) + ")");
        return;
    }
    thread->Tcb.CriticalRegionDepth--;
}

extern "C" LONG EmuKeGetCriticalRegionDepth(VOID) {
    _ETHREAD* thread = CurrentThread();
    return thread ? thread->Tcb.CriticalRegionDepth : 0;
}

extern "C" KIRQL KeGetCurrentIrql(VOID) { return tIrql; }

extern "C" VOID KeInitializeSpinLock(PKSPIN_LOCK SpinLock) { __atomic_store_n(SpinLock, 0, __ATOMIC_RELEASE); }

extern "C" VOID KeAcquireSpinLock(PKSPIN_LOCK SpinLock, PKIRQL OldIrql) {
    *OldIrql = tIrql;
    tIrql = DISPATCH_LEVEL;
    for (;;) {
        ULONG_PTR expected = 0;
        if (__atomic_compare_exchange_n(SpinLock, &expected, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) return;
        while (__atomic_load_n(SpinLock, __ATOMIC_RELAXED) != 0) sched_yield();
    }
}

extern "C" VOID KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) {
    if (__atomic_exchange_n(SpinLock, 0, __ATOMIC_RELEASE) == 0)
        VerifierViolation("KeReleaseSpinLock on a spin lock that is not held");
    tIrql = NewIrql;
}
