// The merged directory listing: a redirected directory is listed as the union
// of its copies in all filter directories, from filter directory 0 upwards,
// one batch of one filter directory per call, without the names that are
// hidden or that a lower filter directory's file index does not know.
#include "control/filter_directory.h"
#include "base/scoped.h"
#include "base/strings.h"
#include "base/log.h"
#include "base/global_state.h"
#include "filemgr/file_handle_table.h"
#include "filemgr/file_manager.h"
#include "filemgr/mapped_real_path.h"
#include "index/file_index.h"


namespace {

// Where the name and its length lie in the records of a listed class.
struct DirectoryClassLayout {
    FILE_INFORMATION_CLASS m_Class;
    ULONG m_ulNameLengthOffset;
    ULONG m_ulNameOffset;
};

const DirectoryClassLayout s_aClassLayouts[] = {
    {FileDirectoryInformation, FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileNameLength),
     FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileName)},
    {FileFullDirectoryInformation, FIELD_OFFSET(FILE_FULL_DIR_INFORMATION, FileNameLength),
     FIELD_OFFSET(FILE_FULL_DIR_INFORMATION, FileName)},
    {FileBothDirectoryInformation, FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileNameLength),
     FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName)},
    {FileNamesInformation, FIELD_OFFSET(FILE_NAMES_INFORMATION, FileNameLength),
     FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName)},
    {FileIdBothDirectoryInformation, FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, FileNameLength),
     FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, FileName)},
    {FileIdFullDirectoryInformation, FIELD_OFFSET(FILE_ID_FULL_DIR_INFORMATION, FileNameLength),
     FIELD_OFFSET(FILE_ID_FULL_DIR_INFORMATION, FileName)},
};

static_assert(FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName) == 94, "records as the kernel lays them out");
static_assert(FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, FileName) == 104, "records as the kernel lays them out");
static_assert(FIELD_OFFSET(FILE_ID_FULL_DIR_INFORMATION, FileName) == 80, "records as the kernel lays them out");

const DirectoryClassLayout* FindClassLayout(FILE_INFORMATION_CLASS Class) {
    for (ULONG i = 0; i < sizeof(s_aClassLayouts) / sizeof(s_aClassLayouts[0]); i++) {
        if (s_aClassLayouts[i].m_Class == Class) {
            return &s_aClassLayouts[i];
        }
    }
    return NULL;
}

// The stored pattern of the running listing goes.
VOID FreeStoredPattern(PFileHandleEntry pFileHandleEntry) {
    if (pFileHandleEntry->m_ustrCurrentQueryDirectoryName.Buffer != NULL) {
        ExFreePoolWithTag(pFileHandleEntry->m_ustrCurrentQueryDirectoryName.Buffer, TRVN_TAG_GENERAL);
    }
    RtlZeroMemory(&pFileHandleEntry->m_ustrCurrentQueryDirectoryName, sizeof(UNICODE_STRING));
}

VOID EndListing(PFileHandleEntry pFileHandleEntry) {
    if (pFileHandleEntry->m_hQueryDirHandle != NULL) {
        ZwClose(pFileHandleEntry->m_hQueryDirHandle);
    }
    pFileHandleEntry->m_hQueryDirHandle = NULL;
    pFileHandleEntry->m_ulQueryDirFilterFlag = 0;
    FreeStoredPattern(pFileHandleEntry);
}

// Whether a record of the filter directory being listed stays in the view.
BOOLEAN KeepEntry(PFileHandleEntry pFileHandleEntry, PFilterDirectoryEntry pFilter, PCUNICODE_STRING pustrName,
                  PUNICODE_STRING pustrFullPath) {
    JoinPath(&pFileHandleEntry->m_ustrFullPath, pustrName, pustrFullPath, FALSE);
    if (!IsDotOrDotDot(pustrName) && pFilter != NULL && !LookupFilterIndex(pFilter->m_ppIndexHolder, pustrFullPath)) {
        return FALSE;
    }
    if (pFileHandleEntry->m_ulQueryDirFilterFlag != 1 && IsPathHidden(pustrFullPath)) {
        return FALSE;
    }
    return TRUE;
}

