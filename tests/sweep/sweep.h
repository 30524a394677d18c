// The allocation-failure sweep: runs a workload (a scenario script, or the
// walk of tervane demo) once to count its allocations, then once for every
// N with the Nth allocation refused, and judges each run against the first.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace tervane::sweep {

// What a host file or directory holds, by size and content hash.
struct HostEntry {
    bool directory = false;
    uint64_t size = 0;
    uint64_t hash = 0;
    bool operator==(const HostEntry&) const = default;
};
// Every file and directory of the workload's volumes, by drive path
// ("C:\layers\pack\a.txt"), upcased so that names compare as NTFS does.
using HostState = std::map<std::string, HostEntry>;

struct Workload {
    std::string name;                             // the script's path, or "demo"
    std::vector<std::pair<int, std::string>> lines;  // line number and text, `expect` lines left out
    // Writes what the workload needs on the host before the machine starts.
    std::function<void(const std::filesystem::path& base)> prepare;
};
Workload ScriptWorkload(const std::string& file);
Workload DemoWorkload();

// Which allocations are refused: none; the Nth of all (or of TAG's); or
// every allocation with TAG from its Nth on.
struct Injection {
    enum Kind { kNone, kNth, kTagFrom } kind = kNone;
    uint64_t n = 0;
    std::string tag;
    std::string Describe() const;  // "--fail-at 12", "--fail-at 3 --tag Trvm"
};

struct CommandResult {
    int line = 0;
    std::string text;
    int64_t status = 0;
    std::string output;
    bool scriptError = false;  // the tool refused to go on (its message is the output)
    bool operator==(const CommandResult&) const = default;
};

struct RefusedAllocation {
    uint64_t serial = 0;
    std::string tag;
    int command = -1;  // index into the commands; -1 before the first
    std::vector<uintptr_t> stack;
};

struct Outcome {
    std::vector<CommandResult> commands;
    std::optional<RefusedAllocation> refused;  // the first refusal
    std::set<int> refusedIn;                   // every command that had a refusal
    HostState initial;
    std::vector<HostState> afterEach;      // the baseline only: after each command
    std::map<int, HostState> atRefusal;    // after each command that had a refusal
    HostState end;
    bool clean = true;
    std::string verifier;  // the report when not clean
    uint64_t allocations = 0;
    std::map<std::string, uint64_t> tagAllocations;
};

// Runs WORKLOAD in a new temporary directory on a new machine. PROGRESS
// hears of each command before it runs (its index). EVERYCOMMAND keeps the
// host state after each command (for a baseline).
Outcome Run(const Workload& workload, const Injection& injection, bool everyCommand,
            const std::function<void(int)>& progress = {});

// What is wrong with FAULTED, judged against the run without refusals; empty
// when it is all right.
std::vector<std::string> Judge(const Workload& workload, const Outcome& baseline, const Outcome& faulted);

nlohmann::json ToJson(const Outcome& outcome);
Outcome FromJson(const nlohmann::json& json);

// The frames of STACK as lines, with function, file and line where known.
// PrepareSymbols looks many addresses up at once for later calls.
std::vector<std::string> Symbolize(const std::vector<uintptr_t>& stack);
void PrepareSymbols(const std::vector<uintptr_t>& addresses);

// The tags whose allocations the tag-only runs refuse.
extern const char* const kSweptTags[];
extern const size_t kSweptTagCount;

}  // namespace tervane::sweep
