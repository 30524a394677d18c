// Monitored processes: the controller's list of process ids, and the image
// names that are monitored without being listed.
#include "control/process_list.h"

#include "base/strings.h"
#include "base/scoped.h"
#include "base/log.h"
#include "base/global_state.h"

PMonitoredProcessEntry g_pMonitoredProcessList = NULL;
ERESOURCE g_MonitoredProcessListLock;

// A listed name holds the whole 20-character field.
#define PROCESS_NAME_SIZE (PROCESS_NAME_CHARS * sizeof(WCHAR))
// Room for an image name of 15 characters and its terminator.
#define IMAGE_NAME_BUFFER_SIZE 32

static const PCWSTR s_apwszAlwaysMonitored[] = {L"csrss.exe", L"msiexec.exe"};

VOID InitMonitoredProcessList() {
    g_pMonitoredProcessList = NULL;
    ExInitializeResourceLite(&g_MonitoredProcessListLock);
}

static VOID FreeMonitoredProcessEntry(PMonitoredProcessEntry Entry) {
    ExFreePoolWithTag(Entry->m_ustrName.Buffer, TRVN_TAG_GENERAL);
    ExFreePoolWithTag(Entry, TRVN_TAG_GENERAL);
}

// A process whose entry or name cannot be allocated is not added, and the
// caller is told.
NTSTATUS AddMonitoredProcess(const TervaneProcessRecord* Record) {
    ResourceLock lock(&g_MonitoredProcessListLock, TRUE);

    PMonitoredProcessEntry* ppLink = &g_pMonitoredProcessList;
    for (; *ppLink != NULL; ppLink = &(*ppLink)->m_pNext) {
        if ((*ppLink)->m_ulProcessId == Record->m_ulProcessId) {
            return STATUS_SUCCESS;
        }
    }

    PoolBlock entryBlock(sizeof(MonitoredProcessEntry), TRVN_TAG_GENERAL);
    PoolBlock nameBlock(PROCESS_NAME_SIZE, TRVN_TAG_GENERAL);
    if (entryBlock.Get() == NULL || nameBlock.Get() == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PMonitoredProcessEntry pEntry = (PMonitoredProcessEntry)entryBlock.Detach();
    pEntry->m_ulProcessId = Record->m_ulProcessId;
    pEntry->m_ustrName.Buffer = (PWSTR)nameBlock.Detach();
    pEntry->m_ustrName.Length = 0;
    pEntry->m_ustrName.MaximumLength = PROCESS_NAME_SIZE;
    pEntry->m_pNext = NULL;

    // Up to the name's zero or the end of its field, never beyond the record.
    WCHAR wszName[PROCESS_NAME_CHARS];
    memcpy(wszName, Record->m_wszName, sizeof(wszName));
    AppendStringToCountedN(&pEntry->m_ustrName, wszName, PROCESS_NAME_CHARS);

    *ppLink = pEntry;
    return STATUS_SUCCESS;
}

VOID RemoveMonitoredProcess(ULONG ProcessId) {
    ResourceLock lock(&g_MonitoredProcessListLock, TRUE);
    PMonitoredProcessEntry* ppLink = &g_pMonitoredProcessList;
    while (*ppLink != NULL) {
        PMonitoredProcessEntry pEntry = *ppLink;
        if (pEntry->m_ulProcessId == ProcessId) {
            *ppLink = pEntry->m_pNext;
            FreeMonitoredProcessEntry(pEntry);
        } else {
            ppLink = &pEntry->m_pNext;
        }
    }
}

BOOLEAN GetMonitoredProcessList(PVOID Output, ULONG OutputLength, PULONG BytesWritten) {
    ULONG ulWritten = 0;
    BOOLEAN bComplete = TRUE;
    {
        ResourceLock lock(&g_MonitoredProcessListLock, FALSE);
        for (PMonitoredProcessEntry pEntry = g_pMonitoredProcessList; pEntry != NULL; pEntry = pEntry->m_pNext) {
            if (ulWritten + sizeof(TervaneProcessRecord) > OutputLength) {
                bComplete = FALSE;
                break;
            }
            PUCHAR pRecord = (PUCHAR)Output + ulWritten;
            memcpy(pRecord + FIELD_OFFSET(TervaneProcessRecord, m_ulProcessId), &pEntry->m_ulProcessId,
                   sizeof(ULONG));
            // At most 19 characters and a zero; the rest of the field is left alone.
            ULONG ulChars = pEntry->m_ustrName.Length / sizeof(WCHAR);
            if (ulChars > PROCESS_NAME_CHARS - 1) {
                ulChars = PROCESS_NAME_CHARS - 1;
            }
            PUCHAR pName = pRecord + FIELD_OFFSET(TervaneProcessRecord, m_wszName);
            const WCHAR wcZero = L'\0';
            memcpy(pName, pEntry->m_ustrName.Buffer, ulChars * sizeof(WCHAR));
            memcpy(pName + ulChars * sizeof(WCHAR), &wcZero, sizeof(WCHAR));
            ulWritten += sizeof(TervaneProcessRecord);
        }
    }
    if (BytesWritten != NULL) {
        *BytesWritten = ulWritten;
    }
    return bComplete;
}

VOID ClearMonitoredProcessList() {
    ResourceLock lock(&g_MonitoredProcessListLock, TRUE);
    PMonitoredProcessEntry pEntry = g_pMonitoredProcessList;
    g_pMonitoredProcessList = NULL;
    while (pEntry != NULL) {
        PMonitoredProcessEntry pNext = pEntry->m_pNext;
        FreeMonitoredProcessEntry(pEntry);
        pEntry = pNext;
    }
}

BOOLEAN GetMonitoredProcessCount(PULONG Count) {
    if (Count == NULL) {
        return FALSE;
    }
    ResourceLock lock(&g_MonitoredProcessListLock, FALSE);
    ULONG ulCount = 0;
    for (PMonitoredProcessEntry pEntry = g_pMonitoredProcessList; pEntry != NULL; pEntry = pEntry->m_pNext) {
        ulCount++;
    }
    *Count = ulCount;
    return TRUE;
}

// Hands Name to the caller's string, logging a copy that does not succeed.
static VOID HandBackName(PUNICODE_STRING ProcessName, PCUNICODE_STRING Name, int Line) {
    NTSTATUS nStatus = CopyCountedString(ProcessName, Name);
    if (nStatus != STATUS_SUCCESS) {
        TRVN_LOG("IsMonitoredProcess", Line, "ProcessName Copy Fail: [%wZ] Status[0x%x]\r\n", Name, (ULONG)nStatus);
    }
}

BOOLEAN IsMonitoredProcess(ULONG ProcessId, PUNICODE_STRING ProcessName) {
    BOOLEAN bMonitored = FALSE;
    PoolBlock nameBlock(IMAGE_NAME_BUFFER_SIZE, TRVN_TAG_GENERAL);
    UNICODE_STRING ustrImageName;
    ustrImageName.Buffer = (PWSTR)nameBlock.Get();
    ustrImageName.Length = 0;
    ustrImageName.MaximumLength = IMAGE_NAME_BUFFER_SIZE;

    const BOOLEAN bHaveName = ustrImageName.Buffer != NULL && GetCurrentProcessName(&ustrImageName);
    if (bHaveName) {
        for (ULONG i = 0; i < ARRAYSIZE(s_apwszAlwaysMonitored); i++) {
            UNICODE_STRING ustrAlways;
            RtlInitUnicodeString(&ustrAlways, s_apwszAlwaysMonitored[i]);
            if (RtlEqualUnicodeString(&ustrAlways, &ustrImageName, TRUE)) {
                bMonitored = TRUE;
                if (ProcessName != NULL) {
                    HandBackName(ProcessName, &ustrImageName, 100);
                }
            }
        }
    }

    ResourceLock lock(&g_MonitoredProcessListLock, FALSE);
    if (!bMonitored) {
        for (PMonitoredProcessEntry pEntry = g_pMonitoredProcessList; pEntry != NULL; pEntry = pEntry->m_pNext) {
            if (pEntry->m_ulProcessId == ProcessId) {
                bMonitored = TRUE;
                if (ProcessName != NULL) {
                    if (bHaveName) {
                        HandBackName(ProcessName, &ustrImageName, 124);
                    } else {
                        HandBackName(ProcessName, &pEntry->m_ustrName, 132);
                    }
                }
                break;
            }
        }
    }
    return bMonitored;
}
