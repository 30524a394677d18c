// Filter directories: the ordered list set once by the controller, the
// filter masks that name them, and the mapping of drive paths to real paths
// inside one filter directory.
#pragma once

#include "platform/platform.h"

struct FileIndex;  // the file index object of the index subsystem

// One filter directory. Never freed once the list is set.
typedef struct _FilterDirectoryEntry {
    UNICODE_STRING m_ustrRoot;              // root path, zero-terminated, in a filter path pool block
    struct FileIndex** m_ppIndexHolder;     // null until the first index load; the cell holds the index or null
    struct _FilterDirectoryEntry* m_pNext;  // next position, or null
} FilterDirectoryEntry, *PFilterDirectoryEntry;

// A path slot of the control protocol: 259 characters and a terminating zero.
#define PATH_SLOT_SIZE 520
#define PATH_SLOT_CHARS (PATH_SLOT_SIZE / sizeof(WCHAR))

// Every filter directory.
#define FILTER_MASK_ALL 0xFFFFFFFF

extern PFilterDirectoryEntry g_pFilterDirectoryList;  // null until set
extern ULONG g_ulFilterMask;
// Held exclusively (inside a critical region) for the one-time set and for
// an index load; readers take none.
extern ERESOURCE g_FilterDirectoryListLock;

// The filter path pool and the list lock, at start-up.
VOID InitFilterDirectoryList();

BOOLEAN SetFilterDirectories(PVOID PathSlots, ULONG Length);
BOOLEAN GetFilterDirectoryList(PVOID Output, ULONG OutputLength, PULONG BytesWritten);
ULONG GetFilterDirectoryCount(PULONG LastFilterFlag);
ULONG GetFilterMask();
PFilterDirectoryEntry GetFilterDirectory(ULONG FilterMask);
// FALSE only when a new buffer was asked for and none could be had.
BOOLEAN GetRealFilePath(PCUNICODE_STRING Root, PCUNICODE_STRING Path, PUNICODE_STRING RealPath, BOOLEAN NewBuffer);
BOOLEAN GetRealFilePathForFilter(PCUNICODE_STRING Path, PUNICODE_STRING RealPath, ULONG FilterMask,
                                 BOOLEAN NewBuffer);
VOID FreeRealFilePath(PUNICODE_STRING RealPath);
BOOLEAN IsFilterIndexLoaded();
