// Opening files: the name is resolved to a device and the rest of the name
// (or to a related file object and a relative name), the volume on the
// device is mounted if need be, a FILE_OBJECT is made and IRP_MJ_CREATE goes
// to the top of the stack of the device that serves it: the VPB's volume
// device when the device has a mounted volume, else the device itself.
#include <utility>

#include "io/io_internal.h"
#include "machine/adaptive_mutex.h"

namespace tervane::emu {
namespace {

AdaptiveMutex g_openLock;   // device checks and reference counts of one open
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
    // Once mounted, a volume stays so: most opens need not wait for a mount.
    if (__atomic_load_n(&vpb->Flags, __ATOMIC_ACQUIRE) & VPB_MOUNTED) {
        *result = vpb;
        return STATUS_SUCCESS;
    }
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
            __atomic_or_fetch(&vpb->Flags, VPB_MOUNTED, __ATOMIC_RELEASE);
            *result = vpb;
            return STATUS_SUCCESS;
        }
    }
    return STATUS_UNRECOGNIZED_VOLUME;
}

namespace {

// One open on its way through the I/O manager: what the caller asked for,
// and what the open found and made.
struct OpenPacket {
    KPROCESSOR_MODE mode;
    ACCESS_MASK desiredAccess;
    POBJECT_ATTRIBUTES attributes;
    PLARGE_INTEGER allocationSize;
    ULONG fileAttributes;
    ULONG shareAccess;
    ULONG disposition;
    ULONG createOptions;
    PVOID eaBuffer;
    ULONG eaLength;
    ULONG internalFlags;
    // The target: the device the open goes to, the mounted volume on it, a
    // related file object the name is relative to, and whether the open is
    // of the device itself.
    PDEVICE_OBJECT device = nullptr;
    PVPB vpb = nullptr;
    PFILE_OBJECT related = nullptr;
    bool direct = false;
    std::u16string remaining;  // the name below the device or related file
    // The outcome of the create request.
    IO_STATUS_BLOCK iosb{};
};

// A reference to an object, given back at the end of the scope unless
// the scope hands it on.
class ObjectReference {
public:
    ObjectReference() = default;
    explicit ObjectReference(PVOID object) : object_(object) {}
    ~ObjectReference() {
        if (object_) ObpDereferenceHeld(object_);
    }
    ObjectReference(const ObjectReference&) = delete;
    ObjectReference& operator=(const ObjectReference&) = delete;
    void Reset(PVOID object) {
        if (object_) ObpDereferenceHeld(object_);
        object_ = object;
    }
    PVOID Get() const { return object_; }
    PVOID Release() { return std::exchange(object_, nullptr); }

private:
    PVOID object_ = nullptr;
};

// Looks up the name and tells which device, volume and related file object
// the open goes through, mounting the volume when the device has none yet.
// TARGET holds the reference of the lookup.
NTSTATUS IopResolveTarget(OpenPacket& op, ObjectReference& target) {
    PVOID object;
    NTSTATUS status = ObpLookupByAttributes(op.attributes, op.mode, false, &object, &op.remaining);
    if (!NT_SUCCESS(status)) return status;
    target.Reset(object);
    POBJECT_TYPE type = ObGetObjectType(object);
    if (type == *IoFileObjectType) {
        op.related = static_cast<PFILE_OBJECT>(object);
        op.device = op.related->DeviceObject;
        op.vpb = op.related->Vpb;
        op.direct = (op.related->Flags & FO_DIRECT_DEVICE_OPEN) != 0;
        return STATUS_SUCCESS;
    }
    if (type != *IoDeviceObjectType) return STATUS_OBJECT_TYPE_MISMATCH;
    op.device = static_cast<PDEVICE_OBJECT>(object);
    op.direct = IsDirectDeviceOpen(op.remaining, op.desiredAccess);
    return op.direct ? STATUS_SUCCESS : IopMountIfNeeded(op.device, &op.vpb);
}

// A FILE_OBJECT for the open, once the device takes opens.
NTSTATUS IopMakeFileObject(OpenPacket& op, PFILE_OBJECT* file) {
    NTSTATUS status;
    {
        std::lock_guard<AdaptiveMutex> guard(g_openLock);
        if (IopDeviceExtension(op.device)->deletePending || (op.device->Flags & DO_DEVICE_INITIALIZING)) {
            status = STATUS_NO_SUCH_DEVICE;
        } else if ((op.device->Flags & DO_EXCLUSIVE) && op.device->ReferenceCount != 0 && !op.related) {
            status = STATUS_ACCESS_DENIED;  // an exclusive device is opened once at a time
        } else {
            status = IopCreateFileObject(op.device, op.vpb, op.remaining, file);
        }
    }
    if (!NT_SUCCESS(status)) return status;
    (*file)->Flags |= FileObjectFlags(op.createOptions, op.attributes->Attributes) |
                      (op.direct ? FO_DIRECT_DEVICE_OPEN : 0);
    (*file)->RelatedFileObject = op.related;
    return STATUS_SUCCESS;
}

// The security context and the IRP_MJ_CREATE request of the open, with a
// copy of the caller's extended attributes.
struct CreateRequest {
    ACCESS_STATE accessState{};
    IO_SECURITY_CONTEXT security{};
    PIRP irp = nullptr;
    PVOID eaCopy = nullptr;
    ~CreateRequest() {
        if (eaCopy) ExFreePoolWithTag(eaCopy, kTagBuffer);
    }
};

NTSTATUS IopBuildCreateRequest(OpenPacket& op, PFILE_OBJECT file, CreateRequest& rq) {
    PDEVICE_OBJECT top = IoGetRelatedDeviceObject(file);
    PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
    if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
    if (op.eaLength) {
        rq.eaCopy = ExAllocatePoolWithTag(NonPagedPool, op.eaLength, kTagBuffer);
        if (!rq.eaCopy) {
            IoFreeIrp(irp);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        memcpy(rq.eaCopy, op.eaBuffer, op.eaLength);
    }
    rq.irp = irp;

    ACCESS_MASK mapped = op.desiredAccess;
    RtlMapGenericMask(&mapped, IoGetFileObjectGenericMapping());
    rq.accessState.OriginalDesiredAccess = op.desiredAccess;
    rq.accessState.RemainingDesiredAccess = mapped;
    rq.security.SecurityQos = op.attributes->SecurityQualityOfService;
    rq.security.AccessState = &rq.accessState;
    rq.security.DesiredAccess = mapped;
    rq.security.FullCreateOptions = op.createOptions;

    irp->AllocationFlags |= kIrpService;
    irp->Flags = IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API | IRP_DEFER_IO_COMPLETION;
    irp->RequestorMode = op.mode;
    irp->UserIosb = &op.iosb;
    irp->UserEvent = &file->Event;
    irp->AssociatedIrp.SystemBuffer = rq.eaCopy;
    if (op.allocationSize) irp->Overlay.AllocationSize = *op.allocationSize;
    IopSetRequestingThread(irp, CurrentThread());
    irp->Tail.Overlay.OriginalFileObject = file;
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->MajorFunction = IRP_MJ_CREATE;
    if (!(op.attributes->Attributes & OBJ_CASE_INSENSITIVE)) sp->Flags |= SL_CASE_SENSITIVE;
    if (op.internalFlags & kOpenTargetDirectory) sp->Flags |= SL_OPEN_TARGET_DIRECTORY;
    if (op.mode == UserMode || (op.attributes->Attributes & OBJ_FORCE_ACCESS_CHECK)) sp->Flags |= SL_FORCE_ACCESS_CHECK;
    sp->Parameters.Create.SecurityContext = &rq.security;
    sp->Parameters.Create.Options = (op.disposition << 24) | (op.createOptions & FILE_VALID_OPTION_FLAGS);
    sp->Parameters.Create.FileAttributes = USHORT(op.fileAttributes);
    sp->Parameters.Create.ShareAccess = USHORT(op.shareAccess);
    sp->Parameters.Create.EaLength = op.eaLength;
    sp->FileObject = file;
    return STATUS_SUCCESS;
}

// Sends the request down and waits for it. As NT's parse routine: the
// outcome is the request's final status block (a completion routine above
// the file system may change it), not the value the dispatch routine
// returned.
NTSTATUS IopSendCreateRequest(OpenPacket& op, PFILE_OBJECT file, CreateRequest& rq) {
    op.iosb.Status = STATUS_PENDING;
    NTSTATUS status = IofCallDriver(IoGetRelatedDeviceObject(file), rq.irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&file->Event, Executive, KernelMode, FALSE, nullptr);
        status = op.iosb.Status;
    } else if (op.iosb.Status != STATUS_PENDING) {
        status = op.iosb.Status;
    }
    return status;
}

// The open succeeded: the file object gets its handle, and the caller the
// creation reference when it asked for it.
NTSTATUS IopFinishOpen(OpenPacket& op, ObjectReference& file, PHANDLE fileHandle,
                       PIO_STATUS_BLOCK ioStatusBlock, PFILE_OBJECT* openedFile) {
    PFILE_OBJECT fo = static_cast<PFILE_OBJECT>(file.Get());
    IopFileExtension(fo)->opened = true;
    fo->Flags |= FO_HANDLE_CREATED;
    NTSTATUS status = ObInsertHandle(fo, op.desiredAccess, op.attributes->Attributes, fileHandle);
    if (!NT_SUCCESS(status)) {
        ioStatusBlock->Status = status;
        return status;
    }
    if (openedFile) *openedFile = static_cast<PFILE_OBJECT>(file.Release());
    return STATUS_SUCCESS;
}

}  // namespace

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
    OpenPacket op{mode,       desiredAccess, attributes, allocationSize, fileAttributes, shareAccess,
                  disposition, createOptions, eaBuffer,   eaLength,       internalFlags};

    ObjectReference target;  // the related object is only held for the open
    status = IopResolveTarget(op, target);
    if (!NT_SUCCESS(status)) return status;
    PFILE_OBJECT fo;
    status = IopMakeFileObject(op, &fo);
    if (!NT_SUCCESS(status)) return status;
    // Until the handle exists, the file object is freed by its last
    // reference, without cleanup or close: it was never opened.
    ObjectReference file(fo);
    {
        CreateRequest rq;
        status = IopBuildCreateRequest(op, fo, rq);
        if (!NT_SUCCESS(status)) return status;
        status = IopSendCreateRequest(op, fo, rq);
    }
    target.Reset(nullptr);

    ioStatusBlock->Status = status;
    ioStatusBlock->Information = op.iosb.Status == STATUS_PENDING ? 0 : op.iosb.Information;
    if (!NT_SUCCESS(status) || status == STATUS_REPARSE) return status;
    NTSTATUS handleStatus = IopFinishOpen(op, file, fileHandle, ioStatusBlock, openedFile);
    return NT_SUCCESS(handleStatus) ? status : handleStatus;
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
