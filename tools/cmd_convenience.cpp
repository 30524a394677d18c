// Conveniences: whole-file operations built on open, read, write, list, set
// information and close, each in one command.
#include <cstring>

#include <nt/ntifs.h>

#include "commands.h"
#include "decode.h"
#include "flags.h"
#include "ntcall.h"

namespace tervane::tool {
namespace {

constexpr ULONG kChunk = 64 * 1024;

// One open for the duration of a convenience; closed on every path.
struct ScopedOpen {
    HANDLE handle = nullptr;
    NTSTATUS status;
    explicit ScopedOpen(const OpenRequest& request) {
        IO_STATUS_BLOCK iosb;
        status = OpenFile(request, &handle, &iosb);
        if (!NT_SUCCESS(status)) handle = nullptr;
    }
    ~ScopedOpen() {
        if (handle) NtClose(handle);
    }
};

OpenRequest Request(const std::string& path, ACCESS_MASK access, ULONG disposition, ULONG options) {
    OpenRequest r;
    r.path = path;
    r.access = access | SYNCHRONIZE;
    r.disposition = disposition;
    r.options = options | FILE_SYNCHRONOUS_IO_NONALERT;
    return r;
}

void Cat(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    std::string path = args.Next("PATH");
    args.Done();
    std::string data;
    ctx.InProcess([&] {
        ScopedOpen file(Request(path, FILE_READ_DATA, FILE_OPEN, FILE_NON_DIRECTORY_FILE));
        ctx.result.status = file.status;
        if (!file.handle) return;
        std::vector<char> chunk(kChunk);
        while (true) {
            IO_STATUS_BLOCK iosb{};
            NTSTATUS status = NtReadFile(file.handle, nullptr, nullptr, nullptr, &iosb, chunk.data(), kChunk,
                                         nullptr, nullptr);
            if (status == STATUS_END_OF_FILE) break;
            if (!NT_SUCCESS(status)) {
                ctx.result.status = status;
                break;
            }
            data.append(chunk.data(), std::min<size_t>(iosb.Information, kChunk));
            if (iosb.Information == 0) break;
        }
    });
    ctx.result.info = data.size();
    if (NT_SUCCESS(ctx.result.status)) {
        ctx.Line("\"" + EscapeBytes(data) + "\"");
        PutBytes(ctx.result.data, data);
    }
}

void Put(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    std::string path = args.Next("PATH");
    std::string data = args.Next("TEXT");
    args.Done();
    ctx.InProcess([&] {
        ScopedOpen file(Request(path, FILE_WRITE_DATA, FILE_OVERWRITE_IF, FILE_NON_DIRECTORY_FILE));
        ctx.result.status = file.status;
        if (!file.handle) return;
        IO_STATUS_BLOCK iosb{};
        ctx.result.status = NtWriteFile(file.handle, nullptr, nullptr, nullptr, &iosb, data.data(),
                                        static_cast<ULONG>(data.size()), nullptr, nullptr);
        ctx.result.info = iosb.Information;
    });
}

void Ls(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    std::string path = args.Next("PATH");
    args.Done();
    std::vector<DirectoryEntry> entries;
    ctx.InProcess([&] {
        ScopedOpen dir(Request(path, FILE_LIST_DIRECTORY, FILE_OPEN, FILE_DIRECTORY_FILE));
        ctx.result.status = dir.status;
        if (!dir.handle) return;
        std::vector<uint8_t> buffer(kChunk);
        while (true) {
            IO_STATUS_BLOCK iosb{};
            NTSTATUS status = NtQueryDirectoryFile(dir.handle, nullptr, nullptr, nullptr, &iosb, buffer.data(), kChunk,
                                                   FileBothDirectoryInformation, FALSE, nullptr, FALSE);
            // The end of the listing (or an empty directory) is no failure here.
            if (status == STATUS_NO_MORE_FILES || status == STATUS_NO_SUCH_FILE) break;
            if (!NT_SUCCESS(status)) {
                ctx.result.status = status;
                break;
            }
            auto more = ParseBothDirectoryEntries(buffer.data(), std::min<size_t>(iosb.Information, kChunk));
            if (more.empty()) break;
            entries.insert(entries.end(), more.begin(), more.end());
        }
    });
    ctx.result.info = entries.size();
    auto& list = ctx.result.data["entries"] = nlohmann::json::array();
    for (const auto& e : entries) {
        bool directory = (e.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        ctx.Line(EscapeText(e.name) + (directory ? " <DIR>" : " " + std::to_string(e.size)));
        nlohmann::json entry = {{"name", e.name}, {"directory", directory}, {"attributes", e.attributes}};
        if (!directory) entry["size"] = e.size;
        list.push_back(std::move(entry));
    }
}

void Mkdir(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    std::string path = args.Next("PATH");
    args.Done();
    ctx.InProcess([&] {
        ctx.result.status = ScopedOpen(Request(path, FILE_LIST_DIRECTORY, FILE_CREATE, FILE_DIRECTORY_FILE)).status;
    });
}

void SetOnOpen(Context& ctx, const std::string& path, void* info, size_t length, FILE_INFORMATION_CLASS infoClass) {
    ctx.InProcess([&] {
        ScopedOpen file(Request(path, DELETE, FILE_OPEN, 0));
        ctx.result.status = file.status;
        if (!file.handle) return;
        IO_STATUS_BLOCK iosb{};
        ctx.result.status = NtSetInformationFile(file.handle, &iosb, info, static_cast<ULONG>(length), infoClass);
    });
}

void Rm(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    std::string path = args.Next("PATH");
    args.Done();
    FILE_DISPOSITION_INFORMATION info{TRUE};
    SetOnOpen(ctx, path, &info, sizeof info, FileDispositionInformation);
}

void Mv(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {}, {"replace"});
    std::string path = args.Next("PATH");
    std::string target = args.Next("TARGET");
    args.Done();
    std::u16string name = ObjectNameFor(target);
    size_t header = offsetof(FILE_RENAME_INFORMATION, FileName);
    std::vector<uint8_t> record(std::max(sizeof(FILE_RENAME_INFORMATION), header + name.size() * 2));
    auto* info = reinterpret_cast<FILE_RENAME_INFORMATION*>(record.data());
    info->ReplaceIfExists = args.Switch("replace") ? TRUE : FALSE;
    info->FileNameLength = static_cast<ULONG>(name.size() * 2);
    std::memcpy(record.data() + header, name.data(), name.size() * 2);
    SetOnOpen(ctx, path, record.data(), record.size(), FileRenameInformation);
}

void Stat(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens));
    std::string path = args.Next("PATH");
    args.Done();
    ctx.InProcess([&] {
        ScopedOpen file(Request(path, FILE_READ_ATTRIBUTES, FILE_OPEN, 0));
        ctx.result.status = file.status;
        if (!file.handle) return;
        const FILE_INFORMATION_CLASS classes[] = {FileNameInformation, FileBasicInformation,
                                                  FileStandardInformation, FileInternalInformation};
        std::vector<uint8_t> buffer(4096);
        for (auto infoClass : classes) {
            IO_STATUS_BLOCK iosb{};
            NTSTATUS status = NtQueryInformationFile(file.handle, &iosb, buffer.data(),
                                                     static_cast<ULONG>(buffer.size()), infoClass);
            if (!NT_SUCCESS(status)) {
                ctx.result.status = status;
                return;
            }
            for (auto& line : DescribeFileInformation(infoClass, buffer.data(),
                                                      std::min<size_t>(iosb.Information, buffer.size()),
                                                      &ctx.result.data["fields"]))
                ctx.Line(std::move(line));
        }
    });
}

}  // namespace

