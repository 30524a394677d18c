// alloc_sweep: the allocation-failure sweep over scenario scripts and the
// demo's walk. Every run but a replay goes into a child process of its own,
// so that a crash or a hang is one run's finding, not the end of the sweep.
//
//   alloc_sweep [--sample K] [--jobs J] [--timeout S] WORKLOAD...
//   alloc_sweep --fail-at N [--tag TAG [--once]] WORKLOAD
//
// A WORKLOAD is a scenario script or the word demo.
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>

#include <CLI/CLI.hpp>

#include "sweep.h"

namespace tervane::sweep {
namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    std::vector<std::string> workloads;
    uint64_t failAt = 0;
    std::string tag;
    bool once = false;
    uint64_t sample = 0;
    unsigned jobs = 0;
    unsigned timeout = 60;
    bool quiet = false;
};

Workload Load(const std::string& name) { return name == "demo" ? DemoWorkload() : ScriptWorkload(name); }

std::string ProgramName() { return "alloc_sweep"; }

// The frames of a refusal's stack from the caller of the allocation service on.
std::vector<std::string> CallerFrames(const RefusedAllocation& r) {
    std::vector<std::string> frames = Symbolize(r.stack);
    size_t first = 0;
    for (size_t i = 0; i < frames.size(); ++i) {
        const std::string& f = frames[i];
        if (f.find("FaultInjected") != std::string::npos || f.find("PoolTracker") != std::string::npos ||
            f.find("ExAllocate") != std::string::npos || f.find("IoAllocateIrp") != std::string::npos)
            first = i + 1;
    }
    frames.erase(frames.begin(), frames.begin() + long(std::min(first, frames.size())));
    // Source files by their place in the repository.
    static const std::regex kBuildPrefix(R"(/\S*/\.\./\.\./)");
    for (std::string& f : frames) f = std::regex_replace(f, kBuildPrefix, "");
    return frames;
}

void PrintRefusal(std::ostream& out, const Workload& workload, const Outcome& outcome) {
    if (!outcome.refused) {
        out << "  no allocation was refused\n";
        return;
    }
    const RefusedAllocation& r = *outcome.refused;
    out << "  allocation " << r.serial << " (" << r.tag << ") was refused";
    if (r.command >= 0 && size_t(r.command) < workload.lines.size())
        out << " in line " << workload.lines[r.command].first << ": " << workload.lines[r.command].second;
    else if (r.command >= 0)
        out << " while the processes ended";
    out << "\n  stack:\n";
    std::vector<std::string> frames = CallerFrames(r);
    for (size_t i = 0; i < frames.size() && i < 16; ++i) out << "    " << frames[i] << "\n";
}

// ---- one run in a child process ---------------------------------------------

struct Child {
    pid_t pid = -1;
    int fd = -1;
    std::string errFile;
    Injection injection;
    std::string received;
    int lastCommand = -1;
    Clock::time_point deadline;
    bool timedOut = false;
};

Child Start(const Workload& workload, const Injection& injection, bool everyCommand, unsigned timeout) {
    int fds[2];
    if (pipe(fds) != 0) throw std::runtime_error("pipe failed");
    char errName[] = "/tmp/tervane-sweep-err-XXXXXX";
    int errFd = mkstemp(errName);
    if (errFd < 0) throw std::runtime_error("cannot make a temporary file");
    std::cout.flush();
    std::cerr.flush();
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        close(fds[0]);
        dup2(errFd, 2);
        dup2(errFd, 1);
        FILE* to = fdopen(fds[1], "w");
        int code = 0;
        try {
            Outcome o = Run(workload, injection, everyCommand, [to](int i) {
                std::fprintf(to, "@%d\n", i);
                std::fflush(to);
            });
            std::string json = ToJson(o).dump();
            std::fprintf(to, "%s\n", json.c_str());
        } catch (const std::exception& e) {
            std::fprintf(stderr, "alloc_sweep: %s\n", e.what());
            code = 2;
        }
        std::fclose(to);
        _exit(code);
    }
    close(fds[1]);
    close(errFd);
    Child c;
    c.pid = pid;
    c.fd = fds[0];
    c.errFile = errName;
    c.injection = injection;
    c.deadline = Clock::now() + std::chrono::seconds(timeout);
    return c;
}

struct Finished {
    Injection injection;
    std::optional<Outcome> outcome;
    std::string failure;  // crash, hang or a child that could not run
    int lastCommand = -1;
};

