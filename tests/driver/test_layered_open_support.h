// Fixture of the file operation tests: the emulated file system over a host
// directory on C:, the recording test volume on T:, and the driver loaded
// (it hooks C:). Ends with the driver's state released and a clean verifier.
#pragma once

#include "test_core_support.h"

#include "control/filter_directory.h"
#include "filemgr/file_manager.h"
#include "index/file_index.h"

namespace tervane::test {

class FileOpsTest : public TervaneTest {
protected:
    void SetUp() override {
        TervaneTest::SetUp();
        TestVolume::Seen().clear();
        ASSERT_EQ(MountHost(), STATUS_SUCCESS);
        ASSERT_EQ(machine->LoadDriver(u"TestVolume", TestVolume::DriverEntry), STATUS_SUCCESS);
        ASSERT_EQ(machine->LinkDrive('T', u"\\Device\\TestVolume"), STATUS_SUCCESS);
        ASSERT_EQ(LoadTervane(&driver), STATUS_SUCCESS);
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

    PDRIVER_OBJECT driver = nullptr;
};

}  // namespace tervane::test
