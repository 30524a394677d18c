// The previous mode of the calling thread, as a system call sets it: user
// mode inside Nt* services, kernel mode inside Zw* services.
#include "ob/ob_internal.h"

namespace tervane::emu {

PreviousModeScope::PreviousModeScope(KPROCESSOR_MODE mode) : thread_(CurrentThread()), saved_(KernelMode) {
    if (!thread_) return;
    saved_ = thread_->Tcb.PreviousMode;
    thread_->Tcb.PreviousMode = mode;
}

PreviousModeScope::~PreviousModeScope() {
    if (thread_) thread_->Tcb.PreviousMode = saved_;
}

KPROCESSOR_MODE ObpPreviousMode() {
    _ETHREAD* thread = CurrentThread();
    return thread ? thread->Tcb.PreviousMode : KernelMode;
}

}  // namespace tervane::emu
