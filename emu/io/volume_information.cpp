// NtQueryVolumeInformationFile and IoQueryVolumeInformation. The device
// class (FileFsDeviceInformation) is answered by the I/O manager from the
// file object's device; the others go to the file system.
#include "io/io_internal.h"

namespace tervane::emu {

NTSTATUS IopQueryDirect(PFILE_OBJECT file, UCHAR major, ULONG informationClass, ULONG length, PVOID buffer,
                        PULONG returned);

namespace {

constexpr ULONG kControlInfoSize = 48, kObjectIdInfoSize = 64;

ULONG QueryLength(FS_INFORMATION_CLASS c) {
    switch (c) {
    case FileFsVolumeInformation: return sizeof(FILE_FS_VOLUME_INFORMATION);
    case FileFsSizeInformation: return sizeof(FILE_FS_SIZE_INFORMATION);
    case FileFsDeviceInformation: return sizeof(FILE_FS_DEVICE_INFORMATION);
    case FileFsAttributeInformation: return sizeof(FILE_FS_ATTRIBUTE_INFORMATION);
    case FileFsControlInformation: return kControlInfoSize;
    case FileFsFullSizeInformation: return sizeof(FILE_FS_FULL_SIZE_INFORMATION);
    case FileFsObjectIdInformation: return kObjectIdInfoSize;
    default: return 0;  // not a class one can query
    }
}

NTSTATUS QueryVolume(KPROCESSOR_MODE mode, HANDLE handle, PIO_STATUS_BLOCK iosb, PVOID buffer, ULONG length,
                     FS_INFORMATION_CLASS c) {
    if (!iosb) return STATUS_ACCESS_VIOLATION;
    ULONG minimum = QueryLength(c);
    if (!minimum) return STATUS_INVALID_INFO_CLASS;
    if (length < minimum) return STATUS_INFO_LENGTH_MISMATCH;
    if (!buffer) return STATUS_ACCESS_VIOLATION;
    FileRequest request;
    NTSTATUS status = IopReferenceFileRequest(handle, 0, nullptr, mode, &request);
    if (!NT_SUCCESS(status)) return status;
    if (c == FileFsDeviceInformation) {
        PDEVICE_OBJECT device = request.file->DeviceObject;
        auto* info = static_cast<PFILE_FS_DEVICE_INFORMATION>(buffer);
        info->DeviceType = device->DeviceType;
        info->Characteristics = device->Characteristics;
        if (device->Vpb && (device->Vpb->Flags & VPB_MOUNTED)) info->Characteristics |= FILE_DEVICE_IS_MOUNTED;
        iosb->Status = STATUS_SUCCESS;
        iosb->Information = sizeof(FILE_FS_DEVICE_INFORMATION);
        IopReleaseRequest(&request);
        return STATUS_SUCCESS;
    }
    PIRP irp = IopBuildRequestIrp(&request, IRP_MJ_QUERY_VOLUME_INFORMATION, mode, nullptr);
    if (!irp) return IopAbandonRequest(&request, nullptr, STATUS_INSUFFICIENT_RESOURCES);
    status = IopSetSystemBuffer(irp, buffer, length, true);
    if (!NT_SUCCESS(status)) return IopAbandonRequest(&request, irp, status);
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->Parameters.QueryVolume.Length = length;
    sp->Parameters.QueryVolume.FsInformationClass = c;
    KEVENT event;
    IO_STATUS_BLOCK local{};
    return IopSynchronousApi(&request, irp, iosb, &event, &local);
}

}  // namespace
}  // namespace tervane::emu

using namespace tervane::emu;

NTSTATUS IoQueryVolumeInformation(PFILE_OBJECT FileObject, FS_INFORMATION_CLASS FsInformationClass, ULONG Length,
                                  PVOID FsInformation, PULONG ReturnedLength) {
    return IopQueryDirect(FileObject, IRP_MJ_QUERY_VOLUME_INFORMATION, FsInformationClass, Length, FsInformation,
                          ReturnedLength);
}

#define VOLUME_SERVICES(P, MODE)                                                                             \
    NTSTATUS P##QueryVolumeInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,                \
                                           PVOID FsInformation, ULONG Length,                                \
                                           FS_INFORMATION_CLASS FsInformationClass) {                        \
        PreviousModeScope scope(MODE);                                                                       \
        return QueryVolume(MODE, FileHandle, IoStatusBlock, FsInformation, Length, FsInformationClass);      \
    }

VOLUME_SERVICES(Nt, UserMode)
VOLUME_SERVICES(Zw, KernelMode)
