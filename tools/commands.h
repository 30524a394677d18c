// The command table of the scenario language. Each command group lives in
// its own source file and adds its commands here.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "args.h"
#include "result.h"
#include "session.h"

namespace tervane::tool {

// What a command runs with: the session, the process for a process
// operation (`PID: OP ...`), and the result it fills in.
struct Context {
    Session& session;
    ProcessState* process = nullptr;
    std::string name;  // the command's name, for messages
    Result result;

    // Runs TASK on the process's thread.
    void InProcess(const std::function<void()>& task) { session.RunIn(*process, task); }
    void Line(std::string text) { result.lines.push_back(std::move(text)); }
};

enum class Scope { Machine, Process };

struct CommandSpec {
    const char* name;
    Scope scope;
    const char* usage;    // "open H PATH [access=F] ..."
    const char* summary;  // one or more sentences
    const char* example;  // a line of a script
    void (*run)(Context& ctx, std::vector<Token> args);
};

// Every command, in the order help lists them.
std::span<const CommandSpec> AllCommands();
const CommandSpec* FindCommand(const std::string& name, Scope scope);

// The groups (one source file each).
void AddMachineCommands(std::vector<CommandSpec>& table);
void AddFileCommands(std::vector<CommandSpec>& table);
void AddInfoCommands(std::vector<CommandSpec>& table);
void AddDirectoryCommands(std::vector<CommandSpec>& table);
void AddMiscCommands(std::vector<CommandSpec>& table);
void AddConvenienceCommands(std::vector<CommandSpec>& table);
void AddControlCommands(std::vector<CommandSpec>& table);
void AddTreeCommands(std::vector<CommandSpec>& table);

// Helpers shared by the groups.
std::u16string ToUtf16(const std::string& s);
uint32_t ParseU32(const std::string& text, const char* what);
int64_t ParseI64(const std::string& text, const char* what);

}  // namespace tervane::tool

namespace tervane::tool {
// How long a request that may wait (notify, a waiting lock) is given before
// it is reported as pending, and how long a pending one is given to finish
// after an ordinary command and after the close of its handle (milliseconds).
constexpr int kPendingFirstWaitMs = 100;
constexpr int kPendingSettleMs = 50;
constexpr int kPendingCleanupMs = 5000;
}  // namespace tervane::tool
