// Volume attachment: drive groups, unhook and rehook, letters without volumes.
#include "test_core_support.h"

namespace tervane::test {
namespace {

class HookTest : public DriverTest {
protected:
    ULONG Set(ULONG mask) {
        ULONG result = 0;
        Kernel([&] { result = HookDriveSet(mask, driver); });
        return result;
    }
    BOOLEAN Hooked(char letter) {
        return static_cast<PTervaneDeviceExtension>(g_apFilterDevices[letter - 'A']->DeviceExtension)->m_bHooked;
    }
    static constexpr ULONG Bit(char letter) { return 1u << (letter - 'A'); }
};

TEST_F(HookTest, TwoLettersOfOneVolumeShareOneFilterDevice) {
    ASSERT_EQ(machine->LinkDrive('D', u"\\Device\\TestVolume"), STATUS_SUCCESS);
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    ASSERT_EQ(g_ulHookedDriveMask, Bit('C'));

    EXPECT_EQ(Set(Bit('C') | Bit('D')), Bit('C') | Bit('D'));
    EXPECT_EQ(g_apFilterDevices['D' - 'A'], g_apFilterDevices['C' - 'A']);
    EXPECT_EQ(TestVolume::Device()->AttachedDevice, g_apFilterDevices['C' - 'A']);
    EXPECT_EQ(g_apFilterDevices['C' - 'A']->AttachedDevice, nullptr) << "attached once";

    // Dropping C: unhooks the whole group, D: included.
    EXPECT_EQ(Set(Bit('D')), 0u);
    EXPECT_EQ(g_ulHookedDriveMask, 0u);
    EXPECT_FALSE(Hooked('C'));
    EXPECT_NE(g_apFilterDevices['D' - 'A'], nullptr) << "slots are kept";

    // Rehooking one letter brings its group back on the same device.
    PDEVICE_OBJECT device = g_apFilterDevices['C' - 'A'];
    EXPECT_EQ(Set(Bit('C')), Bit('C') | Bit('D'));
    EXPECT_TRUE(Hooked('D'));
    EXPECT_EQ(g_apFilterDevices['C' - 'A'], device);
}

TEST_F(HookTest, LetterWithoutVolumeIsLeftOut) {
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    machine->TakeNewLog();
    EXPECT_EQ(Set(Bit('C') | Bit('Z')), Bit('C'));
    EXPECT_EQ(g_apFilterDevices['Z' - 'A'], nullptr);
    // \DosDevices\Z:\ names a path through a link that does not exist.
    EXPECT_EQ(LogMatching("HookDrive() (170):\tCould not open drive Z: c000003a").size(), 1u);
    EXPECT_EQ(LogMatching("HookDriveSet() (396):\tHook Drive failure").size(), 1u);
}

}  // namespace
}  // namespace tervane::test
