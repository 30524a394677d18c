#include "test_core_support.h"
#include "base/log.h"

namespace tervane::test {

namespace {
std::mutex g_seenLock;
std::vector<SeenRequest> g_seen;
PDEVICE_OBJECT g_device = nullptr;
const char16_t kFsName[] = u"TESTFS";

PVOID RequestBuffer(PIRP irp) {
    if (irp->MdlAddress != nullptr) return MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
    if (irp->AssociatedIrp.SystemBuffer != nullptr) return irp->AssociatedIrp.SystemBuffer;
    return irp->UserBuffer;
}

NTSTATUS NTAPI VolumeDispatch(PDEVICE_OBJECT, PIRP irp) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    SeenRequest seen;
    seen.major = sp->MajorFunction;
    seen.minor = sp->MinorFunction;
    seen.fileObject = sp->FileObject;
    NTSTATUS status = STATUS_SUCCESS;
    ULONG_PTR information = 0;
    switch (sp->MajorFunction) {
    case IRP_MJ_CREATE:
        seen.fileName.assign(reinterpret_cast<const char16_t*>(sp->FileObject->FileName.Buffer),
                             sp->FileObject->FileName.Length / 2);
        seen.createOptions = sp->Parameters.Create.Options;
        information = FILE_OPENED;
        break;
    case IRP_MJ_READ:
        seen.length = sp->Parameters.Read.Length;
        seen.offset = sp->Parameters.Read.ByteOffset.QuadPart;
        memset(RequestBuffer(irp), 'v', sp->Parameters.Read.Length);
        information = sp->Parameters.Read.Length;
        break;
    case IRP_MJ_QUERY_VOLUME_INFORMATION:
        if (TestVolume::failAttributeQuery || sp->Parameters.QueryVolume.FsInformationClass != FileFsAttributeInformation) {
            status = STATUS_INVALID_DEVICE_REQUEST;
        } else {
            auto* info = static_cast<PFILE_FS_ATTRIBUTE_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
            info->FileSystemAttributes = FILE_CASE_PRESERVED_NAMES;
            info->MaximumComponentNameLength = 255;
            info->FileSystemNameLength = sizeof(kFsName) - 2;
            memcpy(info->FileSystemName, kFsName, sizeof(kFsName) - 2);
            information = FIELD_OFFSET(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName) + sizeof(kFsName) - 2;
        }
        break;
    default:
        break;
    }
    {
        std::lock_guard<std::mutex> lock(g_seenLock);
        g_seen.push_back(seen);
    }
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}
}  // namespace

bool TestVolume::failAttributeQuery = false;

NTSTATUS NTAPI TestVolume::DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Device\\TestVolume");
    NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &g_device);
    if (!NT_SUCCESS(status)) return status;
    g_device->Flags |= DO_BUFFERED_IO;
    g_device->Flags &= ~DO_DEVICE_INITIALIZING;
    for (auto& entry : driver->MajorFunction) entry = VolumeDispatch;
    return STATUS_SUCCESS;
}

std::vector<SeenRequest>& TestVolume::Seen() { return g_seen; }
PDEVICE_OBJECT TestVolume::Device() { return g_device; }

void DriverTest::SetUp() {
    TervaneTest::SetUp();
    g_seen.clear();
    TestVolume::failAttributeQuery = false;
    ASSERT_EQ(machine->LoadDriver(u"TestVolume", TestVolume::DriverEntry), STATUS_SUCCESS);
    if (mountHost) {
        ASSERT_EQ(MountHost(), STATUS_SUCCESS);
    } else {
        ASSERT_EQ(machine->LinkDrive('C', u"\\Device\\TestVolume"), STATUS_SUCCESS);
    }
}

namespace {
// Reads the outcome off the packet before the I/O manager's second stage,
// which leaves a caller's status block alone for a failed synchronous request.
NTSTATUS NTAPI RecordControlOutcome(PDEVICE_OBJECT, PIRP irp, PVOID context) {
    auto* result = static_cast<ControlResult*>(context);
    result->status = irp->IoStatus.Status;
    result->information = irp->IoStatus.Information;
    const size_t copied = std::min<size_t>(irp->IoStatus.Information, result->output.size());
    if (irp->AssociatedIrp.SystemBuffer != nullptr && copied != 0) {
        memcpy(result->output.data(), irp->AssociatedIrp.SystemBuffer, copied);
    }
    return STATUS_SUCCESS;
}
}  // namespace

ControlResult DriverTest::Packet(ULONG code, const std::vector<uint8_t>& input, ULONG outputLength) {
    ControlResult result;
    result.output.assign(outputLength, kUntouched);
    std::vector<uint8_t> in = input;
    std::vector<uint8_t> out(outputLength, kUntouched);
    Kernel([&] {
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        IO_STATUS_BLOCK iosb = {};
        PIRP irp = IoBuildDeviceIoControlRequest(code, g_pControlDevice, in.empty() ? nullptr : in.data(),
                                                 (ULONG)in.size(), outputLength ? out.data() : nullptr,
                                                 outputLength, FALSE, &event, &iosb);
        ASSERT_NE(irp, nullptr);
        // Runs when the control device completes the packet.
        IoSetCompletionRoutine(irp, RecordControlOutcome, &result, TRUE, TRUE, TRUE);
        NTSTATUS status = IoCallDriver(g_pControlDevice, irp);
        if (status == STATUS_PENDING) KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        EXPECT_EQ(status, result.status) << "the routine returns the status the packet completed with";
    });
    return result;
}

std::vector<std::string> DriverTest::LogMatching(const std::string& text) const {
    std::vector<std::string> lines;
    for (const std::string& line : machine->LogLines()) {
        if (line.find(text) != std::string::npos) lines.push_back(line);
    }
    return lines;
}

}  // namespace tervane::test
