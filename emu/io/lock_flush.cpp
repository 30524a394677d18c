// NtLockFile / NtUnlockFile (fast I/O first, then IRP_MJ_LOCK_CONTROL) and
// NtFlushBuffersFile. A file object that ever took a lock gets an
// unlock-all when its last handle closes (io/file_object.cpp).
#include "io/io_internal.h"

namespace tervane::emu {
namespace {

// The lock length travels by pointer; the I/O manager keeps a copy that is
// freed with the packet.
bool AttachLength(PIRP irp, LARGE_INTEGER length) {
    auto* copy = static_cast<PLARGE_INTEGER>(ExAllocatePoolWithTag(NonPagedPool, sizeof(LARGE_INTEGER), kTagBuffer));
    if (!copy) return false;
    *copy = length;
    irp->Tail.Overlay.AuxiliaryBuffer = reinterpret_cast<PCHAR>(copy);
    IoGetNextIrpStackLocation(irp)->Parameters.LockControl.Length = copy;
    return true;
}

NTSTATUS Lock(KPROCESSOR_MODE mode, HANDLE handle, HANDLE event, PIO_APC_ROUTINE apcRoutine, PVOID apcContext,
              PIO_STATUS_BLOCK iosb, PLARGE_INTEGER byteOffset, PLARGE_INTEGER length, ULONG key,
              BOOLEAN failImmediately, BOOLEAN exclusive) {
    if (!iosb || !byteOffset || !length) return STATUS_ACCESS_VIOLATION;
    FileRequest request;
    NTSTATUS status = IopReferenceFileRequest(handle, FILE_READ_DATA | FILE_WRITE_DATA, event, mode, &request);
    if (!NT_SUCCESS(status)) return status;
    PFILE_OBJECT file = request.file;
    LARGE_INTEGER offset = *byteOffset, size = *length;
    file->LockOperation = TRUE;
    IO_STATUS_BLOCK result{};
    auto fast = IOP_FAST_IO(request.device, FastIoLock);
    if (fast && fast(file, &offset, &size, CurrentProcess(), key, failImmediately, exclusive, &result, request.device))
        return IopFinishFastIo(&request, result, iosb);
    PIRP irp = IopBuildRequestIrp(&request, IRP_MJ_LOCK_CONTROL, mode, iosb, apcRoutine, apcContext);
    if (!irp || !AttachLength(irp, size)) return IopAbandonRequest(&request, irp, STATUS_INSUFFICIENT_RESOURCES);
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->MinorFunction = IRP_MN_LOCK;
    sp->Flags = (failImmediately ? SL_FAIL_IMMEDIATELY : 0) | (exclusive ? SL_EXCLUSIVE_LOCK : 0);
    sp->Parameters.LockControl.Key = key;
    sp->Parameters.LockControl.ByteOffset = offset;
    return IopSynchronousServiceTail(&request, irp);
}

NTSTATUS Unlock(KPROCESSOR_MODE mode, HANDLE handle, PIO_STATUS_BLOCK iosb, PLARGE_INTEGER byteOffset,
                PLARGE_INTEGER length, ULONG key) {
    if (!iosb || !byteOffset || !length) return STATUS_ACCESS_VIOLATION;
    FileRequest request;
    NTSTATUS status = IopReferenceFileRequest(handle, FILE_READ_DATA | FILE_WRITE_DATA, nullptr, mode, &request);
    if (!NT_SUCCESS(status)) return status;
    LARGE_INTEGER offset = *byteOffset, size = *length;
    IO_STATUS_BLOCK result{};
    auto fast = IOP_FAST_IO(request.device, FastIoUnlockSingle);
    if (fast && fast(request.file, &offset, &size, CurrentProcess(), key, &result, request.device))
        return IopFinishFastIo(&request, result, iosb);
    PIRP irp = IopBuildRequestIrp(&request, IRP_MJ_LOCK_CONTROL, mode, nullptr);
    if (!irp || !AttachLength(irp, size)) return IopAbandonRequest(&request, irp, STATUS_INSUFFICIENT_RESOURCES);
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->MinorFunction = IRP_MN_UNLOCK_SINGLE;
    sp->Parameters.LockControl.Key = key;
    sp->Parameters.LockControl.ByteOffset = offset;
    KEVENT event;
    IO_STATUS_BLOCK local{};
    return IopSynchronousApi(&request, irp, iosb, &event, &local);
}

NTSTATUS Flush(KPROCESSOR_MODE mode, HANDLE handle, PIO_STATUS_BLOCK iosb) {
    if (!iosb) return STATUS_ACCESS_VIOLATION;
    FileRequest request;
    NTSTATUS status = IopReferenceFileRequest(handle, FILE_WRITE_DATA | FILE_APPEND_DATA, nullptr, mode, &request);
    if (!NT_SUCCESS(status)) return status;
    PIRP irp = IopBuildRequestIrp(&request, IRP_MJ_FLUSH_BUFFERS, mode, nullptr);
    if (!irp) return IopAbandonRequest(&request, nullptr, STATUS_INSUFFICIENT_RESOURCES);
    KEVENT event;
    IO_STATUS_BLOCK local{};
    return IopSynchronousApi(&request, irp, iosb, &event, &local);
}

}  // namespace
}  // namespace tervane::emu

using namespace tervane::emu;

#define LOCK_SERVICES(P, MODE)                                                                                 \
    NTSTATUS P##LockFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,        \
                         PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER ByteOffset, PLARGE_INTEGER Length,     \
                         ULONG Key, BOOLEAN FailImmediately, BOOLEAN ExclusiveLock) {                           \
        PreviousModeScope scope(MODE);                                                                         \
        return Lock(MODE, FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, ByteOffset, Length, Key,   \
                    FailImmediately, ExclusiveLock);                                                           \
    }                                                                                                          \
    NTSTATUS P##UnlockFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER ByteOffset,       \
                           PLARGE_INTEGER Length, ULONG Key) {                                                 \
        PreviousModeScope scope(MODE);                                                                         \
        return Unlock(MODE, FileHandle, IoStatusBlock, ByteOffset, Length, Key);                               \
    }                                                                                                          \
    NTSTATUS P##FlushBuffersFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock) {                           \
        PreviousModeScope scope(MODE);                                                                         \
        return Flush(MODE, FileHandle, IoStatusBlock);                                                         \
    }

LOCK_SERVICES(Nt, UserMode)
LOCK_SERVICES(Zw, KernelMode)
