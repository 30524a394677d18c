// Opening, closing, reading, writing, positions, locks and flushes.
#include <nt/ntifs.h>

#include "commands.h"
#include "flags.h"
#include "ntcall.h"

namespace tervane::tool {
namespace {

// Reads and writes larger than this are refused: a script that asks for
// more is most likely mistaken.
constexpr int64_t kMaxTransfer = 64 * 1024 * 1024;

// offset=N for read and write: -1 and -2 stand for the two special offsets.
std::optional<LARGE_INTEGER> ByteOffset(const Args& args) {
    auto text = args.Option("offset");
    if (!text) return std::nullopt;
    int64_t value = ParseI64(*text, "offset");
    LARGE_INTEGER offset;
    if (value == -1) {
        offset.LowPart = FILE_WRITE_TO_END_OF_FILE;
        offset.HighPart = -1;
    } else if (value == -2) {
        offset.LowPart = FILE_USE_FILE_POINTER_POSITION;
        offset.HighPart = -1;
    } else if (value < 0) {
        throw ScriptError(args.command() + ": offset must be 0 or more, or -1 (end of file) or -2 (file position)");
    } else {
        offset.QuadPart = value;
    }
    return offset;
}

void BindHandle(Context& ctx, const std::string& name, HANDLE handle) { ctx.process->handles[name] = handle; }

void RefuseBoundName(Context& ctx, const std::string& name) {
    if (ctx.process->handles.count(name))
        throw ScriptError("handle \"" + name + "\" of process " + std::to_string(ctx.process->pid) +
                          " is open already; close it first");
}

void Open(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {"access", "share", "disposition", "options", "attributes", "related", "id"});
    std::string name = args.Next("handle name H");
    OpenRequest request;
    if (auto id = args.Option("id")) {
        request.fileId = static_cast<uint64_t>(ParseNumber(*id, "file id"));
        if (!args.Option("related")) throw ScriptError("open by id needs related=H2 (an open of the volume or a directory)");
    } else {
        request.path = args.Next("PATH");
    }
    args.Done();
    if (auto v = args.Option("access")) request.access = ParseFlags(*v, AccessNames(), "access flag");
    if (auto v = args.Option("share")) request.share = ParseFlags(*v, ShareNames(), "share flag");
    if (auto v = args.Option("disposition")) request.disposition = ParseOneName(*v, DispositionNames(), "disposition");
    if (auto v = args.Option("options")) request.options = ParseFlags(*v, OptionNames(), "create option");
    if (auto v = args.Option("attributes")) request.attributes = ParseFlags(*v, AttributeNames(), "attribute");
    if (auto v = args.Option("related")) request.related = ctx.process->Handle(*v);
    RefuseBoundName(ctx, name);

    HANDLE handle = nullptr;
    IO_STATUS_BLOCK iosb{};
    ctx.InProcess([&] { ctx.result.status = OpenFile(request, &handle, &iosb); });
    ctx.result.info = iosb.Information;
    if (NT_SUCCESS(ctx.result.status)) {
        BindHandle(ctx, name, handle);
        std::string action = NameOf(static_cast<uint32_t>(iosb.Information), CreateResultNames());
        ctx.Line(name + " " + action);
        ctx.result.data["handle"] = name;
        ctx.result.data["action"] = action;
    }
}

void Close(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    std::string name = args.Next("handle name H");
    args.Done();
    HANDLE handle = ctx.process->Handle(name);
    ctx.InProcess([&] { ctx.result.status = NtClose(handle); });
    // The name is forgotten either way: a handle that failed to close is of
    // no further use to the script.
    ctx.process->handles.erase(name);
}

void Read(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {"offset", "key"});
    HANDLE handle = ctx.process->Handle(args.Next("handle name H"));
    int64_t length = ParseNumber(args.Next("LEN"), "length");
    args.Done();
    if (length > kMaxTransfer) throw ScriptError("read: LEN above " + std::to_string(kMaxTransfer) + " bytes");
    auto offset = ByteOffset(args);
    std::optional<ULONG> key;
    if (auto k = args.Option("key")) key = ParseU32(*k, "key");
    std::string data(static_cast<size_t>(length), '\0');
    IO_STATUS_BLOCK iosb{};
    ctx.InProcess([&] {
        LARGE_INTEGER off = offset.value_or(LARGE_INTEGER{});
        ULONG keyValue = key.value_or(0);
        ctx.result.status = CallAndWait(
            [&](HANDLE event) {
                return NtReadFile(handle, event, nullptr, nullptr, &iosb, data.data(), static_cast<ULONG>(length),
                                  offset ? &off : nullptr, key ? &keyValue : nullptr);
            },
            iosb);
    });
    ctx.result.info = iosb.Information;
    if (!NT_ERROR(ctx.result.status)) {
        data.resize(std::min<size_t>(iosb.Information, data.size()));
        ctx.Line("\"" + EscapeBytes(data) + "\"");
        PutBytes(ctx.result.data, data);
    }
}

