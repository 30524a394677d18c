// Merged directory listing: FiltQueryDirectory, FiltQueryDirectoryUpdateFilter.
#include <algorithm>

#include "test_exists_support.h"

namespace tervane::test {
namespace {

using Names = std::vector<std::u16string>;

// The name of the record at P and where the name ends, read through the
// record's own type: the two classes the tests list with.
std::u16string RecordName(FILE_INFORMATION_CLASS cls, const uint8_t* p, size_t* end) {
    const WCHAR* name = nullptr;
    ULONG length = 0;
    if (cls == FileDirectoryInformation) {
        auto* record = reinterpret_cast<const FILE_DIRECTORY_INFORMATION*>(p);
        name = record->FileName;
        length = record->FileNameLength;
    } else if (cls == FileNamesInformation) {
        auto* record = reinterpret_cast<const FILE_NAMES_INFORMATION*>(p);
        name = record->FileName;
        length = record->FileNameLength;
    } else {
        ADD_FAILURE() << "no reading for class " << cls;
    }
    *end = reinterpret_cast<const uint8_t*>(name) - p + length;
    return std::u16string(reinterpret_cast<const char16_t*>(name), length / 2);
}

Names Sorted(Names names) {
    std::sort(names.begin(), names.end());
    return names;
}

class MergedListTest : public LayersTest {
protected:
    // D in L0: a, h; in L1: h, m; in L2: b (listed), c (not listed). h is hidden.
    void Populate() {
        HostFile("L0/D/a", "0");
        HostFile("L0/D/h", "0");
        HostFile("L1/D/h", "1");
        HostFile("L1/D/m", "1");
        HostFile("L2/D/b", "2");
        HostFile("L2/D/c", "2");
        std::vector<std::u16string> index = {u"\\D\\b"};
        Configure(&index);
        Hide(u"C:\\D\\h");
    }
    void Open(const std::u16string& path) {
        path_ = path;
        entry = {};
        entry.m_ustrFullPath = {USHORT(path_.size() * 2), USHORT(path_.size() * 2), (PWSTR)path_.data()};
        entry.m_ulFilterEntryFlag = 1;
    }
    // One query as the directory-control handler makes it.
    NTSTATUS Query(FILE_INFORMATION_CLASS cls, Names* names, bool single = false, bool restart = false,
                   const std::u16string* pattern = nullptr, ULONG length = 4096) {
        std::vector<uint8_t> buffer(length, 0xCD);
        std::u16string patternText = pattern ? *pattern : u"";
        UNICODE_STRING patternString = {USHORT(patternText.size() * 2), USHORT(patternText.size() * 2),
                                        (PWSTR)patternText.data()};
        QUERY_DIRECTORY_PARAMETERS parameters = {};
        parameters.Length = length;
        parameters.FileName = pattern ? &patternString : nullptr;
        parameters.FileInformationClass = cls;
        ULONG written = 0xFFFFFFFF;
        NTSTATUS status = STATUS_SUCCESS;
        Kernel([&] { status = FiltQueryDirectory(&entry, &parameters, buffer.data(), single, restart, &written); });
        names->clear();
        if (status != STATUS_SUCCESS) {
            EXPECT_EQ(written, 0xFFFFFFFFu) << "no byte count on failure";
            return status;
        }
        for (ULONG at = 0;;) {
            size_t end = 0;
            names->push_back(RecordName(cls, &buffer[at], &end));
            EXPECT_LE(at + end, written);
            ULONG next = *reinterpret_cast<ULONG*>(&buffer[at]);
            if (next == 0) {
                // A record kept from inside a batch keeps its alignment padding.
                EXPECT_LT(written - (at + end), 8u);
                break;
            }
            at += next;
        }
        return status;
    }
    // What the close handler gives back.
    void EndEntry() {
        Kernel([&] {
            if (entry.m_hQueryDirHandle) ZwClose(entry.m_hQueryDirHandle);
            if (entry.m_ustrCurrentQueryDirectoryName.Buffer)
                ExFreePoolWithTag(entry.m_ustrCurrentQueryDirectoryName.Buffer, TRVN_TAG_GENERAL);
        });
        entry = {};
    }

