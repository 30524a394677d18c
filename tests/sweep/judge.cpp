// Judging a run with a refused allocation against the run without:
// - the commands before the refusal ran as before;
// - the command the refusal happened in either ran as before, and so did
//   every command after it (the failure was absorbed), or it reported a
//   failure (a failing status, or the tool refusing to go on): a command
//   that reports success but did something else is a false success;
// - right after that command every host file holds what it held before the
//   command or what the command made of it in the run without refusals (no
//   torn file, nothing lost: a file gone from its old name holds on at the
//   new one), apart from directories of the pack location that a lower
//   filter directory holds too (made on the way to a copy);
// - at the end, the lower filter directories hold what they held in the run
//   without refusals, except what the script itself changed after the
//   refusal; and the machine shut down with nothing outstanding.
#include <cctype>
#include <set>
#include <sstream>

#include <emu/machine.h>

#include "sweep.h"

namespace tervane::sweep {
namespace {

// Commands whose output counts pool blocks or shows the debug log differ
// after any refusal; their status still counts.
bool OutputComparable(const std::string& text) {
    std::string word = text.substr(0, text.find(' '));
    return word != "pool" && word != "log";
}

// The output without the reports of pending requests that completed: the
// tool reports a completion with whichever command runs when it arrives,
// which depends on the threads' timing, not on the refusal.
std::string WithoutCompletions(const std::string& output) {
    std::istringstream in(output);
    std::string kept;
    bool inCompletion = false;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("  completed: ", 0) == 0) inCompletion = true;
        else if (line.rfind("    ", 0) != 0) inCompletion = false;
        if (!inCompletion) kept += line + "\n";
    }
    return kept;
}

bool Same(const CommandResult& a, const CommandResult& b) {
    if (a.status != b.status || a.scriptError != b.scriptError) return false;
    return !OutputComparable(a.text) || WithoutCompletions(a.output) == WithoutCompletions(b.output);
}

std::string Upcase(std::string s) {
    for (char& c : s) c = char(std::toupper((unsigned char)c));
    return s;
}

// The filter directories the script sets, as upcased drive paths, the pack
// location first.
std::vector<std::string> FilterRoots(const Workload& workload) {
    std::vector<std::string> roots;
    for (const auto& [number, line] : workload.lines) {
        if (line.rfind("ctl set-filters ", 0) != 0) continue;
        std::istringstream words(line.substr(16));
        std::string root;
        roots.clear();
        while (words >> root) roots.push_back(Upcase(root));
    }
    return roots;
}

bool Under(const std::string& path, const std::string& root) {
    return path.size() > root.size() && path.compare(0, root.size(), root) == 0 && path[root.size()] == '\\';
}

std::optional<HostEntry> At(const HostState& state, const std::string& path) {
    auto it = state.find(path);
    if (it == state.end()) return std::nullopt;
    return it->second;
}

std::string Show(const std::optional<HostEntry>& e) {
    if (!e) return "nothing";
    if (e->directory) return "a directory";
    return std::to_string(e->size) + " bytes (hash " + std::to_string(e->hash % 100000) + ")";
}

std::string Where(const CommandResult& c) { return "line " + std::to_string(c.line) + " `" + c.text + "`"; }

std::string FirstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

// "`A` instead of `B`" for the first line where the two outputs differ.
std::string Difference(const std::string& got, const std::string& want) {
    std::istringstream g(got), w(want);
    std::string a, b;
    while (true) {
        bool moreA = bool(std::getline(g, a)), moreB = bool(std::getline(w, b));
        if (!moreA) a = "(nothing more)";
        if (!moreB) b = "(nothing more)";
        if (a != b || (!moreA && !moreB)) break;
    }
    return "`" + a + "` instead of `" + b + "`";
}

// The copy of PATH (in the pack location) that the view showed before: the
// same name in the nearest lower filter directory that holds it.
std::optional<HostEntry> LowerCopy(const std::vector<std::string>& roots, const HostState& before,
                                   const std::string& path) {
    if (roots.size() < 2 || !Under(path, roots[0])) return std::nullopt;
    const std::string rest = path.substr(roots[0].size());
    for (size_t i = 1; i < roots.size(); ++i)
        if (auto l = At(before, roots[i] + rest)) return l;
    return std::nullopt;
}

// `PID: put PATH TEXT` opens (making or emptying the file) and then writes:
// a failed write leaves the file made or emptied by the open that worked.
bool IsPut(const std::string& text) {
    std::istringstream words(text);
    std::string first, second;
    words >> first >> second;
    return !first.empty() && first.back() == ':' && second == "put";
}

void JudgeHostAtRefusal(const std::vector<std::string>& roots, const HostState& before, const HostState& after,
                        const HostState& got, const CommandResult& command, std::vector<std::string>& problems) {
    std::set<std::string> paths;
    for (const auto* s : {&before, &after, &got})
        for (const auto& [path, e] : *s) paths.insert(path);
    for (const std::string& path : paths) {
        auto b = At(before, path), a = At(after, path), g = At(got, path);
        if (g == b || g == a) continue;
        // A copy-up that was done, or a directory made on the way to one:
        // the view shows the same as before.
        if (g && !b) {
            auto lower = LowerCopy(roots, before, path);
            if (lower && (g->directory ? lower->directory : g == lower)) continue;
        }
        if (g && !g->directory && g->size == 0 && a && !a->directory && IsPut(command.text)) continue;
        problems.push_back("after " + Where(command) + ", " + path + " holds " + Show(g) + "; before it held " +
                           Show(b) + ", and the command made it " + Show(a));
    }
    // A file that left its name must be found where the command moved it.
    for (const auto& [path, e] : before) {
        if (e.directory || At(got, path)) continue;
        for (const auto& [target, t] : after) {
            if (t.directory || At(before, target) || t.hash != e.hash || t.size != e.size) continue;
            if (At(got, target) != t)
                problems.push_back("after " + Where(command) + ", " + path + " is gone and " + target +
                                   ", where the command moves it, does not hold it: its bytes are lost");
        }
    }
}

