// IRP_MJ_DIRECTORY_CONTROL on a redirected open: queries are answered with
// the merged listing of the directory across the filter directories; change
// notification is refused.
#include "dispatch/dispatch.h"
#include "dispatch/handler_common.h"

#include "base/log.h"
#include "base/global_state.h"
#include "filemgr/file_manager.h"

// Logs the entries of a FileBothDirectoryInformation reply. The walk stays
// inside the bytes the listing reported, whatever the offsets say.
static VOID LogBothDirEntries(PVOID Buffer, ULONG BytesWritten) {
    ULONG ulOffset = 0;
    for (ULONG ulNumber = 1;; ulNumber++) {
        if (BytesWritten - ulOffset < (ULONG)FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName)) {
            return;
        }
        PFILE_BOTH_DIR_INFORMATION pInfo = (PFILE_BOTH_DIR_INFORMATION)((PUCHAR)Buffer + ulOffset);
        UNICODE_STRING ustrName;
        ULONG ulRoom = BytesWritten - ulOffset - FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName);
        ULONG ulNameBytes = pInfo->FileNameLength < ulRoom ? pInfo->FileNameLength : ulRoom;
        ustrName.Buffer = pInfo->FileName;
        ustrName.Length = ustrName.MaximumLength = (USHORT)(ulNameBytes > 0xFFFE ? 0xFFFE : ulNameBytes);
        TRVN_LOG("TervaneDirectoryControl", __LINE__, "FileBothDir Entry[#%d] NextOffset[%d] Name[%wZ]\r\n", ulNumber,
                 pInfo->NextEntryOffset, &ustrName);
        if (pInfo->NextEntryOffset == 0 || pInfo->NextEntryOffset > BytesWritten - ulOffset) {
            return;
        }
        ulOffset += pInfo->NextEntryOffset;
    }
}

NTSTATUS TervaneDirectoryControl(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry pFileHandleEntry) {
    UNREFERENCED_PARAMETER(DeviceObject);
    TRVN_ASSERT(pFileHandleEntry != NULL, DISPATCH_SOURCE, __LINE__);
    PIO_STACK_LOCATION pIrpSp = IoGetCurrentIrpStackLocation(Irp);
    if (pIrpSp->MinorFunction == IRP_MN_NOTIFY_CHANGE_DIRECTORY) {
        Irp->IoStatus.Status = STATUS_NOT_IMPLEMENTED;
        Irp->IoStatus.Information = 0;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
        return STATUS_NOT_IMPLEMENTED;
    }

    // The caller's buffer; a device with buffered I/O gets a system buffer
    // that the I/O manager copies back.
    PVOID pBuffer = (Irp->Flags & IRP_BUFFERED_IO) ? Irp->AssociatedIrp.SystemBuffer : Irp->UserBuffer;
    WaitForEntry(pFileHandleEntry);
    ULONG ulBytesWritten = 0;
    NTSTATUS nStatus =
        FiltQueryDirectory(pFileHandleEntry, &pIrpSp->Parameters.QueryDirectory, pBuffer,
                           (pIrpSp->Flags & SL_RETURN_SINGLE_ENTRY) != 0, (pIrpSp->Flags & SL_RESTART_SCAN) != 0,
                           &ulBytesWritten);
    Irp->IoStatus.Status = nStatus;
    Irp->IoStatus.Information = ulBytesWritten;

    UNICODE_STRING ustrNoPattern = {0, 0, NULL};
    PUNICODE_STRING pPattern = pIrpSp->Parameters.QueryDirectory.FileName != NULL
        ? (PUNICODE_STRING)pIrpSp->Parameters.QueryDirectory.FileName
        : &ustrNoPattern;
    TRVN_LOG("TervaneDirectoryControl", __LINE__, "QueryDirectory\tName[%wZ] Status[%x] Information[%d]\r\n", pPattern,
             nStatus, ulBytesWritten);
    if (NT_SUCCESS(nStatus) && IsDebugPrintEnabled()) {
        if (pIrpSp->Parameters.QueryDirectory.FileInformationClass == FileBothDirectoryInformation) {
            LogBothDirEntries(pBuffer, ulBytesWritten);
        } else {
            TRVN_LOG("TervaneDirectoryControl", __LINE__, "unknown information class\r\n");
        }
    }
    return ReleaseAndComplete(pFileHandleEntry, Irp, nStatus);
}
