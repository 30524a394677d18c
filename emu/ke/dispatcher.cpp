// Dispatcher objects: events and waits. One dispatcher lock guards every
// object's signal state and wait list, as on NT; each waiting thread sleeps on
// its own condition variable and is satisfied by the thread that signals.
#include "ke/dispatcher.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "machine/adaptive_mutex.h"
#include "machine/machine_impl.h"
#include "ps/process.h"

namespace tervane::emu {

namespace {

struct UserApc {
    PIO_APC_ROUTINE routine;
    PVOID context;
    PIO_STATUS_BLOCK ioStatusBlock;
};

struct ThreadWait {
    std::condition_variable_any wake;
    PVOID object = nullptr;   // what the thread waits on, null when not waiting
    bool satisfied = false;
    bool alertable = false;
    bool alerted = false;     // guarded by the dispatcher lock (mirrors Tcb.Alerted)
    bool userWait = false;    // the current alertable wait is a user-mode one
    // User APCs waiting for the thread's next alertable user-mode wait, oldest
    // first; guarded by the dispatcher lock.
    std::deque<UserApc> userApcs;
};

// Taken by every KeSetEvent (several per request): a short spin before sleeping.
AdaptiveMutex g_dispatcherLock;
std::unordered_map<PVOID, std::deque<ThreadWait*>> g_waitLists;
thread_local ThreadWait tUnboundWait;  // waits by host threads outside the machine

ThreadWait* WaitStateOf(_KTHREAD* thread) {
    return thread ? static_cast<ThreadWait*>(thread->WaitBlock) : &tUnboundWait;
}

DISPATCHER_HEADER* HeaderOf(PVOID object) { return static_cast<DISPATCHER_HEADER*>(object); }

void RemoveWaiter(PVOID object, ThreadWait* wait) {
    auto it = g_waitLists.find(object);
    if (it == g_waitLists.end()) return;
    auto& list = it->second;
    for (auto w = list.begin(); w != list.end(); ++w) {
        if (*w == wait) {
            list.erase(w);
            break;
        }
    }
    if (list.empty()) g_waitLists.erase(it);
}

// Called with the dispatcher lock held after OBJECT became signalled:
// releases every waiter of a notification event, or one waiter of a
// synchronization event (which then stays non-signalled).
void SatisfyWaiters(PVOID object) {
    auto it = g_waitLists.find(object);
    if (it == g_waitLists.end()) return;
    DISPATCHER_HEADER* header = HeaderOf(object);
    auto& list = it->second;
    while (!list.empty() && header->SignalState > 0) {
        ThreadWait* wait = list.front();
        list.pop_front();
        wait->satisfied = true;
        wait->object = nullptr;
        wait->wake.notify_one();
        if (header->Type == SynchronizationEvent) header->SignalState = 0;
    }
    if (list.empty()) g_waitLists.erase(it);
}

using Clock = std::chrono::steady_clock;

// Converts an NT timeout (negative: relative, positive: absolute system
// time, both in 100 ns units) into a deadline on the steady clock.
Clock::time_point Deadline(LONGLONG timeout) {
    LONGLONG relative = timeout < 0 ? -timeout : timeout - KeSystemTimeNow();
    if (relative < 0) relative = 0;
    return Clock::now() + std::chrono::nanoseconds(relative) * 100;
}

// A user APC ends an alertable wait only when the thread waits in user mode.
bool UserApcsDeliverable(const ThreadWait* wait, KPROCESSOR_MODE mode, BOOLEAN alertable) {
    return alertable && mode == UserMode && !wait->userApcs.empty();
}

// Called with the dispatcher lock held (GUARD); drops it and runs every
// queued user APC in order, as the thread's return to user mode would.
NTSTATUS DeliverUserApcs(ThreadWait* wait, std::unique_lock<AdaptiveMutex>& guard) {
    std::deque<UserApc> due;
    due.swap(wait->userApcs);
    guard.unlock();
    for (const UserApc& apc : due) apc.routine(apc.context, apc.ioStatusBlock, 0);
    return STATUS_USER_APC;
}

bool TakeAlert(_KTHREAD* thread, ThreadWait* wait, BOOLEAN alertable) {
    if (!alertable || !wait->alerted) return false;
    wait->alerted = false;
    if (thread) thread->Alerted = false;
    return true;
}

void CheckWaitIrql(PLARGE_INTEGER timeout, const char* service) {
    if (KeCurrentIrqlRef() >= DISPATCH_LEVEL && !(timeout && timeout->QuadPart == 0))
        VerifierViolation(std::string(service) + " with a non-zero time-out at DISPATCH_LEVEL");
}

}  // namespace

void KeInitializeThreadWait(_KTHREAD* thread) { thread->WaitBlock = new ThreadWait(); }

void KeDeleteThreadWait(_KTHREAD* thread) {
    // User APCs still queued die with the thread unrun.
    std::unique_ptr<ThreadWait> wait(static_cast<ThreadWait*>(thread->WaitBlock));
    std::lock_guard<AdaptiveMutex> guard(g_dispatcherLock);
    thread->WaitBlock = nullptr;
    wait->userApcs.clear();
}

void KeQueueUserApc(_KTHREAD* thread, PIO_APC_ROUTINE routine, PVOID context, PIO_STATUS_BLOCK ioStatusBlock) {
    if (!thread || !routine) return;
    std::lock_guard<AdaptiveMutex> guard(g_dispatcherLock);
    ThreadWait* wait = WaitStateOf(thread);
    if (!wait) return;  // the thread has ended: as NT, its APCs are not queued
    wait->userApcs.push_back({routine, context, ioStatusBlock});
    if (wait->alertable && wait->userWait) wait->wake.notify_one();
}

LONGLONG KeSystemTimeNow() {
    // 100 ns intervals between 1601-01-01 and 1970-01-01.
    constexpr LONGLONG kEpochDelta = 116444736000000000LL;
    auto since1970 = std::chrono::system_clock::now().time_since_epoch();
    return kEpochDelta + std::chrono::duration_cast<std::chrono::nanoseconds>(since1970).count() / 100;
}

}  // namespace tervane::emu

