// IRP_MJ_READ and IRP_MJ_WRITE on a redirected open: the transfer is made on
// the real file, the caller's position follows the real file's, and the
// first write copies a file from a lower filter directory up into filter
// directory 0.
#include "dispatch/dispatch.h"
#include "dispatch/handler_common.h"

#include "base/log.h"
#include "base/global_state.h"
#include "filemgr/file_manager.h"

// The request's data buffer: its MDL's system address, else the system
// buffer, else the user buffer.
static PVOID RequestDataBuffer(PIRP Irp) {
    if (Irp->MdlAddress != NULL) {
        PMDL pMdl = Irp->MdlAddress;
        if (pMdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) {
            return pMdl->MappedSystemVa;
        }
        return MmMapLockedPagesSpecifyCache(pMdl, KernelMode, MmCached, NULL, FALSE, NormalPagePriority);
    }
    if (Irp->AssociatedIrp.SystemBuffer != NULL) {
        return Irp->AssociatedIrp.SystemBuffer;
    }
    return Irp->UserBuffer;
}

// Moves the open's file into filter directory 0 before it is changed. A
// failed copy leaves the entry as it was, and the change is then not made.
NTSTATUS CopyUpBeforeChange(PDEVICE_OBJECT DeviceObject, PFileHandleEntry pFileHandleEntry, const char* Function) {
    HANDLE hOldRealFile = NULL;
    NTSTATUS nStatus = CopyUpOpenFile(pFileHandleEntry, 1, &hOldRealFile, TRUE, DeviceObject);
    TRVN_ASSERT(NT_SUCCESS( nStatus ), DISPATCH_SOURCE, __LINE__);
    if (hOldRealFile != NULL) {
        ZwClose(hOldRealFile);
    }
    if (NT_SUCCESS(nStatus)) {
        TRVN_LOG(Function, __LINE__, "Copy to pack location succeeded!! [%wZ]\r\n", &pFileHandleEntry->m_ustrFullPath);
    }
    return nStatus;
}

NTSTATUS FollowPackCopy(PDEVICE_OBJECT DeviceObject, PFileHandleEntry pFileHandleEntry) {
    if (pFileHandleEntry->m_ulFilterEntryFlag == 1) {
        return STATUS_SUCCESS;
    }
    const ULONG ulGeneration = CurrentCopyUpGeneration();
    if (pFileHandleEntry->m_ulCopyUpGeneration == ulGeneration) {
        return STATUS_SUCCESS;
    }
    // A directory in filter directory 0 may be no more than the ancestor of
    // something made there: only a file's copy is taken as the file.
    NTSTATUS nStatus = ProbePackLocation(&pFileHandleEntry->m_ustrFullPath);
    BOOLEAN bMoveFailed = FALSE;
    if (nStatus == STATUS_SUCCESS && !IsDirectoryFile(pFileHandleEntry->m_hRealFileHandle)) {
        HANDLE hOldRealFile = NULL;
        nStatus = CopyUpOpenFile(pFileHandleEntry, 1, &hOldRealFile, FALSE, DeviceObject);
        bMoveFailed = !NT_SUCCESS(nStatus);
        if (hOldRealFile != NULL) {
            ZwClose(hOldRealFile);
        }
    }
    // A probe or a move that failed is tried again by the next request. A
    // probe that could not be made, or a copy that could not be followed,
    // fails this one: the lower file may be older than what was written.
    if (nStatus == STATUS_SUCCESS || nStatus == STATUS_OBJECT_NAME_NOT_FOUND) {
        pFileHandleEntry->m_ulCopyUpGeneration = ulGeneration;
        return STATUS_SUCCESS;
    }
    return IsShortOfResources(nStatus) || bMoveFailed ? nStatus : STATUS_SUCCESS;
}

// The transfer of a read (bRead) or a write on the real file, shared by both
// handlers: paging I/O as an own request that borrows the caller's packet,
// anything else as an own request with the caller's buffer; either goes
// straight below the filter, not through it again.
static NTSTATUS TransferData(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry pFileHandleEntry,
                             PFILE_OBJECT pRealFileObject, BOOLEAN bRead, PVOID pBuffer) {
    PIO_STACK_LOCATION pIrpSp = IoGetCurrentIrpStackLocation(Irp);
    // Read and Write parameters share one layout.
    ULONG ulLength = pIrpSp->Parameters.Read.Length;
    ULONG ulKey = pIrpSp->Parameters.Read.Key;
    LARGE_INTEGER liByteOffset = pIrpSp->Parameters.Read.ByteOffset;
    if ((Irp->Flags & (IRP_NOCACHE | IRP_PAGING_IO)) == (IRP_NOCACHE | IRP_PAGING_IO)) {
        NTSTATUS nStatus =
            ReadWriteFileWithIrp(Irp, bRead, pFileHandleEntry->m_ulFilterEntryFlag, pRealFileObject, DeviceObject,
                                 pBuffer, liByteOffset, ulLength, ulKey, Irp->Flags, &Irp->IoStatus);
        TRVN_ASSERT(NT_SUCCESS( nStatus ), DISPATCH_SOURCE, __LINE__);
        return nStatus;
    }
    return TransferBelowFilter(bRead, pRealFileObject, DeviceObject, pBuffer, liByteOffset, ulLength, ulKey,
                               &Irp->IoStatus);
}

