// The remaining requests on a redirected open: byte-range locks, clean-up,
// flush, security, volume queries and file-system control. All but the last
// are carried out on the real file.
#include "dispatch/dispatch.h"
#include "dispatch/handler_common.h"

#include "base/log.h"
#include "base/global_state.h"
#include "filemgr/file_manager.h"

// The real FILE_OBJECT of the open, referenced, or null.
static PFILE_OBJECT ReferenceRealFile(PFileHandleEntry pFileHandleEntry, POBJECT_TYPE ObjectType, ULONG Line) {
    PFILE_OBJECT pRealFileObject = NULL;
    NTSTATUS nStatus = ObReferenceObjectByHandle(pFileHandleEntry->m_hRealFileHandle, 0, ObjectType, KernelMode,
                                                 (PVOID*)&pRealFileObject, NULL);
    TRVN_ASSERT(NT_SUCCESS( nStatus ), DISPATCH_SOURCE, Line);
    return NT_SUCCESS(nStatus) ? pRealFileObject : NULL;
}

static NTSTATUS CompleteWithShortage(PFileHandleEntry pFileHandleEntry, PIRP Irp) {
    Irp->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
    Irp->IoStatus.Information = 0;
    return ReleaseAndComplete(pFileHandleEntry, Irp, STATUS_INSUFFICIENT_RESOURCES);
}

NTSTATUS TervaneLockControl(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry pFileHandleEntry) {
    PIO_STACK_LOCATION pIrpSp = IoGetCurrentIrpStackLocation(Irp);
    WaitForEntry(pFileHandleEntry);
    const NTSTATUS nFollowStatus = FollowPackCopy(DeviceObject, pFileHandleEntry);
    if (!NT_SUCCESS(nFollowStatus)) {
        return FailRequest(pFileHandleEntry, Irp, nFollowStatus);
    }
    // An exclusive lock announces a write: the file moves into filter
    // directory 0 first, and without the copy the lock is not taken.
    if (pIrpSp->MinorFunction == IRP_MN_LOCK && (pIrpSp->Flags & SL_EXCLUSIVE_LOCK) &&
        pFileHandleEntry->m_ulFilterEntryFlag != 1) {
        NTSTATUS nCopyStatus = CopyUpBeforeChange(DeviceObject, pFileHandleEntry, "TervaneLockControl");
        if (!NT_SUCCESS(nCopyStatus)) {
            Irp->IoStatus.Status = nCopyStatus;
            Irp->IoStatus.Information = 0;
            return ReleaseAndComplete(pFileHandleEntry, Irp, nCopyStatus);
        }
    }

    PFILE_OBJECT pRealFileObject = ReferenceRealFile(pFileHandleEntry, *IoFileObjectType, __LINE__);
    LARGE_INTEGER liCapturedOffset = pIrpSp->Parameters.LockControl.ByteOffset;
    LARGE_INTEGER liCapturedLength;
    liCapturedLength.QuadPart =
        pIrpSp->Parameters.LockControl.Length != NULL ? pIrpSp->Parameters.LockControl.Length->QuadPart : 0;
    if (pRealFileObject == NULL) {
        // Without the real file there is nothing to lock.
        Irp->IoStatus.Status = STATUS_INVALID_HANDLE;
        Irp->IoStatus.Information = 0;
        return ReleaseAndComplete(pFileHandleEntry, Irp, STATUS_INVALID_HANDLE);
    }
    KeClearEvent(&pRealFileObject->Event);
    pRealFileObject->LockOperation = TRUE;

    OwnRequest request;
    if (!PrepareOwnRequest(&request, DeviceObject, pFileHandleEntry->m_ulFilterEntryFlag, pRealFileObject)) {
        ObDereferenceObject(pRealFileObject);
        return CompleteWithShortage(pFileHandleEntry, Irp);
    }
    PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(request.m_pIrp);
    pNext->MajorFunction = IRP_MJ_LOCK_CONTROL;
    pNext->MinorFunction = pIrpSp->MinorFunction;
    pNext->Parameters.LockControl.Length = &liCapturedLength;
    pNext->Parameters.LockControl.ByteOffset = liCapturedOffset;
    pNext->Parameters.LockControl.Key = pIrpSp->Parameters.LockControl.Key;
    pNext->Flags = pIrpSp->Flags | SL_FAIL_IMMEDIATELY;
    NTSTATUS nStatus = SendOwnRequest(&request, DeviceObject, pFileHandleEntry->m_ulFilterEntryFlag, TRUE);
    if (nStatus == STATUS_PENDING) {
        nStatus = request.m_IoStatus.Status;
    }
    ObDereferenceObject(pRealFileObject);

    if (NT_SUCCESS(nStatus)) {
        Irp->IoStatus = request.m_IoStatus;
    } else {
        Irp->IoStatus.Status = nStatus;
        Irp->IoStatus.Information = 0;
    }
    TRVN_LOG("TervaneLockControl", __LINE__,
             "LockControl [%wZ]\tMinorFunc[%d] Exclusive[%d] CapturedByOffset[%I64d] CapturedLength[%I64d] Key[%d] "
             "Fail Immediately[%d] Res[%x] Status[%x] Info[%x]\r\n",
             &pFileHandleEntry->m_ustrFullPath, (int)pIrpSp->MinorFunction, (int)(pIrpSp->Flags & SL_EXCLUSIVE_LOCK),
             liCapturedOffset.QuadPart, liCapturedLength.QuadPart, pIrpSp->Parameters.LockControl.Key,
             (int)(pIrpSp->Flags & SL_FAIL_IMMEDIATELY), nStatus, Irp->IoStatus.Status,
             (ULONG)Irp->IoStatus.Information);
    return ReleaseAndComplete(pFileHandleEntry, Irp, nStatus);
}

