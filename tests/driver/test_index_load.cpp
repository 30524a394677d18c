// Loading a file index from its node file and name file, and the checks that
// keep a malformed or hostile pair from reading outside its areas.
#include <fstream>

#include "control/filter_directory.h"
#include "base/strings.h"
#include "core/tervane.h"
#include "indexfile/indexfile.h"
#include "test_core_support.h"
#include "test_index_support.h"

namespace fs = std::filesystem;

namespace tervane::test {
namespace {

using indexfile::IndexBuilder;
using indexfile::IndexFiles;

void SetU32(std::vector<uint8_t>& b, size_t pos, uint32_t v) {
    for (int i = 0; i < 4; i++) b[pos + i] = uint8_t(v >> (8 * i));
}

// A machine with a volume over a host directory on C: and the driver loaded.
class IndexLoadTest : public TervaneTest {
protected:
    void SetUp() override {
        TervaneTest::SetUp();
        HostDir("idx");
        ASSERT_EQ(MountHost(), STATUS_SUCCESS);
        ASSERT_EQ(LoadTervane(), STATUS_SUCCESS);
    }
    void BeforeShutdown() override {
        Kernel([this] {
            for (PFileIndex index : indexes) FreeFileIndex(index);
        });
        TervaneTest::BeforeShutdown();
    }

