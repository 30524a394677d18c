// `tervane demo`: runs the walk of demo_script.cpp on a fresh workspace,
// narrates each step, shows what both processes see side by side, checks
// every expectation and host file, and ends with the verifier's report.
#include "demo.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <sstream>

#include <emu/machine.h>

#include "frontend.h"
#include "hostpath.h"
#include "index_cli.h"
#include "text.h"
#include "interpreter.h"

namespace tervane::tool {
namespace {

namespace fs = std::filesystem;

// Narration is wrapped at most this wide, for reading; the columns use the
// whole width.
constexpr size_t kTextWidth = 78;
// Without a terminal (files, pipes, tests) the output is this wide.
constexpr size_t kFixedWidth = 100;
// Each column of a side-by-side layout needs this much room; below it the
// two processes are shown one after the other.
constexpr size_t kMinColumn = 40;
constexpr const char* kGutter = " | ";

// The two processes side by side when WIDTH leaves room for both columns,
// else the left one first and the right one below it.
std::string SideBySide(const std::vector<std::string>& left, const std::vector<std::string>& right,
                       const std::string& indent, size_t width) {
    std::string out;
    const size_t room = width > indent.size() ? width - indent.size() : 1;
    auto stack = [&](const std::vector<std::string>& lines) {
        for (const auto& l : FitColumn(lines, room)) out += l.empty() ? "\n" : indent + l + "\n";
    };
    if (right.empty()) {
        stack(left);
        return out;
    }
    const size_t gutter = std::string(kGutter).size();
    if (room < 2 * kMinColumn + gutter) {
        stack(left);
        out += "\n";
        stack(right);
        return out;
    }
    // Each column gets room in proportion to its longest line, at least the
    // minimum, and no more than it needs.
    size_t longestLeft = 1, longestRight = 1;
    for (const auto& l : left) longestLeft = std::max(longestLeft, l.size());
    for (const auto& r : right) longestRight = std::max(longestRight, r.size());
    const size_t share = (room - gutter) * longestLeft / (longestLeft + longestRight);
    const size_t leftWidth =
        std::min(longestLeft + gutter + longestRight <= room ? longestLeft : share, room - gutter - kMinColumn);
    const size_t fittedLeft = std::max(leftWidth, kMinColumn);
    const size_t rightWidth = room - gutter - fittedLeft;
    auto l = FitColumn(left, fittedLeft);
    auto r = FitColumn(right, rightWidth);
    for (size_t i = 0; i < std::max(l.size(), r.size()); ++i) {
        std::string a = i < l.size() ? l[i] : "";
        std::string row = indent + a + std::string(fittedLeft - a.size(), ' ') + kGutter + (i < r.size() ? r[i] : "");
        while (!row.empty() && row.back() == ' ') row.pop_back();
        out += row + "\n";
    }
    return out;
}

// A short form of bytes for the narration: text as is (escaped), anything
// else by its size.
std::string Describe(const std::string& bytes) {
    bool text = std::all_of(bytes.begin(), bytes.end(), [](char c) {
        return c == '\r' || c == '\n' || (c >= 0x20 && c < 0x7f);
    });
    if (text && bytes.size() <= 64) return "\"" + EscapeBytes(bytes) + "\"";
    return std::to_string(bytes.size()) + " bytes";
}

// An expectation's message names script lines, which the demo has not: drops
// "EXPECTATION FAILED (line N): " and " (line N)".
std::string WithoutLineNumbers(std::string text) {
    const std::string head = "EXPECTATION FAILED (line ";
    if (text.rfind(head, 0) == 0) {
        size_t end = text.find("): ");
        if (end != std::string::npos) text.erase(0, end + 3);
    }
    for (size_t at; (at = text.find(" (line ")) != std::string::npos;) {
        size_t end = text.find(')', at);
        if (end == std::string::npos) break;
        text.erase(at, end + 1 - at);
    }
    return text;
}

std::optional<std::string> ReadHostFile(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::error_code error;
    if (!in || fs::is_directory(file, error)) return std::nullopt;
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

class DemoRun {
public:
    DemoRun(std::ostream& out, bool quiet, size_t width, const fs::path& workspace, const std::string& driverImage)
        : out_(out), quiet_(quiet), width_(width), workspace_(workspace),
          interpreter_(transcript_, workspace, InterpreterOptions{.driverImage = driverImage}) {}

    // Every line fits the width: what is wider is wrapped.
    void Say(const std::string& text) {
        if (quiet_) return;
        for (const auto& line : FitColumn(SplitLines(text), width_)) out_ << line << "\n";
    }

    std::string Narrate(const std::string& text) const { return Wrap(text, std::min(width_, kTextWidth), "   "); }

    // Builds the base layer's index with the code of `tervane index build`.
    void BuildIndex() {
        const auto base = workspace_ / "volume" / "layers" / "base";
        const auto node = workspace_ / "volume" / "index" / "base.node";
        const auto name = workspace_ / "volume" / "index" / "base.name";
        Say("0. The workspace\n" +
            Narrate("The layers are plain host directories below volume/layers. The base layer gets its index, as "
                    "`tervane index build` makes it: two files the driver loads, listing every path the layer "
                    "holds."));
        std::ostringstream shown, err;
        int code = IndexBuild(base.string(), node.string(), name.string(), {}, shown, err);
        // Shown with paths relative to the workspace, as if run there.
        auto relative = [this](std::string text) {
            const std::string prefix = workspace_.string() + "/";
            for (size_t at; (at = text.find(prefix)) != std::string::npos;) text.erase(at, prefix.size());
            return text;
        };
        std::vector<std::string> lines{relative("> tervane index build " + base.string() + " " + node.string() + " " +
                                                name.string())};
        for (const auto& l : SplitLines(shown.str() + err.str())) lines.push_back("  " + relative(l));
        Say(SideBySide(lines, {}, "   ", width_));
        size_t before = differences_.size();
        Check(code == 0, "tervane index build exited with " + std::to_string(code));
        std::error_code error;
        Check(fs::file_size(node, error) > 0 && !error && fs::exists(name, error),
              "the index files " + node.string() + " and " + name.string() + " are missing");
        Verdict(before, "the base layer's index is built.");
    }

    void Step(size_t number, const DemoStep& step) {
        title_ = step.title;
        Say("\n" + std::to_string(number) + ". " + step.title + "\n" + Narrate(step.say));
        size_t before = differences_.size();
        std::vector<std::string> left, right;
        for (const auto& c : step.left) Append(left, Run(c));
        for (const auto& c : step.right) Append(right, Run(c));
        if (!right.empty()) {
            left.insert(left.begin(), {"inkpad.exe, monitored:", ""});
            right.insert(right.begin(), {"backup.exe, not monitored:", ""});
        }
        Say(SideBySide(left, right, "   ", width_));
        for (const auto& file : step.host) Say(LookAtHost(file));
        Verdict(before, step.checked);
    }

    // Ends every process, lets the driver give back what it holds, shuts the
    // machine down and shows the verifier's report.
    void ShutDown() {
        title_ = "Shutting down";
        Say("\n" + title_ + "\n" +
            Narrate("The processes end, the driver gives back what it holds, and the machine shuts down. The "
                    "verifier counts what is still outstanding:"));
        size_t before = differences_.size();
        emu::VerifierReport report = interpreter_.session().Finish();
        auto count = [](size_t n, const char* what) { return std::to_string(n) + " " + what; };
        size_t blocks = 0;
        for (const auto& p : report.pool) blocks += p.outstandingBlocks;
        Say("     pool: " + count(blocks, "blocks outstanding") + "\n     handles: " +
            count(report.handles.size(), "open") + "\n     file objects: " +
            count(report.fileObjects.size(), "referenced") + "\n     section views: " +
            count(report.views.size(), "mapped") + "\n     misuse: " + count(report.violations.size(), "seen") + "\n");
        // A driver image has no unload routine: what it holds stays with it.
        if (!report.kept.empty()) {
            Say(Narrate("The driver image has no unload routine: what it holds stays with it for the life of the "
                        "system, counted apart from leaks:"));
            for (const std::string& kept : report.kept) Say("     " + kept + "\n");
        }
        Check(report.Clean(), "the verifier found something outstanding:\n" + report.ToString());
        Verdict(before, "nothing outstanding.");
    }

    int checks() const { return checks_; }
    const std::vector<std::string>& differences() const { return differences_; }

private:
    static void Append(std::vector<std::string>& to, std::vector<std::string> lines) {
        to.insert(to.end(), lines.begin(), lines.end());
    }

    void Check(bool ok, const std::string& difference) {
        ++checks_;
        if (!ok) differences_.push_back(title_ + ": " + difference);
    }

    void Verdict(size_t before, const std::string& checked) {
        if (differences_.size() == before) {
            Say("   checked: " + checked + "\n");
            return;
        }
        for (size_t i = before; i < differences_.size(); ++i) Say("   DIFFERS: " + differences_[i] + "\n");
    }

    // Runs one line and its expectations; returns what to show.
    std::vector<std::string> Run(const DemoCommand& command) {
        std::vector<std::string> shown{"> " + command.line};
        transcript_.str("");
        try {
            interpreter_.Execute(command.line, ++line_);
        } catch (const std::exception& e) {
            Check(false, command.line + ": " + e.what());
            shown.push_back("  " + std::string(e.what()));
            return shown;
        }
        for (const auto& l : SplitLines(transcript_.str())) shown.push_back("  " + l);
        for (const auto& expect : command.expects) {
            transcript_.str("");
            std::string failure;
            try {
                interpreter_.Execute(expect, line_);
                failure = WithoutLineNumbers(transcript_.str());
            } catch (const std::exception& e) {
                failure = e.what();
            }
            while (!failure.empty() && failure.back() == '\n') failure.pop_back();
            Check(failure.empty(), command.line + ": " + failure);
        }
        return shown;
    }

    std::string LookAtHost(const DemoHostFile& file) {
        std::optional<std::string> held = ReadHostFile(workspace_ / file.path);
        std::string said = "   on the host, " + file.path + ": ";
        if (!file.content) {
            Check(!held, file.path + " should not exist, but holds " + (held ? Describe(*held) : ""));
            return said + (held ? Describe(*held) : "not there") + "\n";
        }
        if (!held) {
            Check(false, file.path + " is missing; it should hold " + Describe(*file.content));
            return said + "missing\n";
        }
        Check(*held == *file.content,
              file.path + " holds " + Describe(*held) + " instead of " + Describe(*file.content));
        return said + Describe(*held) + "\n";
    }

    std::ostream& out_;
    bool quiet_;
    size_t width_;
    fs::path workspace_;
    std::ostringstream transcript_;  // before interpreter_: it writes here
    Interpreter interpreter_;
    std::string title_ = "The workspace";
    int line_ = 0;
    int checks_ = 0;
    std::vector<std::string> differences_;
};

// The workspace: DIR (made when missing, refused when it holds anything), or
// a new temporary directory. Empty on success, else why not.
std::string MakeWorkspace(const std::string& keepDir, fs::path* workspace) {
    std::error_code ec;
    if (!keepDir.empty()) {
        fs::path dir = fs::absolute(keepDir, ec);
        std::string problem = MakeHostDirectory(dir);
        if (!problem.empty()) return "--keep: " + problem;
        if (!fs::is_empty(dir, ec))
            return "--keep " + keepDir + ": the directory is not empty; give a new or empty one";
        *workspace = dir;
        return {};
    }
    std::string pattern = (fs::temp_directory_path(ec) / "tervane-demo-XXXXXX").string();
    if (!mkdtemp(pattern.data())) return "cannot make a directory like " + pattern + ": " + HostReason(errno);
    *workspace = pattern;
    return {};
}

}  // namespace

int RunDemo(const DemoOptions& options) {
    std::ostream& out = options.out ? *options.out : std::cout;
    fs::path workspace;
    std::string problem = MakeWorkspace(options.keepDir, &workspace);
    if (problem.empty()) problem = WriteDemoContent(workspace);
    if (!problem.empty()) {
        out << "tervane demo: cannot prepare the workspace: " << problem << "\n";
        return 2;
    }
    std::vector<DemoStep> steps = DemoSteps();
    if (options.adjust) options.adjust(steps);

    int checks = 0;
    std::vector<std::string> differences;
    {
        DemoRun run(out, options.quiet, options.width ? options.width : OutputWidth(kFixedWidth), workspace,
                    options.driverImage);
        run.Say("tervane demo: the driver's layered view, step by step, every result checked.\nWorkspace: " +
                workspace.string() +
                (options.keepDir.empty() ? " (removed at the end; --keep DIR keeps one)" : "") + "\n\n");
        // The index and the first step (the driver and its settings) carry
        // everything after them: when either differs, the walk stops there.
        run.BuildIndex();
        for (size_t i = 0; i < steps.size(); ++i) {
            if (i == 1 && !run.differences().empty()) {
                run.Say("\nThe walk stops here: the steps after this need what differed.\n");
                break;
            }
            run.Step(i + 1, steps[i]);
        }
        run.ShutDown();
        checks = run.checks();
        differences = run.differences();
    }
    if (options.keepDir.empty()) {
        std::error_code ignored;
        fs::remove_all(workspace, ignored);
    } else if (!options.quiet) {
        out << "\nThe workspace stays in " << workspace.string()
            << ": volume/ is drive C:, volume/layers/ holds the filter directories.\n";
    }
    if (!differences.empty()) {
        out << (options.quiet ? "" : "\n") << "tervane demo: " << differences.size() << " of " << checks << " checks differed:\n";
        for (const auto& d : differences) out << "  - " << d << "\n";
        return 1;
    }
    out << (options.quiet ? "" : "\n") << "tervane demo: all " << checks << " checks passed.\n";
    return 0;
}

}  // namespace tervane::tool