NTSTATUS TervaneCleanup(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry pFileHandleEntry) {
    WaitForEntry(pFileHandleEntry);
    PFILE_OBJECT pRealFileObject = ReferenceRealFile(pFileHandleEntry, *IoFileObjectType, __LINE__);
    if (pRealFileObject != NULL) {
        KeClearEvent(&pRealFileObject->Event);
        pRealFileObject->LockOperation = TRUE;
        OwnRequest request;
        if (PrepareOwnRequest(&request, DeviceObject, pFileHandleEntry->m_ulFilterEntryFlag, pRealFileObject)) {
            LARGE_INTEGER liZeroLength;
            liZeroLength.QuadPart = 0;
            PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(request.m_pIrp);
            pNext->MajorFunction = IRP_MJ_LOCK_CONTROL;
            pNext->MinorFunction = IRP_MN_UNLOCK_ALL;
            pNext->Parameters.LockControl.Length = &liZeroLength;
            pNext->Parameters.LockControl.ByteOffset.QuadPart = 0;
            pNext->Parameters.LockControl.Key = 0;
            pNext->Flags = SL_FAIL_IMMEDIATELY;
            SendOwnRequest(&request, DeviceObject, pFileHandleEntry->m_ulFilterEntryFlag, TRUE);
        }
        ObDereferenceObject(pRealFileObject);
    }
    // Clean-up succeeds whatever the unlock did: the handle is going away.
    Irp->IoStatus.Status = STATUS_SUCCESS;
    return ReleaseAndComplete(pFileHandleEntry, Irp, STATUS_SUCCESS);
}

