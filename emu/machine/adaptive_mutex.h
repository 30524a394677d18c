// A mutex for short critical sections that several threads take often: a
// thread that finds it held spins a little before it sleeps, which costs
// less than a sleep and a wake-up when the owner is about to let go. Taking
// and giving back a free one is one atomic operation each, inline (the
// pool, the live-object sets and the handle tables take one per call).
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

namespace tervane::emu {

// One step of a spin-wait: tells the core that this thread only waits.
inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

class AdaptiveMutex {
public:
    AdaptiveMutex() = default;
    AdaptiveMutex(const AdaptiveMutex&) = delete;
    AdaptiveMutex& operator=(const AdaptiveMutex&) = delete;

    void lock() {
        uint32_t expected = kFree;
        if (state_.compare_exchange_strong(expected, kHeld, std::memory_order_acquire, std::memory_order_relaxed))
            return;
        LockContended();
    }
    bool try_lock() {
        uint32_t expected = kFree;
        return state_.compare_exchange_strong(expected, kHeld, std::memory_order_acquire, std::memory_order_relaxed);
    }
    void unlock() {
        if (state_.exchange(kFree, std::memory_order_release) == kHeldWithSleepers) Wake();
    }

private:
    // kHeldWithSleepers: a thread may sleep on the futex, so the owner wakes
    // one when it lets go.
    static constexpr uint32_t kFree = 0, kHeld = 1, kHeldWithSleepers = 2;
    // The sections it guards last tens of nanoseconds: a short spin catches
    // an owner about to let go, and a long one burns a core when the owner
    // was preempted (more threads than cores).
    static constexpr int kSpins = 16;

    __attribute__((noinline)) void LockContended() {
        for (int spin = 0; spin < kSpins; ++spin) {
            uint32_t seen = state_.load(std::memory_order_relaxed);
            if (seen == kFree && state_.compare_exchange_weak(seen, kHeld, std::memory_order_acquire,
                                                              std::memory_order_relaxed))
                return;
            CpuRelax();
        }
        // From here on the lock is taken as "held with sleepers", since this
        // thread cannot tell whether others sleep beside it.
        while (state_.exchange(kHeldWithSleepers, std::memory_order_acquire) != kFree)
            syscall(SYS_futex, reinterpret_cast<uint32_t*>(&state_), FUTEX_WAIT_PRIVATE, kHeldWithSleepers, nullptr,
                    nullptr, 0);
    }
    __attribute__((noinline)) void Wake() {
        syscall(SYS_futex, reinterpret_cast<uint32_t*>(&state_), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }

    std::atomic<uint32_t> state_{kFree};
};

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t), "the futex word is the atomic itself");

}  // namespace tervane::emu
