// Reads and writes on redirected opens: data from the filter directory that
// serves the open, copy-up before the first write, and the file position.
#include "test_dispatch_support.h"

#include <functional>

#include "core/tervane.h"
#include "filemgr/file_handle_table.h"

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

// Two opens of one lower file write at the same moment: the file is copied
// up once, neither write fails or lands in the lower file, and each reads
// back through the other open.
TEST_F(ReadWriteTest, TwoOpensCopyingAtOnceTakeTurns) {
    const std::string original(1 << 20, 'm');  // a copy of 64 requests
    HostFile(std::string(kMid) + "/dir/big.bin", original);
    OpenResult a = Open(app, u"C:\\dir\\big.bin", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE);
    OpenResult b = Open(app, u"C:\\dir\\big.bin", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE);
    ASSERT_EQ(a.status, STATUS_SUCCESS);
    ASSERT_EQ(b.status, STATUS_SUCCESS);
    NTSTATUS statusA = STATUS_PENDING, statusB = STATUS_PENDING;
    auto writer = [&](HANDLE handle, LONGLONG offset, const char* data, NTSTATUS* status) {
        return machine->StartThread(app, [=] {
            IO_STATUS_BLOCK iosb;
            LARGE_INTEGER at;
            at.QuadPart = offset;
            *status = NtWriteFile(handle, nullptr, nullptr, nullptr, &iosb, (PVOID)data, 1, &at, nullptr);
        });
    };
    auto threadA = writer(a.handle, 0, "A", &statusA);
    auto threadB = writer(b.handle, 1, "B", &statusB);
    threadA->Join();
    threadB->Join();
    EXPECT_EQ(statusA, STATUS_SUCCESS);
    EXPECT_EQ(statusB, STATUS_SUCCESS);
    for (HANDLE handle : {a.handle, b.handle}) {
        std::string data;
        EXPECT_EQ(Read(app, handle, &data, 3, 0), STATUS_SUCCESS);
        EXPECT_EQ(data, "ABm");
        EXPECT_EQ(FilterFlagOf(handle), 1u);
    }
    Close(app, a.handle);
    Close(app, b.handle);
    EXPECT_EQ(HostContent(std::string(kMid) + "/dir/big.bin"), original);
    EXPECT_EQ(LogCount("cannot open dest file"), 0u) << "the second copy-up takes the first one's copy";
}

static uint64_t PoolAllocations(emu::Machine& machine) {
    uint64_t sum = 0;
    for (const auto& usage : machine.PoolUsage()) sum += usage.allocs;
    return sum;
}

// Whatever allocation of a first write fails (the copy-up's, or the write's
// own), the write either fails with a failure status and the view still
// shows the file as it was, or it succeeds and reads back; the lower file
// never changes and nothing is left allocated.
TEST_F(ReadWriteTest, EveryFailedAllocationOfACopyUpFailsTheWriteAndKeepsTheLowerFile) {
    const std::string pack = std::string(kPack) + "/dir/base.txt";
    // n = 0: no failure, which counts the allocations of a first write.
    uint64_t allocationsOfAWrite = 0;
    uint64_t failedWrites = 0;
    for (uint64_t n = 0; n <= allocationsOfAWrite; n++) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        OpenResult open = Open(app, u"C:\\dir\\base.txt", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE);
        ASSERT_EQ(open.status, STATUS_SUCCESS);
        const size_t copies = LogCount("Copy to pack location succeeded!!");
        const uint64_t allocations = PoolAllocations(*machine);
        if (n != 0) machine->FailNthAllocation(n);
        const NTSTATUS status = Write(app, open.handle, "XY", 0);
        machine->ClearFaultInjection();
        if (n == 0) allocationsOfAWrite = PoolAllocations(*machine) - allocations;

        EXPECT_EQ(HostContent(std::string(kBase) + "/dir/base.txt"), "0123456789");
        std::string data;
        EXPECT_TRUE(NT_SUCCESS(Read(app, open.handle, &data, 20, 0)));
        if (NT_SUCCESS(status)) {
            EXPECT_EQ(LogCount("Copy to pack location succeeded!!"), copies + 1) << "no write without a copy";
            EXPECT_EQ(data, "XY23456789");
        } else {
            failedWrites++;
            EXPECT_EQ(data, "0123456789") << emu::StatusName(status);
        }
        Close(app, open.handle);
        EXPECT_EQ(Cat(app, u"C:\\dir\\base.txt"), data);
        std::filesystem::remove(host / pack);
    }
    EXPECT_GT(allocationsOfAWrite, 10u);
    EXPECT_GT(failedWrites, 0u);
}

// Every request that needs a copy-up fails with the copy-up's status when
// the copy cannot be made, and the lower file stays as it was.
TEST_F(ReadWriteTest, RequestsThatNeedACopyUpFailWithIt) {
    OpenResult open = Open(app, u"C:\\dir\\mid.txt", GENERIC_READ | GENERIC_WRITE | WRITE_DAC | SYNCHRONIZE);
    ASSERT_EQ(open.status, STATUS_SUCCESS);
    struct Trigger {
        const char* name;
        std::function<NTSTATUS()> request;
    };
    const Trigger triggers[] = {
        {"write", [&] { return Write(app, open.handle, "w", 0); }},
        {"exclusive lock",
         [&] {
             NTSTATUS status = STATUS_SUCCESS;
             App([&] {
                 IO_STATUS_BLOCK iosb;
                 LARGE_INTEGER at, length;
                 at.QuadPart = 0;
                 length.QuadPart = 1;
                 status = NtLockFile(open.handle, nullptr, nullptr, nullptr, &iosb, &at, &length, 0, TRUE, TRUE);
             });
             return status;
         }},
        {"end of file",
         [&] {
             NTSTATUS status = STATUS_SUCCESS;
             App([&] {
                 IO_STATUS_BLOCK iosb;
                 FILE_END_OF_FILE_INFORMATION eof = {};
                 status = NtSetInformationFile(open.handle, &iosb, &eof, sizeof(eof), FileEndOfFileInformation);
             });
             return status;
         }},
        {"security",
         [&] {
             SECURITY_DESCRIPTOR_RELATIVE sd = {};
             sd.Revision = SECURITY_DESCRIPTOR_REVISION;
             sd.Control = SE_SELF_RELATIVE | SE_DACL_PRESENT;
             NTSTATUS status = STATUS_SUCCESS;
             App([&] { status = NtSetSecurityObject(open.handle, DACL_SECURITY_INFORMATION, &sd); });
             return status;
         }},
    };
    for (const Trigger& t : triggers) {
        SCOPED_TRACE(t.name);
        machine->FailAllocationsWithTag("Trvm");
        EXPECT_EQ(t.request(), STATUS_INSUFFICIENT_RESOURCES);
        machine->ClearFaultInjection();
        EXPECT_EQ(FilterFlagOf(open.handle), 2u);
    }
    Close(app, open.handle);
    EXPECT_EQ(HostContent(std::string(kMid) + "/dir/mid.txt"), "middle");
    EXPECT_FALSE(HostExists(std::string(kPack) + "/dir/mid.txt"));
}

}  // namespace
}  // namespace tervane::test
