// Directory listings and change notifications.
#include <nt/ntifs.h>

#include "commands.h"
#include "decode.h"
#include "flags.h"
#include "ntcall.h"

namespace tervane::tool {
namespace {

constexpr uint32_t kDefaultListLength = 4096;
constexpr uint32_t kMaxListLength = 1u << 20;
// Names, size and writes: what a program watching a folder usually asks for.
constexpr ULONG kDefaultNotifyFilter = FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME |
                                       FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE;

uint32_t BufferLength(const Args& args, uint32_t fallback) {
    auto text = args.Option("length");
    if (!text) return fallback;
    uint32_t length = ParseU32(*text, "length");
    if (length > kMaxListLength) throw ScriptError(args.command() + ": length above " + std::to_string(kMaxListLength));
    return length;
}

void List(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {"pattern", "class", "length"}, {"single", "restart"});
    HANDLE handle = ctx.process->Handle(args.Next("handle name H"));
    args.Done();
    uint32_t infoClass = FileBothDirectoryInformation;
    if (auto c = args.Option("class")) infoClass = ParseInfoClass(*c, FileInfoClasses(), "information class");
    std::optional<OwnedUnicode> pattern;
    if (auto p = args.Option("pattern")) pattern.emplace(ToUtf16(*p));
    std::vector<uint8_t> buffer(BufferLength(args, kDefaultListLength));
    IO_STATUS_BLOCK iosb{};
    ctx.InProcess([&] {
        ctx.result.status = CallAndWait(
            [&](HANDLE event) {
                return NtQueryDirectoryFile(handle, event, nullptr, nullptr, &iosb, buffer.data(),
                                            static_cast<ULONG>(buffer.size()),
                                            static_cast<FILE_INFORMATION_CLASS>(infoClass),
                                            args.Switch("single") ? TRUE : FALSE, pattern ? pattern->get() : nullptr,
                                            args.Switch("restart") ? TRUE : FALSE);
            },
            iosb);
    });
    ctx.result.info = iosb.Information;
    if (NT_ERROR(ctx.result.status)) return;
    size_t valid = std::min<size_t>(iosb.Information, buffer.size());
    for (auto& line : DescribeDirectoryEntries(infoClass, buffer.data(), valid, &ctx.result.data["entries"]))
        ctx.Line(std::move(line));
}

void Notify(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {"filter", "length"}, {"tree"});
    std::string name = args.Next("handle name H");
    HANDLE handle = ctx.process->Handle(name);
    args.Done();
    ULONG filter = kDefaultNotifyFilter;
    if (auto f = args.Option("filter")) filter = ParseFlags(*f, NotifyFilterNames(), "notify filter");
    uint32_t length = BufferLength(args, kDefaultListLength);
    BOOLEAN tree = args.Switch("tree") ? TRUE : FALSE;
    // The buffer and status block live on the request's own thread, which
    // returns only when the request has completed.
    auto call = [handle, filter, length, tree] {
        Result r;
        std::vector<uint8_t> buffer(length);
        IO_STATUS_BLOCK iosb{};
        r.status = CallAndWait(
            [&](HANDLE event) {
                return NtNotifyChangeDirectoryFile(handle, event, nullptr, nullptr, &iosb, buffer.data(), length,
                                                   filter, tree);
            },
            iosb);
        r.info = iosb.Information;
        if (!NT_ERROR(r.status)) r.lines = DescribeNotifyEntries(buffer.data(), std::min<size_t>(iosb.Information, length));
        return r;
    };
    ctx.result = ctx.session.StartRequest(*ctx.process, name, std::to_string(ctx.process->pid) + ": notify " + name,
                                          call, kPendingFirstWaitMs);
}

}  // namespace

void AddDirectoryCommands(std::vector<CommandSpec>& t) {
    t.push_back({"list", Scope::Process, "list H [pattern=P] [class=C] [single] [restart] [length=N]",
                 "One NtQueryDirectoryFile call on the directory open H (class FileBothDirectoryInformation and "
                 "4096 bytes unless given); one line per entry, its name first. Call it again to go on; "
                 "STATUS_NO_MORE_FILES ends a listing.",
                 "1234: list d1 pattern=*.txt single", List});
    t.push_back({"notify", Scope::Process, "notify H [filter=F] [tree] [length=N]",
                 "NtNotifyChangeDirectoryFile on the directory open H. A request still waiting after a short time "
                 "is reported as STATUS_PENDING; when it completes (a change, or the cleanup of H) its status and "
                 "the changes are printed with the command that was running.",
                 "1234: notify d1 filter=FILE_NOTIFY_CHANGE_FILE_NAME", Notify});
}

}  // namespace tervane::tool
