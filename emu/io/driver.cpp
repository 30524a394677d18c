// Driver objects and loading: "\Driver\NAME" (or a full "\FileSystem\NAME"),
// every major function defaulting to a routine that refuses the request,
// and DO_DEVICE_INITIALIZING cleared on the devices DriverEntry created.
#include "io/io_internal.h"

namespace tervane::emu {
namespace {

NTSTATUS NTAPI InvalidDeviceRequest(PDEVICE_OBJECT device, PIRP irp) {
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Information = 0;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

}  // namespace

NTSTATUS IoLoadDriver(const std::u16string& name, PDRIVER_INITIALIZE entry, PDRIVER_OBJECT* driverObject,
                      PVOID imageBase, ULONG imageSize) {
    if (driverObject) *driverObject = nullptr;
    if (name.empty() || !entry) return STATUS_INVALID_PARAMETER;
    std::u16string fullName = name[0] == u'\\' ? name : u"\\Driver\\" + name;
    std::u16string serviceName = fullName.substr(fullName.rfind(u'\\') + 1);
    std::u16string registryPath = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + serviceName;
    size_t nameBytes = fullName.size() * 2, serviceBytes = serviceName.size() * 2;
    PVOID object;
    NTSTATUS status = ObCreateObject(
        *IoDriverObjectType, ULONG(sizeof(DRIVER_OBJECT) + sizeof(DRIVER_EXTENSION) + nameBytes + serviceBytes),
        &object);
    if (!NT_SUCCESS(status)) return status;
    auto* driver = static_cast<PDRIVER_OBJECT>(object);
    auto* extension = reinterpret_cast<PDRIVER_EXTENSION>(driver + 1);
    auto* chars = reinterpret_cast<char*>(extension + 1);
    memcpy(chars, fullName.data(), nameBytes);
    memcpy(chars + nameBytes, serviceName.data(), serviceBytes);
    driver->Type = IO_TYPE_DRIVER;
    driver->Size = sizeof(DRIVER_OBJECT);
    driver->DriverExtension = extension;
    extension->DriverObject = driver;
    extension->ServiceKeyName = {USHORT(serviceBytes), USHORT(serviceBytes), reinterpret_cast<PWSTR>(chars + nameBytes)};
    driver->DriverName = {USHORT(nameBytes), USHORT(nameBytes), reinterpret_cast<PWSTR>(chars)};
    driver->DriverInit = entry;
    driver->DriverStart = imageBase;
    driver->DriverSize = imageSize;
    for (auto& routine : driver->MajorFunction) routine = InvalidDeviceRequest;
    status = ObpInsertName(driver, fullName);
    if (!NT_SUCCESS(status)) {
        ObfDereferenceObject(driver);
        return status;
    }
    UNICODE_STRING path = MakeUnicodeString(registryPath);
    LONG depth = EmuKeGetCriticalRegionDepth();
    status = entry(driver, &path);
    if (EmuKeGetCriticalRegionDepth() != depth)
        VerifierCheckCriticalRegion(depth, "DriverEntry of " + Utf16ToUtf8(fullName));
    if (!NT_SUCCESS(status)) {
        // A driver that fails to load is gone, with whatever it left behind.
        while (driver->DeviceObject) IoDeleteDevice(driver->DeviceObject);
        ObpRemoveName(driver);
        ObfDereferenceObject(driver);
        return status;
    }
    for (PDEVICE_OBJECT device = driver->DeviceObject; device; device = device->NextDevice)
        device->Flags &= ~DO_DEVICE_INITIALIZING;
    IopRememberDriver(driver);  // keeps the creation reference until shutdown
    if (driverObject) *driverObject = driver;
    return status;
}

void IoStartup() {
    IopCreateDeviceTypes();
    IopCreateFileType();
}

void IoShutdown() {
    IopForgetDevices();
    IopDrainIrpLookaside();
}

}  // namespace tervane::emu
