// `ctl`: the controller's side of the driver's control protocol in a script.
// A controller process opens the control device once and sends each verb as
// a device control request; the records, the decoded answer and the lines
// that explain a refusal are the controller's (control_client.h), shared with
// tervanectl.exe. This file is the emulated machine's side: the controller
// process, its handle to the device, and the calls it makes.
#include <nt/ntifs.h>

#include "commands.h"
#include "control_client.h"
#include "ntcall.h"

namespace tervane::tool {
namespace {

// The controller is a process of its own; its id is chosen out of the way
// of the small ids scripts tend to use.
constexpr uint32_t kControllerPid = 4000;
constexpr const char* kControllerImage = "tvctl.exe";

// The control device as the script's controller process reaches it.
class SessionDevice : public control::Device {
public:
    explicit SessionDevice(Session& session) : s_(session) {}

    std::string Name() const override { return control::kDevicePath; }

    // Makes the controller process and opens the control device, once.
    int32_t Open() override {
        if (!s_.controller) {
            s_.controller = s_.FindProcess(kControllerPid);
            if (!s_.controller) s_.controller = s_.CreateProcess(kControllerPid, kControllerImage);
            if (!s_.controller) throw ScriptError("ctl: the controller process could not be made");
        }
        if (s_.controlHandle) return STATUS_SUCCESS;
        OpenRequest request;
        request.path = control::kDevicePath;
        request.access = GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE;
        request.share = 0;
        HANDLE handle = nullptr;
        IO_STATUS_BLOCK iosb{};
        NTSTATUS status = STATUS_SUCCESS;
        s_.RunIn(*s_.controller, [&] { status = OpenFile(request, &handle, &iosb); });
        if (NT_SUCCESS(status)) s_.controlHandle = handle;
        return status;
    }

    control::Answer Send(uint32_t code, const std::vector<uint8_t>& in, uint32_t outLength) override {
        // A value no service returns marks a status block left unwritten.
        constexpr NTSTATUS kUnwritten = 0x7fffffff;
        control::Answer a;
        a.out.resize(outLength);
        IO_STATUS_BLOCK iosb{};
        iosb.Status = kUnwritten;
        HANDLE handle = s_.controlHandle;
        s_.RunIn(*s_.controller, [&] {
            a.returned = CallAndWait(
                [&](HANDLE event) {
                    return NtDeviceIoControlFile(handle, event, nullptr, nullptr, &iosb, code,
                                                 in.empty() ? nullptr : const_cast<uint8_t*>(in.data()),
                                                 static_cast<ULONG>(in.size()),
                                                 a.out.empty() ? nullptr : a.out.data(), outLength);
                },
                iosb);
        });
        a.written = iosb.Status != kUnwritten;
        a.status = iosb.Status;
        a.information = iosb.Information;
        return a;
    }

    int32_t CheckReadable(const std::string& path) override {
        OpenRequest request;
        request.path = path;
        request.access = FILE_READ_DATA | SYNCHRONIZE;
        request.options = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT;
        NTSTATUS status = STATUS_SUCCESS;
        s_.RunIn(*s_.controller, [&] {
            HANDLE handle = nullptr;
            IO_STATUS_BLOCK iosb{};
            status = OpenFile(request, &handle, &iosb);
            if (NT_SUCCESS(status)) NtClose(handle);
        });
        return status;
    }

private:
    Session& s_;
};

void Control(Context& ctx, std::vector<Token> tokens) {
    control::Request request = control::ParseRequest(std::move(tokens));
    SessionDevice device(ctx.session);
    control::Outcome o = control::Perform(device, request, &ctx.session.known);
    ctx.result.status = o.status;
    ctx.result.info = o.info;
    for (auto& line : o.lines) ctx.Line(std::move(line));
    for (const auto& [key, value] : o.data.items()) ctx.result.data[key] = value;
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
