// Device objects: creation and deletion, device stacks (attach, detach, the
// top of a stack), the device a file object's requests go to, and the list
// of registered file systems.
#include <vector>

#include "io/io_internal.h"

namespace {
POBJECT_TYPE g_deviceType;
POBJECT_TYPE g_driverType;
}  // namespace

POBJECT_TYPE* IoDeviceObjectType = &g_deviceType;
POBJECT_TYPE* IoDriverObjectType = &g_driverType;

namespace tervane::emu {
namespace {

std::recursive_mutex g_stackLock;  // AttachedDevice links and the lists below
std::vector<PDEVICE_OBJECT> g_fileSystems;
std::vector<PDRIVER_OBJECT> g_drivers;

void DeleteDevice(PVOID object) {
    auto* device = static_cast<PDEVICE_OBJECT>(object);
    if (device->Vpb) ExFreePoolWithTag(device->Vpb, kTagVpb);
    device->Vpb = nullptr;
}

bool NeedsVpb(ULONG type) {
    return type == FILE_DEVICE_DISK || type == FILE_DEVICE_CD_ROM || type == FILE_DEVICE_TAPE ||
           type == FILE_DEVICE_VIRTUAL_DISK;
}

}  // namespace

void IopCreateDeviceTypes() {
    if (!g_deviceType) {
        ObjectTypeInit init{};
        init.name = "Device";
        init.mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
        init.validAccess = FILE_ALL_ACCESS;
        init.deleteProcedure = DeleteDevice;
        g_deviceType = ObCreateObjectType(init);
    }
    if (!g_driverType) {
        ObjectTypeInit init{};
        init.name = "Driver";
        init.mapping = {STANDARD_RIGHTS_READ, STANDARD_RIGHTS_WRITE, STANDARD_RIGHTS_EXECUTE,
                        STANDARD_RIGHTS_REQUIRED | 0x1};
        init.validAccess = STANDARD_RIGHTS_REQUIRED | 0x1;
        g_driverType = ObCreateObjectType(init);
    }
}

void IopRememberDriver(PDRIVER_OBJECT driver) {
    std::lock_guard<std::recursive_mutex> guard(g_stackLock);
    g_drivers.push_back(driver);
}

std::vector<PDEVICE_OBJECT> IopRegisteredFileSystems() {
    std::lock_guard<std::recursive_mutex> guard(g_stackLock);
    return g_fileSystems;
}

void IopForgetDevices() {
    std::vector<PDRIVER_OBJECT> drivers;
    {
        std::lock_guard<std::recursive_mutex> guard(g_stackLock);
        drivers.swap(g_drivers);
        g_fileSystems.clear();
    }
    // Detach every stack first, then delete: a system going down.
    for (PDRIVER_OBJECT driver : drivers)
        for (PDEVICE_OBJECT device = driver->DeviceObject; device; device = device->NextDevice)
            if (IopDeviceExtension(device)->AttachedTo) IoDetachDevice(IopDeviceExtension(device)->AttachedTo);
    for (PDRIVER_OBJECT driver : drivers) {
        while (driver->DeviceObject) IoDeleteDevice(driver->DeviceObject);
        ObfDereferenceObject(driver);
    }
}

}  // namespace tervane::emu

using namespace tervane::emu;

