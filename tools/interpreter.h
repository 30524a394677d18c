// Runs scenario lines: dispatches commands, checks `expect` lines, prints
// results, and turns the outcome of a run into an exit code.
#pragma once

#include <filesystem>
#include <iosfwd>
#include <optional>
#include <string>

#include "lexer.h"
#include "result.h"
#include "session.h"

namespace tervane::tool {

// Exit codes of `tervane run` (and of the shell when it ends).
enum ExitCode : int {
    kExitOk = 0,
    kExitExpectationFailed = 1,
    kExitScriptError = 2,
    kExitVerifier = 3,  // the machine shut down with something outstanding
};

struct InterpreterOptions {
    bool json = false;  // one JSON object a line instead of text
    bool echo = false;  // print each command line ("> ...") before its result
    // A driver image file that `load` without a path loads instead of the
    // built-in driver (tervane run --sys, tervane demo --sys).
    std::string driverImage;
};

class Interpreter {
public:
    // Results and failed expectations go to OUT. Relative host directories
    // are taken from BASEDIR (the script's directory).
    Interpreter(std::ostream& out, std::filesystem::path baseDir, InterpreterOptions options = {});

    // Executes one line; LINENUMBER is used in messages. Throws ScriptError
    // for a mistake in the line (and for a line that is not text: control
    // characters outside quotes, bytes that are not UTF-8).
    void Execute(const std::string& line, int lineNumber);

    // Runs a whole script and ends the machine. Script errors stop the run
    // (ReportError); a summary ends it (PrintSummary). Returns an ExitCode.
    int RunScript(std::istream& in, const std::string& fileName, std::ostream& err);

    // A script error: "FILE:LINE: message" on ERR ("line N: ..." without a
    // file), or a JSON record on the output with --json.
    void ReportError(const std::string& fileName, int lineNumber, const std::string& message, std::ostream& err);

    // Warns about the handles the script left open, shuts the machine down
    // and prints the verifier's report when something is outstanding.
    // Returns kExitVerifier in that case, else kExitOk.
    int Finish();

    // The last line of a run: how many commands and expectations, which
    // failed, the script errors, what was left open, how the machine ended,
    // and the exit code (a JSON record with --json).
    void PrintSummary(int exitCode);

    bool ExpectationFailed() const { return failures_ != 0; }
    int FailureCount() const { return failures_; }
    Session& session() { return session_; }

private:
    struct LastCommand {
        int line = 0;
        Result result;
        std::string text;  // everything it printed, in text form
    };

    void RunCommand(const std::vector<Token>& tokens, const std::string& line, int lineNumber);
    void RunExpect(std::vector<Token> tokens, int lineNumber);
    void ReportCompleted(Result& result, int waitMs);
    void Fail(int lineNumber, const std::string& message);

    void Emit(const nlohmann::json& record);

    std::ostream& out_;
    InterpreterOptions options_;
    Session session_;
    std::optional<LastCommand> last_;
    int failures_ = 0;
    int commands_ = 0;
    int expectations_ = 0;
    std::vector<int> failedLines_;
    std::vector<int> errorLines_;
    std::vector<std::string> leftOpen_;  // "10: h1", noted by Finish
    bool machineUsed_ = false;
    bool verifierClean_ = true;
};

}  // namespace tervane::tool
