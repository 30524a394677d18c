// Start-up, volume attachment and routing: what the driver's core offers the
// emulated machine and the tool (the shared global state is in base/).
#pragma once

#include "platform/platform.h"

#include "base/global_state.h"

// The control device.
#define TERVANE_DEVICE_TYPE 0x8400
#define TERVANE_DEVICE_NAME L"\\Device\\Tervane"
#define TERVANE_LINK_NAME L"\\DosDevices\\Tervane"

extern FAST_IO_DISPATCH g_FastIoDispatch;  // the table installed at start-up

// ---- Start-up ------------------------------------------------------------------

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
ULONG FindProcessNameOffset();

// ---- Volume attachment ---------------------------------------------------------

// *Status (optional) receives the status that kept a drive from being
// hooked (for HookDriveSet, the first drive's), or STATUS_SUCCESS.
BOOLEAN HookDrive(ULONG DriveIndex, PDRIVER_OBJECT DriverObject, PNTSTATUS Status = NULL);
VOID UnhookDrive(ULONG DriveIndex);
ULONG HookDriveSet(ULONG DriveMask, PDRIVER_OBJECT DriverObject, PNTSTATUS Status = NULL);

// ---- Routing -------------------------------------------------------------------

NTSTATUS NTAPI TervaneDispatch(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS TervaneDeviceRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS TervaneHookRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp);

BOOLEAN NTAPI TervaneFastIoDeviceControl(PFILE_OBJECT FileObject, BOOLEAN Wait, PVOID InputBuffer,
                                         ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                         ULONG IoControlCode, PIO_STATUS_BLOCK IoStatus,
                                         PDEVICE_OBJECT DeviceObject);

// Gives back everything the driver holds (lists, indexes, pools, locks,
// devices, link) and resets the global state: when start-up fails half way,
// and on the emulated machine at the end of its life, so that it can shut
// down with nothing outstanding and the next one can load the driver afresh.
// The driver has no unload routine; nothing else calls this.
VOID ReleaseDriverState();
