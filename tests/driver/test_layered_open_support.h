// Fixture of the file operation tests: the emulated file system over a host
// directory on C:, the recording test volume on T:, and the driver loaded
// (it hooks C:). Ends with the driver's state released and a clean verifier.
#pragma once

#include <filesystem>
#include <fstream>

#include "control/filter_directory.h"
#include "core/tervane.h"
#include "filemgr/file_manager.h"
#include "test_core_support.h"
#include "test_index_support.h"

namespace tervane::test {

class FileOpsTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/tervane-fileops-XXXXXX";
        host = mkdtemp(tmpl);
        machine = std::make_unique<emu::Machine>();
        TestVolume::Seen().clear();
        ASSERT_EQ(machine->MountVolume('C', host.string()), STATUS_SUCCESS);
        ASSERT_EQ(machine->LoadDriver(u"TestVolume", TestVolume::DriverEntry), STATUS_SUCCESS);
        ASSERT_EQ(machine->LinkDrive('T', u"\\Device\\TestVolume"), STATUS_SUCCESS);
        ASSERT_EQ(machine->LoadDriver(u"Tervane", ::DriverEntry, &driver), STATUS_SUCCESS);
    }
    void TearDown() override {
        Kernel([] { ReleaseDriverState(); });
        emu::VerifierReport report = machine->Shutdown();
        EXPECT_TRUE(report.Clean()) << report.ToString();
        std::filesystem::remove_all(host);
    }
    void Kernel(const std::function<void()>& fn) { machine->Run(machine->SystemProcess(), fn); }

    void HostFile(const std::string& rel, const std::string& content) {
        std::filesystem::create_directories((host / rel).parent_path());
        std::ofstream(host / rel, std::ios::binary) << content;
    }
    std::string HostContent(const std::string& rel) {
        std::ifstream in(host / rel, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    // FiltCreateFile as every caller but the create handler uses it.
    NTSTATUS Open(ULONG mask, const std::u16string& path, HANDLE* handle, ULONG disposition = FILE_OPEN,
                  ULONG options = FILE_SYNCHRONOUS_IO_NONALERT, BOOLEAN createParents = FALSE,
                  ACCESS_MASK access = GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE) {
        Path p(path);
        NTSTATUS status = STATUS_SUCCESS;
        *handle = nullptr;
        Kernel([&] {
            IO_STATUS_BLOCK iosb;
            status = FiltCreateFile(mask, createParents, handle, access, p.us(), FALSE, FALSE, &iosb, nullptr,
                                    FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ | FILE_SHARE_WRITE, disposition, options,
                                    nullptr, 0);
        });
        return status;
    }
    void Close(HANDLE handle) {
        Kernel([&] { EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS); });
    }

    // Occurrences of TEXT in the debug log (a head and its message may share a line).
    size_t Count(const std::string& text) { return CountInLog(*machine, text); }

    std::filesystem::path host;
    std::unique_ptr<emu::Machine> machine;
    PDRIVER_OBJECT driver = nullptr;
};

}  // namespace tervane::test
