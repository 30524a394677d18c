// The dispatcher: per-thread wait state used by waits and alerts.
#pragma once

#include "kernel.h"

namespace tervane::emu {

void KeInitializeThreadWait(_KTHREAD* thread);
void KeDeleteThreadWait(_KTHREAD* thread);
// System time now, in 100 ns units since 1601 (as KeQuerySystemTime).
LONGLONG KeSystemTimeNow();
// The IRQL of the calling host thread (spin locks raise it).
KIRQL& KeCurrentIrqlRef();

}  // namespace tervane::emu
