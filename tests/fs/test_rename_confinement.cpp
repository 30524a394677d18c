// Renames, confinement to the host directory, and hostile host names.
#include <sys/stat.h>

#include "fs_fixture.h"

using namespace tervane::test;

TEST_F(FsTest, RenameMatrix) {
    struct Case {
        const char* target;  // relative to the source's directory; '$' stands for that directory's full name
        bool replace;
        bool targetExists, targetOpen, targetIsDir;
        NTSTATUS status;
        bool sourceIsDir = false;
    } cases[] = {
        {"new", false, false, false, false, STATUS_SUCCESS},
        {"tgt", false, true, false, false, STATUS_OBJECT_NAME_COLLISION},
        {"TGT", true, true, false, false, STATUS_SUCCESS},
        {"tgt", true, true, true, false, STATUS_ACCESS_DENIED},
        {"tgt", true, true, false, true, STATUS_ACCESS_DENIED},
        {"\\??\\C:$\\other\\moved", false, false, false, false, STATUS_SUCCESS},
        {"\\??\\C:$\\missing\\moved", false, false, false, false, STATUS_OBJECT_PATH_NOT_FOUND},
        {"\\??\\E:$\\moved", false, false, false, false, STATUS_SUCCESS},  // E: is another letter of C:
        {"\\??\\F:\\moved", false, false, false, false, STATUS_NOT_SAME_DEVICE},
        {"bad:name", false, false, false, false, STATUS_OBJECT_NAME_INVALID},
        // A directory onto a file: a collision, or with ReplaceIfExists the
        // file goes and the directory takes its name (Wine's
        // test_file_rename_information, as Windows behaves).
        {"tgt", false, true, false, false, STATUS_OBJECT_NAME_COLLISION, true},
        {"tgt", true, true, false, false, STATUS_SUCCESS, true},
        {"TGT", true, true, false, false, STATUS_SUCCESS, true},
    };
    ASSERT_EQ(machine->AliasVolume('E', 'C'), STATUS_SUCCESS);
    auto other = FreshHostDir("other-volume");
    ASSERT_EQ(machine->MountVolume('F', other.string()), STATUS_SUCCESS);
    int n = 0;
    for (auto& c : cases) {
        auto dir = host / ("case" + std::to_string(n++));
        std::filesystem::create_directories(dir / "other");
        if (c.sourceIsDir) std::filesystem::create_directories(dir / "src" / "inner");
        else WriteHostFile(dir / "src", "source");
        if (c.targetExists) {
            if (c.targetIsDir) std::filesystem::create_directories(dir / "tgt");
            else WriteHostFile(dir / "tgt", "target");
        }
        std::u16string base = U("\\" + dir.filename().string());
        Run([&] {
            OpenResult src = Open(base + u"\\src", DELETE | SYNCHRONIZE, 7, FILE_OPEN,
                                  c.sourceIsDir ? FILE_DIRECTORY_FILE : FILE_NON_DIRECTORY_FILE);
            ASSERT_EQ(src.status, STATUS_SUCCESS);
            OpenResult held{};
            if (c.targetOpen) held = Open(base + u"\\tgt");
            std::string t = c.target;
            size_t dollar = t.find('$');
            std::u16string target =
                dollar == std::string::npos ? U(t) : U(t.substr(0, dollar)) + base + U(t.substr(dollar + 1));
            EXPECT_EQ(Rename(src.handle, target, c.replace), c.status) << n << " " << t;
            Close(src.handle);
            if (c.targetOpen) Close(held.handle);
        });
        EXPECT_EQ(std::filesystem::exists(dir / "src"), !NT_SUCCESS(c.status)) << n;
    }
    EXPECT_EQ(ReadHostFile(host / "case2" / "TGT"), "source");  // replaced, with the new spelling
    EXPECT_FALSE(std::filesystem::exists(host / "case2" / "tgt"));
    EXPECT_TRUE(std::filesystem::exists(host / "case5" / "other" / "moved"));
    EXPECT_TRUE(std::filesystem::is_regular_file(host / "case10" / "tgt"));
    EXPECT_TRUE(std::filesystem::is_directory(host / "case11" / "tgt" / "inner"));
    EXPECT_TRUE(std::filesystem::is_directory(host / "case12" / "TGT" / "inner"));
    EXPECT_FALSE(std::filesystem::exists(host / "case12" / "tgt"));
    std::filesystem::remove_all(other);
}

