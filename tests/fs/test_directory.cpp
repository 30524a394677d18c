// Directory queries on the emulated NTFS volume.
#include <thread>

#include "fs_fixture.h"

using namespace tervane::test;

namespace {
using Names = std::vector<std::string>;
}

TEST_F(FsTest, ListingPatterns) {
    for (const char* n : {"alpha.txt", "Beta.TXT", "gamma.doc", "noext", "A Long Name.html"})
        WriteHostFile(host / "d" / n, "x");
    std::filesystem::create_directories(host / "d" / "sub");
    struct Case {
        std::u16string pattern;
        Names names;
        NTSTATUS first;
    } cases[] = {
        {u"", {".", "..", "A Long Name.html", "alpha.txt", "Beta.TXT", "gamma.doc", "noext", "sub"}, STATUS_SUCCESS},
        {u"*.txt", {"alpha.txt", "Beta.TXT"}, STATUS_SUCCESS},
        {u"B*", {"Beta.TXT"}, STATUS_SUCCESS},
        {u"?????.*", {"alpha.txt", "gamma.doc"}, STATUS_SUCCESS},
        {u"ALPHA.TXT", {"alpha.txt"}, STATUS_SUCCESS},
        {u"ALONGN~1.HTM", {"A Long Name.html"}, STATUS_SUCCESS},  // matched through its short name
        {u"*~1*", {"A Long Name.html"}, STATUS_SUCCESS},
        {u"<.txt", {"alpha.txt", "Beta.TXT"}, STATUS_SUCCESS},
        {u"noext\"*", {"noext"}, STATUS_SUCCESS},
        {u"*.none", {}, STATUS_NO_SUCH_FILE},
        {u"missing", {}, STATUS_NO_SUCH_FILE},
    };
    Run([&] {
        for (auto& c : cases) {
            OpenResult d = Open(u"\\d", FILE_LIST_DIRECTORY | SYNCHRONIZE, 7, FILE_OPEN,
                                FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
            ASSERT_EQ(d.status, STATUS_SUCCESS);
            NTSTATUS first;
            EXPECT_EQ(List(d.handle, c.pattern, &first), c.names) << Utf16ToUtf8(c.pattern);
            EXPECT_EQ(first, c.first) << Utf16ToUtf8(c.pattern);
            Close(d.handle);
        }
        OpenResult root = Open(u"\\", FILE_LIST_DIRECTORY | SYNCHRONIZE, 7, FILE_OPEN, FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
        EXPECT_EQ(List(root.handle), Names{"d"});  // no "." or ".." at the root
        Close(root.handle);
        OpenResult file = Open(u"\\d\\noext");
        IO_STATUS_BLOCK iosb{};
        uint8_t buf[256];
        EXPECT_EQ(NtQueryDirectoryFile(file.handle, nullptr, nullptr, nullptr, &iosb, buf, sizeof buf,
                                       FileNamesInformation, FALSE, nullptr, FALSE),
                  STATUS_INVALID_PARAMETER);
        Close(file.handle);
    });
}

// The end of a listing as Windows reports it (Wine's
// test_NtQueryDirectoryFile): only the first query of an open that matches
// nothing is STATUS_NO_SUCH_FILE; the calls after it, restarts without a
// new mask included, are STATUS_NO_MORE_FILES.
TEST_F(FsTest, ListingEndStatusAfterMaskMatchingNothing) {
    WriteHostFile(host / "d" / "a.txt", "x");
    struct Call {
        const char16_t* pattern;  // null: none given
        bool restart;
        NTSTATUS status;
    } calls[] = {
        {u"dummy", true, STATUS_NO_SUCH_FILE},
        {nullptr, false, STATUS_NO_MORE_FILES},
        {nullptr, true, STATUS_NO_MORE_FILES},
        {u"none*", true, STATUS_NO_MORE_FILES},
        {u"a.txt", true, STATUS_SUCCESS},
    };
    Run([&] {
        OpenResult d = Open(u"\\d", FILE_LIST_DIRECTORY | SYNCHRONIZE, 7, FILE_OPEN,
                            FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
        ASSERT_EQ(d.status, STATUS_SUCCESS);
        for (size_t i = 0; i < std::size(calls); ++i) {
            std::u16string text = calls[i].pattern ? calls[i].pattern : u"";
            UNICODE_STRING mask = MakeUnicodeString(text);
            uint8_t buf[512];
            IO_STATUS_BLOCK iosb{};
            EXPECT_EQ(NtQueryDirectoryFile(d.handle, nullptr, nullptr, nullptr, &iosb, buf, sizeof buf,
                                           FileNamesInformation, TRUE, calls[i].pattern ? &mask : nullptr,
                                           calls[i].restart),
                      calls[i].status)
                << i;
        }
        Close(d.handle);
    });
}

TEST_F(FsTest, ListingClassesRecordsAndBuffers) {
    WriteHostFile(host / "d" / "A Long Name.html", "12345");
    WriteHostFile(host / "d" / "short.txt", "1");
    Run([&] {
        OpenResult d = Open(u"\\d", FILE_LIST_DIRECTORY | SYNCHRONIZE, 7, FILE_OPEN,
                            FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
        ASSERT_EQ(d.status, STATUS_SUCCESS);
        std::vector<uint8_t> buf(4096);
        IO_STATUS_BLOCK iosb{};
        const std::u16string a = u"A*", aLong = u"A Long*", star = u"*";
        UNICODE_STRING pat = MakeUnicodeString(a);
        ASSERT_EQ(NtQueryDirectoryFile(d.handle, nullptr, nullptr, nullptr, &iosb, buf.data(), 4096,
                                       FileIdBothDirectoryInformation, TRUE, &pat, TRUE),
                  STATUS_SUCCESS);
        auto* r = reinterpret_cast<FILE_ID_BOTH_DIR_INFORMATION*>(buf.data());
        EXPECT_EQ(r->NextEntryOffset, 0u);
        EXPECT_EQ(r->EndOfFile.QuadPart, 5);
        EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(r->ShortName), r->ShortNameLength / 2), u"ALONGN~1.HTM");
        EXPECT_NE(r->FileId.QuadPart, 0);
        EXPECT_EQ(iosb.Information, FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, FileName) + 32u);
        EXPECT_EQ(NtQueryDirectoryFile(d.handle, nullptr, nullptr, nullptr, &iosb, buf.data(), 4096,
                                       FileIdBothDirectoryInformation, TRUE, nullptr, FALSE),
                  STATUS_NO_MORE_FILES);

        // Every class: records 8-byte aligned, chained, ending with a zero
        // offset. A restart without a pattern keeps the first one ("A*").
        UNICODE_STRING all = MakeUnicodeString(star);
        for (auto cls : {FileDirectoryInformation, FileFullDirectoryInformation, FileBothDirectoryInformation,
                         FileNamesInformation, FileIdBothDirectoryInformation, FileIdFullDirectoryInformation}) {
            ASSERT_EQ(NtQueryDirectoryFile(d.handle, nullptr, nullptr, nullptr, &iosb, buf.data(), 4096, cls, FALSE,
                                           &all, TRUE),
                      STATUS_SUCCESS)
                << cls;
            size_t at = 0, count = 1;
            for (ULONG next; (next = *reinterpret_cast<ULONG*>(buf.data() + at)) != 0; at += next, ++count)
                EXPECT_EQ(next % 8, 0u) << cls;
            EXPECT_EQ(count, 4u) << cls;  // ".", "..", and the two files
        }
        EXPECT_EQ(NtQueryDirectoryFile(d.handle, nullptr, nullptr, nullptr, &iosb, buf.data(), 4096,
                                       FileBasicInformation, FALSE, nullptr, TRUE),
                  STATUS_INVALID_INFO_CLASS);

        // Too small for the record; then room for the fixed part and four
        // bytes of the name: the record, cut short, and the entry counts.
        const ULONG base = FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileName);
        EXPECT_EQ(NtQueryDirectoryFile(d.handle, nullptr, nullptr, nullptr, &iosb, buf.data(), base - 1,
                                       FileDirectoryInformation, FALSE, nullptr, TRUE),
                  STATUS_INFO_LENGTH_MISMATCH);
        pat = MakeUnicodeString(aLong);
        const ULONG room = sizeof(FILE_DIRECTORY_INFORMATION);
        ASSERT_EQ(NtQueryDirectoryFile(d.handle, nullptr, nullptr, nullptr, &iosb, buf.data(), room,
                                       FileDirectoryInformation, FALSE, &pat, TRUE),
                  STATUS_BUFFER_OVERFLOW);
        auto* dr = reinterpret_cast<FILE_DIRECTORY_INFORMATION*>(buf.data());
        EXPECT_EQ(dr->FileNameLength, 32u);
        EXPECT_EQ(iosb.Information, room);
        EXPECT_EQ(NtQueryDirectoryFile(d.handle, nullptr, nullptr, nullptr, &iosb, buf.data(), 4096,
                                       FileDirectoryInformation, FALSE, nullptr, FALSE),
                  STATUS_NO_MORE_FILES);

        // Streaming: one entry a call, in the same order as one full call.
        Names one;
        bool restart = true;
        while (NtQueryDirectoryFile(d.handle, nullptr, nullptr, nullptr, &iosb, buf.data(), 4096, FileNamesInformation,
                                    TRUE, restart ? &all : nullptr, restart) == STATUS_SUCCESS) {
            auto* n = reinterpret_cast<FILE_NAMES_INFORMATION*>(buf.data());
            one.push_back(Utf16ToUtf8(std::u16string(reinterpret_cast<char16_t*>(n->FileName), n->FileNameLength / 2)));
            restart = false;
        }
        EXPECT_EQ(one, (Names{".", "..", "A Long Name.html", "short.txt"}));
        Close(d.handle);
    });
}

