#include "interpreter.h"

#include <filesystem>
#include <istream>
#include <ostream>

#include <emu/machine.h>

#include "commands.h"
#include "flags.h"

namespace tervane::tool {
namespace {

// "1234:" starts a process operation.
std::optional<uint32_t> ProcessPrefix(const Token& token) {
    if (!token.Unquoted() || token.text.size() < 2 || token.text.back() != ':') return std::nullopt;
    std::string digits = token.text.substr(0, token.text.size() - 1);
    for (char c : digits)
        if (c < '0' || c > '9') return std::nullopt;
    return ParseU32(digits, "process id");
}

std::string Quote(const std::string& s) { return QuoteText(s); }

// A script is text: a control character other than the tab (and the CR of
// a CRLF line end) is refused, and so is a byte that is not UTF-8; inside
// double quotes such bytes are written as escapes.
void CheckText(const std::string& line) {
    size_t end = line.size();
    if (end && line[end - 1] == '\r') --end;
    for (size_t i = 0; i < end; ++i) {
        auto c = static_cast<unsigned char>(line[i]);
        if ((c < 0x20 && c != '\t') || c == 0x7f)
            throw ScriptError("the line holds the control character " + EscapeBytes(std::string(1, char(c))) +
                              " at column " + std::to_string(i + 1) + "; write it as an escape inside double quotes");
    }
    size_t bad = FirstInvalidUtf8(std::string_view(line).substr(0, end));
    if (bad != std::string::npos)
        throw ScriptError("the line is not UTF-8 text: byte " + EscapeBytes(line.substr(bad, 1)) + " at column " +
                          std::to_string(bad + 1) + " (a script is UTF-8; write other bytes as \\xHH inside double quotes)");
}

}  // namespace

Interpreter::Interpreter(std::ostream& out, std::filesystem::path baseDir, InterpreterOptions options)
    : out_(out), options_(options), session_(std::move(baseDir)) {
    session_.driverImage = options_.driverImage;
}

void Interpreter::Execute(const std::string& line, int lineNumber) {
    CheckText(line);
    std::vector<Token> tokens = SplitLine(line);
    if (tokens.empty()) return;
    if (tokens[0].Unquoted() && tokens[0].text == "expect") {
        RunExpect(std::move(tokens), lineNumber);
        return;
    }
    RunCommand(tokens, line, lineNumber);
}

void Interpreter::RunCommand(const std::vector<Token>& tokens, const std::string& line, int lineNumber) {
    Context ctx{session_, nullptr, {}, {}};
    std::vector<Token> args;
    const CommandSpec* command = nullptr;
    if (auto pid = ProcessPrefix(tokens[0])) {
        if (tokens.size() < 2) throw ScriptError("missing operation after " + Quote(tokens[0].text));
        ctx.name = tokens[1].text;
        command = FindCommand(ctx.name, Scope::Process);
        if (!command) throw ScriptError("unknown operation " + Quote(ctx.name) + " (tervane help lists them)");
        ctx.process = &session_.Process(*pid);
        args.assign(tokens.begin() + 2, tokens.end());
    } else {
        ctx.name = tokens[0].text;
        command = FindCommand(ctx.name, Scope::Machine);
        if (!command) {
            if (FindCommand(ctx.name, Scope::Process))
                throw ScriptError(Quote(ctx.name) + " is an operation of a process: write PID: " + ctx.name + " ...");
            throw ScriptError("unknown command " + Quote(ctx.name) + " (tervane help lists them)");
        }
        args.assign(tokens.begin() + 1, tokens.end());
    }
    if (options_.echo && !options_.json) {
        std::string shown = line;
        while (!shown.empty() && (shown.back() == '\r' || shown.back() == ' ' || shown.back() == '\t')) shown.pop_back();
        out_ << "> " << shown << "\n";
    }

    // The close of a handle that a pending request waits on ends that
    // request (its cleanup); give it time to finish.
    bool endsPending = ctx.process && command->name == std::string("close") && !args.empty() &&
                       session_.HasPending(ctx.process->pid, args[0].text);
    // Commands report mistakes as ScriptError; anything else that escapes
    // one (a host call that failed) is worded as a message too.
    try {
        command->run(ctx, std::move(args));
    } catch (const ScriptError&) {
        throw;
    } catch (const std::filesystem::filesystem_error& e) {
        throw ScriptError(ctx.name + ": " + EscapeText(e.path1().string()) + ": " + e.code().message());
    } catch (const std::bad_alloc&) {
        throw ScriptError(ctx.name + ": out of memory");
    } catch (const std::exception& e) {
        throw ScriptError(ctx.name + ": " + EscapeText(e.what()));
    }
    ++commands_;
    ReportCompleted(ctx.result, endsPending ? kPendingCleanupMs : kPendingSettleMs);
    ctx.result.log = session_.TakeCommandLog();

    LastCommand last;
    last.line = lineNumber;
    last.text = ctx.result.Text();
    last.result = std::move(ctx.result);
    if (options_.json) {
        Emit(last.result.Json(lineNumber, line));
    } else {
        out_ << last.text;
    }
    out_.flush();
    last_ = std::move(last);
}

void Interpreter::ReportCompleted(Result& result, int waitMs) {
    if (!session_.HasPending()) return;
    for (const auto& request : session_.CollectCompleted(waitMs)) {
        result.lines.push_back("completed: " + request->label + ": " + request->result.ResultLine());
        for (const auto& line : request->result.lines) result.lines.push_back("  " + line);
    }
}

void Interpreter::RunExpect(std::vector<Token> tokens, int lineNumber) {
    if (!last_) throw ScriptError("expect: no command before it to check");
    size_t i = 1;
    bool negate = false, log = false;
    if (i < tokens.size() && tokens[i].Unquoted() && tokens[i].text == "not") negate = true, ++i;
    if (i < tokens.size() && tokens[i].Unquoted() && tokens[i].text == "log") log = true, ++i;
    if (i >= tokens.size()) throw ScriptError("expect: missing STATUS or \"TEXT\"");
    if (i + 1 != tokens.size()) throw ScriptError("expect: unexpected argument " + Quote(tokens[i + 1].text));
    ++expectations_;
    const Token& what = tokens[i];
    const std::string from = " (line " + std::to_string(last_->line) + ")";

    if (what.Unquoted() && !log) {
        NTSTATUS wanted;
        if (!emu::StatusFromName(what.text, &wanted)) {
            if (what.text.empty() || what.text[0] < '0' || what.text[0] > '9')
                throw ScriptError("expect: unknown status " + Quote(what.text) + " (write TEXT in double quotes)");
            wanted = static_cast<NTSTATUS>(ParseU32(what.text, "status"));
        }
        NTSTATUS got = last_->result.status;
        if ((got == wanted) == negate) {
            Fail(lineNumber, std::string("status ") + emu::StatusName(got) + " (" + Hex32(got) + ")" +
                                 (negate ? ", expected anything but " : ", expected ") + emu::StatusName(wanted) +
                                 " (" + Hex32(wanted) + ")" + from);
        }
        return;
    }
    if (what.Unquoted())
        throw ScriptError("expect log: write TEXT in double quotes");
    const std::string& haystack = log ? last_->result.log : last_->text;
    bool holds = haystack.find(what.text) != std::string::npos;
    if (holds == negate) {
        Fail(lineNumber, std::string(log ? "debug output" : "output") + from + (negate ? " holds " : " lacks ") +
                             Quote(what.text));
    }
}

void Interpreter::Emit(const nlohmann::json& record) {
    out_ << record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
    out_.flush();
}

void Interpreter::Fail(int lineNumber, const std::string& message) {
    ++failures_;
    failedLines_.push_back(lineNumber);
    if (options_.json) {
        Emit({{"line", lineNumber}, {"expectation", "failed"}, {"message", message}});
        return;
    }
    out_ << "EXPECTATION FAILED (line " << lineNumber << "): " << message << "\n";
    out_.flush();
}

void Interpreter::ReportError(const std::string& fileName, int lineNumber, const std::string& message,
                              std::ostream& err) {
    errorLines_.push_back(lineNumber);
    if (options_.json) {
        nlohmann::json record = {{"line", lineNumber}, {"error", message}};
        if (!fileName.empty()) record["file"] = fileName;
        Emit(record);
        return;
    }
    out_.flush();
    err << (fileName.empty() ? "line " : fileName + ":") << lineNumber << ": " << message << "\n";
    err.flush();
}

int Interpreter::RunScript(std::istream& in, const std::string& fileName, std::ostream& err) {
    std::string line;
    int lineNumber = 0;
    int code = kExitOk;
    while (std::getline(in, line)) {
        ++lineNumber;
        // A byte order mark may start a file saved by a Windows editor.
        if (lineNumber == 1 && line.rfind("\xEF\xBB\xBF", 0) == 0) line.erase(0, 3);
        try {
            Execute(line, lineNumber);
        } catch (const ScriptError& e) {
            ReportError(fileName, lineNumber, e.what(), err);
            code = kExitScriptError;
            break;
        }
    }
    if (code == kExitOk && in.bad()) {
        ReportError(fileName, lineNumber + 1, "the script could not be read further", err);
        code = kExitScriptError;
    }
    // A script error outranks a failed expectation, which outranks what the
    // verifier found (its report is printed either way).
    int finish = Finish();
    if (code == kExitOk) code = failures_ ? kExitExpectationFailed : finish;
    PrintSummary(code);
    return code;
}

int Interpreter::Finish() {
    machineUsed_ = session_.Started();
    leftOpen_ = session_.OpenHandleNames();
    if (!leftOpen_.empty() && !options_.json) {
        std::string names;
        for (const auto& n : leftOpen_) names += (names.empty() ? "" : ", ") + n;
        out_ << "warning: the script left " << leftOpen_.size() << (leftOpen_.size() == 1 ? " handle" : " handles")
             << " open (" << names << "); closed as the processes end, not counted as leaks\n";
    }
    emu::VerifierReport report = session_.Finish();
    verifierClean_ = report.Clean();
    if (verifierClean_) return kExitOk;
    if (options_.json) {
        nlohmann::json j;
        j["verifier"] = {{"clean", false},
                         {"handles", report.handles},
                         {"fileObjects", report.fileObjects},
                         {"views", report.views},
                         {"violations", report.violations}};
        auto& pool = j["verifier"]["pool"] = nlohmann::json::array();
        for (const auto& p : report.pool)
            pool.push_back({{"tag", p.tag}, {"blocks", p.outstandingBlocks}, {"bytes", p.outstandingBytes}});
        Emit(j);
    } else {
        out_ << "VERIFIER: the machine shut down with something outstanding\n" << report.ToString();
        if (!report.ToString().empty() && report.ToString().back() != '\n') out_ << "\n";
    }
    out_.flush();
    return kExitVerifier;
}

void Interpreter::PrintSummary(int exitCode) {
    if (options_.json) {
        nlohmann::json summary = {{"commands", commands_},    {"expectations", expectations_},
                                  {"failed", failures_},      {"failedLines", failedLines_},
                                  {"errors", errorLines_.size()}, {"errorLines", errorLines_},
                                  {"leftOpen", leftOpen_},    {"exit", exitCode}};
        if (machineUsed_) summary["verifierClean"] = verifierClean_;
        Emit({{"summary", summary}});
        return;
    }
    auto lines = [](const std::vector<int>& numbers) {
        std::string text = numbers.size() == 1 ? "line " : "lines ";
        for (size_t i = 0; i < numbers.size(); ++i) text += (i ? ", " : "") + std::to_string(numbers[i]);
        return text;
    };
    std::string text = "summary: " + std::to_string(commands_) + (commands_ == 1 ? " command; " : " commands; ");
    if (expectations_ == 0) text += "no expectations";
    else text += std::to_string(expectations_) + (expectations_ == 1 ? " expectation, " : " expectations, ") +
                 (failures_ ? std::to_string(failures_) + " failed (" + lines(failedLines_) + ")" : "all held");
    if (!errorLines_.empty())
        text += "; " + std::to_string(errorLines_.size()) + (errorLines_.size() == 1 ? " script error (" : " script errors (") +
                lines(errorLines_) + ")";
    if (!leftOpen_.empty()) text += "; " + std::to_string(leftOpen_.size()) + " left open";
    if (machineUsed_) text += verifierClean_ ? "; the machine shut down clean" : "; the verifier found something outstanding";
    text += "; exit " + std::to_string(exitCode);
    out_ << text << "\n";
    out_.flush();
}

}  // namespace tervane::tool
