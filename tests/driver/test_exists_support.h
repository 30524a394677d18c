// Fixture of the tests of the operations across filter directories: the
// emulated file system over a temporary host directory on C:, the driver
// loaded (it hooks C:) and configured through its control device with three
// filter directories C:\L0, C:\L1 and C:\L2, the last one indexed, and
// filtering on, so that the driver's own opens pass its create handler.
// Ends with the driver's state released and a clean verifier.
#pragma once

#include <gtest/gtest.h>

#include <emu/machine.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "indexfile/indexfile.h"

#include "control/control.h"
#include "control/filter_directory.h"
#include "control/strings.h"
#include "core/tervane.h"
#include "dispatch/file_handle_table.h"
#include "filemgr/file_manager.h"
#include "index/file_index.h"
#include "test_harness.h"

namespace tervane::test::layers {

// A counted string that owns its text.
class Text {
public:
    Text(std::u16string text) : text_(std::move(text)) {
        us_.Length = us_.MaximumLength = USHORT(text_.size() * 2);
        us_.Buffer = reinterpret_cast<PWSTR>(text_.data());
    }
    Text(const Text&) = delete;
    PUNICODE_STRING us() { return &us_; }

private:
    std::u16string text_;
    UNICODE_STRING us_;
};

inline std::u16string U16(const UNICODE_STRING& s) {
    return std::u16string(reinterpret_cast<const char16_t*>(s.Buffer), s.Length / 2);
}

class LayersTest : public ::testing::Test {
protected:
    static constexpr ULONG kAll = FILTER_MASK_ALL;

    void SetUp() override {
        char tmpl[] = "/tmp/tervane-layers-XXXXXX";
        host = mkdtemp(tmpl);
        for (const char* root : {"L0", "L1", "L2", "idx"}) std::filesystem::create_directories(host / root);
        machine = std::make_unique<emu::Machine>();
        ASSERT_EQ(machine->MountVolume('C', host.string()), STATUS_SUCCESS);
        ASSERT_EQ(machine->LoadDriver(u"Tervane", ::DriverEntry), STATUS_SUCCESS);
    }

    void TearDown() override {
        if (HasFailure()) {
            for (const auto& line : machine->LogLines()) std::cerr << "  log: " << line << "\n";
        }
        if (controlHandle_ != nullptr) {
            machine->Run(controller_, [&] { EXPECT_EQ(NtClose(controlHandle_), STATUS_SUCCESS); });
        }
        Kernel([] { ReleaseDriverState(); });
        emu::VerifierReport report = machine->Shutdown();
        EXPECT_TRUE(report.Clean()) << report.ToString();
        machine.reset();
        std::filesystem::remove_all(host);
    }

    // Sets the three filter directories, loads the index of C:\L2 (built from
    // the host tree below it, or from INDEXPATHS when given) and switches
    // filtering on.
    void Configure(const std::vector<std::u16string>* indexPaths = nullptr) {
        indexfile::IndexFiles files;
        std::string error;
        if (indexPaths == nullptr) {
            ASSERT_TRUE(indexfile::BuildIndex(host / "L2", &files, &error)) << error;
        } else {
            indexfile::IndexBuilder builder;
            for (const auto& p : *indexPaths) ASSERT_TRUE(builder.Add(p, 0, &error)) << error;
            files = builder.Files();
        }
        ASSERT_TRUE(indexfile::WriteIndexFiles(files, host / "idx/node", host / "idx/name", &error)) << error;
        ASSERT_EQ(Control(IOCTL_SET_FILTER_LIST, Slots({u"C:\\L0", u"C:\\L1", u"C:\\L2"})), STATUS_SUCCESS);
        ASSERT_EQ(Control(IOCTL_LOAD_FILTER_INDEX, Slots({u"C:\\idx\\node", u"C:\\idx\\name"})), STATUS_SUCCESS);
        ASSERT_EQ(Control(IOCTL_START_FILTERING, {}, 1), STATUS_SUCCESS);
        ASSERT_TRUE(IsFilterIndexLoaded());
    }

    void Kernel(const std::function<void()>& fn) { machine->Run(machine->SystemProcess(), fn); }

    // ---- Host side ----
    void HostFile(const std::string& rel, const std::string& content) {
        std::filesystem::create_directories((host / rel).parent_path());
        std::ofstream(host / rel, std::ios::binary) << content;
    }
    void HostDir(const std::string& rel) { std::filesystem::create_directories(host / rel); }
    bool HostExists(const std::string& rel) { return std::filesystem::exists(host / rel); }
    std::string HostContent(const std::string& rel) {
        std::ifstream in(host / rel, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    // ---- Machine side ----
    ULONG Exists(const std::u16string& path, ULONG mask = kAll, NTSTATUS* status = nullptr) {
        Text p(path);
        ULONG result = 0;
        Kernel([&] { result = FiltCheckFileExists(p.us(), mask, status); });
        return result;
    }
    void Hide(const std::u16string& path) {
        Text p(path);
        Kernel([&] { HidePath(p.us()); });
    }
    // Opens a drive path (no filter directories involved) in kernel mode.
    NTSTATUS OpenReal(const std::u16string& path, HANDLE* handle, ACCESS_MASK access = GENERIC_READ | SYNCHRONIZE,
                      ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, ULONG options = 0) {
        std::u16string name = u"\\??\\" + path;
        Text p(name);
        NTSTATUS status = STATUS_SUCCESS;
        *handle = nullptr;
        Kernel([&] {
            OBJECT_ATTRIBUTES oa;
            InitializeObjectAttributes(&oa, p.us(), OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
            IO_STATUS_BLOCK iosb;
            status = ZwCreateFile(handle, access, &oa, &iosb, nullptr, 0, share, FILE_OPEN,
                                  options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
        });
        return status;
    }
    void Close(HANDLE handle) {
        Kernel([&] { EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS); });
    }
    PDEVICE_OBJECT FilterDevice() { return g_apFilterDevices['C' - 'A']; }

    // Occurrences of TEXT in the debug log.
    size_t Count(const std::string& text) { return CountInLog(*machine, text); }

    NTSTATUS Control(ULONG code, std::vector<uint8_t> input, ULONG outputLength = 0) {
        if (controlHandle_ == nullptr) {
            controller_ = machine->CreateProcess(900, "controller.exe");
            EXPECT_EQ(OpenControlDevice(*machine, controller_, &controlHandle_), STATUS_SUCCESS);
        }
        std::vector<uint8_t> output(outputLength + 1, 0);
        NTSTATUS status = STATUS_SUCCESS;
        machine->Run(controller_, [&] {
            IO_STATUS_BLOCK iosb = {};
            NtDeviceIoControlFile(controlHandle_, nullptr, nullptr, nullptr, &iosb, code,
                                  input.empty() ? nullptr : input.data(), ULONG(input.size()),
                                  outputLength ? output.data() : nullptr, outputLength);
            status = iosb.Status;
        });
        return status;
    }

    std::filesystem::path host;
    std::unique_ptr<emu::Machine> machine;

private:
    emu::Process* controller_ = nullptr;
    HANDLE controlHandle_ = nullptr;
};

}  // namespace tervane::test::layers
