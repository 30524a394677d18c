// Fixture of the tests of the operations across filter directories: the
// emulated file system over a temporary host directory on C:, the driver
// loaded (it hooks C:) and configured through its control device with three
// filter directories C:\L0, C:\L1 and C:\L2, the last one indexed, and
// filtering on, so that the driver's own opens pass its create handler.
// Ends with the driver's state released and a clean verifier.
#pragma once

#include <string>
#include <vector>

#include "indexfile/indexfile.h"

#include "driver_test.h"

#include "control/control.h"
#include "control/filter_directory.h"
#include "base/strings.h"
#include "filemgr/file_handle_table.h"
#include "filemgr/file_manager.h"
#include "index/file_index.h"

namespace tervane::test {

class LayersTest : public TervaneTest {
protected:
    static constexpr ULONG kAll = FILTER_MASK_ALL;

    void SetUp() override {
        TervaneTest::SetUp();
        for (const char* root : {"L0", "L1", "L2", "idx"}) HostDir(root);
        ASSERT_EQ(MountHost(), STATUS_SUCCESS);
        ASSERT_EQ(LoadTervane(), STATUS_SUCCESS);
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
        ASSERT_EQ(Control(IOCTL_SET_FILTER_LIST, Slots({u"C:\\L0", u"C:\\L1", u"C:\\L2"})).status, STATUS_SUCCESS);
        ASSERT_EQ(Control(IOCTL_LOAD_FILTER_INDEX, Slots({u"C:\\idx\\node", u"C:\\idx\\name"})).status, STATUS_SUCCESS);
        ASSERT_EQ(Control(IOCTL_START_FILTERING, {}, 1).status, STATUS_SUCCESS);
        ASSERT_TRUE(IsFilterIndexLoaded());
    }

    ULONG Exists(const std::u16string& path, ULONG mask = kAll, NTSTATUS* status = nullptr) {
        Path p(path);
        ULONG result = 0;
        Kernel([&] { result = FiltCheckFileExists(p.us(), mask, status); });
        return result;
    }
    void Hide(const std::u16string& path) {
        Path p(path);
        Kernel([&] { HidePath(p.us()); });
    }
    // Opens a drive path (no filter directories involved) in kernel mode.
    NTSTATUS OpenReal(const std::u16string& path, HANDLE* handle, ACCESS_MASK access = GENERIC_READ | SYNCHRONIZE,
                      ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, ULONG options = 0) {
        std::u16string name = u"\\??\\" + path;
        Path p(name);
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
};

}  // namespace tervane::test
