// Debug output of the driver: every diagnostic is a head naming the thread,
// process, function and source line, followed by the message itself.
#pragma once

#include "platform/platform.h"

// The name of the process whose request is being served, as the log head
// prints it. Written by the routing and create paths, read by every head.
extern UNICODE_STRING g_ustrCurrentProcessName;

// Offset of the image name inside a process object; 0 when unknown.
extern ULONG g_ulProcessNameOffset;

// The global debug switch; on from load, never changed.
BOOLEAN IsDebugPrintEnabled();

// Writes the current process's image name (at most 15 characters) into
// ProcessName without allocating. FALSE when the offset is unknown (string
// untouched) or the string's buffer is too small (length 0, buffer zeroed).
BOOLEAN GetCurrentProcessName(PUNICODE_STRING ProcessName);

#define TRVN_LOG_HEAD "[TRVN]%x[%wZ][%d]: %s() (%d):\t"

// Logs one diagnostic: the head, then the message. The function name and the
// line are those of the call site and are passed explicitly.
#define TRVN_LOG(function, line, format, ...)                                                  \
    do {                                                                                       \
        if (IsDebugPrintEnabled()) {                                                           \
            DbgPrint(TRVN_LOG_HEAD, (ULONG)(ULONG_PTR)KeGetCurrentThread(),                    \
                     &g_ustrCurrentProcessName, (LONG)(ULONG_PTR)PsGetCurrentProcessId(),      \
                     (function), (int)(line));                                                 \
            DbgPrint(format, ##__VA_ARGS__);                                                   \
        }                                                                                      \
    } while (0)

// Reports a failed expression with its text, the source name ("tervane",
// "filter_directory", "file_manager", "file_index", "dispatch") and the line.
// Execution always goes on.
#define TRVN_ASSERT(expression, source, line)                                      \
    do {                                                                           \
        if (!(expression)) {                                                       \
            RtlAssert((PVOID) #expression, (PVOID)(source), (ULONG)(line), NULL);  \
        }                                                                          \
    } while (0)
