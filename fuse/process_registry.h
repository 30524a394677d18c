// Linux processes as processes of the machine: the caller of a request is
// the machine process of the same id, made on first sight with its image
// name from /proc/PID/comm and ended once the Linux process is gone and
// nothing of it is in use.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <emu/machine.h>

namespace tervane::fuse {

// What identifies one Linux process over time: its id and the tick it
// started at, so that a reused id is a new process.
struct LinuxProcess {
    pid_t pid = 0;
    pid_t parent = 0;
    uint64_t started = 0;
    std::string comm;  // "python3"
};
// The process as /proc shows it now; nothing for a process that is gone or a
// zombie.
std::optional<LinuxProcess> ReadLinuxProcess(pid_t pid);

class ProcessRegistry {
public:
    struct Record;
    // Holds a process: it is not ended while held.
    class Lease {
    public:
        Lease() = default;
        explicit Lease(Record* record);
        Lease(Lease&& other) noexcept;
        Lease& operator=(Lease&& other) noexcept;
        ~Lease();
        emu::Process* process() const;
        uint32_t pid() const;
        explicit operator bool() const { return record_ != nullptr; }
        Lease Copy() const { return Lease(record_); }

    private:
        Record* record_ = nullptr;
    };

    // FIRSTSIGHT runs once for each new process, before its first request
    // (the mount's policy for descendants of monitored processes). ENDED runs
    // for each process after it was ended.
    ProcessRegistry(emu::Machine& machine, std::function<void(const LinuxProcess&)> firstSight,
                    std::function<void(pid_t)> ended);
    ~ProcessRegistry();  // ends every process it made

    // The machine process of PID (0, a request of no process, is the mount's
    // own); empty when it cannot be had.
    Lease Enter(pid_t pid);

    // Ends the processes whose Linux process is gone; runs every half second
    // on a thread of its own from Start() until Stop().
    void Reap();
    void Start();
    void Stop();
    void EndAll();

    size_t Count();

private:
    Record* MakeRecord(const LinuxProcess& host);
    void End(Record* record);

    emu::Machine& machine_;
    std::function<void(const LinuxProcess&)> firstSight_;
    std::function<void(pid_t)> ended_;
    std::mutex lock_;
    std::map<pid_t, std::unique_ptr<Record>> live_;
    std::mutex reaperLock_;
    std::condition_variable reaperWake_;
    bool stopping_ = false;
    std::thread reaper_;
};

}  // namespace tervane::fuse
