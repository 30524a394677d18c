// Commands about the machine itself: volumes, registry, build number,
// processes, the driver, the debug log, pool and handles.
#include <cctype>

#include <nt/ntifs.h>

#include "commands.h"
#include "indexfile/indexfile.h"

#ifdef TERVANE_WITH_DRIVER
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath);
// The emulated machine's end of the driver: gives back what it holds.
VOID ReleaseDriverState();
#endif

namespace tervane::tool {
namespace {

bool IsDriveLetter(const std::string& s) {
    return s.size() == 2 && std::isalpha(static_cast<unsigned char>(s[0])) && s[1] == ':';
}

char DriveLetter(const std::string& s, const char* what) {
    if (!IsDriveLetter(s)) throw ScriptError(std::string("expected a drive letter such as C: for ") + what +
                                             ", got \"" + s + "\"");
    return static_cast<char>(std::toupper(static_cast<unsigned char>(s[0])));
}

void Volume(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    char letter = DriveLetter(args.Next("drive letter"), "the new drive");
    std::string target = args.Next("HOSTDIR or existing drive");
    args.Done();
    auto& machine = ctx.session.Machine();
    if (IsDriveLetter(target)) {
        char existing = DriveLetter(target, "the existing drive");
        ctx.result.status = machine.AliasVolume(letter, existing);
        ctx.Line(std::string(1, letter) + ": is the volume of " + existing + ":");
        return;
    }
    std::filesystem::path dir(target);
    if (dir.is_relative()) dir = ctx.session.BaseDir() / dir;
    ctx.result.status = machine.MountVolume(letter, dir.lexically_normal().string());
    ctx.Line(std::string(1, letter) + ": " + dir.lexically_normal().string());
}

void Registry(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    std::string key = args.Next("KEY");
    std::string name = args.Next("NAME");
    std::string text = args.Next("TEXT");
    args.Done();
    // HKLM\ and HKEY_LOCAL_MACHINE\ are accepted as short forms of the
    // machine hive's kernel name.
    for (const char* prefix : {"HKLM\\", "HKEY_LOCAL_MACHINE\\"}) {
        if (key.rfind(prefix, 0) == 0) {
            key = "\\Registry\\Machine\\" + key.substr(std::string(prefix).size());
            break;
        }
    }
    if (key.rfind("\\Registry\\", 0) != 0)
        throw ScriptError("registry: KEY must be a full name such as \\Registry\\Machine\\SOFTWARE\\...");
    ctx.session.Machine().SetRegistryString(key, name, text);
    ctx.Line(key + " " + name + "=" + EscapeText(text));
}

void Build(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    uint32_t build = ParseU32(args.Next("N"), "build number");
    args.Done();
    if (build > 0xffff) throw ScriptError("build number must be below 65536");
    ctx.session.Machine().SetBuildNumber(static_cast<uint16_t>(build));
    ctx.Line("build=" + std::to_string(build));
}

void CreateProcess(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    uint32_t pid = ParseU32(args.Next("PID"), "process id");
    std::string image = args.Next("IMAGE");
    args.Done();
    if (ctx.session.FindProcess(pid)) throw ScriptError("process " + std::to_string(pid) + " exists already");
    if (!ctx.session.CreateProcess(pid, image)) {
        ctx.result.status = STATUS_OBJECT_NAME_COLLISION;
        ctx.Line("the machine has a process with id " + std::to_string(pid) + " already");
        return;
    }
    ctx.Line(std::to_string(pid) + " " + image);
}

std::filesystem::path HostPath(Context& ctx, const std::string& text) {
    std::filesystem::path path(text);
    return path.is_relative() ? ctx.session.BaseDir() / path : path;
}

// Scripts that load an index need the pair as files; this writes them on the
// host, typically into a mounted volume's directory.
void Index(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    auto tree = HostPath(ctx, args.Next("HOSTDIR"));
    auto nodeFile = HostPath(ctx, args.Next("NODEFILE"));
    auto nameFile = HostPath(ctx, args.Next("NAMEFILE"));
    args.Done();
    indexfile::IndexFiles files;
    std::string error;
    std::filesystem::create_directories(tree);
    bool ok = indexfile::BuildIndex(tree, &files, &error);
    if (ok) {
        std::filesystem::create_directories(nodeFile.parent_path());
        std::filesystem::create_directories(nameFile.parent_path());
        ok = indexfile::WriteIndexFiles(files, nodeFile, nameFile, &error);
    }
    if (!ok) {
        ctx.result.status = STATUS_UNSUCCESSFUL;
        ctx.Line(error);
        return;
    }
    size_t entries = (files.node.size() - indexfile::kNodeFileExtra) / indexfile::kEntrySize;
    ctx.Line("entries=" + std::to_string(entries) +
             " node=" + std::to_string(files.node.size()) + " name=" + std::to_string(files.name.size()));
}

void Load(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    args.Done();
#ifdef TERVANE_WITH_DRIVER
    if (ctx.session.releaseDriver) throw ScriptError("load: the driver is loaded already");
    ctx.result.status = ctx.session.Machine().LoadDriver(u"Tervane", DriverEntry);
    ctx.session.releaseDriver = [] { ReleaseDriverState(); };
#else
    throw ScriptError("load: this tervane was built without the driver");
#endif
}

void Log(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    std::optional<std::string> filter = args.NextIf();
    args.Done();
    ctx.session.TakeCommandLog();
    for (auto& line : SplitLines(ctx.session.TakeLogForLogCommand())) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (filter && line.find(*filter) == std::string::npos) continue;
        // Tabs stay tabs; other control characters are escaped.
        std::string shown;
        size_t start = 0;
        for (size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1)
            shown += EscapeText(line.substr(start, tab - start)) + '\t';
        ctx.Line(shown + EscapeText(line.substr(start)));
    }
}

void Pool(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    args.Done();
    for (const auto& tag : ctx.session.Machine().PoolUsage()) {
        ctx.Line(EscapeBytes(tag.tag) + " allocs=" + std::to_string(tag.allocs) + " frees=" +
                 std::to_string(tag.frees) + " blocks=" + std::to_string(tag.outstandingBlocks) +
                 " bytes=" + std::to_string(tag.outstandingBytes));
    }
}

void Handles(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    std::optional<std::string> pid = args.NextIf();
    args.Done();
    for (auto& line : ctx.session.Machine().HandleLines(pid ? ParseU32(*pid, "process id") : 0))
        ctx.Line(std::move(line));
}

}  // namespace

