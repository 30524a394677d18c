// Reads, writes and byte-range locks on the emulated NTFS volume.
#include <atomic>
#include <filesystem>
#include <memory>
#include <thread>

#include "fs_fixture.h"

using namespace tervane::test;

TEST_F(FsTest, ReadWriteOffsetsAndPosition) {
    Run([&] {
        OpenResult f = Create(u"\\data");
        ASSERT_EQ(f.status, STATUS_SUCCESS);
        ULONG_PTR n = 0;
        EXPECT_EQ(Write(f.handle, "hello", kNoOffset, &n), STATUS_SUCCESS);  // at the position: 0
        EXPECT_EQ(n, 5u);
        EXPECT_EQ(Write(f.handle, " world", kNoOffset), STATUS_SUCCESS);      // the position moved to 5
        EXPECT_EQ(Write(f.handle, "J", 0), STATUS_SUCCESS);                   // explicit offset
        LARGE_INTEGER toEnd;
        toEnd.HighPart = -1;
        toEnd.LowPart = FILE_WRITE_TO_END_OF_FILE;
        EXPECT_EQ(Write(f.handle, "!", toEnd.QuadPart), STATUS_SUCCESS);
        std::string text;
        EXPECT_EQ(Read(f.handle, &text, 100, 0), STATUS_SUCCESS);
        EXPECT_EQ(text, "Jello world!");
        FILE_POSITION_INFORMATION pos{};
        Query(f.handle, FilePositionInformation, &pos, sizeof pos);
        EXPECT_EQ(pos.CurrentByteOffset.QuadPart, 12);
        EXPECT_EQ(Read(f.handle, &text, 10, kNoOffset), STATUS_END_OF_FILE);
        EXPECT_EQ(Read(f.handle, &text, 10, 12), STATUS_END_OF_FILE);
        EXPECT_EQ(Read(f.handle, &text, 0, 500), STATUS_SUCCESS);  // nothing asked, nothing refused
        pos.CurrentByteOffset.QuadPart = 6;
        EXPECT_EQ(Set(f.handle, FilePositionInformation, &pos, sizeof pos), STATUS_SUCCESS);
        EXPECT_EQ(Read(f.handle, &text, 100, kNoOffset), STATUS_SUCCESS);
        EXPECT_EQ(text, "world!");
        EXPECT_EQ(Write(f.handle, "x", 20), STATUS_SUCCESS);  // past the end: the gap reads as zeros
        EXPECT_EQ(Read(f.handle, &text, 100, 11), STATUS_SUCCESS);
        EXPECT_EQ(text, std::string("!\0\0\0\0\0\0\0\0x", 10));
        FILE_END_OF_FILE_INFORMATION eof{};
        eof.EndOfFile.QuadPart = 3;
        EXPECT_EQ(Set(f.handle, FileEndOfFileInformation, &eof, sizeof eof), STATUS_SUCCESS);
        Close(f.handle);
        OpenResult ro = Open(u"\\data", FILE_READ_DATA | SYNCHRONIZE);
        EXPECT_EQ(Write(ro.handle, "no", 0), STATUS_ACCESS_DENIED);
        Close(ro.handle);
    });
    EXPECT_EQ(ReadHostFile(host / "data"), "Jel");
}

// Writes through a handle granted FILE_APPEND_DATA but not FILE_WRITE_DATA
// land at the end of the file whatever the offset, and the position
// follows; with FILE_WRITE_DATA as well the offset holds (Wine's
// append_file_test, as Windows behaves).
TEST_F(FsTest, AppendOnlyHandleWritesAtEnd) {
    struct Step {
        ACCESS_MASK access;
        const char* data;
        LONGLONG offset;
        const char* contents;
        LONGLONG position;
    } steps[] = {
        {FILE_APPEND_DATA, "ob", 1, "foob", 4},
        {FILE_APPEND_DATA, "ar", 3, "foobar", 6},
        {FILE_APPEND_DATA, "!", kNoOffset, "foobar!", 7},
        {FILE_APPEND_DATA | FILE_WRITE_DATA, "F", 0, "Foobar!", 1},
    };
    WriteHostFile(host / "log", "fo");
    Run([&] {
        for (auto& s : steps) {
            OpenResult f = Open(u"\\log", s.access | FILE_READ_DATA | SYNCHRONIZE);
            ASSERT_EQ(f.status, STATUS_SUCCESS);
            EXPECT_EQ(Write(f.handle, s.data, s.offset), STATUS_SUCCESS) << s.data;
            FILE_POSITION_INFORMATION pos{};
            Query(f.handle, FilePositionInformation, &pos, sizeof pos);
            EXPECT_EQ(pos.CurrentByteOffset.QuadPart, s.position) << s.data;
            std::string text;
            EXPECT_EQ(Read(f.handle, &text, 100, 0), STATUS_SUCCESS);
            EXPECT_EQ(text, s.contents);
            Close(f.handle);
        }
    });
}