TEST_F(FsTest, ListingSeesChangesAndShortNamesStayStable) {
    Run([&] {
        std::vector<HANDLE> hs;
        for (int i = 0; i < 6; ++i) {
            OpenResult f = Create(u"\\Document Number.txt" + std::u16string(1, u'0' + i));
            ASSERT_EQ(f.status, STATUS_SUCCESS);
            hs.push_back(f.handle);
        }
        std::vector<std::u16string> shorts;
        for (HANDLE h : hs) {
            uint8_t buf[64];
            ASSERT_EQ(Query(h, FileAlternateNameInformation, buf, sizeof buf), STATUS_SUCCESS);
            auto* n = reinterpret_cast<FILE_NAME_INFORMATION*>(buf);
            shorts.emplace_back(reinterpret_cast<char16_t*>(n->FileName), n->FileNameLength / 2);
            Close(h);
        }
        EXPECT_EQ(shorts[0], u"DOCUME~1.TXT");
        EXPECT_EQ(shorts[3], u"DOCUME~4.TXT");
        std::sort(shorts.begin(), shorts.end());
        EXPECT_EQ(std::unique(shorts.begin(), shorts.end()), shorts.end());
        // Each opens its own file.
        for (int i = 0; i < 4; ++i) {
            OpenResult f = Open(u"\\DOCUME~" + std::u16string(1, u'1' + i) + u".TXT");
            ASSERT_EQ(f.status, STATUS_SUCCESS);
            uint8_t buf[256];
            Query(f.handle, FileNameInformation, buf, sizeof buf);
            auto* n = reinterpret_cast<FILE_NAME_INFORMATION*>(buf);
            EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(n->FileName), n->FileNameLength / 2),
                      u"\\Document Number.txt" + std::u16string(1, u'0' + i));
            Close(f.handle);
        }
    });
}

