// Security descriptors and file-system control.
#include <cstring>

#include <nt/ntifs.h>

#include "commands.h"
#include "decode.h"
#include "flags.h"
#include "ntcall.h"

namespace tervane::tool {
namespace {

constexpr uint32_t kDefaultSecurityLength = 4096;

void GetSecurity(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {"length"});
    HANDLE handle = ctx.process->Handle(args.Next("handle name H"));
    uint32_t what = ParseFlags(args.Next("WHAT"), SecurityInfoNames(), "security information flag");
    args.Done();
    uint32_t length = args.Option("length") ? ParseU32(*args.Option("length"), "length") : kDefaultSecurityLength;
    if (length > (1u << 20)) throw ScriptError("getsec: length above 1048576");
    std::vector<uint8_t> buffer(length);
    ULONG needed = 0;
    ctx.InProcess([&] {
        ctx.result.status = NtQuerySecurityObject(handle, what, length ? buffer.data() : nullptr, length, &needed);
    });
    ctx.Line("LengthNeeded=" + std::to_string(needed));
    if (NT_SUCCESS(ctx.result.status))
        for (auto& line : DescribeSecurityDescriptor(buffer.data(), std::min<size_t>(needed, length)))
            ctx.Line(std::move(line));
}

// dacl=allow:MASK:SID,deny:MASK:SID,... or dacl=null.
std::vector<uint8_t> BuildAcl(const std::string& text) {
    std::vector<uint8_t> acl(sizeof(ACL));
    uint16_t count = 0;
    size_t at = 0;
    while (at < text.size()) {
        size_t comma = text.find(',', at);
        std::string ace = text.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
        at = comma == std::string::npos ? text.size() : comma + 1;
        size_t c1 = ace.find(':'), c2 = c1 == std::string::npos ? c1 : ace.find(':', c1 + 1);
        if (c2 == std::string::npos) throw ScriptError("setsec: an ACE is written allow:MASK:SID or deny:MASK:SID");
        std::string type = ace.substr(0, c1);
        if (type != "allow" && type != "deny") throw ScriptError("setsec: unknown ACE type \"" + type + "\"");
        uint32_t mask = ParseFlags(ace.substr(c1 + 1, c2 - c1 - 1), AccessNames(), "access flag");
        auto sid = ParseSid(ace.substr(c2 + 1));
        if (sid.empty()) throw ScriptError("setsec: malformed SID \"" + ace.substr(c2 + 1) + "\"");
        std::vector<uint8_t> entry(8 + sid.size());
        entry[0] = type == "allow" ? ACCESS_ALLOWED_ACE_TYPE : ACCESS_DENIED_ACE_TYPE;
        entry[1] = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
        uint16_t size = static_cast<uint16_t>(entry.size());
        std::memcpy(entry.data() + 2, &size, 2);
        std::memcpy(entry.data() + 4, &mask, 4);
        std::memcpy(entry.data() + 8, sid.data(), sid.size());
        acl.insert(acl.end(), entry.begin(), entry.end());
        ++count;
    }
    ACL header{ACL_REVISION, 0, static_cast<USHORT>(acl.size()), count, 0};
    std::memcpy(acl.data(), &header, sizeof header);
    return acl;
}

// A self-relative descriptor from owner=, group= and dacl=.
std::vector<uint8_t> BuildDescriptor(const Args& args) {
    using SD = SECURITY_DESCRIPTOR_RELATIVE;
    std::vector<uint8_t> sd(sizeof(SD));
    SD header{SECURITY_DESCRIPTOR_REVISION, 0, SE_SELF_RELATIVE, 0, 0, 0, 0};
    auto append = [&sd](const std::vector<uint8_t>& part) {
        auto offset = static_cast<ULONG>(sd.size());
        sd.insert(sd.end(), part.begin(), part.end());
        return offset;
    };
    for (auto [key, field] : {std::pair{"owner", &header.Owner}, std::pair{"group", &header.Group}}) {
        if (auto text = args.Option(key)) {
            auto sid = ParseSid(*text);
            if (sid.empty()) throw ScriptError("setsec: malformed SID \"" + *text + "\"");
            *field = append(sid);
        }
    }
    if (auto dacl = args.Option("dacl")) {
        header.Control |= SE_DACL_PRESENT;
        if (*dacl != "null") header.Dacl = append(BuildAcl(*dacl));
    }
    std::memcpy(sd.data(), &header, sizeof header);
    return sd;
}

void SetSecurity(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {"owner", "group", "dacl", "raw"});
    HANDLE handle = ctx.process->Handle(args.Next("handle name H"));
    uint32_t what = ParseFlags(args.Next("WHAT"), SecurityInfoNames(), "security information flag");
    args.Done();
    std::vector<uint8_t> sd = args.Option("raw") ? ParseHexBytes(*args.Option("raw")) : BuildDescriptor(args);
    if (sd.empty()) throw ScriptError("setsec: raw= holds no bytes");
    ctx.InProcess([&] { ctx.result.status = NtSetSecurityObject(handle, what, sd.data()); });
}

