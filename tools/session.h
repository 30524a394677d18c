// The emulated machine behind a script: its processes, the handles the
// script named, and the requests still pending.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <emu/machine.h>

#include "control_client.h"
#include "result.h"

namespace tervane::tool {

// A call that may wait for long (a change notification, a lock that waits),
// made on a thread of its own so that the script goes on meanwhile.
struct PendingRequest {
    uint32_t pid = 0;
    std::string handleName;
    std::string label;  // "1234: notify h1"
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    Result result;  // set by the call's thread when it returns
    std::unique_ptr<emu::Machine::Thread> thread;
    // Waits up to MS milliseconds; true when the call has returned.
    bool Wait(int ms);
};

struct ProcessState {
    uint32_t pid = 0;
    std::string image;
    emu::Process* process = nullptr;
    std::map<std::string, HANDLE> handles;  // names chosen by the script

    // The handle named NAME; ScriptError when the script opened none.
    HANDLE Handle(const std::string& name) const;
};

class Session {
public:
    // Relative host directories of `volume` are taken from BASEDIR.
    explicit Session(std::filesystem::path baseDir);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // The machine, made on first use with SystemRoot = C:\WINDOWS.
    emu::Machine& Machine();
    bool Started() const { return machine_ != nullptr; }
    const std::filesystem::path& BaseDir() const { return baseDir_; }

    // Processes made by the script. Process() throws ScriptError for an
    // unknown id.
    ProcessState* CreateProcess(uint32_t pid, const std::string& image);
    ProcessState& Process(uint32_t pid);
    ProcessState* FindProcess(uint32_t pid);
    // Runs TASK on the process's own long-lived thread (no thread is made
    // per command); an exception it throws is rethrown here.
    void RunIn(ProcessState& process, const std::function<void()>& task);

    // The debug output since the previous call; it also collects for `log`.
    std::string TakeCommandLog();
    std::string TakeLogForLogCommand();

    // Starts CALL on a new thread of PROCESS and waits up to WAITMS for it.
    // Its result when it returned in time; otherwise STATUS_PENDING, and the
    // request is reported by CollectCompleted once it returns.
    Result StartRequest(ProcessState& process, const std::string& handleName, const std::string& label,
                        std::function<Result()> call, int waitMs);
    // The requests that returned since the last call, waiting up to MS
    // milliseconds for each still pending.
    std::vector<std::unique_ptr<PendingRequest>> CollectCompleted(int ms);
    bool HasPending(uint32_t pid, const std::string& handleName) const;
    bool HasPending() const { return !pending_.empty(); }

    // The ids of the processes the script made, in order.
    std::vector<uint32_t> ProcessIds() const;
    // The handles the script named and has not closed, as "PID: NAME".
    std::vector<std::string> OpenHandleNames() const;

    // The controller process and its open of the control device (or null).
    ProcessState* controller = nullptr;
    HANDLE controlHandle = nullptr;
    control::Known known;  // what this run's ctl calls saw succeed

    // Set by `load`: gives back what the driver holds, so that the machine
    // can shut down with nothing outstanding. Runs in the System process
    // after every other process has ended.
    std::function<void()> releaseDriver;
    // The driver image `load` without a path loads (empty: the built-in
    // driver), and whether a driver is loaded.
    std::string driverImage;
    bool driverLoaded = false;
    // Called by Finish once every process has ended, before the driver gives
    // back what it holds (the allocation-failure sweep stops refusing there).
    std::function<void(emu::Machine&)> processesEnded;

    // Ends the run: closes the handles that pending requests wait on, ends
    // every process (closing its handles), releases the driver, and shuts the
    // machine down. Returns the verifier's report; an empty report when no
    // machine was made.
    emu::VerifierReport Finish();

private:
    std::filesystem::path baseDir_;
    std::unique_ptr<emu::Machine> machine_;
    std::map<uint32_t, std::unique_ptr<ProcessState>> processes_;
    std::vector<std::unique_ptr<PendingRequest>> pending_;
    std::string logForLogCommand_;
};

}  // namespace tervane::tool
