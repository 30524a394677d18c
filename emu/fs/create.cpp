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
    std::unique_lock<VolumeMutex>* lock;
    bool shared;  // the volume's name lock is held shared
    uint64_t fcbsUnlinked;  // the volume's count when the open began
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
    std::unique_lock<VolumeMutex>* lock_;
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
    std::unique_lock<VolumeMutex>* lock_;
};

// Takes the volume mutex, to the end of the open, unless held already.
void HoldTables(CreateRequest& rq) {
    if (!rq.lock->owns_lock()) rq.lock->lock();
}

// LookupChild with its host call outside the volume mutex. SPELLEDABSENT:
// the host just said that NAME's own spelling names nothing there, so that
// only the directory cache can tell.
NTSTATUS FindChild(CreateRequest& rq, int dirFd, const std::u16string& name, Lookup* out,
                   bool spelledAbsent = false) {
    bool askCache = true;
    NTSTATUS status = STATUS_SUCCESS;
    if (spelledAbsent) {
        *out = Lookup();
    } else {
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

// A host file opened for a new control block, and what was read of it.
// The control block itself is made beside the host calls, outside the
// volume mutex; when that fails, InstallFcb makes it under the mutex, so a
// failed allocation fails the open only where it did before.
struct OpenedFile {
    HostFd fd;
    bool writable = false;
    struct stat st {};
    FileMeta meta;
    uint64_t metaSaves = 0;  // the stores' save count before META was loaded
    Fcb* fcb = nullptr;      // made ahead; freed here when not installed
    OpenedFile() = default;
    OpenedFile(const OpenedFile&) = delete;
    OpenedFile& operator=(const OpenedFile&) = delete;
    ~OpenedFile() {
        if (fcb) DeleteFcb(fcb);
    }
    // Reads what a new control block needs of the host file open as FD.
    void Load(Vcb* vcb) {
        metaSaves = MetaStore::Saves();
        LoadMeta(vcb, fd.fd, st, &meta);
        fcb = CreateFcb(vcb, st.st_ino);
    }
};

// Gives the volume a control block for the host file OPENED, unless an open
// of the same file made one meanwhile: that one wins, and OPENED keeps its
// descriptor for the caller to close. Needs the volume mutex.
NTSTATUS InstallFcb(CreateRequest& rq, OpenedFile& opened, std::u16string fullName, std::string hostPath,
                    Fcb** out) {
    Vcb* vcb = rq.vcb;
    auto it = vcb->fcbs.find(opened.st.st_ino);
    if (it != vcb->fcbs.end()) {
        *out = it->second;
        return STATUS_SUCCESS;
    }
    Fcb* fcb = opened.fcb ? std::exchange(opened.fcb, nullptr) : CreateFcb(vcb, opened.st.st_ino);
    if (!fcb) return STATUS_INSUFFICIENT_RESOURCES;
    fcb->fd = std::exchange(opened.fd.fd, -1);
    fcb->fdWritable = opened.writable;
    fcb->isDirectory = S_ISDIR(opened.st.st_mode);
    fcb->fullName = std::move(fullName);
    fcb->hostPath = std::move(hostPath);
    fcb->meta = std::move(opened.meta);
    // What the open read of the file without the volume mutex may predate
    // writes through a control block of it that went away since (an append
    // would then land inside them): once one of this file went, the sizes,
    // and the metadata if any was saved meanwhile, are read again.
    struct stat now = opened.st;
    if (UnlinkedSince(vcb, rq.fcbsUnlinked, fcb->ino)) {
        if (fstat(fcb->fd, &now) != 0) now = opened.st;
        if (MetaStore::Saves() != opened.metaSaves) LoadMeta(vcb, fcb->fd, now, &fcb->meta);
    }
    SetSizes(fcb, now);
    vcb->fcbs[fcb->ino] = fcb;
    *out = fcb;
    return STATUS_SUCCESS;
}

// The control block of an existing host file, shared by every open of it.
// A new one opens the host file and reads its metadata outside the volume
// mutex.
NTSTATUS GetFcb(CreateRequest& rq, int parentFd, const Lookup& lk, const std::u16string& fullName,
                const std::string& hostPath, Fcb** out) {
    Vcb* vcb = rq.vcb;
    auto it = vcb->fcbs.find(lk.st.st_ino);
    if (it != vcb->fcbs.end()) {
        *out = it->second;
        return STATUS_SUCCESS;
    }
    bool directory = S_ISDIR(lk.st.st_mode);
    OpenedFile opened;
    opened.st = lk.st;
    int err = 0;
    {
        HostCall host(rq);
        opened.fd.reset(hostPath.empty() ? openat(vcb->rootFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                                         : OpenHostChild(parentFd, lk.hostName, directory, &opened.writable));
        err = errno;
        if (opened.fd.fd >= 0) opened.Load(vcb);
    }
    if (opened.fd.fd < 0) return StatusFromErrno(err);
    return InstallFcb(rq, opened, fullName, hostPath, out);
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

// The request's parameters, checked as NTFS checks them before it looks at
// the name.
NTSTATUS DecodeRequest(PIRP irp, CreateRequest* rq) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    rq->fo = sp->FileObject;
    rq->options = sp->Parameters.Create.Options & FILE_VALID_OPTION_FLAGS;
    rq->disposition = (sp->Parameters.Create.Options >> 24) & 0xFF;
    rq->requestedAccess =
        sp->Parameters.Create.SecurityContext ? sp->Parameters.Create.SecurityContext->DesiredAccess : 0;
    rq->access = MapGenericAccess(rq->requestedAccess);
    rq->share = sp->Parameters.Create.ShareAccess & FILE_SHARE_VALID_FLAGS;
    rq->attributes = sp->Parameters.Create.FileAttributes;
    rq->flags = sp->Flags;
    if (!rq->fo) return STATUS_INVALID_PARAMETER;
    if (rq->disposition > FILE_MAXIMUM_DISPOSITION) return STATUS_INVALID_PARAMETER;
    if ((rq->options & FILE_DIRECTORY_FILE) && (rq->options & FILE_NON_DIRECTORY_FILE))
        return STATUS_INVALID_PARAMETER;
    if ((rq->options & FILE_DIRECTORY_FILE) && rq->disposition != FILE_CREATE && rq->disposition != FILE_OPEN &&
        rq->disposition != FILE_OPEN_IF)
        return STATUS_INVALID_PARAMETER;
    if ((rq->options & FILE_DELETE_ON_CLOSE) && !(rq->access & DELETE)) return STATUS_INVALID_PARAMETER;
    return STATUS_SUCCESS;
}

// The full name the open is for: from a file reference, relative to the
// related file object, or as given. *VOLUME when it is an open of the
// volume itself.
NTSTATUS FullNameOf(CreateRequest& rq, std::u16string* full, bool* volume) {
    PFILE_OBJECT fo = rq.fo;
    *volume = false;
    std::u16string_view given(reinterpret_cast<const char16_t*>(fo->FileName.Buffer), fo->FileName.Length / 2);
    if (fo->FileName.Length % 2) return STATUS_OBJECT_NAME_INVALID;
    Fcb* related = fo->RelatedFileObject ? FcbOf(fo->RelatedFileObject) : nullptr;
    if (fo->RelatedFileObject && !related) return STATUS_INVALID_PARAMETER;

    if (rq.options & FILE_OPEN_BY_FILE_ID) {
        // The name is the 8-byte file reference; a 16-byte object id is not
        // supported. An unknown reference is STATUS_INVALID_PARAMETER, as
        // NTFS answers for a reference to no file.
        if (fo->FileName.Length != sizeof(uint64_t)) return STATUS_INVALID_PARAMETER;
        uint64_t id;
        memcpy(&id, fo->FileName.Buffer, sizeof id);
        std::string hostPath;
        if (!FindPathById(rq.vcb, id, full, &hostPath)) return STATUS_INVALID_PARAMETER;
    } else if (related) {
        if (!given.empty() && given[0] == u'\\') {
            if (!related->isVolume) return STATUS_OBJECT_NAME_INVALID;
            full->assign(given);
        } else if (related->isVolume) {
            if (given.empty()) *volume = true;
            else *full = u"\\" + std::u16string(given);
        } else if (given.empty()) {
            *full = related->fullName;
        } else {
            // A name relative to a file that is no directory names nothing.
            if (!related->isDirectory) return STATUS_INVALID_PARAMETER;
            *full = JoinNt(related->fullName, std::u16string(given));
        }
    } else if (given.empty()) {
        *volume = true;
    } else {
        if (given[0] != u'\\') return STATUS_OBJECT_NAME_INVALID;
        full->assign(given);
    }
    return STATUS_SUCCESS;
}

// The directory that holds the last component, once walked to.
struct ParentDir {
    HostFd fd;
    std::u16string name = u"\\";  // its NT name
    std::string host;             // its host path below the root ("" = root)
    bool spelled = false;         // reached by the components' own spelling
    bool leafAbsent = false;      // the last component's own spelling names nothing
};

// The host spelling of the components [0, COUNT) of COMPS joined by '/';
// false where one of them has none.
bool HostSpelling(const std::vector<std::u16string>& comps, size_t count, std::string* host) {
    host->clear();
    for (size_t i = 0; i < count; ++i) {
        if (i) host->push_back('/');
        if (!AppendNtNameAsHost(comps[i], host)) return false;
    }
    return true;
}

std::u16string JoinComponents(const std::vector<std::u16string>& comps, size_t count) {
    if (count == 0) return u"\\";
    size_t length = 0;
    for (size_t i = 0; i < count; ++i) length += 1 + comps[i].size();
    std::u16string name;
    name.reserve(length);
    for (size_t i = 0; i < count; ++i) {
        name.push_back(u'\\');
        name.append(comps[i]);
    }
    return name;
}

// Walks to the directory that holds the last component, starting at the
// volume's own root descriptor (an open of it per request would cost a
// system call). Where every directory on the way is spelled as on the host,
// one host call opens it; otherwise (another case, a short name, a link, a
// host without that call) the walk goes one component at a time.
NTSTATUS WalkToParent(CreateRequest& rq, const std::vector<std::u16string>& comps, ParentDir& parent) {
    Vcb* vcb = rq.vcb;
    parent.fd.fd = vcb->rootFd;
    parent.fd.owned = false;
    if (parent.fd.fd < 0) return StatusFromErrno(errno);
    const size_t walk = comps.empty() ? 0 : comps.size() - 1;
    size_t walked = 0;
    parent.spelled = walk == 0;
    std::string exact;
    if (walk > 0 && HostSpelling(comps, walk, &exact)) {
        int fd;
        {
            HostCall host(rq);
            fd = OpenHostDirBeneath(vcb, exact);
        }
        if (fd >= 0) {
            parent.fd.reset(fd);
            parent.name = JoinComponents(comps, walk);
            parent.host = exact;
            parent.spelled = true;
            walked = walk;
        }
    }
    for (size_t i = walked; i < walk; ++i) {
        Lookup lk;
        NTSTATUS status = FindChild(rq, parent.fd.fd, comps[i], &lk);
        if (!NT_SUCCESS(status)) return status;
        if (!lk.found || !S_ISDIR(lk.st.st_mode)) return STATUS_OBJECT_PATH_NOT_FOUND;
        int next, err;
        {
            HostCall host(rq);
            next = openat(parent.fd.fd, lk.hostName.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            err = errno;
        }
        if (next < 0) return err == ENOENT || err == ENOTDIR || err == ELOOP ? STATUS_OBJECT_PATH_NOT_FOUND
                                                                            : StatusFromErrno(err);
        parent.fd.reset(next);
        parent.name = JoinNt(parent.name, lk.name);
        parent.host = JoinHost(parent.host, lk.hostName);
    }
    return STATUS_SUCCESS;
}

// A plain open of a file spelled as on the host, in one host call without
// a walk: the common case of an open. *FCB stays null when the host cannot
// answer it so (see OpenHostFileBeneath); the walk then decides, with the
// same outcome it would have had (PARENT.leafAbsent tells it what the host
// said of the name). Takes the volume mutex once the file is
// open; a descriptor left over (another open made the control block first)
// goes to SPARE, closed after the mutex.
NTSTATUS OpenSpelledFile(CreateRequest& rq, const std::vector<std::u16string>& comps, ParentDir& parent,
                         Fcb** fcb) {
    *fcb = nullptr;
    std::string hostPath;
    if (!HostSpelling(comps, comps.size(), &hostPath)) return STATUS_SUCCESS;
    OpenedFile opened;
    {
        HostCall host(rq);
        opened.fd.reset(OpenHostFileBeneath(rq.vcb, hostPath, &opened.writable, &opened.st));
        if (opened.fd.fd < 0) {
            parent.leafAbsent = errno == ENOENT;
            return STATUS_SUCCESS;
        }
        opened.Load(rq.vcb);
    }
    HoldTables(rq);
    NTSTATUS status = InstallFcb(rq, opened, JoinComponents(comps, comps.size()), std::move(hostPath), fcb);
    parent.fd.reset(std::exchange(opened.fd.fd, -1));
    return status;
}

// The root directory of the volume.
NTSTATUS OpenRootDirectory(CreateRequest& rq, ParentDir& root, Fcb** fcb, ULONG_PTR* info) {
    if (rq.flags & SL_OPEN_TARGET_DIRECTORY) return STATUS_INVALID_PARAMETER;
    Lookup lk;
    lk.found = true;
    fstat(root.fd.fd, &lk.st);
    NTSTATUS status = GetFcb(rq, -1, lk, u"\\", "", fcb);
    if (!NT_SUCCESS(status)) return status;
    *info = FILE_OPENED;
    return CheckExisting(rq, *fcb, false);
}

// SL_OPEN_TARGET_DIRECTORY: the directory that holds LAST, opened as a
// directory, with FILE_EXISTS or FILE_DOES_NOT_EXIST for LAST itself.
NTSTATUS OpenTargetDirectory(CreateRequest& rq, ParentDir& parent, const std::u16string& last, Fcb** fcb,
                             ULONG_PTR* info) {
    Lookup lk;
    NTSTATUS status = FindChild(rq, parent.fd.fd, last, &lk);
    if (!NT_SUCCESS(status)) return status;
    const ULONG_PTR exists = lk.found ? FILE_EXISTS : FILE_DOES_NOT_EXIST;
    Lookup self;
    self.found = true;
    fstat(parent.fd.fd, &self.st);
    if (parent.host.empty()) {
        status = GetFcb(rq, -1, self, u"\\", "", fcb);
    } else {
        const size_t slash = parent.host.rfind('/');
        HostFd grand;
        int err;
        {
            HostCall host(rq);
            grand.reset(OpenHostDir(rq.vcb, slash == std::string::npos ? "" : parent.host.substr(0, slash)));
            err = errno;
        }
        if (grand.fd < 0) return StatusFromErrno(err);
        self.hostName = slash == std::string::npos ? parent.host : parent.host.substr(slash + 1);
        status = GetFcb(rq, grand.fd, self, parent.name, parent.host, fcb);
    }
    if (!NT_SUCCESS(status)) return status;
    rq.options = (rq.options | FILE_DIRECTORY_FILE) & ~FILE_NON_DIRECTORY_FILE;
    rq.disposition = FILE_OPEN;
    status = CheckExisting(rq, *fcb, false);
    if (NT_SUCCESS(status)) {
        CutToLastComponent(rq.fo, last);
        *info = exists;
    }
    return status;
}

// Checks an existing file for the request and supersedes or overwrites it
// when asked; *CHANGED once it was.
NTSTATUS OpenExisting(CreateRequest& rq, Fcb* fcb, bool trailing, ULONG_PTR* info, bool* changed) {
    NTSTATUS status = CheckExisting(rq, fcb, trailing);
    if (NT_SUCCESS(status) && fcb->openCount > 0) {
        // Share access before anything is changed.
        status = IoCheckShareAccess(rq.access, rq.share, rq.fo, &fcb->ShareAccess, FALSE);
    }
    *info = FILE_OPENED;
    if (NT_SUCCESS(status) && (rq.disposition == FILE_SUPERSEDE || rq.disposition == FILE_OVERWRITE ||
                               rq.disposition == FILE_OVERWRITE_IF)) {
        status = Overwrite(rq, fcb);
        *changed = NT_SUCCESS(status);
        *info = rq.disposition == FILE_SUPERSEDE ? FILE_SUPERSEDED : FILE_OVERWRITTEN;
    }
    return status;
}

// The last component in its directory: opened, superseded or overwritten
// when it exists, made when the disposition allows.
NTSTATUS OpenOrCreateLeaf(CreateRequest& rq, ParentDir& parent, const std::u16string& last, bool trailing,
                          Fcb** fcb, ULONG_PTR* info, bool* changed) {
    Lookup lk;
    NTSTATUS status = FindChild(rq, parent.fd.fd, last, &lk, parent.spelled && parent.leafAbsent);
    if (!NT_SUCCESS(status)) return status;
    HoldTables(rq);
    if (lk.found) {
        status = GetFcb(rq, parent.fd.fd, lk, JoinNt(parent.name, lk.name), JoinHost(parent.host, lk.hostName), fcb);
        if (!NT_SUCCESS(status)) return status;
        return OpenExisting(rq, *fcb, trailing, info, changed);
    }
    if (rq.disposition == FILE_OPEN || rq.disposition == FILE_OVERWRITE) return STATUS_OBJECT_NAME_NOT_FOUND;
    if (lk.hidden) return STATUS_ACCESS_DENIED;
    if (trailing && !(rq.options & FILE_DIRECTORY_FILE)) return STATUS_OBJECT_NAME_INVALID;
    status = CreateNew(rq, parent.fd.fd, parent.name, parent.host, last, fcb);
    if (!NT_SUCCESS(status)) return status;
    *changed = true;
    *info = FILE_CREATED;
    return STATUS_SUCCESS;
}

// Gives the file object its control blocks and reports a change made to
// the file, once the open can no longer fail.
NTSTATUS FinishOpen(CreateRequest& rq, Fcb* fcb, PendingCcb& ccb, bool changed, ULONG_PTR* info,
                    std::vector<PIRP>* done) {
    NTSTATUS status = AttachToFileObject(rq, fcb, ccb);
    if (!NT_SUCCESS(status)) {
        *info = 0;
        ReleaseIfUnused(rq.vcb, fcb);
        return status;
    }
    if (changed && *info == FILE_CREATED) {
        ReportChange(rq.vcb, fcb->fullName,
                     fcb->isDirectory ? FILE_NOTIFY_CHANGE_DIR_NAME : FILE_NOTIFY_CHANGE_FILE_NAME, FILE_ACTION_ADDED,
                     done);
    } else if (changed) {
        ReportChange(rq.vcb, fcb->fullName,
                     FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_ATTRIBUTES,
                     FILE_ACTION_MODIFIED, done);
    }
    return status;
}

NTSTATUS CommonCreate(CreateRequest& rq, PIRP irp, ULONG_PTR* info, std::vector<PIRP>* done, ParentDir& parent) {
    NTSTATUS status = DecodeRequest(irp, &rq);
    if (!NT_SUCCESS(status)) return status;
    PendingCcb ccb;
    if (!ccb.Ok()) return STATUS_INSUFFICIENT_RESOURCES;

    std::u16string full;
    bool volume;
    status = FullNameOf(rq, &full, &volume);
    if (!NT_SUCCESS(status)) return status;
    if (volume) {
        Tables tables(rq);
        return OpenVolume(rq, ccb, info);
    }
    std::vector<std::u16string> comps;
    bool trailing = false;
    status = SplitPath(full, &comps, &trailing);
    if (!NT_SUCCESS(status)) return status;
    const bool targetDir = (rq.flags & SL_OPEN_TARGET_DIRECTORY) != 0;

    Fcb* fcb = nullptr;
    bool changed = false;  // the file was made, superseded or overwritten
    if (rq.shared && !targetDir && !comps.empty()) {
        status = OpenSpelledFile(rq, comps, parent, &fcb);
        if (!NT_SUCCESS(status)) return status;
    }
    if (fcb) {
        status = OpenExisting(rq, fcb, trailing, info, &changed);
    } else {
        status = WalkToParent(rq, comps, parent);
        if (!NT_SUCCESS(status)) return status;
        // From here on the open works on the volume's tables: it holds the
        // mutex but for the host calls of a new control block.
        if (comps.empty()) {
            HoldTables(rq);
            status = OpenRootDirectory(rq, parent, &fcb, info);
        } else if (targetDir) {
            HoldTables(rq);
            status = OpenTargetDirectory(rq, parent, comps.back(), &fcb, info);
        } else {
            status = OpenOrCreateLeaf(rq, parent, comps.back(), trailing, &fcb, info, &changed);
        }
    }
    if (!NT_SUCCESS(status)) {
        *info = 0;
        ReleaseIfUnused(rq.vcb, fcb);
        return status;
    }
    return FinishOpen(rq, fcb, ccb, changed, info, done);
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
        ParentDir parent;  // its descriptor is closed after the mutex is given back
        std::unique_lock<VolumeMutex> lock(vcb->mutex, std::defer_lock);
        if (!shared) lock.lock();
        CreateRequest rq{};
        rq.vcb = vcb;
        rq.lock = &lock;
        rq.shared = shared;
        rq.fcbsUnlinked = vcb->fcbsUnlinked.load(std::memory_order_relaxed);
        status = CommonCreate(rq, irp, &info, &done, parent);
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
