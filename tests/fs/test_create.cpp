// Opens and creates on the emulated NTFS volume.
#include "fs/fsstruc.h"
#include "fs_fixture.h"

using namespace tervane::test;

TEST_F(FsTest, DispositionsOnExistingAndMissingFiles) {
    struct Case {
        ULONG disposition;
        bool exists;
        NTSTATUS status;
        ULONG_PTR info;
        const char* contentAfter;  // null: the file must not exist
    } cases[] = {
        {FILE_SUPERSEDE, true, STATUS_SUCCESS, FILE_SUPERSEDED, ""},
        {FILE_SUPERSEDE, false, STATUS_SUCCESS, FILE_CREATED, ""},
        {FILE_OPEN, true, STATUS_SUCCESS, FILE_OPENED, "data"},
        {FILE_OPEN, false, STATUS_OBJECT_NAME_NOT_FOUND, 0, nullptr},
        {FILE_CREATE, true, STATUS_OBJECT_NAME_COLLISION, 0, "data"},
        {FILE_CREATE, false, STATUS_SUCCESS, FILE_CREATED, ""},
        {FILE_OPEN_IF, true, STATUS_SUCCESS, FILE_OPENED, "data"},
        {FILE_OPEN_IF, false, STATUS_SUCCESS, FILE_CREATED, ""},
        {FILE_OVERWRITE, true, STATUS_SUCCESS, FILE_OVERWRITTEN, ""},
        {FILE_OVERWRITE, false, STATUS_OBJECT_NAME_NOT_FOUND, 0, nullptr},
        {FILE_OVERWRITE_IF, true, STATUS_SUCCESS, FILE_OVERWRITTEN, ""},
        {FILE_OVERWRITE_IF, false, STATUS_SUCCESS, FILE_CREATED, ""},
    };
    int n = 0;
    for (auto& c : cases) {
        std::string name = "f" + std::to_string(n++);
        if (c.exists) WriteHostFile(host / name, "data");
        Run([&] {
            OpenResult r = Open(U("\\" + name), GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, 0, c.disposition);
            EXPECT_EQ(r.status, c.status) << name;
            if (NT_SUCCESS(r.status)) {
                EXPECT_EQ(r.information, c.info) << name;
                Close(r.handle);
            }
        });
        if (c.contentAfter) {
            EXPECT_EQ(ReadHostFile(host / name), c.contentAfter) << name;
        } else {
            EXPECT_FALSE(std::filesystem::exists(host / name)) << name;
        }
    }
}

