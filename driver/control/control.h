// The control protocol of \Device\Tervane: sixteen buffered control codes and
// the records they carry.
#pragma once

#include "platform/platform.h"

#define TERVANE_CTL_CODE(function) ((ULONG)CTL_CODE(0x8400UL, (function), METHOD_BUFFERED, FILE_ANY_ACCESS))

#define IOCTL_ADD_PROCESS TERVANE_CTL_CODE(0x700)           // 0x84001C00
#define IOCTL_REMOVE_PROCESS TERVANE_CTL_CODE(0x701)        // 0x84001C04
#define IOCTL_GET_PROCESS_LIST TERVANE_CTL_CODE(0x702)      // 0x84001C08
#define IOCTL_CLEAR_PROCESS_LIST TERVANE_CTL_CODE(0x703)    // 0x84001C0C
#define IOCTL_GET_FILTER_LIST TERVANE_CTL_CODE(0x704)       // 0x84001C10
#define IOCTL_SET_FILTER_LIST TERVANE_CTL_CODE(0x705)       // 0x84001C14
#define IOCTL_ADD_EXCLUSIONS TERVANE_CTL_CODE(0x706)        // 0x84001C18
#define IOCTL_REMOVE_EXCLUSIONS TERVANE_CTL_CODE(0x707)     // 0x84001C1C
#define IOCTL_GET_EXCLUSION_LIST TERVANE_CTL_CODE(0x708)    // 0x84001C20
#define IOCTL_GET_PROCESS_COUNT TERVANE_CTL_CODE(0x709)     // 0x84001C24
#define IOCTL_GET_FILTER_COUNT TERVANE_CTL_CODE(0x70A)      // 0x84001C28
#define IOCTL_GET_EXCLUSION_COUNT TERVANE_CTL_CODE(0x70B)   // 0x84001C2C
#define IOCTL_STOP_FILTERING TERVANE_CTL_CODE(0x70C)        // 0x84001C30
#define IOCTL_START_FILTERING TERVANE_CTL_CODE(0x70D)       // 0x84001C34
#define IOCTL_LOAD_FILTER_INDEX TERVANE_CTL_CODE(0x70E)     // 0x84001C38
#define IOCTL_RENAME_INDEX_PATH TERVANE_CTL_CODE(0x70F)     // 0x84001C3C

// Process record: a 32-bit process id and a 20-character name field.
#define PROCESS_NAME_CHARS 20
#pragma pack(push, 1)
typedef struct _TervaneProcessRecord {
    ULONG m_ulProcessId;
    WCHAR m_wszName[PROCESS_NAME_CHARS];
} TervaneProcessRecord, *PTervaneProcessRecord;
#pragma pack(pop)
static_assert(sizeof(TervaneProcessRecord) == 44, "process record is 44 bytes");

// An index record is two path slots (PATH_SLOT_SIZE each, filter_directory.h).
#define INDEX_RECORD_SIZE 1040