    FileHandleEntry entry = {};

private:
    std::u16string path_;
};

TEST_F(MergedListTest, SingleEntriesComeOneAtATimeWithoutLosingTheRestOfACopy) {
    Populate();
    Open(u"C:\\D");
    Names all, names;
    NTSTATUS status;
    while ((status = Query(FileDirectoryInformation, &names, true)) == STATUS_SUCCESS) {
        ASSERT_EQ(names.size(), 1u);
        all.push_back(names[0]);
    }
    EXPECT_EQ(status, STATUS_NO_MORE_FILES);
    EXPECT_EQ(Sorted(all), Sorted({u".", u"..", u"a", u"h", u".", u"..", u"m", u".", u"..", u"b"}));
    EndEntry();
}

TEST_F(MergedListTest, ARestartBeginsAgainAtTheLowestCopyWithTheNewPattern) {
    Populate();
    Open(u"C:\\D");
    Names names;
    ASSERT_EQ(Query(FileDirectoryInformation, &names), STATUS_SUCCESS);
    ASSERT_EQ(Query(FileDirectoryInformation, &names), STATUS_SUCCESS);
    EXPECT_EQ(entry.m_ulQueryDirFilterFlag, 2u);
    std::u16string pattern = u"h";
    ASSERT_EQ(Query(FileNamesInformation, &names, false, true, &pattern), STATUS_SUCCESS);
    EXPECT_EQ(names, Names{u"h"});
    EXPECT_EQ(U16(entry.m_ustrCurrentQueryDirectoryName), u"h");
    EXPECT_EQ(entry.m_ulQueryDirFilterFlag, 1u);
    EXPECT_EQ(Query(FileNamesInformation, &names), STATUS_NO_MORE_FILES) << "the hidden h of filter directory 1 stays hidden";
    pattern = u"b*";
    ASSERT_EQ(Query(FileNamesInformation, &names, false, true, &pattern), STATUS_SUCCESS);
    EXPECT_EQ(names, Names{u"b"}) << "copies without a match are passed over";
    EXPECT_EQ(Query(FileNamesInformation, &names), STATUS_NO_MORE_FILES);
    EXPECT_EQ(entry.m_ustrCurrentQueryDirectoryName.Buffer, nullptr);
    EndEntry();
}

TEST_F(MergedListTest, RefusedClassesAndMissingDirectoriesFailWithTheirStatus) {
    Populate();
    struct Case {
        std::u16string path;
        FILE_INFORMATION_CLASS cls;
        NTSTATUS status;
        std::string log;
    } cases[] = {
        {u"C:\\D", FileReparsePointInformation, STATUS_NOT_IMPLEMENTED, "not supported information class [33]"},
        {u"C:\\D", FileObjectIdInformation, STATUS_NOT_IMPLEMENTED, "not supported information class [29]"},
        {u"C:\\D", FILE_INFORMATION_CLASS(0), STATUS_UNSUCCESSFUL, "unknown file information class [0]"},
        {u"C:\\D", FileStandardInformation, STATUS_UNSUCCESSFUL, "unknown file information class [5]"},
        {u"C:\\nodir", FileDirectoryInformation, STATUS_NO_SUCH_FILE,
         "FiltQueryDirectoryFilter failed for [C:\\nodir] /w Err[" + std::to_string(int(STATUS_NO_SUCH_FILE)) + "]"},
    };
    for (const auto& c : cases) {
        Open(c.path);
        Names names;
        EXPECT_EQ(Query(c.cls, &names), c.status) << c.log;
        EXPECT_EQ(LogCount(c.log), 1u) << c.log;
        EndEntry();
    }
}

}  // namespace
}  // namespace tervane::test