// A change notification waits for a change its filter selects, or for its
// handle's cleanup. On an asynchronous handle the call returns
// STATUS_PENDING at once and its thread may end before the change: the
// completion still fills the caller's buffer and status block and signals
// its event.
TEST_F(FsTest, ChangeNotification) {
    std::filesystem::create_directories(host / "watched" / "deep");
    struct Case {
        ULONG filter;
        bool tree;
        bool async;
        const char* create;  // made while the request waits
        NTSTATUS status;
        const char* name;    // reported, relative to the watched directory
    } cases[] = {
        {FILE_NOTIFY_CHANGE_FILE_NAME, false, false, "\\watched\\new.txt", STATUS_SUCCESS, "new.txt"},
        {FILE_NOTIFY_CHANGE_FILE_NAME, true, false, "\\watched\\deep\\x.txt", STATUS_SUCCESS, "deep\\x.txt"},
        {FILE_NOTIFY_CHANGE_FILE_NAME, false, true, "\\watched\\async.txt", STATUS_SUCCESS, "async.txt"},
        // Not selected: the request still waits, and its handle's cleanup ends it.
        {FILE_NOTIFY_CHANGE_DIR_NAME, false, false, "\\watched\\other.txt", STATUS_NOTIFY_CLEANUP, nullptr},
        {FILE_NOTIFY_CHANGE_DIR_NAME, false, true, "\\watched\\other2.txt", STATUS_NOTIFY_CLEANUP, nullptr},
    };
    for (auto& c : cases) {
        HANDLE dir = nullptr, event = nullptr;
        Run([&] {
            dir = Open(u"\\watched", FILE_LIST_DIRECTORY | SYNCHRONIZE, 7, FILE_OPEN,
                       FILE_DIRECTORY_FILE | (c.async ? 0 : FILE_SYNCHRONOUS_IO_NONALERT)).handle;
            ASSERT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
        });
        NTSTATUS returned = STATUS_PENDING;
        std::vector<uint8_t> buf(256);
        IO_STATUS_BLOCK iosb{};
        auto waiter = machine->StartThread(process, [&] {
            returned = NtNotifyChangeDirectoryFile(dir, event, nullptr, nullptr, &iosb, buf.data(), 256, c.filter, c.tree);
        });
        if (c.async) {
            waiter->Join();  // the requesting thread is gone before the change
            EXPECT_EQ(returned, STATUS_PENDING) << c.create;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        Run([&] {
            OpenResult f = Create(U(c.create));
            ASSERT_EQ(f.status, STATUS_SUCCESS);
            Close(f.handle);
            if (!c.name) {
                if (!c.async) std::this_thread::sleep_for(std::chrono::milliseconds(50));
                Close(dir);
            }
            EXPECT_EQ(NtWaitForSingleObject(event, FALSE, nullptr), STATUS_SUCCESS) << c.create;
        });
        waiter->Join();
        EXPECT_EQ(iosb.Status, c.status) << c.create;
        if (!c.async) {
            EXPECT_EQ(returned, c.status) << c.create;
        }
        if (c.name && NT_SUCCESS(iosb.Status)) {
            auto* n = reinterpret_cast<FILE_NOTIFY_INFORMATION*>(buf.data());
            EXPECT_EQ(n->Action, static_cast<ULONG>(FILE_ACTION_ADDED));
            EXPECT_EQ(Utf16ToUtf8(std::u16string(reinterpret_cast<char16_t*>(n->FileName), n->FileNameLength / 2)), c.name);
        }
        Run([&] {
            if (c.name) Close(dir);
            NtClose(event);
        });
    }
}
