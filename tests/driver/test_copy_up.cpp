// Copy-up: CopyFile, FiltCopyFile over files and directory trees,
// FiltCopyFileAttribute and CopyUpOpenFile.
#include <chrono>

#include "test_exists_support.h"

namespace tervane::test {
namespace {

std::string Pattern(size_t size, int seed) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; i++) data[i] = char((i * 7 + seed) % 251);
    return data;
}

// A self-relative descriptor with one DACL entry: MASK allowed to Everyone.
std::vector<uint8_t> DaclDescriptor(ACCESS_MASK mask) {
    std::vector<uint8_t> sd = {1, 0, 0x04, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 20, 0, 0, 0,  // header
                               2, 0, 28, 0, 1, 0, 0, 0,                                            // ACL
                               0, 0, 20, 0, 0, 0, 0, 0,                                            // ACE
                               1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0};                                // S-1-1-0
    memcpy(&sd[32], &mask, 4);
    return sd;
}

class CopyUpTest : public LayersTest {
protected:
    std::vector<uint8_t> Security(const std::u16string& path, SECURITY_INFORMATION what) {
        HANDLE h;
        EXPECT_EQ(OpenReal(path, &h), STATUS_SUCCESS);
        std::vector<uint8_t> sd(512);
        Kernel([&] {
            ULONG needed = 0;
            EXPECT_EQ(ZwQuerySecurityObject(h, what, sd.data(), ULONG(sd.size()), &needed), STATUS_SUCCESS);
            sd.resize(needed);
        });
        Close(h);
        return sd;
    }
    void SetDacl(const std::u16string& path, std::vector<uint8_t> sd) {
        HANDLE h;
        ASSERT_EQ(OpenReal(path, &h, GENERIC_READ | WRITE_DAC | SYNCHRONIZE), STATUS_SUCCESS);
        Kernel([&] { EXPECT_EQ(ZwSetSecurityObject(h, DACL_SECURITY_INFORMATION, sd.data()), STATUS_SUCCESS); });
        Close(h);
    }
    FILE_BASIC_INFORMATION Basic(const std::u16string& path) {
        FILE_BASIC_INFORMATION basic = {};
        HANDLE h;
        EXPECT_EQ(OpenReal(path, &h), STATUS_SUCCESS);
        Kernel([&] {
            IO_STATUS_BLOCK iosb;
            EXPECT_EQ(ZwQueryInformationFile(h, &iosb, &basic, sizeof(basic), FileBasicInformation), 0);
        });
        Close(h);
        return basic;
    }
    void SetBasic(const std::u16string& path, ULONG attributes, LONGLONG writeTime) {
        HANDLE h;
        ASSERT_EQ(OpenReal(path, &h, GENERIC_READ | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE), STATUS_SUCCESS);
        Kernel([&] {
            FILE_BASIC_INFORMATION basic = {};
            basic.FileAttributes = attributes;
            basic.CreationTime.QuadPart = writeTime - 1000000;
            basic.LastWriteTime.QuadPart = writeTime;
            IO_STATUS_BLOCK iosb;
            EXPECT_EQ(ZwSetInformationFile(h, &iosb, &basic, sizeof(basic), FileBasicInformation), 0);
        });
        Close(h);
    }
    BOOLEAN CopyPath(const std::u16string& path, ULONG sourceMask, BOOLEAN directory) {
        Path p(path);
        BOOLEAN ok = FALSE;
        Kernel([&] { ok = FiltCopyFile(p.us(), sourceMask, 1, directory, FilterDevice()); });
        return ok;
    }
};

TEST_F(CopyUpTest, AFileArrivesWithDataEndOfFileSecurityAttributesAndTimes) {
    const std::string data = Pattern(40000, 3);
    HostFile("L2/dir/data.bin", data);
    Configure();
    const LONGLONG written = 132000000000000000LL;
    SetBasic(u"C:\\L2\\dir\\data.bin", FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_ARCHIVE, written);
    SetDacl(u"C:\\L2\\dir\\data.bin", DaclDescriptor(FILE_GENERIC_READ));

    ASSERT_TRUE(CopyPath(u"C:\\dir\\data.bin", 4, FALSE));
    EXPECT_TRUE(HostContent("L0/dir/data.bin") == data);
    EXPECT_TRUE(HostContent("L2/dir/data.bin") == data) << "the source is never changed";
    FILE_BASIC_INFORMATION copy = Basic(u"C:\\L0\\dir\\data.bin");
    EXPECT_EQ(copy.FileAttributes, ULONG(FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_ARCHIVE));
    EXPECT_EQ(copy.LastWriteTime.QuadPart, written);
    EXPECT_EQ(copy.CreationTime.QuadPart, written - 1000000);
    EXPECT_EQ(Security(u"C:\\L0\\dir\\data.bin", DACL_SECURITY_INFORMATION),
              Security(u"C:\\L2\\dir\\data.bin", DACL_SECURITY_INFORMATION));
    EXPECT_EQ(Security(u"C:\\L0\\dir\\data.bin", SACL_SECURITY_INFORMATION),
              Security(u"C:\\L2\\dir\\data.bin", SACL_SECURITY_INFORMATION));
    EXPECT_EQ(LogCount("cannot read from src file"), 0u);
    EXPECT_EQ(LogCount("cannot write to dest file"), 0u);
}