// Appenders that each open, write and close, as a shell's ">>" does: the
// control block a new open makes takes the file's size as it is when made,
// not as the open first found it, so that no append lands inside another.
TEST_F(FsTest, OpenAppendCloseFromThreadsLosesNothing) {
    constexpr int kThreads = 3, kAppends = 400;
    WriteHostFile(host / "log", "");
    std::vector<std::unique_ptr<Machine::Thread>> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t)
        threads.push_back(machine->StartThread(process, [&, t] {
            const std::string line(static_cast<size_t>(4 + t), static_cast<char>('a' + t));
            for (int i = 0; i < kAppends; ++i) {
                OpenResult f = Open(u"\\log", FILE_APPEND_DATA | SYNCHRONIZE, FILE_SHARE_READ | FILE_SHARE_WRITE);
                if (f.status != STATUS_SUCCESS || Write(f.handle, line, kNoOffset) != STATUS_SUCCESS) failures++;
                if (f.status == STATUS_SUCCESS) Close(f.handle);
            }
        }));
    for (auto& t : threads) t->Join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(std::filesystem::file_size(host / "log"), size_t{kAppends} * (4 + 5 + 6));
}

TEST_F(FsTest, ByteRangeLockConflicts) {
    WriteHostFile(host / "f", std::string(100, 'a'));
    struct Case {
        LONGLONG off, len;
        bool exclusive;
        bool sameHandle;
        LONGLONG off2, len2;
        bool exclusive2;
        NTSTATUS status;
    } cases[] = {
        {0, 10, true, false, 5, 10, false, STATUS_LOCK_NOT_GRANTED},
        {0, 10, true, false, 10, 10, true, STATUS_SUCCESS},  // adjacent, not overlapping
        {0, 10, false, false, 5, 10, false, STATUS_SUCCESS},  // shared with shared
        {0, 10, false, false, 5, 10, true, STATUS_LOCK_NOT_GRANTED},
        {0, 10, true, true, 5, 10, true, STATUS_LOCK_NOT_GRANTED},  // even the same owner
        {0, 10, true, true, 5, 10, false, STATUS_SUCCESS},  // shared under the owner's own exclusive lock
        {0, 0, true, false, 0, 10, true, STATUS_SUCCESS},  // an empty range overlaps nothing
    };
    Run([&] {
        for (size_t i = 0; i < std::size(cases); ++i) {
            auto& c = cases[i];
            OpenResult a = Open(u"\\f", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE);
            OpenResult b = c.sameHandle ? a : Open(u"\\f", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE);
            IO_STATUS_BLOCK iosb{};
            LARGE_INTEGER o{}, l{};
            o.QuadPart = c.off;
            l.QuadPart = c.len;
            ASSERT_EQ(NtLockFile(a.handle, nullptr, nullptr, nullptr, &iosb, &o, &l, 0, TRUE, c.exclusive), STATUS_SUCCESS);
            o.QuadPart = c.off2;
            l.QuadPart = c.len2;
            EXPECT_EQ(NtLockFile(b.handle, nullptr, nullptr, nullptr, &iosb, &o, &l, 0, TRUE, c.exclusive2), c.status) << i;
            Close(a.handle);
            if (!c.sameHandle) Close(b.handle);
        }
    });
}

