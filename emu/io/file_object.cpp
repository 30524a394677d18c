// The life of a FILE_OBJECT: IRP_MJ_CLEANUP when its last handle closes,
// IRP_MJ_CLOSE when its last reference goes, both sent to the device its
// requests go to at that moment. A file object whose open failed is freed
// without either. Also: stream file objects, the lock that serialises
// requests on a synchronous file object, and the file generic mapping.
#include <algorithm>
#include <atomic>
#include <cstdio>

#include "io/io_internal.h"
#include "machine/sharded_set.h"

namespace {
POBJECT_TYPE g_fileType;
}  // namespace

POBJECT_TYPE* IoFileObjectType = &g_fileType;

namespace tervane::emu {
namespace {

ShardedPointerSet<FILE_OBJECT> g_files;  // every file object alive, until its deletion starts

// Sends a packet of the close path (cleanup, close, the unlock-all before
// cleanup) for FILE and waits for it; such packets are never refused.
void SendCloseOperation(PFILE_OBJECT file, UCHAR major, UCHAR minor = 0) {
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(file);
    PIRP irp = IopAllocateIrpMustSucceed(device->StackSize);
    KEVENT event;
    IO_STATUS_BLOCK iosb{};
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IopInitializeServiceIrp(irp, file, major, KernelMode, &iosb, &event);
    irp->Flags = IRP_CLOSE_OPERATION | IRP_SYNCHRONOUS_API;
    IoGetNextIrpStackLocation(irp)->MinorFunction = minor;
    IopSendAndWait(device, irp, &event, &iosb);
}

void UnlockAll(_EPROCESS* process, PFILE_OBJECT file) {
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(file);
    IO_STATUS_BLOCK iosb{};
    if (auto fast = IOP_FAST_IO(device, FastIoUnlockAll); fast && fast(file, process, &iosb, device)) return;
    SendCloseOperation(file, IRP_MJ_LOCK_CONTROL, IRP_MN_UNLOCK_ALL);
}

void CloseFile(_EPROCESS* process, PVOID object, ACCESS_MASK granted, ULONG handlesLeft) {
    auto* file = static_cast<PFILE_OBJECT>(object);
    FileObjectExtension* extension = IopFileExtension(file);
    if (handlesLeft != 0 || !extension->opened || extension->cleanedUp) return;
    if (file->LockOperation) UnlockAll(process, file);
    extension->cleanedUp = true;
    SendCloseOperation(file, IRP_MJ_CLEANUP);
}

void DeleteFile(PVOID object) {
    auto* file = static_cast<PFILE_OBJECT>(object);
    // First, so that no description reads what is freed below.
    g_files.Erase(file);
    if (IopFileExtension(file)->opened) SendCloseOperation(file, IRP_MJ_CLOSE);
    if (file->FileName.Buffer) ExFreePoolWithTag(file->FileName.Buffer, kTagName);
    file->FileName = {};
    if (file->Vpb) InterlockedDecrement(reinterpret_cast<LONG volatile*>(&file->Vpb->ReferenceCount));
    if (PDEVICE_OBJECT device = file->DeviceObject) {
        InterlockedDecrement(&device->ReferenceCount);
        ObpDereferenceHeld(device);
    }
}

}  // namespace

void IopCreateFileType() {
    if (g_fileType) return;
    ObjectTypeInit init{};
    init.name = "File";
    init.mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    init.validAccess = FILE_ALL_ACCESS;
    init.deleteProcedure = DeleteFile;
    init.closeProcedure = CloseFile;
    g_fileType = ObCreateObjectType(init);
}

NTSTATUS IopCreateFileObject(PDEVICE_OBJECT device, PVPB vpb, const std::u16string& name, PFILE_OBJECT* result) {
    *result = nullptr;
    PVOID object;
    NTSTATUS status =
        ObCreateObject(*IoFileObjectType, sizeof(FILE_OBJECT) + sizeof(FileObjectExtension), &object);
    if (!NT_SUCCESS(status)) return status;
    auto* file = static_cast<PFILE_OBJECT>(object);
    file->Type = IO_TYPE_FILE;
    file->Size = sizeof(FILE_OBJECT);
    KeInitializeEvent(&file->Lock, SynchronizationEvent, FALSE);
    KeInitializeEvent(&file->Event, NotificationEvent, FALSE);
    InitializeListHead(&file->IrpList);
    g_files.Insert(file);
    ObpReferenceHeld(device);
    InterlockedIncrement(&device->ReferenceCount);
    file->DeviceObject = device;
    if (vpb) {
        InterlockedIncrement(reinterpret_cast<LONG volatile*>(&vpb->ReferenceCount));
        file->Vpb = vpb;
    }
    if (!name.empty()) {
        size_t bytes = name.size() * 2;
        if (bytes > MAXUSHORT - 2) {
            ObfDereferenceObject(file);
            return STATUS_OBJECT_NAME_INVALID;
        }
        auto* buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(NonPagedPool, bytes + 2, kTagName));
        if (!buffer) {
            ObfDereferenceObject(file);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        memcpy(buffer, name.data(), bytes);
        buffer[name.size()] = 0;
        file->FileName = {USHORT(bytes), USHORT(bytes + 2), buffer};
    }
    *result = file;
    return STATUS_SUCCESS;
}

NTSTATUS IopSendAndWait(PDEVICE_OBJECT device, PIRP irp, PKEVENT event, PIO_STATUS_BLOCK iosb) {
    NTSTATUS status = IofCallDriver(device, irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(event, Executive, KernelMode, FALSE, nullptr);
        status = iosb->Status;
    }
    return status;
}

void IopAcquireFileObjectLock(PFILE_OBJECT file) {
    std::atomic_ref<ULONG> busy(file->Busy);
    std::atomic_ref<ULONG> waiters(file->Waiters);
    if (busy.exchange(1) == 0) return;
    for (;;) {
        waiters.fetch_add(1);
        if (busy.exchange(1) == 0) {
            waiters.fetch_sub(1);
            return;
        }
        KeWaitForSingleObject(&file->Lock, Executive, KernelMode, FALSE, nullptr);
        waiters.fetch_sub(1);
        if (busy.exchange(1) == 0) return;
    }
}

void IopReleaseFileObjectLock(PFILE_OBJECT file) {
    std::atomic_ref<ULONG>(file->Busy).store(0);
    if (std::atomic_ref<ULONG>(file->Waiters).load() != 0) KeSetEvent(&file->Lock, 0, FALSE);
}

NTSTATUS IopQueryFileObjectName(PVOID object, std::u16string* name) {
    auto* file = static_cast<PFILE_OBJECT>(object);
    *name = ObpFullName(file->DeviceObject);
    constexpr ULONG kLength = 4096;
    auto* info = static_cast<PFILE_NAME_INFORMATION>(ExAllocatePoolWithTag(NonPagedPool, kLength, kTagBuffer));
    if (!info) return STATUS_INSUFFICIENT_RESOURCES;
    ULONG returned = 0;
    NTSTATUS status = IoQueryFileInformation(file, FileNameInformation, kLength, info, &returned);
    if (NT_SUCCESS(status)) {
        ULONG chars = std::min<ULONG>(info->FileNameLength, kLength - FIELD_OFFSET(FILE_NAME_INFORMATION, FileName)) / 2;
        name->append(reinterpret_cast<const char16_t*>(info->FileName), chars);
    } else {
        name->append(reinterpret_cast<const char16_t*>(file->FileName.Buffer), file->FileName.Length / 2);
        status = STATUS_SUCCESS;
    }
    ExFreePoolWithTag(info, kTagBuffer);
    return status;
}

std::vector<std::string> IoDescribeFileObjects() {
    // In address order, each described under its shard's lock.
    std::vector<std::pair<PFILE_OBJECT, std::string>> described;
    g_files.ForEach([&described](PFILE_OBJECT file) {
        std::u16string name = file->DeviceObject ? ObpFullName(file->DeviceObject) : u"";
        name.append(reinterpret_cast<const char16_t*>(file->FileName.Buffer), file->FileName.Length / 2);
        char head[96];
        snprintf(head, sizeof head, "file object %p (%d references, %d handles) ", static_cast<void*>(file),
                 int(ObPointerCount(file)), int(ObHandleCount(file)));
        described.emplace_back(file, head + Utf16ToUtf8(name));
    });
    std::sort(described.begin(), described.end());
    std::vector<std::string> lines;
    for (auto& [file, line] : described) lines.push_back(std::move(line));
    return lines;
}

}  // namespace tervane::emu

using namespace tervane::emu;

PGENERIC_MAPPING IoGetFileObjectGenericMapping(VOID) {
    static GENERIC_MAPPING mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    return &mapping;
}

// As NT does, the stream file object gets a handle that is closed at once,
// so its file system sees IRP_MJ_CLEANUP for it before this returns (while
// its FsContext is still unset).
PFILE_OBJECT IoCreateStreamFileObject(PFILE_OBJECT FileObject, PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT device = FileObject ? FileObject->DeviceObject : DeviceObject;
    PVPB vpb = FileObject ? FileObject->Vpb : DeviceObject->Vpb;
    PFILE_OBJECT file;
    if (!NT_SUCCESS(IopCreateFileObject(device, vpb, u"", &file))) return nullptr;
    file->Flags = FO_STREAM_FILE | FO_HANDLE_CREATED;
    IopFileExtension(file)->opened = true;
    IopFileExtension(file)->cleanedUp = true;
    SendCloseOperation(file, IRP_MJ_CLEANUP);
    return file;
}
