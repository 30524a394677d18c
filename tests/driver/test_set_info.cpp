// Set information on redirected opens: renames of every target form
// and forwarded classes with copy-up.
#include "test_dispatch_support.h"

namespace tervane::test {
namespace {

class SetInfoTest : public DispatchTest {
protected:
    void SetUp() override {
        DispatchTest::SetUp();
        HostFile(std::string(kBase) + "/dir/a.txt", "A");
        HostFile(std::string(kBase) + "/dir/b.txt", "B");
        HostFile(std::string(kBase) + "/dir/sub/c.txt", "C");
        HostFile(std::string(kMid) + "/dir/m.txt", "M");
        Configure();
    }
    NTSTATUS Rename(HANDLE handle, const std::u16string& name, BOOLEAN replace, HANDLE root = nullptr) {
        std::vector<uint8_t> record(FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + name.size() * 2 + 2, 0);
        auto* info = reinterpret_cast<PFILE_RENAME_INFORMATION>(record.data());
        info->ReplaceIfExists = replace;
        info->RootDirectory = root;
        info->FileNameLength = ULONG(name.size() * 2);
        memcpy(info->FileName, name.data(), name.size() * 2);
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        App([&] {
            IO_STATUS_BLOCK iosb = {};
            status = NtSetInformationFile(handle, &iosb, record.data(), ULONG(record.size()), FileRenameInformation);
        });
        return status;
    }
    NTSTATUS Dispose(HANDLE handle, BOOLEAN deleteFile) {
        FILE_DISPOSITION_INFORMATION info = {deleteFile};
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        App([&] {
            IO_STATUS_BLOCK iosb = {};
            status = NtSetInformationFile(handle, &iosb, &info, sizeof(info), FileDispositionInformation);
        });
        return status;
    }
    OpenResult OpenForChange(const std::u16string& path) {
        return Open(app, path, GENERIC_READ | DELETE | SYNCHRONIZE);
    }
};

TEST_F(SetInfoTest, RenameTargets) {
    struct Case {
        const char* name;
        std::u16string target;
        BOOLEAN replace;
        NTSTATUS status;
        const char16_t* newPath;  // where a.txt can be read afterwards
    };
    const Case cases[] = {
        {"onto an existing lower file", u"\\??\\C:\\dir\\b.txt", FALSE, STATUS_OBJECT_NAME_COLLISION, nullptr},
        {"onto an existing directory", u"\\??\\C:\\dir\\sub", TRUE, STATUS_UNSUCCESSFUL, nullptr},
        {"NT path the object manager cannot find", u"\\Device\\Elsewhere\\x.txt", FALSE,
         STATUS_OBJECT_PATH_NOT_FOUND, nullptr},
        {"name longer than a path", u"\\??\\C:\\" + std::u16string(1100, u'n'), FALSE, STATUS_OBJECT_NAME_INVALID,
         nullptr},
        {"bare name: a sibling", u"a2.txt", FALSE, STATUS_SUCCESS, u"C:\\dir\\a2.txt"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        OpenResult open = OpenForChange(u"C:\\dir\\a.txt");
        ASSERT_EQ(open.status, STATUS_SUCCESS);
        NTSTATUS status = Rename(open.handle, c.target, c.replace);
        EXPECT_EQ(status, c.status) << emu::StatusName(status);
        Close(app, open.handle);
        if (c.newPath != nullptr) {
            EXPECT_EQ(Cat(app, c.newPath), "A");
            EXPECT_EQ(Cat(app, u"C:\\dir\\a.txt"), "<STATUS_OBJECT_NAME_NOT_FOUND>");
        } else {
            EXPECT_EQ(Cat(app, u"C:\\dir\\a.txt"), "A");
        }
    }
    EXPECT_EQ(HostContent(std::string(kBase) + "/dir/a.txt"), "A") << "the lower copy stays on disk";
    EXPECT_EQ(HostContent(std::string(kPack) + "/dir/a2.txt"), "A");
}

TEST_F(SetInfoTest, RenameKeepsTheOpenOnItsNewName) {
    OpenResult open = OpenForChange(u"C:\\dir\\m.txt");
    ASSERT_EQ(open.status, STATUS_SUCCESS);
    EXPECT_EQ(Rename(open.handle, u"C:\\dir\\renamed.txt", FALSE), STATUS_SUCCESS);
    std::vector<uint8_t> buffer(200, 0);
    App([&] {
        IO_STATUS_BLOCK iosb;
        ASSERT_EQ(NtQueryInformationFile(open.handle, &iosb, buffer.data(), ULONG(buffer.size()), FileNameInformation),
                  STATUS_SUCCESS);
    });
    auto* info = reinterpret_cast<PFILE_NAME_INFORMATION>(buffer.data());
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(info->FileName), info->FileNameLength / 2),
              u"\\dir\\renamed.txt");
    // A rename relative to a directory that is not a redirected open has no
    // target in the view.
    OpenResult real = Open(app, u"C:", FILE_LIST_DIRECTORY | SYNCHRONIZE);
    ASSERT_EQ(real.status, STATUS_SUCCESS);
    EXPECT_EQ(Rename(open.handle, u"x.txt", FALSE, real.handle), STATUS_OBJECT_NAME_INVALID);
    Close(app, real.handle);
    Close(app, open.handle);
    EXPECT_EQ(Cat(app, u"C:\\dir\\m.txt"), "<STATUS_OBJECT_NAME_NOT_FOUND>");
    EXPECT_EQ(HostContent(std::string(kMid) + "/dir/m.txt"), "M");
}

TEST_F(SetInfoTest, BasicInformationCopiesUpOnlyForRealChanges) {
    OpenResult open = Open(app, u"C:\\dir\\a.txt", GENERIC_READ | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE);
    ASSERT_EQ(open.status, STATUS_SUCCESS);
    auto setBasic = [&](LONGLONG lastAccess, ULONG attributes) {
        FILE_BASIC_INFORMATION info = {};
        info.LastAccessTime.QuadPart = lastAccess;
        info.FileAttributes = attributes;
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        App([&] {
            IO_STATUS_BLOCK iosb;
            status = NtSetInformationFile(open.handle, &iosb, &info, sizeof(info), FileBasicInformation);
        });
        return status;
    };
    EXPECT_EQ(setBasic(130000000000000000LL, 0), STATUS_SUCCESS);
    EXPECT_FALSE(HostExists(std::string(kPack) + "/dir/a.txt")) << "last-access time alone: no copy";
    EXPECT_EQ(setBasic(0, FILE_ATTRIBUTE_READONLY), STATUS_SUCCESS);
    EXPECT_TRUE(HostExists(std::string(kPack) + "/dir/a.txt"));
    Close(app, open.handle);
    EXPECT_EQ(Cat(app, u"C:\\dir\\a.txt"), "A");
}

}  // namespace
}  // namespace tervane::test
