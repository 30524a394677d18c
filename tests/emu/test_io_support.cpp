// The recording test driver, its filter and the I/O test fixture.
#include "test_io_support.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace iotest {

World* g_world;

namespace {

Machine* g_machine;
std::vector<std::unique_ptr<Machine::Thread>> g_completers;
std::mutex g_completersLock;

PVOID TransferBuffer(PIRP irp) {
    if (irp->MdlAddress) return MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
    return irp->AssociatedIrp.SystemBuffer ? irp->AssociatedIrp.SystemBuffer : irp->UserBuffer;
}

// Copies INPUT to OUTPUT with the case of letters toggled, so that a result
// proves it went through the driver.
ULONG Echo(PVOID input, ULONG inputLength, PVOID output, ULONG outputLength) {
    ULONG n = std::min(inputLength, outputLength);
    std::vector<char> copy(static_cast<char*>(input), static_cast<char*>(input) + n);
    for (ULONG i = 0; i < n; ++i) static_cast<char*>(output)[i] = copy[i] ^ 0x20;
    return n;
}

void Finish(PIRP irp, NTSTATUS status, ULONG_PTR information, bool twice) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    if (twice) IoCompleteRequest(irp, IO_NO_INCREMENT);
}

NTSTATUS NTAPI LowerDispatch(PDEVICE_OBJECT device, PIRP irp) {
    Seen seen = Record(device, irp);
    Behaviour b;
    {
        std::lock_guard<std::mutex> guard(g_world->lock);
        g_world->lower.push_back(seen);
        b = g_world->behaviour;
    }
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    PFILE_OBJECT file = sp->FileObject;
    NTSTATUS status = b.status;
    ULONG_PTR info = 0;
    switch (sp->MajorFunction) {
    case IRP_MJ_CREATE:
        status = seen.fileName == u"\\fail" ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_SUCCESS;
        if (b.cachedFiles && NT_SUCCESS(status)) file->FsContext = &g_world->header;
        info = NT_SUCCESS(status) ? FILE_OPENED : 0;
        Finish(irp, status, info, false);
        return status;
    case IRP_MJ_CLEANUP:
    case IRP_MJ_CLOSE:
        Finish(irp, STATUS_SUCCESS, 0, false);
        return STATUS_SUCCESS;
    case IRP_MJ_READ:
    case IRP_MJ_WRITE:
        if (NT_SUCCESS(status)) {
            info = sp->Parameters.Read.Length;
            if (sp->MajorFunction == IRP_MJ_READ) memset(TransferBuffer(irp), 'r', info);
            // A file system moves a synchronous file object's position.
            if (file->Flags & FO_SYNCHRONOUS_IO)
                file->CurrentByteOffset.QuadPart = sp->Parameters.Read.ByteOffset.QuadPart + LONGLONG(info);
        }
        break;
    case IRP_MJ_DEVICE_CONTROL: {
        ULONG code = sp->Parameters.DeviceIoControl.IoControlCode;
        ULONG in = sp->Parameters.DeviceIoControl.InputBufferLength;
        ULONG out = sp->Parameters.DeviceIoControl.OutputBufferLength;
        if (!NT_SUCCESS(status)) break;
        if (code == kEchoBuffered || code == kNeedsWrite)
            info = Echo(irp->AssociatedIrp.SystemBuffer, in, irp->AssociatedIrp.SystemBuffer, out);
        else if (code == kEchoInDirect || code == kEchoOutDirect)
            info = Echo(irp->AssociatedIrp.SystemBuffer, in, TransferBuffer(irp), out);
        else if (code == kEchoNeither)
            info = Echo(sp->Parameters.DeviceIoControl.Type3InputBuffer, in, irp->UserBuffer, out);
        else
            status = STATUS_INVALID_DEVICE_REQUEST;
        break;
    }
    case IRP_MJ_QUERY_INFORMATION:
        if (NT_SUCCESS(status) && sp->Parameters.QueryFile.FileInformationClass == FileBasicInformation) {
            auto* basic = static_cast<PFILE_BASIC_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
            memset(basic, 0, sizeof(*basic));
            basic->FileAttributes = FILE_ATTRIBUTE_ARCHIVE;
            info = sizeof(*basic);
        }
        break;
    default: break;
    }
    if (b.pend) {
        IoMarkIrpPending(irp);
        std::lock_guard<std::mutex> guard(g_completersLock);
        g_completers.push_back(g_machine->StartThread(g_machine->SystemProcess(), [irp, status, info] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            Finish(irp, status, info, false);
        }));
        return STATUS_PENDING;
    }
    Finish(irp, status, info, b.completeTwice);
    return b.misreport ? STATUS_SUCCESS : status;
}

NTSTATUS NTAPI FilterCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID context) {
    if (irp->PendingReturned) IoMarkIrpPending(irp);
    std::lock_guard<std::mutex> guard(g_world->lock);
    g_world->fastCalls.push_back("filter completion " + std::to_string(reinterpret_cast<uintptr_t>(context)) +
                                 (irp->PendingReturned ? " pending" : ""));
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI FilterDispatch(PDEVICE_OBJECT device, PIRP irp) {
    {
        std::lock_guard<std::mutex> guard(g_world->lock);
        g_world->filter.push_back(Record(device, irp));
    }
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, FilterCompletion, reinterpret_cast<PVOID>(uintptr_t(sp->MajorFunction)), TRUE, TRUE,
                           TRUE);
    return IoCallDriver(*static_cast<PDEVICE_OBJECT*>(device->DeviceExtension), irp);
}