TEST_F(CopyUpTest, TheLowestSourceIsCopiedAndSupersedesTheDestination) {
    struct Case {
        const char* what;
        std::string l0, l1, l2;  // "-": absent
        ULONG mask;
        bool ok;
        std::string expected;  // content of L0 afterwards, "-": absent
    } cases[] = {
        {"older longer copy is replaced", "an older and longer copy", "-", "new", 4, true, "new"},
        {"empty file", "-", "", "-", 2, true, ""},
        {"filter directory 1 is nearer than 2", "-", "from 1", "from 2", 6, true, "from 1"},
        {"mask restricts the source", "-", "from 1", "from 2", 4, true, "from 2"},
        {"absent from the source mask", "-", "-", "from 2", 2, false, "-"},
    };
    int n = 0;
    for (const auto& c : cases) {
        std::string name = "f" + std::to_string(n++) + ".txt";
        if (c.l0 != "-") HostFile("L0/" + name, c.l0);
        if (c.l1 != "-") HostFile("L1/" + name, c.l1);
        if (c.l2 != "-") HostFile("L2/" + name, c.l2);
    }
    Configure();
    n = 0;
    for (const auto& c : cases) {
        std::string name = "f" + std::to_string(n++) + ".txt";
        EXPECT_EQ(CopyPath(u"C:\\" + emu::Utf8ToUtf16(name), c.mask, FALSE), c.ok) << c.what;
        if (c.expected == "-") {
            EXPECT_FALSE(HostExists("L0/" + name)) << c.what;
        } else {
            EXPECT_EQ(HostContent("L0/" + name), c.expected) << c.what;
        }
    }
    EXPECT_EQ(LogCount("source not exists [C:\\f4.txt] /w FF[0]"), 1u);
}

// A directory gets what it lacks from every source, nearest first; what the
// destination holds already is kept, hidden entries are left out.
TEST_F(CopyUpTest, ADirectoryTreeIsCopiedWithoutItsHiddenEntries) {
    HostFile("L0/D/kept.txt", "written in 0");
    HostFile("L1/D/kept.txt", "older in 1");
    HostFile("L2/D/a.txt", "a from 2");
    HostFile("L2/D/.dot", "dot");
    HostFile("L2/D/gone.txt", "hidden");
    HostFile("L2/D/sub/b.txt", "b");
    HostFile("L2/D/sub/deeper/c.txt", "c");
    HostDir("L2/D/empty");
    HostFile("L1/D/a.txt", "a from 1");
    HostFile("L1/D/one.txt", "1");
    Configure();
    Hide(u"C:\\D\\gone.txt");
    ASSERT_TRUE(CopyPath(u"C:\\D", 6, TRUE));
    struct Expect {
        const char* path;
        const char* content;  // null: must not exist
    } expects[] = {
        {"L0/D/a.txt", "a from 1"}, {"L0/D/.dot", "dot"}, {"L0/D/sub/b.txt", "b"}, {"L0/D/sub/deeper/c.txt", "c"},
        {"L0/D/one.txt", "1"},      {"L0/D/gone.txt", nullptr}, {"L0/D/kept.txt", "written in 0"},
    };
    for (const auto& e : expects) {
        if (e.content == nullptr) {
            EXPECT_FALSE(HostExists(e.path)) << e.path;
        } else {
            EXPECT_EQ(HostContent(e.path), e.content) << e.path;
        }
    }
    EXPECT_TRUE(std::filesystem::is_directory(host / "L0/D/empty")) << "an empty directory moves too";
    EXPECT_EQ(LogCount("[warn]"), 0u);
}

TEST_F(CopyUpTest, AnAttributeCopyLeavesAnEmptyFileWithTheSourceAttributes) {
    HostFile("L1/x/f.txt", "content");
    Configure();
    SetBasic(u"C:\\L1\\x\\f.txt", FILE_ATTRIBUTE_SYSTEM, 131000000000000000LL);
    Path p(u"C:\\x\\f.txt");
    BOOLEAN ok = FALSE;
    Kernel([&] { ok = FiltCopyFileAttribute(p.us(), 2, 1, TRUE); });
    EXPECT_TRUE(ok);
    EXPECT_EQ(HostContent("L0/x/f.txt"), "");
    FILE_BASIC_INFORMATION copy = Basic(u"C:\\L0\\x\\f.txt");
    EXPECT_EQ(copy.FileAttributes, ULONG(FILE_ATTRIBUTE_SYSTEM));
    EXPECT_EQ(copy.LastWriteTime.QuadPart, 131000000000000000LL);
    Path missing(u"C:\\x\\none.txt");
    Kernel([&] { ok = FiltCopyFileAttribute(missing.us(), 2, 1, TRUE); });
    EXPECT_FALSE(ok);
    EXPECT_EQ(LogCount("cannot open src file [C:\\L1\\x\\none.txt]"), 1u);
}

}  // namespace
}  // namespace tervane::test
