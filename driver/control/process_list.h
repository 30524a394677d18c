// Monitored processes: the list the controller fills, plus the image names
// that are always monitored.
#pragma once

#include "platform/platform.h"
#include "control/control.h"

// One listed process. Non-paged pool, "Trvm".
typedef struct _MonitoredProcessEntry {
    ULONG m_ulProcessId;
    UNICODE_STRING m_ustrName;                // own 40-byte buffer, not terminated
    struct _MonitoredProcessEntry* m_pNext;
} MonitoredProcessEntry, *PMonitoredProcessEntry;

extern PMonitoredProcessEntry g_pMonitoredProcessList;
extern ERESOURCE g_MonitoredProcessListLock;

VOID InitMonitoredProcessList();

NTSTATUS AddMonitoredProcess(const TervaneProcessRecord* Record);
VOID RemoveMonitoredProcess(ULONG ProcessId);
BOOLEAN GetMonitoredProcessList(PVOID Output, ULONG OutputLength, PULONG BytesWritten);
VOID ClearMonitoredProcessList();
BOOLEAN GetMonitoredProcessCount(PULONG Count);
BOOLEAN IsMonitoredProcess(ULONG ProcessId, PUNICODE_STRING ProcessName);
