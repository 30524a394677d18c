// Debug switch and the capture of the current process's image name.
#include "base/log.h"

#include "base/global_state.h"

UNICODE_STRING g_ustrCurrentProcessName = {0, 0, NULL};
ULONG g_ulProcessNameOffset = 0;

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