void JudgeLowerAtEnd(const std::vector<std::string>& roots, const Outcome& baseline, size_t from,
                     const HostState& got, std::vector<std::string>& problems) {
    if (roots.size() < 2) return;
    auto lower = [&](const std::string& path) {
        for (size_t i = 1; i < roots.size(); ++i)
            if (Under(path, roots[i])) return true;
        return false;
    };
    // What the script itself changes in a lower filter directory from the
    // refusal on may be left undone.
    std::set<std::string> changed;
    const HostState& start = from == 0 ? baseline.initial : baseline.afterEach[from - 1];
    for (size_t i = from; i < baseline.afterEach.size(); ++i) {
        std::set<std::string> paths;
        for (const auto* s : {&start, &baseline.afterEach[i]})
            for (const auto& [path, e] : *s) paths.insert(path);
        for (const auto& path : paths)
            if (At(start, path) != At(baseline.afterEach[i], path)) changed.insert(path);
    }
    std::set<std::string> paths;
    for (const auto* s : {&baseline.end, &got})
        for (const auto& [path, e] : *s) paths.insert(path);
    for (const std::string& path : paths) {
        if (!lower(path) || changed.count(path)) continue;
        auto want = At(baseline.end, path), g = At(got, path);
        if (want != g)
            problems.push_back("at the end, " + path + " (a lower filter directory) holds " + Show(g) + " instead of " +
                               Show(want));
    }
}

}  // namespace

std::vector<std::string> Judge(const Workload& workload, const Outcome& baseline, const Outcome& faulted) {
    std::vector<std::string> problems;
    const auto& want = baseline.commands;
    const auto& got = faulted.commands;
    if (!faulted.clean) problems.push_back("the machine shut down with something outstanding:\n" + faulted.verifier);
    // Command by command, up to the first that differs: one without a
    // refusal must run as before; one with a refusal may differ only by
    // reporting a failure.
    int lastAbsorbed = -1;
    size_t d = 0;
    for (; d < got.size() && d < want.size(); ++d) {
        const bool refused = faulted.refusedIn.count(int(d)) != 0;
        if (Same(got[d], want[d])) {
            if (!refused) continue;
            lastAbsorbed = int(d);
            // A refusal the command did not report must leave the host as
            // the command leaves it without one.
            const HostState& host = faulted.atRefusal.at(int(d));
            if (host != baseline.afterEach[d]) {
                std::set<std::string> paths;
                for (const auto* s : {&host, &baseline.afterEach[d]})
                    for (const auto& [path, e] : *s) paths.insert(path);
                for (const auto& path : paths) {
                    if (At(host, path) == At(baseline.afterEach[d], path)) continue;
                    problems.push_back("false success: " + Where(got[d]) + " reported what it reports without the "
                                       "refusal, yet left " + path + " holding " + Show(At(host, path)) +
                                       " instead of " + Show(At(baseline.afterEach[d], path)));
                    return problems;
                }
            }
            continue;
        }
        if (!refused) {
            if (lastAbsorbed < 0) {
                problems.push_back(Where(got[d]) + " differs with no refusal before it: the workload does not run "
                                   "the same way twice");
            } else {
                problems.push_back("false success: the refusal in " + Where(got[lastAbsorbed]) +
                                   " was not reported (" + FirstLine(got[lastAbsorbed].output) + "), yet " +
                                   Where(got[d]) + " then gave " + Difference(got[d].output, want[d].output));
            }
        } else if (!got[d].scriptError && NT_SUCCESS(NTSTATUS(got[d].status))) {
            problems.push_back("false success: " + Where(got[d]) + " reported `" + FirstLine(got[d].output) +
                               "` but did not do what it does without the refusal: " +
                               Difference(got[d].output, want[d].output));
        }
        break;
    }
    const auto roots = FilterRoots(workload);
    if (d < got.size() && d < want.size()) {
        if (faulted.atRefusal.count(int(d))) {
            const HostState& before = d == 0 ? baseline.initial : baseline.afterEach[d - 1];
            JudgeHostAtRefusal(roots, before, baseline.afterEach[d], faulted.atRefusal.at(int(d)), got[d], problems);
        }
        JudgeLowerAtEnd(roots, baseline, d, faulted.end, problems);
    } else if (got.size() != want.size()) {
        if (problems.empty()) problems.push_back("the run ended after " + Where(got.back()) + " without a failure reported");
    } else if (faulted.end != baseline.end) {
        // Every command gave what it gives without refusals: so must the host.
        for (const auto& [path, e] : baseline.end)
            if (At(faulted.end, path) != e)
                problems.push_back("every command ran as without refusals, yet at the end " + path + " holds " +
                                   Show(At(faulted.end, path)) + " instead of " + Show(e));
        for (const auto& [path, e] : faulted.end)
            if (!At(baseline.end, path))
                problems.push_back("every command ran as without refusals, yet at the end " + path + " holds " +
                                   Show(e) + " instead of nothing");
    }
    return problems;
}

}  // namespace tervane::sweep
