// Own request packets sent below the filter: reads, writes and queries for a
// FILE_OBJECT the driver holds, and the routing of CallLowerDevice.
#include "test_layered_open_support.h"

namespace tervane::test {
namespace {

constexpr ULONG kTestTag = TRVN_POOL_TAG('T', 's', 't', 'x');
constexpr ULONG kCopyReadFlags = IRP_NOCACHE | IRP_READ_OPERATION | IRP_DEFER_IO_COMPLETION;
constexpr ULONG kCopyWriteFlags = IRP_NOCACHE | IRP_WRITE_OPERATION | IRP_DEFER_IO_COMPLETION;

class OwnIrpTest : public FileOpsTest {
protected:
    void SetUp() override {
        FileOpsTest::SetUp();
        HostFile("data.bin", "0123456789");
        ASSERT_EQ(Open(0, u"C:\\data.bin", &handle), STATUS_SUCCESS);
        Kernel([&] {
            ASSERT_EQ(ObReferenceObjectByHandle(handle, 0, nullptr, KernelMode, reinterpret_cast<PVOID*>(&file), nullptr),
                      STATUS_SUCCESS);
        });
        filterC = g_apFilterDevices['C' - 'A'];
        ASSERT_NE(filterC, nullptr);
        lowerC = static_cast<PTervaneDeviceExtension>(filterC->DeviceExtension)->m_pLowerDevice;
    }
    void TearDown() override {
        Kernel([&] { ObDereferenceObject(file); });
        Close(handle);
        FileOpsTest::TearDown();
    }
    // Without a caller's request: BUFFER receives or supplies the data.
    NTSTATUS Transfer(bool read, LONGLONG offset, std::string* buffer, ULONG* moved, ULONG route = 0,
                      PDEVICE_OBJECT filter = nullptr) {
        NTSTATUS status = STATUS_SUCCESS;
        Kernel([&] {
            IO_STATUS_BLOCK iosb = {};
            LARGE_INTEGER at;
            at.QuadPart = offset;
            status = ReadWriteFileWithIrp(nullptr, read, route, file, filter ? filter : filterC, buffer->data(), at,
                                          ULONG(buffer->size()), 0, read ? kCopyReadFlags : kCopyWriteFlags, &iosb);
            EXPECT_EQ(status, iosb.Status);
            *moved = ULONG(iosb.Information);
        });
        return status;
    }

    HANDLE handle = nullptr;
    PFILE_OBJECT file = nullptr;
    PDEVICE_OBJECT filterC = nullptr;
    PDEVICE_OBJECT lowerC = nullptr;
};

TEST_F(OwnIrpTest, ReadsAndWritesReachTheRealFile) {
    struct Case {
        bool read;
        LONGLONG offset;
        std::string data;  // written, or the expected read result
        NTSTATUS status;
        ULONG moved;
    } cases[] = {
        {true, 0, "0123456789", STATUS_SUCCESS, 10},
        {false, 2, "ABC", STATUS_SUCCESS, 3},
        {true, 0, "01ABC56789", STATUS_SUCCESS, 10},
        {true, 100, std::string(4, '\0'), STATUS_END_OF_FILE, 0},
        {false, 10, "tail", STATUS_SUCCESS, 4},
    };
    for (const auto& c : cases) {
        std::string buffer = c.read ? std::string(c.data.size(), '\0') : c.data;
        ULONG moved = 99;
        EXPECT_EQ(Transfer(c.read, c.offset, &buffer, &moved), c.status) << c.offset;
        EXPECT_EQ(moved, c.moved);
        if (c.read && c.status == STATUS_SUCCESS) {
            EXPECT_EQ(buffer, c.data);
        }
    }
    EXPECT_EQ(HostContent("data.bin"), "01ABC56789tail");
}

// With a caller's request the data goes where that request's data goes: its
// MDL first, then its system buffer, then its user buffer.
TEST_F(OwnIrpTest, ACallersRequestLendsItsBuffer) {
    enum Source { kMdl, kSystem, kUser };
    for (Source source : {kMdl, kSystem, kUser}) {
        Kernel([&] {
            auto* mdlBuffer = static_cast<char*>(ExAllocatePoolWithTag(NonPagedPool, 10, kTestTag));
            auto* systemBuffer = static_cast<char*>(ExAllocatePoolWithTag(NonPagedPool, 10, kTestTag));
            char userBuffer[10] = {};
            memset(mdlBuffer, '-', 10);
            memset(systemBuffer, '-', 10);
            PIRP caller = IoAllocateIrp(1, FALSE);
            PMDL mdl = nullptr;
            if (source == kMdl) {
                mdl = IoAllocateMdl(mdlBuffer, 10, FALSE, FALSE, nullptr);
                MmBuildMdlForNonPagedPool(mdl);
                caller->MdlAddress = mdl;
            }
            if (source != kUser) caller->AssociatedIrp.SystemBuffer = systemBuffer;
            caller->UserBuffer = userBuffer;
            caller->Flags = IRP_READ_OPERATION;
            IO_STATUS_BLOCK iosb = {};
            LARGE_INTEGER at;
            at.QuadPart = 0;
            EXPECT_EQ(ReadWriteFileWithIrp(caller, TRUE, 0, file, filterC, nullptr, at, 10, 0, 0, &iosb),
                      STATUS_SUCCESS);
            EXPECT_EQ(iosb.Information, 10u);
            const char* expected[] = {mdlBuffer, systemBuffer, userBuffer};
            EXPECT_EQ(std::string(expected[source], 10), "0123456789") << source;
            if (source == kMdl) {
                EXPECT_EQ(std::string(systemBuffer, 10), "----------");
            }
            caller->MdlAddress = nullptr;
            if (mdl) IoFreeMdl(mdl);
            IoFreeIrp(caller);
            ExFreePoolWithTag(mdlBuffer, kTestTag);
            ExFreePoolWithTag(systemBuffer, kTestTag);
        });
    }
}

}  // namespace
}  // namespace tervane::test
