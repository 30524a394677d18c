// Help texts: the command line's own commands and every scenario command.
#include <ostream>

#include "commands.h"
#include "frontend.h"

namespace tervane::tool {
namespace {

struct CliHelp {
    const char* name;
    const char* usage;
    const char* text;
    const char* example;
};

const CliHelp kCliHelp[] = {
    {"run", "tervane run FILE [--json] [--echo] [--workdir DIR | --temp]",
     "Runs a scenario script: one command a line, # starts a comment, arguments separated by blanks, double "
     "quotes with C escapes (\\n \\r \\t \\0 \\\\ \\\" \\xHH) around arguments with blanks; any other backslash in quotes "
     "stays as written, so \"C:\\docs\\My file\" needs no doubling (but \"C:\\new\" holds a newline). Every command "
     "prints its status "
     "line and indented output; --json prints one JSON object a line instead, --echo prints each command first. "
     "Relative host directories (volume C: work) are taken beside the script, in DIR with --workdir, or in a "
     "fresh temporary directory, removed at the end, with --temp. "
     "Exit status: 0 all well, 1 an expectation failed, 2 a script error (the message names file and line), "
     "3 the machine shut down with pool, handles or file objects outstanding or with verifier findings (its "
     "report is printed).",
     "tervane run tests/scenarios/basic.scn"},
    {"shell", "tervane shell [--json]",
     "The commands of `run`, typed one at a time, with line editing and history (~/.tervane_history). A "
     "mistake is reported and the shell goes on; `exit` or end of input ends it and shuts the machine down.",
     "tervane shell"},
    {"demo", "tervane demo [--keep DIR] [--quiet]",
     "A narrated, self-checking walk through the driver's layered view on a workspace made in a temporary "
     "directory (kept in DIR with --keep, which must be new or empty): three filter directories with an indexed "
     "base layer, a monitored and an unmonitored process side by side, a layered open, copy-up, a hidden "
     "deletion, a rename, a merged listing, an exclusion, the kernel log, pool by tag and the verifier's report. "
     "--quiet prints only the verdict. Exit status: 0 every check passed, 1 something differed (each difference "
     "is named), 2 the workspace could not be made.",
     "tervane demo --keep /tmp/tervane-demo"},
    {"index", "tervane index build HOSTDIR NODEFILE NAMEFILE | dump NODEFILE NAMEFILE | lookup NODEFILE NAMEFILE PATH",
     "Index files: build writes the pair describing the tree below HOSTDIR (refusing a tree that does not fit "
     "the 5 MB areas; progress shown unless --quiet); dump prints the tree with offsets and types; lookup finds "
     "one path (exit 1 when it is not in the index).",
     "tervane index build base base.node base.name"},
    {"help", "tervane help [COMMAND]", "Explains a command, with an example.", "tervane help open"},
};

const CliHelp kExpectHelp = {
    "expect", "expect [not] STATUS | expect [not] \"TEXT\" | expect [not] log \"TEXT\"",
    "Checks the last command before it that is not an expect: its status (by name or value), whether TEXT is "
    "a substring of everything it printed (result line included), or of the kernel debug output while it ran. "
    "A failed expectation prints EXPECTATION FAILED (line N): ... and the run goes on; the exit status is then 1.",
    "expect STATUS_OBJECT_NAME_NOT_FOUND"};

void Print(std::ostream& out, const char* usage, const char* text, const char* example) {
    out << "usage: " << usage << "\n\n" << text << "\n\nexample:\n  " << example << "\n";
}

}  // namespace

bool PrintHelp(const std::string& command, std::ostream& out) {
    if (command.empty()) {
        out << "tervane: drive the emulated NT machine and the driver.\n\n";
        for (const auto& h : kCliHelp) out << "  " << h.usage << "\n";
        out << "\nScenario commands (tervane help COMMAND explains one):\n  machine:";
        for (const auto& c : AllCommands())
            if (c.scope == Scope::Machine) out << " " << c.name;
        out << " expect\n  process operations (PID: OP ...):";
        for (const auto& c : AllCommands())
            if (c.scope == Scope::Process) out << " " << c.name;
        out << "\n";
        return true;
    }
    for (const auto& h : kCliHelp) {
        if (command == h.name) {
            Print(out, h.usage, h.text, h.example);
            return true;
        }
    }
    if (command == kExpectHelp.name) {
        Print(out, kExpectHelp.usage, kExpectHelp.text, kExpectHelp.example);
        return true;
    }
    for (const auto& c : AllCommands()) {
        if (command == c.name) {
            std::string usage = c.scope == Scope::Process ? std::string("PID: ") + c.usage : c.usage;
            Print(out, usage.c_str(), c.summary, c.example);
            return true;
        }
    }
    out << "tervane help: no command \"" << command << "\" (tervane help lists them)\n";
    return false;
}

}  // namespace tervane::tool
