// Global state of the driver and the device extension shared by the control
// device and every filter device.
#pragma once

#include "platform/platform.h"

// Pool tags. The first character is the lowest byte, so the tag reads as
// written in a pool dump.
#define TRVN_POOL_TAG(a, b, c, d) \
    ((ULONG)(UCHAR)(a) | ((ULONG)(UCHAR)(b) << 8) | ((ULONG)(UCHAR)(c) << 16) | ((ULONG)(UCHAR)(d) << 24))
#define TRVN_TAG_GENERAL TRVN_POOL_TAG('T', 'r', 'v', 'm')           // "Trvm": general use
#define TRVN_TAG_FILE_INDEX_POOL TRVN_POOL_TAG('T', 'r', 'v', 'f')   // "Trvf": pool of FileIndex objects
#define TRVN_TAG_INDEX_AREA TRVN_POOL_TAG('T', 'r', 'v', 'i')        // "Trvi": areas of an in-memory index
#define TRVN_TAG_DISPOSITION TRVN_POOL_TAG('0', 'S', 'D', 'F')       // "0SDF": disposition record of a delete
#define TRVN_TAG_BASIC_INFO TRVN_POOL_TAG('0', 'C', 'h', 'a')        // "0Cha": basic information of an attribute reset

// The control device.
#define TERVANE_DEVICE_TYPE 0x8400
#define TERVANE_DEVICE_NAME L"\\Device\\Tervane"
#define TERVANE_LINK_NAME L"\\DosDevices\\Tervane"

// Drive letters 'A' to 'Z'.
#define TERVANE_DRIVE_COUNT 26

// Size of the volume's file-system attribute record kept by a filter device.
#define TERVANE_FS_ATTRIBUTE_INFO_SIZE 1040

// The device extension of the control device (m_ulIsHookDevice 0, every other
// field zero) and of every filter device (m_ulIsHookDevice 1).
typedef struct _TervaneDeviceExtension {
    ULONG m_ulIsHookDevice;
    PDEVICE_OBJECT m_pLowerDevice;  // where requests are passed down
    ULONG m_ulDriveLetter;          // 'A' to 'Z'
    BOOLEAN m_bHooked;              // 1 while the drive group is hooked
    PVOID m_pFsAttributeInfo;       // FILE_FS_ATTRIBUTE_INFORMATION, TERVANE_FS_ATTRIBUTE_INFO_SIZE bytes, or null
} TervaneDeviceExtension, *PTervaneDeviceExtension;

// ---- Global state ------------------------------------------------------------

extern volatile UCHAR g_bFilteringEnabled;                       // the filtering switch
extern UCHAR g_bDebugPrintEnabled;                              // the debug switch (1)
extern ULONG g_ulHookedDriveMask;                               // bit i: letter 'A' + i hooked
extern PDEVICE_OBJECT g_apFilterDevices[TERVANE_DRIVE_COUNT];   // filter device per letter, or null
extern PDEVICE_OBJECT g_pControlDevice;                         // \Device\Tervane
extern FAST_IO_DISPATCH g_FastIoDispatch;                       // the table installed at start-up

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
NTSTATUS NTAPI TervanePassThroughCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);

// Passes Irp down to the filter device's lower device: copies the stack
// location, registers the pass-through completion and calls the lower driver.
// Request handlers use it for requests they do not serve themselves.
NTSTATUS TervanePassThrough(PDEVICE_OBJECT DeviceObject, PIRP Irp);

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
