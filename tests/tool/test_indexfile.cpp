// Index files built, checked, dumped and searched on the host.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "indexfile/indexfile.h"

namespace fs = std::filesystem;
using namespace tervane::indexfile;

namespace {

void SetU32(std::vector<uint8_t>& b, size_t pos, uint32_t v) {
    for (int i = 0; i < 4; i++) b[pos + i] = uint8_t(v >> (8 * i));
}
// Sets field f (0 = type ... 7 = previous sibling) of the entry at offset o.
void SetField(IndexFiles& f, uint32_t o, int field, uint32_t v) { SetU32(f.node, 68 + o + 4 * field, v); }

class TempTree {
public:
    TempTree() {
        char tmpl[] = "/tmp/tervane-indexfile-XXXXXX";
        root_ = mkdtemp(tmpl);
    }
    ~TempTree() { fs::remove_all(root_); }
    void File(const std::string& rel) {
        fs::create_directories((root_ / rel).parent_path());
        std::ofstream(root_ / rel) << "x";
    }
    void Dir(const std::string& rel) { fs::create_directories(root_ / rel); }
    const fs::path& Root() const { return root_; }

private:
    fs::path root_;
};

IndexFiles Build(std::initializer_list<std::pair<std::u16string, uint32_t>> paths) {
    IndexBuilder b;
    std::string error;
    for (auto& [p, t] : paths) EXPECT_TRUE(b.Add(p, t, &error)) << error;
    return b.Files();
}

}  // namespace

// The byte layout itself is checked against the driver's own insertions in
// the driver tests (HostBuilderMatchesTheDriverByteForByte).

TEST(IndexBuilderAdd, RefusesWhatTheDriverRefuses) {
    struct Case {
        std::u16string path;
        bool ok;
        const char* message;
    } cases[] = {
        {u"a\\f", true, ""},
        {u"A\\F", false, "already"},           // case does not make a new name
        {u"a\\f\\x", false, "through a file"},  // only the last component may be a file
        {u"C:\\a\\g\\", true, ""},              // one trailing backslash is ignored
        {u"\\a\\\\h", true, ""},                // an empty component names its directory
        {u"a\\", false, "already"},
        {u"x\\\\", false, "empty last component"},
    };
    IndexBuilder b;
    for (const auto& c : cases) {
        std::string error;
        EXPECT_EQ(b.Add(c.path, kTypeFile, &error), c.ok);
        EXPECT_NE(error.find(c.message), std::string::npos) << error;
    }
    std::string error;
    EXPECT_TRUE(LookupPath(b.Files(), u"C:\\A\\H", &error).has_value());
    EXPECT_TRUE(LookupPath(b.Files(), u"C:\\a\\G", &error).has_value());
}

TEST(IndexBuilderAdd, StopsAtTheAreaSizes) {
    IndexBuilder b;
    std::string error;
    uint32_t n = 0;
    while (b.EntryCount() < kMaxEntries) {
        std::string s = "f" + std::to_string(n++);
        ASSERT_TRUE(b.Add(std::u16string(s.begin(), s.end()), kTypeFile, &error)) << error;
    }
    EXPECT_FALSE(b.Add(u"one-more", kTypeFile, &error));
    EXPECT_NE(error.find("5 MB"), std::string::npos) << error;
    EXPECT_LE(b.Files().node.size(), kAreaSize);
    EXPECT_EQ(CheckIndexFiles(b.Files()), "");

    IndexBuilder names;
    std::u16string longName(32767, u'x');
    uint32_t stored = 0;
    for (;; stored++) {
        longName[0] = char16_t(u'A' + stored / 26);
        longName[1] = char16_t(u'a' + stored % 26);
        if (!names.Add(longName, kTypeFile, &error)) break;
    }
    EXPECT_EQ(stored, kMaxNameBytes / 65534);
    EXPECT_NE(error.find("names"), std::string::npos) << error;
    EXPECT_FALSE(names.Add(std::u16string(32768, u'y'), kTypeFile, &error));
}

TEST(IndexBuild, HostTreeBecomesAnIndex) {
    TempTree t;
    t.File("Windows/System32/kernel.dll");
    t.File("Windows/win.ini");
    t.Dir("Empty");
    t.File("readme.txt");
    IndexFiles f;
    std::string error;
    ASSERT_TRUE(BuildIndex(t.Root(), &f, &error)) << error;
    EXPECT_EQ(CheckIndexFiles(f), "");

    std::vector<std::string> lines;
    ASSERT_TRUE(DumpIndex(f, [&](const DumpLine& l) { lines.push_back(l.path + " " + std::to_string(l.type)); },
                          &error))
        << error;
    // Sorted names are added in order; each new child heads the list.
    std::vector<std::string> expected = {"\\ 1",
                                         "\\readme.txt 0",
                                         "\\Windows 1",
                                         "\\Windows\\win.ini 0",
                                         "\\Windows\\System32 1",
                                         "\\Windows\\System32\\kernel.dll 0",
                                         "\\Empty 1"};
    EXPECT_EQ(lines, expected);

    struct Case {
        std::u16string path;
        bool found;
        uint32_t type;
    } cases[] = {
        {u"C:\\", true, 1},
        {u"D:\\WINDOWS\\system32\\KERNEL.DLL", true, 0},
        {u"C:\\Windows\\", true, 1},
        {u"C:\\Windows\\\\win.ini", true, 0},
        {u"/Windows/win.ini", true, 0},
        {u"C:\\readme.txt\\x", false, 0},
        {u"C:\\Windows\\nothing", false, 0},
    };
    for (const auto& c : cases) {
        auto e = LookupPath(f, c.path, &error);
        EXPECT_EQ(e.has_value(), c.found);
        EXPECT_EQ(error, "");
        if (e) {
            EXPECT_EQ(e->type, c.type);
        }
    }
}

