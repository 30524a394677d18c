// IRP_MJ_CLOSE on a redirected open: the last request of the open. Closes the
// listing's and the real file's handles, carries out a deletion asked for
// during the open, and removes the entry.
#include "dispatch/dispatch.h"
#include "dispatch/handler_common.h"

#include "base/log.h"
#include "base/global_state.h"
#include "filemgr/file_manager.h"

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
    NTSTATUS nStatus = ZwClose(pFileHandleEntry->m_hRealFileHandle);
    pFileHandleEntry->m_hRealFileHandle = NULL;

    if (pFileHandleEntry->m_bDeleteOnClose && !FiltDeleteFile(&pFileHandleEntry->m_ustrFullPath)) {
        TRVN_LOG("TervaneClose", __LINE__, "cannot delete file [%wZ]\r\n", &pFileHandleEntry->m_ustrFullPath);
    }
    TRVN_LOG("TervaneClose", __LINE__, "filtering done...\r\n");

    RemoveFileHandleEntry(pFileObject);
    Irp->IoStatus.Status = nStatus;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return nStatus;
}
