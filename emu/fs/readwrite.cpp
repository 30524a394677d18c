// IRP_MJ_READ and IRP_MJ_WRITE of the emulated NTFS driver. Data goes
// straight to the host file (no cache of our own, so paging and non-cached
// requests are served the same way); byte-range locks are checked for
// every request that is not paging I/O. Reads move their data outside the
// volume mutex; writes, which change the file's size and metadata, hold it.
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "fs/fsstruc.h"

namespace tervane::emu::fs {

namespace {

bool UsesFilePointer(const LARGE_INTEGER& offset) {
    return offset.HighPart == -1 && offset.LowPart == FILE_USE_FILE_POINTER_POSITION;
}

// How many bytes a read at START may take, or the status that refuses it.
// The caller holds the volume mutex.
NTSTATUS CheckRead(Fcb* fcb, PFILE_OBJECT fo, PIRP irp, uint64_t start, ULONG length, bool paging, size_t* want) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    uint64_t size = static_cast<uint64_t>(fcb->Header.FileSize.QuadPart);
    if (start >= size) return STATUS_END_OF_FILE;
    if (!paging && !CheckLockForRead(fcb, start, length, sp->Parameters.Read.Key, fo, IoGetRequestorProcess(irp)))
        return STATUS_FILE_LOCK_CONFLICT;
    *want = static_cast<size_t>(std::min<uint64_t>(length, size - start));
    return STATUS_SUCCESS;
}

// Reads from the host file without the volume mutex: the descriptor lives
// as long as the file object has requests, and other files' requests go on.
NTSTATUS ReadHost(Fcb* fcb, PVOID buffer, uint64_t start, size_t want, size_t* got) {
    while (*got < want) {
        ssize_t n = pread(fcb->fd, static_cast<char*>(buffer) + *got, want - *got, static_cast<off_t>(start + *got));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return StatusFromErrno(errno);
        if (n == 0) break;  // shortened on the host behind our back
        *got += static_cast<size_t>(n);
    }
    return STATUS_SUCCESS;
}

NTSTATUS WriteLocked(Vcb* vcb, Fcb* fcb, PFILE_OBJECT fo, PIRP irp, LARGE_INTEGER offset, ULONG length, bool paging,
                     size_t* put, std::vector<PIRP>* done) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    uint64_t size = static_cast<uint64_t>(fcb->Header.FileSize.QuadPart);
    bool toEnd = offset.HighPart == -1 && offset.LowPart == FILE_WRITE_TO_END_OF_FILE;
    if (toEnd) offset.QuadPart = static_cast<LONGLONG>(size);
    else if (UsesFilePointer(offset)) offset = fo->CurrentByteOffset;
    if (offset.QuadPart < 0) return STATUS_INVALID_PARAMETER;
    uint64_t start = static_cast<uint64_t>(offset.QuadPart);
    size_t want = length;
    // Paging writes never extend a file.
    if (paging) want = start >= size ? 0 : static_cast<size_t>(std::min<uint64_t>(want, size - start));
    if (want == 0) return STATUS_SUCCESS;
    PVOID buffer = RequestBuffer(irp);
    if (!buffer) return STATUS_INVALID_USER_BUFFER;
    if (!fcb->fdWritable) return STATUS_ACCESS_DENIED;
    if (!paging && !CheckLockForWrite(fcb, start, want, sp->Parameters.Write.Key, fo, IoGetRequestorProcess(irp)))
        return STATUS_FILE_LOCK_CONFLICT;
    while (*put < want) {
        ssize_t n = pwrite(fcb->fd, static_cast<const char*>(buffer) + *put, want - *put, static_cast<off_t>(start + *put));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (*put == 0) return StatusFromErrno(errno);
            break;
        }
        *put += static_cast<size_t>(n);
    }
    uint64_t end = start + *put;
    if (end > size) {
        fcb->Header.FileSize.QuadPart = static_cast<LONGLONG>(end);
        fcb->Header.ValidDataLength.QuadPart = static_cast<LONGLONG>(end);
        int64_t alloc = static_cast<int64_t>((end + kClusterSize - 1) / kClusterSize * kClusterSize);
        if (alloc > fcb->Header.AllocationSize.QuadPart) fcb->Header.AllocationSize.QuadPart = alloc;
    }
    if (*put > 0) {
        fcb->meta.changeTime = NtTimeNow();
        fcb->meta.present |= FileMeta::kHasChangeTime;
        if (!(fcb->meta.present & FileMeta::kHasAttributes)) {
            fcb->meta.attributes = FILE_ATTRIBUTE_ARCHIVE;
            fcb->meta.present |= FileMeta::kHasAttributes;
        }
        fcb->meta.attributes |= FILE_ATTRIBUTE_ARCHIVE;
        fcb->metaDirty = true;
        fo->Flags |= FO_FILE_MODIFIED;
        ReportChange(vcb, fcb->fullName, FILE_NOTIFY_CHANGE_LAST_WRITE | (end > size ? FILE_NOTIFY_CHANGE_SIZE : 0),
                     FILE_ACTION_MODIFIED, done);
    }
    if ((fo->Flags & FO_SYNCHRONOUS_IO) && !paging) fo->CurrentByteOffset.QuadPart = static_cast<LONGLONG>(end);
    return STATUS_SUCCESS;
}

