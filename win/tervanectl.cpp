// tervanectl.exe: the driver's controller on a Windows machine. It opens
// the control device \\.\Tervane and sends one verb with its words, as the
// scenario command `ctl` does on the emulated machine; the records, the
// output and the exit codes come from the same code (tools/control_client.h).
// This file is only the Windows side: the device, the files the
// explanations look at, and the command line as UTF-8.
#include <windows.h>
#include <winternl.h>

#include <iostream>
#include <string>
#include <vector>

#include "control_client.h"
#include "windows_text.h"

// ntdll: the NT status behind the thread's last Win32 error (XP and later).
extern "C" NTSTATUS NTAPI RtlGetLastNtStatus(void);

namespace {

using tervane::tool::control::Answer;

class WindowsDevice : public tervane::tool::control::Device {
public:
    ~WindowsDevice() override {
        if (handle_ != INVALID_HANDLE_VALUE) CloseHandle(handle_);
    }

    std::string Name() const override { return "\\\\.\\Tervane"; }

    int32_t Open() override {
        if (handle_ != INVALID_HANDLE_VALUE) return 0;
        // The device is exclusive: no sharing, and one controller at a time.
        handle_ = CreateFileW(L"\\\\.\\Tervane", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
        return handle_ == INVALID_HANDLE_VALUE ? RtlGetLastNtStatus() : 0;
    }

    // A synchronous handle: the call returns once the request is complete.
    Answer Send(uint32_t code, const std::vector<uint8_t>& in, uint32_t outLength) override {
        // A value no service returns marks a status block left unwritten.
        constexpr NTSTATUS kUnwritten = 0x7fffffff;
        Answer a;
        a.out.resize(outLength);
        IO_STATUS_BLOCK iosb;
        iosb.Status = kUnwritten;
        iosb.Information = 0;
        a.returned = NtDeviceIoControlFile(handle_, nullptr, nullptr, nullptr, &iosb, code,
                                           in.empty() ? nullptr : const_cast<uint8_t*>(in.data()),
                                           static_cast<ULONG>(in.size()), a.out.empty() ? nullptr : a.out.data(),
                                           outLength);
        a.written = iosb.Status != kUnwritten;
        a.status = iosb.Status;
        a.information = iosb.Information;
        return a;
    }

    int32_t CheckReadable(const std::string& path) override {
        HANDLE file = CreateFileW(tervane::win::Wide(path).c_str(), GENERIC_READ,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file == INVALID_HANDLE_VALUE) return RtlGetLastNtStatus();
        CloseHandle(file);
        return 0;
    }

private:
    HANDLE handle_ = INVALID_HANDLE_VALUE;
};

}  // namespace

int wmain(int argc, wchar_t** argv) {
    SetConsoleOutputCP(CP_UTF8);
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) args.push_back(tervane::win::Utf8(argv[i]));
    WindowsDevice device;
    return tervane::tool::control::RunController(device, args, std::cout, std::cerr);
}
