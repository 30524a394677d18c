// Excluded paths: drive paths (and everything below them) that monitored
// processes see as they are on the real volume. Kept sorted, case-insensitive.
#pragma once

#include "platform/platform.h"

// One excluded path. Non-paged pool, "Trvm".
typedef struct _ExcludedPathEntry {
    UNICODE_STRING m_ustrPath;              // own 520-byte buffer, terminated
    struct _ExcludedPathEntry* m_pNext;
} ExcludedPathEntry, *PExcludedPathEntry;

extern PExcludedPathEntry g_pExcludedPathList;
extern ERESOURCE g_ExcludedPathListLock;

VOID InitExcludedPathList();

NTSTATUS AddExcludedPaths(PVOID PathSlots, ULONG Length);
VOID RemoveExcludedPaths(PVOID PathSlots, ULONG Length);
BOOLEAN GetExcludedPathList(PVOID Output, ULONG OutputLength, PULONG BytesWritten);
BOOLEAN GetExcludedPathCount(PULONG Count);
BOOLEAN IsExcludedPath(PCUNICODE_STRING Path);
