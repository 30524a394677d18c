// Linux processes as processes of the machine.
#include "process_registry.h"

#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <vector>

namespace tervane::fuse {

struct ProcessRegistry::Record {
    LinuxProcess host;
    emu::Process* process = nullptr;
    bool owned = false;            // made by the registry (ended by it too)
    std::atomic<int> users{0};     // leases: requests under way, open files
};

ProcessRegistry::Lease::Lease(Record* record) : record_(record) {
    if (record_) record_->users.fetch_add(1);
}
ProcessRegistry::Lease::Lease(Lease&& other) noexcept : record_(other.record_) { other.record_ = nullptr; }
ProcessRegistry::Lease& ProcessRegistry::Lease::operator=(Lease&& other) noexcept {
    if (this != &other) {
        if (record_) record_->users.fetch_sub(1);
        record_ = other.record_;
        other.record_ = nullptr;
    }
    return *this;
}
ProcessRegistry::Lease::~Lease() {
    if (record_) record_->users.fetch_sub(1);
}
emu::Process* ProcessRegistry::Lease::process() const { return record_ ? record_->process : nullptr; }
uint32_t ProcessRegistry::Lease::pid() const { return record_ ? static_cast<uint32_t>(record_->host.pid) : 0; }

std::optional<LinuxProcess> ReadLinuxProcess(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    if (!std::getline(stat, text)) return std::nullopt;
    // "PID (COMM) STATE PPID ..."; COMM may hold blanks and parentheses.
    size_t open = text.find('('), close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) return std::nullopt;
    std::istringstream rest(text.substr(close + 2));
    std::vector<std::string> fields;
    for (std::string f; rest >> f && fields.size() < 20;) fields.push_back(f);
    if (fields.size() < 20 || fields[0] == "Z" || fields[0] == "X") return std::nullopt;
    LinuxProcess p;
    p.pid = pid;
    p.parent = static_cast<pid_t>(std::stoll(fields[1]));
    p.started = std::stoull(fields[19]);  // field 22 of the line
    p.comm = text.substr(open + 1, close - open - 1);
    return p;
}

ProcessRegistry::ProcessRegistry(emu::Machine& machine, std::function<void(const LinuxProcess&)> firstSight,
                                 std::function<void(pid_t)> ended)
    : machine_(machine), firstSight_(std::move(firstSight)), ended_(std::move(ended)) {}

ProcessRegistry::~ProcessRegistry() {
    Stop();
    EndAll();
}

ProcessRegistry::Record* ProcessRegistry::MakeRecord(const LinuxProcess& host) {
    auto record = std::make_unique<Record>();
    record->host = host;
    // An id the machine already uses for a process of its own (the System
    // process, the controller, a process of the setup script) stays that
    // process: requests of such a Linux process run as it, and it is never
    // ended here.
    record->process = machine_.CreateProcess(static_cast<uint32_t>(host.pid), host.comm);
    record->owned = record->process != nullptr;
    if (!record->process) record->process = machine_.FindProcess(static_cast<uint32_t>(host.pid));
    if (!record->process) return nullptr;
    Record* raw = record.get();
    live_[host.pid] = std::move(record);
    return raw;
}

ProcessRegistry::Lease ProcessRegistry::Enter(pid_t pid) {
    if (pid <= 0) pid = getpid();
    {
        std::lock_guard<std::mutex> guard(lock_);
        auto it = live_.find(pid);
        if (it != live_.end()) return Lease(it->second.get());
    }
    std::optional<LinuxProcess> host = ReadLinuxProcess(pid);
    if (!host) {
        // Gone already (a request in flight when it was killed): its requests
        // still need a process to end in.
        host = LinuxProcess{pid, 0, 0, "unknown"};
    }
    if (firstSight_) firstSight_(*host);
    std::lock_guard<std::mutex> guard(lock_);
    auto it = live_.find(pid);
    if (it != live_.end()) return Lease(it->second.get());
    return Lease(MakeRecord(*host));
}

void ProcessRegistry::End(Record* record) {
    if (record->owned) machine_.TerminateProcess(record->process);
    if (ended_) ended_(record->host.pid);
}

void ProcessRegistry::Reap() {
    std::vector<std::unique_ptr<Record>> gone;
    {
        std::lock_guard<std::mutex> guard(lock_);
        for (auto it = live_.begin(); it != live_.end();) {
            Record* r = it->second.get();
            bool alive = false;
            if (auto now = ReadLinuxProcess(r->host.pid)) alive = now->started == r->host.started;
            if (!alive && r->users.load() == 0) {
                gone.push_back(std::move(it->second));
                it = live_.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& r : gone) End(r.get());
}

void ProcessRegistry::Start() {
    reaper_ = std::thread([this] {
        std::unique_lock<std::mutex> guard(reaperLock_);
        while (!stopping_) {
            reaperWake_.wait_for(guard, std::chrono::milliseconds(500));
            if (stopping_) break;
            guard.unlock();
            Reap();
            guard.lock();
        }
    });
}

void ProcessRegistry::Stop() {
    {
        std::lock_guard<std::mutex> guard(reaperLock_);
        stopping_ = true;
        reaperWake_.notify_all();
    }
    if (reaper_.joinable()) reaper_.join();
}

void ProcessRegistry::EndAll() {
    std::map<pid_t, std::unique_ptr<Record>> all;
    {
        std::lock_guard<std::mutex> guard(lock_);
        all.swap(live_);
    }
    for (auto& [pid, r] : all) End(r.get());
}

size_t ProcessRegistry::Count() {
    std::lock_guard<std::mutex> guard(lock_);
    return live_.size();
}

}  // namespace tervane::fuse
