// The control protocol with a real volume: the index of the last filter
// directory is loaded once, switches filtering on, and takes renames only
// while filtering is off.
#include "test_core_support.h"
#include "control/filter_directory.h"
#include "index/file_index.h"
#include "indexfile/indexfile.h"

namespace tervane::test {
namespace {

class ControlIndexTest : public DriverTest {
protected:
    ControlIndexTest() { mountHost = true; }
    void SetUp() override {
        DriverTest::SetUp();
        indexfile::IndexBuilder builder;
        std::string error;
        ASSERT_TRUE(builder.Add(u"C:\\app\\a.txt", indexfile::kTypeFile, &error)) << error;
        HostDir("idx");
        ASSERT_TRUE(indexfile::WriteIndexFiles(builder.Files(), host / "idx/nodes", host / "idx/names", &error))
            << error;
        ASSERT_EQ(Load(), STATUS_SUCCESS);
    }
    BOOLEAN InIndex(const std::u16string& path) {
        BOOLEAN found = FALSE;
        Kernel([&] {
            UNICODE_STRING s = emu::MakeUnicodeString(path);
            ULONG last = 0;
            GetFilterDirectoryCount(&last);
            found = LookupFilterIndex(GetFilterDirectory(last)->m_ppIndexHolder, &s);
        });
        return found;
    }
};

TEST_F(ControlIndexTest, LoadOnceStartAndRename) {
    const std::vector<uint8_t> record = Slots({u"C:\\idx\\nodes", u"C:\\idx\\names"});
    ASSERT_EQ(Control(IOCTL_SET_FILTER_LIST, Slots({u"C:\\pack", u"C:\\base"}), 0).status, STATUS_SUCCESS);
    ASSERT_EQ(Control(IOCTL_LOAD_FILTER_INDEX, record, 0).status, STATUS_SUCCESS);
    EXPECT_EQ(Control(IOCTL_LOAD_FILTER_INDEX, record, 0).status, STATUS_INVALID_DEVICE_REQUEST) << "loaded once";
    EXPECT_TRUE(InIndex(u"C:\\app\\a.txt"));
    EXPECT_FALSE(InIndex(u"C:\\app\\b.txt"));

    ControlResult start = Control(IOCTL_START_FILTERING, {}, 1);
    EXPECT_EQ(start.status, STATUS_SUCCESS);
    EXPECT_EQ(start.output[0], 1);
    EXPECT_EQ(g_bFilteringEnabled, 1);
    const std::vector<uint8_t> rename = Slots({u"C:\\app\\a.txt", u"C:\\app\\b.txt"});
    EXPECT_EQ(Control(IOCTL_RENAME_INDEX_PATH, rename, 0).status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_TRUE(InIndex(u"C:\\app\\a.txt"));

    EXPECT_EQ(Control(IOCTL_STOP_FILTERING, {}, 0).status, STATUS_SUCCESS);
    EXPECT_EQ(Control(IOCTL_RENAME_INDEX_PATH, rename, 0).status, STATUS_SUCCESS);
    EXPECT_FALSE(InIndex(u"C:\\app\\a.txt"));
    EXPECT_TRUE(InIndex(u"C:\\app\\b.txt"));
    // The rename's own answer is not reported.
    EXPECT_EQ(Control(IOCTL_RENAME_INDEX_PATH, Slots({u"C:\\none", u"C:\\other"}), 0).status, STATUS_SUCCESS);
}

TEST_F(ControlIndexTest, FailedLoadLeavesFilteringOff) {
    ASSERT_EQ(Control(IOCTL_SET_FILTER_LIST, Slots({u"C:\\pack", u"C:\\base"}), 0).status, STATUS_SUCCESS);
    EXPECT_EQ(Control(IOCTL_LOAD_FILTER_INDEX, Slots({u"C:\\idx\\missing", u"C:\\idx\\names"}), 0).status,
              STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(Control(IOCTL_START_FILTERING, {}, 1).output[0], 0);
    // A failed load may be followed by one that succeeds.
    EXPECT_EQ(Control(IOCTL_LOAD_FILTER_INDEX, Slots({u"C:\\idx\\nodes", u"C:\\idx\\names"}), 0).status,
              STATUS_SUCCESS);
    EXPECT_EQ(Control(IOCTL_START_FILTERING, {}, 1).output[0], 1);
    EXPECT_EQ(Control(IOCTL_STOP_FILTERING, {}, 0).status, STATUS_SUCCESS);
}

}  // namespace
}  // namespace tervane::test
