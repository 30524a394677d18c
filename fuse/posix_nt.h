// POSIX requests in NT terms: object names for Linux paths, create
// parameters for open flags, stat fields for file attributes, times.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include <nt/ntifs.h>

namespace tervane::fuse {

// "\??\C:\a\b" for "/a/b" on drive C:. 0, or the errno for a name that NT
// cannot hold: EILSEQ (not UTF-8), ENAMETOOLONG (a component above 255
// UTF-16 units), EINVAL (a control character, one of " * : < > ? \ |, or a
// trailing dot or blank, which NT would drop or read as a stream).
int ObjectNameFor(const char* linuxPath, char drive, std::u16string* name);

// What NtCreateFile is asked for an open(2) with FLAGS.
struct CreateParameters {
    ACCESS_MASK access = 0;
    ULONG disposition = FILE_OPEN;
    ULONG options = FILE_SYNCHRONOUS_IO_NONALERT;
    bool append = false;  // every write goes to the end of the file
};
CreateParameters CreateParametersFor(int flags, bool create);

// Who owns every file of the mount and which permission bits files get.
struct Ownership {
    uid_t uid = 0;
    gid_t gid = 0;
    mode_t umask = 022;  // files and directories get 0777 & ~umask
};

struct NtAttributes {
    LARGE_INTEGER creation{}, access{}, write{}, change{};
    int64_t size = 0;
    int64_t allocation = 0;
    ULONG attributes = 0;
};
// A stat record: directories and files with the ownership's modes, a
// read-only file without write bits, one link, times from the NT times.
void FillStat(const NtAttributes& nt, const Ownership& owner, struct stat* st);

// NT times (100 ns since 1601) and POSIX times.
struct timespec TimespecFromNt(LARGE_INTEGER time);
LARGE_INTEGER NtFromTimespec(const struct timespec& time);

// The read-only attribute for a mode: set when the owner may not write.
ULONG AttributesForMode(ULONG current, mode_t mode);

}  // namespace tervane::fuse
