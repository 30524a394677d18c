// NtQueryInformationFile / NtSetInformationFile and IoQueryFileInformation.
// The I/O manager checks the class and the length first, answers the
// classes it keeps itself (access, mode, and the position of a synchronous
// file object), tries fast I/O for basic, standard and network-open
// queries, and opens the parent of a rename or link target by full name.
#include "io/io_internal.h"

namespace tervane::emu {
namespace {

struct ClassRule {
    ULONG length;        // the fixed part; 0: not valid for the service
    ACCESS_MASK access;  // what a user-mode handle must grant (any bit)
};

// Fixed sizes of records this emulator has no structure for.
constexpr ULONG kStreamInfoSize = 32, kPipeInfoSize = 8, kPipeLocalInfoSize = 40, kPipeRemoteInfoSize = 16,
                kMailslotQueryInfoSize = 24, kMailslotSetInfoSize = 8, kCompressionInfoSize = 16,
                kCompletionInfoSize = 2 * sizeof(PVOID), kValidDataLengthInfoSize = 8;

ClassRule QueryRule(FILE_INFORMATION_CLASS c) {
    switch (c) {
    case FileBasicInformation: return {sizeof(FILE_BASIC_INFORMATION), FILE_READ_ATTRIBUTES};
    case FileStandardInformation: return {sizeof(FILE_STANDARD_INFORMATION), 0};
    case FileInternalInformation: return {sizeof(FILE_INTERNAL_INFORMATION), 0};
    case FileEaInformation: return {sizeof(FILE_EA_INFORMATION), 0};
    case FileAccessInformation: return {sizeof(FILE_ACCESS_INFORMATION), 0};
    case FileNameInformation: return {sizeof(FILE_NAME_INFORMATION), 0};
    case FilePositionInformation: return {sizeof(FILE_POSITION_INFORMATION), 0};
    case FileModeInformation: return {sizeof(FILE_MODE_INFORMATION), 0};
    case FileAlignmentInformation: return {sizeof(FILE_ALIGNMENT_INFORMATION), 0};
    case FileAllInformation: return {sizeof(FILE_ALL_INFORMATION), FILE_READ_ATTRIBUTES};
    case FileAlternateNameInformation: return {sizeof(FILE_NAME_INFORMATION), 0};
    case FileStreamInformation: return {kStreamInfoSize, 0};
    case FilePipeInformation: return {kPipeInfoSize, FILE_READ_ATTRIBUTES};
    case FilePipeLocalInformation: return {kPipeLocalInfoSize, FILE_READ_ATTRIBUTES};
    case FilePipeRemoteInformation: return {kPipeRemoteInfoSize, FILE_READ_ATTRIBUTES};
    case FileMailslotQueryInformation: return {kMailslotQueryInfoSize, 0};
    case FileCompressionInformation: return {kCompressionInfoSize, 0};
    case FileNetworkOpenInformation: return {sizeof(FILE_NETWORK_OPEN_INFORMATION), FILE_READ_ATTRIBUTES};
    case FileAttributeTagInformation: return {sizeof(FILE_ATTRIBUTE_TAG_INFORMATION), FILE_READ_ATTRIBUTES};
    default: return {0, 0};
    }
}

ClassRule SetRule(FILE_INFORMATION_CLASS c) {
    switch (c) {
    case FileBasicInformation: return {sizeof(FILE_BASIC_INFORMATION), FILE_WRITE_ATTRIBUTES};
    case FileRenameInformation: return {sizeof(FILE_RENAME_INFORMATION), DELETE};
    case FileLinkInformation: return {sizeof(FILE_LINK_INFORMATION), 0};
    case FileDispositionInformation: return {sizeof(FILE_DISPOSITION_INFORMATION), DELETE};
    case FilePositionInformation: return {sizeof(FILE_POSITION_INFORMATION), 0};
    case FileModeInformation: return {sizeof(FILE_MODE_INFORMATION), 0};
    case FileAllocationInformation: return {sizeof(FILE_ALLOCATION_INFORMATION), FILE_WRITE_DATA};
    case FileEndOfFileInformation: return {sizeof(FILE_END_OF_FILE_INFORMATION), FILE_WRITE_DATA};
    case FilePipeInformation: return {kPipeInfoSize, FILE_WRITE_ATTRIBUTES};
    case FilePipeRemoteInformation: return {kPipeRemoteInfoSize, FILE_WRITE_ATTRIBUTES};
    case FileMailslotSetInformation: return {kMailslotSetInfoSize, FILE_WRITE_DATA};
    case FileCompletionInformation: return {kCompletionInfoSize, 0};
    case FileMoveClusterInformation: return {sizeof(FILE_RENAME_INFORMATION), FILE_WRITE_DATA};
    case FileValidDataLengthInformation: return {kValidDataLengthInfoSize, FILE_WRITE_DATA};
    case FileShortNameInformation: return {sizeof(FILE_NAME_INFORMATION), DELETE};
    default: return {0, 0};
    }
}

ULONG ModeOf(PFILE_OBJECT file) {
    ULONG mode = 0;
    if (file->Flags & FO_WRITE_THROUGH) mode |= FILE_WRITE_THROUGH;
    if (file->Flags & FO_SEQUENTIAL_ONLY) mode |= FILE_SEQUENTIAL_ONLY;
    if (file->Flags & FO_NO_INTERMEDIATE_BUFFERING) mode |= FILE_NO_INTERMEDIATE_BUFFERING;
    if (file->Flags & FO_SYNCHRONOUS_IO)
        mode |= (file->Flags & FO_ALERTABLE_IO) ? FILE_SYNCHRONOUS_IO_ALERT : FILE_SYNCHRONOUS_IO_NONALERT;
    // An open made with FILE_DELETE_ON_CLOSE does not report it: NT gives 0.
    return mode;
}

// The checks both services make, in NT's order, before the handle is
// referenced with the access the class needs.
NTSTATUS ReferenceForClass(KPROCESSOR_MODE mode, HANDLE handle, PIO_STATUS_BLOCK iosb, PVOID buffer, ULONG length,
                           ClassRule rule, FileRequest* request) {
    if (!iosb) return STATUS_ACCESS_VIOLATION;
    if (!rule.length) return STATUS_INVALID_INFO_CLASS;
    if (length < rule.length) return STATUS_INFO_LENGTH_MISMATCH;
    if (!buffer) return STATUS_ACCESS_VIOLATION;
    return IopReferenceFileRequest(handle, rule.access, nullptr, mode, request);
}

NTSTATUS Answer(FileRequest* request, PIO_STATUS_BLOCK iosb, NTSTATUS status, ULONG information) {
    iosb->Status = status;
    iosb->Information = information;
    IopReleaseRequest(request);
    return status;
}

NTSTATUS SetMode(PFILE_OBJECT file, ULONG mode) {
    const ULONG synchronous = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT;
    if (mode & ~(FILE_WRITE_THROUGH | FILE_SEQUENTIAL_ONLY | FILE_NO_INTERMEDIATE_BUFFERING | synchronous))
        return STATUS_INVALID_PARAMETER;
    if (((mode & synchronous) != 0) != ((file->Flags & FO_SYNCHRONOUS_IO) != 0) || (mode & synchronous) == synchronous)
        return STATUS_INVALID_PARAMETER;
    if (((mode & FILE_NO_INTERMEDIATE_BUFFERING) != 0) != ((file->Flags & FO_NO_INTERMEDIATE_BUFFERING) != 0))
        return STATUS_INVALID_PARAMETER;
    file->Flags &= ~(FO_WRITE_THROUGH | FO_SEQUENTIAL_ONLY | FO_ALERTABLE_IO);
    if (mode & FILE_WRITE_THROUGH) file->Flags |= FO_WRITE_THROUGH;
    if (mode & FILE_SEQUENTIAL_ONLY) file->Flags |= FO_SEQUENTIAL_ONLY;
    if (mode & FILE_SYNCHRONOUS_IO_ALERT) file->Flags |= FO_ALERTABLE_IO;
    return STATUS_SUCCESS;
}

bool TryFastQuery(FileRequest* request, FILE_INFORMATION_CLASS c, PVOID buffer, IO_STATUS_BLOCK* result) {
    PDEVICE_OBJECT device = request->device;
    PFILE_OBJECT file = request->file;
    switch (c) {
    case FileBasicInformation: {
        auto fast = IOP_FAST_IO(device, FastIoQueryBasicInfo);
        return fast && fast(file, TRUE, static_cast<PFILE_BASIC_INFORMATION>(buffer), result, device);
    }
    case FileStandardInformation: {
        auto fast = IOP_FAST_IO(device, FastIoQueryStandardInfo);
        return fast && fast(file, TRUE, static_cast<PFILE_STANDARD_INFORMATION>(buffer), result, device);
    }
    case FileNetworkOpenInformation: {
        auto fast = IOP_FAST_IO(device, FastIoQueryNetworkOpenInfo);
        return fast && fast(file, TRUE, static_cast<PFILE_NETWORK_OPEN_INFORMATION>(buffer), result, device);
    }
    default: return false;
    }
}

NTSTATUS QueryInformation(KPROCESSOR_MODE mode, HANDLE handle, PIO_STATUS_BLOCK iosb, PVOID buffer, ULONG length,
                          FILE_INFORMATION_CLASS c) {
    FileRequest request;
    NTSTATUS status = ReferenceForClass(mode, handle, iosb, buffer, length, QueryRule(c), &request);
    if (!NT_SUCCESS(status)) return status;
    PFILE_OBJECT file = request.file;
    switch (c) {
    case FileAccessInformation:
        static_cast<PFILE_ACCESS_INFORMATION>(buffer)->AccessFlags = request.granted;
        return Answer(&request, iosb, STATUS_SUCCESS, sizeof(FILE_ACCESS_INFORMATION));
    case FileModeInformation:
        static_cast<PFILE_MODE_INFORMATION>(buffer)->Mode = ModeOf(file);
        return Answer(&request, iosb, STATUS_SUCCESS, sizeof(FILE_MODE_INFORMATION));
    case FilePositionInformation:
        if (request.synchronous) {
            static_cast<PFILE_POSITION_INFORMATION>(buffer)->CurrentByteOffset = file->CurrentByteOffset;
            return Answer(&request, iosb, STATUS_SUCCESS, sizeof(FILE_POSITION_INFORMATION));
        }
        break;
    default: break;
    }
    IO_STATUS_BLOCK result{};
    if (TryFastQuery(&request, c, buffer, &result)) return IopFinishFastIo(&request, result, iosb);

    PIRP irp = IopBuildRequestIrp(&request, IRP_MJ_QUERY_INFORMATION, mode, nullptr);
    if (!irp) return IopAbandonRequest(&request, nullptr, STATUS_INSUFFICIENT_RESOURCES);
    status = IopSetSystemBuffer(irp, buffer, length, true);
    if (!NT_SUCCESS(status)) return IopAbandonRequest(&request, irp, status);
    irp->Flags |= IRP_DEFER_IO_COMPLETION;
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->Parameters.QueryFile.Length = length;
    sp->Parameters.QueryFile.FileInformationClass = c;
    KEVENT event;
    IO_STATUS_BLOCK local{};
    return IopSynchronousApi(&request, irp, iosb, &event, &local);
}

NTSTATUS SetInformation(KPROCESSOR_MODE mode, HANDLE handle, PIO_STATUS_BLOCK iosb, PVOID buffer, ULONG length,
                        FILE_INFORMATION_CLASS c) {
    FileRequest request;
    NTSTATUS status = ReferenceForClass(mode, handle, iosb, buffer, length, SetRule(c), &request);
    if (!NT_SUCCESS(status)) return status;
    PFILE_OBJECT file = request.file;
    if (c == FileModeInformation)
        return Answer(&request, iosb, SetMode(file, static_cast<PFILE_MODE_INFORMATION>(buffer)->Mode), 0);
    if (c == FilePositionInformation && request.synchronous) {
        LARGE_INTEGER offset = static_cast<PFILE_POSITION_INFORMATION>(buffer)->CurrentByteOffset;
        // A position must be non-negative and, without intermediate
        // buffering, aligned as the device requires.
        if (offset.QuadPart < 0 || ((file->Flags & FO_NO_INTERMEDIATE_BUFFERING) &&
                                    (offset.QuadPart & file->DeviceObject->AlignmentRequirement)))
            return Answer(&request, iosb, STATUS_INVALID_PARAMETER, 0);
        file->CurrentByteOffset = offset;
        return Answer(&request, iosb, STATUS_SUCCESS, 0);
    }

    // A rename or link target given by full name (or relative to a root
    // handle) is opened by its parent here and handed to the file system.
    HANDLE targetHandle = nullptr;
    PFILE_OBJECT target = nullptr;
    bool replace = false;
    if (c == FileRenameInformation || c == FileLinkInformation || c == FileMoveClusterInformation) {
        auto* rename = static_cast<PFILE_RENAME_INFORMATION>(buffer);
        ULONG nameOffset = FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName);
        if ((rename->FileNameLength & 1) || rename->FileNameLength > length - nameOffset)
            return Answer(&request, iosb, STATUS_INVALID_PARAMETER, 0);
        replace = rename->ReplaceIfExists;
        std::u16string name(reinterpret_cast<const char16_t*>(rename->FileName), rename->FileNameLength / 2);
        if ((!name.empty() && name[0] == u'\\') || rename->RootDirectory) {
            status = IopOpenTargetDirectory(file, rename->RootDirectory, name, false, &targetHandle, &target);
            if (!NT_SUCCESS(status)) return Answer(&request, iosb, status, 0);
        }
    }