// Copies the kept records of one batch into the caller's buffer. Records are
// taken only while they lie wholly inside the bytes the query wrote.
ULONG FilterBatch(PFileHandleEntry pFileHandleEntry, const DirectoryClassLayout* pLayout, PUCHAR pBatch,
                  ULONG ulWritten, PUCHAR pOutput, PUNICODE_STRING pustrFullPath) {
    PFilterDirectoryEntry pFilter = GetFilterDirectory(pFileHandleEntry->m_ulQueryDirFilterFlag);
    ULONG ulOffset = 0;
    ULONG ulBytes = 0;
    PULONG pulLastNext = NULL;
    for (;;) {
        if (ulOffset > ulWritten || ulWritten - ulOffset < pLayout->m_ulNameOffset) {
            break;
        }
        PUCHAR pRecord = pBatch + ulOffset;
        const ULONG ulNext = *(PULONG)pRecord;
        const ULONG ulNameLength = *(PULONG)(pRecord + pLayout->m_ulNameLengthOffset);
        if (ulNameLength > ulWritten - ulOffset - pLayout->m_ulNameOffset || ulNameLength > 0xFFFE) {
            break;
        }
        ULONG ulSize = ulNext != 0 ? ulNext : pLayout->m_ulNameOffset + ulNameLength;
        if (ulSize > ulWritten - ulOffset) {
            break;
        }
        UNICODE_STRING ustrName;
        ustrName.Buffer = (PWSTR)(pRecord + pLayout->m_ulNameOffset);
        ustrName.Length = (USHORT)ulNameLength;
        ustrName.MaximumLength = (USHORT)ulNameLength;
        if (KeepEntry(pFileHandleEntry, pFilter, &ustrName, pustrFullPath)) {
            RtlCopyMemory(pOutput + ulBytes, pRecord, ulSize);
            pulLastNext = (PULONG)(pOutput + ulBytes);
            ulBytes += ulSize;
        }
        if (ulNext == 0) {
            break;
        }
        ulOffset += ulNext;
    }
    if (pulLastNext != NULL) {
        *pulLastNext = 0;
    }
    return ulBytes;
}

}  // namespace

BOOLEAN IsDotOrDotDot(PCUNICODE_STRING pustrName) {
    if (pustrName == NULL || pustrName->Buffer == NULL) {
        return FALSE;
    }
    if (pustrName->Length == sizeof(WCHAR)) {
        return pustrName->Buffer[0] == L'.';
    }
    if (pustrName->Length == 2 * sizeof(WCHAR)) {
        return pustrName->Buffer[0] == L'.' && pustrName->Buffer[1] == L'.';
    }
    return FALSE;
}