TEST_F(FsTest, RenameWithRootHandleAndDirectoryRules) {
    std::filesystem::create_directories(host / "a" / "inner");
    std::filesystem::create_directories(host / "b");
    WriteHostFile(host / "a" / "inner" / "f", "f");
    Run([&] {
        OpenResult b = Open(u"\\b", FILE_LIST_DIRECTORY | SYNCHRONIZE, 7, FILE_OPEN, FILE_DIRECTORY_FILE);
        OpenResult a = Open(u"\\a", DELETE | SYNCHRONIZE, 7, FILE_OPEN, FILE_DIRECTORY_FILE);
        OpenResult f = Open(u"\\a\\inner\\f", DELETE | SYNCHRONIZE);
        ASSERT_EQ(f.status, STATUS_SUCCESS);
        EXPECT_EQ(Rename(a.handle, u"renamed", false), STATUS_ACCESS_DENIED);  // a file below it is open
        EXPECT_EQ(Rename(f.handle, u"g", false, b.handle), STATUS_SUCCESS);
        Close(f.handle);
        EXPECT_EQ(Rename(a.handle, u"\\??\\C:\\a\\inner\\x", false), STATUS_INVALID_PARAMETER);  // into itself
        EXPECT_EQ(Rename(a.handle, u"renamed", false), STATUS_SUCCESS);
        uint8_t buf[256];
        Query(a.handle, FileNameInformation, buf, sizeof buf);
        auto* n = reinterpret_cast<FILE_NAME_INFORMATION*>(buf);
        EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(n->FileName), n->FileNameLength / 2), u"\\renamed");
        Close(a.handle);
        Close(b.handle);
        OpenResult moved = Open(u"\\renamed\\inner");
        EXPECT_EQ(moved.status, STATUS_SUCCESS);
        if (NT_SUCCESS(moved.status)) Close(moved.handle);
    });
    EXPECT_EQ(ReadHostFile(host / "b" / "g"), "f");
    EXPECT_TRUE(std::filesystem::is_directory(host / "renamed" / "inner"));
}

TEST_F(FsTest, ConfinementAndHostileHostNames) {
    auto outside = FreshHostDir("outside");
    WriteHostFile(outside / "secret", "secret");
    std::filesystem::create_directory_symlink(outside, host / "link");
    std::filesystem::create_symlink(outside / "secret", host / "filelink");
    ASSERT_EQ(mkfifo((host / "fifo").c_str(), 0644), 0);
    WriteHostFile(host / "bad\xff", "not utf-8");
    WriteHostFile(host / "what?", "invalid NT name");
    WriteHostFile(host / "Case", "upper");
    WriteHostFile(host / "case", "lower");
    Run([&] {
        OpenResult root = Open(u"\\", FILE_LIST_DIRECTORY | SYNCHRONIZE, 7, FILE_OPEN, FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
        // Links, the fifo and names NT cannot spell are not shown; of two
        // names differing in case, the first by host bytes is.
        EXPECT_EQ(List(root.handle), (std::vector<std::string>{"Case"}));
        Close(root.handle);
        EXPECT_EQ(Open(u"\\link\\secret").status, STATUS_OBJECT_PATH_NOT_FOUND);
        EXPECT_EQ(Open(u"\\filelink").status, STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(Open(u"\\fifo").status, STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(Open(u"\\fifo", GENERIC_WRITE | SYNCHRONIZE, 7, FILE_OVERWRITE_IF).status, STATUS_ACCESS_DENIED);
        EXPECT_EQ(Open(u"\\link", GENERIC_WRITE | SYNCHRONIZE, 7, FILE_OPEN_IF).status, STATUS_ACCESS_DENIED);
        EXPECT_EQ(Open(u"\\..\\..\\etc\\passwd").status, STATUS_OBJECT_NAME_INVALID);
        OpenResult exact = Open(u"\\case");
        ASSERT_EQ(exact.status, STATUS_SUCCESS);
        std::string text;
        Read(exact.handle, &text, 10, 0);
        EXPECT_EQ(text, "lower");  // the exact spelling wins
        Close(exact.handle);
        OpenResult other = Open(u"\\CASE");
        Read(other.handle, &text, 10, 0);
        EXPECT_EQ(text, "upper");
        Close(other.handle);
        std::u16string embeddedNul(u"\\a\0b", 4);
        EXPECT_EQ(Open(embeddedNul, GENERIC_READ | SYNCHRONIZE, 7, FILE_CREATE).status, STATUS_OBJECT_NAME_INVALID);
        std::u16string lone(u"\\\xd800x");
        EXPECT_EQ(Open(lone, GENERIC_READ | SYNCHRONIZE, 7, FILE_CREATE).status, STATUS_OBJECT_NAME_INVALID);
    });
    EXPECT_EQ(ReadHostFile(outside / "secret"), "secret");
    EXPECT_TRUE(std::filesystem::is_symlink(host / "link"));
    std::filesystem::remove_all(outside);
}
