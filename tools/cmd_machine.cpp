// Commands about the machine itself: volumes, registry, build number,
// processes, the driver, the debug log, pool and handles.
#include <algorithm>
#include <cctype>
#include <cstdlib>

#include <nt/ntifs.h>

#include "commands.h"
#include "hostpath.h"
#include "indexfile/indexfile.h"

// Standard and emulator headers come first: the driver's platform include
// renames a few wide-character routines of the C library.
#include "core/tervane.h"

namespace tervane::tool {
namespace {

std::string Hex(uintptr_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%zx", static_cast<size_t>(value));
    return text;
}

bool IsDriveLetter(const std::string& s) {
    return s.size() == 2 && std::isalpha(static_cast<unsigned char>(s[0])) && s[1] == ':';
}

char DriveLetter(const std::string& s, const char* what) {
    if (!IsDriveLetter(s)) throw ScriptError(std::string("expected a drive letter such as C: for ") + what +
                                             ", got \"" + s + "\"");
    return static_cast<char>(std::toupper(static_cast<unsigned char>(s[0])));
}

// A volume that cannot be set up stops the script: everything after it
// would fail for a reason the script does not show.
void Volume(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    char letter = DriveLetter(args.Next("drive letter"), "the new drive");
    std::string target = args.Next("HOSTDIR or existing drive");
    args.Done();
    auto& machine = ctx.session.Machine();
    const std::string drive = std::string(1, letter) + ":";
    if (IsDriveLetter(target)) {
        char existing = DriveLetter(target, "the existing drive");
        ctx.result.status = machine.AliasVolume(letter, existing);
        if (ctx.result.status == STATUS_OBJECT_NAME_NOT_FOUND)
            throw ScriptError("volume: drive " + std::string(1, existing) + ": has no volume to give a second letter "
                              "(mount one first: volume " + std::string(1, existing) + ": HOSTDIR)");
        if (ctx.result.status == STATUS_OBJECT_NAME_COLLISION)
            throw ScriptError("volume: drive " + drive + " is in use already");
        if (!NT_SUCCESS(ctx.result.status))
            throw ScriptError("volume: " + drive + " cannot name the volume of " + std::string(1, existing) +
                              ": (" + emu::StatusName(ctx.result.status) + ")");
        ctx.Line(drive + " is the volume of " + existing + ":");
        ctx.result.data["drive"] = drive;
        ctx.result.data["volumeOf"] = std::string(1, existing) + ":";
        return;
    }
    std::filesystem::path dir(target);
    if (dir.is_relative()) dir = ctx.session.BaseDir() / dir;
    dir = dir.lexically_normal();
    std::string problem = MakeHostDirectory(dir);
    if (!problem.empty()) throw ScriptError("volume: " + problem);
    ctx.result.status = machine.MountVolume(letter, dir.string());
    if (ctx.result.status == STATUS_OBJECT_NAME_COLLISION)
        throw ScriptError("volume: drive " + drive + " is in use already");
    if (!NT_SUCCESS(ctx.result.status))
        throw ScriptError("volume: cannot mount " + EscapeText(dir.string()) + " as " + drive + " (" +
                          emu::StatusName(ctx.result.status) + ")");
    ctx.Line(drive + " " + EscapeText(dir.string()));
    ctx.result.data["drive"] = drive;
    ctx.result.data["host"] = dir.string();
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
    const std::string id = std::to_string(pid);
    if (ctx.session.FindProcess(pid)) throw ScriptError("process: process " + id + " exists already");
    if (ctx.session.Machine().FindProcess(pid))
        throw ScriptError("process: the machine has a process with id " + id + " already" +
                          (pid == 4 ? " (System)" : "") + "; choose another id");
    if (!ctx.session.CreateProcess(pid, image))
        throw ScriptError("process: the machine cannot make a process with id " + id);
    ctx.Line(id + " " + EscapeText(image));
    ctx.result.data["pid"] = pid;
    ctx.result.data["image"] = image;
}

std::filesystem::path HostPath(Context& ctx, const std::string& text) {
    std::filesystem::path path(text);
    return (path.is_relative() ? ctx.session.BaseDir() / path : path).lexically_normal();
}

// Scripts that load an index need the pair as files; this writes them on the
// host, typically into a mounted volume's directory. Host failures and names
// the volume does not show stop the script, unless skip leaves those out.
void Index(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {}, {"skip"});
    auto tree = HostPath(ctx, args.Next("HOSTDIR"));
    auto nodeFile = HostPath(ctx, args.Next("NODEFILE"));
    auto nameFile = HostPath(ctx, args.Next("NAMEFILE"));
    args.Done();
    for (const std::filesystem::path& dir : {tree, nodeFile.parent_path(), nameFile.parent_path()}) {
        std::string problem = MakeHostDirectory(dir);
        if (!problem.empty()) throw ScriptError("index: " + problem);
    }
    indexfile::IndexFiles files;
    std::string error;
    std::vector<indexfile::NameProblem> problems;
    indexfile::BuildOptions options;
    options.skipUnrepresentable = args.Switch("skip");
    options.problems = &problems;
    if (!indexfile::BuildIndex(tree, &files, &error, options) ||
        !indexfile::WriteIndexFiles(files, nodeFile, nameFile, &error)) {
        if (!problems.empty() && !options.skipUnrepresentable) {
            std::string names;
            for (size_t i = 0; i < problems.size() && i < 3; ++i)
                names += (i ? "; " : "") + EscapeText(problems[i].path.string()) + " " + problems[i].reason;
            throw ScriptError("index: " + std::to_string(problems.size()) + " host " +
                              (problems.size() == 1 ? "name" : "names") + " the volume does not show (" + names +
                              (problems.size() > 3 ? "; ..." : "") + "); add skip to leave them out");
        }
        throw ScriptError("index: " + EscapeText(error));
    }
    for (const auto& p : problems) ctx.Line("left out " + EscapeText(p.path.string()) + ": " + p.reason);
    uint64_t entries = indexfile::EntryCountOf(files), nameBytes = indexfile::NameBytesOf(files);
    ctx.Line(indexfile::CountsText(entries, nameBytes) + "; node file " + std::to_string(files.node.size()) +
             " bytes, name file " + std::to_string(files.name.size()) + " bytes");
    ctx.result.data["entries"] = entries;
    ctx.result.data["nameBytes"] = nameBytes;
    ctx.result.data["nodeFileBytes"] = files.node.size();
    ctx.result.data["nameFileBytes"] = files.name.size();
    ctx.result.data["leftOut"] = problems.size();
}

// `load PATH` loads a driver image file; the machine refuses one it cannot
// load, saying why, and stays as it was.
void LoadImage(Context& ctx, const std::filesystem::path& path) {
    emu::Machine::ImageLoad load = ctx.session.Machine().LoadDriverImage(path.string(), u"Tervane");
    ctx.result.status = load.status;
    if (!load.refusal.empty()) ctx.Line(path.string() + ": " + load.refusal);
    ctx.session.driverLoaded = load.driverObject != nullptr;
}

void Load(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    std::optional<std::string> image = args.NextIf();
    args.Done();
    if (ctx.session.driverLoaded) throw ScriptError("load: a driver is loaded already");
    if (!image && !ctx.session.driverImage.empty()) image = ctx.session.driverImage;
    if (image) return LoadImage(ctx, HostPath(ctx, *image));
    ctx.result.status = ctx.session.Machine().LoadDriver(u"Tervane", DriverEntry);
    ctx.session.releaseDriver = [] { ReleaseDriverState(); };
    ctx.session.driverLoaded = true;
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
    auto usage = ctx.session.Machine().PoolUsage();
    std::sort(usage.begin(), usage.end(), [](const auto& a, const auto& b) { return a.tag < b.tag; });
    auto& pool = ctx.result.data["pool"] = nlohmann::json::array();
    for (const auto& tag : usage) {
        ctx.Line(EscapeBytes(tag.tag) + " allocs=" + std::to_string(tag.allocs) + " frees=" +
                 std::to_string(tag.frees) + " blocks=" + std::to_string(tag.outstandingBlocks) +
                 " bytes=" + std::to_string(tag.outstandingBytes));
        pool.push_back({{"tag", tag.tag},
                        {"allocs", tag.allocs},
                        {"frees", tag.frees},
                        {"blocks", tag.outstandingBlocks},
                        {"bytes", tag.outstandingBytes}});
    }
}

// One line per handle: pid, the script's name for it ("-" for handles the
// script did not name, such as the controller's), the handle value, the
// object type and the object's name.
void Handles(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    std::optional<std::string> pidText = args.NextIf();
    args.Done();
    uint32_t pid = pidText ? ParseU32(*pidText, "process id") : 0;
    if (pidText && !ctx.session.FindProcess(pid) && !ctx.session.Machine().FindProcess(pid))
        throw ScriptError("handles: no process " + *pidText);
    auto& list = ctx.result.data["handles"] = nlohmann::json::array();
    for (const auto& line : ctx.session.Machine().HandleLines(pid)) {
        // "PID 0xVALUE TYPE NAME"
        size_t a = line.find(' '), b = a == std::string::npos ? a : line.find(' ', a + 1);
        if (b == std::string::npos) {
            ctx.Line(line);
            continue;
        }
        size_t c = line.find(' ', b + 1);
        uint32_t owner = static_cast<uint32_t>(std::strtoul(line.c_str(), nullptr, 10));
        std::string value = line.substr(a + 1, b - a - 1);
        std::string type = line.substr(b + 1, c == std::string::npos ? std::string::npos : c - b - 1);
        std::string object = c == std::string::npos ? std::string() : line.substr(c + 1);
        std::string name = "-";
        if (ProcessState* p = ctx.session.FindProcess(owner)) {
            for (const auto& [n, h] : p->handles)
                if (Hex(reinterpret_cast<uintptr_t>(h)) == value) name = n;
        }
        ctx.Line(std::to_string(owner) + " " + name + " " + value + " " + type + " " + EscapeText(object));
        nlohmann::json entry = {{"pid", owner}, {"handle", value}, {"type", type}, {"object", object}};
        entry["name"] = name == "-" ? nlohmann::json() : nlohmann::json(name);
        list.push_back(entry);
    }
}

}  // namespace

