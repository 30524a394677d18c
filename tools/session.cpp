#include "session.h"

#include <chrono>

#include <nt/ntifs.h>

#include "lexer.h"

namespace tervane::tool {

// ---- PendingRequest ----------------------------------------------------------

bool PendingRequest::Wait(int ms) {
    std::unique_lock lock(mutex);
    return done.wait_for(lock, std::chrono::milliseconds(ms), [this] { return finished; });
}

// ---- ProcessState ------------------------------------------------------------

HANDLE ProcessState::Handle(const std::string& name) const {
    auto it = handles.find(name);
    if (it == handles.end())
        throw ScriptError("process " + std::to_string(pid) + " has no open handle named \"" + name + "\"");
    return it->second;
}

// ---- Session -----------------------------------------------------------------

Session::Session(std::filesystem::path baseDir) : baseDir_(std::move(baseDir)) {}

Session::~Session() {
    if (machine_) Finish();
}

emu::Machine& Session::Machine() {
    if (!machine_) {
        machine_ = std::make_unique<emu::Machine>();
        machine_->SetRegistryString("\\Registry\\Machine\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion",
                                    "SystemRoot", "C:\\WINDOWS");
    }
    return *machine_;
}

ProcessState* Session::CreateProcess(uint32_t pid, const std::string& image) {
    emu::Process* process = Machine().CreateProcess(pid, image);
    if (!process) return nullptr;
    auto state = std::make_unique<ProcessState>();
    state->pid = pid;
    state->image = image;
    state->process = process;
    auto* raw = state.get();
    processes_[pid] = std::move(state);
    return raw;
}

ProcessState* Session::FindProcess(uint32_t pid) {
    auto it = processes_.find(pid);
    return it == processes_.end() ? nullptr : it->second.get();
}

ProcessState& Session::Process(uint32_t pid) {
    if (auto* p = FindProcess(pid)) return *p;
    throw ScriptError("no process " + std::to_string(pid) + " (create it first: process " + std::to_string(pid) +
                      " IMAGE)");
}

void Session::RunIn(ProcessState& process, const std::function<void()>& task) { machine_->Run(process.process, task); }

std::string Session::TakeCommandLog() {
    if (!machine_) return {};
    std::string text = machine_->TakeNewLog();
    logForLogCommand_ += text;
    // Kept as the machine keeps its log: the most recent whole lines within
    // its capacity, so a long session without `log` does not grow.
    const size_t capacity = emu::MachineOptions().logCapacity;
    if (logForLogCommand_.size() > capacity + capacity / 2) {
        size_t cut = logForLogCommand_.find('\n', logForLogCommand_.size() - capacity - 1);
        logForLogCommand_.erase(0, cut == std::string::npos ? logForLogCommand_.size() - capacity : cut + 1);
    }
    return text;
}

std::string Session::TakeLogForLogCommand() { return std::exchange(logForLogCommand_, {}); }

Result Session::StartRequest(ProcessState& process, const std::string& handleName, const std::string& label,
                             std::function<Result()> call, int waitMs) {
    auto request = std::make_unique<PendingRequest>();
    request->pid = process.pid;
    request->handleName = handleName;
    request->label = label;
    PendingRequest* raw = request.get();
    raw->thread = Machine().StartThread(process.process, [raw, call = std::move(call)] {
        Result result;
        try {
            result = call();
        } catch (const std::exception& e) {
            result.status = STATUS_INTERNAL_ERROR;
            result.lines.push_back(e.what());
        }
        std::lock_guard lock(raw->mutex);
        raw->result = std::move(result);
        raw->finished = true;
        raw->done.notify_all();
    });
    if (raw->Wait(waitMs)) {
        raw->thread->Join();
        return std::move(raw->result);
    }
    pending_.push_back(std::move(request));
    Result result;
    result.status = STATUS_PENDING;
    result.lines.push_back("still waiting; its completion is reported with a later command");
    return result;
}

std::vector<std::unique_ptr<PendingRequest>> Session::CollectCompleted(int ms) {
    std::vector<std::unique_ptr<PendingRequest>> completed;
    for (auto it = pending_.begin(); it != pending_.end();) {
        if ((*it)->Wait(ms)) {
            (*it)->thread->Join();
            completed.push_back(std::move(*it));
            it = pending_.erase(it);
        } else {
            ++it;
        }
    }
    return completed;
}

bool Session::HasPending(uint32_t pid, const std::string& handleName) const {
    for (const auto& n : pending_)
        if (n->pid == pid && n->handleName == handleName) return true;
    return false;
}

std::vector<uint32_t> Session::ProcessIds() const {
    std::vector<uint32_t> ids;
    for (const auto& [pid, process] : processes_) ids.push_back(pid);
    return ids;
}

std::vector<std::string> Session::OpenHandleNames() const {
    std::vector<std::string> names;
    for (const auto& [pid, process] : processes_)
        for (const auto& [name, handle] : process->handles) names.push_back(std::to_string(pid) + ": " + name);
    return names;
}

emu::VerifierReport Session::Finish() {
    if (!machine_) return {};
    // A pending request ends with the cleanup of its handle; close those
    // handles so that its thread can be joined before the machine goes.
    for (const auto& n : pending_) {
        ProcessState* p = FindProcess(n->pid);
        if (!p || !p->handles.count(n->handleName)) continue;
        HANDLE h = p->handles[n->handleName];
        p->handles.erase(n->handleName);
        RunIn(*p, [h] { NtClose(h); });
    }
    for (auto& n : pending_) n->thread->Join();
    pending_.clear();
    for (auto& [pid, process] : processes_) machine_->TerminateProcess(process->process);
    processes_.clear();
    controller = nullptr;
    controlHandle = nullptr;
    if (processesEnded) processesEnded(*machine_);
    if (releaseDriver) {
        machine_->Run(machine_->SystemProcess(), releaseDriver);
        releaseDriver = nullptr;
    }
    emu::VerifierReport report = machine_->Shutdown();
    machine_.reset();
    return report;
}

}  // namespace tervane::tool
