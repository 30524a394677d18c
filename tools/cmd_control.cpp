// `ctl`: the controller's side of the driver's control protocol in a script.
// A controller process opens the control device once and sends each verb as
// a device control request (records: control_records.h), printing the status
// block, the decoded output, and what a refusal most likely means.
#include <nt/ntifs.h>

#include "commands.h"
#include "control_records.h"
#include "ntcall.h"

namespace tervane::tool {
namespace {

// The controller is a process of its own; its id is chosen out of the way
// of the small ids scripts tend to use.
constexpr uint32_t kControllerPid = 4000;
constexpr const char* kControllerImage = "tvctl.exe";
constexpr uint32_t kMaxOutput = 1u << 20;

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
    request.path = control::kDevicePath;
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

struct Answer {
    NTSTATUS returned = 0;
    bool written = false;  // the status block was filled in
    IO_STATUS_BLOCK iosb{};
    std::vector<uint8_t> out;
};

Answer Send(Session& session, uint32_t code, const std::vector<uint8_t>& in, uint32_t outLength) {
    // A value no service returns marks a status block left unwritten.
    constexpr NTSTATUS kUnwritten = 0x7fffffff;
    Answer a;
    a.out.resize(outLength);
    a.iosb.Status = kUnwritten;
    HANDLE handle = session.controlHandle;
    session.RunIn(*session.controller, [&] {
        a.returned = CallAndWait(
            [&](HANDLE event) {
                return NtDeviceIoControlFile(handle, event, nullptr, nullptr, &a.iosb, code,
                                             in.empty() ? nullptr : const_cast<uint8_t*>(in.data()),
                                             static_cast<ULONG>(in.size()), a.out.empty() ? nullptr : a.out.data(),
                                             outLength);
            },
            a.iosb);
    });
    a.written = a.iosb.Status != kUnwritten;
    return a;
}

// The number of filter directories, or -1 when the driver does not say.
int64_t FilterCount(Session& session) {
    const control::Verb* verb = control::FindVerb("filter-count");
    Answer a = Send(session, control::ControlCode(verb->k), {}, 4);
    if (!a.written || !NT_SUCCESS(a.iosb.Status) || a.iosb.Information < 4) return -1;
    return a.out[0] | a.out[1] << 8 | a.out[2] << 16 | static_cast<uint32_t>(a.out[3]) << 24;
}

// Whether the controller can open the file at PATH (a drive path) for
// reading; the status when it cannot.
NTSTATUS CheckReadable(Session& session, const std::string& path) {
    OpenRequest request;
    request.path = path;
    request.access = FILE_READ_DATA | SYNCHRONIZE;
    request.options = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT;
    NTSTATUS status = STATUS_SUCCESS;
    session.RunIn(*session.controller, [&] {
        HANDLE handle = nullptr;
        IO_STATUS_BLOCK iosb{};
        status = OpenFile(request, &handle, &iosb);
        if (NT_SUCCESS(status)) NtClose(handle);
    });
    return status;
}

// Lines that say why the driver answered as it did, where the answer alone
// does not: filtering left off, a refused index load, a second set of
// filter directories.
void Explain(Context& ctx, const control::Verb& verb, const std::vector<std::string>& words,
             const control::Decoded& decoded) {
    Session& s = ctx.session;
    const std::string name = verb.name;
    NTSTATUS status = ctx.result.status;
    if (name == "start" && decoded.data.value("filtering", 1u) == 0) {
        int64_t filters = FilterCount(s);
        if (filters == 0)
            ctx.Line("filtering stays off: no filter directories are set (ctl set-filters ROOT...)");
        else
            ctx.Line("filtering stays off until the last filter directory has a loaded index (ctl load-index "
                     "NODEFILE NAMEFILE)");
    } else if (name == "load-index" && NT_SUCCESS(status)) {
        s.indexLoaded = true;
    } else if (name == "load-index") {
        size_t before = ctx.result.lines.size();
        const char* which[] = {"the node file", "the name file"};
        for (size_t i = 0; i < 2 && i < words.size(); ++i) {
            NTSTATUS readable = CheckReadable(s, words[i]);
            if (!NT_SUCCESS(readable))
                ctx.Line(std::string(which[i]) + " " + EscapeText(words[i]) + " cannot be opened: " +
                         emu::StatusName(readable));
        }
        if (FilterCount(s) == 0) ctx.Line("no filter directories are set: the index belongs to the last one");
        if (s.indexLoaded) ctx.Line("an index is loaded already: it loads once per start of the driver");
        if (ctx.result.lines.size() == before)
            ctx.Line("the driver refused the pair; its debug output says why (log)");
    } else if (name == "set-filters" && !NT_SUCCESS(status) && FilterCount(s) > 0) {
        ctx.Line("the filter directories are set once per start of the driver, and are set already (ctl filters)");
    }
}

void Control(Context& ctx, std::vector<Token> tokens) {
    Args args(ctx.name, std::move(tokens), {"outlen", "in"});
    std::string verbName = args.Next("VERB");
    const control::Verb* verb = control::FindVerb(verbName);
    if (!verb) throw ScriptError("ctl: unknown verb " + QuoteText(verbName) + " (tervane help ctl lists them)");
    uint32_t code = control::ControlCode(verb->k);
    if (verb->in == control::In::Raw) code = ParseU32(args.Next("CODE"), "control code");
    if (args.Option("in") && verb->in != control::In::Raw) throw ScriptError("ctl: in= is for raw only");
    std::vector<std::string> words = args.Rest();
    std::vector<uint8_t> in;
    std::string error;
    if (!control::BuildInput(*verb, words, args.Option("in").value_or(""), &in, &error)) throw ScriptError(error);
    uint32_t outLength = control::DefaultOutputLength(*verb);
    if (auto o = args.Option("outlen")) outLength = ParseU32(*o, "output length");
    if (outLength > kMaxOutput) throw ScriptError("ctl: outlen above " + std::to_string(kMaxOutput));

    if (!EnsureController(ctx)) return;
    Answer a = Send(ctx.session, code, in, outLength);
    if (!a.written) {
        ctx.result.status = a.returned;
        return;
    }
    ctx.result.status = a.iosb.Status;
    ctx.result.info = a.iosb.Information;
    if (a.returned != a.iosb.Status) ctx.Line("the call returned " + emu::StatusName(a.returned));
    control::Decoded decoded =
        control::DecodeOutput(*verb, a.out.data(), std::min<size_t>(a.iosb.Information, outLength));
    for (auto& line : decoded.lines) ctx.Line(std::move(line));
    for (const auto& [key, value] : decoded.data.items()) ctx.result.data[key] = value;
    Explain(ctx, *verb, words, decoded);
}

std::string VerbList() {
    std::string text;
    for (const auto& v : control::Verbs())
        text += (text.empty() ? "" : ", ") + std::string(v.name) + (*v.words ? " " + std::string(v.words) : "");
    return text;
}

}  // namespace

void AddControlCommands(std::vector<CommandSpec>& t) {
    static const std::string summary =
        "Sends one control request to the driver from the controller process (id 4000, made on first use), which "
        "holds \\??\\Tervane open. Prints the status block's status and information, then the decoded output: "
        "counts as count=N, the process list as PID NAME per record, the path lists one path per slot, start as "
        "filtering=0 or 1. The filter directories are set once per start of the driver (a second set-filters is "
        "refused), filtering starts only once the last filter directory has a loaded index, and an index loads "
        "once; when the driver refuses, a line says what is missing (a file that cannot be opened, no filter "
        "directories, an index loaded already). Verbs: " + VerbList() + ".";
    t.push_back({"ctl", Scope::Machine, "ctl VERB ARGS...", summary.c_str(), "ctl set-filters C:\\pack C:\\base",
                 Control});
}

}  // namespace tervane::tool
