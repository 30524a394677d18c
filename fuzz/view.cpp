#include "view.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "control/control.h"
#include "control/filter_directory.h"
#include "core/tervane.h"
#include "indexfile/indexfile.h"

namespace fs = std::filesystem;

namespace tervane::fuzz {

std::vector<uint8_t> Input::Bytes(size_t n) {
    std::vector<uint8_t> bytes;
    while (n-- > 0 && !Empty()) bytes.push_back(Byte());
    return bytes;
}

std::u16string Input::Name(size_t maxChars) {
    std::u16string name;
    for (size_t length = Byte() % (maxChars + 1); length > 0 && !Empty(); --length) name.push_back(char16_t(Word()));
    return name;
}

static void Write(const fs::path& file, const std::string& content) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
}

View::View(bool configure) {
    char tmpl[] = "/tmp/tervane-fuzz-XXXXXX";
    host = mkdtemp(tmpl);
    Write(host / "layers/pack/dir/a.txt", "pack a");
    Write(host / "layers/mid/dir/b.txt", "mid b");
    Write(host / "layers/mid/dir/a.txt", "mid a");
    Write(host / "layers/base/dir/c.txt", "base c");
    Write(host / "layers/base/dir/sub/d.txt", "base d");
    Write(host / "layers/base/e.txt", "base e");
    fs::create_directories(host / "ctl");
    machine = std::make_unique<emu::Machine>();
    if (machine->MountVolume('C', host.string()) != STATUS_SUCCESS ||
        machine->LoadDriver(u"Tervane", ::DriverEntry) != STATUS_SUCCESS) {
        std::fprintf(stderr, "fuzz: the machine cannot start\n");
        std::abort();
    }
    app = machine->CreateProcess(1234, "app.exe");
    controller = machine->CreateProcess(900, "controller.exe");
    NTSTATUS opened = STATUS_UNSUCCESSFUL;
    machine->Run(controller, [&] { opened = test::OpenControlDevice(&control); });
    if (opened != STATUS_SUCCESS) std::abort();
    if (!configure) return;
    indexfile::IndexFiles files;
    std::string error;
    if (!indexfile::BuildIndex(host / "layers/base", &files, &error) ||
        !indexfile::WriteIndexFiles(files, host / "ctl/base.node", host / "ctl/base.name", &error)) {
        std::fprintf(stderr, "fuzz: %s\n", error.c_str());
        std::abort();
    }
    if (Control(IOCTL_SET_FILTER_LIST, Slots({u"C:\\layers\\pack", u"C:\\layers\\mid", u"C:\\layers\\base"})) !=
            STATUS_SUCCESS ||
        Control(IOCTL_LOAD_FILTER_INDEX, Slots({u"C:\\ctl\\base.node", u"C:\\ctl\\base.name"})) !=
            STATUS_SUCCESS ||
        Control(IOCTL_ADD_PROCESS, ProcessRecord(1234, u"app.exe")) != STATUS_SUCCESS ||
        Control(IOCTL_START_FILTERING, {}) != STATUS_SUCCESS) {
        std::fprintf(stderr, "fuzz: the driver cannot be configured\n");
        std::abort();
    }
}

View::~View() {
    machine->Run(controller, [&] { NtClose(control); });
    machine->TerminateProcess(app);
    machine->TerminateProcess(controller);
    machine->Run(machine->SystemProcess(), [] { ReleaseDriverState(); });
    emu::VerifierReport report = machine->Shutdown();
    machine.reset();
    fs::remove_all(host);
    if (!report.Clean()) {
        std::fprintf(stderr, "fuzz: the machine ended with something outstanding:\n%s\n", report.ToString().c_str());
        std::abort();
    }
}

View& View::Shared() {
    static View* view = [] {
        View* v = new View();
        std::atexit([] { delete &Shared(); });
        return v;
    }();
    return *view;
}

NTSTATUS View::Control(ULONG code, const std::vector<uint8_t>& input, std::vector<uint8_t>* output) {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    machine->Run(controller, [&] {
        std::vector<uint8_t> in = input;
        std::vector<uint8_t> scratch(64);
        std::vector<uint8_t>& out = output != nullptr ? *output : scratch;
        IO_STATUS_BLOCK iosb = {};
        status = NtDeviceIoControlFile(control, nullptr, nullptr, nullptr, &iosb, code, in.empty() ? nullptr : in.data(),
                                       ULONG(in.size()), out.empty() ? nullptr : out.data(), ULONG(out.size()));
    });
    return status;
}

NTSTATUS View::Open(const std::u16string& name, ACCESS_MASK access, ULONG disposition, ULONG options, HANDLE* handle,
                    HANDLE related) {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    machine->Run(app, [&] {
        UNICODE_STRING us = emu::MakeUnicodeString(name);
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &us, OBJ_CASE_INSENSITIVE, related, nullptr);
        IO_STATUS_BLOCK iosb = {};
        status = NtCreateFile(handle, access | SYNCHRONIZE, &oa, &iosb, nullptr, FILE_ATTRIBUTE_NORMAL,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, disposition,
                              options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    });
    return status;
}

std::string View::LowerLayers() const {
    std::map<std::string, std::string> files;
    for (const char* layer : {"layers/mid", "layers/base"})
        for (const auto& entry : fs::recursive_directory_iterator(host / layer)) {
            std::ostringstream content;
            if (entry.is_regular_file()) content << std::ifstream(entry.path(), std::ios::binary).rdbuf();
            files[entry.path().string()] = content.str();
        }
    std::string all;
    for (const auto& [path, content] : files) all += path + "\n" + content + "\n";
    return all;
}

}  // namespace tervane::fuzz
