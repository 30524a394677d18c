// `ctl`: the controller's side of the driver's control protocol. A
// controller process opens the control device once and sends each verb as a
// device control request, printing the status block and the decoded output.
#include <cstring>

#include <nt/ntifs.h>

#include "commands.h"
#include "decode.h"
#include "ntcall.h"

namespace tervane::tool {
namespace {

// The controller is a process of its own; its id is chosen out of the way
// of the small ids scripts tend to use.
constexpr uint32_t kControllerPid = 4000;
constexpr const char* kControllerImage = "tvctl.exe";

constexpr ULONG ControlCode(ULONG k) { return CTL_CODE(0x8400, 0x700 + k, METHOD_BUFFERED, FILE_ANY_ACCESS); }

constexpr size_t kProcessRecordSize = 44;
constexpr size_t kProcessNameChars = 20;
constexpr size_t kSlotSize = 520;
constexpr size_t kSlotChars = kSlotSize / 2 - 1;  // 259 characters and the zero
constexpr uint32_t kDefaultListOut = 64 * 1024;

enum class In { None, Process, Pid, Slots, IndexRecord, Raw };
enum class Out { None, Processes, Slots, Count, Switch, Raw };

struct Verb {
    const char* name;
    ULONG k;
    In in;
    Out out;
};

const Verb kVerbs[] = {
    {"add-process", 0, In::Process, Out::None},   {"remove-process", 1, In::Pid, Out::None},
    {"processes", 2, In::None, Out::Processes},   {"clear-processes", 3, In::None, Out::None},
    {"filters", 4, In::None, Out::Slots},         {"set-filters", 5, In::Slots, Out::None},
    {"add-exclusions", 6, In::Slots, Out::None},  {"remove-exclusions", 7, In::Slots, Out::None},
    {"exclusions", 8, In::None, Out::Slots},      {"process-count", 9, In::None, Out::Count},
    {"filter-count", 10, In::None, Out::Count},   {"exclusion-count", 11, In::None, Out::Count},
    {"stop", 12, In::None, Out::None},            {"start", 13, In::None, Out::Switch},
    {"load-index", 14, In::IndexRecord, Out::None}, {"rename-index", 15, In::IndexRecord, Out::None},
    {"raw", 0, In::Raw, Out::Raw},
};

void PutSlot(std::vector<uint8_t>& buffer, size_t at, const std::string& path) {
    std::u16string text = ToUtf16(path);
    if (text.size() > kSlotChars)
        throw ScriptError("ctl: a path slot holds at most 259 characters (use raw for malformed records)");
    std::memcpy(buffer.data() + at, text.data(), text.size() * 2);  // the rest of the slot stays zero
}

std::vector<uint8_t> BuildInput(const Verb& verb, Args& args) {
    std::vector<uint8_t> in;
    switch (verb.in) {
    case In::None: break;
    case In::Process: {
        uint32_t pid = ParseU32(args.Next("PID"), "process id");
        std::u16string name = ToUtf16(args.Next("NAME"));
        // A name of 20 characters or more fills the field without a zero,
        // as a controller would send it; longer names are cut to 20.
        if (name.size() > kProcessNameChars) name.resize(kProcessNameChars);
        in.resize(kProcessRecordSize);
        std::memcpy(in.data(), &pid, 4);
        std::memcpy(in.data() + 4, name.data(), name.size() * 2);
        break;
    }
    case In::Pid: {
        uint32_t pid = ParseU32(args.Next("PID"), "process id");
        in.resize(4);
        std::memcpy(in.data(), &pid, 4);
        break;
    }
    case In::Slots: {
        auto paths = args.Rest();
        if (paths.empty()) throw ScriptError("ctl " + std::string(verb.name) + ": give at least one PATH");
        in.resize(paths.size() * kSlotSize);
        for (size_t i = 0; i < paths.size(); ++i) PutSlot(in, i * kSlotSize, paths[i]);
        break;
    }
    case In::IndexRecord: {
        in.resize(2 * kSlotSize);
        PutSlot(in, 0, args.Next(verb.k == 14 ? "NODEFILE" : "SOURCE"));
        PutSlot(in, kSlotSize, args.Next(verb.k == 14 ? "NAMEFILE" : "TARGET"));
        break;
    }
    case In::Raw:
        if (auto hex = args.Option("in")) in = ParseHexBytes(*hex);
        break;
    }
    return in;
}

std::string SlotText(const uint8_t* slot, size_t bytes) {
    std::u16string text;
    for (size_t i = 0; i + 1 < bytes; i += 2) {
        char16_t c;
        std::memcpy(&c, slot + i, 2);
        if (c == 0) break;
        text += c;
    }
    return EscapeText(emu::Utf16ToUtf8(text));
}

void DecodeOutput(Context& ctx, const Verb& verb, const uint8_t* out, size_t valid) {
    switch (verb.out) {
    case Out::None: break;
    case Out::Processes:
        for (size_t at = 0; at + kProcessRecordSize <= valid; at += kProcessRecordSize) {
            uint32_t pid;
            std::memcpy(&pid, out + at, 4);
            ctx.Line(std::to_string(pid) + " " + SlotText(out + at + 4, kProcessRecordSize - 4));
        }
        break;
    case Out::Slots:
        for (size_t at = 0; at + kSlotSize <= valid; at += kSlotSize) ctx.Line(SlotText(out + at, kSlotSize));
        break;
    case Out::Count:
        if (valid >= 4) {
            uint32_t count;
            std::memcpy(&count, out, 4);
            ctx.Line("count=" + std::to_string(count));
        }
        break;
    case Out::Switch:
        if (valid >= 1) ctx.Line("filtering=" + std::to_string(static_cast<unsigned>(out[0])));
        break;
    case Out::Raw:
        if (valid) ctx.Line("bytes=" + HexBytes(out, valid));
        break;
    }
}

// Makes the controller process and opens the control device, once.
bool EnsureController(Context& ctx) {
    Session& s = ctx.session;
    if (!s.controller) {
        s.controller = s.FindProcess(kControllerPid);
        if (!s.controller) s.controller = s.CreateProcess(kControllerPid, kControllerImage);
        if (!s.controller) throw ScriptError("ctl: the controller process could not be made");
    }
    if (s.controlHandle) return true;
    OpenRequest request;
    request.path = "\\??\\Tervane";
    request.access = GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE;
    request.share = 0;
    HANDLE handle = nullptr;
    IO_STATUS_BLOCK iosb{};
    s.RunIn(*s.controller, [&] { ctx.result.status = OpenFile(request, &handle, &iosb); });
    if (!NT_SUCCESS(ctx.result.status)) {
        ctx.Line("the control device \\??\\Tervane could not be opened (is the driver loaded?)");
        return false;
    }
    s.controlHandle = handle;
    return true;
}

void Control(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {"outlen", "in"});
    std::string verbName = args.Next("VERB");
    const Verb* verb = nullptr;
    for (const auto& v : kVerbs)
        if (verbName == v.name) verb = &v;
    if (!verb) throw ScriptError("ctl: unknown verb \"" + verbName + "\" (tervane help ctl lists them)");
    ULONG code = ControlCode(verb->k);
    if (verb->in == In::Raw) code = ParseU32(args.Next("CODE"), "control code");
    if (args.Option("in") && verb->in != In::Raw) throw ScriptError("ctl: in= is for raw only");
    std::vector<uint8_t> in = BuildInput(*verb, args);
    args.Done();
    uint32_t outLength = verb->out == Out::Count ? 4 : verb->out == Out::Switch ? 1 : verb->out == Out::None ? 0
                                                                                                         : kDefaultListOut;
    if (auto o = args.Option("outlen")) outLength = ParseU32(*o, "output length");
    if (outLength > (1u << 20)) throw ScriptError("ctl: outlen above 1048576");
    std::vector<uint8_t> out(outLength);