using namespace tervane::emu;

// No thread may wait on an event while it is being initialised, so this
// takes no dispatcher lock (it runs for every file object and request).
extern "C" VOID KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State) {
    Event->Header.Type = static_cast<UCHAR>(Type);
    Event->Header.Absolute = 0;
    Event->Header.Size = sizeof(KEVENT) / sizeof(LONG);
    Event->Header.Inserted = 0;
    Event->Header.SignalState = State ? 1 : 0;
    InitializeListHead(&Event->Header.WaitListHead);
}

extern "C" LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait) {
    std::lock_guard<AdaptiveMutex> guard(g_dispatcherLock);
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 1;
    SatisfyWaiters(Event);
    return previous;
}

extern "C" LONG KeResetEvent(PRKEVENT Event) {
    std::lock_guard<AdaptiveMutex> guard(g_dispatcherLock);
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 0;
    return previous;
}

extern "C" VOID KeClearEvent(PRKEVENT Event) {
    std::lock_guard<AdaptiveMutex> guard(g_dispatcherLock);
    Event->Header.SignalState = 0;
}

extern "C" LONG KeReadStateEvent(PRKEVENT Event) {
    std::lock_guard<AdaptiveMutex> guard(g_dispatcherLock);
    return Event->Header.SignalState;
}

