// IRP_MJ_DIRECTORY_CONTROL of the emulated NTFS driver: directory queries
// in the six classes, and change notification (notify.cpp).
//
// A query streams: its first call (or a restart) takes the pattern and a
// sorted snapshot of the directory's names from the directory cache; later
// calls continue from the cursor kept in the CCB. "." and ".." come first,
// except at the root. Records are 8-byte aligned. The first call on an open
// that matches nothing is STATUS_NO_SUCH_FILE, the end (a restart that
// matches nothing included) STATUS_NO_MORE_FILES. A
// buffer below the class's fixed part is STATUS_INFO_LENGTH_MISMATCH; when
// the first record's name does not fit, the record is returned with as much
// of the name as fits (FileNameLength still the whole length) and
// STATUS_BUFFER_OVERFLOW, and the entry counts as returned; a later record
// that does not fit waits for the next call.
#include <fcntl.h>
#include <unistd.h>

#include "fs/fsstruc.h"
#include "fs/names.h"

namespace tervane::emu::fs {

namespace {

struct EntryInfo {
    std::u16string name, shortName;
    FileTimes times{};
    LONGLONG endOfFile = 0, allocation = 0;
    ULONG attributes = 0;
    uint64_t id = 0;
};

ULONG BaseLength(ULONG cls) {
    switch (cls) {
        case FileDirectoryInformation: return FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileName);
        case FileFullDirectoryInformation: return FIELD_OFFSET(FILE_FULL_DIR_INFORMATION, FileName);
        case FileBothDirectoryInformation: return FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName);
        case FileNamesInformation: return FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName);
        case FileIdBothDirectoryInformation: return FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, FileName);
        case FileIdFullDirectoryInformation: return FIELD_OFFSET(FILE_ID_FULL_DIR_INFORMATION, FileName);
        default: return 0;
    }
}

template <typename T>
void FillCommon(T* r, const EntryInfo& e) {
    r->CreationTime.QuadPart = e.times.creation;
    r->LastAccessTime.QuadPart = e.times.lastAccess;
    r->LastWriteTime.QuadPart = e.times.lastWrite;
    r->ChangeTime.QuadPart = e.times.change;
    r->EndOfFile.QuadPart = e.endOfFile;
    r->AllocationSize.QuadPart = e.allocation;
    r->FileAttributes = e.attributes;
    r->FileNameLength = static_cast<ULONG>(e.name.size() * 2);
}

template <typename T>
void FillShort(T* r, const EntryInfo& e) {
    size_t n = e.shortName.size() > 12 ? 12 : e.shortName.size();
    r->ShortNameLength = static_cast<CCHAR>(n * 2);
    memcpy(r->ShortName, e.shortName.data(), n * 2);
}

// Writes the fixed part of record E of class CLS into OUT (BASE bytes).
void FillFixed(ULONG cls, const EntryInfo& e, uint8_t* out, ULONG base) {
    union {
        FILE_DIRECTORY_INFORMATION dir;
        FILE_FULL_DIR_INFORMATION full;
        FILE_BOTH_DIR_INFORMATION both;
        FILE_NAMES_INFORMATION names;
        FILE_ID_BOTH_DIR_INFORMATION idBoth;
        FILE_ID_FULL_DIR_INFORMATION idFull;
    } r;
    memset(&r, 0, sizeof r);
    switch (cls) {
        case FileDirectoryInformation: FillCommon(&r.dir, e); break;
        case FileFullDirectoryInformation: FillCommon(&r.full, e); break;
        case FileBothDirectoryInformation: FillCommon(&r.both, e); FillShort(&r.both, e); break;
        case FileIdBothDirectoryInformation:
            FillCommon(&r.idBoth, e);
            FillShort(&r.idBoth, e);
            r.idBoth.FileId.QuadPart = static_cast<LONGLONG>(e.id);
            break;
        case FileIdFullDirectoryInformation:
            FillCommon(&r.idFull, e);
            r.idFull.FileId.QuadPart = static_cast<LONGLONG>(e.id);
            break;
        case FileNamesInformation: r.names.FileNameLength = static_cast<ULONG>(e.name.size() * 2); break;
        default: break;
    }
    memcpy(out, &r, base);
}

