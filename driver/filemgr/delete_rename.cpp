// Delete across filter directories: only the copy in filter directory 0 is
// really deleted; the copies in the other filter directories, which are never
// changed, are put out of sight through the hidden-path index. Every copy is
// first opened for deletion, so a delete happens as a whole or not at all.
#include "control/filter_directory.h"
#include "base/scoped.h"
#include "base/strings.h"
#include "base/global_state.h"
#include "filemgr/file_manager.h"
#include "filemgr/mapped_real_path.h"
#include "index/file_index.h"


#define DELETE_ACCESS (DELETE | SYNCHRONIZE | FILE_WRITE_ATTRIBUTES)
#define SHARE_ALL (FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE)

NTSTATUS ResetFileAttributes(PCUNICODE_STRING pustrRealPath) {
    ScopedHandle hFile;
    IO_STATUS_BLOCK IoStatus;
    NTSTATUS nStatus = FiltOpenFile(0, FALSE, hFile.Out(), GENERIC_READ | SYNCHRONIZE, pustrRealPath, SHARE_ALL,
                                    FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT);
    if (!NT_SUCCESS(nStatus)) {
        return nStatus;
    }
    PoolBlock basic(sizeof(FILE_BASIC_INFORMATION), TRVN_TAG_BASIC_INFO);
    if (basic.Get() == NULL) {
        return STATUS_UNSUCCESSFUL;
    }
    PFILE_BASIC_INFORMATION pBasic = basic.As<FILE_BASIC_INFORMATION>();
    nStatus = ZwQueryInformationFile(hFile.Get(), &IoStatus, pBasic, sizeof(FILE_BASIC_INFORMATION),
                                     FileBasicInformation);
    if (!NT_SUCCESS(nStatus)) {
        return nStatus;
    }
    pBasic->FileAttributes = FILE_ATTRIBUTE_NORMAL;
    return ZwSetInformationFile(hFile.Get(), &IoStatus, pBasic, sizeof(FILE_BASIC_INFORMATION),
                                FileBasicInformation);
}

// Opens the real path for deletion and marks it; the file goes when the
// handle closes (the guard closes it). *pbOpened tells whether the open
// itself succeeded.
static NTSTATUS MarkForDeletion(PCUNICODE_STRING pustrRealPath, PFILE_DISPOSITION_INFORMATION pDisposition,
                                PBOOLEAN pbOpened) {
    ScopedHandle hFile;
    IO_STATUS_BLOCK IoStatus;
    NTSTATUS nStatus = FiltOpenFile(0, FALSE, hFile.Out(), DELETE_ACCESS, pustrRealPath, SHARE_ALL, FILE_OPEN,
                                    FILE_SYNCHRONOUS_IO_NONALERT);
    *pbOpened = NT_SUCCESS(nStatus);
    if (!NT_SUCCESS(nStatus)) {
        return nStatus;
    }
    return ZwSetInformationFile(hFile.Get(), &IoStatus, pDisposition, sizeof(FILE_DISPOSITION_INFORMATION),
                                FileDispositionInformation);
}

// Without memory for the disposition record nothing is deleted and the
// caller is told so: reporting success here would hide lower copies of a
// file that still stands in filter directory 0.
NTSTATUS DeleteRealFile(PCUNICODE_STRING pustrRealPath) {
    PoolBlock disposition(sizeof(FILE_DISPOSITION_INFORMATION), TRVN_TAG_DISPOSITION);
    if (disposition.Get() == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PFILE_DISPOSITION_INFORMATION pDisposition = disposition.As<FILE_DISPOSITION_INFORMATION>();
    pDisposition->DeleteFile = TRUE;

    BOOLEAN bOpened = FALSE;
    NTSTATUS nStatus = MarkForDeletion(pustrRealPath, pDisposition, &bOpened);
    if (nStatus != STATUS_CANNOT_DELETE || !bOpened) {
        return nStatus;
    }
    // Read-only: clear the attribute and try once more.
    NTSTATUS nResetStatus = ResetFileAttributes(pustrRealPath);
    if (!NT_SUCCESS(nResetStatus)) {
        return nResetStatus;
    }
    nStatus = MarkForDeletion(pustrRealPath, pDisposition, &bOpened);
    return bOpened ? nStatus : STATUS_CANNOT_DELETE;
}

BOOLEAN FiltDeleteFile(PCUNICODE_STRING pustrPath) {
    const ULONG ulExists = FiltCheckFileExists(pustrPath, FILTER_MASK_ALL, NULL);
    if (ulExists == 0) {
        return TRUE;
    }
    const ULONG ulAll = GetFilterMask();
    for (ULONG ulFlag = 1; ulFlag != 0 && ulFlag <= ulAll; ulFlag <<= 1) {
        if ((ulExists & ulFlag) == 0) {
            continue;
        }
        HANDLE hProbe = NULL;
        NTSTATUS nStatus = FiltOpenFile(ulFlag, FALSE, &hProbe, DELETE_ACCESS, pustrPath,
                                        FILE_SHARE_READ | FILE_SHARE_DELETE, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT);
        if (!NT_SUCCESS(nStatus)) {
            return FALSE;
        }
        ZwClose(hProbe);
    }
    if (ulExists & 1) {
        PoolBlock buffer(PATH_BUFFER_SIZE, TRVN_TAG_GENERAL);
        if (buffer.Get() == NULL) {
            return FALSE;
        }
        UNICODE_STRING ustrReal;
        ustrReal.Buffer = buffer.As<WCHAR>();
        ustrReal.Length = 0;
        ustrReal.MaximumLength = PATH_BUFFER_SIZE;
        if (!GetRealFilePathForFilter(pustrPath, &ustrReal, 1, FALSE) || !NT_SUCCESS(DeleteRealFile(&ustrReal))) {
            return FALSE;
        }
    }
    if (ulExists & ~1UL) {
        HidePath(pustrPath);
    }
    return TRUE;
}

NTSTATUS FiltPrepareRemoval(PCUNICODE_STRING pustrPath, PULONG pulLowerMask) {
    *pulLowerMask = 0;
    NTSTATUS nCheckStatus;
    const ULONG ulLower = FiltCheckFileExists(pustrPath, GetFilterMask() & ~1UL, NULL, &nCheckStatus) & ~1UL;
    if (!NT_SUCCESS(nCheckStatus)) {
        return nCheckStatus;
    }
    const ULONG ulAll = GetFilterMask();
    for (ULONG ulFlag = 2; ulFlag != 0 && ulFlag <= ulAll; ulFlag <<= 1) {
        if ((ulLower & ulFlag) == 0) {
            continue;
        }
        ScopedHandle hProbe;
        NTSTATUS nStatus = FiltOpenFile(ulFlag, FALSE, hProbe.Out(), DELETE_ACCESS, pustrPath,
                                        FILE_SHARE_READ | FILE_SHARE_DELETE, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT);
        if (!NT_SUCCESS(nStatus)) {
            return nStatus;
        }
    }
    *pulLowerMask = ulLower;
    return STATUS_SUCCESS;
}