std::string Tail(const std::string& file, size_t lines) {
    std::ifstream in(file);
    std::vector<std::string> all;
    for (std::string line; std::getline(in, line);) all.push_back(line);
    std::string text;
    for (size_t i = all.size() > lines ? all.size() - lines : 0; i < all.size(); ++i) text += "    " + all[i] + "\n";
    return text;
}

// Reads what a child wrote; true once it has ended.
bool Drain(Child& c) {
    char buffer[65536];
    ssize_t n = read(c.fd, buffer, sizeof buffer);
    if (n > 0) {
        c.received.append(buffer, size_t(n));
        size_t at;
        while (c.received.size() > 1 && c.received[0] == '@' && (at = c.received.find('\n')) != std::string::npos) {
            c.lastCommand = std::atoi(c.received.c_str() + 1);
            c.received.erase(0, at + 1);
        }
        return false;
    }
    return true;
}

Finished Reap(Child& c) {
    close(c.fd);
    int status = 0;
    waitpid(c.pid, &status, 0);
    Finished f;
    f.injection = c.injection;
    f.lastCommand = c.lastCommand;
    if (c.timedOut) {
        f.failure = "hang: the run did not end within its time limit\n" + Tail(c.errFile, 20);
    } else if (WIFSIGNALED(status)) {
        f.failure = std::string("crash: ") + strsignal(WTERMSIG(status)) + "\n" + Tail(c.errFile, 60);
    } else if (WEXITSTATUS(status) != 0 || c.received.empty()) {
        f.failure = "the run ended with exit code " + std::to_string(WEXITSTATUS(status)) + "\n" + Tail(c.errFile, 60);
    } else {
        try {
            f.outcome = FromJson(nlohmann::json::parse(c.received));
        } catch (const std::exception& e) {
            f.failure = std::string("unreadable result: ") + e.what();
        }
    }
    unlink(c.errFile.c_str());
    return f;
}

// Runs every injection, JOBS at a time, handing each finished run to DONE.
void RunAll(const Workload& workload, const std::vector<Injection>& injections, const Options& options,
            bool everyCommand, const std::function<void(Finished&)>& done) {
    std::vector<Child> running;
    size_t next = 0;
    while (next < injections.size() || !running.empty()) {
        while (next < injections.size() && running.size() < options.jobs)
            running.push_back(Start(workload, injections[next++], everyCommand, options.timeout));
        std::vector<pollfd> fds;
        for (const Child& c : running) fds.push_back(pollfd{c.fd, POLLIN, 0});
        poll(fds.data(), fds.size(), 200);
        for (size_t i = running.size(); i-- > 0;) {
            Child& c = running[i];
            bool ended = (fds[i].revents & (POLLIN | POLLHUP)) && Drain(c);
            if (!ended && Clock::now() > c.deadline) {
                kill(c.pid, SIGKILL);
                c.timedOut = true;
                ended = true;
            }
            if (!ended) continue;
            Finished f = Reap(c);
            running.erase(running.begin() + long(i));
            done(f);
        }
    }
}

// The run without refusals, with the host's state after each command.
std::optional<Outcome> Baseline(const Workload& workload, const Options& options, std::string* failure) {
    std::optional<Outcome> outcome;
    RunAll(workload, {Injection{}}, options, true, [&](Finished& f) {
        *failure = f.failure;
        outcome = f.outcome;
    });
    return outcome;
}

// K values spread evenly over 1..COUNT (all of them when K is 0 or COUNT
// or more).
std::vector<uint64_t> Spread(uint64_t count, uint64_t k) {
    std::vector<uint64_t> values;
    if (k == 0 || k >= count) {
        for (uint64_t n = 1; n <= count; ++n) values.push_back(n);
        return values;
    }
    for (uint64_t i = 0; i < k; ++i) {
        uint64_t n = k == 1 ? 1 : 1 + i * (count - 1) / (k - 1);
        if (values.empty() || values.back() != n) values.push_back(n);
    }
    return values;
}

