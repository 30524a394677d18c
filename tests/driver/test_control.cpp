// The control protocol through the fast path: bad inputs, every output size,
// unknown codes, and the order that brings filtering on.
#include "test_core_support.h"
#include "index/file_index.h"

namespace tervane::test {
namespace {

class ControlTest : public DriverTest {
protected:
    void SetUp() override {
        DriverTest::SetUp();
        ASSERT_EQ(Load(), STATUS_SUCCESS);
    }
    ULONG LogCount(ULONG code) {
        ControlResult r = Control(code, {}, 4);
        EXPECT_EQ(r.status, STATUS_SUCCESS);
        ULONG count = 0;
        memcpy(&count, r.output.data(), 4);
        return count;
    }
};

TEST_F(ControlTest, CodesBetweenCodesAreUnknown) {
    for (ULONG code : {0x84001C01u, 0x84001C02u, 0x84001C03u, 0x84001C3Du, 0x84001C40u, 0x84001BFCu, 0x84011C00u,
                       0x84001C00u | METHOD_NEITHER, 0u}) {
        machine->TakeNewLog();
        ControlResult r = Control(code, std::vector<uint8_t>(1040, 0), 8);
        EXPECT_EQ(r.status, STATUS_INVALID_DEVICE_REQUEST) << std::hex << code;
        EXPECT_EQ(r.information, 0u);
        EXPECT_NE(machine->TakeNewLog().find("TervaneFastIoDeviceControl() (679):\tunknown IRP_MJ_DEVICE_CONTROL\n"),
                  std::string::npos);
    }
}

// Inputs shorter than their record, or slots without their zero, are refused
// and change nothing.
TEST_F(ControlTest, ShortAndUnterminatedInputsAreRefused) {
    std::vector<uint8_t> unterminated(PATH_SLOT_SIZE, 'A');
    std::vector<uint8_t> secondUnterminated = Slots({u"C:\\ok"});
    secondUnterminated.insert(secondUnterminated.end(), unterminated.begin(), unterminated.end());
    struct Case {
        ULONG code;
        std::vector<uint8_t> input;
    } cases[] = {
        {IOCTL_ADD_PROCESS, {}},
        {IOCTL_ADD_PROCESS, std::vector<uint8_t>(43, 0)},
        {IOCTL_REMOVE_PROCESS, {1, 0, 0}},
        {IOCTL_SET_FILTER_LIST, {}},
        {IOCTL_SET_FILTER_LIST, std::vector<uint8_t>(519, 0)},
        {IOCTL_SET_FILTER_LIST, unterminated},
        {IOCTL_SET_FILTER_LIST, secondUnterminated},
        // Roots that are not drive paths: empty, relative, drive-relative, UNC.
        {IOCTL_SET_FILTER_LIST, Slots({u"C:\\pack", u""})},
        {IOCTL_SET_FILTER_LIST, Slots({u"layers\\pack", u"C:\\base"})},
        {IOCTL_SET_FILTER_LIST, Slots({u"C:pack", u"C:\\base"})},
        {IOCTL_SET_FILTER_LIST, Slots({u"\\\\server\\share\\pack", u"C:\\base"})},
        {IOCTL_ADD_EXCLUSIONS, unterminated},
        {IOCTL_ADD_EXCLUSIONS, secondUnterminated},
        {IOCTL_REMOVE_EXCLUSIONS, unterminated},
        {IOCTL_LOAD_FILTER_INDEX, Slots({u"C:\\n"})},
        {IOCTL_LOAD_FILTER_INDEX, std::vector<uint8_t>(1039, 0)},
        {IOCTL_RENAME_INDEX_PATH, std::vector<uint8_t>(1039, 0)},
        {IOCTL_RENAME_INDEX_PATH, secondUnterminated},
    };
    // Through the fast path and through request packets alike.
    for (const Case& c : cases) {
        for (ControlResult r : {Control(c.code, c.input, 0), Packet(c.code, c.input, 0)}) {
            EXPECT_EQ(r.status, STATUS_INVALID_DEVICE_REQUEST) << std::hex << c.code << " input " << std::dec
                                                                << c.input.size();
        }
    }
    EXPECT_NE(machine->TakeNewLog().find("filter directory root [\\\\server\\share\\pack] is not a drive path"),
              std::string::npos);
    EXPECT_EQ(LogCount(IOCTL_GET_PROCESS_COUNT), 0u);
    EXPECT_EQ(LogCount(IOCTL_GET_FILTER_COUNT), 0u);
    EXPECT_EQ(LogCount(IOCTL_GET_EXCLUSION_COUNT), 0u);
    // A partial slot after whole ones is ignored, as is an empty input.
    EXPECT_EQ(Control(IOCTL_ADD_EXCLUSIONS, {}, 0).status, STATUS_SUCCESS);
    std::vector<uint8_t> withTail = Slots({u"C:\\x"});
    withTail.resize(PATH_SLOT_SIZE + 7, 'B');
    EXPECT_EQ(Control(IOCTL_ADD_EXCLUSIONS, withTail, 0).status, STATUS_SUCCESS);
    EXPECT_EQ(LogCount(IOCTL_GET_EXCLUSION_COUNT), 1u);
}

// Lists answer every output size with the whole records that fit.
TEST_F(ControlTest, ListsFillEveryOutputSize) {
    for (ULONG pid : {11u, 22u, 33u}) ASSERT_EQ(Control(IOCTL_ADD_PROCESS, ProcessRecord(pid, u"p.exe"), 0).status, 0);
    ASSERT_EQ(Control(IOCTL_ADD_EXCLUSIONS, Slots({u"C:\\a", u"C:\\b", u"C:\\c"}), 0).status, 0);
    ASSERT_EQ(Control(IOCTL_SET_FILTER_LIST, Slots({u"C:\\F0", u"C:\\F1", u"C:\\F2"}), 0).status, 0);
    struct List {
        ULONG code;
        ULONG record;
    } lists[] = {{IOCTL_GET_PROCESS_LIST, 44}, {IOCTL_GET_EXCLUSION_LIST, 520}, {IOCTL_GET_FILTER_LIST, 520}};
    for (const List& list : lists) {
        const ULONG whole = 3 * list.record;
        for (ULONG length = 0; length <= whole + 3; length += (length < 50 || length + 50 > whole) ? 1 : 37) {
            ControlResult r = Control(list.code, {}, length);
            const ULONG fits = std::min(length / list.record, 3u);
            ASSERT_EQ(r.information, fits * list.record) << std::hex << list.code << std::dec << " length " << length;
            ASSERT_EQ(r.status, fits == 3 ? STATUS_SUCCESS : STATUS_BUFFER_TOO_SMALL) << length;
            for (ULONG i = r.information; i < length; i++) ASSERT_EQ(r.output[i], kUntouched) << length;
        }
    }
    ControlResult processes = Control(IOCTL_GET_PROCESS_LIST, {}, 100);
    EXPECT_EQ(processes.information, 88u);
    EXPECT_EQ(processes.status, STATUS_BUFFER_TOO_SMALL);
    ULONG pid = 0;
    memcpy(&pid, processes.output.data() + 44, 4);
    EXPECT_EQ(pid, 22u);
    ControlResult filters = Control(IOCTL_GET_FILTER_LIST, {}, 1560);
    EXPECT_EQ(SlotPath(filters.output, 0), u"C:\\F0");
    EXPECT_EQ(SlotPath(filters.output, 2), u"C:\\F2");
}

TEST_F(ControlTest, CountsNeedFourBytes) {
    for (ULONG code : {IOCTL_GET_PROCESS_COUNT, IOCTL_GET_FILTER_COUNT, IOCTL_GET_EXCLUSION_COUNT}) {
        for (ULONG length = 0; length <= 5; length++) {
            ControlResult r = Control(code, {}, length);
            EXPECT_EQ(r.status, length < 4 ? STATUS_BUFFER_TOO_SMALL : STATUS_SUCCESS) << length;
            EXPECT_EQ(r.information, length < 4 ? 0u : 4u);
            for (ULONG i = length < 4 ? 0 : 4; i < length; i++) EXPECT_EQ(r.output[i], kUntouched);
        }
    }
}

TEST_F(ControlTest, FilteringStartsOnlyWithALoadedIndex) {
    ControlResult r = Control(IOCTL_START_FILTERING, {}, 0);
    EXPECT_EQ(r.status, STATUS_BUFFER_TOO_SMALL);
    r = Control(IOCTL_START_FILTERING, {}, 4);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(r.information, 1u);
    EXPECT_EQ(r.output[0], 0);
    EXPECT_EQ(r.output[1], kUntouched);
    EXPECT_EQ(g_bFilteringEnabled, 0);

    // Without filter directories an index cannot be loaded or renamed in.
    std::vector<uint8_t> record = Slots({u"C:\\index\\nodes", u"C:\\index\\names"});
    EXPECT_EQ(Control(IOCTL_LOAD_FILTER_INDEX, record, 0).status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(Control(IOCTL_RENAME_INDEX_PATH, Slots({u"C:\\a", u"C:\\b"}), 0).status, STATUS_INVALID_DEVICE_REQUEST);

    // With filter directories but no index loaded, still off.
    ASSERT_EQ(Control(IOCTL_SET_FILTER_LIST, Slots({u"C:\\F0", u"C:\\F1"}), 0).status, STATUS_SUCCESS);
    EXPECT_EQ(Control(IOCTL_RENAME_INDEX_PATH, Slots({u"C:\\a", u"C:\\b"}), 0).status, STATUS_INVALID_DEVICE_REQUEST);
    r = Control(IOCTL_START_FILTERING, {}, 1);
    EXPECT_EQ(r.output[0], 0);

    EXPECT_EQ(Control(IOCTL_STOP_FILTERING, {}, 0).status, STATUS_SUCCESS);
    g_bFilteringEnabled = 1;
    EXPECT_EQ(Control(IOCTL_RENAME_INDEX_PATH, Slots({u"C:\\a", u"C:\\b"}), 0).status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(Control(IOCTL_STOP_FILTERING, {}, 0).status, STATUS_SUCCESS);
    EXPECT_EQ(g_bFilteringEnabled, 0);
}

TEST_F(ControlTest, FilterListIsSetOnceAndHidesAllButTheLastRoot) {
    ControlResult r = Control(IOCTL_SET_FILTER_LIST, Slots({u"D:\\Pack", u"D:\\Mid", u"D:\\Base"}), 0);
    ASSERT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(Control(IOCTL_SET_FILTER_LIST, Slots({u"E:\\Other"}), 0).status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(LogCount(IOCTL_GET_FILTER_COUNT), 3u);
    EXPECT_EQ(SlotPath(Control(IOCTL_GET_FILTER_LIST, {}, 520).output, 0), u"D:\\Pack");
    Kernel([] {
        for (auto [path, hidden] : {std::pair{L"D:\\Pack", TRUE}, {L"D:\\Mid", TRUE}, {L"D:\\Base", FALSE}}) {
            UNICODE_STRING s;
            RtlInitUnicodeString(&s, path);
            EXPECT_EQ(IsPathHidden(&s), hidden);
        }
    });
}

TEST_F(ControlTest, ProcessesThroughTheProtocol) {
    ASSERT_EQ(Control(IOCTL_ADD_PROCESS, ProcessRecord(5, u"five.exe"), 0).status, STATUS_SUCCESS);
    ASSERT_EQ(Control(IOCTL_ADD_PROCESS, ProcessRecord(6, u"six.exe"), 0).status, STATUS_SUCCESS);
    std::vector<uint8_t> five = {5, 0, 0, 0};
    EXPECT_EQ(Control(IOCTL_REMOVE_PROCESS, five, 0).status, STATUS_SUCCESS);
    EXPECT_EQ(LogCount(IOCTL_GET_PROCESS_COUNT), 1u);
    EXPECT_EQ(Control(IOCTL_CLEAR_PROCESS_LIST, {}, 0).status, STATUS_SUCCESS);
    EXPECT_EQ(LogCount(IOCTL_GET_PROCESS_COUNT), 0u);
    EXPECT_EQ(Control(IOCTL_REMOVE_EXCLUSIONS, Slots({u"C:\\none"}), 0).status, STATUS_SUCCESS);
}

}  // namespace
}  // namespace tervane::test