    if (!EnsureController(ctx)) return;
    HANDLE handle = ctx.session.controlHandle;
    // A value no service returns marks a status block left unwritten.
    constexpr NTSTATUS kUnwritten = 0x7fffffff;
    IO_STATUS_BLOCK iosb{};
    iosb.Status = kUnwritten;
    NTSTATUS returned = 0;
    ctx.session.RunIn(*ctx.session.controller, [&] {
        returned = CallAndWait(
            [&](HANDLE event) {
                return NtDeviceIoControlFile(handle, event, nullptr, nullptr, &iosb, code,
                                             in.empty() ? nullptr : in.data(), static_cast<ULONG>(in.size()),
                                             out.empty() ? nullptr : out.data(), outLength);
            },
            iosb);
    });
    if (iosb.Status == kUnwritten) {
        ctx.result.status = returned;
        return;
    }
    ctx.result.status = iosb.Status;
    ctx.result.info = iosb.Information;
    if (returned != iosb.Status) ctx.Line("the call returned " + emu::StatusName(returned));
    DecodeOutput(ctx, *verb, out.data(), std::min<size_t>(iosb.Information, outLength));
}

}  // namespace

void AddControlCommands(std::vector<CommandSpec>& t) {
    t.push_back({"ctl", Scope::Machine, "ctl VERB ARGS...",
                 "Sends one control request to the driver from the controller process (id 4000, made on first "
                 "use), which holds \\??\\Tervane open. Prints the status block's status and information, then the "
                 "decoded output. Verbs: add-process PID NAME, remove-process PID, processes [outlen=N], "
                 "clear-processes, process-count, set-filters ROOT..., filters [outlen=N], filter-count, "
                 "add-exclusions PATH..., remove-exclusions PATH..., exclusions [outlen=N], exclusion-count, "
                 "start (prints filtering=0 or 1), stop, load-index NODEFILE NAMEFILE, rename-index SOURCE TARGET, "
                 "raw CODE [in=HEX] [outlen=N]. Counts print count=N, the process list PID NAME per record, the "
                 "path lists one path per slot.",
                 "ctl set-filters C:\\pack C:\\base", Control});
}

}  // namespace tervane::tool
