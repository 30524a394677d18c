// Operations of the driver on real files across the filter directories: the
// layered open through which the driver makes every open of its own, and the
// request packets it builds itself and sends below its filter device.
#pragma once

#include "platform/platform.h"

#define FILE_MANAGER_SOURCE "file_manager"

// The bypass suffix: a name ending in it is passed down unfiltered (the
// create handler strips it). Every open the driver makes carries it while the
// filter directories are in force.
#define BYPASS_SUFFIX L"_??$"
#define BYPASS_SUFFIX_CHARS 4

// ---- Layered open ------------------------------------------------------------

// Opens or creates pustrPath in the filter directory of the lowest flag of
// ulFilterMask (0: the path is real and used unchanged) with ZwCreateFile on
// "\??\" + real path (+ the bypass suffix). With bCreateParents, a mask holding
// filter flag 1 and a creating disposition, the missing parent directories
// are made first. Returns ZwCreateFile's status, STATUS_UNSUCCESSFUL when no
// path buffer was had, STATUS_NOT_FOUND when the mask names no filter
// directory. *phFile is written only on success; the handle is a kernel handle.
NTSTATUS FiltCreateFile(ULONG ulFilterMask, BOOLEAN bCreateParents, PHANDLE phFile, ACCESS_MASK DesiredAccess,
                        PUNICODE_STRING pustrPath, BOOLEAN bCaseSensitive, BOOLEAN bForceAccessCheck,
                        PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                        ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                        ULONG EaLength);

// Opens or creates every ancestor directory of a real path (X:\a\b\name makes
// X:\a and X:\a\b; the last component is left to the caller). TRUE when all
// exist afterwards.
BOOLEAN CreateDirectoryRecursive(PCUNICODE_STRING pustrRealPath);

// TRUE when the handle's object is a directory; FALSE for a file or when the
// query fails.
BOOLEAN IsDirectoryFile(HANDLE hFile);

// ---- Own request packets -----------------------------------------------------

// Sends IRP_MJ_QUERY_INFORMATION for FileObject straight to DeviceObject and
// waits for it. TRUE when it succeeded.
BOOLEAN QueryFileInformationWithIrp(PDEVICE_OBJECT DeviceObject, PFILE_OBJECT FileObject,
                                    FILE_INFORMATION_CLASS FileInformationClass, PVOID Buffer, ULONG Length);

// Sends IRP_MJ_READ (bRead) or IRP_MJ_WRITE for FileObject below FilterDevice
// (through CallLowerDevice) and waits for it. With CallerIrp the data buffer
// (its MDL, else system buffer, else user buffer) and the request flags are
// the caller's; without one, Buffer and IrpFlags are used. Returns the status
// written into IoStatus, whose Information holds the bytes moved.
NTSTATUS ReadWriteFileWithIrp(PIRP CallerIrp, BOOLEAN bRead, ULONG ulRouteFlag, PFILE_OBJECT FileObject,
                              PDEVICE_OBJECT FilterDevice, PVOID Buffer, LARGE_INTEGER ByteOffset, ULONG Length,
                              ULONG Key, ULONG IrpFlags, PIO_STATUS_BLOCK IoStatus);

// Passes Irp down: to the device below drive C:'s filter device when the
// route flag holds filter flag 1 or 2, else to LowerDevice.
NTSTATUS CallLowerDevice(ULONG ulRouteFlag, PDEVICE_OBJECT LowerDevice, PIRP Irp);

// Completion of every own request: copies the status to the user status
// block, signals the user event, frees the request.
NTSTATUS NTAPI OwnIrpCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);
