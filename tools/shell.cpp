// `tervane shell`: the scenario language typed at a terminal.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <unistd.h>

#include <readline/history.h>
#include <readline/readline.h>

#include "frontend.h"
#include "interpreter.h"
#include "lexer.h"

namespace tervane::tool {
namespace {

std::string HistoryFile() {
    const char* home = std::getenv("HOME");
    return home ? std::string(home) + "/.tervane_history" : std::string();
}

// One line from the terminal (with editing) or from a pipe; false at the end.
bool ReadLine(bool interactive, std::string* line) {
    if (!interactive) return static_cast<bool>(std::getline(std::cin, *line));
    char* text = readline("tervane> ");
    if (!text) return false;
    *line = text;
    if (!line->empty()) add_history(text);
    std::free(text);
    return true;
}

}  // namespace

int RunShell(bool json) {
    bool interactive = isatty(STDIN_FILENO) != 0;
    std::string history = HistoryFile();
    if (interactive && !history.empty()) read_history(history.c_str());
    InterpreterOptions options;
    options.json = json;
    Interpreter interpreter(std::cout, std::filesystem::current_path(), options);
    std::string line;
    int lineNumber = 0;
    while (ReadLine(interactive, &line)) {
        ++lineNumber;
        if (line == "exit" || line == "quit") break;
        if (line == "help" || line.rfind("help ", 0) == 0) {
            PrintHelp(line.size() > 5 ? line.substr(5) : "", std::cout);
            continue;
        }
        try {
            interpreter.Execute(line, lineNumber);
        } catch (const ScriptError& e) {
            std::cerr << "line " << lineNumber << ": " << e.what() << "\n";
        }
    }
    if (interactive && !history.empty()) write_history(history.c_str());
    int code = interpreter.Finish();
    return interpreter.ExpectationFailed() ? kExitExpectationFailed : code;
}

}  // namespace tervane::tool
