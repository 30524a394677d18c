// Existence across filter directories: in which of them a drive path names an
// object that can be opened. Filter directory 0 is always probed on disk; the
// others only when the path is not hidden and their file index (if any)
// lists it, so most lower probes cost a lookup in memory instead of an open.
#include "control/filter_directory.h"
#include "base/scoped.h"
#include "base/log.h"
#include "base/global_state.h"
#include "filemgr/file_manager.h"
#include "filemgr/mapped_real_path.h"
#include "index/file_index.h"


// "\DosDevices\" in bytes, without a terminator.
#define DOS_DEVICES_PREFIX L"\\DosDevices\\"
#define DOS_DEVICES_PREFIX_BYTES (sizeof(DOS_DEVICES_PREFIX) - sizeof(WCHAR))

NTSTATUS CheckFileExists(PCUNICODE_STRING pustrRealPath) {
    // The log line names the path in its "\DosDevices\" form, counted in 16
    // bits with a terminator: a path too long for that is refused.
    if (pustrRealPath == NULL || (ULONG)pustrRealPath->Length + DOS_DEVICES_PREFIX_BYTES + sizeof(WCHAR) > 0xFFFE) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    HANDLE hFile = NULL;
    NTSTATUS nStatus = FiltOpenFile(0, FALSE, &hFile, GENERIC_READ, pustrRealPath,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN, 0);
    if (NT_SUCCESS(nStatus) && hFile != NULL) {
        ZwClose(hFile);
    }
    if (NT_SUCCESS(nStatus) || nStatus == STATUS_OBJECT_NAME_NOT_FOUND || nStatus == STATUS_OBJECT_PATH_NOT_FOUND) {
        return nStatus;
    }
    // Only this line needs the "\DosDevices\" form, so it is made only here.
    const USHORT usMessageSize = (USHORT)(pustrRealPath->Length + DOS_DEVICES_PREFIX_BYTES + sizeof(WCHAR));
    PoolBlock message(usMessageSize, TRVN_TAG_GENERAL);
    if (message.Get() == NULL) {
        TRVN_LOG("CheckFileExists", __LINE__, "Fail allocation");
        return nStatus;
    }
    UNICODE_STRING ustrMessage;
    ustrMessage.Buffer = message.As<WCHAR>();
    ustrMessage.Length = 0;
    ustrMessage.MaximumLength = usMessageSize;
    CopyStringToCounted(&ustrMessage, DOS_DEVICES_PREFIX);
    AppendCountedString(&ustrMessage, pustrRealPath);
    TRVN_LOG("CheckFileExists", __LINE__, "unknown err[%d] for [%wZ]\r\n", nStatus, &ustrMessage);
    return nStatus;
}

// Moves the status of the existence probes up the ranking: success, then
// "name not found" (a parent exists somewhere), then "path not found".
static VOID RefineExistenceStatus(PNTSTATUS pnStatus, NTSTATUS nFilterStatus) {
    if (*pnStatus == STATUS_OBJECT_NAME_NOT_FOUND && nFilterStatus == STATUS_SUCCESS) {
        *pnStatus = STATUS_SUCCESS;
    } else if (*pnStatus == STATUS_OBJECT_PATH_NOT_FOUND &&
               (nFilterStatus == STATUS_SUCCESS || nFilterStatus == STATUS_OBJECT_NAME_NOT_FOUND)) {
        *pnStatus = nFilterStatus;
    }
}

ULONG FiltCheckFileExists(PCUNICODE_STRING pustrPath, ULONG ulFilterMask, PNTSTATUS pnStatus,
                          PNTSTATUS pnCheckStatus) {
    NTSTATUS nIgnored;
    PNTSTATUS pnCheck = pnCheckStatus != NULL ? pnCheckStatus : &nIgnored;
    *pnCheck = STATUS_SUCCESS;
    PoolBlock working(PATH_BUFFER_SIZE, TRVN_TAG_GENERAL);
    if (working.Get() == NULL) {
        TRVN_LOG("FiltCheckFileExists", __LINE__, "alloc fail\r\n");
        *pnCheck = STATUS_INSUFFICIENT_RESOURCES;
        return 0;
    }
    UNICODE_STRING ustrReal;
    ustrReal.Buffer = working.As<WCHAR>();
    ustrReal.Length = 0;
    ustrReal.MaximumLength = PATH_BUFFER_SIZE;

    ULONG ulResult = 0;
    if ((ulFilterMask & 1) != 0 && GetRealFilePathForFilter(pustrPath, &ustrReal, 1, FALSE)) {
        NTSTATUS nStatus = CheckFileExists(&ustrReal);
        if (NT_SUCCESS(nStatus)) {
            ulResult |= 1;
        } else if (IsShortOfResources(nStatus)) {
            *pnCheck = nStatus;
        }
        if (pnStatus != NULL) {
            *pnStatus = nStatus;
        }
    }
    if (IsPathHidden(pustrPath)) {
        return ulResult;
    }

    const ULONG ulAll = GetFilterMask();
    for (ULONG ulFlag = 2; ulFlag != 0 && ulFlag <= ulAll; ulFlag <<= 1) {
        if ((ulFilterMask & ulFlag) == 0) {
            continue;
        }
        PFilterDirectoryEntry pFilter = GetFilterDirectory(ulFlag);
        if (pFilter == NULL) {
            continue;
        }
        if (!LookupFilterIndex(pFilter->m_ppIndexHolder, pustrPath)) {
            continue;
        }
        ustrReal.Length = 0;
        if (!GetRealFilePathForFilter(pustrPath, &ustrReal, ulFlag, FALSE)) {
            continue;
        }
        NTSTATUS nStatus = CheckFileExists(&ustrReal);
        if (NT_SUCCESS(nStatus)) {
            ulResult |= ulFlag;
        } else if (IsShortOfResources(nStatus)) {
            *pnCheck = nStatus;
        }
        if (pnStatus != NULL) {
            RefineExistenceStatus(pnStatus, nStatus);
        }
    }
    return ulResult;
}
