// The command line's own commands (run, shell, demo, index ..., help) as one
// table: the parser is built from it, and so are `tervane help`, the manual
// page and the bash completion. A new command is one more entry.
#pragma once

#include <map>
#include <span>
#include <string>
#include <vector>

namespace tervane::tool {

// What a completion offers for a value.
enum class ValueKind { Text, File, Directory, Topic };

struct CliArgument {
    const char* name;  // "FILE"
    const char* text;
    ValueKind kind = ValueKind::Text;
    bool optional = false;
    bool many = false;  // takes every remaining word
};

struct CliOption {
    const char* name;   // "--keep"
    const char* value;  // "DIR", or nullptr for a switch
    const char* text;
    ValueKind kind = ValueKind::Text;
    const char* excludes = nullptr;  // another option of the command that cannot go with it
};

struct CliExit {
    int code;
    const char* meaning;
};

// The parsed words of one command line.
struct CliValues {
    std::map<std::string, std::string> values;  // by argument or option name
    std::map<std::string, bool> switches;
    std::map<std::string, std::vector<std::string>> lists;  // arguments that take many words

    const std::string& Get(const std::string& name) const;  // empty when not given
    bool Switch(const std::string& name) const;
    std::vector<std::string> List(const std::string& name) const;
};

struct CliCommand {
    const char* path;     // "run", "index build"
    const char* summary;  // one line
    const char* text;     // what it does, in full
    const char* example;
    std::vector<CliArgument> arguments;
    std::vector<CliOption> options;
    std::vector<CliExit> exits;
    int (*run)(const CliValues& values);
};

// Every command, in the order help lists them.
std::span<const CliCommand> CliCommands();
const CliCommand* FindCliCommand(const std::string& path);
// "tervane run [--json] ... FILE".
std::string CliUsage(const CliCommand& command);

}  // namespace tervane::tool
