// One run of a workload: a new machine in a new temporary directory, the
// refusals asked for, each command's result, and the host's files.
#include <execinfo.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <fstream>
#include <mutex>
#include <regex>
#include <sstream>

#include <emu/machine.h>

#include "demo.h"
#include "index_cli.h"
#include "interpreter.h"
#include "sweep.h"

namespace tervane::sweep {
namespace fs = std::filesystem;

const char* const kSweptTags[] = {"Trvm", "Trvf", "Trvi", "0SDF", "0Cha"};
const size_t kSweptTagCount = sizeof(kSweptTags) / sizeof(kSweptTags[0]);

std::string Injection::Describe() const {
    switch (kind) {
    case kNone: return "no refusal";
    case kNth: return "--fail-at " + std::to_string(n) + (tag.empty() ? "" : " --tag " + tag + " --once");
    case kTagFrom: return "--fail-at " + std::to_string(n) + " --tag " + tag;
    }
    return "";
}

namespace {

bool IsExpectLine(const std::string& line) {
    size_t at = line.find_first_not_of(" \t");
    return at != std::string::npos && line.compare(at, 6, "expect") == 0 &&
           (at + 6 == line.size() || line[at + 6] == ' ' || line[at + 6] == '\t');
}

uint64_t Fnv1a(const std::string& bytes) {
    uint64_t hash = 1469598103934665603ull;
    for (unsigned char c : bytes) hash = (hash ^ c) * 1099511628211ull;
    return hash;
}

std::string Upcase(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::toupper(c)); });
    return s;
}

// The volumes the lines mount: drive letter and host directory.
std::map<char, fs::path> Volumes(const Workload& workload, const fs::path& base) {
    std::map<char, fs::path> volumes;
    for (const auto& [number, line] : workload.lines) {
        std::istringstream words(line);
        std::string command, drive, dir;
        if (!(words >> command >> drive >> dir) || command != "volume" || drive.size() != 2 || drive[1] != ':')
            continue;
        if (dir.size() == 2 && dir[1] == ':') continue;  // a second letter of a mounted volume
        fs::path host(dir);
        volumes[char(std::toupper((unsigned char)drive[0]))] = (host.is_relative() ? base / host : host).lexically_normal();
    }
    return volumes;
}

HostState Look(const std::map<char, fs::path>& volumes) {
    HostState state;
    for (const auto& [letter, root] : volumes) {
        std::error_code error;
        if (!fs::is_directory(root, error)) continue;
        for (auto it = fs::recursive_directory_iterator(root, error); !error && it != fs::recursive_directory_iterator();
             it.increment(error)) {
            std::string relative = it->path().lexically_relative(root).string();
            std::replace(relative.begin(), relative.end(), '/', '\\');
            HostEntry entry;
            entry.directory = it->is_directory(error);
            if (!entry.directory) {
                std::ifstream in(it->path(), std::ios::binary);
                std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
                entry.size = bytes.size();
                entry.hash = Fnv1a(bytes);
            }
            state[Upcase(std::string(1, letter) + ":\\" + relative)] = entry;
        }
    }
    return state;
}

}  // namespace

Workload ScriptWorkload(const std::string& file) {
    std::ifstream in(file);
    if (!in) throw std::runtime_error("cannot read " + file);
    Workload workload;
    workload.name = file;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        size_t at = line.find_first_not_of(" \t");
        if (at == std::string::npos || line[at] == '#' || IsExpectLine(line)) continue;
        workload.lines.emplace_back(number, line);
    }
    workload.prepare = [](const fs::path&) {};
    return workload;
}

Workload DemoWorkload() {
    Workload workload;
    workload.name = "demo";
    int number = 0;
    for (const tool::DemoStep& step : tool::DemoSteps()) {
        for (const auto* column : {&step.left, &step.right})
            for (const tool::DemoCommand& command : *column) workload.lines.emplace_back(++number, command.line);
    }
    workload.prepare = [](const fs::path& base) {
        tool::WriteDemoContent(base);
        std::ostringstream quiet;
        tool::IndexBuildOptions options;
        options.quiet = true;
        const fs::path layers = base / "volume" / "layers" / "base";
        const fs::path index = base / "volume" / "index";
        if (tool::IndexBuild(layers.string(), (index / "base.node").string(), (index / "base.name").string(), options,
                             quiet, quiet) != 0)
            throw std::runtime_error("the demo's index cannot be built: " + quiet.str());
    };
    return workload;
}

