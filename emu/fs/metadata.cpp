// Metadata records and their host store (see metadata.h).
#include "fs/metadata.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace tervane::emu::fs {

namespace {
constexpr uint32_t kMagic = 0x314D5654;  // "TVM1"
constexpr int64_t kEpochDelta = 116444736000000000LL;  // 1601 -> 1970 in 100 ns
constexpr const char* kMetaXattr = "user.tervane.meta";
constexpr const char* kSdXattr = "user.tervane.sd";

void Put32(std::vector<uint8_t>& v, uint32_t x) {
    for (int i = 0; i < 4; ++i) v.push_back(static_cast<uint8_t>(x >> (8 * i)));
}
void Put64(std::vector<uint8_t>& v, uint64_t x) {
    for (int i = 0; i < 8; ++i) v.push_back(static_cast<uint8_t>(x >> (8 * i)));
}
uint64_t Get(const uint8_t* p, int bytes) {
    uint64_t x = 0;
    for (int i = 0; i < bytes; ++i) x |= static_cast<uint64_t>(p[i]) << (8 * i);
    return x;
}
}  // namespace

std::vector<uint8_t> EncodeMeta(const FileMeta& m) {
    std::vector<uint8_t> v;
    Put32(v, kMagic);
    Put32(v, m.present);
    Put32(v, m.attributes);
    Put64(v, static_cast<uint64_t>(m.creationTime));
    Put64(v, static_cast<uint64_t>(m.changeTime));
    size_t len = m.shortName.size() > 12 ? 12 : m.shortName.size();
    v.push_back(static_cast<uint8_t>(len));
    for (size_t i = 0; i < len; ++i) {
        v.push_back(static_cast<uint8_t>(m.shortName[i]));
        v.push_back(static_cast<uint8_t>(m.shortName[i] >> 8));
    }
    return v;
}

bool DecodeMeta(const uint8_t* p, size_t size, FileMeta* m) {
    constexpr size_t kFixed = 4 + 4 + 4 + 8 + 8 + 1;
    if (size < kFixed || Get(p, 4) != kMagic) return false;
    size_t len = p[28];
    if (len > 12 || size < kFixed + 2 * len) return false;
    m->present = static_cast<uint32_t>(Get(p + 4, 4));
    m->attributes = static_cast<uint32_t>(Get(p + 8, 4));
    m->creationTime = static_cast<int64_t>(Get(p + 12, 8));
    m->changeTime = static_cast<int64_t>(Get(p + 20, 8));
    m->shortName.clear();
    for (size_t i = 0; i < len; ++i) m->shortName.push_back(static_cast<char16_t>(Get(p + kFixed + 2 * i, 2)));
    return true;
}

