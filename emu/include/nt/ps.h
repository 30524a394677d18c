// Processes and threads.
#pragma once
#include "ntdef.h"

NT_BEGIN_C
PEPROCESS PsGetCurrentProcess(VOID);
HANDLE PsGetCurrentProcessId(VOID);
PETHREAD PsGetCurrentThread(VOID);
HANDLE PsGetCurrentThreadId(VOID);
HANDLE PsGetProcessId(PEPROCESS Process);
NTSTATUS PsLookupProcessByProcessId(HANDLE ProcessId, PEPROCESS* Process);
// The system build number; bits 28-31 carry the checked/free marker as on NT.
extern ULONG NtBuildNumber;
NT_END_C
