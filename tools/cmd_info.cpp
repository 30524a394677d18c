// Querying and setting file and volume information.
#include <cstring>

#include <nt/ntifs.h>

#include "commands.h"
#include "decode.h"
#include "flags.h"
#include "ntcall.h"

namespace tervane::tool {
namespace {

// Large enough for every class with a name of the longest NT path.
constexpr uint32_t kDefaultInfoLength = 4096;
constexpr uint32_t kMaxInfoLength = 1u << 20;

uint32_t InfoLength(const Args& args) {
    auto text = args.Option("length");
    if (!text) return kDefaultInfoLength;
    uint32_t length = ParseU32(*text, "length");
    if (length > kMaxInfoLength) throw ScriptError(args.command() + ": length above " + std::to_string(kMaxInfoLength));
    return length;
}

void Query(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {"length"});
    HANDLE handle = ctx.process->Handle(args.Next("handle name H"));
    uint32_t infoClass = ParseInfoClass(args.Next("CLASS"), FileInfoClasses(), "information class");
    args.Done();
    std::vector<uint8_t> buffer(InfoLength(args));
    IO_STATUS_BLOCK iosb{};
    ctx.InProcess([&] {
        ctx.result.status = NtQueryInformationFile(handle, &iosb, buffer.data(), static_cast<ULONG>(buffer.size()),
                                                   static_cast<FILE_INFORMATION_CLASS>(infoClass));
    });
    ctx.result.info = iosb.Information;
    if (NT_ERROR(ctx.result.status)) return;
    size_t valid = std::min<size_t>(iosb.Information, buffer.size());
    for (auto& line : DescribeFileInformation(infoClass, buffer.data(), valid, &ctx.result.data["fields"]))
        ctx.Line(std::move(line));
}

void VolumeInfo(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {"length"});
    HANDLE handle = ctx.process->Handle(args.Next("handle name H"));
    uint32_t infoClass = ParseInfoClass(args.Next("CLASS"), FsInfoClasses(), "volume information class");
    args.Done();
    std::vector<uint8_t> buffer(InfoLength(args));
    IO_STATUS_BLOCK iosb{};
    ctx.InProcess([&] {
        ctx.result.status = NtQueryVolumeInformationFile(handle, &iosb, buffer.data(),
                                                         static_cast<ULONG>(buffer.size()),
                                                         static_cast<FS_INFORMATION_CLASS>(infoClass));
    });
    ctx.result.info = iosb.Information;
    if (NT_ERROR(ctx.result.status)) return;
    size_t valid = std::min<size_t>(iosb.Information, buffer.size());
    for (auto& line : DescribeVolumeInformation(infoClass, buffer.data(), valid, &ctx.result.data["fields"]))
        ctx.Line(std::move(line));
}

void SetInformation(Context& ctx, HANDLE handle, void* info, size_t length, FILE_INFORMATION_CLASS infoClass) {
    IO_STATUS_BLOCK iosb{};
    ctx.InProcess([&] {
        ctx.result.status = NtSetInformationFile(handle, &iosb, info, static_cast<ULONG>(length), infoClass);
    });
    ctx.result.info = iosb.Information;
}

// The rename record with TARGET as its name: a drive path becomes a full
// "\??\" name; anything else is passed as written.
std::vector<uint8_t> RenameRecord(const std::string& target, bool replace, HANDLE root) {
    std::u16string name = root ? ToUtf16(target) : ObjectNameFor(target);
    size_t header = offsetof(FILE_RENAME_INFORMATION, FileName);
    std::vector<uint8_t> record(std::max(sizeof(FILE_RENAME_INFORMATION), header + name.size() * 2));
    auto* info = reinterpret_cast<FILE_RENAME_INFORMATION*>(record.data());
    info->ReplaceIfExists = replace ? TRUE : FALSE;
    info->RootDirectory = root;
    info->FileNameLength = static_cast<ULONG>(name.size() * 2);
    std::memcpy(record.data() + header, name.data(), name.size() * 2);
    return record;
}

void Rename(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {"root"}, {"replace"});
    HANDLE handle = ctx.process->Handle(args.Next("handle name H"));
    std::string target = args.Next("TARGET");
    args.Done();
    HANDLE root = args.Option("root") ? ctx.process->Handle(*args.Option("root")) : nullptr;
    auto record = RenameRecord(target, args.Switch("replace"), root);
    SetInformation(ctx, handle, record.data(), record.size(), FileRenameInformation);
}

