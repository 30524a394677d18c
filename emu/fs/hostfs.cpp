// Host access of the emulated NTFS volume, confined to the volume's host
// directory: every name is walked one component at a time with openat and
// O_NOFOLLOW from the root descriptor, so neither ".." (refused by name
// validation) nor a host symbolic link leads outside. Host symbolic links,
// fifos, sockets and devices are hidden: listings skip them, opens do not
// find them, and creating a name they hold fails with STATUS_ACCESS_DENIED.
// Host names that are not valid UTF-8, or not a valid NT component, are
// hidden the same way. Where host names differ only in case, the one that
// sorts first by host bytes is the one listed and the one any spelling
// reaches; the others are reachable only by their exact spelling.
#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>

#include "fs/fsstruc.h"
#include "fs/names.h"

namespace tervane::emu::fs {

NTSTATUS StatusFromErrno(int err) {
    switch (err) {
        case ENOENT: return STATUS_OBJECT_NAME_NOT_FOUND;
        case ENOTDIR: return STATUS_OBJECT_PATH_NOT_FOUND;
        case EEXIST: return STATUS_OBJECT_NAME_COLLISION;
        case EACCES: case EPERM: case EROFS: case ELOOP: case ETXTBSY: return STATUS_ACCESS_DENIED;
        case ENOSPC: case EDQUOT: return STATUS_DISK_FULL;
        case ENOTEMPTY: return STATUS_DIRECTORY_NOT_EMPTY;
        case ENAMETOOLONG: return STATUS_OBJECT_NAME_INVALID;
        case EINVAL: return STATUS_INVALID_PARAMETER;
        case EISDIR: return STATUS_FILE_IS_A_DIRECTORY;
        case EXDEV: return STATUS_NOT_SAME_DEVICE;
        case EMFILE: case ENFILE: return STATUS_TOO_MANY_OPENED_FILES;
        case ENOMEM: return STATUS_INSUFFICIENT_RESOURCES;
        case EFBIG: return STATUS_DISK_FULL;
        default: return STATUS_UNSUCCESSFUL;
    }
}

std::string JoinHost(const std::string& dir, const std::string& name) {
    if (dir.empty()) return name;
    std::string path;
    path.reserve(dir.size() + 1 + name.size());
    path.append(dir).append(1, '/').append(name);
    return path;
}

std::u16string JoinNt(const std::u16string& dir, const std::u16string& name) {
    const bool root = dir == u"\\";
    std::u16string path;
    path.reserve((root ? 0 : dir.size()) + 1 + name.size());
    if (!root) path.append(dir);
    path.append(1, u'\\').append(name);
    return path;
}

int OpenHostDir(Vcb* vcb, const std::string& hostPath) {
    int fd = openat(vcb->rootFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    size_t pos = 0;
    while (fd >= 0 && pos < hostPath.size()) {
        size_t end = hostPath.find('/', pos);
        if (end == std::string::npos) end = hostPath.size();
        std::string part = hostPath.substr(pos, end - pos);
        int next = openat(fd, part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        int err = errno;
        close(fd);
        errno = err;
        fd = next;
        pos = end + 1;
    }
    return fd;
}

static bool Visible(const struct stat& st) { return S_ISREG(st.st_mode) || S_ISDIR(st.st_mode); }

int OpenHostDirBeneath(Vcb* vcb, const std::string& hostPath) {
    if (hostPath.empty()) return openat(vcb->rootFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    // Below the root, through directories only, no link of any kind: what
    // the walk of OpenHostDir makes sure of, in one call.
    struct open_how how = {};
    how.flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV;
    return static_cast<int>(syscall(SYS_openat2, vcb->rootFd, hostPath.c_str(), &how, sizeof how));
}

int OpenHostChild(int dirFd, const std::string& hostName, bool directory, bool* writable) {
    const int common = O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
    int fd;
    if (writable) *writable = false;
    if (directory) {
        fd = openat(dirFd, hostName.c_str(), O_RDONLY | O_DIRECTORY | common);
    } else {
        fd = openat(dirFd, hostName.c_str(), O_RDWR | common);
        if (fd >= 0) {
            if (writable) *writable = true;
        } else if (errno == EACCES || errno == EROFS || errno == ETXTBSY) {
            fd = openat(dirFd, hostName.c_str(), O_RDONLY | common);
        }
    }
    if (fd < 0) return -1;
    struct stat st;
    // The name may have been swapped for a fifo or a device since it was
    // looked at: check what was opened.
    if (fstat(fd, &st) != 0 || !Visible(st) || S_ISDIR(st.st_mode) != directory) {
        close(fd);
        errno = EACCES;
        return -1;
    }
    // O_NONBLOCK stays: on a regular file or a directory it changes no read
    // or write (open(2)), and clearing it would cost a host call per open.
    return fd;
}

int OpenHostFileBeneath(Vcb* vcb, const std::string& hostPath, bool* writable, struct stat* st) {
    // The confinement of OpenHostDirBeneath; O_NONBLOCK and O_NOCTTY so that
    // a fifo or a device met here is opened without waiting or side effect,
    // and then refused.
    struct open_how how = {};
    how.flags = O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV;
    *writable = true;
    int fd = static_cast<int>(syscall(SYS_openat2, vcb->rootFd, hostPath.c_str(), &how, sizeof how));
    if (fd < 0 && (errno == EISDIR || errno == EACCES || errno == EROFS || errno == ETXTBSY)) {
        how.flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
        *writable = false;
        fd = static_cast<int>(syscall(SYS_openat2, vcb->rootFd, hostPath.c_str(), &how, sizeof how));
    }
    if (fd < 0) return -1;
    if (fstat(fd, st) != 0 || !Visible(*st)) {
        close(fd);
        errno = EACCES;
        return -1;
    }
    if (S_ISDIR(st->st_mode)) *writable = false;
    return fd;  // O_NONBLOCK stays, as in OpenHostChild
}

// ---- Directory caches -------------------------------------------------------

static uint64_t InoOf(int fd, struct stat* st) {
    if (fstat(fd, st) != 0) return 0;
    return st->st_ino;
}

static void AddToCache(DirCache* cache, const DirEntry& e) {
    std::u16string key = UpcaseString(e.name);
    if (!e.shortName.empty()) cache->shortToLong[UpcaseString(e.shortName)] = key;
    cache->byLong.emplace(std::move(key), e);
}

static bool ShortNameTaken(const DirCache& cache, const std::u16string& upShort) {
    return cache.byLong.count(upShort) || cache.shortToLong.count(upShort);
}

static std::u16string UniqueShortName(const DirCache& cache, const std::u16string& longName) {
    for (int attempt = 1;; ++attempt) {
        std::u16string candidate = MakeShortNameCandidate(longName, attempt);
        if (candidate.empty()) return {};  // directory full of alike names: none
        if (!ShortNameTaken(cache, candidate)) return candidate;
    }
}

static void ReadDirectory(Vcb* vcb, int dirFd, DirCache* cache) {
    cache->byLong.clear();
    cache->shortToLong.clear();
    int fd = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    DIR* dir = fdopendir(fd);
    if (!dir) {
        close(fd);
        return;
    }
    std::vector<std::pair<std::string, bool>> raw;
    while (dirent* de = readdir(dir)) {
        std::string host = de->d_name;
        if (host == "." || host == "..") continue;
        raw.emplace_back(host, false);
    }
    closedir(dir);
    // Host byte order decides which of two case-variant names a spelling
    // that matches neither exactly reaches (the first one wins).
    std::sort(raw.begin(), raw.end());
    std::vector<DirEntry> needShort;
    for (auto& [host, unused] : raw) {
        struct stat st;
        if (fstatat(dirFd, host.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !Visible(st)) continue;
        DirEntry e;
        e.hostName = host;
        if (!HostNameToNt(host, &e.name) || !NT_SUCCESS(ValidateComponent(e.name))) continue;
        std::u16string key = UpcaseString(e.name);
        if (cache->byLong.count(key)) continue;  // a case variant already listed under this key
        if (!IsValid83Name(e.name)) {
            FileMeta meta;
            int f = OpenHostChild(dirFd, host, S_ISDIR(st.st_mode), nullptr);
            if (f >= 0) {
                if (vcb->store->Load(f, st.st_ino, &meta) && (meta.present & FileMeta::kHasShortName) &&
                    !meta.shortName.empty() && !ShortNameTaken(*cache, UpcaseString(meta.shortName))) {
                    e.shortName = meta.shortName;
                }
                close(f);
            }
            if (e.shortName.empty()) {
                needShort.push_back(e);
                continue;
            }
        }
        AddToCache(cache, e);
    }
    // Names without a stored short name get one now, and keep it.
    for (auto& e : needShort) {
        e.shortName = UniqueShortName(*cache, e.name);
        struct stat st;
        if (fstatat(dirFd, e.hostName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
            int f = OpenHostChild(dirFd, e.hostName, S_ISDIR(st.st_mode), nullptr);
            if (f >= 0) {
                FileMeta meta;
                vcb->store->Load(f, st.st_ino, &meta);
                meta.shortName = e.shortName;
                meta.present |= FileMeta::kHasShortName;
                vcb->store->Save(f, st.st_ino, meta);
                close(f);
            }
        }
        AddToCache(cache, e);
    }
}

static void Stamp(const struct stat& st, DirCache* cache) {
    cache->stampMtime = st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec;
    cache->stampCtime = st.st_ctim.tv_sec * 1000000000LL + st.st_ctim.tv_nsec;
}

DirCache* GetDirCache(Vcb* vcb, int dirFd) {
    struct stat st;
    uint64_t ino = InoOf(dirFd, &st);
    DirCache& cache = vcb->dirCaches[ino];
    int64_t m = st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec;
    int64_t c = st.st_ctim.tv_sec * 1000000000LL + st.st_ctim.tv_nsec;
    if (cache.stampMtime != m || cache.stampCtime != c) {
        ReadDirectory(vcb, dirFd, &cache);
        // Writing short names may have touched the directory: stamp after.
        fstat(dirFd, &st);
        Stamp(st, &cache);
    }
    return &cache;
}

void DirCacheAdd(Vcb* vcb, int dirFd, const DirEntry& entry) {
    // Our own change: the cache (current just before it) takes the entry
    // and the new stamp, so the next lookup reads no directory.
    struct stat st;
    uint64_t ino = InoOf(dirFd, &st);
    auto it = vcb->dirCaches.find(ino);
    if (it == vcb->dirCaches.end()) return;
    AddToCache(&it->second, entry);
    Stamp(st, &it->second);
}

void DirCacheRemove(Vcb* vcb, int dirFd, const std::u16string& name) {
    struct stat st;
    uint64_t ino = InoOf(dirFd, &st);
    auto it = vcb->dirCaches.find(ino);
    if (it == vcb->dirCaches.end()) return;
    DirCache& cache = it->second;
    auto e = cache.byLong.find(UpcaseString(name));
    if (e != cache.byLong.end()) {
        if (!e->second.shortName.empty()) cache.shortToLong.erase(UpcaseString(e->second.shortName));
        cache.byLong.erase(e);
    }
    Stamp(st, &cache);
}

std::u16string GenerateShortName(Vcb* vcb, int dirFd, const std::u16string& longName) {
    if (IsValid83Name(longName)) return {};
    return UniqueShortName(*GetDirCache(vcb, dirFd), longName);
}

NTSTATUS LookupChildExact(int dirFd, const std::u16string& name, Lookup* out, bool* askCache) {
    *out = Lookup();
    *askCache = false;
    std::string host;
    if (!NtNameToHost(name, &host)) return STATUS_OBJECT_NAME_INVALID;
    // A host open by name first: the common case costs no directory read.
    if (fstatat(dirFd, host.c_str(), &out->st, AT_SYMLINK_NOFOLLOW) == 0) {
        out->hostName = host;
        out->name = name;
        if (Visible(out->st)) out->found = true;
        else out->hidden = true;
        return STATUS_SUCCESS;
    }
    if (errno != ENOENT) return errno == ENAMETOOLONG ? STATUS_OBJECT_NAME_INVALID : STATUS_SUCCESS;
    *askCache = true;
    return STATUS_SUCCESS;
}

NTSTATUS LookupChild(Vcb* vcb, int dirFd, const std::u16string& name, Lookup* out) {
    bool askCache;
    NTSTATUS status = LookupChildExact(dirFd, name, out, &askCache);
    if (!NT_SUCCESS(status) || !askCache) return status;
    return LookupChildCached(vcb, dirFd, name, out);
}

NTSTATUS LookupChildCached(Vcb* vcb, int dirFd, const std::u16string& name, Lookup* out) {
    *out = Lookup();
    DirCache* cache = GetDirCache(vcb, dirFd);
    std::u16string key = UpcaseString(name);
    auto it = cache->byLong.find(key);
    if (it == cache->byLong.end()) {
        auto s = cache->shortToLong.find(key);
        if (s != cache->shortToLong.end()) it = cache->byLong.find(s->second);
    }
    if (it == cache->byLong.end()) return STATUS_SUCCESS;
    if (fstatat(dirFd, it->second.hostName.c_str(), &out->st, AT_SYMLINK_NOFOLLOW) != 0 || !Visible(out->st))
        return STATUS_SUCCESS;
    out->found = true;
    out->hostName = it->second.hostName;
    out->name = it->second.name;
    return STATUS_SUCCESS;
}

void GetTimes(const struct stat& st, const FileMeta& meta, FileTimes* t) {
    t->lastAccess = NtTimeFromUnix(st.st_atim.tv_sec, st.st_atim.tv_nsec);
    t->lastWrite = NtTimeFromUnix(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
    t->change = (meta.present & FileMeta::kHasChangeTime) ? meta.changeTime
                                                           : NtTimeFromUnix(st.st_ctim.tv_sec, st.st_ctim.tv_nsec);
    // A file the host made has no creation time of ours: its last write
    // stands in.
    t->creation = (meta.present & FileMeta::kHasCreationTime) ? meta.creationTime : t->lastWrite;
}

ULONG ReportedAttributes(const FileMeta& meta, bool directory) {
    ULONG a = (meta.present & FileMeta::kHasAttributes) ? meta.attributes : (directory ? 0 : FILE_ATTRIBUTE_ARCHIVE);
    a &= ~(FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_NORMAL);
    if (directory) a |= FILE_ATTRIBUTE_DIRECTORY;
    return a ? a : FILE_ATTRIBUTE_NORMAL;
}

void LoadMeta(Vcb* vcb, int fd, const struct stat& st, FileMeta* meta) {
    vcb->store->LoadRecent(fd, st, meta);
}

static bool PathHasIno(Vcb* vcb, const std::string& hostPath, uint64_t ino) {
    size_t slash = hostPath.rfind('/');
    std::string parent = slash == std::string::npos ? "" : hostPath.substr(0, slash);
    std::string leaf = slash == std::string::npos ? hostPath : hostPath.substr(slash + 1);
    int dfd = OpenHostDir(vcb, parent);
    if (dfd < 0) return false;
    struct stat st;
    bool ok = fstatat(dfd, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && st.st_ino == ino && Visible(st);
    close(dfd);
    return ok;
}

static bool HostPathOf(const std::u16string& fullName, std::string* hostPath) {
    std::vector<std::u16string> parts;
    bool trailing;
    if (!NT_SUCCESS(SplitPath(fullName, &parts, &trailing))) return false;
    hostPath->clear();
    for (auto& p : parts) {
        std::string h;
        if (!NtNameToHost(p, &h)) return false;
        *hostPath = JoinHost(*hostPath, h);
    }
    return true;
}

bool FindPathById(Vcb* vcb, uint64_t ino, std::u16string* fullName, std::string* hostPath) {
    if (ino == vcb->rootIno) {
        fullName->assign(1, u'\\');
        hostPath->clear();
        return true;
    }
    auto known = vcb->idPaths.find(ino);
    if (known != vcb->idPaths.end() && HostPathOf(known->second, hostPath) && PathHasIno(vcb, *hostPath, ino)) {
        *fullName = known->second;
        return true;
    }
    // Not seen yet (or moved behind our back): walk the volume once.
    std::deque<std::pair<std::u16string, std::string>> queue{{u"\\", ""}};
    while (!queue.empty()) {
        auto [ntDir, hostDir] = queue.front();
        queue.pop_front();
        int dfd = OpenHostDir(vcb, hostDir);
        if (dfd < 0) continue;
        int lfd = openat(dfd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        DIR* dir = lfd >= 0 ? fdopendir(lfd) : nullptr;
        if (!dir) {
            if (lfd >= 0) close(lfd);
            close(dfd);
            continue;
        }
        while (dirent* de = readdir(dir)) {
            std::string host = de->d_name;
            if (host == "." || host == "..") continue;
            std::u16string nt;
            struct stat st;
            if (!HostNameToNt(host, &nt) || !NT_SUCCESS(ValidateComponent(nt))) continue;
            if (fstatat(dfd, host.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !Visible(st)) continue;
            std::u16string childNt = JoinNt(ntDir, nt);
            std::string childHost = JoinHost(hostDir, host);
            if (st.st_ino == ino) {
                closedir(dir);
                close(dfd);
                *fullName = childNt;
                *hostPath = childHost;
                vcb->idPaths[ino] = childNt;
                return true;
            }
            if (S_ISDIR(st.st_mode)) queue.emplace_back(childNt, childHost);
        }
        closedir(dir);
        close(dfd);
    }
    return false;
}

}  // namespace tervane::emu::fs
