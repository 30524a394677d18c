// The live machine's state, shared by the emulator's services through
// CurrentMachine().
#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "dbg/debug_log.h"
#include "ex/pool.h"
#include "kernel.h"

namespace tervane::emu {

class Verifier {
public:
    void Violation(const std::string& what);
    std::vector<std::string> Violations() const;

private:
    mutable std::mutex lock_;
    std::vector<std::string> violations_;
};

struct Machine::Impl {
    explicit Impl(Machine* self, const MachineOptions& options)
        : self(self), options(options), log(options.echoLog, options.logCapacity) {}

    Machine* self;
    MachineOptions options;
    DebugLog log;
    PoolTracker pool;
    Verifier verifier;

    // Processes by id; terminated ones stay in `ended` until the machine goes
    // so that Process pointers held by callers never dangle.
    mutable std::mutex processLock;
    std::map<uint32_t, Process*> processes;
    std::vector<Process*> ended;
    Process* system = nullptr;

    // Lookaside lists still initialised (drained at shutdown).
    std::mutex lookasideListsLock;
    std::set<void*> lookasideLists;

    std::mutex shutdownLock;
    bool shutDown = false;
    VerifierReport finalReport;
};

}  // namespace tervane::emu