static NTSTATUS ReadOrWrite(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry pFileHandleEntry, BOOLEAN bRead) {
    const char* pszFunction = bRead ? "TervaneRead" : "TervaneWrite";
    WaitForEntry(pFileHandleEntry);
    const NTSTATUS nFollowStatus = FollowPackCopy(DeviceObject, pFileHandleEntry);
    if (!NT_SUCCESS(nFollowStatus)) {
        return FailRequest(pFileHandleEntry, Irp, nFollowStatus);
    }
    PVOID pBuffer = RequestDataBuffer(Irp);
    NTSTATUS nStatus = STATUS_SUCCESS;
    if (!bRead && pFileHandleEntry->m_ulFilterEntryFlag != 1) {
        nStatus = CopyUpBeforeChange(DeviceObject, pFileHandleEntry, pszFunction);
    }

    // One reference to the real FILE_OBJECT (after any copy-up) serves the
    // transfer and the position that follows it.
    PFILE_OBJECT pRealFileObject = NULL;
    NTSTATUS nStatusObject = ObReferenceObjectByHandle(pFileHandleEntry->m_hRealFileHandle, 0, *IoFileObjectType,
                                                       KernelMode, (PVOID*)&pRealFileObject, NULL);
    TRVN_ASSERT(NT_SUCCESS( nStatusObject ), DISPATCH_SOURCE, __LINE__);
    if (!NT_SUCCESS(nStatus)) {
        // Written data land only in filter directory 0: without the copy
        // there is nowhere to write them.
        Irp->IoStatus.Information = 0;
    } else if (!NT_SUCCESS(nStatusObject)) {
        nStatus = nStatusObject;
        Irp->IoStatus.Information = 0;
    } else if (pBuffer == NULL && IoGetCurrentIrpStackLocation(Irp)->Parameters.Read.Length != 0) {
        // An MDL that could not be mapped: nothing can be moved.
        nStatus = STATUS_INSUFFICIENT_RESOURCES;
        Irp->IoStatus.Information = 0;
    } else {
        nStatus = TransferData(DeviceObject, Irp, pFileHandleEntry, pRealFileObject, bRead, pBuffer);
    }
    // The caller's position follows the real file's, whatever the outcome.
    if (NT_SUCCESS(nStatusObject)) {
        pFileHandleEntry->m_pFileObject->CurrentByteOffset = pRealFileObject->CurrentByteOffset;
        ObDereferenceObject(pRealFileObject);
    }

    PIO_STACK_LOCATION pIrpSp = IoGetCurrentIrpStackLocation(Irp);
    const char* pszFormat = bRead
        ? "ReadFile\t[%wZ] /w Length[%d] OffsetHigh[%d] OffsetLow[%d] Res[%d] Status[%x] Info[%x]\r\n"
        : "WriteFile\t[%wZ] /w Length[%d] OffsetHigh[%d] OffsetLow[%d] Res[%d] Status[%x] Info[%x]\r\n";
    TRVN_LOG(pszFunction, __LINE__, pszFormat, &pFileHandleEntry->m_ustrFullPath, pIrpSp->Parameters.Read.Length,
             pIrpSp->Parameters.Read.ByteOffset.HighPart, pIrpSp->Parameters.Read.ByteOffset.LowPart, nStatus,
             Irp->IoStatus.Status, (ULONG)Irp->IoStatus.Information);

    if (!NT_SUCCESS(nStatus)) {
        Irp->IoStatus.Status = nStatus;
    }
    return ReleaseAndComplete(pFileHandleEntry, Irp, nStatus);
}

NTSTATUS TervaneRead(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry pFileHandleEntry) {
    return ReadOrWrite(DeviceObject, Irp, pFileHandleEntry, TRUE);
}

NTSTATUS TervaneWrite(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry pFileHandleEntry) {
    return ReadOrWrite(DeviceObject, Irp, pFileHandleEntry, FALSE);
}