    void WriteFile(const std::string& name, const std::vector<uint8_t>& bytes) {
        std::ofstream out(host / "idx" / name, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    }
    void Write(const IndexFiles& files) {
        WriteFile("node", files.node);
        WriteFile("name", files.name);
    }
    // LoadFileIndex on C:\idx\node and C:\idx\name with 5 MB areas.
    PFileIndex Load(const std::u16string& node = u"C:\\idx\\node", const std::u16string& name = u"C:\\idx\\name") {
        Path n(node), m(name);
        PFileIndex index = nullptr;
        Kernel([&] { index = LoadFileIndex(n.us(), FILTER_INDEX_AREA_SIZE, m.us(), FILTER_INDEX_AREA_SIZE); });
        if (index != nullptr) indexes.push_back(index);
        return index;
    }
    long Lookup(PFileIndex index, const std::u16string& text) {
        Path p(text);
        FileIndexEntry e{};
        BOOLEAN ok = FALSE;
        Kernel([&] { ok = LookupIndexPath(index, p.us(), &e); });
        return ok ? long(e.m_ulOffset) : -1;
    }

    std::vector<PFileIndex> indexes;
};

IndexFiles Pair(std::initializer_list<std::u16string> paths, uint32_t type = 0) {
    IndexBuilder builder;
    std::string error;
    for (const auto& p : paths) EXPECT_TRUE(builder.Add(p, type, &error)) << error;
    return builder.Files();
}

TEST_F(IndexLoadTest, MalformedPairsAreRefusedAndLeaveNothingOpen) {
    IndexFiles good = Pair({u"a\\b"});
    struct Case {
        const char* what;
        size_t nodeSize, nameSize;  // 0: keep
        bool dropNode, dropName;
    } cases[] = {
        {"node file shorter than header, root and trailer", 119, 0, false, false},
        {"node file of a wrong length", good.node.size() + 47, 0, false, false},
        {"node file larger than its area", 0x500000 + 48, 0, false, false},
        {"node file exactly one byte over its area", 0x500001, 0, false, false},
        {"name file shorter than header and trailer", 0, 13, false, false},
        {"name file with an odd names region", 0, good.name.size() + 1, false, false},
        {"name file larger than its area", 0, 0x500002, false, false},
        {"empty node file", 0, 0, true, false},
        {"missing name file", 0, 0, false, true},
    };
    size_t handlesBefore = machine->HandleLines().size();
    for (const auto& c : cases) {
        IndexFiles f = good;
        if (c.nodeSize) f.node.resize(c.nodeSize);
        if (c.nameSize) f.name.resize(c.nameSize);
        if (c.dropNode) f.node.clear();
        Write(f);
        if (c.dropName) fs::remove(host / "idx" / "name");
        EXPECT_EQ(Load(), nullptr) << c.what;
        EXPECT_EQ(machine->HandleLines().size(), handlesBefore) << c.what;
    }
    EXPECT_EQ(Load(u"C:\\idx\\missing", u"C:\\idx\\name"), nullptr);
    EXPECT_EQ(machine->HandleLines().size(), handlesBefore);
}

// A pair whose files are swapped, or given twice, or that is no index at all
// is refused with a line that names the file, even where the sizes fit.
TEST_F(IndexLoadTest, FilesThatAreNotTheIndexPairAreRefused) {
    IndexFiles good = Pair({u"dir\\file.txt", u"dir\\other.txt"});
    Write(good);
    // A text file of a node file's size, and one too short for the names.
    WriteFile("text", std::vector<uint8_t>(good.node.size(), 'x'));
    WriteFile("short", std::vector<uint8_t>(20, 'x'));
    // A name file whose size is also a node file's.
    IndexFiles sized = Pair({std::u16string(29, u'n')});
    ASSERT_EQ((sized.name.size() - 72) % 48, 0u);
    WriteFile("sized", sized.name);
    struct Case {
        const char16_t* node;
        const char16_t* name;
        const char* log;
    } cases[] = {
        {u"C:\\idx\\name", u"C:\\idx\\node", "index file [C:\\idx\\name] is not a node file"},
        {u"C:\\idx\\sized", u"C:\\idx\\node", "index file [C:\\idx\\sized] is not a node file"},
        {u"C:\\idx\\node", u"C:\\idx\\NODE", "index file [C:\\idx\\node] given as both node file and name file"},
        {u"C:\\idx\\node", u"C:\\idx\\short", "index file [C:\\idx\\short] is not the name file of [C:\\idx\\node]"},
        {u"C:\\idx\\text", u"C:\\idx\\name", "index file [C:\\idx\\text] is not a node file"},
    };
    const size_t handlesBefore = machine->HandleLines().size();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.log);
        machine->TakeNewLog();
        EXPECT_EQ(Load(c.node, c.name), nullptr);
        EXPECT_NE(machine->TakeNewLog().find(c.log), std::string::npos);
        EXPECT_EQ(machine->HandleLines().size(), handlesBefore);
    }
    // The node file copied to a name file's place: its names are not names.
    WriteFile("copy", good.node);
    EXPECT_EQ(Load(u"C:\\idx\\node", u"C:\\idx\\copy"), nullptr);
    EXPECT_NE(Load(), nullptr);
}

// A loaded pair whose child lists are not a proper tree is looked up as
// its lists stand: the first of two names alike is found, a child whose
// parent link names another directory is found in its list, and a sibling
// cycle ends the lookup (the full table of hostile links runs on in-memory
// areas in the storage tests). A proper tree gets its child table.
TEST_F(IndexLoadTest, ListsThatAreNotAProperTreeAreWalkedAsTheyStand) {
    struct Probe {
        const char16_t* path;
        long offset;
    };
    struct Case {
        const char* what;
        std::initializer_list<std::u16string> paths;
        size_t pos;  // byte of the node file to change, 0: none
        uint32_t value;
        bool table;
        std::vector<Probe> probes;
    } cases[] = {
        {"a proper tree", {u"x", u"y"}, 0, 0, true, {{u"C:\\x", 48}, {u"C:\\Y", 96}, {u"C:\\zzz", -1}}},
        {"sibling cycle", {u"x", u"y"}, 68 + 48 + 24, 96, false, {{u"C:\\zzz", -1}, {u"C:\\x", 48}}},
        {"two names alike", {u"x", u"y"}, 68 + 48 + 4, 2, false, {{u"C:\\Y", 96}, {u"C:\\x", -1}}},
        {"parent link naming the root", {u"d\\f"}, 68 + 96 + 16, 0, false, {{u"C:\\d\\f", 96}, {u"C:\\f", -1}}},
    };
    for (const Case& c : cases) {
        IndexFiles f = Pair(c.paths, 1);
        if (c.pos != 0) SetU32(f.node, c.pos, c.value);
        Write(f);
        PFileIndex index = Load();
        ASSERT_NE(index, nullptr) << c.what;
        EXPECT_EQ(index->m_Children.m_pulBuckets != nullptr, c.table) << c.what;
        for (const Probe& p : c.probes) {
            EXPECT_EQ(Lookup(index, p.path), p.offset) << c.what << " " << emu::Utf16ToUtf8(p.path);
        }
    }
}

TEST_F(IndexLoadTest, RenamesChangeMemoryOnly) {
    IndexFiles files = Pair({u"dir\\file.txt"});
    Write(files);
    PFileIndex index = Load();
    ASSERT_NE(index, nullptr);
    Path from(u"C:\\dir\\file.txt"), to(u"C:\\dir\\renamed.txt");
    Kernel([&] { EXPECT_TRUE(RenameIndexPath(index, from.us(), to.us())); });
    EXPECT_EQ(Lookup(index, u"C:\\dir\\renamed.txt"), 96);
    EXPECT_EQ(EntryAt(index, 96).m_ulNameOffset, files.name.size() - 14);
    IndexFiles onDisk;
    std::string error;
    ASSERT_TRUE(indexfile::ReadIndexFiles(host / "idx" / "node", host / "idx" / "name", &onDisk, &error));
    EXPECT_EQ(onDisk.node, files.node);
    EXPECT_EQ(onDisk.name, files.name);
}

}  // namespace
}  // namespace tervane::test
