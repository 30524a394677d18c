// Directory control on redirected opens: the merged listing as a monitored
// process gets it through NtQueryDirectoryFile, its pattern, restart and
// single-entry switches, the end-of-listing statuses, and the refused change
// notification.
#include "test_dispatch_support.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "filemgr/file_handle_table.h"

namespace tervane::test {
namespace {

using Names = std::vector<std::string>;

struct ClassLayout {
    FILE_INFORMATION_CLASS cls;
    ULONG nameLengthAt;
    ULONG nameAt;
};
#define LAYOUT(cls, type) {cls, FIELD_OFFSET(type, FileNameLength), FIELD_OFFSET(type, FileName)}
const ClassLayout kClasses[] = {
    LAYOUT(FileDirectoryInformation, FILE_DIRECTORY_INFORMATION),
    LAYOUT(FileFullDirectoryInformation, FILE_FULL_DIR_INFORMATION),
    LAYOUT(FileBothDirectoryInformation, FILE_BOTH_DIR_INFORMATION),
    LAYOUT(FileNamesInformation, FILE_NAMES_INFORMATION),
    LAYOUT(FileIdBothDirectoryInformation, FILE_ID_BOTH_DIR_INFORMATION),
    LAYOUT(FileIdFullDirectoryInformation, FILE_ID_FULL_DIR_INFORMATION),
};
#undef LAYOUT
const ClassLayout& kNames = kClasses[3];

Names Sorted(Names names) {
    std::sort(names.begin(), names.end());
    return names;
}

class DirectoryControlTest : public DispatchTest {
protected:
    void SetUp() override {
        DispatchTest::SetUp();
        HostFile(std::string(kPack) + "/dir/a.txt", "a");
        HostFile(std::string(kMid) + "/dir/m.txt", "m");
        HostFile(std::string(kBase) + "/dir/b.txt", "b");
        HostDir(std::string(kMid) + "/gone");
        Configure();
        // On disk but not in the base's index: never listed.
        HostFile(std::string(kBase) + "/dir/late.txt", "late");
    }
    OpenResult OpenDir(const std::u16string& path, ULONG options = 0, ACCESS_MASK access = 0) {
        return Open(app, path, FILE_LIST_DIRECTORY | SYNCHRONIZE | access, FILE_OPEN,
                    FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT | options);
    }
    // One NtQueryDirectoryFile call; the names of the records it returned.
    NTSTATUS Query(HANDLE dir, const ClassLayout& layout, Names* names, bool single = false, bool restart = false,
                   const char16_t* pattern = nullptr, ULONG_PTR* information = nullptr) {
        std::vector<uint8_t> buffer(4096, 0xCD);
        std::u16string patternText = pattern != nullptr ? pattern : u"";
        UNICODE_STRING patternString = emu::MakeUnicodeString(patternText);
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        IO_STATUS_BLOCK iosb = {};
        App([&] {
            status = NtQueryDirectoryFile(dir, nullptr, nullptr, nullptr, &iosb, buffer.data(), ULONG(buffer.size()),
                                          layout.cls, single, pattern != nullptr ? &patternString : nullptr, restart);
        });
        if (information != nullptr) *information = iosb.Information;
        names->clear();
        if (!NT_SUCCESS(status)) return status;
        for (ULONG at = 0; at + layout.nameAt <= iosb.Information;) {
            ULONG nameLength = *reinterpret_cast<ULONG*>(&buffer[at + layout.nameLengthAt]);
            EXPECT_LE(at + layout.nameAt + nameLength, iosb.Information) << "a record runs past the byte count";
            names->push_back(emu::Utf16ToUtf8(
                std::u16string(reinterpret_cast<char16_t*>(&buffer[at + layout.nameAt]), nameLength / 2)));
            ULONG next = *reinterpret_cast<ULONG*>(&buffer[at]);
            if (next == 0) break;
            at += next;
        }
        return status;
    }
};

// A full listing in every supported class: one batch per filter directory
// holding the directory, the base's unindexed file left out, then the end.
TEST_F(DirectoryControlTest, MergedListingInEverySupportedClass) {
    const Names batches[] = {{".", "..", "a.txt"}, {".", "..", "m.txt"}, {".", "..", "b.txt"}};
    for (const ClassLayout& layout : kClasses) {
        SCOPED_TRACE(layout.cls);
        OpenResult dir = OpenDir(u"C:\\dir");
        ASSERT_EQ(dir.status, STATUS_SUCCESS);
        Names names;
        for (const Names& batch : batches) {
            ASSERT_EQ(Query(dir.handle, layout, &names), STATUS_SUCCESS);
            EXPECT_EQ(Sorted(names), batch);
        }
        ULONG_PTR information = 99;
        EXPECT_EQ(Query(dir.handle, layout, &names, false, false, nullptr, &information), STATUS_NO_MORE_FILES);
        EXPECT_EQ(information, 0u);
        Close(app, dir.handle);
    }
    // Every successful query logs its records in the class the log walks,
    // and says it cannot walk the others; the end logs its status only. A
    // query without a pattern shows the printer's text for a null name.
    EXPECT_EQ(LogCount("QueryDirectory\tName[(null)] Status[0] Information["), 18u);
    EXPECT_EQ(LogCount("QueryDirectory\tName[(null)] Status[80000006] Information[0]"), 6u);
    EXPECT_EQ(LogCount("unknown information class"), 15u);
    EXPECT_EQ(LogCount("TervaneDirectoryControl() ("), 18u + 6u + 15u + 9u);
    for (const char* name : {"a.txt", "m.txt", "b.txt"}) {
        EXPECT_EQ(LogCount(std::string("FileBothDir Entry[#3] NextOffset[0] Name[") + name + "]"), 1u) << name;
    }
    EXPECT_EQ(LogCount("FileBothDir Entry[#1] NextOffset["), 3u);
    EXPECT_EQ(LogCount("late.txt"), 0u);
}

// A directory deleted from the view by another open while it is listed: a
// restart finds it in no filter directory.
TEST_F(DirectoryControlTest, ListingOfADirectoryGoneFromTheView) {
    OpenResult dir = OpenDir(u"C:\\gone");
    ASSERT_EQ(dir.status, STATUS_SUCCESS);
    Names names;
    ASSERT_EQ(Query(dir.handle, kNames, &names), STATUS_SUCCESS);
    EXPECT_EQ(Sorted(names), (Names{".", ".."}));
    // The end of the listing closes the copy it read, which shares no delete.
    ASSERT_EQ(Query(dir.handle, kNames, &names), STATUS_NO_MORE_FILES);
    OpenResult deleter = OpenDir(u"C:\\gone", FILE_DELETE_ON_CLOSE, DELETE);
    ASSERT_EQ(deleter.status, STATUS_SUCCESS);
    Close(app, deleter.handle);
    ULONG_PTR information = 99;
    EXPECT_EQ(Query(dir.handle, kNames, &names, false, true, nullptr, &information), STATUS_NO_SUCH_FILE);
    EXPECT_EQ(information, 0u);
    Close(app, dir.handle);
    EXPECT_TRUE(HostExists(std::string(kMid) + "/gone")) << "the lower copy is hidden, not removed";
    EXPECT_EQ(LogCount("QueryDirectory\tName[(null)] Status[c000000f] Information[0]"), 1u);
}

// Change notification is refused at once, without waiting for the open's
// turn: here another request holds the open the whole time.
TEST_F(DirectoryControlTest, ChangeNotificationIsRefusedAtOnce) {
    OpenResult dir = OpenDir(u"C:\\dir");
    ASSERT_EQ(dir.status, STATUS_SUCCESS);
    PFileHandleEntry entry = nullptr;
    App([&] {
        PFILE_OBJECT fileObject = nullptr;
        ASSERT_EQ(ObReferenceObjectByHandle(dir.handle, 0, *IoFileObjectType, KernelMode, (PVOID*)&fileObject,
                                            nullptr),
                  STATUS_SUCCESS);
        entry = FindFileHandleEntry(fileObject);
        ObDereferenceObject(fileObject);
    });
    ASSERT_NE(entry, nullptr);
    App([&] { KeWaitForSingleObject(&entry->m_kEvent, Executive, KernelMode, FALSE, nullptr); });

    std::atomic<bool> done{false};
    NTSTATUS status = STATUS_PENDING;
    auto thread = machine->StartThread(app, [&] {
        std::vector<uint8_t> buffer(512);
        IO_STATUS_BLOCK iosb = {};
        status = NtNotifyChangeDirectoryFile(dir.handle, nullptr, nullptr, nullptr, &iosb, buffer.data(),
                                             ULONG(buffer.size()), FILE_NOTIFY_CHANGE_FILE_NAME, FALSE);
        done = true;
    });
    for (int i = 0; i < 500 && !done; i++) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(done) << "the notification waited for the open";
    App([&] { KeSetEvent(&entry->m_kEvent, 0, FALSE); });
    thread->Join();
    EXPECT_EQ(status, STATUS_NOT_IMPLEMENTED);

    Names names;
    EXPECT_EQ(Query(dir.handle, kNames, &names), STATUS_SUCCESS) << "the open still serves queries";
    Close(app, dir.handle);
}

}  // namespace
}  // namespace tervane::test
