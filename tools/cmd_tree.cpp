// `PID: tree PATH`: a process's view below a directory, drawn as a tree.
//
// What the mark of an entry means: the file that actually serves the
// process's open of that entry. The tree opens every entry in the process
// (so the driver routes the open exactly as it would any other) and asks the
// open for its volume serial number and file id; a redirected open answers
// these from the real file behind it. The controller process, which the
// driver does not monitor, then opens the entry's real path in every filter
// directory (the roots the driver reports through its control device) and the
// drive path itself. The entry is marked [N] for the filter directory whose
// real file is the one the process reached, [volume] when the process reached
// the volume's own file (a process that is not monitored, an excluded path,
// filtering off), and [?] when neither matched. "also in N..." names the
// other filter directories that hold a copy on disk (shadowed files, merged
// directories, hidden names). Without filter directories (no driver, or none
// set yet) no marks are drawn.
//
// A merged listing returns a name once from every filter directory that holds
// it; the tree draws each name once, where the listing first returned it.
#include <optional>
#include <set>

#include <nt/ntifs.h>

#include "commands.h"
#include "decode.h"
#include "ntcall.h"

namespace tervane::tool {
namespace {

constexpr ULONG kListChunk = 64 * 1024;
// Deep enough for any tree a script builds; a guard against a runaway walk.
constexpr int kMaxDepth = 64;

// The real file an open reaches.
struct FileIdentity {
    ULONG serial = 0;
    LONGLONG id = 0;
    bool operator==(const FileIdentity&) const = default;
};

struct Node {
    int depth = 0;  // 0: the PATH itself
    bool last = false;  // the last entry of its directory
    std::string name;
    std::string drivePath;
    bool directory = false;
    int64_t size = 0;
    std::optional<FileIdentity> seen;  // what the process's open reached
    std::string note;  // a listing that failed below this entry
};

class ScopedHandle {
public:
    ScopedHandle() = default;
    ~ScopedHandle() {
        if (handle_) NtClose(handle_);
    }
    ScopedHandle(const ScopedHandle&) = delete;
    ScopedHandle& operator=(const ScopedHandle&) = delete;
    HANDLE* out() { return &handle_; }
    HANDLE get() const { return handle_; }

private:
    HANDLE handle_ = nullptr;
};

NTSTATUS Open(const std::string& path, ACCESS_MASK access, ULONG options, ScopedHandle* handle) {
    OpenRequest request;
    request.path = path;
    request.access = access | SYNCHRONIZE;
    request.options = options | FILE_SYNCHRONOUS_IO_NONALERT;
    IO_STATUS_BLOCK iosb{};
    return OpenFile(request, handle->out(), &iosb);
}

// A call that failed for want of memory says nothing about the file: the
// tree fails with its status (the first one) instead of drawing a guess.
// The driver answers STATUS_UNSUCCESSFUL when it cannot have a buffer of its
// own, so that status counts too.
struct Shortage {
    NTSTATUS status = STATUS_SUCCESS;
    NTSTATUS Note(NTSTATUS s) {
        if ((s == STATUS_INSUFFICIENT_RESOURCES || s == STATUS_NO_MEMORY || s == STATUS_UNSUCCESSFUL) &&
            NT_SUCCESS(status))
            status = s;
        return s;
    }
};

// Runs in the calling process. Nothing when the path cannot be opened or
// does not answer both queries.
std::optional<FileIdentity> IdentityOf(const std::string& path, Shortage& shortage) {
    ScopedHandle file;
    if (!NT_SUCCESS(shortage.Note(Open(path, FILE_READ_ATTRIBUTES, 0, &file)))) return std::nullopt;
    FILE_INTERNAL_INFORMATION internal{};
    IO_STATUS_BLOCK iosb{};
    if (!NT_SUCCESS(shortage.Note(
            NtQueryInformationFile(file.get(), &iosb, &internal, sizeof internal, FileInternalInformation))))
        return std::nullopt;
    // The volume record ends in the label; room for a short one.
    alignas(8) uint8_t volume[sizeof(FILE_FS_VOLUME_INFORMATION) + 64]{};
    NTSTATUS status = shortage.Note(
        NtQueryVolumeInformationFile(file.get(), &iosb, volume, sizeof volume, FileFsVolumeInformation));
    if (NT_ERROR(status)) return std::nullopt;
    return FileIdentity{reinterpret_cast<FILE_FS_VOLUME_INFORMATION*>(volume)->VolumeSerialNumber,
                        internal.IndexNumber.QuadPart};
}

// The whole listing of a directory, in the order returned, without . and ..
NTSTATUS ListDirectory(const std::string& path, std::vector<DirectoryEntry>* entries) {
    ScopedHandle dir;
    NTSTATUS status = Open(path, FILE_LIST_DIRECTORY, FILE_DIRECTORY_FILE, &dir);
    if (!NT_SUCCESS(status)) return status;
    std::vector<uint8_t> buffer(kListChunk);
    while (true) {
        IO_STATUS_BLOCK iosb{};
        status = NtQueryDirectoryFile(dir.get(), nullptr, nullptr, nullptr, &iosb, buffer.data(), kListChunk,
                                      FileBothDirectoryInformation, FALSE, nullptr, FALSE);
        if (status == STATUS_NO_MORE_FILES || status == STATUS_NO_SUCH_FILE) return STATUS_SUCCESS;
        if (!NT_SUCCESS(status)) return status;
        auto more = ParseBothDirectoryEntries(buffer.data(), std::min<size_t>(iosb.Information, kListChunk));
        if (more.empty()) return STATUS_SUCCESS;
        for (auto& e : more)
            if (e.name != "." && e.name != "..") entries->push_back(std::move(e));
    }
}

// Names compare as the file system compares them; ASCII case folding is
// enough for the names scripts use.
std::string Folded(std::string name) {
    for (char& c : name)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return name;
}

void DropRepeatedNames(std::vector<DirectoryEntry>* entries) {
    std::set<std::string> seen;
    std::vector<DirectoryEntry> kept;
    for (auto& e : *entries)
        if (seen.insert(Folded(e.name)).second) kept.push_back(std::move(e));
    *entries = std::move(kept);
}

std::string Join(const std::string& dir, const std::string& name) {
    return !dir.empty() && dir.back() == '\\' ? dir + name : dir + "\\" + name;
}

// Depth-first, children in listing order. Runs in the process.
void Walk(std::vector<Node>& nodes, size_t at, Shortage& shortage) {
    std::vector<DirectoryEntry> entries;
    NTSTATUS status = shortage.Note(ListDirectory(nodes[at].drivePath, &entries));
    if (!NT_SUCCESS(status)) {
        nodes[at].note = "(listing failed: " + emu::StatusName(status) + ")";
        return;
    }
    DropRepeatedNames(&entries);
    int depth = nodes[at].depth + 1;
    for (size_t i = 0; i < entries.size(); ++i) {
        Node node;
        node.depth = depth;
        node.last = i + 1 == entries.size();
        node.name = entries[i].name;
        node.drivePath = Join(nodes[at].drivePath, entries[i].name);
        node.directory = (entries[i].attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        node.size = entries[i].size;
        node.seen = IdentityOf(node.drivePath, shortage);
        nodes.push_back(std::move(node));
        if (nodes.back().directory && depth < kMaxDepth) Walk(nodes, nodes.size() - 1, shortage);
    }
}

// The roots of the filter directories, as the driver reports them; empty
// when no controller has talked to the driver (nothing can be set then).
std::vector<std::string> FilterRoots(Context& ctx, Shortage& shortage) {
    if (!ctx.session.controller || !ctx.session.controlHandle) return {};
    const CommandSpec* ctl = FindCommand("ctl", Scope::Machine);
    if (!ctl) return {};
    Context query{ctx.session, nullptr, "ctl", {}};
    ctl->run(query, {Token{"filters", 7}});
    if (!NT_SUCCESS(shortage.Note(query.result.status))) return {};
    std::vector<std::string> roots;
    for (const auto& path : query.result.data.value("paths", nlohmann::json::array()))
        if (path.is_string() && IsDrivePath(path.get<std::string>())) roots.push_back(path.get<std::string>());
    return roots;
}

// "C:\dir\a.txt" in the filter directory rooted at ROOT.
std::string RealPath(const std::string& root, const std::string& drivePath) {
    std::string rest = drivePath.substr(2);
    if (rest == "\\") rest.clear();
    return root + rest;
}

// What serves the process's open of an entry: "0".."N" (a filter
// directory), "volume" or "?"; and the other filter directories holding a
// copy.
struct Origin {
    std::string layer = "?";
    std::vector<size_t> alsoIn;
    std::string Text() const {
        std::string text = "[" + layer + "]";
        if (!alsoIn.empty()) text += " also in";
        for (size_t i : alsoIn) text += " " + std::to_string(i);
        return text;
    }
};

Origin OriginOf(const Node& node, const std::vector<std::string>& roots, ProcessState& controller, Session& session,
                Shortage& shortage) {
    Origin origin;
    session.RunIn(controller, [&] {
        for (size_t i = 0; i < roots.size(); ++i) {
            std::optional<FileIdentity> copy = IdentityOf(RealPath(roots[i], node.drivePath), shortage);
            if (!copy) continue;
            if (node.seen && copy == node.seen) origin.layer = std::to_string(i);
            else origin.alsoIn.push_back(i);
        }
        if (origin.layer == "?" && node.seen && IdentityOf(node.drivePath, shortage) == node.seen)
            origin.layer = "volume";
    });
    return origin;
}

// "|-- " and "`-- " before an entry, "|   " and "    " for its ancestors.
std::string Prefix(const std::vector<Node>& nodes, size_t at) {
    std::string prefix;
    bool openAt[kMaxDepth + 1] = {};
    for (size_t i = 1; i <= at; ++i) openAt[nodes[i].depth] = !nodes[i].last;
    for (int d = 1; d < nodes[at].depth; ++d) prefix += openAt[d] ? "|   " : "    ";
    prefix += nodes[at].last ? "`-- " : "|-- ";
    return prefix;
}

void Tree(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    std::string path = args.Next("PATH");
    args.Done();
    if (!IsDrivePath(path)) throw ScriptError("tree: PATH must be a drive path such as C:\\dir");
    while (path.size() > 3 && path.back() == '\\') path.pop_back();

    std::vector<Node> nodes(1);
    nodes[0].name = path;
    nodes[0].drivePath = path;
    nodes[0].directory = true;
    Shortage shortage;
    ctx.InProcess([&] {
        ScopedHandle dir;
        ctx.result.status = Open(path, FILE_LIST_DIRECTORY, FILE_DIRECTORY_FILE, &dir);
        if (!NT_SUCCESS(ctx.result.status)) return;
        nodes[0].seen = IdentityOf(path, shortage);
        Walk(nodes, 0, shortage);
    });
    if (!NT_SUCCESS(ctx.result.status)) return;
    std::vector<std::string> roots = FilterRoots(ctx, shortage);
    std::vector<Origin> origins;
    for (const Node& n : nodes)
        if (!roots.empty()) origins.push_back(OriginOf(n, roots, *ctx.session.controller, ctx.session, shortage));
    if (!NT_SUCCESS(shortage.status)) {
        ctx.result.status = shortage.status;
        return;
    }
    ctx.result.info = nodes.size() - 1;

    auto& list = ctx.result.data["entries"] = nlohmann::json::array();
    for (size_t i = 0; i < nodes.size(); ++i) {
        const Node& n = nodes[i];
        std::string line = (i == 0 ? "" : Prefix(nodes, i)) + EscapeText(n.name);
        line += n.directory ? " <DIR>" : " " + std::to_string(n.size);
        nlohmann::json entry = {{"path", n.drivePath}, {"depth", n.depth}, {"directory", n.directory}};
        if (!n.directory) entry["size"] = n.size;
        if (!roots.empty()) {
            const Origin& origin = origins[i];
            line += " " + origin.Text();
            entry["layer"] = origin.layer;
            entry["alsoIn"] = origin.alsoIn;
        }
        if (!n.note.empty()) entry["note"] = n.note;
        ctx.Line(line);
        if (!n.note.empty()) ctx.Line(std::string(4 * n.depth, ' ') + "    " + n.note);
        list.push_back(std::move(entry));
    }
    if (!roots.empty()) {
        std::string legend = "filter directories:";
        for (size_t i = 0; i < roots.size(); ++i) legend += " [" + std::to_string(i) + "] " + EscapeText(roots[i]);
        ctx.Line(legend);
        ctx.result.data["filterDirectories"] = roots;
    }
}

}  // namespace

void AddTreeCommands(std::vector<CommandSpec>& t) {
    t.push_back({"tree", Scope::Process, "tree PATH",
                 "Draws the process's view below the directory PATH as a tree, entries in the order the listing "
                 "returns them, each name once, with its size or <DIR> (info: entries). Once the driver has "
                 "filter directories, each entry is marked with what serves this process's open of it: [N] the "
                 "file in filter directory N, [volume] the volume's own file, [?] neither; \"also in N...\" names "
                 "the other filter directories holding a copy on disk; a legend names the roots.",
                 "1234: tree C:\\dir", Tree});
}

}  // namespace tervane::tool
