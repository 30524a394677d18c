// The table of the command line's own commands.
#include "cli.h"

#include <iostream>

#include "demo.h"
#include "frontend.h"
#include "index_cli.h"
#include "interpreter.h"

namespace tervane::tool {

const std::string& CliValues::Get(const std::string& name) const {
    static const std::string kNone;
    auto it = values.find(name);
    return it == values.end() ? kNone : it->second;
}

bool CliValues::Switch(const std::string& name) const {
    auto it = switches.find(name);
    return it != switches.end() && it->second;
}

std::vector<std::string> CliValues::List(const std::string& name) const {
    auto it = lists.find(name);
    return it == lists.end() ? std::vector<std::string>{} : it->second;
}

namespace {

const std::vector<CliExit> kRunExits = {
    {kExitOk, "every command ran and every expectation held"},
    {kExitExpectationFailed, "an expectation failed (each is printed as EXPECTATION FAILED (line N): ...)"},
    {kExitScriptError,
     "a script error: an unknown command or argument, a setup command that failed (a volume that cannot be "
     "mounted, a process id in use), or a script that cannot be read; the message names file and line"},
    {kExitVerifier,
     "the machine shut down with pool, handles or file objects still outstanding after every process ended, or "
     "the verifier saw misuse (an IRP completed twice, a resource released by a thread that does not own it); "
     "the report is printed. Handles a script leaves open are closed when its processes end, with a warning, "
     "and do not count"},
};

int RunCommand(const CliValues& v) {
    RunOptions options;
    options.file = v.Get("FILE");
    options.workdir = v.Get("--workdir");
    options.temp = v.Switch("--temp");
    options.json = v.Switch("--json");
    options.echo = !v.Switch("--no-echo");
    return RunFile(options, std::cout, std::cerr);
}

int ShellCommand(const CliValues& v) { return RunShell(v.Switch("--json")); }

int DemoCommand(const CliValues& v) {
    DemoOptions options;
    options.keepDir = v.Get("--keep");
    options.quiet = v.Switch("--quiet");
    return RunDemo(options);
}

int IndexBuildCommand(const CliValues& v) {
    IndexBuildOptions options;
    options.quiet = v.Switch("--quiet");
    options.skipUnrepresentable = v.Switch("--skip-unrepresentable");
    return IndexBuild(v.Get("HOSTDIR"), v.Get("NODEFILE"), v.Get("NAMEFILE"), options, std::cout, std::cerr);
}

int IndexDumpCommand(const CliValues& v) { return IndexDump(v.Get("NODEFILE"), v.Get("NAMEFILE"), std::cout, std::cerr); }

int IndexLookupCommand(const CliValues& v) {
    return IndexLookup(v.Get("NODEFILE"), v.Get("NAMEFILE"), v.Get("PATH"), std::cout, std::cerr);
}

int HelpCommand(const CliValues& v) {
    std::string topic;
    for (const auto& word : v.List("COMMAND")) topic += (topic.empty() ? "" : " ") + word;
    return PrintHelp(topic, std::cout) ? 0 : kExitScriptError;
}

const CliArgument kNodeFile{"NODEFILE", "the node file", ValueKind::File};
const CliArgument kNameFile{"NAMEFILE", "the name file", ValueKind::File};

std::vector<CliCommand> MakeTable() {
    std::vector<CliCommand> t;
    t.push_back({
        "run",
        "run a scenario script",
        "Runs a scenario script: one command a line, # starts a comment, arguments separated by blanks, double "
        "quotes with C escapes (\\n \\r \\t \\0 \\\\ \\\" \\xHH) around arguments with blanks; any other backslash in "
        "quotes stays as written, so \"C:\\docs\\My file\" needs no doubling (but \"C:\\new\" holds a newline). Each "
        "command is shown (> LINE) before its status line and indented output, and a summary ends the run. "
        "--json prints one JSON object a line instead: a record per command (raw data such as the bytes read and "
        "the entries listed as fields), per failed expectation, per script error, and a final summary. FILE - "
        "reads the script from standard input. Relative host directories (volume C: work) are taken beside the "
        "script (from the current directory when it comes from standard input or a pipe), from DIR with "
        "--workdir, or from a fresh temporary directory, removed at the end, with --temp. The scripts in "
        "examples/ are worked examples.",
        "tervane run examples/first_steps.scn",
        {{"FILE", "the script, or - for standard input", ValueKind::File}},
        {{"--json", nullptr, "one JSON object a line"},
         {"--no-echo", nullptr, "do not show each command before its result"},
         {"--workdir", "DIR", "take relative host directories from DIR (made when missing)", ValueKind::Directory},
         {"--temp", nullptr, "take them from a new temporary directory, removed afterwards", ValueKind::Text,
          "--workdir"}},
        kRunExits,
        RunCommand,
    });
    t.push_back({
        "shell",
        "type scenario commands interactively",
        "The commands of run, typed one at a time, with line editing, Tab completion (commands, operations, "
        "ctl verbs, options and the NT names they take, the handle names of a process, and drive paths as that "
        "process sees them) and history (~/.tervane_history, written after every command). A mistake is "
        "reported and the shell goes on; Ctrl-C drops the line being typed; exit, quit or Ctrl-D ends the shell "
        "and shuts the machine down with the verifier's report and a summary. Relative host directories are "
        "taken from the current directory. Reads standard input without prompts when it is not a terminal.",
        "tervane shell",
        {},
        {{"--json", nullptr, "one JSON object a line"}},
        {{kExitOk, "ended normally"},
         {kExitExpectationFailed, "an expectation failed during the session"},
         {kExitScriptError, "a usage error"},
         {kExitVerifier, "the machine shut down with something outstanding (see run)"}},
        ShellCommand,
    });
    t.push_back({
        "demo",
        "a narrated, self-checking walk through the layered view",
        "A narrated, self-checking walk through the driver's layered view on a workspace made in a temporary "
        "directory (kept in DIR with --keep, which must be new or empty): three filter directories with an "
        "indexed base layer, a monitored and an unmonitored process side by side (one after the other on a "
        "narrow terminal; the width is taken from COLUMNS, else from the terminal, else 100), a layered open, "
        "copy-up, a hidden deletion, a rename, a merged listing, an exclusion, the kernel log, pool by tag and "
        "the verifier's report.",
        "tervane demo --keep /tmp/tervane-demo",
        {},
        {{"--keep", "DIR", "make the workspace in DIR and keep it", ValueKind::Directory},
         {"--quiet", nullptr, "print only the verdict"}},
        {{0, "every check passed"},
         {1, "something differed (each difference is named)"},
         {2, "the workspace could not be made (the message names the directory and the reason), or a usage "
             "error"}},
        DemoCommand,
    });
    t.push_back({
        "index build",
        "make an index pair from a host directory tree",
        "Writes the node file and the name file describing the tree below HOSTDIR, as the driver loads them for "
        "its last filter directory. The index lists what the volume shows, so every host name the volume does "
        "not show is reported: names that differ only in case from an earlier one (byte order), names with a "
        "control character or one of \" * / : < > ? \\ |, names that are not valid UTF-8, "
        "symbolic links and other special files. Without --skip-unrepresentable such names stop the build; "
        "with it they are left out and the rest is built. A tree that does not fit the 5 MB areas is refused. "
        "Prints the counts as it goes unless --quiet.",
        "tervane index build --skip-unrepresentable base base.node base.name",
        {{"HOSTDIR", "the tree", ValueKind::Directory},
         {"NODEFILE", "the node file to write", ValueKind::File},
         {"NAMEFILE", "the name file to write (not the node file)", ValueKind::File}},
        {{"--quiet", nullptr, "no progress output"},
         {"--skip-unrepresentable", nullptr, "leave out the names the volume does not show, and build the rest"}},
        {{kIndexOk, "the pair was written"},
         {kIndexNo, "the tree holds names the index cannot hold (each is named); nothing was written"},
         {kIndexFailed,
          "the tree cannot be read, does not fit, or the files cannot be written (the message says which and "
          "why), NODEFILE and NAMEFILE are one file, or a usage error"}},
        IndexBuildCommand,
    });
    t.push_back({
        "index dump",
        "print the tree of an index pair",
        "Prints every entry of an index pair reachable from the root, parents before children: its path, its "
        "entry offset and its type. Broken links and cycles end the dump with a message.",
        "tervane index dump base.node base.name",
        {kNodeFile, kNameFile},
        {},
        {{kIndexOk, "the whole tree was printed"},
         {kIndexFailed, "the files cannot be read or are not an index pair (the message says why), or a usage "
                        "error"}},
        IndexDumpCommand,
    });
    t.push_back({
        "index lookup",
        "look one path up in an index pair",
        "Looks one path up as the driver does (C:\\a\\b, \\a\\b or a\\b; names compared without regard to case) "
        "and prints its type, entry offset and parent.",
        "tervane index lookup base.node base.name C:\\Inkpad\\inkpad.ini",
        {kNodeFile, kNameFile, {"PATH", "a path such as C:\\dir\\a.txt"}},
        {},
        {{kIndexOk, "the path is in the index"},
         {kIndexNo, "the path is not in the index"},
         {kIndexFailed, "the files cannot be read or are not an index pair, or a usage error"}},
        IndexLookupCommand,
    });
    t.push_back({
        "help",
        "explain a command, with an example",
        "Explains a command of tervane or of the scenario language, with an example; without COMMAND, lists "
        "them all. A name that is both (index) is explained both ways.",
        "tervane help open",
        {{"COMMAND", "a command, such as run, index build or open", ValueKind::Topic, true, true}},
        {},
        {{0, "the help was printed"}, {kExitScriptError, "no command of that name"}},
        HelpCommand,
    });
    return t;
}

}  // namespace

std::span<const CliCommand> CliCommands() {
    static const std::vector<CliCommand> table = MakeTable();
    return table;
}

const CliCommand* FindCliCommand(const std::string& path) {
    for (const auto& c : CliCommands())
        if (path == c.path) return &c;
    return nullptr;
}

std::string CliUsage(const CliCommand& command) {
    std::string usage = std::string("tervane ") + command.path;
    for (const auto& o : command.options) {
        if (o.excludes) continue;  // shown with the option it excludes
        usage += " [" + std::string(o.name) + (o.value ? " " + std::string(o.value) : "");
        for (const auto& other : command.options)
            if (other.excludes && std::string(other.excludes) == o.name)
                usage += " | " + std::string(other.name) + (other.value ? " " + std::string(other.value) : "");
        usage += "]";
    }
    for (const auto& a : command.arguments) {
        std::string word = std::string(a.name) + (a.many ? "..." : "");
        usage += " " + (a.optional ? "[" + word + "]" : word);
    }
    return usage;
}

}  // namespace tervane::tool
