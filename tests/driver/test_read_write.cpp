// Reads and writes on redirected opens: data from the filter directory that
// serves the open, copy-up before the first write, and the file position.
#include "test_dispatch_support.h"

#include "core/tervane.h"
#include "dispatch/file_handle_table.h"

namespace tervane::test {
namespace {

class ReadWriteTest : public DispatchTest {
protected:
    void SetUp() override {
        DispatchTest::SetUp();
        HostFile(std::string(kBase) + "/dir/base.txt", "0123456789");
        HostFile(std::string(kMid) + "/dir/mid.txt", "middle");
        Configure();
    }
    LONGLONG Position(HANDLE handle) {
        FILE_POSITION_INFORMATION info = {};
        App([&] {
            IO_STATUS_BLOCK iosb;
            EXPECT_EQ(NtQueryInformationFile(handle, &iosb, &info, sizeof(info), FilePositionInformation),
                      STATUS_SUCCESS);
        });
        return info.CurrentByteOffset.QuadPart;
    }
};

TEST_F(ReadWriteTest, ReadsFollowTheRealFilePosition) {
    OpenResult open = Open(app, u"C:\\dir\\base.txt");
    ASSERT_EQ(open.status, STATUS_SUCCESS);
    struct Step {
        ULONG length;
        LONGLONG offset;  // -1: the current position
        const char* data;
        LONGLONG positionAfter;
    };
    const Step steps[] = {{4, -1, "0123", 4}, {3, -1, "456", 7}, {2, 1, "12", 3}, {20, -1, "3456789", 10}};
    for (const Step& step : steps) {
        std::string data;
        EXPECT_EQ(Read(app, open.handle, &data, step.length, step.offset), STATUS_SUCCESS);
        EXPECT_EQ(data, step.data);
        EXPECT_EQ(Position(open.handle), step.positionAfter);
    }
    std::string data;
    EXPECT_EQ(Read(app, open.handle, &data, 5), STATUS_END_OF_FILE);
    EXPECT_EQ(FilterFlagOf(open.handle), 4u) << "reads never move the file";
    Close(app, open.handle);
    EXPECT_GE(LogCount("ReadFile\t[C:\\dir\\base.txt] /w Length[4] OffsetHigh[0] OffsetLow[0] Res[0] Status[0] Info[4]"),
              1u);
}

// The first write copies the file into the pack and writes there; the lower
// copy keeps its bytes, and the next write makes no second copy.
TEST_F(ReadWriteTest, FirstWriteCopiesUp) {
    struct Case {
        const char16_t* path;
        const char* lower;
        const char* original;
        ULONG flagBefore;
    };
    const Case cases[] = {{u"C:\\dir\\base.txt", kBase, "0123456789", 4}, {u"C:\\dir\\mid.txt", kMid, "middle", 2}};
    for (const Case& c : cases) {
        SCOPED_TRACE(emu::Utf16ToUtf8(c.path));
        OpenResult open = Open(app, c.path, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE);
        ASSERT_EQ(open.status, STATUS_SUCCESS);
        EXPECT_EQ(FilterFlagOf(open.handle), c.flagBefore);
        const size_t copiesBefore = LogCount("Copy to pack location succeeded!!");
        EXPECT_EQ(Write(app, open.handle, "AB", 2), STATUS_SUCCESS);
        EXPECT_EQ(FilterFlagOf(open.handle), 1u);
        EXPECT_EQ(Write(app, open.handle, "Z"), STATUS_SUCCESS) << "continues at the position after the write";
        EXPECT_EQ(LogCount("Copy to pack location succeeded!!"), copiesBefore + 1);
        Close(app, open.handle);

        std::string expected = c.original;
        expected.replace(2, 3, "ABZ");
        const std::string name = emu::Utf16ToUtf8(c.path).substr(3);
        EXPECT_EQ(HostContent(std::string(kPack) + "/dir/" + name.substr(4)), expected);
        EXPECT_EQ(HostContent(std::string(c.lower) + "/dir/" + name.substr(4)), c.original);
        EXPECT_EQ(Cat(app, c.path), expected);
    }
}

TEST_F(ReadWriteTest, RejectedWriteReportsTheFileSystemStatus) {
    OpenResult open = Open(app, u"C:\\dir\\base.txt");  // read access only
    ASSERT_EQ(open.status, STATUS_SUCCESS);
    EXPECT_EQ(Write(app, open.handle, "x", 0), STATUS_ACCESS_DENIED);
    Close(app, open.handle);
    EXPECT_EQ(HostContent(std::string(kBase) + "/dir/base.txt"), "0123456789");
}

TEST_F(ReadWriteTest, WriteAtEndOfFile) {
    OpenResult open = Open(app, u"C:\\dir\\mid.txt", GENERIC_WRITE | SYNCHRONIZE);
    ASSERT_EQ(open.status, STATUS_SUCCESS);
    EXPECT_EQ(Write(app, open.handle, "+1", kEndOfFile), STATUS_SUCCESS);
    EXPECT_EQ(Write(app, open.handle, "+2"), STATUS_SUCCESS) << "the position follows the real file";
    Close(app, open.handle);
    EXPECT_EQ(Cat(app, u"C:\\dir\\mid.txt"), "middle+1+2");
    EXPECT_EQ(Cat(other, u"C:\\layers\\mid\\dir\\mid.txt"), "middle");
}

}  // namespace
}  // namespace tervane::test
