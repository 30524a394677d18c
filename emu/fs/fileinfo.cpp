// IRP_MJ_QUERY_INFORMATION and IRP_MJ_SET_INFORMATION of the emulated NTFS
// driver. Buffer rules: below a class's fixed size, STATUS_INFO_LENGTH_MISMATCH;
// for the classes that end in a name, as much of the name as fits and
// STATUS_BUFFER_OVERFLOW when it does not all fit (FileAllInformation needs
// room for its fixed part and one character, rounded to 8 bytes).
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "fs/fsstruc.h"
#include "fs/names.h"
#include "kernel.h"

namespace tervane::emu::fs {

namespace {

struct Snapshot {
    struct stat st {};
    FileTimes times{};
    ULONG attributes = 0;
};

Snapshot Take(Fcb* fcb) {
    Snapshot s;
    fstat(fcb->fd, &s.st);
    GetTimes(s.st, fcb->meta, &s.times);
    s.attributes = ReportedAttributes(fcb->meta, fcb->isDirectory);
    if (!fcb->isDirectory) fcb->Header.FileSize.QuadPart = s.st.st_size;
    return s;
}

void FillBasic(const Snapshot& s, FILE_BASIC_INFORMATION* b) {
    b->CreationTime.QuadPart = s.times.creation;
    b->LastAccessTime.QuadPart = s.times.lastAccess;
    b->LastWriteTime.QuadPart = s.times.lastWrite;
    b->ChangeTime.QuadPart = s.times.change;
    b->FileAttributes = s.attributes;
}

LONGLONG AllocationOf(Fcb* fcb, const Snapshot& s) {
    if (fcb->isDirectory) return 0;
    LONGLONG rounded = (s.st.st_size + kClusterSize - 1) / kClusterSize * kClusterSize;
    return rounded > fcb->Header.AllocationSize.QuadPart ? rounded : fcb->Header.AllocationSize.QuadPart;
}

void FillStandard(Fcb* fcb, const Snapshot& s, FILE_STANDARD_INFORMATION* r) {
    r->AllocationSize.QuadPart = AllocationOf(fcb, s);
    r->EndOfFile.QuadPart = fcb->isDirectory ? 0 : s.st.st_size;
    r->NumberOfLinks = fcb->isDirectory ? 1 : static_cast<ULONG>(s.st.st_nlink);
    r->DeletePending = fcb->deletePending;
    r->Directory = fcb->isDirectory;
}

ULONG ModeOf(PFILE_OBJECT fo) {
    ULONG mode = 0;
    if (fo->Flags & FO_WRITE_THROUGH) mode |= FILE_WRITE_THROUGH;
    if (fo->Flags & FO_SEQUENTIAL_ONLY) mode |= FILE_SEQUENTIAL_ONLY;
    if (fo->Flags & FO_NO_INTERMEDIATE_BUFFERING) mode |= FILE_NO_INTERMEDIATE_BUFFERING;
    if (fo->Flags & FO_SYNCHRONOUS_IO)
        mode |= (fo->Flags & FO_ALERTABLE_IO) ? FILE_SYNCHRONOUS_IO_ALERT : FILE_SYNCHRONOUS_IO_NONALERT;
    // An open made with FILE_DELETE_ON_CLOSE does not report it: NT gives 0.
    return mode;
}

// Writes a FILE_NAME_INFORMATION at OUT with ROOM bytes (at least its
// fixed part): the name, cut short when it does not fit.
NTSTATUS FillName(const std::u16string& name, FILE_NAME_INFORMATION* out, ULONG room, ULONG* used) {
    ULONG bytes = static_cast<ULONG>(name.size() * 2);
    ULONG avail = room - FIELD_OFFSET(FILE_NAME_INFORMATION, FileName);
    ULONG copy = bytes <= avail ? bytes : avail & ~1u;
    out->FileNameLength = bytes;
    memcpy(out->FileName, name.data(), copy);
    *used = FIELD_OFFSET(FILE_NAME_INFORMATION, FileName) + copy;
    return copy < bytes ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

template <typename T>
bool Fits(ULONG length) {
    return length >= sizeof(T);
}

NTSTATUS QueryLocked(Vcb* vcb, Fcb* fcb, Ccb* ccb, PFILE_OBJECT fo, ULONG cls, PVOID buf,
                     ULONG length, ULONG_PTR* info) {
    if (fcb->isVolume) {
        // A volume open answers only what does not need a file.
        if (cls != FilePositionInformation && cls != FileModeInformation && cls != FileAlignmentInformation &&
            cls != FileAccessInformation)
            return STATUS_INVALID_PARAMETER;
    }
    Snapshot s;
    if (!fcb->isVolume) s = Take(fcb);
    switch (cls) {
        case FileBasicInformation:
            if (!Fits<FILE_BASIC_INFORMATION>(length)) return STATUS_INFO_LENGTH_MISMATCH;
            FillBasic(s, static_cast<FILE_BASIC_INFORMATION*>(buf));
            *info = sizeof(FILE_BASIC_INFORMATION);
            return STATUS_SUCCESS;
        case FileStandardInformation:
            if (!Fits<FILE_STANDARD_INFORMATION>(length)) return STATUS_INFO_LENGTH_MISMATCH;
            FillStandard(fcb, s, static_cast<FILE_STANDARD_INFORMATION*>(buf));
            *info = sizeof(FILE_STANDARD_INFORMATION);
            return STATUS_SUCCESS;
        case FileInternalInformation:
            if (!Fits<FILE_INTERNAL_INFORMATION>(length)) return STATUS_INFO_LENGTH_MISMATCH;
            static_cast<FILE_INTERNAL_INFORMATION*>(buf)->IndexNumber.QuadPart = static_cast<LONGLONG>(fcb->ino);
            *info = sizeof(FILE_INTERNAL_INFORMATION);
            return STATUS_SUCCESS;
        case FileEaInformation:
            if (!Fits<FILE_EA_INFORMATION>(length)) return STATUS_INFO_LENGTH_MISMATCH;
            static_cast<FILE_EA_INFORMATION*>(buf)->EaSize = 0;
            *info = sizeof(FILE_EA_INFORMATION);
            return STATUS_SUCCESS;
        case FileAccessInformation:
            if (!Fits<FILE_ACCESS_INFORMATION>(length)) return STATUS_INFO_LENGTH_MISMATCH;
            static_cast<FILE_ACCESS_INFORMATION*>(buf)->AccessFlags = ccb ? ccb->grantedAccess : 0;
            *info = sizeof(FILE_ACCESS_INFORMATION);
            return STATUS_SUCCESS;
        case FilePositionInformation:
            if (!Fits<FILE_POSITION_INFORMATION>(length)) return STATUS_INFO_LENGTH_MISMATCH;
            static_cast<FILE_POSITION_INFORMATION*>(buf)->CurrentByteOffset = fo->CurrentByteOffset;
            *info = sizeof(FILE_POSITION_INFORMATION);
            return STATUS_SUCCESS;
        case FileModeInformation:
            if (!Fits<FILE_MODE_INFORMATION>(length)) return STATUS_INFO_LENGTH_MISMATCH;
            static_cast<FILE_MODE_INFORMATION*>(buf)->Mode = ModeOf(fo);
            *info = sizeof(FILE_MODE_INFORMATION);
            return STATUS_SUCCESS;
        case FileAlignmentInformation:
            if (!Fits<FILE_ALIGNMENT_INFORMATION>(length)) return STATUS_INFO_LENGTH_MISMATCH;
            static_cast<FILE_ALIGNMENT_INFORMATION*>(buf)->AlignmentRequirement =
                vcb->volumeDevice->AlignmentRequirement;
            *info = sizeof(FILE_ALIGNMENT_INFORMATION);
            return STATUS_SUCCESS;
        case FileNameInformation: {
            if (length < static_cast<ULONG>(FIELD_OFFSET(FILE_NAME_INFORMATION, FileName)))
                return STATUS_INFO_LENGTH_MISMATCH;
            ULONG used;
            NTSTATUS status = FillName(fcb->fullName, static_cast<FILE_NAME_INFORMATION*>(buf), length, &used);
            *info = used;
            return status;
        }
        case FileAlternateNameInformation: {
            if (length < static_cast<ULONG>(FIELD_OFFSET(FILE_NAME_INFORMATION, FileName)))
                return STATUS_INFO_LENGTH_MISMATCH;
            std::u16string shortName = fcb->meta.shortName;
            size_t sep = fcb->fullName.rfind(u'\\');
            std::u16string leaf = fcb->fullName.substr(sep + 1);
            if (shortName.empty() && !leaf.empty() && !IsValid83Name(leaf)) {
                // Seen for the first time through its long name: give it
                // its short name now.
                size_t slash = fcb->hostPath.rfind('/');
                int dfd = OpenHostDir(vcb, slash == std::string::npos ? "" : fcb->hostPath.substr(0, slash));
                if (dfd >= 0) {
                    DirCache* cache = GetDirCache(vcb, dfd);
                    auto it = cache->byLong.find(UpcaseString(leaf));
                    if (it != cache->byLong.end()) shortName = it->second.shortName;
                    close(dfd);
                }
            }
            if (shortName.empty()) return STATUS_OBJECT_NAME_NOT_FOUND;
            ULONG used;
            NTSTATUS status = FillName(shortName, static_cast<FILE_NAME_INFORMATION*>(buf), length, &used);
            *info = used;
            return status;
        }
        case FileNetworkOpenInformation: {
            if (!Fits<FILE_NETWORK_OPEN_INFORMATION>(length)) return STATUS_INFO_LENGTH_MISMATCH;
            auto* r = static_cast<FILE_NETWORK_OPEN_INFORMATION*>(buf);
            r->CreationTime.QuadPart = s.times.creation;
            r->LastAccessTime.QuadPart = s.times.lastAccess;
            r->LastWriteTime.QuadPart = s.times.lastWrite;
            r->ChangeTime.QuadPart = s.times.change;
            r->AllocationSize.QuadPart = AllocationOf(fcb, s);
            r->EndOfFile.QuadPart = fcb->isDirectory ? 0 : s.st.st_size;
            r->FileAttributes = s.attributes;
            *info = sizeof(FILE_NETWORK_OPEN_INFORMATION);
            return STATUS_SUCCESS;
        }
        case FileAttributeTagInformation: {
            if (!Fits<FILE_ATTRIBUTE_TAG_INFORMATION>(length)) return STATUS_INFO_LENGTH_MISMATCH;
            auto* r = static_cast<FILE_ATTRIBUTE_TAG_INFORMATION*>(buf);
            r->FileAttributes = s.attributes;
            r->ReparseTag = 0;
            *info = sizeof(FILE_ATTRIBUTE_TAG_INFORMATION);
            return STATUS_SUCCESS;
        }
        case FileAllInformation: {
            constexpr ULONG nameAt = FIELD_OFFSET(FILE_ALL_INFORMATION, NameInformation);
            constexpr ULONG fixed = FIELD_OFFSET(FILE_ALL_INFORMATION, NameInformation.FileName);
            if (length < ((fixed + 2 + 7) & ~7u)) return STATUS_INFO_LENGTH_MISMATCH;
            auto* r = static_cast<FILE_ALL_INFORMATION*>(buf);
            FillBasic(s, &r->BasicInformation);
            FillStandard(fcb, s, &r->StandardInformation);
            r->InternalInformation.IndexNumber.QuadPart = static_cast<LONGLONG>(fcb->ino);
            r->EaInformation.EaSize = 0;
            r->AccessInformation.AccessFlags = ccb ? ccb->grantedAccess : 0;
            r->PositionInformation.CurrentByteOffset = fo->CurrentByteOffset;
            r->ModeInformation.Mode = ModeOf(fo);
            r->AlignmentInformation.AlignmentRequirement = vcb->volumeDevice->AlignmentRequirement;
            ULONG used;
            NTSTATUS status = FillName(fcb->fullName, &r->NameInformation, length - nameAt, &used);
            *info = nameAt + used;
            return status;
        }
        case FileStreamInformation:
        case FileCompressionInformation:
        case FilePipeInformation:
        case FilePipeLocalInformation:
        case FilePipeRemoteInformation:
        case FileMailslotQueryInformation:
        case FileObjectIdInformation:
        case FileQuotaInformation:
        case FileReparsePointInformation:
            return STATUS_INVALID_PARAMETER;  // valid classes this volume does not keep
        default:
            return STATUS_INVALID_INFO_CLASS;
    }
}

// ---- Set -------------------------------------------------------------------

NTSTATUS SetBasic(Vcb* vcb, Fcb* fcb, const FILE_BASIC_INFORMATION* b, std::vector<PIRP>* done) {
    // Zero leaves a time as it is; so does -1 (which NTFS takes as "stop
    // updating this time for the handle"; nothing here updates it anyway).
    auto given = [](const LARGE_INTEGER& t) { return t.QuadPart != 0 && t.QuadPart != -1; };
    if (b->FileAttributes & ~(FILE_ATTRIBUTE_VALID_FLAGS | FILE_ATTRIBUTE_NORMAL)) return STATUS_INVALID_PARAMETER;
    if (given(b->LastAccessTime) || given(b->LastWriteTime)) {
        timespec ts[2];
        ts[0].tv_nsec = ts[1].tv_nsec = UTIME_OMIT;
        int64_t sec, nsec;
        if (given(b->LastAccessTime)) {
            UnixFromNtTime(b->LastAccessTime.QuadPart, &sec, &nsec);
            ts[0].tv_sec = sec;
            ts[0].tv_nsec = nsec;
        }
        if (given(b->LastWriteTime)) {
            UnixFromNtTime(b->LastWriteTime.QuadPart, &sec, &nsec);
            ts[1].tv_sec = sec;
            ts[1].tv_nsec = nsec;
        }
        if (futimens(fcb->fd, ts) != 0) return StatusFromErrno(errno);
    }
    if (given(b->CreationTime)) {
        fcb->meta.creationTime = b->CreationTime.QuadPart;
        fcb->meta.present |= FileMeta::kHasCreationTime;
    }
    if (b->FileAttributes != 0) {
        ULONG a = b->FileAttributes & FILE_ATTRIBUTE_VALID_SET_FLAGS;
        if (fcb->isDirectory) a &= ~FILE_ATTRIBUTE_TEMPORARY;  // NTFS refuses it on directories silently
        fcb->meta.attributes = a;
        fcb->meta.present |= FileMeta::kHasAttributes;
    }
    fcb->meta.changeTime = given(b->ChangeTime) ? b->ChangeTime.QuadPart : NtTimeNow();
    fcb->meta.present |= FileMeta::kHasChangeTime;
    if (!vcb->store->Save(fcb->fd, fcb->ino, fcb->meta)) fcb->metaDirty = true;
    ReportChange(vcb, fcb->fullName, FILE_NOTIFY_CHANGE_ATTRIBUTES | FILE_NOTIFY_CHANGE_LAST_WRITE, FILE_ACTION_MODIFIED,
                 done);
    return STATUS_SUCCESS;
}

bool DirectoryIsEmpty(Fcb* fcb) {
    int fd = openat(fcb->fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    DIR* dir = fdopendir(fd);
    if (!dir) {
        close(fd);
        return false;
    }
    bool empty = true;
    while (dirent* de = readdir(dir)) {
        std::string n = de->d_name;
        if (n != "." && n != ".." && n != MetaStore::kStoreDirName) {
            empty = false;
            break;
        }
    }
    closedir(dir);
    return empty;
}

NTSTATUS SetDisposition(Fcb* fcb, PFILE_OBJECT fo, Ccb* ccb, bool deleteFile) {
    if (!deleteFile) {
        fcb->deletePending = false;
        fo->DeletePending = FALSE;
        return STATUS_SUCCESS;
    }
    if (!(ccb->grantedAccess & DELETE)) return STATUS_ACCESS_DENIED;
    if (fcb->hostPath.empty()) return STATUS_CANNOT_DELETE;  // the root
    if (ReportedAttributes(fcb->meta, fcb->isDirectory) & FILE_ATTRIBUTE_READONLY) return STATUS_CANNOT_DELETE;
    if (fcb->isDirectory && !DirectoryIsEmpty(fcb)) return STATUS_DIRECTORY_NOT_EMPTY;
    fcb->deletePending = true;
    fo->DeletePending = TRUE;
    return STATUS_SUCCESS;
}

NTSTATUS SetEndOfFile(Vcb* vcb, Fcb* fcb, LONGLONG eof, bool advanceOnly, std::vector<PIRP>* done) {
    if (fcb->isDirectory) return STATUS_INVALID_PARAMETER;
    if (eof < 0) return STATUS_INVALID_PARAMETER;
    if (advanceOnly) return STATUS_SUCCESS;  // valid data length: kept by the host
    if (!fcb->fdWritable) return STATUS_ACCESS_DENIED;
    if (ftruncate(fcb->fd, eof) != 0) return StatusFromErrno(errno);
    fcb->Header.FileSize.QuadPart = eof;
    fcb->Header.ValidDataLength.QuadPart = eof;
    fcb->Header.AllocationSize.QuadPart = (eof + kClusterSize - 1) / kClusterSize * kClusterSize;
    fcb->meta.changeTime = NtTimeNow();
    fcb->meta.present |= FileMeta::kHasChangeTime;
    fcb->metaDirty = true;
    ReportChange(vcb, fcb->fullName, FILE_NOTIFY_CHANGE_SIZE, FILE_ACTION_MODIFIED, done);
    return STATUS_SUCCESS;
}

NTSTATUS SetAllocation(Vcb* vcb, Fcb* fcb, LONGLONG size, std::vector<PIRP>* done) {
    if (fcb->isDirectory || size < 0) return STATUS_INVALID_PARAMETER;
    LONGLONG rounded = (size + kClusterSize - 1) / kClusterSize * kClusterSize;
    if (size < fcb->Header.FileSize.QuadPart) {
        NTSTATUS status = SetEndOfFile(vcb, fcb, size, false, done);
        if (!NT_SUCCESS(status)) return status;
    }
    fcb->Header.AllocationSize.QuadPart = rounded;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS RenameFile(Vcb* vcb, Fcb* fcb, PIRP irp, std::vector<PIRP>* done);  // rename.cpp

NTSTATUS FsdQueryInformation(PDEVICE_OBJECT device, PIRP irp) {
    Vcb* vcb = VcbOf(device);
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    PFILE_OBJECT fo = sp->FileObject;
    Fcb* fcb = FcbOf(fo);
    if (!vcb || !fcb) return CompleteRequest(irp, STATUS_INVALID_PARAMETER, 0);
    PVOID buf = irp->AssociatedIrp.SystemBuffer ? irp->AssociatedIrp.SystemBuffer : RequestBuffer(irp);
    ULONG length = sp->Parameters.QueryFile.Length;
    if (!buf && length) return CompleteRequest(irp, STATUS_INVALID_USER_BUFFER, 0);
    ULONG_PTR info = 0;
    NTSTATUS status;
    {
        std::lock_guard<VolumeMutex> lock(vcb->mutex);
        status = QueryLocked(vcb, fcb, CcbOf(fo), fo, ClassValue(sp->Parameters.QueryFile.FileInformationClass), buf,
                             length, &info);
    }
    return CompleteRequest(irp, status, NT_ERROR(status) ? 0 : info);
}

NTSTATUS FsdSetInformation(PDEVICE_OBJECT device, PIRP irp) {
    Vcb* vcb = VcbOf(device);
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    PFILE_OBJECT fo = sp->FileObject;
    Fcb* fcb = FcbOf(fo);
    Ccb* ccb = CcbOf(fo);
    if (!vcb || !fcb || !ccb) return CompleteRequest(irp, STATUS_INVALID_PARAMETER, 0);
    PVOID buf = irp->AssociatedIrp.SystemBuffer ? irp->AssociatedIrp.SystemBuffer : RequestBuffer(irp);
    ULONG length = sp->Parameters.SetFile.Length;
    ULONG cls = ClassValue(sp->Parameters.SetFile.FileInformationClass);
    std::vector<PIRP> done;
    NTSTATUS status;
    {
        // A rename, a deletion or a new size changes names or contents that
        // opens and reads rely on: it has the names alone.
        std::unique_lock<std::shared_mutex> names(vcb->nameLock);
        std::lock_guard<VolumeMutex> lock(vcb->mutex);
        auto need = [&](size_t size) { return buf && length >= size; };
        if (fcb->isVolume && cls != FilePositionInformation) {
            status = STATUS_INVALID_PARAMETER;
        } else {
            switch (cls) {
                case FileBasicInformation:
                    status = !need(sizeof(FILE_BASIC_INFORMATION))
                                 ? STATUS_INFO_LENGTH_MISMATCH
                                 : SetBasic(vcb, fcb, static_cast<FILE_BASIC_INFORMATION*>(buf), &done);
                    break;
                case FileDispositionInformation:
                    status = !need(sizeof(FILE_DISPOSITION_INFORMATION))
                                 ? STATUS_INFO_LENGTH_MISMATCH
                                 : SetDisposition(fcb, fo, ccb, static_cast<FILE_DISPOSITION_INFORMATION*>(buf)->DeleteFile);
                    break;
                case FilePositionInformation: {
                    if (!need(sizeof(FILE_POSITION_INFORMATION))) {
                        status = STATUS_INFO_LENGTH_MISMATCH;
                        break;
                    }
                    LONGLONG pos = static_cast<FILE_POSITION_INFORMATION*>(buf)->CurrentByteOffset.QuadPart;
                    // Non-buffered handles move only by whole sectors.
                    if (pos < 0 || ((fo->Flags & FO_NO_INTERMEDIATE_BUFFERING) && pos % 512)) {
                        status = STATUS_INVALID_PARAMETER;
                        break;
                    }
                    fo->CurrentByteOffset.QuadPart = pos;
                    status = STATUS_SUCCESS;
                    break;
                }
                case FileEndOfFileInformation:
                    status = !need(sizeof(FILE_END_OF_FILE_INFORMATION))
                                 ? STATUS_INFO_LENGTH_MISMATCH
                                 : SetEndOfFile(vcb, fcb, static_cast<FILE_END_OF_FILE_INFORMATION*>(buf)->EndOfFile.QuadPart,
                                                sp->Parameters.SetFile.AdvanceOnly, &done);
                    break;
                case FileAllocationInformation:
                    status = !need(sizeof(FILE_ALLOCATION_INFORMATION))
                                 ? STATUS_INFO_LENGTH_MISMATCH
                                 : SetAllocation(vcb, fcb, static_cast<FILE_ALLOCATION_INFORMATION*>(buf)->AllocationSize.QuadPart,
                                                 &done);
                    break;
                case FileRenameInformation:
                    status = !need(FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName)) ? STATUS_INFO_LENGTH_MISMATCH
                                                                                   : RenameFile(vcb, fcb, irp, &done);
                    break;
                case FileLinkInformation:
                case FileShortNameInformation:
                case FileValidDataLengthInformation:
                case FileObjectIdInformation:
                case FileCompletionInformation:
                case FileMoveClusterInformation:
                case FileQuotaInformation:
                case FileTrackingInformation:
                case FilePipeInformation:
                case FilePipeRemoteInformation:
                case FileMailslotSetInformation:
                    status = STATUS_INVALID_PARAMETER;  // valid classes this volume does not set
                    break;
                default:
                    status = STATUS_INVALID_INFO_CLASS;
                    break;
            }
        }
    }
    CompleteAll(done);
    return CompleteRequest(irp, status, 0);
}

}  // namespace tervane::emu::fs
