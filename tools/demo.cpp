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
#include "index_cli.h"
#include "interpreter.h"

namespace tervane::tool {
namespace {

namespace fs = std::filesystem;

constexpr size_t kTextWidth = 78;
constexpr size_t kMaxLeftColumn = 60;

// Word-wraps TEXT at kTextWidth, every line starting with INDENT.
std::string Wrap(const std::string& text, const std::string& indent) {
    std::istringstream words(text);
    std::string out, line, word;
    while (words >> word) {
        if (!line.empty() && indent.size() + line.size() + 1 + word.size() > kTextWidth) {
            out += indent + line + "\n";
            line.clear();
        }
        line += (line.empty() ? "" : " ") + word;
    }
    if (!line.empty()) out += indent + line + "\n";
    return out;
}

// Splits lines longer than WIDTH so that each fits the column: at the last
// blank that leaves at least half a line, else anywhere. Continuations are
// indented by two more blanks than the line they continue.
std::vector<std::string> FitColumn(const std::vector<std::string>& lines, size_t width) {
    std::vector<std::string> fitted;
    for (std::string line : lines) {
        size_t indent = line.find_first_not_of(' ');
        std::string lead(indent == std::string::npos ? 0 : indent + 2, ' ');
        bool cut = false;
        while (line.size() > width && lead.size() + 8 < width) {
            size_t at = line.rfind(' ', width);
            if (at == std::string::npos || at < width / 2) at = width;
            fitted.push_back(line.substr(0, at));
            size_t rest = line.find_first_not_of(' ', at);
            line = rest == std::string::npos ? std::string() : lead + line.substr(rest);
            cut = true;
        }
        if (!cut || !line.empty()) fitted.push_back(line);
    }
    return fitted;
}

std::string SideBySide(const std::vector<std::string>& left, const std::vector<std::string>& right,
                       const std::string& indent) {
    std::string out;
    if (right.empty()) {
        for (const auto& l : left) out += indent + l + "\n";
        return out;
    }
    size_t width = 0;
    for (const auto& l : left) width = std::max(width, l.size());
    width = std::min(width, kMaxLeftColumn);
    auto l = FitColumn(left, width);
    for (size_t i = 0; i < std::max(l.size(), right.size()); ++i) {
        std::string a = i < l.size() ? l[i] : "";
        std::string row = indent + a + std::string(width - a.size(), ' ') + " | " + (i < right.size() ? right[i] : "");
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
    DemoRun(std::ostream& out, bool quiet, const fs::path& workspace)
        : out_(out), quiet_(quiet), workspace_(workspace), interpreter_(transcript_, workspace) {}

    void Say(const std::string& text) {
        if (!quiet_) out_ << text;
    }

    // Builds the base layer's index with the code of `tervane index build`.
    void BuildIndex() {
        const auto base = workspace_ / "volume" / "layers" / "base";
        const auto node = workspace_ / "volume" / "index" / "base.node";
        const auto name = workspace_ / "volume" / "index" / "base.name";
        Say("0. The workspace\n" +
            Wrap("The layers are plain host directories below volume/layers. The base layer gets its index, as "
                 "`tervane index build` makes it: two files the driver loads, listing every path the layer holds.",
                 "   "));
        std::ostringstream shown, err;
        int code = IndexBuild(base.string(), node.string(), name.string(), false, shown, err);
        std::vector<std::string> lines{"> tervane index build " + base.string() + " " + node.string() + " " +
                                       name.string()};
        for (const auto& l : SplitLines(shown.str() + err.str())) lines.push_back("  " + l);
        Say(SideBySide(lines, {}, "   "));
        size_t before = differences_.size();
        Check(code == 0, "tervane index build exited with " + std::to_string(code));
        std::error_code error;
        Check(fs::file_size(node, error) > 0 && !error && fs::exists(name, error),
              "the index files " + node.string() + " and " + name.string() + " are missing");
        Verdict(before, "the base layer's index is built.");
    }

    void Step(size_t number, const DemoStep& step) {
        title_ = step.title;
        Say("\n" + std::to_string(number) + ". " + step.title + "\n" + Wrap(step.say, "   "));
        size_t before = differences_.size();
        std::vector<std::string> left, right;
        for (const auto& c : step.left) Append(left, Run(c));
        for (const auto& c : step.right) Append(right, Run(c));
        if (!right.empty()) {
            left.insert(left.begin(), {"inkpad.exe, monitored:", ""});
            right.insert(right.begin(), {"backup.exe, not monitored:", ""});
        }
        Say(SideBySide(left, right, "   "));
        for (const auto& file : step.host) Say(LookAtHost(file));
        Verdict(before, step.checked);
    }

    // Ends every process, lets the driver give back what it holds, shuts the
    // machine down and shows the verifier's report.
    void ShutDown() {
        title_ = "Shutting down";
        Say("\n" + title_ + "\n" +
            Wrap("The processes end, the driver gives back what it holds, and the machine shuts down. The "
                 "verifier counts what is still outstanding:",
                 "   "));
        size_t before = differences_.size();
        emu::VerifierReport report = interpreter_.session().Finish();
        auto count = [](size_t n, const char* what) { return std::to_string(n) + " " + what; };
        size_t blocks = 0;
        for (const auto& p : report.pool) blocks += p.outstandingBlocks;
        Say("     pool: " + count(blocks, "blocks outstanding") + "\n     handles: " +
            count(report.handles.size(), "open") + "\n     file objects: " +
            count(report.fileObjects.size(), "referenced") + "\n     section views: " +
            count(report.views.size(), "mapped") + "\n     misuse: " + count(report.violations.size(), "seen") + "\n");
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
    fs::path workspace_;
    std::ostringstream transcript_;  // before interpreter_: it writes here
    Interpreter interpreter_;
    std::string title_ = "The workspace";
    int line_ = 0;
    int checks_ = 0;
    std::vector<std::string> differences_;
};

// The workspace: DIR (made when missing, refused when it holds anything), or
// a new temporary directory.
fs::path MakeWorkspace(const std::string& keepDir) {
    if (!keepDir.empty()) {
        fs::path dir = fs::absolute(keepDir);
        fs::create_directories(dir);
        if (!fs::is_empty(dir))
            throw std::runtime_error("--keep " + keepDir + ": the directory is not empty; give a new or empty one");
        return dir;
    }
    std::string pattern = (fs::temp_directory_path() / "tervane-demo-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot make a temporary directory in " + fs::temp_directory_path().string());
    return pattern;
}

}  // namespace

int RunDemo(const DemoOptions& options) {
    std::ostream& out = options.out ? *options.out : std::cout;
    fs::path workspace;
    try {
        workspace = MakeWorkspace(options.keepDir);
        WriteDemoContent(workspace);
    } catch (const std::exception& e) {
        out << "tervane demo: cannot prepare the workspace: " << e.what() << "\n";
        return 2;
    }
    std::vector<DemoStep> steps = DemoSteps();
    if (options.adjust) options.adjust(steps);

    int checks = 0;
    std::vector<std::string> differences;
    {
        DemoRun run(out, options.quiet, workspace);
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

int RunDemo(const std::string& keepDir, bool quiet) {
    DemoOptions options;
    options.keepDir = keepDir;
    options.quiet = quiet;
    return RunDemo(options);
}

}  // namespace tervane::tool
