// The mount's machine and its controller: the setup script runs through the
// scenario interpreter, `ctl` lines arrive later through the control socket,
// and the process registry asks about and changes the monitored-process
// list. One lock keeps these in turn; file requests never take it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include <emu/machine.h>

#include "interpreter.h"

namespace tervane::fuse {

class Controller {
public:
    explicit Controller(std::filesystem::path baseDir);

    // Runs the setup script; false with the reason on ERR when a line is
    // wrong or an expectation failed. What it prints goes to OUT.
    bool RunSetup(const std::filesystem::path& script, std::ostream& out, std::ostream& err);

    // One `ctl` command (VERB and its words) as a script would run it: what
    // it printed, and 0 when it succeeded, 1 when the driver refused, 2 when
    // the words were wrong.
    std::string Ctl(const std::vector<std::string>& words, int* exitCode);

    // The monitored-process list; empty when no driver answers.
    std::vector<uint32_t> MonitoredPids();
    // Adds PID with NAME to, or removes it from, the list.
    bool AddMonitored(uint32_t pid, const std::string& name);
    void RemoveMonitored(uint32_t pid);

    emu::Machine& machine() { return interpreter_.session().Machine(); }
    // Shuts the machine down after the registry ended its processes; the
    // verifier's report.
    emu::VerifierReport Finish();

private:
    // Sends one control verb from the controller process; the status and
    // the output bytes it produced.
    NTSTATUS Send(const char* verb, const std::vector<std::string>& words, std::vector<uint8_t>* out);

    std::mutex lock_;
    std::ostringstream output_;
    tool::Interpreter interpreter_;
    int lines_ = 0;
};

}  // namespace tervane::fuse