// What a read or a write names (Read and Write share one layout), or the
// status that refuses it: only a data file of this volume is read or written.
struct Transfer {
    Vcb* vcb;
    Fcb* fcb;
    PFILE_OBJECT fo;
    ULONG length;
    LARGE_INTEGER offset;
    bool paging;
};
NTSTATUS GetTransfer(PDEVICE_OBJECT device, PIRP irp, Transfer* t) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    t->vcb = VcbOf(device);
    t->fo = sp->FileObject;
    t->fcb = FcbOf(t->fo);
    if (!t->vcb || !t->fcb) return STATUS_INVALID_PARAMETER;
    if (t->fcb->isDirectory || t->fcb->isVolume) return STATUS_INVALID_DEVICE_REQUEST;
    t->length = sp->Parameters.Read.Length;
    t->offset = sp->Parameters.Read.ByteOffset;
    t->paging = (irp->Flags & IRP_PAGING_IO) != 0;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS FsdRead(PDEVICE_OBJECT device, PIRP irp) {
    Transfer t;
    NTSTATUS status = GetTransfer(device, irp, &t);
    if (!NT_SUCCESS(status)) return CompleteRequest(irp, status, 0);
    auto [vcb, fcb, fo, length, offset, paging] = t;
    if (UsesFilePointer(offset)) offset = fo->CurrentByteOffset;
    if (offset.QuadPart < 0) return CompleteRequest(irp, STATUS_INVALID_PARAMETER, 0);
    if (length == 0) return CompleteRequest(irp, STATUS_SUCCESS, 0);
    PVOID buffer = RequestBuffer(irp);
    if (!buffer) return CompleteRequest(irp, STATUS_INVALID_USER_BUFFER, 0);

    const uint64_t start = static_cast<uint64_t>(offset.QuadPart);
    size_t want = 0, got = 0;
    {
        std::lock_guard<VolumeMutex> lock(vcb->mutex);
        status = CheckRead(fcb, fo, irp, start, length, paging, &want);
    }
    if (NT_SUCCESS(status)) status = ReadHost(fcb, buffer, start, want, &got);
    // The position of a synchronous file object is its own: the I/O manager
    // sends it one request at a time.
    if (NT_SUCCESS(status) && (fo->Flags & FO_SYNCHRONOUS_IO) && !paging)
        fo->CurrentByteOffset.QuadPart = static_cast<LONGLONG>(start + got);
    return CompleteRequest(irp, status, got);
}

NTSTATUS FsdWrite(PDEVICE_OBJECT device, PIRP irp) {
    Transfer t;
    NTSTATUS status = GetTransfer(device, irp, &t);
    if (!NT_SUCCESS(status)) return CompleteRequest(irp, status, 0);
    std::vector<PIRP> done;
    size_t put = 0;
    {
        std::lock_guard<VolumeMutex> lock(t.vcb->mutex);
        status = WriteLocked(t.vcb, t.fcb, t.fo, irp, t.offset, t.length, t.paging, &put, &done);
    }
    CompleteAll(done);
    return CompleteRequest(irp, status, put);
}

}  // namespace tervane::emu::fs
