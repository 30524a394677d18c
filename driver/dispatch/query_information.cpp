// IRP_MJ_QUERY_INFORMATION on a redirected open: the name and the delete
// disposition are answered from the entry, every other class by the real
// file.
#include "dispatch/dispatch.h"
#include "dispatch/handler_common.h"

#include "base/log.h"
#include "base/global_state.h"

// The reply's name is the drive path without its letter and colon.
#define DRIVE_PREFIX_BYTES (2 * sizeof(WCHAR))

static NTSTATUS QueryName(PIRP Irp, PIO_STACK_LOCATION pIrpSp, PFileHandleEntry pFileHandleEntry) {
    const ULONG ulLength = pIrpSp->Parameters.QueryFile.Length;
    const ULONG ulPathBytes = pFileHandleEntry->m_ustrFullPath.Length;
    PFILE_NAME_INFORMATION pInfo = (PFILE_NAME_INFORMATION)Irp->AssociatedIrp.SystemBuffer;
    // The whole buffer goes back to the caller, so it is zeroed on both
    // replies: no pool contents leak out with an overflow.
    RtlZeroMemory(pInfo, ulLength);
    if (ulLength < ulPathBytes + 4 || ulPathBytes < DRIVE_PREFIX_BYTES) {
        Irp->IoStatus.Status = STATUS_BUFFER_OVERFLOW;
        Irp->IoStatus.Information = ulLength;
        return STATUS_BUFFER_OVERFLOW;
    }
    pInfo->FileNameLength = ulPathBytes - DRIVE_PREFIX_BYTES;
    RtlCopyMemory(pInfo->FileName, (PUCHAR)pFileHandleEntry->m_ustrFullPath.Buffer + DRIVE_PREFIX_BYTES,
                  pInfo->FileNameLength);
    TRVN_LOG("TervaneQueryInformation", __LINE__, "QueryInformation\tFileNameInformation Name[%ls] Buffer Length[%d]",
             pInfo->FileName, pInfo->FileNameLength);
    Irp->IoStatus.Status = STATUS_SUCCESS;
    Irp->IoStatus.Information = ulLength;
    return STATUS_SUCCESS;
}

// The disposition reply is one byte. A zero-length buffer gets nothing: the
// I/O manager checks the class's minimum size before it sends the request,
// and this handler writes no more than it was given.
static NTSTATUS QueryDisposition(PIRP Irp, PIO_STACK_LOCATION pIrpSp, PFileHandleEntry pFileHandleEntry) {
    const ULONG ulLength = pIrpSp->Parameters.QueryFile.Length;
    if (ulLength >= sizeof(BOOLEAN)) {
        ((PFILE_DISPOSITION_INFORMATION)Irp->AssociatedIrp.SystemBuffer)->DeleteFile =
            pFileHandleEntry->m_bDeleteOnClose;
    }
    TRVN_LOG("TervaneQueryInformation", __LINE__, "QueryInformation\tFileDispositionInformation [%wZ] Delete[%d]",
             &pFileHandleEntry->m_ustrFullPath, (int)pFileHandleEntry->m_bDeleteOnClose);
    Irp->IoStatus.Status = STATUS_SUCCESS;
    Irp->IoStatus.Information = ulLength;
    return STATUS_SUCCESS;
}

static VOID LogRealReply(PIRP Irp, PIO_STACK_LOCATION pIrpSp, PFileHandleEntry pFileHandleEntry, NTSTATUS nStatus) {
    const FILE_INFORMATION_CLASS eClass = pIrpSp->Parameters.QueryFile.FileInformationClass;
    const ULONG ulLength = pIrpSp->Parameters.QueryFile.Length;
    PVOID pBuffer = Irp->AssociatedIrp.SystemBuffer;
    if (eClass == FileStandardInformation && ulLength >= sizeof(FILE_STANDARD_INFORMATION)) {
        PFILE_STANDARD_INFORMATION pInfo = (PFILE_STANDARD_INFORMATION)pBuffer;
        TRVN_LOG("TervaneQueryInformation", __LINE__,
                 "StandardInformation [%wZ], AllocationSize: %I64d, EndOfFile: %I64d, NumberOfLinks: %d, "
                 "DeletePending: %d, Directory: %d\r\n",
                 &pFileHandleEntry->m_ustrFullPath, pInfo->AllocationSize.QuadPart, pInfo->EndOfFile.QuadPart,
                 pInfo->NumberOfLinks, (int)pInfo->DeletePending, (int)pInfo->Directory);
    } else if (eClass == FileBasicInformation && ulLength >= sizeof(FILE_BASIC_INFORMATION)) {
        PFILE_BASIC_INFORMATION pInfo = (PFILE_BASIC_INFORMATION)pBuffer;
        TRVN_LOG("TervaneQueryInformation", __LINE__,
                 "BasicInformation [%wZ], CreattionTime: %I64d, LastAccessTime: %I64d, LastWriteTime: %I64d, "
                 "ChangeTime: %I64d, FileAttributes: %d\r\n",
                 &pFileHandleEntry->m_ustrFullPath, pInfo->CreationTime.QuadPart, pInfo->LastAccessTime.QuadPart,
                 pInfo->LastWriteTime.QuadPart, pInfo->ChangeTime.QuadPart, pInfo->FileAttributes);
    } else {
        TRVN_LOG("TervaneQueryInformation", __LINE__,
                 "QueryInformation\tFileInfoClass[%d] Length[%d] Res[%x] Status[%x] Info[%x]\r\n", (int)eClass,
                 ulLength, nStatus, Irp->IoStatus.Status, (ULONG)Irp->IoStatus.Information);
    }
}

NTSTATUS TervaneQueryInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry pFileHandleEntry) {
    PIO_STACK_LOCATION pIrpSp = IoGetCurrentIrpStackLocation(Irp);
    WaitForEntry(pFileHandleEntry);
    const NTSTATUS nFollowStatus = FollowPackCopy(DeviceObject, pFileHandleEntry);
    if (!NT_SUCCESS(nFollowStatus)) {
        return FailRequest(pFileHandleEntry, Irp, nFollowStatus);
    }

    NTSTATUS nStatus;
    switch (pIrpSp->Parameters.QueryFile.FileInformationClass) {
    case FileNameInformation:
        nStatus = QueryName(Irp, pIrpSp, pFileHandleEntry);
        break;
    case FileDispositionInformation:
        nStatus = QueryDisposition(Irp, pIrpSp, pFileHandleEntry);
        break;
    default:
        nStatus = ZwQueryInformationFile(pFileHandleEntry->m_hRealFileHandle, &Irp->IoStatus,
                                         Irp->AssociatedIrp.SystemBuffer, pIrpSp->Parameters.QueryFile.Length,
                                         pIrpSp->Parameters.QueryFile.FileInformationClass);
        LogRealReply(Irp, pIrpSp, pFileHandleEntry, nStatus);
        if (!NT_SUCCESS(nStatus)) {
            Irp->IoStatus.Status = nStatus;
        }
        break;
    }
    return ReleaseAndComplete(pFileHandleEntry, Irp, nStatus);
}