void Write(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {"offset", "key"});
    HANDLE handle = ctx.process->Handle(args.Next("handle name H"));
    std::string data = args.Next("TEXT");
    args.Done();
    auto offset = ByteOffset(args);
    std::optional<ULONG> key;
    if (auto k = args.Option("key")) key = ParseU32(*k, "key");
    IO_STATUS_BLOCK iosb{};
    ctx.InProcess([&] {
        LARGE_INTEGER off = offset.value_or(LARGE_INTEGER{});
        ULONG keyValue = key.value_or(0);
        ctx.result.status = CallAndWait(
            [&](HANDLE event) {
                return NtWriteFile(handle, event, nullptr, nullptr, &iosb, data.data(), static_cast<ULONG>(data.size()),
                                   offset ? &off : nullptr, key ? &keyValue : nullptr);
            },
            iosb);
    });
    ctx.result.info = iosb.Information;
}

void Position(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    HANDLE handle = ctx.process->Handle(args.Next("handle name H"));
    std::optional<std::string> newPosition = args.NextIf();
    args.Done();
    FILE_POSITION_INFORMATION info{};
    if (newPosition) info.CurrentByteOffset.QuadPart = ParseI64(*newPosition, "position");
    IO_STATUS_BLOCK iosb{};
    ctx.InProcess([&] {
        ctx.result.status = newPosition
                                ? NtSetInformationFile(handle, &iosb, &info, sizeof info, FilePositionInformation)
                                : NtQueryInformationFile(handle, &iosb, &info, sizeof info, FilePositionInformation);
    });
    ctx.result.info = iosb.Information;
    if (!newPosition && NT_SUCCESS(ctx.result.status)) {
        ctx.Line("position=" + std::to_string(info.CurrentByteOffset.QuadPart));
        ctx.result.data["position"] = info.CurrentByteOffset.QuadPart;
    }
}

void Flush(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    HANDLE handle = ctx.process->Handle(args.Next("handle name H"));
    args.Done();
    IO_STATUS_BLOCK iosb{};
    ctx.InProcess([&] { ctx.result.status = NtFlushBuffersFile(handle, &iosb); });
    ctx.result.info = iosb.Information;
}

void Lock(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {"key"}, {"exclusive", "immediate"});
    std::string name = args.Next("handle name H");
    HANDLE handle = ctx.process->Handle(name);
    LARGE_INTEGER offset, length;
    offset.QuadPart = ParseI64(args.Next("OFF"), "offset");
    length.QuadPart = ParseI64(args.Next("LEN"), "length");
    args.Done();
    ULONG key = args.Option("key") ? ParseU32(*args.Option("key"), "key") : 0;
    bool exclusive = args.Switch("exclusive"), immediate = args.Switch("immediate");
    auto call = [handle, offset, length, key, exclusive, immediate]() mutable {
        Result r;
        IO_STATUS_BLOCK iosb{};
        r.status = CallAndWait(
            [&](HANDLE event) {
                return NtLockFile(handle, event, nullptr, nullptr, &iosb, &offset, &length, key,
                                  immediate ? TRUE : FALSE, exclusive ? TRUE : FALSE);
            },
            iosb);
        r.info = iosb.Information;
        return r;
    };
    if (immediate) {
        ctx.InProcess([&] { ctx.result = call(); });
        return;
    }
    // A lock that waits may wait for another process: it runs on a thread
    // of its own and is reported as pending if it does not return soon.
    ctx.result = ctx.session.StartRequest(*ctx.process, name, std::to_string(ctx.process->pid) + ": lock " + name,
                                          call, kPendingFirstWaitMs);
}