void AddMachineCommands(std::vector<CommandSpec>& t) {
    t.push_back({"volume", Scope::Machine, "volume X: HOSTDIR | volume X: Y:",
                 "Mounts a host directory (made if missing; relative to the script) as the volume of drive X:, "
                 "or gives the volume of Y: the second letter X:. A directory that cannot be made or used, a "
                 "letter in use, or a Y: without a volume is a script error.",
                 "volume C: work/c", Volume});
    t.push_back({"registry", Scope::Machine, "registry KEY NAME TEXT",
                 "Sets a string value in the machine's registry; KEY is a full name (\\Registry\\Machine\\...) or "
                 "starts with HKLM\\. SystemRoot is C:\\WINDOWS unless a script changes it.",
                 "registry \"HKLM\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\" SystemRoot D:\\WINNT",
                 Registry});
    t.push_back({"build", Scope::Machine, "build N", "Sets the system build number (2600 unless changed).",
                 "build 1381", Build});
    t.push_back({"process", Scope::Machine, "process PID IMAGE",
                 "Creates a process with that id and image name; its operations are then written PID: OP ... An "
                 "id in use (the System process is 4) is a script error.",
                 "process 1234 app.exe", CreateProcess});
    t.push_back({"load", Scope::Machine, "load [PATH]",
                 "Loads the driver: runs its DriverEntry in the System process and prints the status it returned. "
                 "With PATH (relative to the script), loads that driver image file instead of the built-in driver "
                 "(32-bit machine only); an image the machine cannot load is refused with the reason.",
                 "load build-sys/driver/tervane.sys", Load});
    t.push_back({"index", Scope::Machine, "index HOSTDIR NODEFILE NAMEFILE [skip]",
                 "Builds the index pair of the host tree HOSTDIR (made if missing) and writes the two files, as "
                 "tervane index build does; host paths are relative to the script like those of volume. Prints "
                 "the counts as tervane index build words them (entries below the root, name bytes) and the file "
                 "sizes. Host names the volume does not show (case variants, reserved characters, links) stop "
                 "the script; with skip they are left out and named.",
                 "index c/base c/index/base.node c/index/base.name", Index});
    t.push_back({"log", Scope::Machine, "log [TEXT]",
                 "Prints the kernel debug output since the previous log command, only the lines holding TEXT "
                 "when it is given.",
                 "log \"Hook Drive\"", Log});
    t.push_back({"pool", Scope::Machine, "pool",
                 "Prints the pool use of every tag, in tag order: allocations, frees, and the blocks and bytes "
                 "outstanding.",
                 "pool", Pool});
    t.push_back({"handles", Scope::Machine, "handles [PID]",
                 "Prints the open handles of one process, or of every process: pid, the name the script gave the "
                 "handle (- for one it did not name), the handle value, the object type and the object's name.",
                 "handles 1234", Handles});
}

}  // namespace tervane::tool