NTSTATUS TervaneFlushBuffers(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry pFileHandleEntry) {
    PFILE_OBJECT pRealFileObject = NULL;
    NTSTATUS nStatus = ObReferenceObjectByHandle(pFileHandleEntry->m_hRealFileHandle, 0, NULL, KernelMode,
                                                 (PVOID*)&pRealFileObject, NULL);
    if (!NT_SUCCESS(nStatus)) {
        Irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
        Irp->IoStatus.Information = 0;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    OwnRequest request;
    if (!PrepareOwnRequest(&request, DeviceObject, pFileHandleEntry->m_ulFilterEntryFlag, pRealFileObject)) {
        ObDereferenceObject(pRealFileObject);
        nStatus = STATUS_INSUFFICIENT_RESOURCES;
        Irp->IoStatus.Status = nStatus;
        Irp->IoStatus.Information = 0;
    } else {
        request.m_pIrp->Flags = Irp->Flags;
        IoGetNextIrpStackLocation(request.m_pIrp)->MajorFunction = IRP_MJ_FLUSH_BUFFERS;
        nStatus = SendOwnRequest(&request, DeviceObject, pFileHandleEntry->m_ulFilterEntryFlag, FALSE);
        ObDereferenceObject(pRealFileObject);
        if (NT_SUCCESS(nStatus)) {
            nStatus = request.m_IoStatus.Status;
            Irp->IoStatus = request.m_IoStatus;
        } else {
            Irp->IoStatus.Status = nStatus;
            Irp->IoStatus.Information = 0;
        }
    }
    TRVN_LOG("TervaneFlushBuffers", __LINE__, "FlushBuffers\t[%wZ]\r\n", &pFileHandleEntry->m_ustrFullPath);
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return nStatus;
}

NTSTATUS TervaneQuerySecurity(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry pFileHandleEntry) {
    PIO_STACK_LOCATION pIrpSp = IoGetCurrentIrpStackLocation(Irp);
    WaitForEntry(pFileHandleEntry);
    const NTSTATUS nFollowStatus = FollowPackCopy(DeviceObject, pFileHandleEntry);
    if (!NT_SUCCESS(nFollowStatus)) {
        return FailRequest(pFileHandleEntry, Irp, nFollowStatus);
    }
    ULONG ulNeeded = 0;
    NTSTATUS nStatus = ZwQuerySecurityObject(pFileHandleEntry->m_hRealFileHandle,
                                             pIrpSp->Parameters.QuerySecurity.SecurityInformation, Irp->UserBuffer,
                                             pIrpSp->Parameters.QuerySecurity.Length, &ulNeeded);
    Irp->IoStatus.Status = nStatus == STATUS_BUFFER_TOO_SMALL ? STATUS_BUFFER_OVERFLOW : nStatus;
    Irp->IoStatus.Information = ulNeeded;
    TRVN_LOG("TervaneQuerySecurity", __LINE__,
             "QuerySecurity\t[%wZ] SecInfo[%d] Res[0x%x] Status[0x%x] Info[0x%x] cbNeeded[%d]\r\n",
             &pFileHandleEntry->m_ustrFullPath, pIrpSp->Parameters.QuerySecurity.SecurityInformation, nStatus,
             Irp->IoStatus.Status, (ULONG)Irp->IoStatus.Information, ulNeeded);
    // The request completes with the file system's form of a short buffer;
    // the I/O manager tells the caller STATUS_BUFFER_TOO_SMALL from it.
    return ReleaseAndComplete(pFileHandleEntry, Irp, Irp->IoStatus.Status);
}

NTSTATUS TervaneSetSecurity(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry pFileHandleEntry) {
    PIO_STACK_LOCATION pIrpSp = IoGetCurrentIrpStackLocation(Irp);
    WaitForEntry(pFileHandleEntry);
    const NTSTATUS nFollowStatus = FollowPackCopy(DeviceObject, pFileHandleEntry);
    if (!NT_SUCCESS(nFollowStatus)) {
        return FailRequest(pFileHandleEntry, Irp, nFollowStatus);
    }
    // A security change is a change like any other: it is made on the copy in
    // filter directory 0, never on a lower filter directory's file.
    NTSTATUS nStatus = STATUS_SUCCESS;
    if (pFileHandleEntry->m_ulFilterEntryFlag != 1) {
        nStatus = CopyUpBeforeChange(DeviceObject, pFileHandleEntry, "TervaneSetSecurity");
    }
    if (NT_SUCCESS(nStatus)) {
        nStatus = ZwSetSecurityObject(pFileHandleEntry->m_hRealFileHandle,
                                      pIrpSp->Parameters.SetSecurity.SecurityInformation,
                                      pIrpSp->Parameters.SetSecurity.SecurityDescriptor);
    }
    Irp->IoStatus.Status = nStatus;
    Irp->IoStatus.Information = 0;
    TRVN_LOG("TervaneSetSecurity", __LINE__, "SetSecurity\t[%wZ] SecInfo[%d] Res[0x%x] Status[0x%x] Info[0x%x]\r\n",
             &pFileHandleEntry->m_ustrFullPath, pIrpSp->Parameters.SetSecurity.SecurityInformation, nStatus,
             Irp->IoStatus.Status, (ULONG)Irp->IoStatus.Information);
    return ReleaseAndComplete(pFileHandleEntry, Irp, nStatus);
}

NTSTATUS TervaneQueryVolumeInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry pFileHandleEntry) {
    UNREFERENCED_PARAMETER(DeviceObject);
    PIO_STACK_LOCATION pIrpSp = IoGetCurrentIrpStackLocation(Irp);
    WaitForEntry(pFileHandleEntry);
    NTSTATUS nStatus = ZwQueryVolumeInformationFile(pFileHandleEntry->m_hRealFileHandle, &Irp->IoStatus,
                                                    Irp->AssociatedIrp.SystemBuffer,
                                                    pIrpSp->Parameters.QueryVolume.Length,
                                                    pIrpSp->Parameters.QueryVolume.FsInformationClass);
    if (!NT_SUCCESS(nStatus)) {
        Irp->IoStatus.Status = nStatus;
    }
    return ReleaseAndComplete(pFileHandleEntry, Irp, nStatus);
}

// Every file-system control request goes down as it came, with the caller's
// FILE_OBJECT: no request of this kind is served on the real file.
NTSTATUS TervaneFileSystemControl(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry pFileHandleEntry) {
    UNREFERENCED_PARAMETER(pFileHandleEntry);
    PTervaneDeviceExtension pExtension = (PTervaneDeviceExtension)DeviceObject->DeviceExtension;
    IoCopyCurrentIrpStackLocationToNext(Irp);
    return IoCallDriver(pExtension->m_pLowerDevice, Irp);
}
