// A mutex for short critical sections that several threads take often: a
// thread that finds it held spins a little before it sleeps (the host's
// adaptive mutex), which costs less than a sleep and a wake-up when the
// owner is about to let go.
#pragma once

#include <pthread.h>

namespace tervane::emu {

class AdaptiveMutex {
public:
    AdaptiveMutex() {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ADAPTIVE_NP);
        pthread_mutex_init(&mutex_, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~AdaptiveMutex() { pthread_mutex_destroy(&mutex_); }
    AdaptiveMutex(const AdaptiveMutex&) = delete;
    AdaptiveMutex& operator=(const AdaptiveMutex&) = delete;

    void lock() { pthread_mutex_lock(&mutex_); }
    bool try_lock() { return pthread_mutex_trylock(&mutex_) == 0; }
    void unlock() { pthread_mutex_unlock(&mutex_); }

private:
    pthread_mutex_t mutex_;
};

}  // namespace tervane::emu