Outcome Run(const Workload& workload, const Injection& injection, bool everyCommand,
            const std::function<void(int)>& progress) {
    std::string pattern = (fs::temp_directory_path() / "tervane-sweep-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot make a temporary directory");
    const fs::path base = pattern;
    workload.prepare(base);
    const auto volumes = Volumes(workload, base);

    Outcome outcome;
    std::ostringstream out;
    std::atomic<int> current{-1};
    std::mutex refusedLock;
    {
        tool::Interpreter interpreter(out, base);
        emu::Machine& machine = interpreter.session().Machine();
        const uint64_t start = machine.AllocationCount();
        std::map<std::string, uint64_t> tagStart;
        for (size_t i = 0; i < kSweptTagCount; ++i) tagStart[kSweptTags[i]] = machine.AllocationCount(kSweptTags[i]);
        machine.SetFaultObserver([&](const emu::FaultInjected& fault) {
            std::lock_guard<std::mutex> guard(refusedLock);
            outcome.refusedIn.insert(current.load());
            if (outcome.refused) return;
            RefusedAllocation refused;
            refused.serial = fault.serial - start;
            refused.tag = fault.tag;
            refused.command = current.load();
            void* frames[64];
            int count = backtrace(frames, 64);
            for (int i = 1; i < count; ++i) refused.stack.push_back(reinterpret_cast<uintptr_t>(frames[i]));
            outcome.refused = refused;
        });
        if (injection.kind == Injection::kNth) machine.FailNthAllocation(injection.n, injection.tag);
        if (injection.kind == Injection::kTagFrom) machine.FailAllocationsWithTag(injection.tag, injection.n - 1);
        interpreter.session().processesEnded = [&](emu::Machine& m) {
            m.ClearFaultInjection();
            m.SetFaultObserver({});
            outcome.allocations = m.AllocationCount() - start;
            for (const auto& [tag, count] : tagStart) outcome.tagAllocations[tag] = m.AllocationCount(tag) - count;
        };

        outcome.initial = Look(volumes);
        for (size_t i = 0; i < workload.lines.size(); ++i) {
            const auto& [number, line] = workload.lines[i];
            current = int(i);
            if (progress) progress(int(i));
            CommandResult result;
            result.line = number;
            result.text = line;
            out.str("");
            try {
                interpreter.Execute(line, number);
            } catch (const tool::ScriptError& e) {
                result.scriptError = true;
                out << e.what();
            }
            result.output = out.str();
            // What differs from run to run: the temporary directory's name,
            // times, and the addresses of threads in log heads.
            for (size_t at; (at = result.output.find(base.string())) != std::string::npos;)
                result.output.replace(at, base.string().size(), "BASE");
            static const std::regex kVarying(
                R"(Time=\d+ \([^)]*\)|\[TRVN\][0-9a-f]+\[|IndexNumber=\d+|FileId=-?\d+|AvailableAllocationUnits=\d+)");
            result.output = std::regex_replace(result.output, kVarying, "~");
            // The status is the first word of the result line.
            std::string name = result.output.substr(0, result.output.find_first_of(" \n"));
            NTSTATUS status = 0;
            result.status = emu::StatusFromName(name, &status) ? status : 0;
            outcome.commands.push_back(result);
            if (everyCommand) outcome.afterEach.push_back(Look(volumes));
            bool refusedHere;
            {
                std::lock_guard<std::mutex> guard(refusedLock);
                refusedHere = outcome.refusedIn.count(int(i)) != 0;
            }
            if (refusedHere) outcome.atRefusal[int(i)] = Look(volumes);
            if (result.scriptError) break;
        }
        current = int(workload.lines.size());
        outcome.end = Look(volumes);
        emu::VerifierReport report = interpreter.session().Finish();
        outcome.clean = report.Clean();
        if (!outcome.clean) outcome.verifier = report.ToString();
    }
    std::error_code ignored;
    fs::remove_all(base, ignored);
    return outcome;
}

// ---- JSON, for a run made in a child process --------------------------------

namespace {
nlohmann::json StateJson(const HostState& state) {
    nlohmann::json j = nlohmann::json::object();
    for (const auto& [path, e] : state) j[path] = {e.directory, e.size, e.hash};
    return j;
}
HostState StateFrom(const nlohmann::json& j) {
    HostState state;
    for (const auto& [path, e] : j.items()) state[path] = HostEntry{e[0].get<bool>(), e[1].get<uint64_t>(), e[2].get<uint64_t>()};
    return state;
}
}  // namespace

nlohmann::json ToJson(const Outcome& o) {
    nlohmann::json j;
    j["commands"] = nlohmann::json::array();
    for (const auto& c : o.commands)
        j["commands"].push_back({{"line", c.line}, {"text", c.text}, {"status", c.status}, {"output", c.output},
                                 {"scriptError", c.scriptError}});
    if (o.refused)
        j["refused"] = {{"serial", o.refused->serial}, {"tag", o.refused->tag}, {"command", o.refused->command},
                        {"stack", o.refused->stack}};
    j["initial"] = StateJson(o.initial);
    j["afterEach"] = nlohmann::json::array();
    for (const auto& s : o.afterEach) j["afterEach"].push_back(StateJson(s));
    j["refusedIn"] = o.refusedIn;
    j["atRefusal"] = nlohmann::json::object();
    for (const auto& [i, state] : o.atRefusal) j["atRefusal"][std::to_string(i)] = StateJson(state);
    j["end"] = StateJson(o.end);
    j["clean"] = o.clean;
    j["verifier"] = o.verifier;
    j["allocations"] = o.allocations;
    j["tagAllocations"] = o.tagAllocations;
    return j;
}

Outcome FromJson(const nlohmann::json& j) {
    Outcome o;
    for (const auto& c : j["commands"])
        o.commands.push_back(CommandResult{c["line"].get<int>(), c["text"].get<std::string>(), c["status"].get<int64_t>(),
                                           c["output"].get<std::string>(), c["scriptError"].get<bool>()});
    if (j.contains("refused")) {
        const auto& r = j["refused"];
        o.refused = RefusedAllocation{r["serial"].get<uint64_t>(), r["tag"].get<std::string>(), r["command"].get<int>(),
                                      r["stack"].get<std::vector<uintptr_t>>()};
    }
    o.initial = StateFrom(j["initial"]);
    for (const auto& s : j["afterEach"]) o.afterEach.push_back(StateFrom(s));
    o.refusedIn = j["refusedIn"].get<std::set<int>>();
    for (const auto& [i, state] : j["atRefusal"].items()) o.atRefusal[std::stoi(i)] = StateFrom(state);
    o.end = StateFrom(j["end"]);
    o.clean = j["clean"].get<bool>();
    o.verifier = j["verifier"].get<std::string>();
    o.allocations = j["allocations"].get<uint64_t>();
    o.tagAllocations = j["tagAllocations"].get<std::map<std::string, uint64_t>>();
    return o;
}

}  // namespace tervane::sweep