extern "C" NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                          BOOLEAN Alertable, PLARGE_INTEGER Timeout) {
    CheckWaitIrql(Timeout, "KeWaitForSingleObject");
    _ETHREAD* current = CurrentThread();
    _KTHREAD* thread = current ? &current->Tcb : nullptr;
    ThreadWait* wait = WaitStateOf(thread);
    DISPATCHER_HEADER* header = HeaderOf(Object);

    std::unique_lock<AdaptiveMutex> guard(g_dispatcherLock);
    // Order as on NT: a signalled object wins over a pending alert, which
    // wins over a zero time-out.
    if (header->SignalState > 0) {
        if (header->Type == SynchronizationEvent) header->SignalState = 0;
        return STATUS_SUCCESS;
    }
    if (TakeAlert(thread, wait, Alertable)) return STATUS_ALERTED;
    if (UserApcsDeliverable(wait, WaitMode, Alertable)) return DeliverUserApcs(wait, guard);
    if (Timeout && Timeout->QuadPart == 0) return STATUS_TIMEOUT;

    wait->object = Object;
    wait->satisfied = false;
    wait->alertable = Alertable;
    wait->userWait = WaitMode == UserMode;
    g_waitLists[Object].push_back(wait);
    auto done = [&] {
        return wait->satisfied || (Alertable && wait->alerted) || UserApcsDeliverable(wait, WaitMode, Alertable);
    };
    bool inTime = true;
    if (Timeout) {
        inTime = wait->wake.wait_until(guard, Deadline(Timeout->QuadPart), done);
    } else {
        wait->wake.wait(guard, done);
    }
    wait->alertable = false;
    wait->userWait = false;
    if (wait->satisfied) return STATUS_SUCCESS;
    RemoveWaiter(Object, wait);
    wait->object = nullptr;
    if (TakeAlert(thread, wait, Alertable)) return STATUS_ALERTED;
    if (UserApcsDeliverable(wait, WaitMode, Alertable)) return DeliverUserApcs(wait, guard);
    (void)inTime;
    return STATUS_TIMEOUT;
}

extern "C" NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval) {
    CheckWaitIrql(Interval, "KeDelayExecutionThread");
    _ETHREAD* current = CurrentThread();
    _KTHREAD* thread = current ? &current->Tcb : nullptr;
    ThreadWait* wait = WaitStateOf(thread);
    std::unique_lock<AdaptiveMutex> guard(g_dispatcherLock);
    if (TakeAlert(thread, wait, Alertable)) return STATUS_ALERTED;
    if (UserApcsDeliverable(wait, WaitMode, Alertable)) return DeliverUserApcs(wait, guard);
    LONGLONG interval = Interval ? Interval->QuadPart : 0;
    if (interval == 0) {
        guard.unlock();
        std::this_thread::yield();
        return STATUS_SUCCESS;
    }
    wait->alertable = Alertable;
    wait->userWait = WaitMode == UserMode;
    wait->wake.wait_until(guard, Deadline(interval), [&] {
        return (Alertable && wait->alerted) || UserApcsDeliverable(wait, WaitMode, Alertable);
    });
    wait->alertable = false;
    wait->userWait = false;
    if (TakeAlert(thread, wait, Alertable)) return STATUS_ALERTED;
    if (UserApcsDeliverable(wait, WaitMode, Alertable)) return DeliverUserApcs(wait, guard);
    return STATUS_SUCCESS;
}

// Alerts THREAD: an alertable wait it is in ends with STATUS_ALERTED;
// otherwise the alert stays pending for its next alertable wait. Returns
// whether an alert was already pending.
extern "C" BOOLEAN KeAlertThread(PKTHREAD Thread, KPROCESSOR_MODE AlertMode) {
    std::lock_guard<AdaptiveMutex> guard(g_dispatcherLock);
    ThreadWait* wait = WaitStateOf(Thread);
    if (!wait) return FALSE;  // the thread has ended
    BOOLEAN previous = wait->alerted ? TRUE : FALSE;
    wait->alerted = true;
    Thread->Alerted = true;
    if (wait->alertable) wait->wake.notify_one();
    return previous;
}

// Ends a pending alert of the calling thread (STATUS_ALERTED) and delivers
// its queued user APCs, as the return to user mode then does.
extern "C" NTSTATUS NtTestAlert(VOID) {
    _ETHREAD* current = CurrentThread();
    _KTHREAD* thread = current ? &current->Tcb : nullptr;
    ThreadWait* wait = WaitStateOf(thread);
    std::unique_lock<AdaptiveMutex> guard(g_dispatcherLock);
    NTSTATUS status = TakeAlert(thread, wait, TRUE) ? STATUS_ALERTED : STATUS_SUCCESS;
    if (!wait->userApcs.empty()) DeliverUserApcs(wait, guard);
    return status;
}

extern "C" VOID KeQuerySystemTime(PLARGE_INTEGER CurrentTime) { CurrentTime->QuadPart = KeSystemTimeNow(); }

extern "C" ULONGLONG KeQueryInterruptTime(VOID) {
    auto up = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<ULONGLONG>(std::chrono::duration_cast<std::chrono::nanoseconds>(up).count() / 100);
}