void FsControl(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {"in", "outlen"});
    HANDLE handle = ctx.process->Handle(args.Next("handle name H"));
    uint32_t code = ParseOneName(args.Next("CODE"), FsctlNames(), "control code");
    args.Done();
    std::vector<uint8_t> input = args.Option("in") ? ParseHexBytes(*args.Option("in")) : std::vector<uint8_t>{};
    uint32_t outLength = args.Option("outlen") ? ParseU32(*args.Option("outlen"), "output length") : 1024;
    if (outLength > (1u << 20)) throw ScriptError("fsctl: outlen above 1048576");
    std::vector<uint8_t> output(outLength);
    IO_STATUS_BLOCK iosb{};
    ctx.InProcess([&] {
        ctx.result.status = CallAndWait(
            [&](HANDLE event) {
                return NtFsControlFile(handle, event, nullptr, nullptr, &iosb, code,
                                       input.empty() ? nullptr : input.data(), static_cast<ULONG>(input.size()),
                                       outLength ? output.data() : nullptr, outLength);
            },
            iosb);
    });
    ctx.result.info = iosb.Information;
    if (!NT_ERROR(ctx.result.status) && iosb.Information)
        ctx.Line("bytes=" + HexBytes(output.data(), std::min<size_t>(iosb.Information, outLength)));
}

}  // namespace

void AddMiscCommands(std::vector<CommandSpec>& t) {
    t.push_back({"getsec", Scope::Process, "getsec H WHAT [length=N]",
                 "NtQuerySecurityObject; WHAT is OWNER_SECURITY_INFORMATION|DACL_SECURITY_INFORMATION|... Prints "
                 "the length needed and the descriptor: owner, group and each ACE as allow/deny MASK SID.",
                 "1234: getsec h1 OWNER_SECURITY_INFORMATION|DACL_SECURITY_INFORMATION", GetSecurity});
    t.push_back({"setsec", Scope::Process, "setsec H WHAT [owner=SID] [group=SID] [dacl=ACE,...|null] [raw=HEX]",
                 "NtSetSecurityObject with a self-relative descriptor built from owner=, group= and dacl= (each ACE "
                 "written allow:MASK:SID or deny:MASK:SID), or given as raw bytes.",
                 "1234: setsec h1 DACL_SECURITY_INFORMATION dacl=allow:FILE_ALL_ACCESS:S-1-1-0", SetSecurity});
    t.push_back({"fsctl", Scope::Process, "fsctl H CODE [in=HEX] [outlen=N]",
                 "NtFsControlFile with CODE (an FSCTL_ name or a number); prints the output bytes in hex.",
                 "1234: fsctl v1 FSCTL_IS_VOLUME_MOUNTED", FsControl});
}

}  // namespace tervane::tool