void AddMachineCommands(std::vector<CommandSpec>& t) {
    t.push_back({"volume", Scope::Machine, "volume X: HOSTDIR | volume X: Y:",
                 "Mounts a host directory (made if missing; relative to the script) as the volume of drive X:, "
                 "or gives the volume of Y: the second letter X:.",
                 "volume C: work/c", Volume});
    t.push_back({"registry", Scope::Machine, "registry KEY NAME TEXT",
                 "Sets a string value in the machine's registry; KEY is a full name (\\Registry\\Machine\\...) or "
                 "starts with HKLM\\. SystemRoot is C:\\WINDOWS unless a script changes it.",
                 "registry \"HKLM\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\" SystemRoot D:\\WINNT",
                 Registry});
    t.push_back({"build", Scope::Machine, "build N", "Sets the system build number (2600 unless changed).",
                 "build 1381", Build});
    t.push_back({"process", Scope::Machine, "process PID IMAGE",
                 "Creates a process with that id and image name; its operations are then written PID: OP ...",
                 "process 1234 app.exe", CreateProcess});
    t.push_back({"load", Scope::Machine, "load",
                 "Loads the driver: runs its DriverEntry in the System process and prints the status it returned.",
                 "load", Load});
    t.push_back({"index", Scope::Machine, "index HOSTDIR NODEFILE NAMEFILE",
                 "Builds the index pair of the host tree HOSTDIR (made if missing) and writes the two files; host "
                 "paths are relative to the script like those of volume. Prints the number of entries (root "
                 "included) and the file sizes.",
                 "index c/base c/index/base.node c/index/base.name", Index});
    t.push_back({"log", Scope::Machine, "log [TEXT]",
                 "Prints the kernel debug output since the previous log command, only the lines holding TEXT "
                 "when it is given.",
                 "log \"Hook Drive\"", Log});
    t.push_back({"pool", Scope::Machine, "pool",
                 "Prints the pool use of every tag: allocations, frees, and the blocks and bytes outstanding.",
                 "pool", Pool});
    t.push_back({"handles", Scope::Machine, "handles [PID]",
                 "Prints the open handles of one process, or of every process: pid, handle, type, name.",
                 "handles 1234", Handles});
}

}  // namespace tervane::tool
