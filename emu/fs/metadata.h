// What NTFS keeps about a file that a host file system does not: attributes,
// creation and change times, the short name and the security descriptor.
// Kept in the host file's extended attributes ("user.tervane.meta",
// "user.tervane.sd"); on a host without user extended attributes, in files
// named by inode number under the volume's store directory (a name no NT
// program can spell, so the volume never shows it).
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <string>
#include <vector>

#include <nt/ntifs.h>

namespace tervane::emu::fs {

struct FileMeta {
    static constexpr uint32_t kHasAttributes = 1, kHasCreationTime = 2, kHasChangeTime = 4, kHasShortName = 8;
    uint32_t present = 0;
    uint32_t attributes = 0;       // FILE_ATTRIBUTE_* without DIRECTORY
    int64_t creationTime = 0;      // NT time
    int64_t changeTime = 0;
    std::u16string shortName;      // empty: the long name is a valid 8.3 name
};

// The record's encoding: magic "TVM1", present flags, attributes, two
// times, short-name length and characters, all little-endian.
std::vector<uint8_t> EncodeMeta(const FileMeta& meta);
bool DecodeMeta(const uint8_t* data, size_t size, FileMeta* meta);  // false: not a record

// Where a volume keeps metadata. FD is an open descriptor of the file
// (any access), INO its inode number.
class MetaStore {
public:
    // Probes ROOTFD for user extended attributes; FORCEFILES uses the
    // store directory regardless.
    MetaStore(int rootFd, bool forceFiles);
    ~MetaStore();
    bool UsesXattrs() const { return storeDirFd_ < 0; }

    bool Load(int fd, uint64_t ino, FileMeta* meta) const;
    // The record of a file whose status ST was just read, empty when it has
    // none. A record read before is taken again while the file's change time
    // is the one it was read at (writing an extended attribute moves it; this
    // store's own writes drop the record). Without extended attributes it is
    // a plain Load.
    void LoadRecent(int fd, const struct stat& st, FileMeta* meta) const;
    // True when LoadRecent would answer without reading the host; *META is
    // then its answer.
    bool FindRecent(const struct stat& st, FileMeta* meta) const;
    bool Save(int fd, uint64_t ino, const FileMeta& meta) const;
    // Counts the saves of every store so far: a record loaded while it moved
    // may be older than what a save just wrote.
    static uint64_t Saves();
    std::optional<std::vector<uint8_t>> LoadSecurity(int fd, uint64_t ino) const;
    bool SaveSecurity(int fd, uint64_t ino, const std::vector<uint8_t>& sd) const;
    // A file is gone: its store entries go too (no-op with xattrs).
    void Forget(uint64_t ino) const;

    static constexpr const char* kStoreDirName = "tervane:meta";

private:
    std::optional<std::vector<uint8_t>> Read(int fd, uint64_t ino, const char* which) const;
    bool Write(int fd, uint64_t ino, const char* which, const std::vector<uint8_t>& data) const;
    int storeDirFd_ = -1;
    struct Recent {
        struct timespec ctime;
        FileMeta meta;
    };
    mutable std::mutex recentLock_;
    mutable std::unordered_map<uint64_t, Recent> recent_;  // by inode
};

// NT time (100 ns since 1601) from a host timespec and back.
int64_t NtTimeFromUnix(int64_t seconds, int64_t nanoseconds);
void UnixFromNtTime(int64_t ntTime, int64_t* seconds, int64_t* nanoseconds);
int64_t NtTimeNow();

}  // namespace tervane::emu::fs
