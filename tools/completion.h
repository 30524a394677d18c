// Completion of a scenario line as it is typed (Tab in tervane shell).
#pragma once

#include <string>
#include <vector>

#include "session.h"

namespace tervane::tool {

struct Completion {
    size_t start = 0;                     // where the word being completed begins in the line
    std::vector<std::string> candidates;  // what may stand in its place, from START on
};

// LINE is the text before the cursor. Offers, for the word that ends it: the
// commands and the "PID:" prefixes of the processes made so far; a
// process's operations; ctl verbs; a command's options ("access=") and
// switches; the NT names an option takes (after the last '|' of a flag
// list); the information classes, security parts and control codes a
// command takes; the handle names of the process; and, for a word that
// starts like a drive path (C:\), the names in that directory as the
// process sees them, listed through the machine's own directory services
// (so a monitored process sees its layered view). A directory ends in '\';
// a path with blanks starts with a double quote. Nothing is offered for a
// path before the machine runs.
Completion CompleteLine(Session& session, const std::string& line);

}  // namespace tervane::tool
