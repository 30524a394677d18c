// Debug switch and the capture of the current process's image name.
#include "base/log.h"

#include "base/global_state.h"

UNICODE_STRING g_ustrCurrentProcessName = {0, 0, NULL};
ULONG g_ulProcessNameOffset = 0;

// Requests of many processes run at once, each on its caller's thread, so one
// shared name read by every head would name whichever process captured last.
// The head therefore reads the image name of its own process; the shared name
// (guarded by a spin lock, since heads are printed at any IRQL up to
// DISPATCH_LEVEL) only stands in for it when that cannot be read, and only
// for the process that captured it.
static KSPIN_LOCK s_CurrentProcessNameLock = 0;
static ULONG s_ulCurrentProcessNameId = 0;

// At most this many eight-bit characters of an image name are taken.
#define IMAGE_NAME_CHARS 15

BOOLEAN IsDebugPrintEnabled() {
    return g_bDebugPrintEnabled;
}

BOOLEAN GetCurrentProcessName(PUNICODE_STRING ProcessName) {
    if (g_ulProcessNameOffset == 0) {
        return FALSE;
    }

    CHAR szImageName[IMAGE_NAME_CHARS + 1];
    const CHAR* pImageName = (const CHAR*)IoGetCurrentProcess() + g_ulProcessNameOffset;
    strncpy(szImageName, pImageName, IMAGE_NAME_CHARS);
    szImageName[IMAGE_NAME_CHARS] = '\0';

    ANSI_STRING ansiName;
    RtlInitAnsiString(&ansiName, szImageName);
    NTSTATUS nStatus = RtlAnsiStringToUnicodeString(ProcessName, &ansiName, FALSE);
    if (NT_SUCCESS(nStatus)) {
        return TRUE;
    }

    ProcessName->Length = 0;
    if (ProcessName->Buffer != NULL) {
        memset(ProcessName->Buffer, 0, ProcessName->MaximumLength);
    }
    return FALSE;
}

// Copies at most the target's capacity, without logging (a head calls this).
static VOID CopyNameBounded(PUNICODE_STRING Target, PCUNICODE_STRING Source) {
    USHORT usLength = Source->Length;
    if (usLength > Target->MaximumLength) {
        usLength = (USHORT)(Target->MaximumLength & ~1U);
    }
    if (usLength != 0) {
        memcpy(Target->Buffer, Source->Buffer, usLength);
    }
    Target->Length = usLength;
}

VOID SetCurrentProcessName(PCUNICODE_STRING Name) {
    KIRQL irql;
    KeAcquireSpinLock(&s_CurrentProcessNameLock, &irql);
    if (g_ustrCurrentProcessName.Buffer != NULL) {
        CopyNameBounded(&g_ustrCurrentProcessName, Name);
    }
    s_ulCurrentProcessNameId = (ULONG)(ULONG_PTR)PsGetCurrentProcessId();
    KeReleaseSpinLock(&s_CurrentProcessNameLock, irql);
}

VOID GetLogProcessName(PUNICODE_STRING Name) {
    Name->Length = 0;
    if (GetCurrentProcessName(Name)) {
        return;
    }
    KIRQL irql;
    KeAcquireSpinLock(&s_CurrentProcessNameLock, &irql);
    if (g_ustrCurrentProcessName.Buffer != NULL &&
        s_ulCurrentProcessNameId == (ULONG)(ULONG_PTR)PsGetCurrentProcessId()) {
        CopyNameBounded(Name, &g_ustrCurrentProcessName);
    }
    KeReleaseSpinLock(&s_CurrentProcessNameLock, irql);
}
