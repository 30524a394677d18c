// The layered open: FiltCreateFile, CreateDirectoryRecursive, IsDirectoryFile.
#include "indexfile/indexfile.h"
#include "test_layered_open_support.h"

namespace fs = std::filesystem;

namespace tervane::test {
namespace {

class LayeredOpenTest : public FileOpsTest {
protected:
    void SetFilters() {
        std::vector<uint8_t> roots = Slots({u"C:\\F0", u"C:\\F1", u"C:\\F2"});
        Kernel([&] { ASSERT_TRUE(SetFilterDirectories(roots.data(), ULONG(roots.size()))); });
    }
    void LoadIndex() {
        indexfile::IndexBuilder builder;
        std::string error;
        ASSERT_TRUE(indexfile::WriteIndexFiles(builder.Files(), host / "node", host / "name", &error)) << error;
        std::vector<uint8_t> record = Slots({u"C:\\node", u"C:\\name"});
        Kernel([&] { ASSERT_TRUE(LoadFilterIndex(4, record.data())); });
    }
    std::vector<SeenRequest> Creates() {
        std::vector<SeenRequest> creates;
        for (const auto& r : TestVolume::Seen())
            if (r.major == IRP_MJ_CREATE) creates.push_back(r);
        return creates;
    }
    std::string Read(HANDLE handle, ULONG length) {
        std::string data(length, '\0');
        Kernel([&] {
            IO_STATUS_BLOCK iosb;
            LARGE_INTEGER offset;
            offset.QuadPart = 0;
            EXPECT_EQ(ZwReadFile(handle, nullptr, nullptr, nullptr, &iosb, data.data(), length, &offset, nullptr),
                      STATUS_SUCCESS);
            data.resize(iosb.Information);
        });
        return data;
    }
};

TEST_F(LayeredOpenTest, AMaskWithoutFilterDirectoryOpensNothing) {
    HANDLE h;
    for (ULONG mask : {1u, 8u}) {
        EXPECT_EQ(Open(mask, u"C:\\dir\\a.txt", &h), STATUS_NOT_FOUND);
        EXPECT_EQ(h, nullptr);
    }
    EXPECT_EQ(LogCount("FiltCreateFile() ("), 2u);  // one head per call
    EXPECT_EQ(LogCount("cannot get real file path"), 2u);
    SetFilters();
    EXPECT_EQ(Open(8, u"C:\\dir\\a.txt", &h), STATUS_NOT_FOUND);
}

TEST_F(LayeredOpenTest, ParentsAreMadeOnlyForNewObjectsInFilterDirectory0) {
    SetFilters();
    HostFile("F1/shared/one.txt", "from F1");
    struct Case {
        const char* what;
        ULONG mask;
        BOOLEAN parents;
        ULONG disposition;
        std::u16string path;
        NTSTATUS status;
        const char* madeDir;  // host directory that must exist afterwards, or null
        const char* absentDir;
    } cases[] = {
        {"open never makes parents", 1, TRUE, FILE_OPEN, u"C:\\o\\p\\f.txt", STATUS_OBJECT_PATH_NOT_FOUND, nullptr,
         "F0/o"},
        {"overwrite never makes parents", 1, TRUE, FILE_OVERWRITE, u"C:\\w\\f.txt", STATUS_OBJECT_PATH_NOT_FOUND,
         nullptr, "F0/w"},
        {"open-if makes them", 1, TRUE, FILE_OPEN_IF, u"C:\\x\\y\\new.txt", STATUS_SUCCESS, "F0/x/y", nullptr},
        {"create makes them", 1, TRUE, FILE_CREATE, u"C:\\c1\\c2.txt", STATUS_SUCCESS, "F0/c1", nullptr},
        {"supersede makes them", 1, TRUE, FILE_SUPERSEDE, u"C:\\s1\\s.txt", STATUS_SUCCESS, "F0/s1", nullptr},
        {"overwrite-if makes them", 1, TRUE, FILE_OVERWRITE_IF, u"C:\\v1\\v.txt", STATUS_SUCCESS, "F0/v1", nullptr},
        {"not asked", 1, FALSE, FILE_CREATE, u"C:\\n1\\n.txt", STATUS_OBJECT_PATH_NOT_FOUND, nullptr, "F0/n1"},
        {"other filter directory", 2, TRUE, FILE_OPEN_IF, u"C:\\z\\new.txt", STATUS_OBJECT_PATH_NOT_FOUND, nullptr,
         "F1/z"},
        {"several flags open in the lowest", 6, FALSE, FILE_OPEN, u"C:\\shared\\one.txt", STATUS_SUCCESS, nullptr,
         nullptr},
    };
    for (const auto& c : cases) {
        HANDLE h;
        EXPECT_EQ(Open(c.mask, c.path, &h, c.disposition, FILE_SYNCHRONOUS_IO_NONALERT, c.parents), c.status)
            << c.what;
        if (h != nullptr) Close(h);
        if (c.madeDir) {
            EXPECT_TRUE(fs::is_directory(host / c.madeDir)) << c.what;
        }
        if (c.absentDir) {
            EXPECT_FALSE(fs::exists(host / c.absentDir)) << c.what;
        }
    }
    EXPECT_TRUE(fs::is_regular_file(host / "F0/x/y/new.txt"));
}

TEST_F(LayeredOpenTest, IsDirectoryFileTellsDirectoriesFromFiles) {
    HostFile("d/f.txt", "x");
    HANDLE dir, file;
    ASSERT_EQ(Open(0, u"C:\\d", &dir, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, FALSE, SYNCHRONIZE), STATUS_SUCCESS);
    ASSERT_EQ(Open(0, u"C:\\d\\f.txt", &file), STATUS_SUCCESS);
    Kernel([&] {
        EXPECT_TRUE(IsDirectoryFile(dir));
        EXPECT_FALSE(IsDirectoryFile(file));
        EXPECT_FALSE(IsDirectoryFile(reinterpret_cast<HANDLE>(0x7FF0)));
    });
    Close(dir);
    Close(file);
    EXPECT_EQ(LogCount("ZwQueryInformationFile failed /w Err["), 1u);
}

TEST_F(LayeredOpenTest, RunningOutOfMemoryIsReported) {
    machine->FailAllocationsWithTag("Trvm");
    HANDLE h;
    EXPECT_EQ(Open(0, u"T:\\x", &h), STATUS_UNSUCCESSFUL);
    Path p(u"T:\\a\\b");
    Kernel([&] { EXPECT_FALSE(CreateDirectoryRecursive(p.us())); });
    machine->ClearFaultInjection();
    EXPECT_EQ(LogCount("cannot allocate buffer"), 1u);
    EXPECT_EQ(LogCount("alloc fail"), 1u);
    EXPECT_TRUE(Creates().empty());
}

}  // namespace
}  // namespace tervane::test
