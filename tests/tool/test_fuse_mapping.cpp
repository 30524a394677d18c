// The POSIX-to-NT mapping of the FUSE mount: object names for Linux paths
// (and the errno of a name NT cannot hold), create parameters for open
// flags, the listing without repeats, and the status table.
#ifdef TERVANE_WITH_FUSE
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

#include <emu/machine.h>

#include "errno_map.h"
#include "listing.h"
#include "posix_nt.h"

namespace tervane::fuse {
namespace {

struct NameCase {
    const char* path;
    int error;
    const char16_t* name;  // when error is 0
};

TEST(FuseMapping, ObjectNames) {
    const std::string longName(256, 'n');
    const std::string longPath = "/" + longName;
    const NameCase cases[] = {
        {"/", 0, u"\\??\\C:\\"},
        {"/dir/a.txt", 0, u"\\??\\C:\\dir\\a.txt"},
        {"//dir//a.txt/", 0, u"\\??\\C:\\dir\\a.txt"},
        {"/\xC3\xA9t\xC3\xA9", 0, u"\\??\\C:\\\u00E9t\u00E9"},
        {"/\xF0\x9F\x98\x80", 0, u"\\??\\C:\\\xD83D\xDE00"},
        {"/a:b", EINVAL, nullptr},  // a stream name on NT
        {"/x*", EINVAL, nullptr},
        {"/dir/dot.", EINVAL, nullptr},
        {"/trail ", EINVAL, nullptr},
        {"/a\\b", EINVAL, nullptr},
        {"/tab\there", EINVAL, nullptr},
        {longPath.c_str(), ENAMETOOLONG, nullptr},
        {"/\xFF\xFE", EILSEQ, nullptr},
        {"/\xC0\xAF", EILSEQ, nullptr},        // overlong '/'
        {"/\xED\xA0\x80", EILSEQ, nullptr},    // a surrogate
        {"/\xE2\x82", EILSEQ, nullptr},        // cut short
    };
    for (const auto& c : cases) {
        std::u16string name;
        EXPECT_EQ(ObjectNameFor(c.path, 'C', &name), c.error) << c.path;
        if (!c.error) {
            EXPECT_EQ(name, c.name) << c.path;
        }
    }
    std::u16string name;
    EXPECT_EQ(ObjectNameFor(("/" + std::string(255, 'n')).c_str(), 'D', &name), 0);
    EXPECT_EQ(name.substr(0, 7), u"\\??\\D:\\");
}

TEST(FuseMapping, OpenFlags) {
    struct Case {
        int flags;
        bool create;
        ULONG disposition;
        bool writes, append;
    } cases[] = {
        {O_RDONLY, false, FILE_OPEN, false, false},
        {O_WRONLY | O_TRUNC, false, FILE_OVERWRITE, true, false},
        {O_RDWR | O_CREAT, true, FILE_OPEN_IF, true, false},
        {O_WRONLY | O_CREAT | O_EXCL, true, FILE_CREATE, true, false},
        {O_WRONLY | O_CREAT | O_TRUNC, true, FILE_OVERWRITE_IF, true, false},
        {O_WRONLY | O_APPEND, false, FILE_OPEN, true, true},
        {O_RDONLY | O_APPEND, false, FILE_OPEN, false, false},
    };
    for (const auto& c : cases) {
        CreateParameters p = CreateParametersFor(c.flags, c.create);
        EXPECT_EQ(p.disposition, c.disposition) << c.flags;
        EXPECT_EQ((p.access & FILE_WRITE_DATA) != 0, c.writes) << c.flags;
        EXPECT_EQ(p.append, c.append) << c.flags;
        EXPECT_TRUE(p.options & FILE_NON_DIRECTORY_FILE);
    }
}

TEST(FuseMapping, StatModesAndTimes) {
    Ownership owner{1000, 100, 022};
    NtAttributes a;
    a.write.QuadPart = 116444736000000000LL + 15 * 10000000LL + 7;  // 15 s and 700 ns after 1970
    struct stat st;
    a.attributes = FILE_ATTRIBUTE_DIRECTORY;
    FillStat(a, owner, &st);
    EXPECT_EQ(st.st_mode, S_IFDIR | 0755u);
    a.attributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE;
    FillStat(a, owner, &st);
    EXPECT_EQ(st.st_mode, S_IFREG | 0555u);
    EXPECT_EQ(st.st_uid, 1000u);
    EXPECT_EQ(st.st_mtim.tv_sec, 15);
    EXPECT_EQ(st.st_mtim.tv_nsec, 700);
    EXPECT_EQ(NtFromTimespec(st.st_mtim).QuadPart, a.write.QuadPart);
    EXPECT_EQ(AttributesForMode(FILE_ATTRIBUTE_READONLY, 0644), static_cast<ULONG>(FILE_ATTRIBUTE_NORMAL));
    EXPECT_EQ(AttributesForMode(FILE_ATTRIBUTE_ARCHIVE, 0444), static_cast<ULONG>(FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_READONLY));
}

TEST(FuseMapping, ListingNamesEachEntryOnceAsTheFirstCopy) {
    std::vector<DirectoryEntry> merged = {
        {u".", FILE_ATTRIBUTE_DIRECTORY}, {u"..", FILE_ATTRIBUTE_DIRECTORY}, {u"Readme", 1},
        {u"a", 0},  {u".", FILE_ATTRIBUTE_DIRECTORY}, {u"README", 2}, {u"b", 0}, {u"A", 3},
    };
    std::vector<DirectoryEntry> unique = UniqueEntries(merged);
    ASSERT_EQ(unique.size(), 3u);
    EXPECT_EQ(unique[0].name, u"Readme");
    EXPECT_EQ(unique[0].attributes, 1u);
    EXPECT_EQ(unique[1].name, u"a");
    EXPECT_EQ(unique[2].name, u"b");
}

TEST(FuseMapping, StatusesBecomeTheErrnoPosixProgramsExpect) {
    const std::pair<NTSTATUS, int> cases[] = {
        {STATUS_SUCCESS, 0},
        {STATUS_OBJECT_NAME_NOT_FOUND, ENOENT},
        {STATUS_OBJECT_PATH_NOT_FOUND, ENOENT},
        {STATUS_NOT_A_DIRECTORY, ENOTDIR},
        {STATUS_OBJECT_NAME_COLLISION, EEXIST},
        {STATUS_ACCESS_DENIED, EACCES},
        {STATUS_SHARING_VIOLATION, EBUSY},
        {STATUS_DIRECTORY_NOT_EMPTY, ENOTEMPTY},
        {STATUS_FILE_IS_A_DIRECTORY, EISDIR},
        {STATUS_DISK_FULL, ENOSPC},
        {STATUS_OBJECT_NAME_INVALID, EINVAL},
        {STATUS_BUFFER_OVERFLOW, EIO},  // a warning is no success for a POSIX call
        {STATUS_UNSUCCESSFUL, EIO},
    };
    for (const auto& [status, error] : cases) EXPECT_EQ(ErrnoFromStatus(status), error) << emu::StatusName(status);
}

}  // namespace
}  // namespace tervane::fuse
#endif
