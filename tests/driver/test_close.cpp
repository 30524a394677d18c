// Close of redirected opens: the real handle and a listing's handle are
// released, the entry goes only with the last reference, and a deletion asked
// for during the open is carried out across the filter directories.
#include "test_dispatch_support.h"

#include <algorithm>

#include "filemgr/file_handle_table.h"

namespace tervane::test {
namespace {

class CloseTest : public DispatchTest {
protected:
    void SetUp() override {
        DispatchTest::SetUp();
        HostFile(std::string(kPack) + "/dir/p.txt", "P");
        HostFile(std::string(kPack) + "/dir/dup.txt", "pack");
        HostFile(std::string(kBase) + "/dir/dup.txt", "base");
        HostFile(std::string(kMid) + "/dir/m.txt", "M");
        HostFile(std::string(kPack) + "/full/child.txt", "C");
        Configure();
    }
    PFILE_OBJECT Reference(HANDLE handle) {
        PFILE_OBJECT fileObject = nullptr;
        App([&] {
            EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, (PVOID*)&fileObject,
                                                nullptr),
                      STATUS_SUCCESS);
        });
        return fileObject;
    }
    bool HasEntry(PFILE_OBJECT fileObject) {
        bool found = false;
        App([&] { found = FindFileHandleEntry(fileObject) != nullptr; });
        return found;
    }
    static uint64_t GeneralPoolBytes(const emu::VerifierReport& report) {
        for (const auto& usage : report.pool)
            if (usage.tag == "Trvm") return usage.outstandingBytes;
        return 0;
    }
    bool Listed(const std::u16string& dir, const std::string& name) {
        Names names = List(app, dir);
        return std::find(names.begin(), names.end(), name) != names.end();
    }
    using Names = std::vector<std::string>;
};

// Whatever the open did, its close leaves nothing behind: the same handles,
// file objects and general pool as before the open.
TEST_F(CloseTest, CloseReleasesEverythingTheOpenHeld) {
    struct Case {
        const char* name;
        const char16_t* path;
        bool directory;
        int queries;  // single-entry queries before the close; -1: to the end
        bool listingOpenAtClose;
    };
    const Case cases[] = {
        {"file never listed", u"C:\\dir\\p.txt", false, 0, false},
        {"listing stopped midway", u"C:\\dir", true, 1, true},
        {"listing run to its end", u"C:\\dir", true, -1, false},
    };
    // Path buffers come from a lookaside list that keeps a few freed ones:
    // the general pool is compared once every case has run before.
    for (int round = 0; round < 2; round++) {
        for (const Case& c : cases) {
            SCOPED_TRACE(::testing::Message() << c.name << ", round " << round);
            const emu::VerifierReport before = machine->Snapshot();
            const size_t closesBefore = LogCount("filtering done...");
            const std::string noListing = "CloseFile\t[" + emu::Utf16ToUtf8(c.path) + "] QueryDirHandle[0] ";
            const size_t noListingBefore = LogCount(noListing);
            OpenResult open = c.directory ? Open(app, c.path, FILE_LIST_DIRECTORY | SYNCHRONIZE, FILE_OPEN,
                                                 FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT)
                                          : Open(app, c.path);
            ASSERT_EQ(open.status, STATUS_SUCCESS);
            App([&] {
                std::vector<uint8_t> buffer(1024);
                const std::u16string star = u"*";
                UNICODE_STRING pattern = emu::MakeUnicodeString(star);
                for (int i = 0; c.queries < 0 || i < c.queries; i++) {
                    IO_STATUS_BLOCK iosb = {};
                    NTSTATUS status =
                        NtQueryDirectoryFile(open.handle, nullptr, nullptr, nullptr, &iosb, buffer.data(),
                                             ULONG(buffer.size()), FileBothDirectoryInformation, TRUE,
                                             i == 0 ? &pattern : nullptr, FALSE);
                    if (status == STATUS_NO_MORE_FILES && c.queries < 0) break;
                    ASSERT_EQ(status, STATUS_SUCCESS);
                }
            });
            // The handle's clean-up is not the close: the entry lives while a
            // reference does.
            PFILE_OBJECT fileObject = Reference(open.handle);
            Close(app, open.handle);
            EXPECT_TRUE(HasEntry(fileObject));
            EXPECT_EQ(LogCount("filtering done..."), closesBefore);
            App([&] { ObDereferenceObject(fileObject); });
            EXPECT_FALSE(HasEntry(fileObject));
            EXPECT_EQ(LogCount("filtering done..."), closesBefore + 1);
            EXPECT_EQ(LogCount(noListing), noListingBefore + (c.listingOpenAtClose ? 0 : 1));

            const emu::VerifierReport after = machine->Snapshot();
            EXPECT_EQ(after.handles, before.handles);
            EXPECT_EQ(after.fileObjects, before.fileObjects);
            if (round == 1) {
                EXPECT_EQ(GeneralPoolBytes(after), GeneralPoolBytes(before));
            }
            EXPECT_TRUE(after.violations.empty()) << ::testing::PrintToString(after.violations);
        }
    }
    EXPECT_EQ(LogCount("CloseFile\t["), 6u);
    EXPECT_EQ(LogCount("RealFileHandle[0]"), 0u);
}