void Unlock(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {"key"});
    HANDLE handle = ctx.process->Handle(args.Next("handle name H"));
    LARGE_INTEGER offset, length;
    offset.QuadPart = ParseI64(args.Next("OFF"), "offset");
    length.QuadPart = ParseI64(args.Next("LEN"), "length");
    args.Done();
    ULONG key = args.Option("key") ? ParseU32(*args.Option("key"), "key") : 0;
    IO_STATUS_BLOCK iosb{};
    ctx.InProcess([&] { ctx.result.status = NtUnlockFile(handle, &iosb, &offset, &length, key); });
    ctx.result.info = iosb.Information;
}

}  // namespace

void AddFileCommands(std::vector<CommandSpec>& t) {
    t.push_back({"open", Scope::Process,
                 "open H PATH [access=F] [share=F] [disposition=D] [options=F] [attributes=F] [related=H2] | "
                 "open H id=N related=H2",
                 "NtCreateFile; the new handle is named H in this process. Defaults: access=GENERIC_READ|SYNCHRONIZE, "
                 "all three share flags, disposition=FILE_OPEN, options=FILE_SYNCHRONOUS_IO_NONALERT, no attributes. "
                 "With related=H2 the path is relative to that open; with id=N the file is opened by its file id "
                 "(FILE_OPEN_BY_FILE_ID) relative to an open of the volume or a directory. Prints H and the create "
                 "result (FILE_OPENED, FILE_CREATED, ...).",
                 "1234: open h1 C:\\dir\\a.txt access=GENERIC_WRITE|SYNCHRONIZE disposition=FILE_OPEN_IF", Open});
    t.push_back({"close", Scope::Process, "close H", "NtClose of the handle named H; the name is free again.",
                 "1234: close h1", Close});
    t.push_back({"read", Scope::Process, "read H LEN [offset=N] [key=N]",
                 "NtReadFile of up to LEN bytes; prints them with C escapes. Without offset= no byte offset is "
                 "passed; offset=-2 passes FILE_USE_FILE_POINTER_POSITION, offset=-1 FILE_WRITE_TO_END_OF_FILE.",
                 "1234: read h1 100 offset=0", Read});
    t.push_back({"write", Scope::Process, "write H TEXT [offset=N] [key=N]",
                 "NtWriteFile of the bytes of TEXT. Without offset= no byte offset is passed; offset=-1 passes "
                 "FILE_WRITE_TO_END_OF_FILE (append), offset=-2 FILE_USE_FILE_POINTER_POSITION.",
                 "1234: write h1 \"hello\\n\" offset=-1", Write});
    t.push_back({"position", Scope::Process, "position H [N]",
                 "Sets the file position to N, or prints it (FilePositionInformation).", "1234: position h1 0",
                 Position});
    t.push_back({"flush", Scope::Process, "flush H", "NtFlushBuffersFile.", "1234: flush h1", Flush});
    t.push_back({"lock", Scope::Process, "lock H OFF LEN [exclusive] [immediate] [key=N]",
                 "NtLockFile of LEN bytes at OFF: shared unless exclusive; fails at once on a conflict with "
                 "immediate, otherwise waits (a lock still waiting after a short time is reported as STATUS_PENDING "
                 "and its completion with a later command).",
                 "1234: lock h1 0 10 exclusive immediate", Lock});
    t.push_back({"unlock", Scope::Process, "unlock H OFF LEN [key=N]", "NtUnlockFile of one locked range.",
                 "1234: unlock h1 0 10", Unlock});
}

}  // namespace tervane::tool
