// Start-up: fast I/O table size by build, the system drive from the registry,
// the log lines of a load, and the failures that stop start-up.
#include <regex>

#include "test_core_support.h"
#include "base/log.h"

namespace tervane::test {
namespace {

class StartupTest : public DriverTest {};

struct BuildCase {
    uint16_t build;
    ULONG size;
};

class FastIoSizeTest : public DriverTest, public ::testing::WithParamInterface<BuildCase> {
    void SetUp() override {
        options.buildNumber = GetParam().build;
        DriverTest::SetUp();
    }
};

TEST_P(FastIoSizeTest, SizeWordFollowsTheBuild) {
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    ASSERT_EQ(driver->FastIoDispatch, &g_FastIoDispatch);
    EXPECT_EQ(driver->FastIoDispatch->SizeOfFastIoDispatch, GetParam().size);
    for (auto* entry : driver->MajorFunction) EXPECT_EQ(entry, TervaneDispatch);
}

// Old systems know the table only up to FastIoDetachDevice (56 bytes on x86).
INSTANTIATE_TEST_SUITE_P(Builds, FastIoSizeTest,
                         ::testing::Values(BuildCase{1057, FIELD_OFFSET(FAST_IO_DISPATCH, FastIoQueryNetworkOpenInfo)},
                                           BuildCase{1380, FIELD_OFFSET(FAST_IO_DISPATCH, FastIoQueryNetworkOpenInfo)},
                                           BuildCase{1381, sizeof(FAST_IO_DISPATCH)},
                                           BuildCase{2600, sizeof(FAST_IO_DISPATCH)}));

struct DriveCase {
    const char* systemRoot;  // null: leave the machine's default
    char linkedLetter;       // where the test volume is
    ULONG expectedMask;
};

class SystemDriveTest : public DriverTest, public ::testing::WithParamInterface<DriveCase> {};

TEST_P(SystemDriveTest, HooksTheDriveTheRegistryNames) {
    const DriveCase& c = GetParam();
    if (c.systemRoot != nullptr) {
        machine->SetRegistryString("\\Registry\\Machine\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "SystemRoot",
                                   c.systemRoot);
    }
    if (c.linkedLetter != 'C') {
        ASSERT_EQ(machine->LinkDrive(c.linkedLetter, u"\\Device\\TestVolume"), STATUS_SUCCESS);
    }
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    EXPECT_EQ(g_ulHookedDriveMask, c.expectedMask);
    for (ULONG i = 0; i < TERVANE_DRIVE_COUNT; i++) {
        EXPECT_EQ(g_apFilterDevices[i] != nullptr, (c.expectedMask >> i) & 1) << "letter " << char('A' + i);
    }
}

INSTANTIATE_TEST_SUITE_P(Registry, SystemDriveTest,
                         ::testing::Values(DriveCase{nullptr, 'C', 1u << 2},         // default C:\WINDOWS
                                           DriveCase{"E:\\WINNT", 'E', 1u << 4},
                                           DriveCase{"D:\\WINDOWS", 'C', 0},      // D: has no volume
                                           DriveCase{"e:\\windows", 'C', 1u << 2},  // not an uppercase letter
                                           DriveCase{"", 'C', 1u << 2}));           // no letter at all

TEST_F(StartupTest, StateAfterLoadAndLogHeads) {
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    EXPECT_EQ(g_bFilteringEnabled, 0);
    PDEVICE_OBJECT filter = g_apFilterDevices[2];
    ASSERT_NE(filter, nullptr);
    EXPECT_EQ(TestVolume::Device()->AttachedDevice, filter);
    EXPECT_NE(g_pControlDevice->Flags & DO_EXCLUSIVE, 0u);

    // Every line: one head (thread, process name, id 4 of System, function,
    // line) and its message. The head reads the image name of the process
    // that logs, once the offset of image names is known.
    const std::regex head(R"(^\[TRVN\][0-9a-f]+\[(.*)\]\[4\]: (\w+)\(\) \((\d+)\):\t(.*)$)");
    struct Expected {
        const char* name;
        const char* function;
        const char* line;
        const char* message;
    } expected[] = {
        {"", "DriverEntry", "782", "entering DriverEntry"},
        {"System", "HookDrive", "174", "opened the root directory!!! handle: "},
        {"System", "HookDrive", "293", "Successfully connected to Filesystem device C"},
        {"System", "HookDriveSet", "404", "Hook Drive hook drives in same drive group   "},
    };
    std::vector<std::string> lines = LogMatching("[TRVN]");
    ASSERT_EQ(lines.size(), std::size(expected)) << ::testing::PrintToString(lines);
    for (size_t i = 0; i < lines.size(); i++) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(lines[i], m, head)) << lines[i];
        EXPECT_EQ(m[1], expected[i].name);
        EXPECT_EQ(m[2], expected[i].function);
        EXPECT_EQ(m[3], expected[i].line);
        EXPECT_EQ(m[4].str().rfind(expected[i].message, 0), 0u) << lines[i];
    }
}

TEST_F(StartupTest, LinkCollisionFailsAndLeavesNoControlDevice) {
    HANDLE link = nullptr;
    Kernel([&] {
        UNICODE_STRING name, target;
        RtlInitUnicodeString(&name, L"\\DosDevices\\Tervane");
        RtlInitUnicodeString(&target, L"\\Device\\TestVolume");
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
        ASSERT_EQ(ZwCreateSymbolicLinkObject(&link, GENERIC_ALL, &oa, &target), STATUS_SUCCESS);
    });
    EXPECT_EQ(Load(), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(LogMatching("DriverEntry() (858):\tIoCreateSymbolicLink failed").size(), 1u);
    Kernel([&] {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, L"\\Device\\Tervane");
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
        HANDLE h = nullptr;
        IO_STATUS_BLOCK iosb;
        EXPECT_EQ(ZwCreateFile(&h, SYNCHRONIZE, &oa, &iosb, nullptr, 0, 0, FILE_OPEN, 0, nullptr, 0),
                  STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(ZwClose(link), STATUS_SUCCESS);
    });
    EXPECT_EQ(g_pControlDevice, nullptr);
}

// With the general tag exhausted the registry buffer is reported, C: is
// hooked all the same without attribute information, and names print empty.
TEST_F(StartupTest, GeneralPoolExhaustedAtStartup) {
    machine->FailAllocationsWithTag("Trvm");
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    machine->ClearFaultInjection();
    EXPECT_EQ(LogMatching("pBuffer").size(), 1u);
    EXPECT_EQ(LogMatching("923").size(), 1u);
    EXPECT_EQ(g_ulHookedDriveMask, 1u << 2);
    ASSERT_NE(g_apFilterDevices[2], nullptr);
    EXPECT_EQ(static_cast<PTervaneDeviceExtension>(g_apFilterDevices[2]->DeviceExtension)->m_pFsAttributeInfo, nullptr);
    EXPECT_EQ(g_ustrCurrentProcessName.MaximumLength, 0);
    EXPECT_EQ(g_ustrCurrentProcessName.Buffer, nullptr);
}

TEST_F(StartupTest, UnreadableAttributesStillHook) {
    TestVolume::failAttributeQuery = true;
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    ASSERT_NE(g_apFilterDevices[2], nullptr);
    EXPECT_EQ(static_cast<PTervaneDeviceExtension>(g_apFilterDevices[2]->DeviceExtension)->m_pFsAttributeInfo, nullptr);
}

}  // namespace
}  // namespace tervane::test
