// Opens on the hooked volume: which filter directory serves a monitored
// process's open, by disposition, and which opens go straight down.
#include "test_dispatch_support.h"

#include "core/tervane.h"
#include "filemgr/file_handle_table.h"

namespace tervane::test {
namespace {

class CreateTest : public DispatchTest {
protected:
    void SetUp() override {
        DispatchTest::SetUp();
        HostFile(std::string(kMid) + "/dir/both.txt", "mid");
        HostFile(std::string(kBase) + "/dir/both.txt", "base");
        HostFile(std::string(kBase) + "/dir/low.txt", "low");
        HostFile(std::string(kBase) + "/dir/unindexed.txt", "x");
        HostFile("dir/real.txt", "volume");
        Configure();
        // Present on disk but not in the base's index: not part of the view.
        HostFile(std::string(kBase) + "/dir/late.txt", "late");
    }
};

// Where each disposition opens, and what lands in the pack location.
TEST_F(CreateTest, DispositionChoosesTheFilterDirectory) {
    struct Case {
        const char* name;
        const char16_t* path;
        ULONG disposition;
        NTSTATUS status;
        ULONG_PTR information;
        const char* content;    // what the open then reads
        const char* packFile;   // host file expected in the pack afterwards, or null
    };
    const Case cases[] = {
        {"open takes the lowest holder", u"C:\\dir\\both.txt", FILE_OPEN, STATUS_SUCCESS, FILE_OPENED, "mid", nullptr},
        {"open of the last layer", u"C:\\dir\\low.txt", FILE_OPEN, STATUS_SUCCESS, FILE_OPENED, "low", nullptr},
        {"open of a name missing everywhere", u"C:\\dir\\none.txt", FILE_OPEN, STATUS_OBJECT_NAME_NOT_FOUND, 0,
         nullptr, nullptr},
        // The driver's own opens pass its create completion too: a missing
        // directory reads as a missing name.
        {"open of a missing directory", u"C:\\nodir\\none.txt", FILE_OPEN, STATUS_OBJECT_NAME_NOT_FOUND, 0, nullptr,
         nullptr},
        {"open of a file the index does not list", u"C:\\dir\\late.txt", FILE_OPEN, STATUS_OBJECT_NAME_NOT_FOUND, 0,
         nullptr, nullptr},
        {"create of an existing lower file fails where it lies", u"C:\\dir\\low.txt", FILE_CREATE,
         STATUS_OBJECT_NAME_COLLISION, 0, nullptr, nullptr},
        {"create of a new file goes to the pack", u"C:\\new\\made.txt", FILE_CREATE, STATUS_SUCCESS, FILE_CREATED, "",
         "layers/pack/new/made.txt"},
        {"open-if of a lower file opens it there", u"C:\\dir\\low.txt", FILE_OPEN_IF, STATUS_SUCCESS, FILE_OPENED,
         "low", nullptr},
        {"overwrite-if replaces a lower file in the pack", u"C:\\dir\\both.txt", FILE_OVERWRITE_IF, STATUS_SUCCESS,
         FILE_OVERWRITTEN, "", "layers/pack/dir/both.txt"},
        {"supersede replaces a lower file in the pack", u"C:\\dir\\low.txt", FILE_SUPERSEDE, STATUS_SUCCESS,
         FILE_CREATED, "", "layers/pack/dir/low.txt"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        OpenResult open = Open(app, c.path, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, c.disposition);
        EXPECT_EQ(open.status, c.status) << emu::StatusName(open.status);
        if (!NT_SUCCESS(open.status)) continue;
        EXPECT_EQ(open.information, c.information);
        std::string data;
        EXPECT_TRUE(NT_SUCCESS(Read(app, open.handle, &data, 100, 0)) || std::string(c.content).empty());
        EXPECT_EQ(data, c.content);
        Close(app, open.handle);
        if (c.packFile != nullptr) {
            EXPECT_TRUE(HostExists(c.packFile));
        }
    }
    // The lower filter directories are never written.
    EXPECT_EQ(HostContent(std::string(kMid) + "/dir/both.txt"), "mid");
    EXPECT_EQ(HostContent(std::string(kBase) + "/dir/low.txt"), "low");
}

// An overwrite of a lower file with each of its allocations refused in turn
// either overwrites (the file was there: FILE_OVERWRITTEN) or fails; it never
// reports a new file, and the lower file stays as it was.
TEST_F(CreateTest, EveryFailedAllocationOfAnOverwriteFailsOrOverwrites) {
    const std::string pack = std::string(kPack) + "/dir/low.txt";
    uint64_t allocationsOfAnOpen = 0;  // counted by the run with n = 0
    uint64_t failedOpens = 0;
    for (uint64_t n = 0; n <= allocationsOfAnOpen; n++) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        const uint64_t allocations = machine->AllocationCount();
        if (n != 0) machine->FailNthAllocation(n);
        OpenResult open = Open(app, u"C:\\dir\\low.txt", GENERIC_WRITE | SYNCHRONIZE, FILE_OVERWRITE_IF);
        machine->ClearFaultInjection();
        if (n == 0) allocationsOfAnOpen = machine->AllocationCount() - allocations;
        if (NT_SUCCESS(open.status)) {
            EXPECT_EQ(open.information, ULONG_PTR(FILE_OVERWRITTEN));
            Close(app, open.handle);
        } else {
            failedOpens++;
        }
        EXPECT_EQ(HostContent(std::string(kBase) + "/dir/low.txt"), "low");
        std::filesystem::remove(host / pack);
    }
    EXPECT_GT(failedOpens, 0u);
}

// Processes that are not monitored, and the driver's own opens, see the volume.
TEST_F(CreateTest, UnmonitoredAndBypassedOpensSeeTheRealVolume) {
    EXPECT_EQ(Cat(other, u"C:\\dir\\real.txt"), "volume");
    EXPECT_EQ(Cat(other, u"C:\\dir\\both.txt"), "<STATUS_OBJECT_NAME_NOT_FOUND>");
    EXPECT_EQ(Cat(app, u"C:\\dir\\real.txt"), "<STATUS_OBJECT_NAME_NOT_FOUND>");
    // A missing parent reads as a missing name for an unmonitored process.
    EXPECT_EQ(Open(other, u"C:\\nodir\\x.txt").status, STATUS_OBJECT_NAME_NOT_FOUND);
    // The bypass suffix is the driver's own: a process's name ending in it is
    // not stripped, so it neither escapes the view nor reaches a layer.
    struct Case {
        emu::Process* process;
        const char16_t* path;
        ACCESS_MASK access;
        ULONG disposition;
    };
    const Case cases[] = {
        {app, u"C:\\dir\\real.txt_??$", GENERIC_READ | SYNCHRONIZE, FILE_OPEN},
        {app, u"C:\\layers\\base\\dir\\low.txt_??$", GENERIC_WRITE | SYNCHRONIZE, FILE_OPEN_IF},
        {app, u"C:\\fresh\\new.txt_??$", GENERIC_WRITE | SYNCHRONIZE, FILE_CREATE},
        {other, u"C:\\layers\\mid\\dir\\both.txt_??$", GENERIC_READ | SYNCHRONIZE, FILE_OPEN},
        // Not the suffix either: other case or order, or something after it.
        {other, u"C:\\dir\\real.txt_??$x", GENERIC_READ | SYNCHRONIZE, FILE_OPEN},
        {app, u"C:\\dir\\real.txt$??_", GENERIC_READ | SYNCHRONIZE, FILE_OPEN},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(emu::Utf16ToUtf8(c.path));
        EXPECT_EQ(Open(c.process, c.path, c.access, c.disposition).status, STATUS_OBJECT_NAME_INVALID);
    }
    EXPECT_EQ(HostContent(std::string(kBase) + "/dir/low.txt"), "low");
    EXPECT_FALSE(HostExists(std::string(kPack) + "/layers"));
    EXPECT_FALSE(HostExists(std::string(kPack) + "/fresh"));
    // A kernel-mode open, as the driver makes its own, is stripped and passed down.
    App([&] {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, L"\\??\\C:\\dir\\real.txt_??$");
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
        IO_STATUS_BLOCK iosb;
        HANDLE h = nullptr;
        ASSERT_EQ(ZwCreateFile(&h, GENERIC_READ | SYNCHRONIZE, &oa, &iosb, nullptr, 0, FILE_SHARE_READ, FILE_OPEN,
                               FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0),
                  STATUS_SUCCESS);
        char data[6] = {};
        EXPECT_EQ(ZwReadFile(h, nullptr, nullptr, nullptr, &iosb, data, sizeof(data), nullptr, nullptr),
                  STATUS_SUCCESS);
        EXPECT_EQ(std::string(data, sizeof(data)), "volume");
        ZwClose(h);
    });
}

// Names relative to an open directory resolve through that open's path.
TEST_F(CreateTest, RelativeNames) {
    OpenResult dir = Open(app, u"C:\\dir", FILE_LIST_DIRECTORY | SYNCHRONIZE, FILE_OPEN,
                          FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    ASSERT_EQ(dir.status, STATUS_SUCCESS);
    OpenResult file = Open(app, u"both.txt", GENERIC_READ | SYNCHRONIZE, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT,
                           FILE_SHARE_READ, dir.handle);
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    std::string data;
    EXPECT_EQ(Read(app, file.handle, &data, 10, 0), STATUS_SUCCESS);
    EXPECT_EQ(data, "mid");
    Close(app, file.handle);
    Close(app, dir.handle);
    // A closed handle as the root is refused before the driver sees the open.
    EXPECT_EQ(Open(app, u"both.txt", GENERIC_READ | SYNCHRONIZE, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT,
                   FILE_SHARE_READ, dir.handle)
                  .status,
              STATUS_INVALID_HANDLE);
}

TEST_F(CreateTest, HostileNamesGetAClearStatus) {
    std::u16string longName = u"C:\\dir\\" + std::u16string(1100, u'a');
    EXPECT_FALSE(NT_SUCCESS(Open(app, longName).status));
    std::u16string longCreate = u"C:\\dir\\" + std::u16string(1100, u'b');
    EXPECT_FALSE(NT_SUCCESS(Open(app, longCreate, GENERIC_WRITE | SYNCHRONIZE, FILE_CREATE).status));
    // A short name that matches nothing stays as written and is not found.
    EXPECT_EQ(Open(app, u"C:\\dir\\NOSUCH~1.TXT").status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_TRUE(machine->HandleLines(1234).empty()) << ::testing::PrintToString(machine->HandleLines(1234));
}

TEST_F(CreateTest, CreateLogLine) {
    OpenResult open = Open(app, u"C:\\dir\\both.txt");
    ASSERT_EQ(open.status, STATUS_SUCCESS);
    Close(app, open.handle);
    EXPECT_EQ(LogCount("TervaneCreate() ("), LogCount("CreateFile\t[C:\\dir\\both.txt] /w Access[120089]"));
    EXPECT_GE(LogCount("CreateFile\t[C:\\dir\\both.txt] /w Access[120089] FileAttrib[80] Share[7] Option[20] "
                       "Res[0] Status[0] Info[1]"),
              1u);
}

}  // namespace
}  // namespace tervane::test