NTSTATUS FiltQueryDirectoryUpdateFilter(PFileHandleEntry pFileHandleEntry, BOOLEAN bRestart,
                                        PCUNICODE_STRING pustrPattern) {
    if (pFileHandleEntry == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    ULONG ulFlag = bRestart ? 1 : pFileHandleEntry->m_ulQueryDirFilterFlag << 1;
    NTSTATUS nCheckStatus;
    const ULONG ulExists = FiltCheckFileExists(&pFileHandleEntry->m_ustrFullPath, FILTER_MASK_ALL, NULL, &nCheckStatus);
    if (!NT_SUCCESS(nCheckStatus)) {
        return nCheckStatus;  // a listing without a filter directory's part would look whole
    }
    if (ulExists == 0) {
        return STATUS_NO_SUCH_FILE;
    }
    while (ulFlag != 0 && (ulExists & ulFlag) == 0) {
        ulFlag <<= 1;
    }
    if (ulFlag == 0) {
        EndListing(pFileHandleEntry);
        return bRestart ? STATUS_NO_SUCH_FILE : STATUS_NO_MORE_FILES;
    }

    HANDLE hDirectory = NULL;
    NTSTATUS nStatus = FiltOpenFile(ulFlag, FALSE, &hDirectory, GENERIC_READ | SYNCHRONIZE,
                                    &pFileHandleEntry->m_ustrFullPath, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN,
                                    FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    if (!NT_SUCCESS(nStatus)) {
        EndListing(pFileHandleEntry);
        TRVN_LOG("FiltQueryDirectoryUpdateFilter", __LINE__, "Cannot open directory [%wZ] in filter [%d] /w Err[%d]",
                 &pFileHandleEntry->m_ustrFullPath, ulFlag, nStatus);
        return STATUS_UNSUCCESSFUL;
    }
    if (pFileHandleEntry->m_hQueryDirHandle != NULL) {
        ZwClose(pFileHandleEntry->m_hQueryDirHandle);
    }
    pFileHandleEntry->m_hQueryDirHandle = hDirectory;
    pFileHandleEntry->m_ulQueryDirFilterFlag = ulFlag;
    if (!bRestart) {
        return STATUS_SUCCESS;
    }

    FreeStoredPattern(pFileHandleEntry);
    // An empty pattern is no pattern: the whole directory is listed.
    if (pustrPattern != NULL && pustrPattern->Length != 0 && pustrPattern->Buffer != NULL) {
        pFileHandleEntry->m_ustrCurrentQueryDirectoryName.Buffer =
            (PWSTR)ExAllocatePoolWithTag(NonPagedPool, pustrPattern->Length, TRVN_TAG_GENERAL);
        TRVN_ASSERT(pFileHandleEntry->m_ustrCurrentQueryDirectoryName.Buffer, FILE_MANAGER_SOURCE, __LINE__);
        if (pFileHandleEntry->m_ustrCurrentQueryDirectoryName.Buffer == NULL) {
            // The later filter directories would be listed without the
            // pattern: the listing fails instead.
            EndListing(pFileHandleEntry);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        pFileHandleEntry->m_ustrCurrentQueryDirectoryName.Length = pustrPattern->Length;
        pFileHandleEntry->m_ustrCurrentQueryDirectoryName.MaximumLength = pustrPattern->Length;
        CopyCountedString(&pFileHandleEntry->m_ustrCurrentQueryDirectoryName, pustrPattern);
    }
    return STATUS_SUCCESS;
}

NTSTATUS FiltQueryDirectory(PFileHandleEntry pFileHandleEntry, const QUERY_DIRECTORY_PARAMETERS* pParameters,
                            PVOID pBuffer, BOOLEAN bReturnSingleEntry, BOOLEAN bRestartScan, PULONG pulBytesWritten) {
    if (pFileHandleEntry == NULL || pParameters == NULL || pulBytesWritten == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    PCUNICODE_STRING pustrPattern = pParameters->FileName;
    NTSTATUS nStatus;
    if (bRestartScan || pFileHandleEntry->m_hQueryDirHandle == NULL) {
        nStatus = FiltQueryDirectoryUpdateFilter(pFileHandleEntry, TRUE, pustrPattern);
        if (!NT_SUCCESS(nStatus)) {
            TRVN_LOG("FiltQueryDirectory", __LINE__, "FiltQueryDirectoryFilter failed for [%wZ] /w Err[%d]\r\n",
                     &pFileHandleEntry->m_ustrFullPath, nStatus);
            return nStatus;
        }
    }

    const FILE_INFORMATION_CLASS Class = pParameters->FileInformationClass;
    const DirectoryClassLayout* pLayout = FindClassLayout(Class);
    if (pLayout == NULL) {
        if (Class == FileObjectIdInformation || Class == FileQuotaInformation || Class == FileReparsePointInformation) {
            TRVN_LOG("FiltQueryDirectory", __LINE__, "not supported information class [%d]", (int)Class);
            return STATUS_NOT_IMPLEMENTED;
        }
        TRVN_LOG("FiltQueryDirectory", __LINE__, "unknown file information class [%d]", (int)Class);
        return STATUS_UNSUCCESSFUL;
    }
    // A buffer that cannot hold one record's fixed part holds nothing.
    const ULONG ulLength = pParameters->Length;
    if (ulLength < pLayout->m_ulNameOffset || pBuffer == NULL) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }

    PoolBlock batch(ulLength, TRVN_TAG_GENERAL);
    PathBuffer fullPath;
    if (batch.Get() == NULL || !fullPath.Have()) {
        TRVN_LOG("FiltQueryDirectory", __LINE__, "Cannot allocate buffer\r\n");
        return STATUS_UNSUCCESSFUL;
    }

    // The caller's restart applies to the first query only: a batch whose
    // records were all dropped is followed by the next batch of the same
    // copy, so nothing further down that copy is lost.
    BOOLEAN bRestart = bRestartScan;
    for (;;) {
        IO_STATUS_BLOCK IoStatus;
        IoStatus.Status = STATUS_SUCCESS;
        IoStatus.Information = 0;
        PUNICODE_STRING pustrStored = pFileHandleEntry->m_ustrCurrentQueryDirectoryName.Buffer != NULL
                                          ? &pFileHandleEntry->m_ustrCurrentQueryDirectoryName
                                          : NULL;
        nStatus = ZwQueryDirectoryFile(pFileHandleEntry->m_hQueryDirHandle, NULL, NULL, NULL, &IoStatus, batch.Get(),
                                       ulLength, Class, bReturnSingleEntry, pustrStored, bRestart);
        bRestart = FALSE;
        if (!NT_SUCCESS(nStatus) && nStatus != STATUS_NO_MORE_FILES && nStatus != STATUS_NO_SUCH_FILE) {
            TRVN_LOG("FiltQueryDirectory", __LINE__, "ZwQueryDirectoryFile failed for [%wZ] /w Err[%d]",
                     &pFileHandleEntry->m_ustrFullPath, nStatus);
            return nStatus;
        }
        ULONG ulWritten = (ULONG)IoStatus.Information;
        if (ulWritten > ulLength) {
            ulWritten = ulLength;
        }
        // A success that brought no record counts as the end of this copy.
        if (NT_SUCCESS(nStatus) && ulWritten >= pLayout->m_ulNameOffset) {
            ULONG ulBytes = FilterBatch(pFileHandleEntry, pLayout, batch.As<UCHAR>(), ulWritten, (PUCHAR)pBuffer,
                                        fullPath.Get());
            if (ulBytes != 0) {
                *pulBytesWritten = ulBytes;
                return STATUS_SUCCESS;
            }
            continue;
        }
        nStatus = FiltQueryDirectoryUpdateFilter(pFileHandleEntry, FALSE, pustrPattern);
        if (!NT_SUCCESS(nStatus)) {
            TRVN_LOG("FiltQueryDirectory", __LINE__, "FiltQueryDirectoryFilter failed for [%wZ] /w Err[%d]\r\n",
                     &pFileHandleEntry->m_ustrFullPath, nStatus);
            return nStatus;
        }
    }
}