void AddConvenienceCommands(std::vector<CommandSpec>& t) {
    t.push_back({"cat", Scope::Process, "cat PATH", "Prints the whole file with C escapes (info: bytes read).",
                 "1234: cat C:\\dir\\a.txt", Cat});
    t.push_back({"put", Scope::Process, "put PATH TEXT",
                 "Creates or overwrites the file with the bytes of TEXT (FILE_OVERWRITE_IF).",
                 "1234: put C:\\dir\\a.txt \"hello\\n\"", Put});
    t.push_back({"ls", Scope::Process, "ls PATH",
                 "Lists the directory fully, every entry in the order returned: name, then the size or <DIR> "
                 "(info: entries).",
                 "1234: ls C:\\dir", Ls});
    t.push_back({"mkdir", Scope::Process, "mkdir PATH", "Creates a directory (FILE_CREATE, FILE_DIRECTORY_FILE).",
                 "1234: mkdir C:\\dir", Mkdir});
    t.push_back({"rm", Scope::Process, "rm PATH",
                 "Deletes a file or an empty directory (open for DELETE, mark for deletion, close).",
                 "1234: rm C:\\dir\\a.txt", Rm});
    t.push_back({"mv", Scope::Process, "mv PATH TARGET [replace]",
                 "Renames PATH to the drive path TARGET, replacing an existing target only with replace.",
                 "1234: mv C:\\dir\\a.txt C:\\dir\\b.txt", Mv});
    t.push_back({"stat", Scope::Process, "stat PATH",
                 "Prints the name, basic, standard and internal information of PATH as Name=value.",
                 "1234: stat C:\\dir\\a.txt", Stat});
}

}  // namespace tervane::tool
