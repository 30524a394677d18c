// The arguments of one command: positional values, key=value options and
// bare switches, each declared by the command that reads them.
#pragma once

#include <initializer_list>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "lexer.h"

namespace tervane::tool {

class Args {
public:
    // COMMAND names the command in messages. An unquoted token KEY=VALUE
    // whose KEY is lower-case letters is an option, and must be one of
    // OPTIONS; an unquoted token equal to one of SWITCHES is a switch;
    // everything else is positional. Throws ScriptError on an unknown or
    // repeated option.
    Args(std::string command, std::vector<Token> tokens, std::initializer_list<const char*> options = {},
         std::initializer_list<const char*> switches = {});

    // The next positional argument; ScriptError naming WHAT when there is none.
    std::string Next(const char* what);
    std::optional<std::string> NextIf();
    // Every positional argument not taken yet.
    std::vector<std::string> Rest();
    size_t Remaining() const { return positional_.size() - next_; }

    std::optional<std::string> Option(const char* key) const;
    bool Switch(const char* word) const { return switches_.count(word) != 0; }

    // Throws ScriptError when a positional argument was left unread.
    void Done() const;

    const std::string& command() const { return command_; }

private:
    std::string command_;
    std::vector<std::string> positional_;
    size_t next_ = 0;
    std::vector<std::pair<std::string, std::string>> options_;
    std::set<std::string> switches_;
};

}  // namespace tervane::tool
