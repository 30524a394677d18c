// `tervane shell` in a build without GNU readline (the 32-bit build): the
// same commands, read as plain lines from standard input, with no editing,
// completion or history.
#include <filesystem>
#include <iostream>
#include <unistd.h>

#include "frontend.h"
#include "interpreter.h"
#include "lexer.h"

namespace tervane::tool {

int RunShell(bool json) {
    const bool interactive = isatty(STDIN_FILENO) != 0;
    InterpreterOptions options;
    options.json = json;
    Interpreter interpreter(std::cout, std::filesystem::current_path(), options);
    std::string line;
    int lineNumber = 0;
    for (;;) {
        if (interactive) std::cout << "tervane> " << std::flush;
        if (!std::getline(std::cin, line)) break;
        ++lineNumber;
        std::vector<Token> words;
        try {
            words = SplitLine(line);
        } catch (const ScriptError&) {
        }
        if (words.size() == 1 && (words[0].text == "exit" || words[0].text == "quit")) break;
        if (!words.empty() && words[0].text == "help") {
            std::string topic;
            for (size_t i = 1; i < words.size(); ++i) topic += (i > 1 ? " " : "") + words[i].text;
            PrintHelp(topic, std::cout);
            continue;
        }
        try {
            interpreter.Execute(line, lineNumber);
        } catch (const ScriptError& e) {
            interpreter.ReportError("", lineNumber, e.what(), std::cerr);
        }
    }
    int code = interpreter.Finish();
    if (interpreter.ExpectationFailed()) code = kExitExpectationFailed;
    interpreter.PrintSummary(code);
    return code;
}

}  // namespace tervane::tool
