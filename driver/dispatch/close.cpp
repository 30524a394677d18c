// IRP_MJ_CLOSE on a redirected open: the last request of the open. Closes the
// listing's and the real file's handles, carries out a deletion asked for
// during the open, and removes the entry.
#include "dispatch/dispatch.h"
#include "dispatch/handler_common.h"

#include "base/log.h"
#include "base/global_state.h"
#include "filemgr/file_manager.h"
#include "index/file_index.h"

// Sets or clears the delete mark of the real file.
static NTSTATUS MarkRealFile(PFileHandleEntry pFileHandleEntry, BOOLEAN bDelete) {
    FILE_DISPOSITION_INFORMATION disposition;
    disposition.DeleteFile = bDelete;
    IO_STATUS_BLOCK IoStatus;
    return ZwSetInformationFile(pFileHandleEntry->m_hRealFileHandle, &IoStatus, &disposition, sizeof(disposition),
                                FileDispositionInformation);
}

NTSTATUS PrepareDeleteOnClose(PFileHandleEntry pFileHandleEntry) {
    ULONG ulLowerMask = 0;
    NTSTATUS nStatus = FiltPrepareRemoval(&pFileHandleEntry->m_ustrFullPath, &ulLowerMask);
    if (!NT_SUCCESS(nStatus)) {
        return nStatus;
    }
    // A lower filter directory's file is never marked: only its name goes.
    if (pFileHandleEntry->m_ulFilterEntryFlag == 1) {
        nStatus = MarkRealFile(pFileHandleEntry, TRUE);
        if (!NT_SUCCESS(nStatus)) {
            return nStatus;
        }
    }
    pFileHandleEntry->m_bDeleteOnClose = TRUE;
    pFileHandleEntry->m_ulRemoveLowerMask = ulLowerMask;
    return STATUS_SUCCESS;
}

NTSTATUS CancelDeleteOnClose(PFileHandleEntry pFileHandleEntry) {
    if (pFileHandleEntry->m_ulFilterEntryFlag == 1) {
        NTSTATUS nStatus = MarkRealFile(pFileHandleEntry, FALSE);
        if (!NT_SUCCESS(nStatus)) {
            return nStatus;
        }
    }
    pFileHandleEntry->m_bDeleteOnClose = FALSE;
    pFileHandleEntry->m_ulRemoveLowerMask = 0;
    return STATUS_SUCCESS;
}

NTSTATUS TervaneClose(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry pFileHandleEntry) {
    UNREFERENCED_PARAMETER(DeviceObject);
    TRVN_ASSERT(pFileHandleEntry != NULL, DISPATCH_SOURCE, __LINE__);
    PFILE_OBJECT pFileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    if (pFileHandleEntry == NULL) {
        // Nothing of the driver's is left to release for this open.
        Irp->IoStatus.Status = STATUS_SUCCESS;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
        return STATUS_SUCCESS;
    }
    WaitForEntry(pFileHandleEntry);
    TRVN_LOG("TervaneClose", __LINE__, "CloseFile\t[%wZ] QueryDirHandle[%x] RealFileHandle[%x]\r\n",
             &pFileHandleEntry->m_ustrFullPath, (ULONG)(ULONG_PTR)pFileHandleEntry->m_hQueryDirHandle,
             (ULONG)(ULONG_PTR)pFileHandleEntry->m_hRealFileHandle);

    if (pFileHandleEntry->m_hQueryDirHandle != NULL) {
        ZwClose(pFileHandleEntry->m_hQueryDirHandle);
        pFileHandleEntry->m_hQueryDirHandle = NULL;
    }
    // A copy in filter directory 0 marked for deletion goes with this handle
    // (or with the last other handle of it); lower copies leave the view.
    NTSTATUS nStatus = ZwClose(pFileHandleEntry->m_hRealFileHandle);
    pFileHandleEntry->m_hRealFileHandle = NULL;
    if (pFileHandleEntry->m_bDeleteOnClose && pFileHandleEntry->m_ulRemoveLowerMask != 0) {
        HidePath(&pFileHandleEntry->m_ustrFullPath);
    }
    TRVN_LOG("TervaneClose", __LINE__, "filtering done...\r\n");

    RemoveFileHandleEntry(pFileObject);
    Irp->IoStatus.Status = nStatus;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return nStatus;
}
