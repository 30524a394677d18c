// NtQuerySecurityObject / NtSetSecurityObject. For a file the security lives
// with the file system (IRP_MJ_QUERY_SECURITY / IRP_MJ_SET_SECURITY); the
// emulator keeps no descriptors for other objects and answers with an empty
// self-relative descriptor, accepting sets without storing them.
#include <functional>

#include "io/io_internal.h"
#include "rtl/security_descriptor.h"

namespace tervane::emu {
namespace {

ACCESS_MASK QueryAccess(SECURITY_INFORMATION info) {
    ACCESS_MASK access = 0;
    if (info & (OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION |
                LABEL_SECURITY_INFORMATION))
        access |= READ_CONTROL;
    if (info & SACL_SECURITY_INFORMATION) access |= ACCESS_SYSTEM_SECURITY;
    return access;
}

ACCESS_MASK SetAccess(SECURITY_INFORMATION info) {
    ACCESS_MASK access = 0;
    if (info & (OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | LABEL_SECURITY_INFORMATION))
        access |= WRITE_OWNER;
    if (info & DACL_SECURITY_INFORMATION) access |= WRITE_DAC;
    if (info & SACL_SECURITY_INFORMATION) access |= ACCESS_SYSTEM_SECURITY;
    return access;
}

// Sends a security packet for the file behind HANDLE; the object reference
// (taken with the access the information needs) passes to the packet.
NTSTATUS SendSecurityIrp(KPROCESSOR_MODE mode, PFILE_OBJECT file, UCHAR major, PIO_STATUS_BLOCK iosb,
                         const std::function<void(PIRP, PIO_STACK_LOCATION)>& fill) {
    FileRequest request;
    request.file = file;
    request.synchronous = (file->Flags & FO_SYNCHRONOUS_IO) != 0;
    if (request.synchronous) IopAcquireFileObjectLock(file);
    request.device = IoGetRelatedDeviceObject(file);
    PIRP irp = IopBuildServiceIrp(request.device, file, major, mode, nullptr, nullptr);
    if (!irp) return IopAbandonRequest(&request, nullptr, STATUS_INSUFFICIENT_RESOURCES);
    fill(irp, IoGetNextIrpStackLocation(irp));
    KEVENT event;
    IO_STATUS_BLOCK local{};
    return IopSynchronousApi(&request, irp, iosb, &event, &local);
}

NTSTATUS QuerySecurity(KPROCESSOR_MODE mode, HANDLE handle, SECURITY_INFORMATION info, PSECURITY_DESCRIPTOR sd,
                       ULONG length, PULONG lengthNeeded) {
    if (!lengthNeeded || (length && !sd)) return STATUS_ACCESS_VIOLATION;
    PVOID object;
    NTSTATUS status = ObpReferenceByHandle(handle, QueryAccess(info), nullptr, mode, &object, nullptr);
    if (!NT_SUCCESS(status)) return status;
    if (ObGetObjectType(object) != *IoFileObjectType) {
        ObfDereferenceObject(object);
        *lengthNeeded = sizeof(SECURITY_DESCRIPTOR_RELATIVE);
        if (length < sizeof(SECURITY_DESCRIPTOR_RELATIVE)) return STATUS_BUFFER_TOO_SMALL;
        auto* relative = static_cast<PISECURITY_DESCRIPTOR_RELATIVE>(sd);
        memset(relative, 0, sizeof(*relative));
        relative->Revision = SECURITY_DESCRIPTOR_REVISION;
        relative->Control = SE_SELF_RELATIVE;
        return STATUS_SUCCESS;
    }
    IO_STATUS_BLOCK iosb{};
    status = SendSecurityIrp(mode, static_cast<PFILE_OBJECT>(object), IRP_MJ_QUERY_SECURITY, &iosb,
                             [&](PIRP irp, PIO_STACK_LOCATION sp) {
                                 irp->UserBuffer = sd;
                                 sp->Parameters.QuerySecurity.SecurityInformation = info;
                                 sp->Parameters.QuerySecurity.Length = length;
                             });
    // The file system reports a short buffer as an overflow with the size it
    // needs in Information; the service turns that into BUFFER_TOO_SMALL.
    *lengthNeeded = ULONG(iosb.Information);
    if (status == STATUS_BUFFER_OVERFLOW) status = STATUS_BUFFER_TOO_SMALL;
    return status;
}

NTSTATUS SetSecurity(KPROCESSOR_MODE mode, HANDLE handle, SECURITY_INFORMATION info, PSECURITY_DESCRIPTOR sd) {
    if (!sd) return STATUS_ACCESS_VIOLATION;
    PVOID object;
    NTSTATUS status = ObpReferenceByHandle(handle, SetAccess(info), nullptr, mode, &object, nullptr);
    if (!NT_SUCCESS(status)) return status;
    // The descriptor is captured (validated part by part and copied) before
    // anything else looks at it, whatever the object.
    std::vector<UCHAR> captured;
    status = RtlpCaptureSecurityDescriptor(sd, &captured);
    if (NT_SUCCESS(status) && (info & OWNER_SECURITY_INFORMATION) &&
        !reinterpret_cast<const SECURITY_DESCRIPTOR_RELATIVE*>(captured.data())->Owner)
        status = STATUS_INVALID_OWNER;
    if (!NT_SUCCESS(status) || ObGetObjectType(object) != *IoFileObjectType) {
        ObfDereferenceObject(object);
        return status;
    }
    PVOID copy = ExAllocatePoolWithTag(NonPagedPool, ULONG(captured.size()), kTagBuffer);
    if (!copy) {
        ObfDereferenceObject(object);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    memcpy(copy, captured.data(), captured.size());
    IO_STATUS_BLOCK iosb{};
    bool attached = false;
    status = SendSecurityIrp(mode, static_cast<PFILE_OBJECT>(object), IRP_MJ_SET_SECURITY, &iosb,
                             [&](PIRP irp, PIO_STACK_LOCATION sp) {
                                 irp->Tail.Overlay.AuxiliaryBuffer = static_cast<PCHAR>(copy);  // freed with the packet
                                 sp->Parameters.SetSecurity.SecurityInformation = info;
                                 sp->Parameters.SetSecurity.SecurityDescriptor = copy;
                                 attached = true;
                             });
    if (!attached) ExFreePoolWithTag(copy, kTagBuffer);  // no packet was had
    return status;
}

}  // namespace
}  // namespace tervane::emu

using namespace tervane::emu;

#define SECURITY_SERVICES(P, MODE)                                                                             \
    NTSTATUS P##QuerySecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,                   \
                                    PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Length, PULONG LengthNeeded) { \
        PreviousModeScope scope(MODE);                                                                         \
        return QuerySecurity(MODE, Handle, SecurityInformation, SecurityDescriptor, Length, LengthNeeded);     \
    }                                                                                                          \
    NTSTATUS P##SetSecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,                     \
                                  PSECURITY_DESCRIPTOR SecurityDescriptor) {                                   \
        PreviousModeScope scope(MODE);                                                                         \
        return SetSecurity(MODE, Handle, SecurityInformation, SecurityDescriptor);                             \
    }

SECURITY_SERVICES(Nt, UserMode)
SECURITY_SERVICES(Zw, KernelMode)
