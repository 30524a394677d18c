// Debug output of the driver: every diagnostic is a head naming the thread,
// process, function and source line, followed by the message itself.
#pragma once

#include "platform/platform.h"

// The name captured for the last request routed to a redirected open or
// opened by a monitored process. Written by the routing and create paths
// through SetCurrentProcessName only.
extern UNICODE_STRING g_ustrCurrentProcessName;

// Capacity in characters of the current process name, and of the copy every
// log head makes of the name it prints.
#define LOG_PROCESS_NAME_CHARS 20

// Offset of the image name inside a process object; 0 when unknown.
extern ULONG g_ulProcessNameOffset;

// The global debug switch; on from load, never changed.
BOOLEAN IsDebugPrintEnabled();

// Writes the current process's image name (at most 15 characters) into
// ProcessName without allocating. FALSE when the offset is unknown (string
// untouched) or the string's buffer is too small (length 0, buffer zeroed).
BOOLEAN GetCurrentProcessName(PUNICODE_STRING ProcessName);

// Publishes Name, captured for the request the current process sends, as the
// current process name (cut to its capacity).
VOID SetCurrentProcessName(PCUNICODE_STRING Name);

// The name the log head prints, into Name (capacity LOG_PROCESS_NAME_CHARS):
// the current process's image name, or, when that cannot be read, the name
// last captured if the current process captured it; empty otherwise.
VOID GetLogProcessName(PUNICODE_STRING Name);

#define TRVN_LOG_HEAD "[TRVN]%x[%wZ][%d]: %s() (%d):\t"

// Logs one diagnostic: the head, then the message. The function name and the
// line are those of the call site and are passed explicitly.
#define TRVN_LOG(function, line, format, ...)                                                  \
    do {                                                                                       \
        if (IsDebugPrintEnabled()) {                                                           \
            WCHAR awcLogName[LOG_PROCESS_NAME_CHARS];                                          \
            UNICODE_STRING ustrLogName = {0, sizeof(awcLogName), awcLogName};                  \
            GetLogProcessName(&ustrLogName);                                                   \
            DbgPrint(TRVN_LOG_HEAD, (ULONG)(ULONG_PTR)KeGetCurrentThread(), &ustrLogName,      \
                     (LONG)(ULONG_PTR)PsGetCurrentProcessId(), (function), (int)(line));       \
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
