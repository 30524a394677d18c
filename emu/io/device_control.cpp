// NtDeviceIoControlFile / NtFsControlFile and the kernel's
// IoBuildDeviceIoControlRequest / IoBuildSynchronousFsdRequest. Buffers move
// by the control code's method: METHOD_BUFFERED through one system buffer
// of max(input, output) bytes whose output is copied back at completion;
// the direct methods buffer the input and describe the output with an MDL;
// METHOD_NEITHER passes Type3InputBuffer and UserBuffer as given.
#include <algorithm>

#include "io/io_internal.h"

namespace tervane::emu {
namespace {

NTSTATUS SetControlBuffers(PIRP irp, ULONG code, PVOID input, ULONG inputLength, PVOID output, ULONG outputLength,
                           KPROCESSOR_MODE mode) {
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->Parameters.DeviceIoControl.OutputBufferLength = outputLength;
    sp->Parameters.DeviceIoControl.InputBufferLength = inputLength;
    sp->Parameters.DeviceIoControl.IoControlCode = code;
    if ((inputLength && !input) || (outputLength && !output)) return STATUS_INVALID_USER_BUFFER;
    ULONG method = METHOD_FROM_CTL_CODE(code);
    if (method == METHOD_NEITHER) {
        sp->Parameters.DeviceIoControl.Type3InputBuffer = input;
        irp->UserBuffer = output;
        return STATUS_SUCCESS;
    }
    ULONG systemLength = method == METHOD_BUFFERED ? std::max(inputLength, outputLength) : inputLength;
    if (systemLength) {
        auto* system = static_cast<char*>(ExAllocatePoolWithTag(NonPagedPool, systemLength, kTagBuffer));
        if (!system) return STATUS_INSUFFICIENT_RESOURCES;
        if (inputLength) memcpy(system, input, inputLength);
        memset(system + inputLength, 0, systemLength - inputLength);
        irp->AssociatedIrp.SystemBuffer = system;
        irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
    }
    if (method == METHOD_BUFFERED) {
        if (outputLength) irp->Flags |= IRP_INPUT_OPERATION;
        irp->UserBuffer = output;
    } else if (outputLength) {
        PMDL mdl = IoAllocateMdl(output, outputLength, FALSE, TRUE, irp);
        if (!mdl) return STATUS_INSUFFICIENT_RESOURCES;
        // METHOD_IN_DIRECT: the driver reads the "output" buffer.
        MmProbeAndLockPages(mdl, mode, method == METHOD_IN_DIRECT ? IoReadAccess : IoWriteAccess);
    }
    return STATUS_SUCCESS;
}

NTSTATUS Control(bool deviceControl, KPROCESSOR_MODE mode, HANDLE handle, HANDLE event, PIO_APC_ROUTINE apcRoutine,
                 PVOID apcContext, PIO_STATUS_BLOCK iosb, ULONG code, PVOID input, ULONG inputLength, PVOID output,
                 ULONG outputLength) {
    if (!iosb) return STATUS_ACCESS_VIOLATION;
    FileRequest request;
    NTSTATUS status = IopReferenceFileRequest(handle, 0, event, mode, &request);
    if (!NT_SUCCESS(status)) return status;
    // The code's access bits name rights the handle must hold, all of them.
    ULONG access = (code >> 14) & 3;
    if (mode != KernelMode && (((access & FILE_READ_ACCESS) && !(request.granted & FILE_READ_DATA)) ||
                               ((access & FILE_WRITE_ACCESS) && !(request.granted & FILE_WRITE_DATA)))) {
        return IopAbandonRequest(&request, nullptr, STATUS_ACCESS_DENIED);
    }
    if (deviceControl) {
        IO_STATUS_BLOCK result{};
        auto fast = IOP_FAST_IO(request.device, FastIoDeviceControl);
        if (fast && fast(request.file, TRUE, input, inputLength, output, outputLength, code, &result, request.device))
            return IopFinishFastIo(&request, result, iosb);
    }
    PIRP irp = IopBuildRequestIrp(&request, deviceControl ? IRP_MJ_DEVICE_CONTROL : IRP_MJ_FILE_SYSTEM_CONTROL, mode,
                                  iosb, apcRoutine, apcContext);
    if (!irp) return IopAbandonRequest(&request, nullptr, STATUS_INSUFFICIENT_RESOURCES);
    if (!deviceControl) IoGetNextIrpStackLocation(irp)->MinorFunction = IRP_MN_USER_FS_REQUEST;
    status = SetControlBuffers(irp, code, input, inputLength, output, outputLength, mode);
    if (!NT_SUCCESS(status)) return IopAbandonRequest(&request, irp, status);
    return IopSynchronousServiceTail(&request, irp);
}

}  // namespace
}  // namespace tervane::emu

using namespace tervane::emu;

PIRP IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                   ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                   BOOLEAN InternalDeviceIoControl, PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock) {
    PIRP irp = IopBuildServiceIrp(DeviceObject, nullptr,
                                  InternalDeviceIoControl ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL,
                                  KernelMode, IoStatusBlock, Event);
    if (!irp) return nullptr;
    if (!NT_SUCCESS(SetControlBuffers(irp, IoControlCode, InputBuffer, InputBufferLength, OutputBuffer,
                                      OutputBufferLength, KernelMode))) {
        IopDiscardIrp(irp);
        return nullptr;
    }
    return irp;
}

PIRP IoBuildSynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer, ULONG Length,
                                  PLARGE_INTEGER StartingOffset, PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock) {
    PIRP irp = IopBuildServiceIrp(DeviceObject, nullptr, UCHAR(MajorFunction), KernelMode, IoStatusBlock, Event);
    if (!irp) return nullptr;
    if (MajorFunction == IRP_MJ_READ || MajorFunction == IRP_MJ_WRITE) {
        if (!NT_SUCCESS(IopSetTransferBuffer(irp, DeviceObject, Buffer, Length, MajorFunction == IRP_MJ_READ,
                                             KernelMode))) {
            IopDiscardIrp(irp);
            return nullptr;
        }
        PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
        sp->Parameters.Read.Length = Length;
        if (StartingOffset) sp->Parameters.Read.ByteOffset = *StartingOffset;
    }
    return irp;
}

#define CONTROL_SERVICES(P, MODE)                                                                             \
    NTSTATUS P##FsControlFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,   \
                              PIO_STATUS_BLOCK IoStatusBlock, ULONG FsControlCode, PVOID InputBuffer,          \
                              ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength) {         \
        PreviousModeScope scope(MODE);                                                                        \
        return Control(false, MODE, FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, FsControlCode,   \
                       InputBuffer, InputBufferLength, OutputBuffer, OutputBufferLength);                      \
    }                                                                                                         \
    NTSTATUS P##DeviceIoControlFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,               \
                                    PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, ULONG IoControlCode,     \
                                    PVOID InputBuffer, ULONG InputBufferLength, PVOID OutputBuffer,            \
                                    ULONG OutputBufferLength) {                                                \
        PreviousModeScope scope(MODE);                                                                        \
        return Control(true, MODE, FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, IoControlCode,    \
                       InputBuffer, InputBufferLength, OutputBuffer, OutputBufferLength);                      \
    }

CONTROL_SERVICES(Nt, UserMode)
CONTROL_SERVICES(Zw, KernelMode)
