// POSIX requests in NT terms.
#include "posix_nt.h"

#include <fcntl.h>

#include <cerrno>
#include <ctime>

#include <emu/machine.h>

namespace tervane::fuse {
namespace {

constexpr size_t kMaxComponent = 255;  // UTF-16 units of one NT name

int CheckComponent(const std::string& name) {
    for (unsigned char c : name) {
        if (c < 0x20 || c == 0x7F) return EINVAL;
        switch (c) {
            case '"': case '*': case ':': case '<': case '>': case '?': case '\\': case '|': return EINVAL;
            default: break;
        }
    }
    if (name.back() == '.' || name.back() == ' ') return EINVAL;
    return 0;
}

}  // namespace

int ObjectNameFor(const char* linuxPath, char drive, std::u16string* name) {
    name->assign(u"\\??\\");
    name->push_back(static_cast<char16_t>(drive));
    name->push_back(u':');
    std::string path = linuxPath ? linuxPath : "/";
    size_t at = 0;
    bool any = false;
    while (at < path.size()) {
        size_t slash = path.find('/', at);
        if (slash == std::string::npos) slash = path.size();
        std::string component = path.substr(at, slash - at);
        at = slash + 1;
        if (component.empty()) continue;
        if (int error = CheckComponent(component)) return error;
        size_t before = name->size();
        name->push_back(u'\\');
        if (!emu::AppendUtf8AsUtf16(component, name)) return EILSEQ;
        if (name->size() - before - 1 > kMaxComponent) return ENAMETOOLONG;
        any = true;
    }
    if (!any) name->push_back(u'\\');
    return 0;
}

CreateParameters CreateParametersFor(int flags, bool create) {
    CreateParameters p;
    switch (flags & O_ACCMODE) {
        case O_WRONLY: p.access = FILE_GENERIC_WRITE; break;
        case O_RDWR: p.access = FILE_GENERIC_READ | FILE_GENERIC_WRITE; break;
        default: p.access = FILE_GENERIC_READ; break;
    }
    // An appending open still asks for FILE_WRITE_DATA: the position of an
    // append is the end at the time of each write, which the write itself
    // names (FILE_WRITE_TO_END_OF_FILE), and ftruncate must still work.
    p.append = (flags & O_APPEND) != 0 && (flags & O_ACCMODE) != O_RDONLY;
    if (flags & O_TRUNC) p.access |= FILE_WRITE_DATA;
    if (create && (flags & O_EXCL)) p.disposition = FILE_CREATE;
    else if (create && (flags & O_TRUNC)) p.disposition = FILE_OVERWRITE_IF;
    else if (create) p.disposition = FILE_OPEN_IF;
    else if (flags & O_TRUNC) p.disposition = FILE_OVERWRITE;
    p.options = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT;
    return p;
}

struct timespec TimespecFromNt(LARGE_INTEGER time) {
    constexpr int64_t kEpochDelta = 116444736000000000LL;  // 1601 to 1970 in 100 ns
    int64_t t = time.QuadPart - kEpochDelta;
    struct timespec ts;
    ts.tv_sec = t / 10000000;
    int64_t rest = t % 10000000;
    if (rest < 0) {
        rest += 10000000;
        ts.tv_sec -= 1;
    }
    ts.tv_nsec = rest * 100;
    return ts;
}

LARGE_INTEGER NtFromTimespec(const struct timespec& time) {
    LARGE_INTEGER t;
    t.QuadPart = 116444736000000000LL + static_cast<int64_t>(time.tv_sec) * 10000000 + time.tv_nsec / 100;
    return t;
}

void FillStat(const NtAttributes& nt, const Ownership& owner, struct stat* st) {
    *st = {};
    mode_t bits = 0777 & ~owner.umask;
    if (nt.attributes & FILE_ATTRIBUTE_DIRECTORY) {
        st->st_mode = S_IFDIR | bits;
        st->st_nlink = 2;
    } else {
        if (nt.attributes & FILE_ATTRIBUTE_READONLY) bits &= ~0222;
        st->st_mode = S_IFREG | bits;
        st->st_nlink = 1;
    }
    st->st_uid = owner.uid;
    st->st_gid = owner.gid;
    st->st_size = nt.size;
    st->st_blksize = 4096;
    st->st_blocks = (nt.allocation + 511) / 512;
    st->st_atim = TimespecFromNt(nt.access);
    st->st_mtim = TimespecFromNt(nt.write);
    st->st_ctim = TimespecFromNt(nt.change.QuadPart ? nt.change : nt.write);
}

ULONG AttributesForMode(ULONG current, mode_t mode) {
    ULONG attributes = current & ~FILE_ATTRIBUTE_NORMAL;
    if (mode & S_IWUSR) attributes &= ~FILE_ATTRIBUTE_READONLY;
    else attributes |= FILE_ATTRIBUTE_READONLY;
    return attributes ? attributes : FILE_ATTRIBUTE_NORMAL;
}

}  // namespace tervane::fuse
