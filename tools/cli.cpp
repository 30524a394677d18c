// The table of the command line's own commands.
#include "cli.h"

#include <cctype>
#include <filesystem>
#include <iostream>

#include "demo.h"
#include "frontend.h"
#include "index_cli.h"
#include "interpreter.h"
#ifdef TERVANE_WITH_FUSE
#include "mount.h"
#endif

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
    options.driverImage = v.Get("--sys");
    return RunFile(options, std::cout, std::cerr);
}

int ShellCommand(const CliValues& v) { return RunShell(v.Switch("--json")); }

int DemoCommand(const CliValues& v) {
    DemoOptions options;
    options.keepDir = v.Get("--keep");
    options.quiet = v.Switch("--quiet");
    if (!v.Get("--sys").empty()) options.driverImage = std::filesystem::absolute(v.Get("--sys")).string();
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

#ifdef TERVANE_WITH_FUSE
int MountCommand(const CliValues& v) {
    fuse::MountOptions options;
    options.script = v.Get("SCRIPT");
    options.mountPoint = v.Get("MOUNTPOINT");
    options.foreground = v.Switch("--foreground");
    options.fuseOptions = v.Get("-o");
    std::string drive = v.Get("--drive");
    if (!drive.empty()) {
        bool letter = (drive.size() == 1 || (drive.size() == 2 && drive[1] == ':')) && std::isalpha(drive[0]);
        options.drive = letter ? static_cast<char>(std::toupper(drive[0])) : '?';
    }
    return fuse::Mount(options);
}

int ExecCommand(const CliValues& v) { return fuse::Exec(v.Get("MOUNTPOINT"), v.List("CMD")); }
int MountCtlCommand(const CliValues& v) { return fuse::Ctl(v.Get("MOUNTPOINT"), v.List("VERB")); }

void AddMountCommands(std::vector<CliCommand>& t) {
    t.push_back({
        "mount",
        "serve the layered view to Linux programs through FUSE",
        "Runs SCRIPT (scenario commands such as volume C: HOSTDIR, load and ctl ...) to set the machine up, then "
        "serves drive C: (or the --drive letter) at MOUNTPOINT through libfuse 3. Every Linux process that makes a "
        "request is a process of the machine with the same id and the image name of /proc/PID/comm, made on its "
        "first request and ended once it is gone; the driver's monitored-process list decides what each sees. "
        "Policy of the mount: a process seen for the first time whose parent, or any ancestor, is on the list is "
        "added to it (and removed when it ends), so the children of a monitored shell see what it sees. A listing "
        "names each entry once, as the copy an open reaches (the driver's merged listing names an entry once for "
        "every filter directory that holds it), and . and .. once. Directories have mode 0755, files 0755 unless "
        "-o umask=OCTAL says otherwise, read-only files no write bits; everything belongs to the mounting user. "
        "What NT cannot hold is refused: symbolic and hard links, device nodes and other owners with EPERM, names "
        "with \\ : * ? \" < > | or a control character, or ending in a dot or blank, with EINVAL, names that are "
        "not UTF-8 with EILSEQ. Without --foreground the command returns once the mount is ready and the server "
        "goes on in the background; fusermount3 -u MOUNTPOINT (or SIGINT, SIGTERM in the foreground) unmounts, ends "
        "every process and prints the verifier's report on standard error. A control socket beside the mount "
        "(.NAME.tervane next to MOUNTPOINT, owner only) takes tervane exec and tervane ctl MOUNTPOINT.",
        "tervane mount setup.scn /mnt/view",
        {{"SCRIPT", "the setup script", ValueKind::File}, {"MOUNTPOINT", "an empty directory", ValueKind::Directory}},
        {{"--foreground", nullptr, "serve in this process until unmounted"},
         {"--drive", "X:", "the drive to serve (C: unless told)"},
         {"-o", "OPTIONS", "mount options, comma-separated: umask=OCTAL, and libfuse's own (allow_other ...)"}},
        {{0, "mounted (and, in the foreground, unmounted with a clean verifier report)"},
         {1, "the mount could not start (no /dev/fuse, a busy mount point, a drive the script did not make); the "
             "message says why"},
         {2, "a usage error or a setup script that failed (file and line named)"},
         {3, "unmounted, and the verifier found something outstanding (the report is printed)"}},
        MountCommand,
    });
    t.push_back({
        "exec",
        "run a command as a monitored process of a mount",
        "Adds this process to the monitored processes of the mount at MOUNTPOINT through its control socket, then "
        "runs CMD in its place: CMD and every process it starts see the layered view there. The exit status is "
        "CMD's.",
        "tervane exec /mnt/view -- bash",
        {{"MOUNTPOINT", "a tervane mount", ValueKind::Directory},
         {"CMD", "the command and its arguments, after --", ValueKind::Text, false, true}},
        {},
        {{125, "the mount did not take the process (no mount there, or no driver loaded)"},
         {126, "CMD could not be run"},
         {127, "CMD was not found"}},
        ExecCommand,
    });
    t.push_back({
        "ctl",
        "send a control verb to the driver of a running mount",
        "Sends one verb of the scenario command ctl (add-process PID NAME, processes, add-exclusions PATH..., "
        "start, stop ...) to the driver of the mount at MOUNTPOINT through its control socket and prints what ctl "
        "prints in a script.",
        "tervane ctl /mnt/view processes",
        {{"MOUNTPOINT", "a tervane mount", ValueKind::Directory},
         {"VERB", "the verb and its words", ValueKind::Text, false, true}},
        {},
        {{0, "the driver answered with success"},
         {1, "the driver refused (its status is printed)"},
         {2, "no mount answers there, or the verb or its words are wrong"}},
        MountCtlCommand,
    });
}
#endif

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
          "--workdir"},
         {"--sys", "IMAGE", "load loads this driver image file (tervane.sys) instead of the built-in driver",
          ValueKind::File}},
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
         {"--quiet", nullptr, "print only the verdict"},
         {"--sys", "IMAGE", "run the driver image file (tervane.sys) instead of the built-in driver",
          ValueKind::File}},
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
#ifdef TERVANE_WITH_FUSE
    AddMountCommands(t);
#endif
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
