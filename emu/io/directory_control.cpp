// NtQueryDirectoryFile and NtNotifyChangeDirectoryFile: IRP_MJ_DIRECTORY_CONTROL
// packets. The search pattern is copied for the driver and freed with the
// packet. A change notification may stay pending until a change or the
// file object's cleanup completes it.
#include "io/io_internal.h"

namespace tervane::emu {
namespace {

constexpr ULONG kObjectIdInfoSize = 72, kReparsePointInfoSize = 16;

ULONG DirectoryClassLength(FILE_INFORMATION_CLASS c) {
    switch (c) {
    case FileDirectoryInformation: return sizeof(FILE_DIRECTORY_INFORMATION);
    case FileFullDirectoryInformation: return sizeof(FILE_FULL_DIR_INFORMATION);
    case FileBothDirectoryInformation: return sizeof(FILE_BOTH_DIR_INFORMATION);
    case FileNamesInformation: return sizeof(FILE_NAMES_INFORMATION);
    case FileIdBothDirectoryInformation: return sizeof(FILE_ID_BOTH_DIR_INFORMATION);
    case FileIdFullDirectoryInformation: return sizeof(FILE_ID_FULL_DIR_INFORMATION);
    case FileObjectIdInformation: return kObjectIdInfoSize;
    case FileReparsePointInformation: return kReparsePointInfoSize;
    default: return 0;
    }
}

// Builds, fills and sends one directory-control packet.
NTSTATUS SendDirectoryControl(FileRequest* request, KPROCESSOR_MODE mode, UCHAR minor, PIO_APC_ROUTINE apcRoutine,
                              PVOID apcContext, PIO_STATUS_BLOCK iosb, PVOID buffer, ULONG length,
                              PUNICODE_STRING pattern, UCHAR flags, FILE_INFORMATION_CLASS c, ULONG filter) {
    PIRP irp = IopBuildRequestIrp(request, IRP_MJ_DIRECTORY_CONTROL, mode, iosb, apcRoutine, apcContext);
    if (!irp) return IopAbandonRequest(request, nullptr, STATUS_INSUFFICIENT_RESOURCES);
    NTSTATUS status = IopSetTransferBuffer(irp, request->device, buffer, length, true, mode);
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->MinorFunction = minor;
    sp->Flags = flags;
    if (NT_SUCCESS(status) && pattern && pattern->Length) {
        // One block: the UNICODE_STRING followed by its characters.
        auto* copy = static_cast<PUNICODE_STRING>(
            ExAllocatePoolWithTag(NonPagedPool, sizeof(UNICODE_STRING) + pattern->Length, kTagBuffer));
        if (!copy) {
            status = STATUS_INSUFFICIENT_RESOURCES;
        } else {
            copy->Length = copy->MaximumLength = pattern->Length;
            copy->Buffer = reinterpret_cast<PWSTR>(copy + 1);
            memcpy(copy->Buffer, pattern->Buffer, pattern->Length);
            irp->Tail.Overlay.AuxiliaryBuffer = reinterpret_cast<PCHAR>(copy);
            sp->Parameters.QueryDirectory.FileName = copy;
        }
    }
    if (!NT_SUCCESS(status)) return IopAbandonRequest(request, irp, status);
    if (minor == IRP_MN_QUERY_DIRECTORY) {
        sp->Parameters.QueryDirectory.Length = length;
        sp->Parameters.QueryDirectory.FileInformationClass = c;
        sp->Parameters.QueryDirectory.FileIndex = 0;
    } else {
        sp->Parameters.NotifyDirectory.Length = length;
        sp->Parameters.NotifyDirectory.CompletionFilter = filter;
    }
    return IopSynchronousServiceTail(request, irp);
}

NTSTATUS QueryDirectory(KPROCESSOR_MODE mode, HANDLE handle, HANDLE event, PIO_APC_ROUTINE apcRoutine,
                        PVOID apcContext, PIO_STATUS_BLOCK iosb, PVOID buffer, ULONG length,
                        FILE_INFORMATION_CLASS c, BOOLEAN single, PUNICODE_STRING pattern, BOOLEAN restart) {
    if (!iosb) return STATUS_ACCESS_VIOLATION;
    ULONG minimum = DirectoryClassLength(c);
    if (!minimum) return STATUS_INVALID_INFO_CLASS;
    if (length < minimum) return STATUS_INFO_LENGTH_MISMATCH;
    if (pattern && ((pattern->Length & 1) || pattern->Length > pattern->MaximumLength ||
                    (pattern->Length && !pattern->Buffer)))
        return STATUS_INVALID_PARAMETER;
    FileRequest request;
    NTSTATUS status = IopReferenceFileRequest(handle, FILE_LIST_DIRECTORY, event, mode, &request);
    if (!NT_SUCCESS(status)) return status;
    UCHAR flags = (restart ? SL_RESTART_SCAN : 0) | (single ? SL_RETURN_SINGLE_ENTRY : 0);
    return SendDirectoryControl(&request, mode, IRP_MN_QUERY_DIRECTORY, apcRoutine, apcContext, iosb, buffer, length,
                                pattern, flags, c, 0);
}

NTSTATUS NotifyChange(KPROCESSOR_MODE mode, HANDLE handle, HANDLE event, PIO_APC_ROUTINE apcRoutine,
                      PVOID apcContext, PIO_STATUS_BLOCK iosb, PVOID buffer, ULONG length, ULONG filter,
                      BOOLEAN watchTree) {
    if (!iosb) return STATUS_ACCESS_VIOLATION;
    if (!filter || (filter & ~FILE_NOTIFY_VALID_MASK)) return STATUS_INVALID_PARAMETER;
    FileRequest request;
    NTSTATUS status = IopReferenceFileRequest(handle, FILE_LIST_DIRECTORY, event, mode, &request);
    if (!NT_SUCCESS(status)) return status;
    return SendDirectoryControl(&request, mode, IRP_MN_NOTIFY_CHANGE_DIRECTORY, apcRoutine, apcContext, iosb,
                                buffer, length, nullptr, watchTree ? SL_WATCH_TREE : 0, FileDirectoryInformation,
                                filter);
}

}  // namespace
}  // namespace tervane::emu

using namespace tervane::emu;

#define DIRECTORY_SERVICES(P, MODE)                                                                           \
    NTSTATUS P##QueryDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,                \
                                   PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,    \
                                   ULONG Length, FILE_INFORMATION_CLASS FileInformationClass,                  \
                                   BOOLEAN ReturnSingleEntry, PUNICODE_STRING FileName, BOOLEAN RestartScan) { \
        PreviousModeScope scope(MODE);                                                                        \
        return QueryDirectory(MODE, FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, FileInformation, \
                              Length, FileInformationClass, ReturnSingleEntry, FileName, RestartScan);         \
    }                                                                                                         \
    NTSTATUS P##NotifyChangeDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,         \
                                          PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer,      \
                                          ULONG Length, ULONG CompletionFilter, BOOLEAN WatchTree) {           \
        PreviousModeScope scope(MODE);                                                                        \
        return NotifyChange(MODE, FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, Buffer, Length,    \
                            CompletionFilter, WatchTree);                                                      \
    }

DIRECTORY_SERVICES(Nt, UserMode)
DIRECTORY_SERVICES(Zw, KernelMode)
