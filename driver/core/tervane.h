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

BOOLEAN HookDrive(ULONG DriveIndex, PDRIVER_OBJECT DriverObject);
VOID UnhookDrive(ULONG DriveIndex);
ULONG HookDriveSet(ULONG DriveMask, PDRIVER_OBJECT DriverObject);

// ---- Routing -------------------------------------------------------------------

NTSTATUS NTAPI TervaneDispatch(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS TervaneDeviceRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS TervaneHookRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp);

BOOLEAN NTAPI TervaneFastIoDeviceControl(PFILE_OBJECT FileObject, BOOLEAN Wait, PVOID InputBuffer,
                                         ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                         ULONG IoControlCode, PIO_STATUS_BLOCK IoStatus,
                                         PDEVICE_OBJECT DeviceObject);

#if !defined(_WIN32)
// The emulated machine only: gives back everything the driver holds (lists,
// indexes, pools, locks, devices, link) and resets the global state, so that
// a machine can shut down with nothing outstanding and the next one can load
// the driver afresh. Runs on a thread of the machine. The real driver, which
// has no unload, never does this.
VOID ReleaseDriverState();
#endif
