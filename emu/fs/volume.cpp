// The emulated NTFS driver: loading, mounting host directories as volumes,
// volume information, file-system controls, flush, and shutdown.
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "fs/fsstruc.h"
#include "fs/names.h"
#include "kernel.h"

namespace tervane::emu {

namespace fs {
namespace {

// Both devices of a volume carry this extension.
struct VolumeExtension {
    ULONG magic;
    Vcb* vcb;
};
constexpr ULONG kExtensionMagic = MakeTag("TfsX");
constexpr ULONG kFileDeviceIsMounted = 0x00000020;
// What NTFS reports on NT 5.x: case-sensitive search, case-preserved and
// Unicode names, persistent ACLs, compression, quotas, sparse files,
// reparse points, object ids, encryption and named streams.
constexpr ULONG kNtfsAttributes = 0x000700FF;

struct Globals {
    std::mutex mutex;
    PDRIVER_OBJECT driver = nullptr;
    ULONG nextVolume = 1;
    std::vector<Vcb*> volumes;
    bool forceMetadataFiles = false;
};
Globals& G() {
    static Globals g;
    return g;
}

NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    for (auto& f : driver->MajorFunction) f = nullptr;
    driver->MajorFunction[IRP_MJ_CREATE] = FsdCreate;
    driver->MajorFunction[IRP_MJ_CLEANUP] = FsdCleanup;
    driver->MajorFunction[IRP_MJ_CLOSE] = FsdClose;
    driver->MajorFunction[IRP_MJ_READ] = FsdRead;
    driver->MajorFunction[IRP_MJ_WRITE] = FsdWrite;
    driver->MajorFunction[IRP_MJ_QUERY_INFORMATION] = FsdQueryInformation;
    driver->MajorFunction[IRP_MJ_SET_INFORMATION] = FsdSetInformation;
    driver->MajorFunction[IRP_MJ_DIRECTORY_CONTROL] = FsdDirectoryControl;
    driver->MajorFunction[IRP_MJ_QUERY_VOLUME_INFORMATION] = FsdQueryVolumeInformation;
    driver->MajorFunction[IRP_MJ_FILE_SYSTEM_CONTROL] = FsdFileSystemControl;
    driver->MajorFunction[IRP_MJ_LOCK_CONTROL] = FsdLockControl;
    driver->MajorFunction[IRP_MJ_QUERY_SECURITY] = FsdQuerySecurity;
    driver->MajorFunction[IRP_MJ_SET_SECURITY] = FsdSetSecurity;
    driver->MajorFunction[IRP_MJ_FLUSH_BUFFERS] = FsdFlushBuffers;
    return STATUS_SUCCESS;
}

// Copies a fixed record and a trailing name into BUF of LENGTH bytes:
// STATUS_INFO_LENGTH_MISMATCH below the fixed part, otherwise as much of the
// name as fits with STATUS_BUFFER_OVERFLOW when it is cut short.
NTSTATUS FillWithName(PVOID buf, ULONG length, const void* fixed, ULONG fixedSize, ULONG nameOffset,
                      const std::u16string& name, ULONG_PTR* information) {
    if (length < fixedSize) return STATUS_INFO_LENGTH_MISMATCH;
    memcpy(buf, fixed, fixedSize);
    ULONG bytes = static_cast<ULONG>(name.size() * 2);
    ULONG room = length - nameOffset;
    ULONG copy = bytes < room ? bytes : room & ~1u;
    memcpy(static_cast<char*>(buf) + nameOffset, name.data(), copy);
    *information = nameOffset + copy;
    if (*information < fixedSize) *information = fixedSize;
    return copy < bytes ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

// Copies a fixed-size record into BUF of LENGTH bytes.
NTSTATUS FillFixed(PVOID buf, ULONG length, const void* record, ULONG size, ULONG_PTR* information) {
    if (length < size) return STATUS_INFO_LENGTH_MISMATCH;
    memcpy(buf, record, size);
    *information = size;
    return STATUS_SUCCESS;
}

constexpr ULONG kSectorSize = 512;

// The host file system's space in allocation units of this volume.
struct HostSpace {
    LONGLONG total = 0, callerAvailable = 0, actualAvailable = 0;
};
HostSpace QuerySpace(const Vcb* vcb) {
    struct statvfs sv {};
    HostSpace space;
    if (fstatvfs(vcb->rootFd, &sv) != 0) return space;
    auto units = [&](unsigned long long blocks) {
        return static_cast<LONGLONG>(blocks * sv.f_frsize / kClusterSize);
    };
    space.total = units(sv.f_blocks);
    space.callerAvailable = units(sv.f_bavail);
    space.actualAvailable = units(sv.f_bfree);
    return space;
}

}  // namespace

Vcb* VcbOf(PDEVICE_OBJECT device) {
    auto* ext = static_cast<VolumeExtension*>(device ? device->DeviceExtension : nullptr);
    return ext && ext->magic == kExtensionMagic ? ext->vcb : nullptr;
}

void FsSetForceMetadataFiles(bool force) {
    std::lock_guard<std::mutex> lock(G().mutex);
    G().forceMetadataFiles = force;
}

NTSTATUS FsdQueryVolumeInformation(PDEVICE_OBJECT device, PIRP irp) {
    Vcb* vcb = VcbOf(device);
    if (!vcb) return CompleteRequest(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    ULONG length = sp->Parameters.QueryVolume.Length;
    PVOID buf = irp->AssociatedIrp.SystemBuffer ? irp->AssociatedIrp.SystemBuffer : RequestBuffer(irp);
    ULONG_PTR info = 0;
    NTSTATUS status;
    ULONG cls = ClassValue(sp->Parameters.QueryVolume.FsInformationClass);
    switch (cls) {
        case FileFsVolumeInformation: {
            FILE_FS_VOLUME_INFORMATION r{};
            r.VolumeCreationTime.QuadPart = vcb->creationTime;
            r.VolumeSerialNumber = vcb->serialNumber;
            r.VolumeLabelLength = 0;
            r.SupportsObjects = TRUE;
            status = FillWithName(buf, length, &r, FIELD_OFFSET(FILE_FS_VOLUME_INFORMATION, VolumeLabel),
                                  FIELD_OFFSET(FILE_FS_VOLUME_INFORMATION, VolumeLabel), u"", &info);
            break;
        }
        case FileFsSizeInformation: {
            HostSpace space = QuerySpace(vcb);
            FILE_FS_SIZE_INFORMATION r{};
            r.TotalAllocationUnits.QuadPart = space.total;
            r.AvailableAllocationUnits.QuadPart = space.callerAvailable;
            r.SectorsPerAllocationUnit = kClusterSize / kSectorSize;
            r.BytesPerSector = kSectorSize;
            status = FillFixed(buf, length, &r, sizeof r, &info);
            break;
        }
        case FileFsFullSizeInformation: {
            HostSpace space = QuerySpace(vcb);
            FILE_FS_FULL_SIZE_INFORMATION r{};
            r.TotalAllocationUnits.QuadPart = space.total;
            r.CallerAvailableAllocationUnits.QuadPart = space.callerAvailable;
            r.ActualAvailableAllocationUnits.QuadPart = space.actualAvailable;
            r.SectorsPerAllocationUnit = kClusterSize / kSectorSize;
            r.BytesPerSector = kSectorSize;
            status = FillFixed(buf, length, &r, sizeof r, &info);
            break;
        }
        case FileFsDeviceInformation: {
            FILE_FS_DEVICE_INFORMATION r{FILE_DEVICE_DISK, kFileDeviceIsMounted};
            status = FillFixed(buf, length, &r, sizeof r, &info);
            break;
        }
        case FileFsAttributeInformation: {
            FILE_FS_ATTRIBUTE_INFORMATION r{};
            r.FileSystemAttributes = kNtfsAttributes;
            r.MaximumComponentNameLength = static_cast<LONG>(kMaxComponentLength);
            r.FileSystemNameLength = 8;
            status = FillWithName(buf, length, &r, FIELD_OFFSET(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName),
                                  FIELD_OFFSET(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName), u"NTFS", &info);
            break;
        }
        default:
            // Classes past the end are the I/O manager's to refuse; the
            // rest are valid classes this volume does not answer.
            status = cls >= FileFsMaximumInformation || cls < FileFsVolumeInformation ? STATUS_INVALID_INFO_CLASS
                                                                                      : STATUS_INVALID_PARAMETER;
            break;
    }
    return CompleteRequest(irp, status, info);
}

NTSTATUS FsdFileSystemControl(PDEVICE_OBJECT device, PIRP irp) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    if (!VcbOf(device) || sp->MinorFunction != IRP_MN_USER_FS_REQUEST)
        return CompleteRequest(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    switch (sp->Parameters.FileSystemControl.FsControlCode) {
        case FSCTL_IS_VOLUME_MOUNTED: return CompleteRequest(irp, STATUS_SUCCESS, 0);
        case FSCTL_GET_REPARSE_POINT: return CompleteRequest(irp, STATUS_NOT_A_REPARSE_POINT, 0);
        default: return CompleteRequest(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
}

NTSTATUS FsdFlushBuffers(PDEVICE_OBJECT device, PIRP irp) {
    Vcb* vcb = VcbOf(device);
    Fcb* fcb = FcbOf(IoGetCurrentIrpStackLocation(irp)->FileObject);
    if (!vcb || !fcb) return CompleteRequest(irp, STATUS_INVALID_PARAMETER, 0);
    std::unique_lock<VolumeMutex> lock(vcb->mutex);
    if (fcb->fd >= 0 && !fcb->isDirectory) fdatasync(fcb->fd);
    return CompleteRequest(irp, STATUS_SUCCESS, 0);
}

}  // namespace fs

using namespace fs;

NTSTATUS FsMountVolume(const std::string& hostDir, std::u16string* deviceName) {
    Globals& g = G();
    std::lock_guard<std::mutex> glock(g.mutex);
    if (!g.driver) {
        NTSTATUS status = IoLoadDriver(u"\\FileSystem\\Ntfs", DriverEntry, &g.driver);
        if (!NT_SUCCESS(status)) return status;
    }
    std::error_code ec;
    std::filesystem::create_directories(hostDir, ec);
    int rootFd = open(hostDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (rootFd < 0) return STATUS_OBJECT_PATH_NOT_FOUND;
    struct stat st;
    fstat(rootFd, &st);

    auto vcb = std::make_unique<Vcb>();
    vcb->hostRoot = hostDir;
    vcb->rootFd = rootFd;
    vcb->rootDev = st.st_dev;
    vcb->rootIno = st.st_ino;
    vcb->serialNumber = static_cast<ULONG>(std::hash<std::string>()(std::to_string(st.st_dev) + ":" +
                                                                     std::to_string(st.st_ino)));
    vcb->store = std::make_unique<MetaStore>(rootFd, g.forceMetadataFiles);
    FileMeta rootMeta;
    vcb->creationTime = vcb->store->Load(rootFd, st.st_ino, &rootMeta) && (rootMeta.present & FileMeta::kHasCreationTime)
                            ? rootMeta.creationTime
                            : NtTimeFromUnix(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);

    std::u16string name = u"\\Device\\HarddiskVolume" + Utf8ToUtf16(std::to_string(g.nextVolume));
    UNICODE_STRING uname = MakeUnicodeString(name);
    PDEVICE_OBJECT storage = nullptr, volume = nullptr;
    NTSTATUS status = IoCreateDevice(g.driver, sizeof(VolumeExtension), &uname, FILE_DEVICE_DISK, 0, FALSE, &storage);
    if (!NT_SUCCESS(status)) {
        close(rootFd);
        return status;
    }
    status = IoCreateDevice(g.driver, sizeof(VolumeExtension), nullptr, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &volume);
    if (!NT_SUCCESS(status)) {
        IoDeleteDevice(storage);
        close(rootFd);
        return status;
    }
    ++g.nextVolume;
    PVPB vpb = storage->Vpb;
    if (!vpb) {
        vpb = static_cast<PVPB>(ExAllocatePoolWithTag(NonPagedPool, sizeof(VPB), kTagVpb));
        if (!vpb) {
            IoDeleteDevice(volume);
            IoDeleteDevice(storage);
            close(rootFd);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        memset(vpb, 0, sizeof(VPB));
        vpb->Type = 10;  // IO_TYPE_VPB
        vpb->Size = sizeof(VPB);
        storage->Vpb = vpb;
        vcb->ownVpb = true;
    }
    vpb->DeviceObject = volume;
    vpb->RealDevice = storage;
    vpb->SerialNumber = vcb->serialNumber;
    volume->StackSize = static_cast<CCHAR>(storage->StackSize + 1);
    volume->Flags &= ~DO_DEVICE_INITIALIZING;
    storage->Flags &= ~DO_DEVICE_INITIALIZING;
    vcb->volumeDevice = volume;
    vcb->storageDevice = storage;
    vcb->vpb = vpb;
    Vcb* raw = vcb.release();
    *static_cast<VolumeExtension*>(storage->DeviceExtension) = {kExtensionMagic, raw};
    *static_cast<VolumeExtension*>(volume->DeviceExtension) = {kExtensionMagic, raw};
    // Last, and published: an open that finds the volume mounted without
    // the mount lock finds the volume whole.
    __atomic_or_fetch(&vpb->Flags, VPB_MOUNTED, __ATOMIC_RELEASE);
    g.volumes.push_back(raw);
    *deviceName = name;
    return STATUS_SUCCESS;
}

void FsShutdown() {
    Globals& g = G();
    std::lock_guard<std::mutex> glock(g.mutex);
    for (Vcb* vcb : g.volumes) {
        std::vector<PIRP> done;
        {
            std::lock_guard<VolumeMutex> lock(vcb->mutex);
            for (auto& w : vcb->notifyWaiters) {
                w.irp->IoStatus.Status = STATUS_CANCELLED;
                w.irp->IoStatus.Information = 0;
                done.push_back(w.irp);
            }
            vcb->notifyWaiters.clear();
            for (auto& [ino, fcb] : vcb->fcbs) {
                for (PIRP irp : fcb->waitingLocks) {
                    irp->IoStatus.Status = STATUS_CANCELLED;
                    irp->IoStatus.Information = 0;
                    done.push_back(irp);
                }
                fcb->waitingLocks.clear();
            }
        }
        CompleteAll(done);
        // Whatever file objects still point here are the verifier's to
        // report; their control blocks go with the volume.
        for (auto& [ino, fcb] : vcb->fcbs) DeleteFcb(fcb);
        vcb->fcbs.clear();
        if (vcb->volumeFcb) DeleteFcb(vcb->volumeFcb);
        if (vcb->ownVpb) {
            vcb->storageDevice->Vpb = nullptr;
            ExFreePoolWithTag(vcb->vpb, kTagVpb);
        }
        IoDeleteDevice(vcb->volumeDevice);
        IoDeleteDevice(vcb->storageDevice);
        vcb->store.reset();
        close(vcb->rootFd);
        delete vcb;
    }
    g.volumes.clear();
    g.driver = nullptr;
    g.nextVolume = 1;
}

}  // namespace tervane::emu
