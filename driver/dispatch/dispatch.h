// The request handlers: the create handler, which decides for every open on a
// hooked volume whether it is served from the filter directories, and the
// handlers of the later requests on such a redirected open.
#pragma once

#include "platform/platform.h"

#include "filemgr/file_handle_table.h"

// Passing down: PassRequestDown copies the stack location to the next one,
// registers Completion (no context; on success, error and cancel) and calls
// the filter device's lower device. TervanePassThrough does so with
// TervanePassThroughCompletion, which marks the request pending when the
// lower driver did and returns its status.
NTSTATUS NTAPI TervanePassThroughCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);
NTSTATUS PassRequestDown(PDEVICE_OBJECT DeviceObject, PIRP Irp, PIO_COMPLETION_ROUTINE Completion);
NTSTATUS TervanePassThrough(PDEVICE_OBJECT DeviceObject, PIRP Irp);

// Opens.
NTSTATUS TervaneCreate(PDEVICE_OBJECT DeviceObject, PIRP Irp);
// An open the driver made itself (kernel-mode requestor, name ending in the
// bypass suffix) loses the suffix and is passed down: TRUE, with the lower
// device's status in *Status. FALSE, with nothing done, for any other open.
BOOLEAN TervanePassOwnOpenDown(PDEVICE_OBJECT DeviceObject, PIRP Irp, NTSTATUS* Status);
NTSTATUS NTAPI TervaneCreateCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);
NTSTATUS NTAPI TervaneCreateCheckCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);

// Requests on a redirected open, by major function. Each owns the request:
// it completes it, or passes it down itself, and returns its status.
NTSTATUS TervaneClose(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry Entry);
NTSTATUS TervaneRead(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry Entry);
NTSTATUS TervaneWrite(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry Entry);
NTSTATUS TervaneQueryInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry Entry);
NTSTATUS TervaneSetInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry Entry);
NTSTATUS TervaneFlushBuffers(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry Entry);
NTSTATUS TervaneQueryVolumeInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry Entry);
NTSTATUS TervaneDirectoryControl(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry Entry);
NTSTATUS TervaneFileSystemControl(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry Entry);
NTSTATUS TervaneLockControl(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry Entry);
NTSTATUS TervaneCleanup(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry Entry);
NTSTATUS TervaneQuerySecurity(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry Entry);
NTSTATUS TervaneSetSecurity(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry Entry);

// The parts of a set-information request that the driver carries out itself.
NTSTATUS TervaneSetInformationRename(PFileHandleEntry Entry, PFILE_RENAME_INFORMATION RenameInfo, ULONG Length);
NTSTATUS TervaneSetInformationDisposition(PFileHandleEntry Entry, PIO_STATUS_BLOCK IoStatus,
                                          PFILE_DISPOSITION_INFORMATION DispositionInfo, ULONG Length);
