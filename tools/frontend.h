// The tervane command line: Main builds the parser from the command table
// (cli.h) and runs the command chosen.
#pragma once

#include <iosfwd>
#include <string>

namespace tervane::tool {

// The whole program; returns its exit code.
int Main(int argc, char** argv);

// `tervane help [COMMAND]`: writes the text to OUT; false for an unknown
// command (after saying so on OUT).
bool PrintHelp(const std::string& command, std::ostream& out);

// `tervane run`.
struct RunOptions {
    std::string file;     // "-" for standard input
    std::string workdir;  // relative host directories are taken from here
    bool temp = false;    // ... or from a new temporary directory, removed afterwards
    bool json = false;
    bool echo = true;
    std::string driverImage;  // `load` loads this driver image file instead of the built-in driver
};
// Results go to OUT; messages about the script itself (it cannot be read, a
// script error) to ERR, or to OUT as JSON records with --json.
int RunFile(const RunOptions& options, std::ostream& out, std::ostream& err);

// `tervane shell`: reads commands from the terminal (line editing and
// history) or from standard input when it is not a terminal.
int RunShell(bool json);

}  // namespace tervane::tool
