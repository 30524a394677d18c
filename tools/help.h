// Documentation made from the command tables: the help of `expect` (which
// is no table entry), the manual page and the bash completion script.
#pragma once

#include <iosfwd>

namespace tervane::tool {

struct ScenarioHelp {
    const char* name;
    const char* usage;
    const char* text;
    const char* example;
};
const ScenarioHelp& ExpectHelp();

// tervane(1) in man(7) markup.
void WriteManPage(std::ostream& out);
// A bash completion script for tervane (complete -F).
void WriteBashCompletion(std::ostream& out);

}  // namespace tervane::tool