MetaStore::MetaStore(int rootFd, bool forceFiles) {
    bool xattrs = false;
    if (!forceFiles) {
        // Setting a value is the only reliable probe: some hosts list
        // nothing yet refuse writes.
        if (fsetxattr(rootFd, "user.tervane.probe", "1", 1, 0) == 0) {
            fremovexattr(rootFd, "user.tervane.probe");
            xattrs = true;
        }
    }
    if (xattrs) return;
    mkdirat(rootFd, kStoreDirName, 0700);
    storeDirFd_ = openat(rootFd, kStoreDirName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

MetaStore::~MetaStore() {
    if (storeDirFd_ >= 0) close(storeDirFd_);
}

std::optional<std::vector<uint8_t>> MetaStore::Read(int fd, uint64_t ino, const char* which) const {
    std::vector<uint8_t> buf(4096);
    if (storeDirFd_ < 0) {
        ssize_t n = fgetxattr(fd, which, buf.data(), buf.size());
        if (n < 0 && errno == ERANGE) {
            n = fgetxattr(fd, which, nullptr, 0);
            if (n > 0) {
                buf.resize(static_cast<size_t>(n));
                n = fgetxattr(fd, which, buf.data(), buf.size());
            }
        }
        if (n < 0) return std::nullopt;
        buf.resize(static_cast<size_t>(n));
        return buf;
    }
    char name[64];
    snprintf(name, sizeof name, "%llx.%s", static_cast<unsigned long long>(ino), which == kSdXattr ? "sd" : "meta");
    int f = openat(storeDirFd_, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (f < 0) return std::nullopt;
    std::vector<uint8_t> out;
    for (;;) {
        ssize_t n = read(f, buf.data(), buf.size());
        if (n <= 0) break;
        out.insert(out.end(), buf.begin(), buf.begin() + n);
        if (out.size() > (1u << 20)) break;  // no record is this large
    }
    close(f);
    return out;
}

bool MetaStore::Write(int fd, uint64_t ino, const char* which, const std::vector<uint8_t>& data) const {
    if (storeDirFd_ < 0) return fsetxattr(fd, which, data.data(), data.size(), 0) == 0;
    char name[64], tmp[80];
    snprintf(name, sizeof name, "%llx.%s", static_cast<unsigned long long>(ino), which == kSdXattr ? "sd" : "meta");
    snprintf(tmp, sizeof tmp, "%s.new", name);
    int f = openat(storeDirFd_, tmp, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (f < 0) return false;
    bool ok = write(f, data.data(), data.size()) == static_cast<ssize_t>(data.size());
    close(f);
    return ok && renameat(storeDirFd_, tmp, storeDirFd_, name) == 0;
}

bool MetaStore::Load(int fd, uint64_t ino, FileMeta* meta) const {
    auto data = Read(fd, ino, kMetaXattr);
    return data && DecodeMeta(data->data(), data->size(), meta);
}

namespace {
// Counts the writes of every store: a record read while one was made is not
// kept, as it may be older than the change time it would be kept with.
std::atomic<uint64_t> g_metaWrites{0};
constexpr size_t kRecentRecords = 1 << 16;  // then the records start over
}  // namespace

bool MetaStore::FindRecent(const struct stat& st, FileMeta* meta) const {
    if (storeDirFd_ >= 0) return false;
    std::lock_guard<std::mutex> guard(recentLock_);
    auto it = recent_.find(st.st_ino);
    if (it == recent_.end() || it->second.ctime.tv_sec != st.st_ctim.tv_sec ||
        it->second.ctime.tv_nsec != st.st_ctim.tv_nsec)
        return false;
    *meta = it->second.meta;
    return true;
}

void MetaStore::LoadRecent(int fd, const struct stat& st, FileMeta* meta) const {
    *meta = FileMeta();
    if (FindRecent(st, meta)) return;
    const uint64_t writes = g_metaWrites.load();
    Load(fd, st.st_ino, meta);
    if (storeDirFd_ >= 0) return;
    std::lock_guard<std::mutex> guard(recentLock_);
    if (g_metaWrites.load() != writes) return;
    if (recent_.size() >= kRecentRecords) recent_.clear();
    recent_[st.st_ino] = Recent{st.st_ctim, *meta};
}

uint64_t MetaStore::Saves() { return g_metaWrites.load(); }

bool MetaStore::Save(int fd, uint64_t ino, const FileMeta& meta) const {
    {
        std::lock_guard<std::mutex> guard(recentLock_);
        g_metaWrites++;
        recent_.erase(ino);
    }
    return Write(fd, ino, kMetaXattr, EncodeMeta(meta));
}

std::optional<std::vector<uint8_t>> MetaStore::LoadSecurity(int fd, uint64_t ino) const {
    return Read(fd, ino, kSdXattr);
}

bool MetaStore::SaveSecurity(int fd, uint64_t ino, const std::vector<uint8_t>& sd) const {
    return Write(fd, ino, kSdXattr, sd);
}

void MetaStore::Forget(uint64_t ino) const {
    if (storeDirFd_ < 0) return;
    char name[64];
    snprintf(name, sizeof name, "%llx.meta", static_cast<unsigned long long>(ino));
    unlinkat(storeDirFd_, name, 0);
    snprintf(name, sizeof name, "%llx.sd", static_cast<unsigned long long>(ino));
    unlinkat(storeDirFd_, name, 0);
}

int64_t NtTimeFromUnix(int64_t seconds, int64_t nanoseconds) {
    return seconds * 10000000LL + nanoseconds / 100 + kEpochDelta;
}

void UnixFromNtTime(int64_t ntTime, int64_t* seconds, int64_t* nanoseconds) {
    int64_t t = ntTime - kEpochDelta;
    int64_t s = t / 10000000LL, r = t % 10000000LL;
    if (r < 0) {
        r += 10000000LL;
        --s;
    }
    *seconds = s;
    *nanoseconds = r * 100;
}

int64_t NtTimeNow() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return NtTimeFromUnix(ts.tv_sec, ts.tv_nsec);
}

}  // namespace tervane::emu::fs
