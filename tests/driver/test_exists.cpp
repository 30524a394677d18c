// Existence across filter directories: CheckFileExists, FiltCheckFileExists.
#include "test_exists_support.h"

namespace tervane::test {
namespace {

class ExistsTest : public LayersTest {
protected:
    // L0: only0, both01, d0only\; L1: both01, only1, hid01, dir1\sub; L2 (indexed): in2, both02, dir2\x;
    // "unlisted2" is on disk in L2 but not in its index; "ghost" is in the index only.
    void Populate() {
        HostFile("L0/only0.txt", "0");
        HostFile("L0/both01.txt", "0");
        HostFile("L0/both02.txt", "0");
        HostFile("L0/hid01.txt", "0");
        HostDir("L0/d0only");
        HostFile("L1/both01.txt", "1");
        HostFile("L1/only1.txt", "1");
        HostFile("L1/hid01.txt", "1");
        HostFile("L1/dir1/sub.txt", "1");
        HostFile("L2/in2.txt", "2");
        HostFile("L2/both02.txt", "2");
        HostFile("L2/dir2/x.txt", "2");
        HostFile("L2/unlisted2.txt", "2");
        std::vector<std::u16string> index = {u"\\in2.txt", u"\\both02.txt", u"\\dir2\\x.txt", u"\\ghost.txt"};
        Configure(&index);
    }
};

TEST_F(ExistsTest, MaskNamesEveryFilterDirectoryThatHoldsThePath) {
    Populate();
    Hide(u"C:\\hid01.txt");
    struct Case {
        std::u16string path;
        ULONG mask;
        ULONG expected;
    } cases[] = {
        {u"C:\\only0.txt", kAll, 1},
        {u"C:\\only1.txt", kAll, 2},
        {u"C:\\only1.txt", 1, 0},
        {u"C:\\only1.txt", 4, 0},
        {u"C:\\both01.txt", kAll, 3},
        {u"C:\\both01.txt", 2, 2},
        {u"c:\\BOTH02.TXT", kAll, 5},
        {u"C:\\in2.txt", kAll, 4},
        {u"C:\\dir2\\x.txt", kAll, 4},
        {u"C:\\dir2", kAll, 4},              // directories count alike
        {u"C:\\d0only", kAll, 1},
        {u"C:\\unlisted2.txt", kAll, 0},     // on disk, but the index does not list it
        {u"C:\\ghost.txt", kAll, 0},         // listed, but not on disk
        {u"C:\\hid01.txt", kAll, 1},         // hidden: only filter directory 0 counts
        {u"C:\\nowhere.txt", kAll, 0},
        {u"C:\\", kAll, 7},                  // every root exists
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Exists(c.path, c.mask), c.expected) << std::string(c.path.begin(), c.path.end()) << " mask "
                                                      << c.mask;
    }
    EXPECT_EQ(LogCount("unknown err["), 0u);
}

TEST_F(ExistsTest, StatusOutRanksSuccessOverNameOverPathNotFound) {
    Populate();
    struct Case {
        std::u16string path;
        ULONG mask;
        NTSTATUS initial;
        NTSTATUS expected;
    } cases[] = {
        // Parent only in L1.
        {u"C:\\dir1\\missing.txt", kAll, 0x12345678, STATUS_OBJECT_NAME_NOT_FOUND},
        // The create handler reports a missing path of the driver's own opens as a missing name.
        {u"C:\\nodir\\missing.txt", kAll, 0x12345678, STATUS_OBJECT_NAME_NOT_FOUND},
        {u"C:\\missing.txt", kAll, 0x12345678, STATUS_OBJECT_NAME_NOT_FOUND},
        {u"C:\\in2.txt", kAll, 0x12345678, STATUS_SUCCESS},
        {u"C:\\only0.txt", kAll, 0x12345678, STATUS_SUCCESS},
        // Without flag 1 the caller's own value is the starting point.
        {u"C:\\only1.txt", 2, STATUS_OBJECT_NAME_NOT_FOUND, STATUS_SUCCESS},
        {u"C:\\only1.txt", 2, STATUS_ACCESS_DENIED, STATUS_ACCESS_DENIED},
        {u"C:\\only1.txt", 4, 0x12345678, 0x12345678},
    };
    for (const auto& c : cases) {
        NTSTATUS status = c.initial;
        Exists(c.path, c.mask, &status);
        EXPECT_EQ(status, c.expected) << std::string(c.path.begin(), c.path.end());
    }
}

TEST_F(ExistsTest, AnObjectThatCannotBeOpenedForReadingCountsAsAbsent) {
    Populate();
    HANDLE held;
    ASSERT_EQ(OpenReal(u"C:\\L0\\both01.txt", &held, GENERIC_READ | SYNCHRONIZE, 0), STATUS_SUCCESS);
    NTSTATUS status = 0;
    EXPECT_EQ(Exists(u"C:\\both01.txt", kAll, &status), 2u);
    EXPECT_EQ(status, STATUS_SHARING_VIOLATION) << "filter directory 0's failure stays";
    EXPECT_EQ(LogCount("unknown err[" + std::to_string((int)STATUS_SHARING_VIOLATION) +
                    "] for [\\DosDevices\\C:\\L0\\both01.txt]"),
              1u);
    Close(held);
}

TEST_F(ExistsTest, HiddenAndUnlistedPathsAreNeverProbedOnDisk) {
    Populate();
    // Held without sharing: a probe would fail and log.
    HANDLE heldUnlisted, heldHidden;
    ASSERT_EQ(OpenReal(u"C:\\L2\\unlisted2.txt", &heldUnlisted, GENERIC_READ | SYNCHRONIZE, 0), STATUS_SUCCESS);
    ASSERT_EQ(OpenReal(u"C:\\L1\\only1.txt", &heldHidden, GENERIC_READ | SYNCHRONIZE, 0), STATUS_SUCCESS);
    Hide(u"C:\\only1.txt");
    EXPECT_EQ(Exists(u"C:\\unlisted2.txt"), 0u);
    EXPECT_EQ(Exists(u"C:\\only1.txt"), 0u);
    EXPECT_EQ(LogCount("unknown err["), 0u);
    Close(heldUnlisted);
    Close(heldHidden);
}

}  // namespace
}  // namespace tervane::test