void Note(const char* what) {
    std::lock_guard<std::mutex> guard(g_world->lock);
    g_world->fastCalls.push_back(what);
}

BOOLEAN NTAPI FastRead(PFILE_OBJECT, PLARGE_INTEGER, ULONG length, BOOLEAN, ULONG, PVOID buffer, PIO_STATUS_BLOCK iosb,
                       PDEVICE_OBJECT) {
    Note("FastIoRead");
    if (!g_world->behaviour.fastIoAnswers) return FALSE;
    memset(buffer, 'f', length);
    *iosb = {};
    iosb->Information = length;
    return TRUE;
}

BOOLEAN NTAPI FastQueryBasic(PFILE_OBJECT, BOOLEAN, PFILE_BASIC_INFORMATION info, PIO_STATUS_BLOCK iosb, PDEVICE_OBJECT) {
    Note("FastIoQueryBasicInfo");
    if (!g_world->behaviour.fastIoAnswers) return FALSE;
    memset(info, 0, sizeof(*info));
    info->FileAttributes = FILE_ATTRIBUTE_HIDDEN;
    *iosb = {};
    iosb->Information = sizeof(*info);
    return TRUE;
}

BOOLEAN NTAPI FastDeviceControl(PFILE_OBJECT, BOOLEAN, PVOID input, ULONG inputLength, PVOID output,
                                ULONG outputLength, ULONG, PIO_STATUS_BLOCK iosb, PDEVICE_OBJECT) {
    Note("FastIoDeviceControl");
    if (!g_world->behaviour.fastIoAnswers) return FALSE;
    *iosb = {};
    iosb->Information = Echo(input, inputLength, output, outputLength);
    return TRUE;
}

FAST_IO_DISPATCH g_fastIo = [] {
    FAST_IO_DISPATCH table{};
    table.SizeOfFastIoDispatch = sizeof(FAST_IO_DISPATCH);
    table.FastIoRead = FastRead;
    table.FastIoQueryBasicInfo = FastQueryBasic;
    table.FastIoDeviceControl = FastDeviceControl;
    return table;
}();

}  // namespace

NTSTATUS NTAPI LowerEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    for (auto& routine : driver->MajorFunction) routine = LowerDispatch;
    driver->FastIoDispatch = &g_fastIo;
    UNICODE_STRING name = RTL_CONSTANT_STRING(L"\\Device\\IoTest");
    NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &g_world->lowerDevice);
    if (!NT_SUCCESS(status)) return status;
    UNICODE_STRING exclusiveName = RTL_CONSTANT_STRING(L"\\Device\\IoExclusive");
    PDEVICE_OBJECT exclusive;
    return IoCreateDevice(driver, 0, &exclusiveName, FILE_DEVICE_UNKNOWN, 0, TRUE, &exclusive);
}

NTSTATUS NTAPI FilterEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    for (auto& routine : driver->MajorFunction) routine = FilterDispatch;
    NTSTATUS status =
        IoCreateDevice(driver, sizeof(PDEVICE_OBJECT), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &g_world->filterDevice);
    if (!NT_SUCCESS(status)) return status;
    PDEVICE_OBJECT lower = IoAttachDeviceToDeviceStack(g_world->filterDevice, g_world->lowerDevice);
    *static_cast<PDEVICE_OBJECT*>(g_world->filterDevice->DeviceExtension) = lower;
    return lower ? STATUS_SUCCESS : STATUS_NO_SUCH_DEVICE;
}

void IoTest::SetUp() {
    g_world = &world;
    machine = std::make_unique<Machine>();
    g_machine = machine.get();
    process = machine->CreateProcess(100, "iotest.exe");
    ASSERT_EQ(machine->LoadDriver(u"IoTest", LowerEntry), STATUS_SUCCESS);
}

void IoTest::LoadFilter() { ASSERT_EQ(machine->LoadDriver(u"IoFilter", FilterEntry), STATUS_SUCCESS); }

// Requests completed on other threads may still be finishing (dropping the
// last file object reference sends the close down the stack), so they end
// before the machine does.
VerifierReport IoTest::Shutdown() {
    {
        std::lock_guard<std::mutex> guard(g_completersLock);
        for (auto& thread : g_completers) thread->Join();
        g_completers.clear();
    }
    return machine->Shutdown();
}

void IoTest::TearDown() {
    VerifierReport report = Shutdown();
    if (expectClean) {
        EXPECT_TRUE(report.Clean()) << report.ToString();
    }
    machine.reset();
    g_world = nullptr;
    g_machine = nullptr;
}

NTSTATUS IoTest::Open(const std::u16string& name, PHANDLE handle, ACCESS_MASK access, ULONG options,
                      ULONG attributes, bool kernel, HANDLE root, IO_STATUS_BLOCK* iosbOut) {
    UNICODE_STRING u = MakeUnicodeString(name);
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &u, attributes, root, nullptr);
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = kernel ? ZwCreateFile(handle, access, &oa, &iosb, nullptr, 0, FILE_SHARE_VALID_FLAGS, FILE_OPEN,
                                            options, nullptr, 0)
                             : NtCreateFile(handle, access, &oa, &iosb, nullptr, 0, FILE_SHARE_VALID_FLAGS, FILE_OPEN,
                                            options, nullptr, 0);
    if (iosbOut) *iosbOut = iosb;
    return status;
}

}  // namespace iotest