// A create that fails leaves the host as it was: no new name, and the old
// contents of a file it was to supersede or overwrite. Each pool
// allocation on the path fails in turn, then the metadata store refuses
// (a volume whose store directory went away).
TEST_F(FsTest, FailedCreateLeavesHostUnchanged) {
    struct Case {
        const char* name;
        ULONG disposition, options;
        bool exists;
    } cases[] = {
        {"new.txt", FILE_CREATE, FILE_NON_DIRECTORY_FILE, false},
        {"newdir", FILE_CREATE, FILE_DIRECTORY_FILE, false},
        {"either.txt", FILE_OPEN_IF, 0, false},
        {"made.txt", FILE_SUPERSEDE, 0, false},
        {"old1.txt", FILE_SUPERSEDE, 0, true},
        {"old2.txt", FILE_OVERWRITE, 0, true},
        {"old3.txt", FILE_OVERWRITE_IF, 0, true},
    };
    auto attempt = [&](char drive, const std::filesystem::path& root, const Case& c) {
        std::u16string path = u"\\??\\" + std::u16string(1, char16_t(drive)) + u":\\" + U(c.name);
        UNICODE_STRING name = MakeUnicodeString(path);
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        NTSTATUS status;
        Run([&] {
            IO_STATUS_BLOCK iosb{};
            HANDLE h = nullptr;
            status = NtCreateFile(&h, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &oa, &iosb, nullptr, 0, 7,
                                  c.disposition, c.options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
            machine->ClearFaultInjection();
            if (NT_SUCCESS(status)) Close(h);
        });
        if (NT_SUCCESS(status)) return status;
        if (c.exists) {
            EXPECT_EQ(ReadHostFile(root / c.name), "old") << c.name << " " << std::hex << status;
        } else {
            EXPECT_FALSE(std::filesystem::exists(root / c.name)) << c.name << " " << std::hex << status;
        }
        return status;
    };
    for (auto& c : cases) {
        int failures = 0;
        for (uint64_t n = 1; n < 64; ++n) {
            std::filesystem::remove_all(host / c.name);
            if (c.exists) WriteHostFile(host / c.name, "old");
            machine->FailNthAllocation(n);
            if (NT_SUCCESS(attempt('C', host, c))) break;
            ++failures;
        }
        EXPECT_GT(failures, 0) << c.name;
    }
    tervane::emu::fs::FsSetForceMetadataFiles(true);
    auto broken = FreshHostDir("no-store");
    ASSERT_EQ(machine->MountVolume('D', broken.string()), STATUS_SUCCESS);
    tervane::emu::fs::FsSetForceMetadataFiles(false);
    std::filesystem::remove_all(broken / tervane::emu::fs::MetaStore::kStoreDirName);
    for (auto& c : cases) {
        if (c.exists) WriteHostFile(broken / c.name, "old");
        EXPECT_EQ(attempt('D', broken, c), STATUS_UNSUCCESSFUL) << c.name;
    }
    std::filesystem::remove_all(broken);
}

TEST_F(FsTest, DirectoryAndNonDirectoryOptions) {
    WriteHostFile(host / "file", "x");
    std::filesystem::create_directory(host / "dir");
    struct Case {
        const char* path;
        ULONG disposition, options;
        NTSTATUS status;
    } cases[] = {
        {"\\dir", FILE_OPEN, FILE_DIRECTORY_FILE, STATUS_SUCCESS},
        {"\\dir", FILE_OPEN, FILE_NON_DIRECTORY_FILE, STATUS_FILE_IS_A_DIRECTORY},
        {"\\file", FILE_OPEN, FILE_DIRECTORY_FILE, STATUS_NOT_A_DIRECTORY},
        {"\\file", FILE_OPEN, FILE_NON_DIRECTORY_FILE, STATUS_SUCCESS},
        {"\\dir", FILE_OVERWRITE_IF, 0, STATUS_FILE_IS_A_DIRECTORY},
        {"\\dir\\", FILE_OPEN, 0, STATUS_SUCCESS},
        {"\\file\\", FILE_OPEN, 0, STATUS_OBJECT_NAME_INVALID},
        {"\\newdir\\", FILE_CREATE, FILE_DIRECTORY_FILE, STATUS_SUCCESS},
        {"\\newfile\\", FILE_CREATE, 0, STATUS_OBJECT_NAME_INVALID},
        {"\\dir", FILE_OVERWRITE, FILE_DIRECTORY_FILE, STATUS_INVALID_PARAMETER},
        {"\\x", FILE_CREATE, FILE_DIRECTORY_FILE | FILE_NON_DIRECTORY_FILE, STATUS_INVALID_PARAMETER},
        {"\\missing\\x", FILE_OPEN, 0, STATUS_OBJECT_PATH_NOT_FOUND},
        {"\\missing\\x", FILE_CREATE, 0, STATUS_OBJECT_PATH_NOT_FOUND},
        {"\\file\\x", FILE_OPEN, 0, STATUS_OBJECT_PATH_NOT_FOUND},
        {"\\dir\\missing", FILE_OPEN, 0, STATUS_OBJECT_NAME_NOT_FOUND},
        {"\\a\\..\\file", FILE_OPEN, 0, STATUS_OBJECT_NAME_INVALID},
        {"\\.\\file", FILE_OPEN, 0, STATUS_OBJECT_NAME_INVALID},
        {"\\dir\\\\file", FILE_OPEN, 0, STATUS_OBJECT_NAME_INVALID},
        {"\\bad*name", FILE_CREATE, 0, STATUS_OBJECT_NAME_INVALID},
        {"\\bad|name", FILE_CREATE, 0, STATUS_OBJECT_NAME_INVALID},
        {"\\file:stream", FILE_OPEN, 0, STATUS_OBJECT_NAME_INVALID},
        {"\\FILE", FILE_OPEN, 0, STATUS_SUCCESS},
        {"\\DiR", FILE_OPEN, FILE_DIRECTORY_FILE, STATUS_SUCCESS},
    };
    Run([&] {
        for (auto& c : cases) {
            OpenResult r = Open(U(c.path), GENERIC_READ | SYNCHRONIZE, 7, c.disposition,
                                c.options | FILE_SYNCHRONOUS_IO_NONALERT);
            EXPECT_EQ(r.status, c.status) << c.path;
            if (NT_SUCCESS(r.status)) Close(r.handle);
        }
        std::u16string tooLong = u"\\" + std::u16string(256, u'n');
        EXPECT_EQ(Open(tooLong, GENERIC_READ | SYNCHRONIZE, 7, FILE_CREATE).status, STATUS_OBJECT_NAME_INVALID);
        std::u16string longest = u"\\" + std::u16string(255, u'n');
        OpenResult ok = Open(longest, GENERIC_READ | SYNCHRONIZE, 7, FILE_CREATE);
        EXPECT_EQ(ok.status, STATUS_SUCCESS);
        if (NT_SUCCESS(ok.status)) Close(ok.handle);
    });
    EXPECT_TRUE(std::filesystem::is_directory(host / "newdir"));
}

TEST_F(FsTest, ShareAccessMatrix) {
    WriteHostFile(host / "f", "x");
    const ACCESS_MASK R = FILE_READ_DATA | SYNCHRONIZE, W = FILE_WRITE_DATA | SYNCHRONIZE, D = DELETE | SYNCHRONIZE;
    const ULONG SR = FILE_SHARE_READ, SW = FILE_SHARE_WRITE, SD = FILE_SHARE_DELETE;
    struct Case {
        ACCESS_MASK a1;
        ULONG s1;
        ACCESS_MASK a2;
        ULONG s2;
        NTSTATUS status;
    } cases[] = {
        {R, SR, R, SR, STATUS_SUCCESS},
        {R, 0, R, SR | SW | SD, STATUS_SHARING_VIOLATION},
        {R, SR, W, SR | SW, STATUS_SHARING_VIOLATION},
        {R, SR | SW, W, SR | SW, STATUS_SUCCESS},
        {W, SR | SW, R, SR, STATUS_SHARING_VIOLATION},  // the second must share the first's write
        {R, SR, D, SR, STATUS_SHARING_VIOLATION},
        {R, SR | SD, D, SR, STATUS_SUCCESS},
        {FILE_READ_ATTRIBUTES | SYNCHRONIZE, 0, R, SR | SW | SD, STATUS_SUCCESS},  // attribute opens do not count
    };
    Run([&] {
        for (size_t i = 0; i < std::size(cases); ++i) {
            auto& c = cases[i];
            OpenResult first = Open(u"\\f", c.a1, c.s1);
            ASSERT_EQ(first.status, STATUS_SUCCESS) << i;
            OpenResult second = Open(u"\\f", c.a2, c.s2);
            EXPECT_EQ(second.status, c.status) << i;
            if (NT_SUCCESS(second.status)) Close(second.handle);
            Close(first.handle);
            // Closing released the share access.
            OpenResult again = Open(u"\\f", c.a2, c.s2);
            EXPECT_EQ(again.status, STATUS_SUCCESS) << i;
            if (NT_SUCCESS(again.status)) Close(again.handle);
        }
    });
}

TEST_F(FsTest, ReadOnlyAttributeRefusesWriteAndDelete) {
    Run([&] {
        OpenResult r = Create(u"\\ro", FILE_SYNCHRONOUS_IO_NONALERT, GENERIC_WRITE | SYNCHRONIZE, FILE_ATTRIBUTE_READONLY);
        ASSERT_EQ(r.status, STATUS_SUCCESS);
        EXPECT_EQ(Write(r.handle, "ok", 0), STATUS_SUCCESS);  // the creating handle keeps its access
        Close(r.handle);
        EXPECT_EQ(Open(u"\\ro", GENERIC_WRITE | SYNCHRONIZE).status, STATUS_ACCESS_DENIED);
        EXPECT_EQ(Open(u"\\ro", FILE_APPEND_DATA | SYNCHRONIZE).status, STATUS_ACCESS_DENIED);
        // NTFS refuses to overwrite a read-only file, but lets a caller that
        // asks no write access supersede it: the new file has only the
        // attributes given. Write access stays refused (MS-FSA 2.1.5.1.2.1).
        struct Case {
            ULONG disposition;
            ACCESS_MASK access;
            NTSTATUS status;
        } replaceCases[] = {
            {FILE_OVERWRITE, GENERIC_READ, STATUS_ACCESS_DENIED},
            {FILE_OVERWRITE_IF, GENERIC_READ, STATUS_ACCESS_DENIED},
            {FILE_SUPERSEDE, GENERIC_WRITE, STATUS_ACCESS_DENIED},
            {FILE_SUPERSEDE, GENERIC_READ, STATUS_SUCCESS},
        };
        for (auto& c : replaceCases) {
            OpenResult s = Open(u"\\ro", c.access | SYNCHRONIZE, 7, c.disposition, FILE_SYNCHRONOUS_IO_NONALERT,
                                FILE_ATTRIBUTE_HIDDEN);
            EXPECT_EQ(s.status, c.status) << c.disposition;
            if (!NT_SUCCESS(s.status)) continue;
            EXPECT_EQ(s.information, FILE_SUPERSEDED);
            EXPECT_EQ(Attributes(s.handle), static_cast<ULONG>(FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_ARCHIVE));
            Close(s.handle);
        }
        EXPECT_EQ(ReadHostFile(host / "ro"), "");
        OpenResult again = Open(u"\\ro", FILE_WRITE_ATTRIBUTES | SYNCHRONIZE);
        FILE_BASIC_INFORMATION readOnly{};
        readOnly.FileAttributes = FILE_ATTRIBUTE_READONLY;
        EXPECT_EQ(Set(again.handle, FileBasicInformation, &readOnly, sizeof readOnly), STATUS_SUCCESS);
        Close(again.handle);
        EXPECT_EQ(Open(u"\\ro", DELETE | SYNCHRONIZE, 7, FILE_OPEN, FILE_DELETE_ON_CLOSE).status, STATUS_CANNOT_DELETE);
        OpenResult d = Open(u"\\ro", DELETE | SYNCHRONIZE);
        ASSERT_EQ(d.status, STATUS_SUCCESS);
        EXPECT_EQ(SetDelete(d.handle, true), STATUS_CANNOT_DELETE);
        Close(d.handle);
        OpenResult rd = Open(u"\\ro");
        EXPECT_EQ(rd.status, STATUS_SUCCESS);
        EXPECT_TRUE(Attributes(rd.handle) & FILE_ATTRIBUTE_READONLY);
        Close(rd.handle);
    });
}

TEST_F(FsTest, RelativeOpensOpenByIdAndTargetDirectory) {
    std::filesystem::create_directories(host / "d" / "sub");
    WriteHostFile(host / "d" / "sub" / "leaf.txt", "leaf");
    Run([&] {
        OpenResult dir = Open(u"\\d", GENERIC_READ | SYNCHRONIZE, 7, FILE_OPEN, FILE_DIRECTORY_FILE);
        ASSERT_EQ(dir.status, STATUS_SUCCESS);
        OpenResult rel = Open(u"sub\\leaf.txt", GENERIC_READ | SYNCHRONIZE, 7, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, 0,
                              dir.handle);
        ASSERT_EQ(rel.status, STATUS_SUCCESS);
        EXPECT_EQ(Open(u"\\sub", GENERIC_READ, 7, FILE_OPEN, 0, 0, dir.handle).status, STATUS_OBJECT_NAME_INVALID);

        FILE_INTERNAL_INFORMATION id{};
        ASSERT_EQ(Query(rel.handle, FileInternalInformation, &id, sizeof id), STATUS_SUCCESS);
        std::u16string idName(4, u'\0');
        memcpy(idName.data(), &id.IndexNumber, 8);
        OpenResult byId = Open(idName, GENERIC_READ | SYNCHRONIZE, 7, FILE_OPEN,
                               FILE_OPEN_BY_FILE_ID | FILE_SYNCHRONOUS_IO_NONALERT, 0, dir.handle);
        ASSERT_EQ(byId.status, STATUS_SUCCESS);
        std::string text;
        EXPECT_EQ(Read(byId.handle, &text, 10, 0), STATUS_SUCCESS);
        EXPECT_EQ(text, "leaf");
        Close(byId.handle);
        uint64_t bogus = 0x7ffffffffff0ULL;
        memcpy(idName.data(), &bogus, 8);
        EXPECT_EQ(Open(idName, GENERIC_READ, 7, FILE_OPEN, FILE_OPEN_BY_FILE_ID, 0, dir.handle).status,
                  STATUS_INVALID_PARAMETER);
        Close(rel.handle);
        Close(dir.handle);
    });
}

TEST_F(FsTest, DeletePendingAndDeleteOnClose) {
    std::filesystem::create_directories(host / "full");
    WriteHostFile(host / "full" / "x", "x");
    Run([&] {
        OpenResult a = Create(u"\\gone");
        ASSERT_EQ(a.status, STATUS_SUCCESS);
        OpenResult b = Open(u"\\gone");
        ASSERT_EQ(b.status, STATUS_SUCCESS);
        EXPECT_EQ(SetDelete(a.handle, true), STATUS_SUCCESS);
        FILE_STANDARD_INFORMATION st{};
        Query(b.handle, FileStandardInformation, &st, sizeof st);
        EXPECT_TRUE(st.DeletePending);
        EXPECT_EQ(Open(u"\\gone").status, STATUS_DELETE_PENDING);
        Close(a.handle);
        EXPECT_TRUE(std::filesystem::exists(host / "gone"));  // one handle still open
        Close(b.handle);
        EXPECT_FALSE(std::filesystem::exists(host / "gone"));
        EXPECT_EQ(Open(u"\\gone").status, STATUS_OBJECT_NAME_NOT_FOUND);

        // Undeleting before the last close keeps the file.
        OpenResult k = Create(u"\\kept");
        EXPECT_EQ(SetDelete(k.handle, true), STATUS_SUCCESS);
        EXPECT_EQ(SetDelete(k.handle, false), STATUS_SUCCESS);
        Close(k.handle);
        EXPECT_TRUE(std::filesystem::exists(host / "kept"));

        OpenResult doc = Create(u"\\temp", FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT);
        ASSERT_EQ(doc.status, STATUS_SUCCESS);
        EXPECT_TRUE(std::filesystem::exists(host / "temp"));
        Close(doc.handle);
        EXPECT_FALSE(std::filesystem::exists(host / "temp"));

        OpenResult full = Open(u"\\full", DELETE | SYNCHRONIZE, 7, FILE_OPEN, FILE_DIRECTORY_FILE);
        ASSERT_EQ(full.status, STATUS_SUCCESS);
        EXPECT_EQ(SetDelete(full.handle, true), STATUS_DIRECTORY_NOT_EMPTY);
        Close(full.handle);
        OpenResult nodel = Open(u"\\kept", GENERIC_READ | SYNCHRONIZE);
        EXPECT_EQ(SetDelete(nodel.handle, true), STATUS_ACCESS_DENIED);  // no DELETE access
        Close(nodel.handle);
    });
    EXPECT_TRUE(std::filesystem::exists(host / "full" / "x"));
}

// Opens of different files run at once, exact and other-case spellings
// alike, while another thread makes, renames and deletes names in the same
// directory: every open sees its own file whole, nothing deadlocks, and the
// machine ends with nothing outstanding.
TEST_F(FsTest, OpensOfDifferentFilesRunAtOnceWhileNamesChange) {
    for (int k = 0; k < 2; k++) WriteHostFile(host / "d" / ("f" + std::to_string(k) + ".txt"), "file " + std::to_string(k));
    WriteHostFile(host / "d" / "moving.txt", "m");
    std::atomic<int> failures{0};
    std::vector<std::unique_ptr<Machine::Thread>> threads;
    for (int k = 0; k < 2; k++) {
        threads.push_back(machine->StartThread(process, [&, k] {
            const std::u16string exact = U("\\d\\f" + std::to_string(k) + ".txt");
            const std::u16string other = U("\\D\\F" + std::to_string(k) + ".TXT");
            for (int i = 0; i < 150; i++) {
                OpenResult r = Open(i % 2 ? other : exact);
                std::string data;
                if (r.status != STATUS_SUCCESS || Read(r.handle, &data, 64, 0) != STATUS_SUCCESS ||
                    data != "file " + std::to_string(k) || Close(r.handle) != STATUS_SUCCESS) {
                    failures++;
                }
            }
        }));
    }
    threads.push_back(machine->StartThread(process, [&] {
        for (int i = 0; i < 50; i++) {
            OpenResult made = Create(U("\\d\\new" + std::to_string(i)), FILE_SYNCHRONOUS_IO_NONALERT | FILE_DELETE_ON_CLOSE);
            OpenResult moving = Open(i % 2 ? u"\\d\\moved.txt" : u"\\d\\moving.txt", GENERIC_READ | DELETE | SYNCHRONIZE);
            if (made.status != STATUS_SUCCESS || moving.status != STATUS_SUCCESS ||
                Rename(moving.handle, i % 2 ? u"moving.txt" : u"moved.txt", false) != STATUS_SUCCESS) {
                failures++;
            }
            Close(moving.handle);
            Close(made.handle);
        }
    }));
    for (auto& thread : threads) thread->Join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_TRUE(std::filesystem::exists(host / "d" / "moving.txt"));
    EXPECT_FALSE(std::filesystem::exists(host / "d" / "new0"));
}

// File objects held past their last handle are what the verifier lists as
// alive, by name and in address order, until their last reference goes.
TEST_F(FsTest, FileObjectsHeldPastTheirHandlesAreListedUntilReleased) {
    HostFile("held-a.txt", "a");
    HostFile("held-b.txt", "b");
    std::vector<PVOID> held;
    Run([&] {
        for (const char16_t* name : {u"\\held-a.txt", u"\\held-b.txt"}) {
            OpenResult r = Open(name);
            ASSERT_EQ(r.status, STATUS_SUCCESS);
            PVOID object = nullptr;
            ASSERT_EQ(ObReferenceObjectByHandle(r.handle, 0, *IoFileObjectType, KernelMode, &object, nullptr),
                      STATUS_SUCCESS);
            held.push_back(object);
            EXPECT_EQ(Close(r.handle), STATUS_SUCCESS);
        }
    });
    const std::vector<std::string> alive = machine->Snapshot().fileObjects;
    ASSERT_EQ(alive.size(), 2u);
    const bool aFirst = held[0] < held[1];
    EXPECT_NE(alive[aFirst ? 0 : 1].find("held-a.txt"), std::string::npos) << alive[0];
    EXPECT_NE(alive[aFirst ? 1 : 0].find("held-b.txt"), std::string::npos) << alive[1];
    EXPECT_NE(alive[0].find("(1 references, 0 handles)"), std::string::npos) << alive[0];
    Kernel([&] {
        for (PVOID object : held) ObDereferenceObject(object);
    });
    EXPECT_TRUE(machine->Snapshot().fileObjects.empty());
}

// A new control block reads its file's status again only when a control
// block of the same file went away since the open began, or when more went
// than the volume keeps a record of.
TEST_F(FsTest, UnlinkedSinceNamesOnlyTheFilesThatLostAControlBlock) {
    namespace fs = tervane::emu::fs;
    using fs::Vcb;
    struct Case {
        const char* what;
        std::vector<uint64_t> before, after;  // inodes unlinked before and after the open began
        uint64_t ino;
        bool reread;
    } cases[] = {
        {"nothing went", {}, {}, 7, false},
        {"another file's went", {}, {8}, 7, false},
        {"its own went", {}, {8, 7, 9}, 7, true},
        {"its own went before the open", {7}, {8}, 7, false},
        {"as many as the record keeps", {}, std::vector<uint64_t>(Vcb::kUnlinkedKept, 8), 7, false},
        {"more than the record keeps", {7}, std::vector<uint64_t>(Vcb::kUnlinkedKept + 1, 8), 7, true},
    };
    Run([&] {
        for (const Case& c : cases) {
            SCOPED_TRACE(c.what);
            Vcb vcb;
            auto unlink = [&](uint64_t ino) {
                fs::Fcb* fcb = fs::CreateFcb(&vcb, ino);
                ASSERT_NE(fcb, nullptr);
                vcb.fcbs[ino] = fcb;
                fs::UnlinkFcb(&vcb, fcb);
                fs::DeleteFcb(fcb);
            };
            for (uint64_t ino : c.before) unlink(ino);
            const uint64_t since = vcb.fcbsUnlinked.load();
            for (uint64_t ino : c.after) unlink(ino);
            EXPECT_EQ(fs::UnlinkedSince(&vcb, since, c.ino), c.reread);
        }
    });
}
