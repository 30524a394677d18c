// Index paths: lookup, insert with parents, remove and rename.
#include "test_index_support.h"

namespace tervane::test {
namespace {

class IndexPathTest : public IndexTest {
protected:
    void SetUp() override {
        IndexTest::SetUp();
        index = Create(0x40000, 0x40000);
    }
    bool Insert(const std::u16string& text, ULONG type = 0) {
        Path p(text);
        BOOLEAN ok = FALSE;
        Kernel([&] { ok = InsertIndexPath(index, p.us(), type); });
        return ok;
    }
    // The offset of the entry found, or -1.
    long Lookup(const std::u16string& text, FileIndexEntry* found = nullptr) {
        Path p(text);
        FileIndexEntry e{};
        BOOLEAN ok = FALSE;
        Kernel([&] { ok = LookupIndexPath(index, p.us(), &e); });
        if (found) *found = e;
        return ok ? long(e.m_ulOffset) : -1;
    }
    bool Remove(const std::u16string& text) {
        Path p(text);
        BOOLEAN ok = FALSE;
        Kernel([&] { ok = RemoveIndexPath(index, p.us()); });
        return ok;
    }
    bool Rename(const std::u16string& from, const std::u16string& to) {
        Path a(from), b(to);
        BOOLEAN ok = FALSE;
        Kernel([&] { ok = RenameIndexPath(index, a.us(), b.us()); });
        return ok;
    }
    PFileIndex index = nullptr;
};

TEST_F(IndexPathTest, LookupFollowsTheDrivePathRules) {
    ASSERT_TRUE(Insert(u"C:\\Dir\\Sub\\file.txt", 0));
    long file = Lookup(u"C:\\Dir\\Sub\\file.txt");
    long dir = Lookup(u"C:\\Dir");
    ASSERT_GT(file, 0);
    struct Case {
        const char16_t* path;
        long expected;
    } cases[] = {
        {u"C:\\", 0},                          // the root
        {u"C:", -1},                           // too short
        {u"", -1},
        {u"D:\\dir\\SUB\\FILE.TXT", file},     // any drive, any case
        {u"C:\\Dir\\", dir},                   // one trailing backslash
        {u"C:\\Dir\\\\Sub\\file.txt", file},   // doubled backslash
        {u"C:\\\\Dir", dir},
        {u"C:\\Dir\\Sub\\file.txt\\x", -1},    // through a file
        {u"C:\\Dir\\Su", -1},
        {u"C:\\Dir\\Sub\\file.txt\\", file},
    };
    for (const auto& c : cases) EXPECT_EQ(Lookup(c.path), c.expected) << std::string(c.path, c.path + std::char_traits<char16_t>::length(c.path));
    FileIndexEntry root;
    EXPECT_EQ(Lookup(u"X:\\", &root), 0);
    EXPECT_EQ(root.m_ulType, 1u);
    Kernel([&] {
        FileIndexEntry e;
        EXPECT_FALSE(LookupIndexPath(nullptr, nullptr, &e));
        EXPECT_FALSE(LookupIndexPath(index, nullptr, &e));
    });
}

TEST_F(IndexPathTest, LookupOfANonDrivePathReportsTheAssertion) {
    ASSERT_TRUE(Insert(u"C:\\abc"));
    machine->TakeNewLog();
    EXPECT_EQ(Lookup(u"XY\\abc"), 48);  // still processed, first three characters skipped
    std::string log = machine->TakeNewLog();
    EXPECT_NE(log.find("pustrFilePath->Buffer[1] == L':' && pustrFilePath->Buffer[2] == L'\\\\'"), std::string::npos)
        << log;
    EXPECT_NE(log.find("file_index"), std::string::npos) << log;
}

TEST_F(IndexPathTest, InsertAddsMissingParentsAsDirectories) {
    ULONG before = index->m_ulNodeUsed;
    EXPECT_TRUE(Insert(u"C:\\a\\b\\c", 7));
    EXPECT_EQ(index->m_ulNodeUsed, before + 3 * 48);
    FileIndexEntry a, b, c;
    Lookup(u"C:\\a", &a);
    Lookup(u"C:\\a\\b", &b);
    Lookup(u"C:\\a\\b\\c", &c);
    EXPECT_EQ(a.m_ulType, 1u);
    EXPECT_EQ(b.m_ulType, 1u);
    EXPECT_EQ(c.m_ulType, 7u);
    struct Case {
        const char16_t* path;
        bool ok;
        int added;
    } cases[] = {
        {u"C:\\a\\b\\c", false, 0},     // present already
        {u"D:\\A\\B\\C", false, 0},
        {u"C:\\", true, 0},             // the root always exists
        {u"C:", false, 0},
        {u"C:\\a\\b\\d\\", true, 1},    // trailing backslash dropped
        {u"C:\\a\\x\\\\", false, 1},    // empty last component; x stays
        {u"C:\\a\\b\\c\\y", false, 0},  // below a file (type 7)
    };
    for (const auto& item : cases) {
        ULONG used = index->m_ulNodeUsed;
        EXPECT_EQ(Insert(item.path), item.ok);
        EXPECT_EQ(index->m_ulNodeUsed, used + item.added * 48u);
    }
    FileIndexEntry d;
    EXPECT_GT(Lookup(u"C:\\a\\b\\d", &d), 0);
    EXPECT_EQ(d.m_ulType, 0u);
}

TEST_F(IndexPathTest, RemoveUnlinksTheWholeSubtree) {
    ASSERT_TRUE(Insert(u"C:\\a\\b\\c"));
    ASSERT_TRUE(Insert(u"C:\\a2"));
    ULONG used = index->m_ulNodeUsed;
    EXPECT_TRUE(Remove(u"c:\\A"));
    EXPECT_EQ(Lookup(u"C:\\a"), -1);
    EXPECT_EQ(Lookup(u"C:\\a\\b\\c"), -1);
    EXPECT_GT(Lookup(u"C:\\a2"), 0);
    EXPECT_EQ(index->m_ulNodeUsed, used);
    EXPECT_FALSE(Remove(u"C:\\a"));
    EXPECT_FALSE(Remove(u"C:\\"));  // the root is never unlinked
}

TEST_F(IndexPathTest, RenameMovesEntriesWithTheirChildren) {
    ASSERT_TRUE(Insert(u"C:\\a\\old\\child", 0));
    ASSERT_TRUE(Insert(u"C:\\t\\taken", 0));
    long child = Lookup(u"C:\\a\\old\\child");
    EXPECT_TRUE(Rename(u"C:\\a\\old", u"C:\\b\\new"));  // C:\b is made on the way
    EXPECT_EQ(Lookup(u"C:\\b\\new\\child"), child);
    EXPECT_EQ(Lookup(u"C:\\a\\old"), -1);
    FileIndexEntry b;
    Lookup(u"C:\\b", &b);
    EXPECT_EQ(b.m_ulType, 1u);

    struct Case {
        const char16_t* from;
        const char16_t* to;
        bool ok;
    } cases[] = {
        {u"C:\\b\\new", u"C:\\t\\TAKEN", false},  // the target name is taken
        {u"C:\\b\\new", u"C:\\t\\", false},       // target ends with a backslash
        {u"C:\\b\\new", u"C:newname", false},     // no backslash
        {u"C:\\nothing", u"C:\\t\\x", false},     // no source
        {u"C:\\b", u"C:\\b\\new\\inside", false}, // below itself
        {u"C:\\b\\new", u"D:\\renamed", true},    // to the root, any drive
        {u"C:\\renamed", u"C:\\t\\taken\\x", false},  // below a file
    };
    for (const auto& c : cases) EXPECT_EQ(Rename(c.from, c.to), c.ok);
    EXPECT_EQ(Lookup(u"C:\\renamed\\child"), child);
    EXPECT_GT(Lookup(u"C:\\t\\taken"), 0);
}

}  // namespace
}  // namespace tervane::test