void Delete(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {}, {"false"});
    HANDLE handle = ctx.process->Handle(args.Next("handle name H"));
    args.Done();
    FILE_DISPOSITION_INFORMATION info{};
    info.DeleteFile = args.Switch("false") ? FALSE : TRUE;
    SetInformation(ctx, handle, &info, sizeof info, FileDispositionInformation);
}

void EndOfFile(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    HANDLE handle = ctx.process->Handle(args.Next("handle name H"));
    FILE_END_OF_FILE_INFORMATION info{};
    info.EndOfFile.QuadPart = ParseI64(args.Next("N"), "end of file");
    args.Done();
    SetInformation(ctx, handle, &info, sizeof info, FileEndOfFileInformation);
}

void Allocation(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    HANDLE handle = ctx.process->Handle(args.Next("handle name H"));
    FILE_ALLOCATION_INFORMATION info{};
    info.AllocationSize.QuadPart = ParseI64(args.Next("N"), "allocation size");
    args.Done();
    SetInformation(ctx, handle, &info, sizeof info, FileAllocationInformation);
}

void SetBasic(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {"attributes", "creation", "lastaccess", "lastwrite", "change"});
    HANDLE handle = ctx.process->Handle(args.Next("handle name H"));
    args.Done();
    // Fields not given stay 0, which leaves them as they are.
    FILE_BASIC_INFORMATION info{};
    if (auto v = args.Option("attributes")) info.FileAttributes = ParseFlags(*v, AttributeNames(), "attribute");
    if (auto v = args.Option("creation")) info.CreationTime.QuadPart = ParseI64(*v, "creation time");
    if (auto v = args.Option("lastaccess")) info.LastAccessTime.QuadPart = ParseI64(*v, "last access time");
    if (auto v = args.Option("lastwrite")) info.LastWriteTime.QuadPart = ParseI64(*v, "last write time");
    if (auto v = args.Option("change")) info.ChangeTime.QuadPart = ParseI64(*v, "change time");
    SetInformation(ctx, handle, &info, sizeof info, FileBasicInformation);
}

}  // namespace

void AddInfoCommands(std::vector<CommandSpec>& t) {
    t.push_back({"query", Scope::Process, "query H CLASS [length=N]",
                 "NtQueryInformationFile with a buffer of N bytes (4096 unless given); prints the fields as "
                 "Name=value. CLASS is FileBasicInformation, Basic, or the class number. Classes without a "
                 "decoder print their bytes in hex.",
                 "1234: query h1 Standard", Query});
    t.push_back({"volinfo", Scope::Process, "volinfo H CLASS [length=N]",
                 "NtQueryVolumeInformationFile; CLASS is FileFsAttributeInformation, Attribute, or a number.",
                 "1234: volinfo h1 Attribute", VolumeInfo});
    t.push_back({"rename", Scope::Process, "rename H TARGET [replace] [root=H2]",
                 "NtSetInformationFile(FileRenameInformation). A drive path TARGET is passed as a full \\??\\ "
                 "name; with root=H2 TARGET is relative to that directory; a bare name stays in the same directory.",
                 "1234: rename h1 C:\\dir\\b.txt replace", Rename});
    t.push_back({"delete", Scope::Process, "delete H [false]",
                 "NtSetInformationFile(FileDispositionInformation): marks the file for deletion when its last "
                 "handle closes, or with false takes the mark away.",
                 "1234: delete h1", Delete});
    t.push_back({"eof", Scope::Process, "eof H N", "NtSetInformationFile(FileEndOfFileInformation) to N bytes.",
                 "1234: eof h1 0", EndOfFile});
    t.push_back({"allocation", Scope::Process, "allocation H N",
                 "NtSetInformationFile(FileAllocationInformation) to N bytes.", "1234: allocation h1 4096",
                 Allocation});
    t.push_back({"setbasic", Scope::Process,
                 "setbasic H [attributes=F] [creation=T] [lastaccess=T] [lastwrite=T] [change=T]",
                 "NtSetInformationFile(FileBasicInformation). Times are in 100 ns units since 1601 (UTC), as "
                 "query prints them before the date; a time not given (0) is left as it is.",
                 "1234: setbasic h1 attributes=FILE_ATTRIBUTE_READONLY", SetBasic});
}

}  // namespace tervane::tool
