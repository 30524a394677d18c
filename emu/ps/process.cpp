// Process objects and their worker threads.
#include "ps/process.h"

#include <cstring>

#include "ke/dispatcher.h"
#include "machine/machine_impl.h"

namespace tervane::emu {

Process::Process(Machine* machine, uint32_t pid, const std::string& imageName) {
    eprocess_ = new _EPROCESS();
    std::memset(eprocess_->Body, 0, sizeof(eprocess_->Body));
    // NT keeps the first 15 characters of the image name, zero-terminated.
    size_t n = std::min(imageName.size(), kImageNameLength - 1);
    std::memcpy(eprocess_->Body + kImageNameOffset, imageName.data(), n);
    eprocess_->UniqueProcessId = pid;
    eprocess_->Handles = nullptr;
    eprocess_->Owner = machine;
    eprocess_->ThreadCount = 0;
    eprocess_->Host = this;
    workerThread_ = PsCreateThreadObject(eprocess_);
    worker_ = std::thread([this] { WorkerMain(); });
}

Process::~Process() {
    StopWorker();
    PsDeleteThreadObject(workerThread_);
    delete eprocess_;
}

void Process::WorkerMain() {
    std::unique_lock<std::mutex> guard(lock_);
    for (;;) {
        cv_.wait(guard, [this] { return quit_ || task_ != nullptr; });
        if (task_ == nullptr) return;
        const std::function<void()>* task = task_;
        guard.unlock();
        std::exception_ptr error;
        try {
            PsRunAsThread(workerThread_, *task);
        } catch (...) {
            error = std::current_exception();
        }
        guard.lock();
        error_ = error;
        task_ = nullptr;
        done_ = true;
        cv_.notify_all();
    }
}

void Process::Run(const std::function<void()>& fn) {
    if (CurrentThread() == workerThread_) {
        fn();
        return;
    }
    std::lock_guard<std::mutex> serial(runLock_);
    std::unique_lock<std::mutex> guard(lock_);
    if (quit_) throw std::runtime_error("process " + std::to_string(pid()) + " has ended");
    task_ = &fn;
    done_ = false;
    cv_.notify_all();
    cv_.wait(guard, [this] { return done_; });
    std::exception_ptr error = error_;
    error_ = nullptr;
    guard.unlock();
    if (error) std::rethrow_exception(error);
}

void Process::StopWorker() {
    {
        std::lock_guard<std::mutex> guard(lock_);
        quit_ = true;
        cv_.notify_all();
    }
    if (worker_.joinable()) worker_.join();
}

}  // namespace tervane::emu
