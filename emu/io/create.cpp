// Opening files: the name is resolved to a device and the rest of the name
// (or to a related file object and a relative name), the volume on the
// device is mounted if need be, a FILE_OBJECT is made and IRP_MJ_CREATE goes
// to the top of the stack of the device that serves it: the VPB's volume
// device when the device has a mounted volume, else the device itself.
#include "io/io_internal.h"

namespace tervane::emu {
namespace {

std::mutex g_openLock;   // device checks and reference counts of one open
std::mutex g_mountLock;  // one mount at a time

NTSTATUS CheckParameters(KPROCESSOR_MODE mode, ACCESS_MASK access, ULONG fileAttributes, ULONG share,
                         ULONG disposition, ULONG options) {
    const ULONG directoryOptions = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT |
                                   FILE_WRITE_THROUGH | FILE_COMPLETE_IF_OPLOCKED | FILE_OPEN_FOR_BACKUP_INTENT |
                                   FILE_DELETE_ON_CLOSE | FILE_OPEN_FOR_FREE_SPACE_QUERY | FILE_OPEN_BY_FILE_ID |
                                   FILE_NO_COMPRESSION | FILE_OPEN_REPARSE_POINT;
    const ULONG synchronous = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT;
    if ((fileAttributes & ~FILE_ATTRIBUTE_VALID_FLAGS) || (share & ~FILE_SHARE_VALID_FLAGS) ||
        disposition > FILE_MAXIMUM_DISPOSITION || (options & ~FILE_VALID_OPTION_FLAGS))
        return STATUS_INVALID_PARAMETER;
    if ((options & synchronous) == synchronous) return STATUS_INVALID_PARAMETER;
    // NT asks for SYNCHRONIZE with synchronous I/O only of user-mode callers:
    // kernel-mode opens (Zw*) skip the I/O manager's parameter checks.
    if ((options & synchronous) && !(access & SYNCHRONIZE) && mode != KernelMode) return STATUS_INVALID_PARAMETER;
    if ((options & FILE_DELETE_ON_CLOSE) && !(access & DELETE)) return STATUS_INVALID_PARAMETER;
    if (options & FILE_DIRECTORY_FILE) {
        if (options & ~directoryOptions) return STATUS_INVALID_PARAMETER;
        if (disposition != FILE_CREATE && disposition != FILE_OPEN && disposition != FILE_OPEN_IF)
            return STATUS_INVALID_PARAMETER;
    }
    if ((options & FILE_COMPLETE_IF_OPLOCKED) && (options & FILE_RESERVE_OPFILTER)) return STATUS_INVALID_PARAMETER;
    if ((options & FILE_NO_INTERMEDIATE_BUFFERING) && (access & FILE_APPEND_DATA)) return STATUS_INVALID_PARAMETER;
    return STATUS_SUCCESS;
}

ULONG FileObjectFlags(ULONG options, ULONG attributes) {
    ULONG flags = 0;
    if (options & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) flags |= FO_SYNCHRONOUS_IO;
    if (options & FILE_SYNCHRONOUS_IO_ALERT) flags |= FO_ALERTABLE_IO;
    if (options & FILE_NO_INTERMEDIATE_BUFFERING) flags |= FO_NO_INTERMEDIATE_BUFFERING;
    else flags |= FO_CACHE_SUPPORTED;
    if (options & FILE_WRITE_THROUGH) flags |= FO_WRITE_THROUGH;
    if (options & FILE_SEQUENTIAL_ONLY) flags |= FO_SEQUENTIAL_ONLY;
    if (options & FILE_RANDOM_ACCESS) flags |= FO_RANDOM_ACCESS;
    if (!(attributes & OBJ_CASE_INSENSITIVE)) flags |= FO_OPENED_CASE_SENSITIVE;
    return flags;
}

// An open of the device itself that needs no file system: an empty name and
// no access beyond what the device object answers alone.
bool IsDirectDeviceOpen(const std::u16string& remaining, ACCESS_MASK access) {
    const ACCESS_MASK deviceOnly =
        SYNCHRONIZE | FILE_READ_ATTRIBUTES | READ_CONTROL | ACCESS_SYSTEM_SECURITY | WRITE_OWNER | WRITE_DAC;
    return remaining.empty() && access && !(access & ~deviceOnly);
}

}  // namespace

NTSTATUS IopMountIfNeeded(PDEVICE_OBJECT device, PVPB* result) {
    *result = nullptr;
    PVPB vpb = device->Vpb;
    if (!vpb) return STATUS_SUCCESS;
    std::lock_guard<std::mutex> guard(g_mountLock);
    if (vpb->Flags & VPB_MOUNTED) {
        *result = vpb;
        return STATUS_SUCCESS;
    }
    for (PDEVICE_OBJECT fileSystem : IopRegisteredFileSystems()) {
        PDEVICE_OBJECT top = IoGetAttachedDevice(fileSystem);
        PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
        if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
        KEVENT event;
        IO_STATUS_BLOCK iosb{};
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        IopInitializeServiceIrp(irp, nullptr, IRP_MJ_FILE_SYSTEM_CONTROL, KernelMode, &iosb, &event);
        irp->Flags = IRP_MOUNT_COMPLETION | IRP_SYNCHRONOUS_API;
        PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
        sp->MinorFunction = IRP_MN_MOUNT_VOLUME;
        sp->Parameters.MountVolume.Vpb = vpb;
        sp->Parameters.MountVolume.DeviceObject = IoGetAttachedDevice(device);
        NTSTATUS status = IopSendAndWait(top, irp, &event, &iosb);
        if (NT_SUCCESS(status) && vpb->DeviceObject) {
            vpb->Flags |= VPB_MOUNTED;
            *result = vpb;
            return STATUS_SUCCESS;
        }
    }
    return STATUS_UNRECOGNIZED_VOLUME;
}

NTSTATUS IopCreateFile(KPROCESSOR_MODE mode, PHANDLE fileHandle, ACCESS_MASK desiredAccess,
                       POBJECT_ATTRIBUTES attributes, PIO_STATUS_BLOCK ioStatusBlock, PLARGE_INTEGER allocationSize,
                       ULONG fileAttributes, ULONG shareAccess, ULONG disposition, ULONG createOptions,
                       PVOID eaBuffer, ULONG eaLength, ULONG internalFlags, PFILE_OBJECT* openedFile) {
    if (openedFile) *openedFile = nullptr;
    if (!fileHandle || !ioStatusBlock || !attributes) return STATUS_ACCESS_VIOLATION;
    NTSTATUS status;
    if (!(internalFlags & kNoParameterChecking)) {
        status = CheckParameters(mode, desiredAccess, fileAttributes, shareAccess, disposition, createOptions);
        if (!NT_SUCCESS(status)) return status;
    }
    if (eaLength && !eaBuffer) return STATUS_INVALID_PARAMETER;

    PVOID object;
    std::u16string remaining;
    status = ObpLookupByAttributes(attributes, mode, false, &object, &remaining);
    if (!NT_SUCCESS(status)) return status;

    // Which device, volume and related file object the open goes through.
    PFILE_OBJECT related = nullptr;
    PDEVICE_OBJECT device;
    PVPB vpb = nullptr;
    bool direct = false;
    POBJECT_TYPE type = ObGetObjectType(object);
    if (type == *IoFileObjectType) {
        related = static_cast<PFILE_OBJECT>(object);
        device = related->DeviceObject;
        vpb = related->Vpb;
        direct = (related->Flags & FO_DIRECT_DEVICE_OPEN) != 0;
    } else if (type == *IoDeviceObjectType) {
        device = static_cast<PDEVICE_OBJECT>(object);
        direct = IsDirectDeviceOpen(remaining, desiredAccess);
        if (!direct) {
            status = IopMountIfNeeded(device, &vpb);
            if (!NT_SUCCESS(status)) {
                ObfDereferenceObject(object);
                return status;
            }
        }
    } else {
        ObfDereferenceObject(object);
        return STATUS_OBJECT_TYPE_MISMATCH;
    }

    PFILE_OBJECT file;
    {
        std::lock_guard<std::mutex> guard(g_openLock);
        if (IopDeviceExtension(device)->deletePending || (device->Flags & DO_DEVICE_INITIALIZING)) {
            status = STATUS_NO_SUCH_DEVICE;
        } else if ((device->Flags & DO_EXCLUSIVE) && device->ReferenceCount != 0 && !related) {
            status = STATUS_ACCESS_DENIED;  // an exclusive device is opened once at a time
        } else {
            status = IopCreateFileObject(device, vpb, remaining, &file);
        }
    }
    if (!NT_SUCCESS(status)) {
        ObfDereferenceObject(object);
        return status;
    }
    file->Flags |= FileObjectFlags(createOptions, attributes->Attributes) | (direct ? FO_DIRECT_DEVICE_OPEN : 0);
    file->RelatedFileObject = related;

    PDEVICE_OBJECT top = IoGetRelatedDeviceObject(file);
    PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
    PVOID eaCopy = nullptr;
    if (irp && eaLength) {
        eaCopy = ExAllocatePoolWithTag(NonPagedPool, eaLength, kTagBuffer);
        if (eaCopy) memcpy(eaCopy, eaBuffer, eaLength);
    }
    if (!irp || (eaLength && !eaCopy)) {
        if (irp) IoFreeIrp(irp);
        ObfDereferenceObject(file);
        ObfDereferenceObject(object);
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    ACCESS_MASK mapped = desiredAccess;
    RtlMapGenericMask(&mapped, IoGetFileObjectGenericMapping());
    ACCESS_STATE accessState{};
    accessState.OriginalDesiredAccess = desiredAccess;
    accessState.RemainingDesiredAccess = mapped;
    IO_SECURITY_CONTEXT security{};
    security.SecurityQos = attributes->SecurityQualityOfService;
    security.AccessState = &accessState;
    security.DesiredAccess = mapped;
    security.FullCreateOptions = createOptions;

    IO_STATUS_BLOCK local{};
    irp->AllocationFlags |= kIrpService;
    irp->Flags = IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API | IRP_DEFER_IO_COMPLETION;
    irp->RequestorMode = mode;
    irp->UserIosb = &local;
    irp->UserEvent = &file->Event;
    irp->AssociatedIrp.SystemBuffer = eaCopy;
    if (allocationSize) irp->Overlay.AllocationSize = *allocationSize;
    IopSetRequestingThread(irp, CurrentThread());
    irp->Tail.Overlay.OriginalFileObject = file;
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->MajorFunction = IRP_MJ_CREATE;
    if (!(attributes->Attributes & OBJ_CASE_INSENSITIVE)) sp->Flags |= SL_CASE_SENSITIVE;
    if (internalFlags & kOpenTargetDirectory) sp->Flags |= SL_OPEN_TARGET_DIRECTORY;
    if (mode == UserMode || (attributes->Attributes & OBJ_FORCE_ACCESS_CHECK)) sp->Flags |= SL_FORCE_ACCESS_CHECK;
    sp->Parameters.Create.SecurityContext = &security;
    sp->Parameters.Create.Options = (disposition << 24) | (createOptions & FILE_VALID_OPTION_FLAGS);
    sp->Parameters.Create.FileAttributes = USHORT(fileAttributes);
    sp->Parameters.Create.ShareAccess = USHORT(shareAccess);
    sp->Parameters.Create.EaLength = eaLength;
    sp->FileObject = file;

    local.Status = STATUS_PENDING;
    status = IofCallDriver(top, irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&file->Event, Executive, KernelMode, FALSE, nullptr);
        status = local.Status;
    } else if (local.Status != STATUS_PENDING) {
        // As NT's parse routine: the outcome is the request's final status
        // block (a completion routine above the file system may change it),
        // not the value the dispatch routine returned.
        status = local.Status;
    }
    if (eaCopy) ExFreePoolWithTag(eaCopy, kTagBuffer);
    if (related) ObfDereferenceObject(related);  // the related object is only held for the open
    else ObfDereferenceObject(object);

    ioStatusBlock->Status = status;
    ioStatusBlock->Information = local.Status == STATUS_PENDING ? 0 : local.Information;
    if (!NT_SUCCESS(status) || status == STATUS_REPARSE) {
        ObfDereferenceObject(file);  // never opened: freed without cleanup or close
        return status;
    }
    IopFileExtension(file)->opened = true;
    file->Flags |= FO_HANDLE_CREATED;
    NTSTATUS handleStatus = ObInsertHandle(file, desiredAccess, attributes->Attributes, fileHandle);
    if (!NT_SUCCESS(handleStatus)) {
        ObfDereferenceObject(file);
        ioStatusBlock->Status = handleStatus;
        return handleStatus;
    }
    if (openedFile) *openedFile = file;  // the creation reference goes to the caller
    else ObfDereferenceObject(file);
    return status;
}

NTSTATUS IopOpenTargetDirectory(PFILE_OBJECT source, HANDLE rootDirectory, const std::u16string& name,
                                bool sourceIsDirectory, PHANDLE handle, PFILE_OBJECT* target) {
    PreviousModeScope scope(KernelMode);
    UNICODE_STRING targetName = MakeUnicodeString(name);
    OBJECT_ATTRIBUTES attributes;
    ULONG flags = OBJ_KERNEL_HANDLE | ((source->Flags & FO_OPENED_CASE_SENSITIVE) ? 0 : OBJ_CASE_INSENSITIVE);
    InitializeObjectAttributes(&attributes, &targetName, flags, rootDirectory, nullptr);
    IO_STATUS_BLOCK iosb;
    ACCESS_MASK access = (sourceIsDirectory ? FILE_ADD_SUBDIRECTORY : FILE_ADD_FILE) | SYNCHRONIZE;
    NTSTATUS status = IopCreateFile(KernelMode, handle, access, &attributes, &iosb, nullptr, 0,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN, FILE_OPEN_FOR_BACKUP_INTENT,
                                    nullptr, 0, kOpenTargetDirectory | kNoParameterChecking, target);
    if (!NT_SUCCESS(status)) return status;
    if (IoGetRelatedDeviceObject(*target) != IoGetRelatedDeviceObject(source)) {
        ObpCloseHandle(*handle, KernelMode);
        ObfDereferenceObject(*target);
        *target = nullptr;
        *handle = nullptr;
        return STATUS_NOT_SAME_DEVICE;
    }
    return status;
}

}  // namespace tervane::emu

using namespace tervane::emu;

#define CREATE_SERVICES(P, MODE)                                                                               \
    NTSTATUS P##CreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes, \
                           PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,  \
                           ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,     \
                           ULONG EaLength) {                                                                    \
        PreviousModeScope scope(MODE);                                                                          \
        return IopCreateFile(MODE, FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, AllocationSize,  \
                             FileAttributes, ShareAccess, CreateDisposition, CreateOptions, EaBuffer, EaLength, \
                             0, nullptr);                                                                       \
    }                                                                                                           \
    NTSTATUS P##OpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,   \
                         PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions) {                \
        PreviousModeScope scope(MODE);                                                                          \
        return IopCreateFile(MODE, FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, nullptr, 0,      \
                             ShareAccess, FILE_OPEN, OpenOptions, nullptr, 0, 0, nullptr);                      \
    }

CREATE_SERVICES(Nt, UserMode)
CREATE_SERVICES(Zw, KernelMode)
