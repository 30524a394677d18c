// Routing: requests on a hooked volume pass down unchanged, the control
// device opens and closes, and control calls behave alike on both paths.
#include "test_core_support.h"

namespace tervane::test {
namespace {

class RoutingTest : public DriverTest {};

struct PassCase {
    UCHAR filtering;
    BOOLEAN hooked;
};

class PassThroughTest : public DriverTest, public ::testing::WithParamInterface<PassCase> {};

// An unmonitored process has no redirected open, so whatever the switches
// say the volume sees the caller's own open, read and close, and the caller
// sees the volume's answers.
TEST_P(PassThroughTest, VolumeSeesTheRequestsUnchanged) {
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    g_bFilteringEnabled = GetParam().filtering;
    static_cast<PTervaneDeviceExtension>(g_apFilterDevices[2]->DeviceExtension)->m_bHooked = GetParam().hooked;
    TestVolume::Seen().clear();
    auto driverAllocations = [&] {
        uint64_t allocs = 0;
        for (const auto& usage : machine->PoolUsage()) {
            if (usage.tag.rfind("Trv", 0) == 0) allocs += usage.allocs;
        }
        return allocs;
    };
    uint64_t allocsBefore = 0;

    emu::Process* app = machine->CreateProcess(1234, "app.exe");
    machine->Run(app, [&] {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, L"\\??\\C:\\dir\\file.txt");
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        IO_STATUS_BLOCK iosb = {};
        HANDLE h = nullptr;
        ASSERT_EQ(NtCreateFile(&h, GENERIC_READ | SYNCHRONIZE, &oa, &iosb, nullptr, 0, FILE_SHARE_READ, FILE_OPEN,
                               FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, nullptr, 0),
                  STATUS_SUCCESS);
        EXPECT_EQ(iosb.Information, (ULONG_PTR)FILE_OPENED);
        // Opens go to the create handler while filtering is on; every other
        // request without a redirected open is passed straight down.
        allocsBefore = driverAllocations();
        char data[10] = {};
        LARGE_INTEGER offset;
        offset.QuadPart = 7;
        EXPECT_EQ(NtReadFile(h, nullptr, nullptr, nullptr, &iosb, data, sizeof(data), &offset, nullptr),
                  STATUS_SUCCESS);
        EXPECT_EQ(iosb.Information, sizeof(data));
        EXPECT_EQ(std::string(data, sizeof(data)), std::string(sizeof(data), 'v'));
        EXPECT_EQ(NtClose(h), STATUS_SUCCESS);
    });

    const auto& seen = TestVolume::Seen();
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[0].major, IRP_MJ_CREATE);
    EXPECT_EQ(seen[0].fileName, u"\\dir\\file.txt");
    EXPECT_EQ(seen[0].createOptions & 0xFFFFFF, (ULONG)(FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE));
    EXPECT_EQ(seen[1].major, IRP_MJ_READ);
    EXPECT_EQ(seen[1].length, 10u);
    EXPECT_EQ(seen[1].offset, 7);
    EXPECT_EQ(seen[2].major, IRP_MJ_CLEANUP);
    EXPECT_EQ(seen[3].major, IRP_MJ_CLOSE);
    for (const auto& request : seen) EXPECT_EQ(request.fileObject, seen[0].fileObject);

    EXPECT_EQ(driverAllocations(), allocsBefore) << "passing down allocates nothing";
    EXPECT_EQ(LogMatching("Not Implemented").size(), 0u);
    g_bFilteringEnabled = 0;
}

INSTANTIATE_TEST_SUITE_P(Switches, PassThroughTest,
                         ::testing::Values(PassCase{0, 1}, PassCase{1, 1}, PassCase{1, 0}, PassCase{0, 0}));

TEST_F(RoutingTest, ControlDeviceOpensAloneAndCloses) {
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    emu::Process* a = machine->CreateProcess(1001, "ctl1.exe");
    emu::Process* b = machine->CreateProcess(1002, "ctl2.exe");
    auto open = [&](HANDLE* h, IO_STATUS_BLOCK* iosb) {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, L"\\??\\Tervane");
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        iosb->Information = 0xDEAD;
        return NtCreateFile(h, GENERIC_READ | SYNCHRONIZE, &oa, iosb, nullptr, 0, 0, FILE_OPEN,
                            FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    };
    HANDLE first = nullptr, second = nullptr;
    IO_STATUS_BLOCK iosb;
    machine->Run(a, [&] {
        EXPECT_EQ(open(&first, &iosb), STATUS_SUCCESS);
        EXPECT_EQ(iosb.Information, 0u);
    });
    machine->Run(b, [&] { EXPECT_EQ(open(&second, &iosb), STATUS_ACCESS_DENIED) << "the device is exclusive"; });
    machine->Run(a, [&] { EXPECT_EQ(NtClose(first), STATUS_SUCCESS); });
    machine->Run(b, [&] {
        EXPECT_EQ(open(&second, &iosb), STATUS_SUCCESS);
        EXPECT_EQ(NtClose(second), STATUS_SUCCESS);
    });
}

}  // namespace
}  // namespace tervane::test