    PIRP irp = IopBuildRequestIrp(&request, IRP_MJ_SET_INFORMATION, mode, nullptr);
    status = irp ? IopSetSystemBuffer(irp, buffer, length, false) : STATUS_INSUFFICIENT_RESOURCES;
    if (!NT_SUCCESS(status)) {
        if (irp) IopDiscardIrp(irp);
    } else {
        irp->Flags |= IRP_DEFER_IO_COMPLETION;
        PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
        sp->Parameters.SetFile.Length = length;
        sp->Parameters.SetFile.FileInformationClass = c;
        sp->Parameters.SetFile.FileObject = target;
        sp->Parameters.SetFile.ReplaceIfExists = replace;
        KEVENT event;
        IO_STATUS_BLOCK local{};
        status = IopSynchronousApi(&request, irp, iosb, &event, &local);
    }
    IopReleaseRequest(&request);
    if (targetHandle) ObpCloseHandle(targetHandle, KernelMode);
    if (target) ObfDereferenceObject(target);
    return status;
}

}  // namespace

// The I/O manager's own synchronous query of FILE (its buffer used as the
// system buffer, as NT does for these kernel callers).
NTSTATUS IopQueryDirect(PFILE_OBJECT file, UCHAR major, ULONG informationClass, ULONG length, PVOID buffer,
                        PULONG returned) {
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(file);
    KEVENT event;
    IO_STATUS_BLOCK iosb{};
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    PIRP irp = IopBuildServiceIrp(device, file, major, KernelMode, &iosb, &event);
    if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
    ObfReferenceObject(file);  // released by the packet's completion
    irp->Flags |= IRP_SYNCHRONOUS_API;
    irp->AssociatedIrp.SystemBuffer = buffer;
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->Parameters.QueryFile.Length = length;  // QueryVolume shares this layout
    sp->Parameters.QueryFile.FileInformationClass = FILE_INFORMATION_CLASS(informationClass);
    bool synchronous = (file->Flags & FO_SYNCHRONOUS_IO) != 0;
    if (synchronous) IopAcquireFileObjectLock(file);
    iosb.Information = 0;
    NTSTATUS status = IopSendAndWait(device, irp, &event, &iosb);
    if (synchronous) IopReleaseFileObjectLock(file);
    if (returned) *returned = ULONG(iosb.Information);
    return status;
}

}  // namespace tervane::emu

using namespace tervane::emu;

NTSTATUS IoQueryFileInformation(PFILE_OBJECT FileObject, FILE_INFORMATION_CLASS FileInformationClass, ULONG Length,
                                PVOID FileInformation, PULONG ReturnedLength) {
    return IopQueryDirect(FileObject, IRP_MJ_QUERY_INFORMATION, FileInformationClass, Length, FileInformation,
                          ReturnedLength);
}

#define INFORMATION_SERVICES(P, MODE)                                                                        \
    NTSTATUS P##QueryInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, \
                                     ULONG Length, FILE_INFORMATION_CLASS FileInformationClass) {              \
        PreviousModeScope scope(MODE);                                                                       \
        return QueryInformation(MODE, FileHandle, IoStatusBlock, FileInformation, Length, FileInformationClass); \
    }                                                                                                        \
    NTSTATUS P##SetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,   \
                                   ULONG Length, FILE_INFORMATION_CLASS FileInformationClass) {                \
        PreviousModeScope scope(MODE);                                                                       \
        return SetInformation(MODE, FileHandle, IoStatusBlock, FileInformation, Length, FileInformationClass); \
    }

INFORMATION_SERVICES(Nt, UserMode)
INFORMATION_SERVICES(Zw, KernelMode)