NTSTATUS IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                        ULONG DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                        PDEVICE_OBJECT* DeviceObject) {
    *DeviceObject = nullptr;
    std::u16string name;
    NTSTATUS status = ObpCaptureName(DeviceName, &name);
    if (!NT_SUCCESS(status)) return status;
    ULONG extensionSize = ULONG(ALIGN_UP_BY(DeviceExtensionSize, 16));
    PVOID object;
    status = ObCreateObject(*IoDeviceObjectType,
                            ULONG(sizeof(DEVICE_OBJECT) + extensionSize + sizeof(DeviceObjectExtension)), &object);
    if (!NT_SUCCESS(status)) return status;
    auto* device = static_cast<PDEVICE_OBJECT>(object);
    device->Type = IO_TYPE_DEVICE;
    device->Size = USHORT(sizeof(DEVICE_OBJECT) + DeviceExtensionSize);
    device->DriverObject = DriverObject;
    device->DeviceType = DeviceType;
    device->Characteristics = DeviceCharacteristics;
    device->StackSize = 1;
    device->Flags = DO_DEVICE_INITIALIZING | (Exclusive ? DO_EXCLUSIVE : 0) | (name.empty() ? 0 : DO_DEVICE_HAS_NAME);
    device->DeviceExtension = DeviceExtensionSize ? device + 1 : nullptr;
    if (NeedsVpb(DeviceType)) device->SectorSize = 512;
    KeInitializeEvent(&device->DeviceLock, SynchronizationEvent, TRUE);
    auto* extension =
        reinterpret_cast<DeviceObjectExtension*>(reinterpret_cast<char*>(device + 1) + extensionSize);
    extension->Type = IO_TYPE_DEVICE_OBJECT_EXTENSION;
    extension->Size = sizeof(DeviceObjectExtension);
    extension->DeviceObject = device;
    device->DeviceObjectExtension = extension;
    if (NeedsVpb(DeviceType)) {
        auto* vpb = static_cast<PVPB>(ExAllocatePoolWithTag(NonPagedPool, sizeof(VPB), kTagVpb));
        if (!vpb) {
            ObfDereferenceObject(device);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        memset(vpb, 0, sizeof(VPB));
        vpb->Type = IO_TYPE_VPB;
        vpb->Size = sizeof(VPB);
        vpb->RealDevice = device;
        device->Vpb = vpb;
    }
    if (!name.empty()) {
        status = ObpInsertName(device, name);
        if (!NT_SUCCESS(status)) {
            ObfDereferenceObject(device);
            return status;
        }
    }
    if (DriverObject) {
        std::lock_guard<std::recursive_mutex> guard(g_stackLock);
        device->NextDevice = DriverObject->DeviceObject;
        DriverObject->DeviceObject = device;
    }
    *DeviceObject = device;
    return STATUS_SUCCESS;
}

VOID IoDeleteDevice(PDEVICE_OBJECT DeviceObject) {
    {
        std::lock_guard<std::recursive_mutex> guard(g_stackLock);
        DeviceObjectExtension* extension = IopDeviceExtension(DeviceObject);
        if (extension->deletePending) {
            VerifierViolation("IoDeleteDevice called twice for one device");
            return;
        }
        extension->deletePending = true;
        PDRIVER_OBJECT driver = DeviceObject->DriverObject;
        if (driver) {
            for (PDEVICE_OBJECT* link = &driver->DeviceObject; *link; link = &(*link)->NextDevice) {
                if (*link == DeviceObject) {
                    *link = DeviceObject->NextDevice;
                    break;
                }
            }
        }
        std::erase(g_fileSystems, DeviceObject);
    }
    ObpRemoveName(DeviceObject);
    ObfDereferenceObject(DeviceObject);  // the creation reference; open files keep theirs
}

PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice) {
    std::lock_guard<std::recursive_mutex> guard(g_stackLock);
    PDEVICE_OBJECT top = IoGetAttachedDevice(TargetDevice);
    if (IopDeviceExtension(top)->deletePending) return nullptr;
    SourceDevice->StackSize = CCHAR(top->StackSize + 1);
    SourceDevice->AlignmentRequirement = top->AlignmentRequirement;
    SourceDevice->SectorSize = top->SectorSize;
    IopDeviceExtension(SourceDevice)->AttachedTo = top;
    // Published last: a reader that finds the new device finds it whole.
    __atomic_store_n(&top->AttachedDevice, SourceDevice, __ATOMIC_RELEASE);
    return top;
}

VOID IoDetachDevice(PDEVICE_OBJECT TargetDevice) {
    std::lock_guard<std::recursive_mutex> guard(g_stackLock);
    PDEVICE_OBJECT above = TargetDevice->AttachedDevice;
    if (!above) return;
    IopDeviceExtension(above)->AttachedTo = nullptr;
    __atomic_store_n(&TargetDevice->AttachedDevice, nullptr, __ATOMIC_RELEASE);
}

// Every request finds its stack's top here, so the links are read without
// the stack lock: they change only under it, each by one atomic store.
PDEVICE_OBJECT IoGetAttachedDevice(PDEVICE_OBJECT DeviceObject) {
    for (;;) {
        PDEVICE_OBJECT above = __atomic_load_n(&DeviceObject->AttachedDevice, __ATOMIC_ACQUIRE);
        if (!above) return DeviceObject;
        DeviceObject = above;
    }
}

PDEVICE_OBJECT IoGetAttachedDeviceReference(PDEVICE_OBJECT DeviceObject) {
    std::lock_guard<std::recursive_mutex> guard(g_stackLock);
    PDEVICE_OBJECT top = IoGetAttachedDevice(DeviceObject);
    ObfReferenceObject(top);
    return top;
}

PDEVICE_OBJECT IoGetRelatedDeviceObject(PFILE_OBJECT FileObject) {
    PDEVICE_OBJECT device;
    if (FileObject->Vpb && FileObject->Vpb->DeviceObject) {
        device = FileObject->Vpb->DeviceObject;
    } else if (!(FileObject->Flags & FO_DIRECT_DEVICE_OPEN) && FileObject->DeviceObject->Vpb &&
               FileObject->DeviceObject->Vpb->DeviceObject) {
        device = FileObject->DeviceObject->Vpb->DeviceObject;
    } else {
        device = FileObject->DeviceObject;
    }
    return IoGetAttachedDevice(device);
}

VOID IoRegisterFileSystem(PDEVICE_OBJECT DeviceObject) {
    std::lock_guard<std::recursive_mutex> guard(g_stackLock);
    DeviceObject->Flags &= ~DO_DEVICE_INITIALIZING;
    g_fileSystems.push_back(DeviceObject);
}
