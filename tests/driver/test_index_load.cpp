// Loading a file index from its node file and name file, and the checks that
// keep a malformed or hostile pair from reading outside its areas.
#include <fstream>

#include "control/filter_directory.h"
#include "control/strings.h"
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
class IndexLoadTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/tervane-index-load-XXXXXX";
        host = mkdtemp(tmpl);
        fs::create_directories(host / "idx");
        machine = std::make_unique<emu::Machine>();
        ASSERT_EQ(machine->MountVolume('C', host.string()), STATUS_SUCCESS);
        ASSERT_EQ(machine->LoadDriver(u"Tervane", ::DriverEntry), STATUS_SUCCESS);
    }
    void TearDown() override {
        Kernel([this] {
            for (PFileIndex index : loaded) FreeFileIndex(index);
            ReleaseDriverState();
        });
        emu::VerifierReport report = machine->Shutdown();
        EXPECT_TRUE(report.Clean()) << report.ToString();
        fs::remove_all(host);
    }
    void Kernel(const std::function<void()>& fn) { machine->Run(machine->SystemProcess(), fn); }

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
        if (index != nullptr) loaded.push_back(index);
        return index;
    }
    long Lookup(PFileIndex index, const std::u16string& text) {
        Path p(text);
        FileIndexEntry e{};
        BOOLEAN ok = FALSE;
        Kernel([&] { ok = LookupIndexPath(index, p.us(), &e); });
        return ok ? long(e.m_ulOffset) : -1;
    }

    fs::path host;
    std::unique_ptr<emu::Machine> machine;
    std::vector<PFileIndex> loaded;
};

IndexFiles Pair(std::initializer_list<std::u16string> paths, uint32_t type = 0) {
    IndexBuilder builder;
    std::string error;
    for (const auto& p : paths) EXPECT_TRUE(builder.Add(p, type, &error)) << error;
    return builder.Files();
}

TEST_F(IndexLoadTest, TheFilesBecomeTheAreas) {
    Write(Pair({}));
    PFileIndex empty = Load();
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->m_ulNodeUsed, 48u);
    EXPECT_EQ(empty->m_ulNameUsed, 0u);
    EXPECT_EQ(Lookup(empty, u"C:\\"), 0);
    EXPECT_EQ(Lookup(empty, u"C:\\anything"), -1);

    Write(Pair({u"dir\\file.txt"}, 1));
    EXPECT_EQ(fs::file_size(host / "idx" / "node"), 216u);
    EXPECT_EQ(fs::file_size(host / "idx" / "name"), 36u);
    PFileIndex example = Load();
    ASSERT_NE(example, nullptr);
    EXPECT_EQ(example->m_ulNodeUsed, 144u);
    EXPECT_EQ(example->m_ulNameUsed, 22u);
    EXPECT_EQ(Lookup(example, u"C:\\dir\\file.txt"), 96);
    EXPECT_EQ(example->m_ulNodeAreaSize, 0x500000u);
}

// A pair built by the host library from a tree: the driver finds every path
// the host dump lists at the same offset, and no other.
TEST_F(IndexLoadTest, HostBuiltPairAgreesWithTheDriver) {
    fs::path tree = host / "tree";
    for (const char* f : {"Windows/System32/drivers/etc/hosts", "Windows/win.ini", "Program Files/App/App.exe",
                          "Documents and Settings/All Users/desktop.ini"}) {
        fs::create_directories((tree / f).parent_path());
        std::ofstream(tree / f) << "data";
    }
    fs::create_directories(tree / "Empty");
    IndexFiles files;
    std::string error;
    ASSERT_TRUE(indexfile::BuildIndex(tree, &files, &error)) << error;
    Write(files);
    PFileIndex index = Load();
    ASSERT_NE(index, nullptr);
    int checked = 0;
    ASSERT_TRUE(indexfile::DumpIndex(
        files,
        [&](const indexfile::DumpLine& line) {
            std::u16string path;
            ASSERT_TRUE(indexfile::Utf8ToUtf16("C:" + line.path, &path));
            EXPECT_EQ(Lookup(index, path), long(line.offset)) << line.path;
            auto host = indexfile::LookupPath(files, path, &error);
            ASSERT_TRUE(host.has_value());
            EXPECT_EQ(host->offset, line.offset);
            checked++;
        },
        &error));
    EXPECT_EQ(checked, 14);
    for (const char16_t* absent : {u"C:\\Windows\\System32\\hosts", u"C:\\Empty\\x", u"C:\\win.ini"}) {
        EXPECT_EQ(Lookup(index, absent), -1);
        EXPECT_FALSE(indexfile::LookupPath(files, absent, &error).has_value());
    }
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

// A sibling cycle in a loaded pair ends lookups (the full table of hostile
// links runs on in-memory areas in the storage tests).
TEST_F(IndexLoadTest, ASiblingCycleEndsTheLookup) {
    IndexFiles f = Pair({u"x", u"y"}, 1);
    SetU32(f.node, 68 + 48 + 24, 96);  // x.next = y, y.next = x
    Write(f);
    PFileIndex index = Load();
    ASSERT_NE(index, nullptr);
    EXPECT_EQ(Lookup(index, u"C:\\zzz"), -1);
    EXPECT_EQ(Lookup(index, u"C:\\x"), 48);
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

TEST_F(IndexLoadTest, FilterIndexLoadsOnceForItsFilterDirectory) {
    Write(Pair({u"known.txt"}));
    std::vector<uint8_t> roots = Slots({u"C:\\F0", u"C:\\F1", u"C:\\F2"});
    Kernel([&] { ASSERT_TRUE(SetFilterDirectories(roots.data(), ULONG(roots.size()))); });
    auto load = [&](ULONG flag, std::vector<uint8_t> record) {
        BOOLEAN ok = FALSE;
        Kernel([&] { ok = LoadFilterIndex(flag, record.data()); });
        return bool(ok);
    };
    std::vector<uint8_t> missing = Slots({u"C:\\idx\\node", u"C:\\idx\\nothing"});
    std::vector<uint8_t> good = Slots({u"C:\\idx\\node", u"C:\\idx\\name"});
    std::vector<uint8_t> unterminated = good;
    for (size_t i = 520; i < 1040; i += 2) unterminated[i] = 'x', unterminated[i + 1] = 0;

    EXPECT_FALSE(load(8, good));  // no filter directory of that flag
    EXPECT_FALSE(load(4, missing));
    EXPECT_FALSE(load(4, unterminated));
    BOOLEAN loadedNow = TRUE;
    Kernel([&] { loadedNow = IsFilterIndexLoaded(); });
    EXPECT_FALSE(loadedNow);
    EXPECT_TRUE(load(4, good));  // a failed load leaves room for a later one
    EXPECT_FALSE(load(4, good));  // once only
    Kernel([&] {
        EXPECT_TRUE(IsFilterIndexLoaded());
        PFilterDirectoryEntry last = GetFilterDirectory(4);
        Path known(u"C:\\known.txt"), unknown(u"C:\\unknown.txt");
        EXPECT_TRUE(LookupFilterIndex(last->m_ppIndexHolder, known.us()));
        EXPECT_FALSE(LookupFilterIndex(last->m_ppIndexHolder, unknown.us()));
    });
}

}  // namespace
}  // namespace tervane::test