TEST(IndexBuild, ReportsProgressOnLargeTrees) {
    TempTree t;
    for (int i = 0; i < 25; i++) t.File("d/f" + std::to_string(i));
    std::vector<uint64_t> seen;
    IndexFiles f;
    std::string error;
    ASSERT_TRUE(BuildIndex(t.Root(), &f, &error, [&](const BuildProgress& p) { seen.push_back(p.entries); }, 10));
    EXPECT_EQ(seen, (std::vector<uint64_t>{10, 20, 26}));
}

TEST(IndexFiles, MalformedPairsAreRefused) {
    IndexFiles good = Build({{u"a", kTypeFile}});
    struct Case {
        size_t nodeSize, nameSize;
        const char* message;
    } cases[] = {
        {120, 14, nullptr},
        {119, 14, "shorter"},
        {169, 14, "multiple of 48"},
        {kAreaSize + 1, 14, "5 MB"},
        {120, 13, "shorter"},
        {120, 15, "odd"},
        {120, kAreaSize + 2, "5 MB"},
    };
    for (const auto& c : cases) {
        IndexFiles f = good;
        f.node.resize(c.nodeSize);
        f.name.resize(c.nameSize);
        std::string problem = CheckIndexFiles(f);
        if (c.message == nullptr) {
            EXPECT_EQ(problem, "");
        } else {
            EXPECT_NE(problem.find(c.message), std::string::npos) << c.nodeSize << "/" << c.nameSize << ": " << problem;
        }
    }
}

TEST(IndexFiles, WriteAndReadRoundTrip) {
    TempTree t;
    IndexFiles f = Build({{u"a\\b", kTypeFile}});
    std::string error;
    ASSERT_TRUE(WriteIndexFiles(f, t.Root() / "n", t.Root() / "m", &error)) << error;
    IndexFiles back;
    ASSERT_TRUE(ReadIndexFiles(t.Root() / "n", t.Root() / "m", &back, &error)) << error;
    EXPECT_EQ(back.node, f.node);
    EXPECT_EQ(back.name, f.name);

    fs::resize_file(t.Root() / "n", kAreaSize + 48);
    EXPECT_FALSE(ReadIndexFiles(t.Root() / "n", t.Root() / "m", &back, &error));
    EXPECT_NE(error.find("5 MB"), std::string::npos) << error;
    EXPECT_FALSE(ReadIndexFiles(t.Root() / "missing", t.Root() / "m", &back, &error));
}

TEST(IndexFiles, HostileLinksEndLookupsAndDumps) {
    // root -> x (48) -> y (96); entries 48 and 96 are files named "x" and "y".
    auto make = [] { return Build({{u"x", kTypeFile}, {u"y", kTypeFile}}); };
    struct Case {
        const char* what;
        void (*spoil)(IndexFiles&);
        const char* lookupError;  // for "C:\zzz", which walks the whole list
        const char* dumpError;
    } cases[] = {
        {"sibling cycle", [](IndexFiles& f) { SetField(f, 48, 6, 96); }, "cycle", "cycle"},
        {"link past the area", [](IndexFiles& f) { SetField(f, 96, 6, 0x7FFFFFF0); }, "outside", "outside"},
        {"first child past the area", [](IndexFiles& f) { SetField(f, 0, 5, 0xFFFFFFF0); }, "outside", "outside"},
        {"name past the area", [](IndexFiles& f) { SetField(f, 96, 1, 0x4FFFFC); }, "", "name"},
    };
    for (const auto& c : cases) {
        IndexFiles f = make();
        c.spoil(f);
        std::string error;
        EXPECT_FALSE(LookupPath(f, u"C:\\zzz", &error).has_value()) << c.what;
        EXPECT_NE(error.find(c.lookupError), std::string::npos) << c.what << ": " << error;
        std::string dumpError;
        EXPECT_FALSE(DumpIndex(f, [](const DumpLine&) {}, &dumpError)) << c.what;
        EXPECT_NE(dumpError.find(c.dumpError), std::string::npos) << c.what << ": " << dumpError;
    }
}

TEST(IndexText, Utf8ConversionIsStrict) {
    std::u16string out;
    EXPECT_TRUE(Utf8ToUtf16("a\xc3\xa9\xf0\x9f\x98\x80", &out));
    EXPECT_EQ(out, (std::u16string{u'a', 0xE9, 0xD83D, 0xDE00}));
    for (const char* bad : {"\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xff", "a\x80"}) EXPECT_FALSE(Utf8ToUtf16(bad, &out)) << bad;
    std::string back;
    EXPECT_TRUE(Utf16ToUtf8(std::u16string{u'a', 0xE9, 0xD83D, 0xDE00}, &back));
    EXPECT_EQ(back, "a\xc3\xa9\xf0\x9f\x98\x80");
    EXPECT_FALSE(Utf16ToUtf8(std::u16string{0xDC00}, &back));
}
