#include "interpreter.h"

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

std::string Quote(const std::string& s) { return "\"" + EscapeText(s) + "\""; }

}  // namespace

Interpreter::Interpreter(std::ostream& out, std::filesystem::path baseDir, InterpreterOptions options)
    : out_(out), options_(options), session_(std::move(baseDir)) {}

void Interpreter::Execute(const std::string& line, int lineNumber) {
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
        if (tokens.size() < 2) throw ScriptError("missing operation after \"" + tokens[0].text + "\"");
        ctx.name = tokens[1].text;
        command = FindCommand(ctx.name, Scope::Process);
        if (!command) throw ScriptError("unknown operation \"" + ctx.name + "\"");
        ctx.process = &session_.Process(*pid);
        args.assign(tokens.begin() + 2, tokens.end());
    } else {
        ctx.name = tokens[0].text;
        command = FindCommand(ctx.name, Scope::Machine);
        if (!command) {
            if (FindCommand(ctx.name, Scope::Process))
                throw ScriptError("\"" + ctx.name + "\" is an operation of a process: write PID: " + ctx.name + " ...");
            throw ScriptError("unknown command \"" + ctx.name + "\"");
        }
        args.assign(tokens.begin() + 1, tokens.end());
    }
    if (options_.echo && !options_.json) out_ << "> " << line << "\n";

    // The close of a handle that a pending request waits on ends that
    // request (its cleanup); give it time to finish.
    bool endsPending = ctx.process && command->name == std::string("close") && !args.empty() &&
                       session_.HasPending(ctx.process->pid, args[0].text);
    command->run(ctx, std::move(args));
    ReportCompleted(ctx.result, endsPending ? kPendingCleanupMs : kPendingSettleMs);
    ctx.result.log = session_.TakeCommandLog();

    LastCommand last;
    last.line = lineNumber;
    last.text = ctx.result.Text();
    last.result = std::move(ctx.result);
    if (options_.json) {
        out_ << last.result.Json(lineNumber, line).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
             << "\n";
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
    if (i + 1 != tokens.size()) throw ScriptError("expect: unexpected argument \"" + tokens[i + 1].text + "\"");
    const Token& what = tokens[i];
    const std::string from = " (line " + std::to_string(last_->line) + ")";

    if (what.Unquoted() && !log) {
        NTSTATUS wanted;
        if (!emu::StatusFromName(what.text, &wanted)) {
            if (what.text.empty() || what.text[0] < '0' || what.text[0] > '9')
                throw ScriptError("expect: unknown status \"" + what.text + "\" (write TEXT in double quotes)");
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

void Interpreter::Fail(int lineNumber, const std::string& message) {
    ++failures_;
    if (options_.json) {
        nlohmann::json j;
        j["line"] = lineNumber;
        j["expectation"] = "failed";
        j["message"] = message;
        out_ << j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
    } else {
        out_ << "EXPECTATION FAILED (line " << lineNumber << "): " << message << "\n";
    }
    out_.flush();
}

int Interpreter::RunScript(std::istream& in, const std::string& fileName, std::ostream& err) {
    std::string line;
    int lineNumber = 0;
    int code = kExitOk;
    while (std::getline(in, line)) {
        ++lineNumber;
        try {
            Execute(line, lineNumber);
        } catch (const ScriptError& e) {
            err << fileName << ":" << lineNumber << ": " << e.what() << "\n";
            code = kExitScriptError;
            break;
        }
    }
    // A script error outranks a failed expectation, which outranks what the
    // verifier found (its report is printed either way).
    int finish = Finish();
    if (code != kExitOk) return code;
    if (failures_) return kExitExpectationFailed;
    return finish;
}

int Interpreter::Finish() {
    emu::VerifierReport report = session_.Finish();
    if (report.Clean()) return kExitOk;
    if (options_.json) {
        nlohmann::json j;
        j["verifier"] = {{"clean", false},
                         {"handles", report.handles},
                         {"fileObjects", report.fileObjects},
                         {"violations", report.violations}};
        auto& pool = j["verifier"]["pool"] = nlohmann::json::array();
        for (const auto& p : report.pool)
            pool.push_back({{"tag", p.tag}, {"blocks", p.outstandingBlocks}, {"bytes", p.outstandingBytes}});
        out_ << j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
    } else {
        out_ << "VERIFIER: the machine shut down with something outstanding\n" << report.ToString();
        if (!report.ToString().empty() && report.ToString().back() != '\n') out_ << "\n";
    }
    out_.flush();
    return kExitVerifier;
}

}  // namespace tervane::tool
