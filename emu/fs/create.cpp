// IRP_MJ_CREATE of the emulated NTFS driver: name resolution, the six
// dispositions, directory/non-directory checks, the read-only attribute,
// share access, delete-on-close, opens by file id, volume opens and
// SL_OPEN_TARGET_DIRECTORY.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "fs/fsstruc.h"
#include "fs/names.h"

namespace tervane::emu::fs {

namespace {

struct HostFd {
    int fd = -1;
    bool owned = true;  // false: borrowed (the volume's root), never closed here
    HostFd() = default;
    explicit HostFd(int f, bool own = true) : fd(f), owned(own) {}
    HostFd(const HostFd&) = delete;
    HostFd& operator=(const HostFd&) = delete;
    ~HostFd() {
        if (owned && fd >= 0) close(fd);
    }
    void reset(int f) {
        if (owned && fd >= 0) close(fd);
        fd = f;
        owned = true;
    }
};

constexpr ACCESS_MASK kWriteLike = FILE_WRITE_DATA | FILE_APPEND_DATA;

ACCESS_MASK MapGenericAccess(ACCESS_MASK access) {
    if (access & GENERIC_READ) access |= FILE_GENERIC_READ;
    if (access & GENERIC_WRITE) access |= FILE_GENERIC_WRITE;
    if (access & GENERIC_EXECUTE) access |= FILE_GENERIC_EXECUTE;
    if (access & (GENERIC_ALL | MAXIMUM_ALLOWED)) access |= FILE_ALL_ACCESS;
    return access & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL | MAXIMUM_ALLOWED);
}

struct CreateRequest {
    Vcb* vcb;
    // The volume mutex. An open under the exclusive name lock holds it
    // throughout; a shared open takes it only for the volume's tables and the
    // directory caches, and from the moment it has found the file's control
    // block to the end.
    std::unique_lock<std::mutex>* lock;
    bool shared;  // the volume's name lock is held shared
    PFILE_OBJECT fo;
    ULONG options;
    ULONG disposition;
    ACCESS_MASK access;
    ACCESS_MASK requestedAccess;  // before MAXIMUM_ALLOWED was resolved
    ULONG share;
    ULONG attributes;
    UCHAR flags;
};

// A stretch of host calls. An open under the shared name lock does it
// without the volume mutex, so that opens of other files go on meanwhile; no
// name can change under it. Nothing read under the mutex before is relied
// on after, but for what the open itself holds.
class HostCall {
public:
    explicit HostCall(CreateRequest& rq) : lock_(rq.shared && rq.lock->owns_lock() ? rq.lock : nullptr) {
        if (lock_) lock_->unlock();
    }
    ~HostCall() {
        if (lock_) lock_->lock();
    }
    HostCall(const HostCall&) = delete;
    HostCall& operator=(const HostCall&) = delete;

private:
    std::unique_lock<std::mutex>* lock_;
};

// The volume mutex for a stretch that reads or changes the volume's tables:
// taken when the open does not hold it yet, and given back after.
class Tables {
public:
    explicit Tables(CreateRequest& rq) : lock_(rq.lock->owns_lock() ? nullptr : rq.lock) {
        if (lock_) lock_->lock();
    }
    ~Tables() {
        if (lock_) lock_->unlock();
    }
    Tables(const Tables&) = delete;
    Tables& operator=(const Tables&) = delete;

private:
    std::unique_lock<std::mutex>* lock_;
};

// LookupChild with its host call outside the volume mutex.
NTSTATUS FindChild(CreateRequest& rq, int dirFd, const std::u16string& name, Lookup* out) {
    bool askCache;
    NTSTATUS status;
    {
        HostCall host(rq);
        status = LookupChildExact(dirFd, name, out, &askCache);
    }
    if (!NT_SUCCESS(status) || !askCache) return status;
    Tables tables(rq);
    return LookupChildCached(rq.vcb, dirFd, name, out);
}

void ReleaseIfUnused(Vcb* vcb, Fcb* fcb) {
    if (!fcb || fcb->referenceCount != 0) return;
    UnlinkFcb(vcb, fcb);
    DeleteFcb(fcb);
}

void SetSizes(Fcb* fcb, const struct stat& st) {
    int64_t size = fcb->isDirectory ? 0 : st.st_size;
    fcb->Header.FileSize.QuadPart = size;
    fcb->Header.ValidDataLength.QuadPart = size;
    fcb->Header.AllocationSize.QuadPart = (size + kClusterSize - 1) / kClusterSize * kClusterSize;
}

// The control block of an existing host file, shared by every open of it.
// A new one opens the host file and reads its metadata outside the volume
// mutex; an open of the same file that made one meanwhile wins.
NTSTATUS GetFcb(CreateRequest& rq, int parentFd, const Lookup& lk, const std::u16string& fullName,
                const std::string& hostPath, Fcb** out) {
    Vcb* vcb = rq.vcb;
    auto it = vcb->fcbs.find(lk.st.st_ino);
    if (it != vcb->fcbs.end()) {
        *out = it->second;
        return STATUS_SUCCESS;
    }
    bool directory = S_ISDIR(lk.st.st_mode);
    bool writable = false;
    int fd, err = 0;
    FileMeta meta;
    {
        HostCall host(rq);
        fd = hostPath.empty() ? openat(vcb->rootFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                              : OpenHostChild(parentFd, lk.hostName, directory, &writable);
        err = errno;
        if (fd >= 0) LoadMeta(vcb, fd, lk.st.st_ino, &meta);
    }
    if (fd < 0) return StatusFromErrno(err);
    it = vcb->fcbs.find(lk.st.st_ino);
    if (it != vcb->fcbs.end()) {
        close(fd);
        *out = it->second;
        return STATUS_SUCCESS;
    }
    Fcb* fcb = CreateFcb(vcb, lk.st.st_ino);
    if (!fcb) {
        close(fd);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    fcb->fd = fd;
    fcb->fdWritable = writable;
    fcb->isDirectory = directory;
    fcb->fullName = fullName;
    fcb->hostPath = hostPath;
    fcb->meta = std::move(meta);
    SetSizes(fcb, lk.st);
    vcb->fcbs[fcb->ino] = fcb;
    *out = fcb;
    return STATUS_SUCCESS;
}

// The CCB of the open, made before anything on the host changes so that
// no allocation can fail once a file was made or truncated.
class PendingCcb {
public:
    PendingCcb() : ccb_(CreateCcb()) {}
    ~PendingCcb() {
        if (ccb_) DeleteCcb(ccb_);
    }
    PendingCcb(const PendingCcb&) = delete;
    PendingCcb& operator=(const PendingCcb&) = delete;
    bool Ok() const { return ccb_ != nullptr; }
    Ccb* Take() { return std::exchange(ccb_, nullptr); }

private:
    Ccb* ccb_;
};

// Gives the file object its control blocks. Fails only on share access,
// which callers that change the host check first.
NTSTATUS AttachToFileObject(CreateRequest& rq, Fcb* fcb, PendingCcb& pending) {
    if (fcb->openCount == 0) {
        IoSetShareAccess(rq.access, rq.share, rq.fo, &fcb->ShareAccess);
    } else {
        NTSTATUS status = IoCheckShareAccess(rq.access, rq.share, rq.fo, &fcb->ShareAccess, TRUE);
        if (!NT_SUCCESS(status)) return status;
    }
    Ccb* ccb = pending.Take();
    ccb->grantedAccess = rq.access;
    ccb->deleteOnClose = (rq.options & FILE_DELETE_ON_CLOSE) != 0;
    fcb->openCount++;
    fcb->referenceCount++;
    PFILE_OBJECT fo = rq.fo;
    fo->FsContext = fcb;
    fo->FsContext2 = ccb;
    fo->SectionObjectPointer = &fcb->SectionObjects;
    fo->Vpb = rq.vcb->vpb;
    if (rq.options & FILE_WRITE_THROUGH) fo->Flags |= FO_WRITE_THROUGH;
    if (rq.options & FILE_SEQUENTIAL_ONLY) fo->Flags |= FO_SEQUENTIAL_ONLY;
    if (rq.options & FILE_NO_INTERMEDIATE_BUFFERING) fo->Flags |= FO_NO_INTERMEDIATE_BUFFERING;
    if (rq.options & FILE_RANDOM_ACCESS) fo->Flags |= FO_RANDOM_ACCESS;
    if (rq.options & FILE_DELETE_ON_CLOSE) fo->Flags |= FO_DELETE_ON_CLOSE;
    if (!fcb->isVolume) rq.vcb->idPaths[fcb->ino] = fcb->fullName;
    return STATUS_SUCCESS;
}

NTSTATUS OpenVolume(CreateRequest& rq, PendingCcb& ccb, ULONG_PTR* info) {
    Vcb* vcb = rq.vcb;
    if (rq.options & FILE_DIRECTORY_FILE) return STATUS_NOT_A_DIRECTORY;
    if (rq.disposition != FILE_OPEN && rq.disposition != FILE_OPEN_IF) return STATUS_ACCESS_DENIED;
    if (!vcb->volumeFcb) {
        vcb->volumeFcb = CreateFcb(vcb, 0);
        if (!vcb->volumeFcb) return STATUS_INSUFFICIENT_RESOURCES;
        vcb->volumeFcb->isVolume = true;
        vcb->volumeFcb->fullName = u"";
    }
    NTSTATUS status = AttachToFileObject(rq, vcb->volumeFcb, ccb);
    if (!NT_SUCCESS(status)) {
        ReleaseIfUnused(vcb, vcb->volumeFcb);
        return status;
    }
    *info = FILE_OPENED;
    return STATUS_SUCCESS;
}

// Checks that apply to an existing file, in the order NTFS makes them.
NTSTATUS CheckExisting(CreateRequest& rq, Fcb* fcb, bool trailingBackslash) {
    if (fcb->deletePending) return STATUS_DELETE_PENDING;
    if (rq.disposition == FILE_CREATE) return STATUS_OBJECT_NAME_COLLISION;
    if (fcb->isDirectory) {
        if (rq.options & FILE_NON_DIRECTORY_FILE) return STATUS_FILE_IS_A_DIRECTORY;
        if (rq.disposition == FILE_SUPERSEDE || rq.disposition == FILE_OVERWRITE ||
            rq.disposition == FILE_OVERWRITE_IF)
            return STATUS_FILE_IS_A_DIRECTORY;
        return STATUS_SUCCESS;
    }
    if (rq.options & FILE_DIRECTORY_FILE) return STATUS_NOT_A_DIRECTORY;
    if (trailingBackslash) return STATUS_OBJECT_NAME_INVALID;
    ULONG attrs = ReportedAttributes(fcb->meta, false);
    bool truncate = rq.disposition == FILE_OVERWRITE || rq.disposition == FILE_OVERWRITE_IF;
    bool overwrite = truncate || rq.disposition == FILE_SUPERSEDE;
    if (attrs & FILE_ATTRIBUTE_READONLY) {
        if (rq.requestedAccess & MAXIMUM_ALLOWED) rq.access &= ~(kWriteLike | FILE_DELETE_CHILD);
        if (rq.options & FILE_DELETE_ON_CLOSE) return STATUS_CANNOT_DELETE;
        // A read-only file may be superseded (it is replaced, not written),
        // never overwritten; write access to it is refused either way.
        if ((rq.access & (kWriteLike | FILE_DELETE_CHILD)) || truncate) return STATUS_ACCESS_DENIED;
    }
    if (overwrite) {
        // Overwriting a hidden or system file must restate those attributes.
        ULONG keep = attrs & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
        if ((rq.attributes & keep) != keep) return STATUS_ACCESS_DENIED;
    }
    if ((rq.access & kWriteLike || overwrite) && !fcb->fdWritable) return STATUS_ACCESS_DENIED;
    return STATUS_SUCCESS;
}

// The status of a metadata store that could not be written: a full disk,
// the host's refusal, or a plain failure (never the name-not-found of a
// store file the host lost).
NTSTATUS StoreStatus(int err) {
    switch (err) {
        case ENOSPC: case EDQUOT: return STATUS_DISK_FULL;
        case EACCES: case EPERM: case EROFS: return STATUS_ACCESS_DENIED;
        default: return STATUS_UNSUCCESSFUL;
    }
}

// Empties the file and gives it the caller's attributes. The new metadata
// is stored first: a failure leaves the file as it was.
NTSTATUS Overwrite(CreateRequest& rq, Fcb* fcb) {
    FileMeta meta = fcb->meta;
    meta.attributes = (rq.attributes & FILE_ATTRIBUTE_VALID_SET_FLAGS & ~FILE_ATTRIBUTE_NORMAL) | FILE_ATTRIBUTE_ARCHIVE;
    meta.changeTime = NtTimeNow();
    meta.present |= FileMeta::kHasAttributes | FileMeta::kHasChangeTime;
    if (!rq.vcb->store->Save(fcb->fd, fcb->ino, meta)) return StoreStatus(errno);
    if (ftruncate(fcb->fd, 0) != 0) {
        int err = errno;
        rq.vcb->store->Save(fcb->fd, fcb->ino, fcb->meta);
        return StatusFromErrno(err);
    }
    fcb->meta = meta;
    fcb->Header.FileSize.QuadPart = 0;
    fcb->Header.ValidDataLength.QuadPart = 0;
    fcb->Header.AllocationSize.QuadPart = 0;
    return STATUS_SUCCESS;
}

// Makes the host file or directory NAME in the directory open as DIRFD,
// with its metadata and security descriptor. Everything that can fail
// without touching the host comes first; a failure after the host file
// was made removes it again.
NTSTATUS CreateNew(CreateRequest& rq, int dirFd, const std::u16string& dirName, const std::string& dirHost,
                   const std::u16string& name, Fcb** out) {
    Vcb* vcb = rq.vcb;
    bool directory = (rq.options & FILE_DIRECTORY_FILE) != 0;
    ULONG attrs = rq.attributes & FILE_ATTRIBUTE_VALID_SET_FLAGS & ~FILE_ATTRIBUTE_NORMAL;
    if (!directory) attrs |= FILE_ATTRIBUTE_ARCHIVE;
    if ((attrs & FILE_ATTRIBUTE_READONLY) && (rq.options & FILE_DELETE_ON_CLOSE)) return STATUS_CANNOT_DELETE;
    std::string host;
    if (!NtNameToHost(name, &host)) return STATUS_OBJECT_NAME_INVALID;
    std::u16string shortName = GenerateShortName(vcb, dirFd, name);
    Fcb* fcb = CreateFcb(vcb, 0);
    if (!fcb) return STATUS_INSUFFICIENT_RESOURCES;
    int fd = -1;
    bool onHost;  // the name now stands on the host: undone on failure
    if (directory) {
        onHost = mkdirat(dirFd, host.c_str(), 0777) == 0;
        if (onHost) fd = OpenHostChild(dirFd, host, true, nullptr);
    } else {
        fd = openat(dirFd, host.c_str(), O_CREAT | O_EXCL | O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0666);
        onHost = fd >= 0;
    }
    int64_t now = NtTimeNow();
    fcb->meta.present = FileMeta::kHasAttributes | FileMeta::kHasCreationTime | FileMeta::kHasChangeTime |
                        FileMeta::kHasShortName;
    fcb->meta.attributes = attrs;
    fcb->meta.creationTime = now;
    fcb->meta.changeTime = now;
    fcb->meta.shortName = shortName;
    struct stat st {};
    bool statted = fd >= 0 && fstat(fd, &st) == 0;
    if (!statted || !vcb->store->Save(fd, st.st_ino, fcb->meta) ||
        !vcb->store->SaveSecurity(fd, st.st_ino, DefaultSecurityDescriptor(directory))) {
        NTSTATUS status = statted ? StoreStatus(errno) : StatusFromErrno(errno);
        if (statted) vcb->store->Forget(st.st_ino);
        if (fd >= 0) close(fd);
        if (onHost) unlinkat(dirFd, host.c_str(), directory ? AT_REMOVEDIR : 0);
        DeleteFcb(fcb);
        return status;
    }
    fcb->ino = st.st_ino;
    fcb->fd = fd;
    fcb->fdWritable = !directory;
    fcb->isDirectory = directory;
    fcb->fullName = JoinNt(dirName, name);
    fcb->hostPath = JoinHost(dirHost, host);
    SetSizes(fcb, st);
    vcb->fcbs[fcb->ino] = fcb;
    DirCacheAdd(vcb, dirFd, DirEntry{host, name, shortName});
    *out = fcb;
    return STATUS_SUCCESS;
}

// Replaces FileObject->FileName by its last component, as NTFS leaves it
// for the I/O manager after an open of the target directory.
void CutToLastComponent(PFILE_OBJECT fo, const std::u16string& last) {
    if (!fo->FileName.Buffer || last.size() * 2 > fo->FileName.MaximumLength) return;
    memmove(fo->FileName.Buffer, last.data(), last.size() * 2);
    fo->FileName.Length = static_cast<USHORT>(last.size() * 2);
}

NTSTATUS CommonCreate(Vcb* vcb, PIRP irp, ULONG_PTR* info, std::vector<PIRP>* done,
                      std::unique_lock<std::mutex>* lock, bool shared, HostFd& dir) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    CreateRequest rq{};
    rq.vcb = vcb;
    rq.lock = lock;
    rq.shared = shared;
    rq.fo = sp->FileObject;
    rq.options = sp->Parameters.Create.Options & FILE_VALID_OPTION_FLAGS;
    rq.disposition = (sp->Parameters.Create.Options >> 24) & 0xFF;
    rq.requestedAccess = sp->Parameters.Create.SecurityContext ? sp->Parameters.Create.SecurityContext->DesiredAccess : 0;
    rq.access = MapGenericAccess(rq.requestedAccess);
    rq.share = sp->Parameters.Create.ShareAccess & FILE_SHARE_VALID_FLAGS;
    rq.attributes = sp->Parameters.Create.FileAttributes;
    rq.flags = sp->Flags;
    PFILE_OBJECT fo = rq.fo;
    if (!fo) return STATUS_INVALID_PARAMETER;

    if (rq.disposition > FILE_MAXIMUM_DISPOSITION) return STATUS_INVALID_PARAMETER;
    if ((rq.options & FILE_DIRECTORY_FILE) && (rq.options & FILE_NON_DIRECTORY_FILE)) return STATUS_INVALID_PARAMETER;
    if ((rq.options & FILE_DIRECTORY_FILE) && rq.disposition != FILE_CREATE && rq.disposition != FILE_OPEN &&
        rq.disposition != FILE_OPEN_IF)
        return STATUS_INVALID_PARAMETER;
    if ((rq.options & FILE_DELETE_ON_CLOSE) && !(rq.access & DELETE)) return STATUS_INVALID_PARAMETER;
    PendingCcb ccb;
    if (!ccb.Ok()) return STATUS_INSUFFICIENT_RESOURCES;

    std::u16string_view given(reinterpret_cast<const char16_t*>(fo->FileName.Buffer), fo->FileName.Length / 2);
    if (fo->FileName.Length % 2) return STATUS_OBJECT_NAME_INVALID;
    Fcb* related = fo->RelatedFileObject ? FcbOf(fo->RelatedFileObject) : nullptr;
    if (fo->RelatedFileObject && !related) return STATUS_INVALID_PARAMETER;

    std::u16string full;
    if (rq.options & FILE_OPEN_BY_FILE_ID) {
        // The name is the 8-byte file reference; a 16-byte object id is not
        // supported. An unknown reference is STATUS_INVALID_PARAMETER, as
        // NTFS answers for a reference to no file.
        if (fo->FileName.Length != sizeof(uint64_t)) return STATUS_INVALID_PARAMETER;
        uint64_t id;
        memcpy(&id, fo->FileName.Buffer, sizeof id);
        std::string hostPath;
        if (!FindPathById(vcb, id, &full, &hostPath)) return STATUS_INVALID_PARAMETER;
    } else if (related) {
        if (!given.empty() && given[0] == u'\\') {
            if (!related->isVolume) return STATUS_OBJECT_NAME_INVALID;
            full = std::u16string(given);
        } else if (related->isVolume) {
            if (given.empty()) {
                Tables tables(rq);
                return OpenVolume(rq, ccb, info);
            }
            full = u"\\" + std::u16string(given);
        } else if (given.empty()) {
            full = related->fullName;
        } else {
            // A name relative to a file that is no directory names nothing.
            if (!related->isDirectory) return STATUS_INVALID_PARAMETER;
            full = JoinNt(related->fullName, std::u16string(given));
        }
    } else {
        if (given.empty()) {
            Tables tables(rq);
            return OpenVolume(rq, ccb, info);
        }
        if (given[0] != u'\\') return STATUS_OBJECT_NAME_INVALID;
        full = std::u16string(given);
    }

    std::vector<std::u16string> comps;
    bool trailing = false;
    NTSTATUS status = SplitPath(full, &comps, &trailing);
    if (!NT_SUCCESS(status)) return status;
    bool targetDir = (rq.flags & SL_OPEN_TARGET_DIRECTORY) != 0;

    // Walk to the parent of the last component, starting at the volume's own
    // root descriptor (an open of it per request would cost a system call).
    dir.fd = vcb->rootFd;
    dir.owned = false;
    if (dir.fd < 0) return StatusFromErrno(errno);
    std::u16string dirName = u"\\";
    std::string dirHost;
    size_t walk = comps.empty() ? 0 : comps.size() - 1;
    size_t walked = 0;
    // Where every directory on the way is spelled as on the host, one host
    // call opens the parent; otherwise (another case, a short name, a link,
    // a host without that call) the walk goes one component at a time.
    if (walk > 0) {
        std::string exact;
        bool spelled = true;
        for (size_t i = 0; i < walk && spelled; ++i) {
            std::string part;
            spelled = NtNameToHost(comps[i], &part);
            exact = JoinHost(exact, part);
        }
        int fd = -1;
        if (spelled) {
            HostCall host(rq);
            fd = OpenHostDirBeneath(vcb, exact);
        }
        if (fd >= 0) {
            dir.reset(fd);
            for (size_t i = 0; i < walk; ++i) dirName = JoinNt(dirName, comps[i]);
            dirHost = exact;
            walked = walk;
        }
    }
    for (size_t i = walked; i < walk; ++i) {
        Lookup lk;
        status = FindChild(rq, dir.fd, comps[i], &lk);
        if (!NT_SUCCESS(status)) return status;
        if (!lk.found || !S_ISDIR(lk.st.st_mode)) return STATUS_OBJECT_PATH_NOT_FOUND;
        int next, err;
        {
            HostCall host(rq);
            next = openat(dir.fd, lk.hostName.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            err = errno;
        }
        if (next < 0) return err == ENOENT || err == ENOTDIR || err == ELOOP ? STATUS_OBJECT_PATH_NOT_FOUND
                                                                            : StatusFromErrno(err);
        dir.reset(next);
        dirName = JoinNt(dirName, lk.name);
        dirHost = JoinHost(dirHost, lk.hostName);
    }

    // From here on the open works on the volume's tables: it holds the mutex
    // but for the host calls of a new control block.
    if (!lock->owns_lock()) lock->lock();
    Fcb* fcb = nullptr;
    bool changed = false;  // the file was made, superseded or overwritten
    if (comps.empty()) {
        // The root directory.
        if (targetDir) return STATUS_INVALID_PARAMETER;
        Lookup lk;
        lk.found = true;
        fstat(dir.fd, &lk.st);
        status = GetFcb(rq, -1, lk, u"\\", "", &fcb);
        if (!NT_SUCCESS(status)) return status;
        status = CheckExisting(rq, fcb, false);
        *info = FILE_OPENED;
    } else if (targetDir) {
        Lookup lk;
        status = FindChild(rq, dir.fd, comps.back(), &lk);
        if (!NT_SUCCESS(status)) return status;
        ULONG_PTR exists = lk.found ? FILE_EXISTS : FILE_DOES_NOT_EXIST;
        Lookup parent;
        parent.found = true;
        fstat(dir.fd, &parent.st);
        size_t slash = dirHost.rfind('/');
        if (dirHost.empty()) {
            status = GetFcb(rq, -1, parent, u"\\", "", &fcb);
        } else {
            HostFd grand;
            int err;
            {
                HostCall host(rq);
                grand.reset(OpenHostDir(vcb, slash == std::string::npos ? "" : dirHost.substr(0, slash)));
                err = errno;
            }
            if (grand.fd < 0) return StatusFromErrno(err);
            parent.hostName = slash == std::string::npos ? dirHost : dirHost.substr(slash + 1);
            status = GetFcb(rq, grand.fd, parent, dirName, dirHost, &fcb);
        }
        if (!NT_SUCCESS(status)) return status;
        rq.options = (rq.options | FILE_DIRECTORY_FILE) & ~FILE_NON_DIRECTORY_FILE;
        rq.disposition = FILE_OPEN;
        status = CheckExisting(rq, fcb, false);
        if (NT_SUCCESS(status)) {
            CutToLastComponent(fo, comps.back());
            *info = exists;
        }
    } else {
        Lookup lk;
        status = FindChild(rq, dir.fd, comps.back(), &lk);
        if (!NT_SUCCESS(status)) return status;
        if (lk.found) {
            status = GetFcb(rq, dir.fd, lk, JoinNt(dirName, lk.name), JoinHost(dirHost, lk.hostName), &fcb);
            if (!NT_SUCCESS(status)) return status;
            status = CheckExisting(rq, fcb, trailing);
            if (NT_SUCCESS(status) && fcb->openCount > 0) {
                // Share access before anything is changed.
                status = IoCheckShareAccess(rq.access, rq.share, fo, &fcb->ShareAccess, FALSE);
            }
            *info = FILE_OPENED;
            if (NT_SUCCESS(status) && (rq.disposition == FILE_SUPERSEDE || rq.disposition == FILE_OVERWRITE ||
                                       rq.disposition == FILE_OVERWRITE_IF)) {
                status = Overwrite(rq, fcb);
                changed = NT_SUCCESS(status);
                *info = rq.disposition == FILE_SUPERSEDE ? FILE_SUPERSEDED : FILE_OVERWRITTEN;
            }
        } else if (rq.disposition == FILE_OPEN || rq.disposition == FILE_OVERWRITE) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        } else if (lk.hidden) {
            return STATUS_ACCESS_DENIED;
        } else if (trailing && !(rq.options & FILE_DIRECTORY_FILE)) {
            return STATUS_OBJECT_NAME_INVALID;
        } else {
            status = CreateNew(rq, dir.fd, dirName, dirHost, comps.back(), &fcb);
            if (!NT_SUCCESS(status)) return status;
            changed = true;
            *info = FILE_CREATED;
        }
    }
    if (NT_SUCCESS(status)) status = AttachToFileObject(rq, fcb, ccb);
    if (!NT_SUCCESS(status)) {
        *info = 0;
        ReleaseIfUnused(vcb, fcb);
        return status;
    }
    // The change is reported once the open can no longer fail.
    if (changed && *info == FILE_CREATED) {
        ReportChange(vcb, fcb->fullName, fcb->isDirectory ? FILE_NOTIFY_CHANGE_DIR_NAME : FILE_NOTIFY_CHANGE_FILE_NAME,
                     FILE_ACTION_ADDED, done);
    } else if (changed) {
        ReportChange(vcb, fcb->fullName,
                     FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_ATTRIBUTES,
                     FILE_ACTION_MODIFIED, done);
    }
    return status;
}

}  // namespace

NTSTATUS FsdCreate(PDEVICE_OBJECT device, PIRP irp) {
    Vcb* vcb = VcbOf(device);
    if (!vcb) return CompleteRequest(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    // A plain open changes nothing on the host: it shares the volume's names
    // with the other opens. Anything that may make, replace or empty a file,
    // and an open by file id (which may search the volume), has them alone.
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    const bool shared = ((sp->Parameters.Create.Options >> 24) & 0xFF) == FILE_OPEN &&
                        !(sp->Parameters.Create.Options & FILE_OPEN_BY_FILE_ID);
    std::shared_lock<std::shared_mutex> sharedNames(vcb->nameLock, std::defer_lock);
    std::unique_lock<std::shared_mutex> ownNames(vcb->nameLock, std::defer_lock);
    if (shared) {
        sharedNames.lock();
    } else {
        ownNames.lock();
    }
    ULONG_PTR info = 0;
    std::vector<PIRP> done;
    NTSTATUS status;
    {
        HostFd dir;  // closed after the mutex is given back
        std::unique_lock<std::mutex> lock(vcb->mutex, std::defer_lock);
        if (!shared) lock.lock();
        status = CommonCreate(vcb, irp, &info, &done, &lock, shared, dir);
    }
    if (shared) {
        sharedNames.unlock();
    } else {
        ownNames.unlock();
    }
    CompleteAll(done);
    return CompleteRequest(irp, status, info);
}

}  // namespace tervane::emu::fs