int Sweep(const Options& options) {
    int failedRuns = 0;
    for (const std::string& name : options.workloads) {
        const auto started = Clock::now();
        Workload workload = Load(name);
        std::string failure;
        std::optional<Outcome> baseline = Baseline(workload, options, &failure);
        std::optional<Outcome> again = baseline ? Baseline(workload, options, &failure) : std::nullopt;
        if (!baseline || !again) {
            std::cout << "sweep: " << name << ": the run without refusals failed: " << failure << "\n";
            ++failedRuns;
            continue;
        }
        if (!baseline->clean || baseline->commands != again->commands || baseline->allocations != again->allocations) {
            for (size_t i = 0; i < baseline->commands.size() && i < again->commands.size(); ++i) {
                if (baseline->commands[i] == again->commands[i]) continue;
                std::cout << "  line " << baseline->commands[i].line << " gave\n" << baseline->commands[i].output
                          << "  and then\n" << again->commands[i].output;
                break;
            }
            std::cout << "sweep: " << name << ": "
                      << (!baseline->clean ? "the run without refusals does not end clean:\n" + baseline->verifier
                                           : std::string("two runs without refusals differ (") +
                                                 std::to_string(baseline->allocations) + " and " +
                                                 std::to_string(again->allocations) +
                                                 " allocations): the workload is not deterministic")
                      << "\n";
            ++failedRuns;
            continue;
        }
        std::vector<Injection> injections;
        for (uint64_t n : Spread(baseline->allocations, options.sample))
            injections.push_back(Injection{Injection::kNth, n, ""});
        for (size_t t = 0; t < kSweptTagCount; ++t) {
            auto it = baseline->tagAllocations.find(kSweptTags[t]);
            if (it == baseline->tagAllocations.end()) continue;
            for (uint64_t n : Spread(it->second, options.sample))
                injections.push_back(Injection{Injection::kTagFrom, n, kSweptTags[t]});
        }
        // Failed runs, reported once all have run, grouped by the place that
        // asked for the refused allocation: one example of each in full.
        struct Failure {
            Finished run;
            std::vector<std::string> problems;
        };
        std::vector<Failure> failures;
        auto judge = [&](Finished& f) {
            std::vector<std::string> problems;
            if (!f.failure.empty()) {
                std::string where = f.lastCommand >= 0 && size_t(f.lastCommand) < workload.lines.size()
                                        ? " (in line " + std::to_string(workload.lines[f.lastCommand].first) + ": " +
                                              workload.lines[f.lastCommand].second + ")"
                                        : "";
                problems.push_back(f.failure.substr(0, f.failure.find('\n')) + where +
                                   f.failure.substr(f.failure.find('\n')));
            } else {
                problems = Judge(workload, *baseline, *f.outcome);
            }
            return problems;
        };
        RunAll(workload, injections, options, false, [&](Finished& f) {
            std::vector<std::string> problems = judge(f);
            if (!problems.empty()) failures.push_back(Failure{f, problems});
        });
        // A failed run is run once more: one that then passes failed on the
        // timing of a loaded machine (a request's short first wait ran out),
        // not on its refusal, and is named apart without failing the sweep.
        if (!failures.empty()) {
            std::vector<Injection> again;
            for (const Failure& f : failures) again.push_back(f.run.injection);
            std::set<std::string> steady;
            RunAll(workload, again, options, false, [&](Finished& f) {
                if (!judge(f).empty()) steady.insert(f.injection.Describe());
            });
            std::string unsteady;
            std::erase_if(failures, [&](const Failure& f) {
                if (steady.count(f.run.injection.Describe())) return false;
                unsteady += " (" + f.run.injection.Describe() + ")";
                return true;
            });
            if (!unsteady.empty())
                std::cout << "sweep: " << name << ": failed once, passed when run again:" << unsteady << "\n";
        }
        std::vector<uintptr_t> addresses;
        for (const Failure& f : failures)
            if (f.run.outcome && f.run.outcome->refused)
                addresses.insert(addresses.end(), f.run.outcome->refused->stack.begin(),
                                 f.run.outcome->refused->stack.end());
        PrepareSymbols(addresses);
        std::map<std::string, std::vector<const Failure*>> bySite;
        for (const Failure& f : failures) {
            std::string site = "(no refusal)";
            if (f.run.outcome && f.run.outcome->refused) {
                // The caller and its caller, by function name and line.
                std::vector<std::string> frames = CallerFrames(*f.run.outcome->refused);
                site.clear();
                for (size_t i = 0; i < frames.size() && i < 2; ++i) {
                    std::string frame = frames[i].substr(0, frames[i].find('\n'));
                    size_t paren = frame.find('(');
                    size_t at = frame.rfind(" at ");
                    std::string function = frame.substr(0, paren == std::string::npos ? frame.find(' ') : paren);
                    std::string place = at == std::string::npos ? "" : frame.substr(at);
                    site += (i ? " <- " : "") + function + place.substr(0, place.find(" (discriminator"));
                }
            }
            bySite[site].push_back(&f);
        }
        for (const auto& [site, runs] : bySite) {
            const Failure& f = *runs[0];
            std::cout << "FAILED " << name << ": " << runs.size() << " run" << (runs.size() == 1 ? "" : "s")
                      << " refusing an allocation of " << site << "\n  e.g. " << f.run.injection.Describe() << ": "
                      << f.problems[0] << "\n";
            for (size_t i = 1; i < f.problems.size(); ++i) std::cout << "  also: " << f.problems[i] << "\n";
            if (f.run.outcome) PrintRefusal(std::cout, workload, *f.run.outcome);
            std::cout << "  replay: " << ProgramName() << " " << f.run.injection.Describe() << " " << name << "\n";
            std::string others;
            for (size_t i = 1; i < runs.size() && i < 12; ++i) others += " " + std::to_string(runs[i]->run.injection.n);
            if (runs.size() > 1) std::cout << "  others, by N:" << others << (runs.size() > 12 ? " ..." : "") << "\n";
        }
        const int failed = int(failures.size());
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started).count();
        std::cout << "sweep: " << name << ": " << baseline->allocations << " allocations, " << injections.size()
                  << " runs, " << failed << " failed (" << seconds << " s)\n";
        std::cout.flush();
        failedRuns += failed;
    }
    return failedRuns == 0 ? 0 : 1;
}

