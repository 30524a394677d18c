// File index storage: creation, the entry layout, and the tree primitives.
#include "test_index_support.h"

#include <random>

#include "indexfile/indexfile.h"

namespace tervane::test {
namespace {

TEST_F(IndexTest, CreationRefusesAreasBelowTheMinimum) {
    struct Case {
        ULONG node, name;
        bool made;
    } cases[] = {{166, 16, false}, {167, 15, false}, {167, 16, true}, {0x300000, 0x300000, true}};
    for (const auto& c : cases) {
        PFileIndex index = Create(c.node, c.name);
        EXPECT_EQ(index != nullptr, c.made) << c.node << "/" << c.name;
        if (index == nullptr) continue;
        EXPECT_EQ(index->m_ulNodeUsed, 48u);
        EXPECT_EQ(index->m_ulNameUsed, 0u);
        EXPECT_EQ(index->m_ulNodeCapacity, c.node - 120);
        EXPECT_EQ(index->m_ulNameCapacity, c.name - 16);
        EXPECT_EQ(EntryAt(index, 0).m_ulType, 1u);
        EXPECT_EQ(EntryAt(index, 0).m_ulFirstChildOffset, 0u);
    }
    // The smallest index holds the root and nothing more.
    PFileIndex tiny = Create(167, 16);
    Path a(u"C:\\a");
    Kernel([&] { EXPECT_FALSE(InsertIndexPath(tiny, a.us(), 0)); });
}

TEST_F(IndexTest, CreationFailsCleanlyWhenMemoryRunsOut) {
    for (uint64_t nth = 1; nth <= 3; nth++) {
        machine->FailNthAllocation(nth);
        EXPECT_EQ(Create(0x1000, 0x1000), nullptr) << "allocation " << nth;
        machine->ClearFaultInjection();
    }
}

TEST_F(IndexTest, InsertLaysOutEntriesAndNames) {
    PFileIndex index = Create();
    Path p(u"C:\\dir\\file.txt");
    Kernel([&] { EXPECT_TRUE(InsertIndexPath(index, p.us(), 1)); });
    // type, name offset, name length, offset, parent, first child, next, prev
    const ULONG expected[3][8] = {{1, 0, 0, 0, 0, 48, 0, 0}, {1, 0, 6, 48, 0, 96, 0, 0}, {1, 6, 16, 96, 48, 0, 0, 0}};
    for (ULONG e = 0; e < 3; e++) {
        const ULONG* fields = &EntryAt(index, e * 48).m_ulType;
        for (int k = 0; k < 8; k++) EXPECT_EQ(fields[k], expected[e][k]) << "entry " << e << " field " << k;
    }
    EXPECT_EQ(index->m_ulNodeUsed, 144u);
    EXPECT_EQ(index->m_ulNameUsed, 22u);
    EXPECT_EQ(NameOf(index, EntryAt(index, 48)) + NameOf(index, EntryAt(index, 96)), u"dirfile.txt");
}

// The host library writes exactly what the driver stores for the same paths.
TEST_F(IndexTest, HostBuilderMatchesTheDriverByteForByte) {
    const std::u16string paths[] = {u"C:\\Windows\\System32\\drivers\\etc\\hosts", u"C:\\Windows\\win.ini",
                                    u"C:\\Program Files\\App\\app.exe", u"C:\\b", u"C:\\A\\\u00e9t\u00e9"};
    PFileIndex index = Create();
    indexfile::IndexBuilder builder;
    for (const auto& text : paths) {
        Path p(text);
        Kernel([&] { ASSERT_TRUE(InsertIndexPath(index, p.us(), 0)); });
        std::string error;
        ASSERT_TRUE(builder.Add(text, 0, &error)) << error;
    }
    const auto& files = builder.Files();
    ASSERT_EQ(index->m_ulNodeUsed, files.node.size() - 72);
    ASSERT_EQ(index->m_ulNameUsed, files.name.size() - 14);
    EXPECT_EQ(0, std::memcmp(index->m_pNodeArea + 68, files.node.data() + 68, index->m_ulNodeUsed));
    EXPECT_EQ(0, std::memcmp(index->m_pNameArea + 8, files.name.data() + 8, index->m_ulNameUsed));
}

class PrimitiveTest : public IndexTest {
protected:
    void SetUp() override {
        IndexTest::SetUp();
        index = Create();
    }
    // Adds NAME under the entry at PARENT; the new entry's offset, or 0.
    ULONG Add(ULONG parent, const std::u16string& name, ULONG type = 1) {
        Path p(name);
        ULONG offset = index->m_ulNodeUsed;
        BOOLEAN added = FALSE;
        Kernel([&] { added = AddIndexChild(index, &EntryAt(index, parent), p.us(), type); });
        return added ? offset : 0;
    }
    bool Find(ULONG parent, const std::u16string& name, FileIndexEntry* found = nullptr) {
        Path p(name);
        FileIndexEntry result{};
        BOOLEAN ok = FALSE;
        Kernel([&] { ok = FindIndexChild(index, &EntryAt(index, parent), p.us(), &result); });
        if (found) *found = result;
        return ok;
    }
    // Names of the children of PARENT, walking forwards, checking the back links.
    std::vector<std::u16string> Children(ULONG parent) {
        std::vector<std::u16string> names;
        ULONG prev = 0;
        for (ULONG o = EntryAt(index, parent).m_ulFirstChildOffset; o != 0; o = EntryAt(index, o).m_ulNextSiblingOffset) {
            EXPECT_EQ(EntryAt(index, o).m_ulPrevSiblingOffset, prev);
            EXPECT_EQ(EntryAt(index, o).m_ulParentOffset, parent);
            names.push_back(NameOf(index, EntryAt(index, o)));
            prev = o;
        }
        return names;
    }
    PFileIndex index = nullptr;
};

using Names = std::vector<std::u16string>;

TEST_F(PrimitiveTest, AddPutsTheNewChildFirstAndRefusesTakenNames) {
    ULONG b = Add(0, u"b");
    ULONG a = Add(0, u"a");
    EXPECT_EQ(Children(0), (Names{u"a", u"b"}));
    EXPECT_EQ(EntryAt(index, b).m_ulPrevSiblingOffset, a);
    ULONG used = index->m_ulNodeUsed;
    for (const char16_t* taken : {u"B", u"A", u"", u"\\"}) EXPECT_EQ(Add(0, taken), 0u);
    ULONG file = Add(a, u"file", 0);
    EXPECT_EQ(Add(file, u"below"), 0u);  // nothing is added below a file
    EXPECT_EQ(index->m_ulNodeUsed, used + 48);
}

TEST_F(IndexTest, FullAreasRefuseNewEntriesAndNames) {
    // Node area with room for two entries after the root; names area with 4 bytes.
    PFileIndex index = Create(120 + 96, 16 + 4);
    Path ab(u"C:\\ab"), c(u"C:\\c"), d(u"C:\\d");
    Kernel([&] {
        EXPECT_TRUE(InsertIndexPath(index, ab.us(), 0));
        EXPECT_FALSE(InsertIndexPath(index, c.us(), 0));  // names full
    });
    PFileIndex nodes = Create(120 + 96, 0x1000);
    Kernel([&] {
        EXPECT_TRUE(InsertIndexPath(nodes, ab.us(), 0));
        EXPECT_TRUE(InsertIndexPath(nodes, c.us(), 0));
        ULONG used = nodes->m_ulNameUsed;
        EXPECT_FALSE(InsertIndexPath(nodes, d.us(), 0));  // entries full
        EXPECT_EQ(nodes->m_ulNameUsed, used);
        FileIndexEntry found;
        EXPECT_TRUE(LookupIndexPath(nodes, c.us(), &found));
    });
    EXPECT_EQ(nodes->m_ulNodeUsed, 144u);
}

// An index whose areas hold a pair's bytes, as a load leaves them, with one
// word of the node file replaced. Links that lead outside the areas or round
// in circles make operations fail; they never read outside the areas or run
// for ever.
TEST_F(IndexTest, HostileLinksMakeOperationsFail) {
    // Entries: root(0) -> y(96) -> x(48); x and y are directories.
    struct Case {
        const char* what;
        size_t pos;  // byte in the node file
        uint32_t value;
    } cases[] = {
        {"sibling cycle", 68 + 48 + 24, 96},                   // x.next = y
        {"sibling past the area", 68 + 96 + 24, 0x7FFFFFF0},  // y.next
        {"first child past the area", 68 + 20, 0xFFFFFFF0},
        {"first child in the area's last partial slot", 68 + 20, (0x500000 - 68) / 48 * 48},
        {"name past the area", 68 + 96 + 4, 0x4FFFF8},  // y's name offset
        {"overlong name length", 68 + 96 + 8, 0xFFFE},
        {"self-referencing child list", 68 + 96 + 20, 96},  // y's first child is y
        {"parent past the area", 68 + 96 + 16, 0xFFFFFFF0},
        {"previous sibling past the area", 68 + 48 + 28, 0x80000000},
    };
    indexfile::IndexBuilder builder;
    std::string error;
    ASSERT_TRUE(builder.Add(u"x", 1, &error));
    ASSERT_TRUE(builder.Add(u"y", 1, &error));
    for (const auto& c : cases) {
        indexfile::IndexFiles f = builder.Files();
        for (int i = 0; i < 4; i++) f.node[c.pos + i] = uint8_t(c.value >> (8 * i));
        PFileIndex index = Create(FILTER_INDEX_AREA_SIZE, FILTER_INDEX_AREA_SIZE);
        ASSERT_NE(index, nullptr);
        std::memset(index->m_pNodeArea, 0, FILTER_INDEX_AREA_SIZE);
        std::memset(index->m_pNameArea, 0, FILTER_INDEX_AREA_SIZE);
        std::memcpy(index->m_pNodeArea, f.node.data(), f.node.size());
        std::memcpy(index->m_pNameArea, f.name.data(), f.name.size());
        index->m_ulNodeUsed = ULONG(f.node.size() - 72);
        index->m_ulNameUsed = ULONG(f.name.size() - 14);
        // The child table made again from these lists, as a load makes it.
        Kernel([&] { BuildIndexChildTable(index, index->m_Children.m_pulBuckets); });
        Path missing(u"C:\\zzz"), deep(u"C:\\y\\zzz\\q"), target(u"C:\\y\\new\\deeper"), x(u"C:\\x"),
            moved(u"C:\\y\\moved");
        Kernel([&] {
            FileIndexEntry e;
            EXPECT_FALSE(LookupIndexPath(index, missing.us(), &e)) << c.what;
            EXPECT_FALSE(LookupIndexPath(index, deep.us(), &e)) << c.what;
            InsertIndexPath(index, target.us(), 0);
            RenameIndexPath(index, x.us(), moved.us());
            RemoveIndexPath(index, x.us());
            RemoveIndexPath(index, moved.us());
        });
    }
}

// Lookups go through the index's child table; after any sequence of
// inserts, removals and renames (names alike but for case included) they
// must find exactly what a walk of the child lists finds, which the host
// library does on a copy of the areas.
TEST_F(IndexTest, LookupsFindWhatAWalkOfTheListsFinds) {
    PFileIndex index = Create();
    const std::u16string names[] = {u"a", u"A", u"b", u"\u00e9", u"\u00c9", u"long name"};
    std::mt19937 random(16);
    auto path = [&](int depth) {
        std::u16string text = u"C:";
        for (int i = 0; i < depth; i++) text += u"\\" + names[random() % std::size(names)];
        return text;
    };
    for (int step = 0; step < 400; step++) {
        Path one(path(1 + random() % 3)), two(path(1 + random() % 3));
        Kernel([&] {
            switch (random() % 4) {
                case 0: case 1: InsertIndexPath(index, one.us(), random() % 2); break;
                case 2: RemoveIndexPath(index, one.us()); break;
                default: RenameIndexPath(index, one.us(), two.us()); break;
            }
        });
        indexfile::IndexFiles copy;
        copy.node.assign(index->m_pNodeArea, index->m_pNodeArea + 68 + index->m_ulNodeUsed);
        copy.node.resize(copy.node.size() + 4);
        copy.name.assign(index->m_pNameArea, index->m_pNameArea + 8 + index->m_ulNameUsed);
        copy.name.resize(copy.name.size() + 6);
        for (int probe = 0; probe < 20; probe++) {
            Path p(path(1 + random() % 3));
            FileIndexEntry found{};
            BOOLEAN ok = FALSE;
            Kernel([&] { ok = LookupIndexPath(index, p.us(), &found); });
            std::string error;
            std::optional<indexfile::Entry> walked = indexfile::LookupPath(copy, p.text(), &error);
            ASSERT_EQ(ok != FALSE, walked.has_value()) << "step " << step << " " << error;
            if (walked) {
                ASSERT_EQ(found.m_ulOffset, walked->offset) << "step " << step;
            }
        }
    }
}

}  // namespace
}  // namespace tervane::test
