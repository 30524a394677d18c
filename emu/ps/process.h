// Processes and threads of the machine: a process is an _EPROCESS with a
// persistent worker thread that runs the host's Run() calls; any number of
// further threads can be started on it.
#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "kernel.h"

namespace tervane::emu {

// Creates a thread object bound to PROCESS, and ends its run: the object
// itself goes with its last reference (a request packet of the thread may
// still be pending).
_ETHREAD* PsCreateThreadObject(_EPROCESS* process);
void PsDeleteThreadObject(_ETHREAD* thread);
// Runs FN on the calling host thread as THREAD, then checks that the thread
// left every critical region it entered.
void PsRunAsThread(_ETHREAD* thread, const std::function<void()>& fn);
// The current thread; a service called on a host thread that is not bound to
// the machine stops the host process with a message naming SERVICE.
_ETHREAD* RequireCurrentThread(const char* service);

class Process {
public:
    Process(Machine* machine, uint32_t pid, const std::string& imageName);
    ~Process();  // stops the worker; the handle table must be gone already
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    _EPROCESS* eprocess() const { return eprocess_; }
    uint32_t pid() const { return eprocess_->UniqueProcessId; }
    // Runs FN on the worker thread and waits; rethrows what FN threw. Called
    // from the worker itself, FN simply runs inline.
    void Run(const std::function<void()>& fn);
    void StopWorker();
    bool terminated = false;

private:
    void WorkerMain();

    _EPROCESS* eprocess_;
    std::mutex runLock_;  // one Run at a time
    std::mutex lock_;
    std::condition_variable cv_;
    const std::function<void()>* task_ = nullptr;
    bool done_ = false;
    bool quit_ = false;
    std::exception_ptr error_;
    _ETHREAD* workerThread_ = nullptr;
    std::thread worker_;
};

}  // namespace tervane::emu
