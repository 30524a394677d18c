// I/O manager internals shared by the files of io/: the private parts of
// device and file objects, request-packet bookkeeping, and the helpers every
// system service uses to reference its file object and send its packet.
#pragma once

#include "ob/ob_internal.h"

namespace tervane::emu {

// Private IRP allocation flags (IRP.AllocationFlags); NT's own use the low
// four bits.
constexpr UCHAR kIrpTracked = 0x40;   // preceded by an IrpTracker
constexpr UCHAR kIrpService = 0x80;   // built by the I/O manager: it completes and frees it

// Pool tags the I/O manager allocates under.
constexpr ULONG kTagIrp = 0x20707249;     // "Irp "
constexpr ULONG kTagMdl = 0x206c644d;     // "Mdl "
constexpr ULONG kTagVpb = 0x20627056;     // "Vpb "
constexpr ULONG kTagName = 0x6d4e6f49;    // "IoNm"
constexpr ULONG kTagBuffer = 0x66427249;  // "IrBf": system buffers of packets

// NT's DEVOBJ_EXTENSION, as far as the emulator needs it.
struct DeviceObjectExtension {
    CSHORT Type;
    USHORT Size;
    PDEVICE_OBJECT DeviceObject;
    PDEVICE_OBJECT AttachedTo;  // the device this one is attached over
    bool deletePending;
};
inline DeviceObjectExtension* IopDeviceExtension(PDEVICE_OBJECT device) {
    return static_cast<DeviceObjectExtension*>(device->DeviceObjectExtension);
}

// Follows the FILE_OBJECT in its object body.
struct FileObjectExtension {
    bool opened;      // the create reached a driver and succeeded
    bool cleanedUp;   // IRP_MJ_CLEANUP has been sent
};
inline FileObjectExtension* IopFileExtension(PFILE_OBJECT file) {
    return reinterpret_cast<FileObjectExtension*>(file + 1);
}

// A new file object for DEVICE (counted on it and referencing it) that no
// driver has opened yet; NAME (may be empty) becomes its FileName.
NTSTATUS IopCreateFileObject(PDEVICE_OBJECT device, PVPB vpb, const std::u16string& name, PFILE_OBJECT* result);

// The create path. Internal flags for the I/O manager's own opens:
constexpr ULONG kOpenTargetDirectory = 0x1;  // SL_OPEN_TARGET_DIRECTORY
constexpr ULONG kNoParameterChecking = 0x2;
NTSTATUS IopCreateFile(KPROCESSOR_MODE mode, PHANDLE fileHandle, ACCESS_MASK desiredAccess,
                       POBJECT_ATTRIBUTES attributes, PIO_STATUS_BLOCK ioStatusBlock, PLARGE_INTEGER allocationSize,
                       ULONG fileAttributes, ULONG shareAccess, ULONG disposition, ULONG createOptions,
                       PVOID eaBuffer, ULONG eaLength, ULONG internalFlags, PFILE_OBJECT* openedFile);

// Creates the object types of io/ once per host process.
void IopCreateDeviceTypes();
void IopCreateFileType();

// The device IRP_MJ_CREATE goes to for an open that named DEVICE, after
// mounting its volume if it has one (null when the device has none mounted).
NTSTATUS IopMountIfNeeded(PDEVICE_OBJECT device, PVPB* vpb);

// Drivers loaded and file systems registered, for shutdown and mounting.
void IopRememberDriver(PDRIVER_OBJECT driver);
std::vector<PDEVICE_OBJECT> IopRegisteredFileSystems();
void IopForgetDevices();  // at shutdown: deletes every device still alive
void IopDrainIrpLookaside();

// Sends an I/O-manager-built packet (cleanup, close, the I/O manager's own
// queries) and waits for it; returns its final status and information.
NTSTATUS IopSendAndWait(PDEVICE_OBJECT device, PIRP irp, PKEVENT event, PIO_STATUS_BLOCK iosb);
// A packet for the I/O manager's own use that is never refused (NT keeps a
// reserve for cleanup and close): from pool, or from the host when pool fails.
PIRP IopAllocateIrpMustSucceed(CCHAR stackSize);

// Synchronous file objects: requests on one are serialised.
void IopAcquireFileObjectLock(PFILE_OBJECT file);
void IopReleaseFileObjectLock(PFILE_OBJECT file);

// A system service's packet for FILE, with the common fields set: the
// current thread, requestor mode, original file object, user status block
// and event. The next stack location has MAJOR and the file object.
PIRP IopBuildServiceIrp(PDEVICE_OBJECT device, PFILE_OBJECT file, UCHAR major, KPROCESSOR_MODE mode,
                        PIO_STATUS_BLOCK userIosb, PKEVENT userEvent);
// The same fields on a packet the caller allocated (FILE may be null).
void IopInitializeServiceIrp(PIRP irp, PFILE_OBJECT file, UCHAR major, KPROCESSOR_MODE mode,
                             PIO_STATUS_BLOCK userIosb, PKEVENT userEvent);

// Sets the packet's requesting thread (Tail.Overlay.Thread). A packet the
// I/O manager allocated references that thread until it is freed, so that
// a request still pending when its thread has ended finds the thread (and
// its process) at completion.
void IopSetRequestingThread(PIRP irp, _ETHREAD* thread);

// Frees what a service packet holds besides itself: its system buffer
// (IRP_DEALLOCATE_BUFFER), its MDLs and its auxiliary buffer.
void IopReleaseIrpBuffers(PIRP irp);
// Frees a packet that was never sent, with everything it holds.
void IopDiscardIrp(PIRP irp);

// Services: a file handle resolved for a request.
struct FileRequest {
    PFILE_OBJECT file = nullptr;
    PKEVENT event = nullptr;   // the caller's event object, referenced
    ACCESS_MASK granted = 0;
    bool synchronous = false;  // FO_SYNCHRONOUS_IO: the lock is held
    PDEVICE_OBJECT device = nullptr;  // IoGetRelatedDeviceObject(file)
};
// References the file object behind HANDLE (access checked for user mode)
// and the caller's event, and takes the file object's lock when it is
// synchronous. Released with IopReleaseRequest unless a packet took them.
NTSTATUS IopReferenceFileRequest(HANDLE handle, ACCESS_MASK access, HANDLE event, KPROCESSOR_MODE mode,
                                 FileRequest* request);
void IopReleaseRequest(FileRequest* request);

// The service packet of REQUEST: the caller's status block (USERIOSB), its
// event and its APC. Null when no packet could be allocated.
PIRP IopBuildRequestIrp(FileRequest* request, UCHAR major, KPROCESSOR_MODE mode, PIO_STATUS_BLOCK userIosb,
                        PIO_APC_ROUTINE apcRoutine = nullptr, PVOID apcContext = nullptr);
// Ends a request that fails before its packet is sent: discards IRP (may be
// null), releases the request and returns STATUS.
NTSTATUS IopAbandonRequest(FileRequest* request, PIRP irp, NTSTATUS status);

// A buffered information transfer of LENGTH bytes through a system buffer:
// zeroed and copied back to BUFFER at completion (OUTPUT), or a copy of
// BUFFER for the driver to read.
NTSTATUS IopSetSystemBuffer(PIRP irp, PVOID buffer, ULONG length, bool output);

// Sends a service packet built for REQUEST. For a synchronous file object it
// waits for a pending packet, releases the lock and returns the final
// status; otherwise it returns what the driver returned (STATUS_PENDING for
// a request still in progress).
NTSTATUS IopSynchronousServiceTail(FileRequest* request, PIRP irp);

// Sends a packet for a service that always completes before it returns
// (queries, sets): on an asynchronous file object it waits on a local event
// and copies the local status block to the caller's.
NTSTATUS IopSynchronousApi(FileRequest* request, PIRP irp, PIO_STATUS_BLOCK callerIosb, PKEVENT localEvent,
                           PIO_STATUS_BLOCK localIosb);

// Fast I/O finished the request: fill the status block, signal the events
// as a completed packet would, release the request.
NTSTATUS IopFinishFastIo(FileRequest* request, const IO_STATUS_BLOCK& result, PIO_STATUS_BLOCK callerIosb);

// A device's fast I/O routine at FIELD of FAST_IO_DISPATCH, or null.
template <typename Routine>
Routine IopFastIoRoutine(PDEVICE_OBJECT device, Routine FAST_IO_DISPATCH::*field, size_t offset) {
    PFAST_IO_DISPATCH fastIo = device->DriverObject ? device->DriverObject->FastIoDispatch : nullptr;
    if (!fastIo || fastIo->SizeOfFastIoDispatch < offset + sizeof(Routine)) return nullptr;
    return fastIo->*field;
}
#define IOP_FAST_IO(device, Name) \
    ::tervane::emu::IopFastIoRoutine((device), &FAST_IO_DISPATCH::Name, offsetof(FAST_IO_DISPATCH, Name))

// The buffer of a transfer, set on IRP by the device's I/O method
// (DO_BUFFERED_IO, DO_DIRECT_IO or neither). READ: data flows to the caller.
NTSTATUS IopSetTransferBuffer(PIRP irp, PDEVICE_OBJECT device, PVOID buffer, ULONG length, bool read,
                              KPROCESSOR_MODE mode);

// Opens the parent directory of a rename or link target for
// NtSetInformationFile (SL_OPEN_TARGET_DIRECTORY); returns a kernel handle
// and its referenced file object.
NTSTATUS IopOpenTargetDirectory(PFILE_OBJECT source, HANDLE rootDirectory, const std::u16string& name,
                                bool sourceIsDirectory, PHANDLE handle, PFILE_OBJECT* target);

}  // namespace tervane::emu
