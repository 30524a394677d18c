// Help texts: the command line's own commands (cli.h) and every scenario
// command (commands.h), from the same tables the parsers use.
#include <ostream>

#include "cli.h"
#include "commands.h"
#include "frontend.h"
#include "help.h"
#include "lexer.h"
#include "text.h"

namespace tervane::tool {
namespace {

constexpr size_t kHelpWidth = 78;

const ScenarioHelp kExpectHelp = {
    "expect", "expect [not] STATUS | expect [not] \"TEXT\" | expect [not] log \"TEXT\"",
    "Checks the last command before it that is not an expect: its status (by name or value), whether TEXT is "
    "a substring of everything it printed (result line included), or of the kernel debug output while it ran. "
    "A failed expectation prints EXPECTATION FAILED (line N): ... and the run goes on; the exit status is then 1.",
    "expect STATUS_OBJECT_NAME_NOT_FOUND"};

// "  LABEL  text..." with the text wrapped in a column of its own; a label
// wider than the column puts the text on the next line.
std::string Hang(const std::string& label, const std::string& text, size_t column) {
    std::string indent(column, ' ');
    std::string wrapped = Wrap(text, kHelpWidth, indent);
    std::string head = "  " + label;
    if (head.size() + 2 > column) return head + "\n" + wrapped;
    return head + std::string(column - head.size(), ' ') + wrapped.substr(column);
}

void PrintCli(const CliCommand& c, std::ostream& out) {
    out << "usage: " << CliUsage(c) << "\n\n" << Wrap(c.text, kHelpWidth, "");
    if (!c.arguments.empty() || !c.options.empty()) {
        out << "\n";
        for (const auto& a : c.arguments) out << Hang(std::string(a.name) + (a.many ? "..." : ""), a.text, 26);
        for (const auto& o : c.options)
            out << Hang(std::string(o.name) + (o.value ? " " + std::string(o.value) : ""), o.text, 26);
    }
    out << "\nexit status:\n";
    for (const auto& e : c.exits) out << Hang(std::to_string(e.code), e.meaning, 6);
    out << "\nexample:\n  " << c.example << "\n";
}

void PrintScenario(const std::string& usage, const char* text, const char* example, std::ostream& out) {
    out << "usage: " << usage << "\n\n" << Wrap(text, kHelpWidth, "") << "\nexample:\n  " << example << "\n";
}

}  // namespace

const ScenarioHelp& ExpectHelp() { return kExpectHelp; }

bool PrintHelp(const std::string& command, std::ostream& out) {
    if (command.empty()) {
        out << "tervane: drive the emulated NT machine and the driver.\n\n";
        for (const auto& c : CliCommands()) out << "  " << CliUsage(c) << "\n";
        out << "  tervane --version\n";
        out << "\nScenario commands (tervane help COMMAND explains one):\n";
        std::string machine = "machine:", process = "process operations (PID: OP ...):";
        for (const auto& c : AllCommands()) (c.scope == Scope::Machine ? machine : process) += " " + std::string(c.name);
        out << Wrap(machine + " expect", kHelpWidth, "  ") << Wrap(process, kHelpWidth, "  ");
        return true;
    }
    // The command line's command of that name, or every command of a group
    // ("index"); then the scenario command of the same name, if there is one.
    size_t printed = 0;
    for (const auto& c : CliCommands()) {
        std::string path = c.path;
        if (path == command || path.rfind(command + " ", 0) == 0) {
            out << (printed++ ? "\n" : "");
            PrintCli(c, out);
        }
    }
    auto scenarioHeading = [&] {
        if (printed++) out << "\nThe scenario command " << command << ":\n\n";
    };
    if (command == kExpectHelp.name) {
        scenarioHeading();
        PrintScenario(kExpectHelp.usage, kExpectHelp.text, kExpectHelp.example, out);
    }
    for (const auto& c : AllCommands()) {
        if (command == c.name) {
            scenarioHeading();
            std::string usage = c.scope == Scope::Process ? std::string("PID: ") + c.usage : c.usage;
            PrintScenario(usage, c.summary, c.example, out);
        }
    }
    if (printed) return true;
    out << "tervane help: no command \"" << EscapeText(command) << "\" (tervane help lists them)\n";
    return false;
}

}  // namespace tervane::tool
