// The tervane command line: run, shell, demo, index and help.
#pragma once

#include <iosfwd>
#include <string>

namespace tervane::tool {

// The whole program; returns its exit code.
int Main(int argc, char** argv);

// `tervane help [COMMAND]`: writes the text to OUT; false for an unknown
// command (after saying so on OUT).
bool PrintHelp(const std::string& command, std::ostream& out);

// `tervane shell`: reads commands from the terminal (line editing and
// history) or from standard input when it is not a terminal.
int RunShell(bool json);

// `tervane demo`.
int RunDemo(const std::string& keepDir, bool quiet);

}  // namespace tervane::tool