// Gathers what a record shows of a host entry; false when it is gone.
bool Describe(Vcb* vcb, int dirFd, const char* hostName, EntryInfo* e) {
    struct stat st;
    if (fstatat(dirFd, hostName, &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
    bool directory = S_ISDIR(st.st_mode);
    if (!directory && !S_ISREG(st.st_mode)) return false;
    FileMeta meta;
    auto open = vcb->fcbs.find(st.st_ino);
    if (open != vcb->fcbs.end()) {
        meta = open->second->meta;  // may hold changes not yet written back
    } else if (!vcb->store->FindRecent(st, &meta)) {
        int fd = OpenHostChild(dirFd, hostName, directory, nullptr);
        if (fd >= 0) {
            LoadMeta(vcb, fd, st, &meta);
            close(fd);
        }
    }
    GetTimes(st, meta, &e->times);
    e->attributes = ReportedAttributes(meta, directory);
    e->endOfFile = directory ? 0 : st.st_size;
    e->allocation = directory ? 0 : (st.st_size + kClusterSize - 1) / kClusterSize * kClusterSize;
    e->id = st.st_ino;
    return true;
}

bool Matches(const Ccb* ccb, const std::u16string& name, const std::u16string& shortName) {
    if (!ccb->patternHasWildcards)
        return EqualNoCase(ccb->pattern, name) || (!shortName.empty() && EqualNoCase(ccb->pattern, shortName));
    return IsNameInExpression(ccb->pattern, name) ||
           (!shortName.empty() && IsNameInExpression(ccb->pattern, shortName));
}

void StartEnumeration(Vcb* vcb, Fcb* fcb, Ccb* ccb, const std::u16string* pattern) {
    if (pattern) ccb->pattern = *pattern;
    else if (!ccb->enumStarted) ccb->pattern = u"*";
    ccb->patternHasWildcards = ExpressionHasWildcards(ccb->pattern);
    ccb->snapshot.clear();
    if (!ccb->patternHasWildcards) {
        // One name: look it up instead of reading the directory.
        Lookup lk;
        if (NT_SUCCESS(ValidateComponent(ccb->pattern)) && NT_SUCCESS(LookupChild(vcb, fcb->fd, ccb->pattern, &lk)) &&
            lk.found) {
            DirCache* cache = GetDirCache(vcb, fcb->fd);
            auto it = cache->byLong.find(UpcaseString(lk.name));
            ccb->snapshot.push_back(it != cache->byLong.end() ? it->second : DirEntry{lk.hostName, lk.name, {}});
        }
    } else {
        DirCache* cache = GetDirCache(vcb, fcb->fd);
        ccb->snapshot.reserve(cache->byLong.size());
        for (auto& [key, entry] : cache->byLong) ccb->snapshot.push_back(entry);
    }
    ccb->cursor = fcb->hostPath.empty() ? 2 : 0;  // the root has no "." or ".."
    ccb->enumStarted = true;
}

NTSTATUS QueryDirectory(Vcb* vcb, PIRP irp, ULONG_PTR* info) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    Fcb* fcb = FcbOf(sp->FileObject);
    Ccb* ccb = CcbOf(sp->FileObject);
    if (!fcb || !ccb || !fcb->isDirectory) return STATUS_INVALID_PARAMETER;
    ULONG cls = ClassValue(sp->Parameters.QueryDirectory.FileInformationClass);
    ULONG base = BaseLength(cls);
    if (!base) return STATUS_INVALID_INFO_CLASS;
    ULONG length = sp->Parameters.QueryDirectory.Length;
    if (length < base) return STATUS_INFO_LENGTH_MISMATCH;
    auto* out = static_cast<uint8_t*>(RequestBuffer(irp));
    if (!out) return STATUS_INVALID_USER_BUFFER;

    std::u16string pattern;
    PUNICODE_STRING given = sp->Parameters.QueryDirectory.FileName;
    bool hasPattern = given && given->Length > 0 && given->Buffer;
    if (hasPattern) {
        if (given->Length % 2) return STATUS_INVALID_PARAMETER;
        pattern.assign(reinterpret_cast<const char16_t*>(given->Buffer), given->Length / 2);
    }
    bool restart = (sp->Flags & SL_RESTART_SCAN) != 0;
    // Only the first query of an open answers "no such file"; a restart
    // that finds nothing is the end of the listing, as on NT.
    bool firstQuery = !ccb->enumStarted;
    if (firstQuery || restart) StartEnumeration(vcb, fcb, ccb, hasPattern ? &pattern : nullptr);
    bool single = (sp->Flags & SL_RETURN_SINGLE_ENTRY) != 0;

    ULONG offset = 0, lastOffset = 0, lastLength = 0, count = 0;
    NTSTATUS status = STATUS_SUCCESS;
    for (; ccb->cursor < ccb->snapshot.size() + 2; ++ccb->cursor) {
        EntryInfo e;
        if (ccb->cursor < 2) {
            e.name = ccb->cursor == 0 ? u"." : u"..";
            if (!Matches(ccb, e.name, {})) continue;
            if (!Describe(vcb, fcb->fd, ccb->cursor == 0 ? "." : "..", &e)) continue;
            if (ccb->cursor == 0) {
                e.attributes = ReportedAttributes(fcb->meta, true);
            }
        } else {
            const DirEntry& d = ccb->snapshot[ccb->cursor - 2];
            if (!Matches(ccb, d.name, d.shortName)) continue;
            if (!Describe(vcb, fcb->fd, d.hostName.c_str(), &e)) continue;  // gone since the snapshot
            e.name = d.name;
            e.shortName = d.shortName;
        }
        ULONG nameBytes = static_cast<ULONG>(e.name.size() * 2);
        ULONG at = count == 0 ? 0 : static_cast<ULONG>(ALIGN_UP_BY(lastOffset + lastLength, 8));
        if (count > 0 && (at > length || length - at < base + nameBytes)) break;  // next call
        ULONG copy = nameBytes;
        if (count == 0 && length - at < base + nameBytes) {
            copy = (length - base) & ~1u;
            status = STATUS_BUFFER_OVERFLOW;
        }
        if (count > 0) {
            ULONG next = at - lastOffset;
            memcpy(out + lastOffset, &next, sizeof next);  // NextEntryOffset of the previous record
        }
        if (at > offset) memset(out + offset, 0, at - offset);  // padding
        FillFixed(cls, e, out + at, base);
        memcpy(out + at + base, e.name.data(), copy);
        lastOffset = at;
        lastLength = base + copy;
        offset = at + lastLength;
        ++count;
        if (status == STATUS_BUFFER_OVERFLOW || single) {
            ++ccb->cursor;
            break;
        }
    }
    if (count == 0) return firstQuery ? STATUS_NO_SUCH_FILE : STATUS_NO_MORE_FILES;
    *info = offset;
    return status;
}

}  // namespace

NTSTATUS FsdDirectoryControl(PDEVICE_OBJECT device, PIRP irp) {
    Vcb* vcb = VcbOf(device);
    if (!vcb) return CompleteRequest(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    std::unique_lock<VolumeMutex> lock(vcb->mutex);
    if (sp->MinorFunction == IRP_MN_NOTIFY_CHANGE_DIRECTORY) return FsdNotifyChangeDirectory(vcb, irp, lock);
    if (sp->MinorFunction != IRP_MN_QUERY_DIRECTORY) {
        lock.unlock();
        return CompleteRequest(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
    ULONG_PTR info = 0;
    NTSTATUS status = QueryDirectory(vcb, irp, &info);
    lock.unlock();
    return CompleteRequest(irp, status, NT_ERROR(status) ? 0 : info);
}

}  // namespace tervane::emu::fs