// One run in this process, printed as it goes, and judged.
int Replay(const Options& options) {
    if (options.workloads.size() != 1) {
        std::cerr << ProgramName() << ": --fail-at replays one workload\n";
        return 2;
    }
    Workload workload = Load(options.workloads[0]);
    Outcome baseline = Run(workload, Injection{}, true);
    Injection injection;
    injection.n = options.failAt;
    injection.tag = options.tag;
    injection.kind = options.tag.empty() || options.once ? Injection::kNth : Injection::kTagFrom;
    Outcome faulted = Run(workload, injection, false);
    for (const CommandResult& c : faulted.commands) {
        std::cout << "> " << c.text << "\n" << c.output;
        if (!c.output.empty() && c.output.back() != '\n') std::cout << "\n";
    }
    std::cout << "\n" << injection.Describe() << " " << workload.name << ":\n";
    PrintRefusal(std::cout, workload, faulted);
    std::vector<std::string> problems = Judge(workload, baseline, faulted);
    if (problems.empty()) {
        std::cout << "verdict: all right\n";
        return 0;
    }
    std::cout << "verdict: " << problems.size() << " problem" << (problems.size() == 1 ? "" : "s") << "\n";
    for (const std::string& p : problems) std::cout << "  - " << p << "\n";
    return 1;
}

}  // namespace
}  // namespace tervane::sweep

int main(int argc, char** argv) {
    using namespace tervane::sweep;
    CLI::App app{"The allocation-failure sweep: every run of each workload with one more allocation refused, judged "
                 "against the run without refusals.",
                 "alloc_sweep"};
    Options options;
    app.add_option("WORKLOAD", options.workloads, "scenario scripts, or demo for the demo's walk")->required();
    auto* failAt = app.add_option("--fail-at", options.failAt, "replay one run: refuse allocation N (from 1)");
    auto* tag = app.add_option("--tag", options.tag, "with --fail-at: refuse every allocation with this tag from its "
                                                     "Nth on")
                    ->needs(failAt);
    app.add_flag("--once", options.once, "with --tag: refuse only the Nth allocation with the tag")->needs(tag);
    app.add_option("--sample", options.sample, "K runs spread evenly over each series instead of every N")
        ->excludes(failAt);
    app.add_option("--jobs", options.jobs, "runs at a time (default: the number of processors)");
    app.add_option("--timeout", options.timeout, "seconds a run may take before it counts as a hang");
    CLI11_PARSE(app, argc, argv);
    if (options.jobs == 0) options.jobs = std::max(1u, unsigned(sysconf(_SC_NPROCESSORS_ONLN)));
    try {
        return options.failAt ? Replay(options) : Sweep(options);
    } catch (const std::exception& e) {
        std::cerr << "alloc_sweep: " << e.what() << "\n";
        return 2;
    }
}