// FILE_DELETE_ON_CLOSE: the copy in the pack location is removed from disk,
// lower copies stay on disk but leave the view. A lower copy that cannot be
// deleted fails the open itself, which changes nothing; a directory that is
// not empty stays, as the file system leaves it.
TEST_F(CloseTest, DeletionAtClose) {
    struct Case {
        const char* name;
        const char16_t* path;
        const char* entry;      // its name in the listing of its directory
        const char* heldOpen;   // a copy another process holds without delete sharing
        bool directory;
        NTSTATUS open;
        bool deleted;
        std::vector<std::pair<std::string, bool>> onDisk;  // host path, still there
    };
    const Case cases[] = {
        {"pack only", u"C:\\dir\\p.txt", "p.txt", nullptr, false, STATUS_SUCCESS, true,
         {{"layers/pack/dir/p.txt", false}}},
        {"pack and base", u"C:\\dir\\dup.txt", "dup.txt", "layers/base/dir/dup.txt", false,
         STATUS_SHARING_VIOLATION, false,
         {{"layers/pack/dir/dup.txt", true}, {"layers/base/dir/dup.txt", true}}},
        {"pack and base, nothing in the way", u"C:\\dir\\dup.txt", "dup.txt", nullptr, false, STATUS_SUCCESS, true,
         {{"layers/pack/dir/dup.txt", false}, {"layers/base/dir/dup.txt", true}}},
        {"a lower layer only", u"C:\\dir\\m.txt", "m.txt", nullptr, false, STATUS_SUCCESS, true,
         {{"layers/mid/dir/m.txt", true}}},
        {"a directory that is not empty", u"C:\\full", "full", nullptr, true, STATUS_SUCCESS, false,
         {{"layers/pack/full/child.txt", true}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::u16string parent = std::u16string(c.path).substr(0, std::u16string(c.path).rfind(u'\\') + 1);
        OpenResult holder;
        if (c.heldOpen != nullptr) {
            std::string real = std::string("C:\\") + c.heldOpen;
            std::replace(real.begin(), real.end(), '/', '\\');
            holder = Open(other, emu::Utf8ToUtf16(real), GENERIC_READ | SYNCHRONIZE, FILE_OPEN,
                          FILE_SYNCHRONOUS_IO_NONALERT, FILE_SHARE_READ);
            ASSERT_EQ(holder.status, STATUS_SUCCESS);
        }
        OpenResult open = Open(app, c.path, GENERIC_READ | DELETE | SYNCHRONIZE, FILE_OPEN,
                               FILE_SYNCHRONOUS_IO_NONALERT | FILE_DELETE_ON_CLOSE |
                                   (c.directory ? FILE_DIRECTORY_FILE : FILE_NON_DIRECTORY_FILE));
        ASSERT_EQ(open.status, c.open) << emu::StatusName(open.status);
        if (NT_SUCCESS(open.status)) {
            EXPECT_TRUE(Listed(parent, c.entry)) << "still there until the close";
            App([&] { EXPECT_EQ(NtClose(open.handle), STATUS_SUCCESS); });
        }
        if (holder.handle != nullptr) Close(other, holder.handle);

        OpenResult again = Open(app, c.path, FILE_READ_ATTRIBUTES | SYNCHRONIZE, FILE_OPEN,
                                FILE_SYNCHRONOUS_IO_NONALERT);
        EXPECT_EQ(NT_SUCCESS(again.status), !c.deleted) << emu::StatusName(again.status);
        if (NT_SUCCESS(again.status)) Close(app, again.handle);
        EXPECT_EQ(Listed(parent, c.entry), !c.deleted);
        for (const auto& [host, there] : c.onDisk) EXPECT_EQ(HostExists(host), there) << host;
    }
    EXPECT_TRUE(machine->HandleLines(1234).empty()) << ::testing::PrintToString(machine->HandleLines(1234));
}

}  // namespace
}  // namespace tervane::test
