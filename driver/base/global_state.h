// The driver's global state and the records every part shares: pool tags,
// the device extension of the control and filter devices, the filtering
// switch and the filter device of each drive letter.
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

extern volatile UCHAR g_bFilteringEnabled;                       // the filtering switch

extern UCHAR g_bDebugPrintEnabled;                              // the debug switch (1)
extern ULONG g_ulHookedDriveMask;                               // bit i: letter 'A' + i hooked
extern PDEVICE_OBJECT g_apFilterDevices[TERVANE_DRIVE_COUNT];   // filter device per letter, or null
extern PDEVICE_OBJECT g_pControlDevice;                         // \Device\Tervane

// The filtering switch is read by every request on a hooked volume without a
// lock while the controller writes it: both use single-byte atomic accesses
// (the compiler's, which both the emulator's and the mingw-w64 build have),
// so a request sees the switch as it was before or after a change.
inline BOOLEAN IsFilteringEnabled() {
    return __atomic_load_n(&g_bFilteringEnabled, __ATOMIC_ACQUIRE) != 0;
}
inline VOID SetFilteringSwitch(UCHAR ucValue) {
    __atomic_store_n(&g_bFilteringEnabled, ucValue, __ATOMIC_RELEASE);
}