TEST_F(FsTest, LocksAgainstReadWriteUnlockAndCleanup) {
    WriteHostFile(host / "f", std::string(100, 'a'));
    Run([&] {
        OpenResult a = Open(u"\\f", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE);
        OpenResult b = Open(u"\\f", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE);
        IO_STATUS_BLOCK iosb{};
        LARGE_INTEGER o{}, l{};
        o.QuadPart = 10;
        l.QuadPart = 10;
        ASSERT_EQ(NtLockFile(a.handle, nullptr, nullptr, nullptr, &iosb, &o, &l, 7, TRUE, TRUE), STATUS_SUCCESS);
        std::string text;
        EXPECT_EQ(Read(b.handle, &text, 5, 12), STATUS_FILE_LOCK_CONFLICT);
        EXPECT_EQ(Write(b.handle, "z", 15), STATUS_FILE_LOCK_CONFLICT);
        EXPECT_EQ(Read(b.handle, &text, 5, 0), STATUS_SUCCESS);  // outside the range
        EXPECT_EQ(Read(a.handle, &text, 5, 12), STATUS_FILE_LOCK_CONFLICT);  // the owner with another key
        ULONG key = 7;
        IO_STATUS_BLOCK io2{};
        LARGE_INTEGER at{};
        at.QuadPart = 12;
        char buf[4];
        EXPECT_EQ(NtReadFile(a.handle, nullptr, nullptr, nullptr, &io2, buf, 4, &at, &key), STATUS_SUCCESS);

        o.QuadPart = 10;
        l.QuadPart = 5;
        EXPECT_EQ(NtUnlockFile(a.handle, &iosb, &o, &l, 7), STATUS_RANGE_NOT_LOCKED);  // not the locked range
        l.QuadPart = 10;
        EXPECT_EQ(NtUnlockFile(a.handle, &iosb, &o, &l, 8), STATUS_RANGE_NOT_LOCKED);  // wrong key
        EXPECT_EQ(NtUnlockFile(b.handle, &iosb, &o, &l, 7), STATUS_RANGE_NOT_LOCKED);  // not the owner
        EXPECT_EQ(NtUnlockFile(a.handle, &iosb, &o, &l, 7), STATUS_SUCCESS);
        EXPECT_EQ(Write(b.handle, "z", 15), STATUS_SUCCESS);

        // A shared lock blocks writes, even the owner's; a closed handle's locks go.
        ASSERT_EQ(NtLockFile(a.handle, nullptr, nullptr, nullptr, &iosb, &o, &l, 0, TRUE, FALSE), STATUS_SUCCESS);
        EXPECT_EQ(Write(a.handle, "z", 15), STATUS_FILE_LOCK_CONFLICT);
        EXPECT_EQ(Read(b.handle, &text, 5, 12), STATUS_SUCCESS);
        Close(a.handle);
        EXPECT_EQ(Write(b.handle, "z", 15), STATUS_SUCCESS);
        Close(b.handle);
    });
}

// A lock that waits is granted when an unlock makes room. On an
// asynchronous handle the call returns STATUS_PENDING and its thread may
// end first: the grant still finds the requesting process (the lock is that
// process's), and the completion fills the status block and signals the
// event; the APC of a thread that has ended is not run.
TEST_F(FsTest, WaitingLockIsGrantedOnUnlock) {
    WriteHostFile(host / "f", std::string(100, 'a'));
    for (bool async : {false, true}) {
        HANDLE a = nullptr, b = nullptr, event = nullptr;
        Run([&] {
            a = Open(u"\\f", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE).handle;
            b = Open(u"\\f", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, 7, FILE_OPEN,
                     async ? 0 : FILE_SYNCHRONOUS_IO_NONALERT).handle;
            ASSERT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
            IO_STATUS_BLOCK iosb{};
            LARGE_INTEGER o{}, l{};
            l.QuadPart = 10;
            ASSERT_EQ(NtLockFile(a, nullptr, nullptr, nullptr, &iosb, &o, &l, 0, TRUE, TRUE), STATUS_SUCCESS);
        });
        std::atomic<NTSTATUS> returned{STATUS_PENDING};
        std::atomic<int> apcRuns{0};
        IO_STATUS_BLOCK iosb{};
        auto waiter = machine->StartThread(process, [&] {
            LARGE_INTEGER o{}, l{};
            l.QuadPart = 10;
            PIO_APC_ROUTINE apc = [](PVOID runs, PIO_STATUS_BLOCK, ULONG) { ++*static_cast<std::atomic<int>*>(runs); };
            returned = NtLockFile(b, event, async ? apc : nullptr, &apcRuns, &iosb, &o, &l, 0, FALSE, TRUE);
        });
        if (async) {
            waiter->Join();
            EXPECT_EQ(returned, STATUS_PENDING);
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            EXPECT_EQ(returned, STATUS_PENDING) << "still waiting";
        }
        Run([&] {
            IO_STATUS_BLOCK io{};
            LARGE_INTEGER o{}, l{};
            l.QuadPart = 10;
            EXPECT_EQ(NtUnlockFile(a, &io, &o, &l, 0), STATUS_SUCCESS);
            EXPECT_EQ(NtWaitForSingleObject(event, FALSE, nullptr), STATUS_SUCCESS);
            EXPECT_EQ(Write(a, "z", 5), STATUS_FILE_LOCK_CONFLICT) << "b's lock holds";
            EXPECT_EQ(NtTestAlert(), STATUS_SUCCESS);
            Close(a);
            Close(b);
            NtClose(event);
        });
        waiter->Join();
        EXPECT_EQ(iosb.Status, STATUS_SUCCESS) << async;
        if (!async) {
            EXPECT_EQ(returned, STATUS_SUCCESS);
        }
        EXPECT_EQ(apcRuns, 0);
    }
}
