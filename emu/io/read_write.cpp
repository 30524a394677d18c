// NtReadFile / NtWriteFile. A synchronous file object supplies its current
// position when no offset (or FILE_USE_FILE_POINTER_POSITION) is given, and
// the file system advances it; an asynchronous one needs an explicit
// offset. A write through a handle granted FILE_APPEND_DATA without
// FILE_WRITE_DATA always goes to the end of the file. Fast I/O is tried
// first on a synchronous, cached file object.
#include "io/io_internal.h"

namespace tervane::emu {
namespace {

bool IsCached(PFILE_OBJECT file) {
    // Cached: the I/O manager allowed caching (FO_CACHE_SUPPORTED) and the
    // file system attached its context, whose head is an FSRTL_COMMON_FCB_HEADER.
    return (file->Flags & FO_CACHE_SUPPORTED) && file->FsContext;
}

NTSTATUS ReadWrite(bool write, KPROCESSOR_MODE mode, HANDLE fileHandle, HANDLE event, PIO_APC_ROUTINE apcRoutine,
                   PVOID apcContext, PIO_STATUS_BLOCK ioStatusBlock, PVOID buffer, ULONG length,
                   PLARGE_INTEGER byteOffset, PULONG key) {
    if (!ioStatusBlock) return STATUS_ACCESS_VIOLATION;
    FileRequest request;
    NTSTATUS status = IopReferenceFileRequest(fileHandle, write ? (FILE_WRITE_DATA | FILE_APPEND_DATA) : FILE_READ_DATA,
                                              event, mode, &request);
    if (!NT_SUCCESS(status)) return status;
    PFILE_OBJECT file = request.file;
    LARGE_INTEGER offset{};
    bool usePosition = !byteOffset ||
                       (byteOffset->LowPart == FILE_USE_FILE_POINTER_POSITION && byteOffset->HighPart == -1);
    if (write && (request.granted & (FILE_WRITE_DATA | FILE_APPEND_DATA)) == FILE_APPEND_DATA) {
        // A handle that may only append writes at the end of the file,
        // whatever offset the caller gave.
        offset.LowPart = FILE_WRITE_TO_END_OF_FILE;
        offset.HighPart = -1;
    } else if (request.synchronous && usePosition) {
        offset = file->CurrentByteOffset;
    } else if (!byteOffset) {
        // An asynchronous file object has no position to use.
        return IopAbandonRequest(&request, nullptr, STATUS_INVALID_PARAMETER);
    } else {
        offset = *byteOffset;
    }
    ULONG keyValue = key ? *key : 0;
    PDEVICE_OBJECT device = request.device;

    if (request.synchronous && IsCached(file)) {
        IO_STATUS_BLOCK result{};
        bool done = write ? [&] {
            auto fast = IOP_FAST_IO(device, FastIoWrite);
            return fast && fast(file, &offset, length, TRUE, keyValue, buffer, &result, device);
        }()
                          : [&] {
                                auto fast = IOP_FAST_IO(device, FastIoRead);
                                return fast && fast(file, &offset, length, TRUE, keyValue, buffer, &result, device);
                            }();
        if (done) return IopFinishFastIo(&request, result, ioStatusBlock);
    }

    PIRP irp = IopBuildRequestIrp(&request, write ? IRP_MJ_WRITE : IRP_MJ_READ, mode, ioStatusBlock, apcRoutine,
                                  apcContext);
    if (!irp) return IopAbandonRequest(&request, nullptr, STATUS_INSUFFICIENT_RESOURCES);
    irp->Flags |= (write ? IRP_WRITE_OPERATION : IRP_READ_OPERATION) | IRP_DEFER_IO_COMPLETION;
    if (file->Flags & FO_NO_INTERMEDIATE_BUFFERING) irp->Flags |= IRP_NOCACHE;
    status = IopSetTransferBuffer(irp, device, buffer, length, !write, mode);
    if (!NT_SUCCESS(status)) return IopAbandonRequest(&request, irp, status);
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    // Read and Write share one layout.
    sp->Parameters.Read.Length = length;
    sp->Parameters.Read.Key = keyValue;
    sp->Parameters.Read.ByteOffset = offset;
    if (write && (file->Flags & FO_WRITE_THROUGH)) sp->Flags |= SL_WRITE_THROUGH;
    return IopSynchronousServiceTail(&request, irp);
}

}  // namespace
}  // namespace tervane::emu

using namespace tervane::emu;

#define READ_WRITE_SERVICES(P, MODE)                                                                            \
    NTSTATUS P##ReadFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,         \
                         PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, \
                         PULONG Key) {                                                                          \
        PreviousModeScope scope(MODE);                                                                          \
        return ReadWrite(false, MODE, FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, Buffer, Length, \
                         ByteOffset, Key);                                                                      \
    }                                                                                                           \
    NTSTATUS P##WriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,        \
                          PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,                           \
                          PLARGE_INTEGER ByteOffset, PULONG Key) {                                              \
        PreviousModeScope scope(MODE);                                                                          \
        return ReadWrite(true, MODE, FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, Buffer, Length,  \
                         ByteOffset, Key);                                                                      \
    }

READ_WRITE_SERVICES(Nt, UserMode)
READ_WRITE_SERVICES(Zw, KernelMode)
