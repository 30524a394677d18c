// IRP_MJ_CREATE on a hooked volume while filtering is on: opens of monitored
// processes are served from the filter directories and completed here; every
// other open is passed down to the file system.
#include "dispatch/dispatch.h"

#include "control/exclusion_list.h"
#include "control/filter_directory.h"
#include "control/process_list.h"
#include "base/strings.h"
#include "base/log.h"
#include "base/global_state.h"
#include "filemgr/file_manager.h"
#include "index/file_index.h"

// Length in bytes of the bypass suffix at the end of a name.
#define BYPASS_SUFFIX_BYTES (BYPASS_SUFFIX_CHARS * sizeof(WCHAR))

// Disposition and options share the create parameters' Options word.
#define CREATE_DISPOSITION_SHIFT 24
#define CREATE_OPTIONS_MASK 0x00FFFFFF

// Passes an open down to the file system with one of the two completions.
// TervaneCreateCompletion turns a missing path into a missing name; the
// status returned here says the same as the one the open completed with.
static NTSTATUS PassCreateDown(PDEVICE_OBJECT DeviceObject, PIRP Irp, PIO_COMPLETION_ROUTINE Completion) {
    NTSTATUS nStatus = PassRequestDown(DeviceObject, Irp, Completion);
    if (Completion == TervaneCreateCompletion && nStatus == STATUS_OBJECT_PATH_NOT_FOUND) {
        nStatus = STATUS_OBJECT_NAME_NOT_FOUND;
    }
    return nStatus;
}

NTSTATUS NTAPI TervaneCreateCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Context);
    if (Irp->IoStatus.Status == STATUS_OBJECT_PATH_NOT_FOUND) {
        Irp->IoStatus.Status = STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (Irp->PendingReturned) {
        IoMarkIrpPending(Irp);
    }
    return Irp->IoStatus.Status;
}

// Leaves the status as the file system gave it: no path is at hand here (a
// paging-file open never forms one), and a completion routine may run at
// raised IRQL, where the existence check's opens cannot be made.
NTSTATUS NTAPI TervaneCreateCheckCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    return TervanePassThroughCompletion(DeviceObject, Irp, Context);
}

static BOOLEAN HasBypassSuffix(PCUNICODE_STRING Name) {
    if (Name->Buffer == NULL || Name->Length < BYPASS_SUFFIX_BYTES) {
        return FALSE;
    }
    const UCHAR* pTail = (const UCHAR*)Name->Buffer + Name->Length - BYPASS_SUFFIX_BYTES;
    return RtlCompareMemory(pTail, BYPASS_SUFFIX, BYPASS_SUFFIX_BYTES) == BYPASS_SUFFIX_BYTES;
}

// The driver's own opens are made with ZwCreateFile, so their requestor is
// kernel mode; a user-mode name ending in the suffix is left as it is and the
// file system refuses it as an invalid name.
BOOLEAN TervanePassOwnOpenDown(PDEVICE_OBJECT DeviceObject, PIRP Irp, NTSTATUS* Status) {
    PFILE_OBJECT pFileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    if (Irp->RequestorMode != KernelMode || pFileObject == NULL || !HasBypassSuffix(&pFileObject->FileName)) {
        return FALSE;
    }
    pFileObject->FileName.Length -= BYPASS_SUFFIX_BYTES;
    *Status = PassCreateDown(DeviceObject, Irp, TervaneCreateCompletion);
    return TRUE;
}

// Cuts the FILE_OBJECT's name of a target-directory open to its final
// component, in place. A name with no backslash before its final component
// (one relative to a directory open) already is that component. FALSE when
// nothing but backslashes is left.
static BOOLEAN CutToFinalComponent(PIO_STACK_LOCATION pIrpSp) {
    PUNICODE_STRING pName = &pIrpSp->FileObject->FileName;
    ULONG uiIndex = pName->Length / sizeof(WCHAR) - 1;
    while (uiIndex > 0 && pName->Buffer[uiIndex] == L'\\') {
        pName->Length -= sizeof(WCHAR);
        uiIndex--;
    }
    while (uiIndex > 0 && pName->Buffer[uiIndex] != L'\\') {
        uiIndex--;
    }
    TRVN_ASSERT(uiIndex >= sizeof( 1 ), DISPATCH_SOURCE, __LINE__);
    TRVN_ASSERT(pIrpSp->FileObject->FileName.Buffer[ uiIndex ] == L'\\', DISPATCH_SOURCE, __LINE__);

    const ULONG ulStart = pName->Buffer[uiIndex] == L'\\' ? uiIndex + 1 : 0;
    const ULONG ulChars = pName->Length / sizeof(WCHAR) - ulStart;
    if (ulChars == 0 || (ulChars == 1 && pName->Buffer[ulStart] == L'\\')) {
        return FALSE;
    }
    RtlMoveMemory(pName->Buffer, pName->Buffer + ulStart, ulChars * sizeof(WCHAR));
    pName->Length = (USHORT)(ulChars * sizeof(WCHAR));
    return TRUE;
}

// Replaces the full path by its parent (everything before its last
// backslash). Logged and left unchanged when there is no parent.
static VOID ReplaceByParent(PUNICODE_STRING FullPath) {
    const ULONG ulLast = PathPrefixChars(FullPath);
    // ulLast - 1 is the last backslash; it must come after the first character.
    if (ulLast < 2) {
        TRVN_LOG("TervaneCreate", __LINE__, "SL_OPEN_TARGET_DIRECTORY get parent directory path fail.\r\n");
        return;
    }
    UNICODE_STRING ustrParentPath;
    ustrParentPath.MaximumLength = FullPath->Length;
    ustrParentPath.Length = 0;
    ustrParentPath.Buffer = (PWSTR)ExAllocatePoolWithTag(NonPagedPool, FullPath->Length, TRVN_TAG_GENERAL);
    TRVN_ASSERT(ustrParentPath.Buffer, DISPATCH_SOURCE, __LINE__);
    if (ustrParentPath.Buffer == NULL) {
        // Without memory for the copy the parent is cut in place.
        FullPath->Length = (USHORT)((ulLast - 1) * sizeof(WCHAR));
        return;
    }
    RtlCopyMemory(ustrParentPath.Buffer, FullPath->Buffer, (ulLast - 1) * sizeof(WCHAR));
    ustrParentPath.Length = (USHORT)((ulLast - 1) * sizeof(WCHAR));
    CopyCountedString(FullPath, &ustrParentPath);
    ExFreePoolWithTag(ustrParentPath.Buffer, TRVN_TAG_GENERAL);
}

// The lowest flag of Mask that names a configured filter directory, or 0.
static ULONG LowestConfiguredFlag(ULONG Mask) {
    const ULONG ulConfigured = Mask & GetFilterMask();
    return ulConfigured & (~ulConfigured + 1);
}

// Whether the name's directory was removed from the view (it, or an
// ancestor, is hidden) and not made again in filter directory 0. Such a
// directory comes back only when the process makes it again, never as the
// parent that the layered open makes for a new name.
static BOOLEAN IsParentRemoved(PCUNICODE_STRING FullPath) {
    const ULONG ulLast = PathPrefixChars(FullPath);
    if (ulLast <= 3) {
        return FALSE;  // the drive root
    }
    UNICODE_STRING ustrParent;
    ustrParent.Buffer = FullPath->Buffer;
    ustrParent.Length = ustrParent.MaximumLength = (USHORT)((ulLast - 1) * sizeof(WCHAR));
    return IsPathHidden(&ustrParent) && (FiltCheckFileExists(&ustrParent, 1, NULL) & 1) == 0;
}

// The filter directory in which the real file is opened, by disposition.
static ULONG ChooseFilterFlag(PUNICODE_STRING FullPath, ULONG ExistenceMask, ULONG Disposition) {
    const ULONG ulFound = LowestConfiguredFlag(ExistenceMask);
    switch (Disposition) {
    case FILE_SUPERSEDE:
        return 1;
    case FILE_OPEN:
    case FILE_CREATE:
    case FILE_OPEN_IF:
        return ulFound != 0 ? ulFound : 1;
    case FILE_OVERWRITE:
    case FILE_OVERWRITE_IF:
        if (ulFound != 0 && !FiltCopyFileAttribute(FullPath, ulFound, 1, TRUE)) {
            TRVN_LOG("TervaneCreate", __LINE__,
                     "FiltCopyFileAttribute failed for file [%wZ] from filter [%d] to [%d]\r\n", FullPath, ulFound,
                     1);
        }
        return 1;
    default:
        TRVN_ASSERT(FALSE, DISPATCH_SOURCE, __LINE__);
        // The file system refuses the disposition; an unknown one is sent
        // where an open would go rather than to no directory at all.
        return ulFound != 0 ? ulFound : 1;
    }
}

// Makes the caller's FILE_OBJECT look like an open of the real file: access
// and share fields, the file system's context and the real object's flags.
static VOID PrepareCallerFileObject(PFILE_OBJECT FileObject, HANDLE RealHandle, ACCESS_MASK DesiredAccess,
                                    ULONG ShareAccess) {
    PGENERIC_MAPPING pMapping = IoGetFileObjectGenericMapping();
    FileObject->ReadAccess = (DesiredAccess & pMapping->GenericRead) != 0;
    FileObject->WriteAccess = (DesiredAccess & pMapping->GenericWrite) != 0;
    FileObject->DeleteAccess = (DesiredAccess & DELETE) != 0;
    FileObject->SharedRead = (ShareAccess & FILE_SHARE_READ) != 0;
    FileObject->SharedWrite = (ShareAccess & FILE_SHARE_WRITE) != 0;
    FileObject->SharedDelete = (ShareAccess & FILE_SHARE_DELETE) != 0;

    PFILE_OBJECT pRealFileObject = NULL;
    NTSTATUS nStatusObject =
        ObReferenceObjectByHandle(RealHandle, 0, *IoFileObjectType, KernelMode, (PVOID*)&pRealFileObject, NULL);
    TRVN_ASSERT(NT_SUCCESS( nStatusObject ), DISPATCH_SOURCE, __LINE__);
    if (!NT_SUCCESS(nStatusObject)) {
        return;
    }
    FileObject->FsContext = pRealFileObject->FsContext;
    FileObject->FsContext2 = pRealFileObject->FsContext2;
    FileObject->SectionObjectPointer = pRealFileObject->SectionObjectPointer;
    FileObject->Flags = pRealFileObject->Flags & ~FO_FILE_FAST_IO_READ;
    if (FileObject->FsContext != NULL) {
        ((PFSRTL_COMMON_FCB_HEADER)FileObject->FsContext)->IsFastIoPossible = FastIoIsPossible;
    }
    ObDereferenceObject(pRealFileObject);
}

// Opens the real file for a redirected open and records the entry. Returns
// the open's status (refined for not-found), which is already in IoStatus.
static NTSTATUS OpenRedirected(PIRP Irp, PIO_STACK_LOCATION pIrpSp, PUNICODE_STRING FullPath, ULONG ExistenceMask,
                               ULONG CopyUpGeneration) {
    const ULONG ulDisposition = pIrpSp->Parameters.Create.Options >> CREATE_DISPOSITION_SHIFT;
    ULONG ulCreateOptions = pIrpSp->Parameters.Create.Options & CREATE_OPTIONS_MASK;
    const ACCESS_MASK ulDesiredAccess = pIrpSp->Parameters.Create.SecurityContext->DesiredAccess;
    const ULONG ulShareAccess = pIrpSp->Parameters.Create.ShareAccess | FILE_SHARE_READ;
    const ULONG ulFileAttributes = pIrpSp->Parameters.Create.FileAttributes;
    BOOLEAN bDeleteOnClose = FALSE;
    if (ulCreateOptions & FILE_DELETE_ON_CLOSE) {
        bDeleteOnClose = TRUE;
        ulCreateOptions &= ~FILE_DELETE_ON_CLOSE;
    }
    if (!(ulCreateOptions & (FILE_SYNCHRONOUS_IO_NONALERT | FILE_SYNCHRONOUS_IO_ALERT))) {
        ulCreateOptions |= FILE_SYNCHRONOUS_IO_NONALERT;
    }

    const ULONG ulFilterFlag = ChooseFilterFlag(FullPath, ExistenceMask, ulDisposition);

    if (pIrpSp->Parameters.Create.EaLength != 0) {
        TRVN_LOG("TervaneCreate", __LINE__, "Warning: EaLength not zero[%d] EaBuffer not NULL[%08x]\r\n",
                 pIrpSp->Parameters.Create.EaLength, (ULONG)(ULONG_PTR)Irp->AssociatedIrp.SystemBuffer);
    }

    HANDLE hRealFile = NULL;
    NTSTATUS nStatus;
    if (ulFilterFlag == 1 && ulDisposition != FILE_OPEN && ulDisposition != FILE_OVERWRITE &&
        IsParentRemoved(FullPath)) {
        nStatus = STATUS_OBJECT_PATH_NOT_FOUND;
        Irp->IoStatus.Status = nStatus;
        Irp->IoStatus.Information = 0;
    } else {
        nStatus = FiltCreateFile(ulFilterFlag, ulFilterFlag == 1, &hRealFile, ulDesiredAccess, FullPath,
                                 (pIrpSp->Flags & SL_CASE_SENSITIVE) != 0, (pIrpSp->Flags & SL_FORCE_ACCESS_CHECK) != 0,
                                 &Irp->IoStatus, &Irp->Overlay.AllocationSize, ulFileAttributes, ulShareAccess,
                                 ulDisposition, ulCreateOptions, NULL, 0);
    }
    TRVN_LOG("TervaneCreate", __LINE__,
             "CreateFile\t[%wZ] /w Access[%x] FileAttrib[%x] Share[%x] Option[%x] Res[%x] Status[%x] Info[%x]\r\n",
             FullPath, ulDesiredAccess, ulFileAttributes, (ULONG)pIrpSp->Parameters.Create.ShareAccess,
             ulCreateOptions, nStatus, Irp->IoStatus.Status, (ULONG)Irp->IoStatus.Information);

    if (!NT_SUCCESS(nStatus)) {
        if (nStatus == STATUS_OBJECT_PATH_NOT_FOUND || nStatus == STATUS_OBJECT_NAME_NOT_FOUND) {
            NTSTATUS nExistStatus = STATUS_SUCCESS;
            if (FiltCheckFileExists(FullPath, FILTER_MASK_ALL, &nExistStatus) == 0 &&
                (nExistStatus == STATUS_OBJECT_PATH_NOT_FOUND || nExistStatus == STATUS_OBJECT_NAME_NOT_FOUND)) {
                nStatus = nExistStatus;
            }
        }
        Irp->IoStatus.Status = nStatus;
        return nStatus;
    }

    FileHandleEntry entry;
    RtlZeroMemory(&entry, sizeof(entry));
    entry.m_ulCreateOptions = ulCreateOptions;
    entry.m_ulDesiredAccess = ulDesiredAccess;
    entry.m_ulShareAccess = ulShareAccess;
    entry.m_ulFilterEntryFlag = ulFilterFlag;
    entry.m_hRealFileHandle = hRealFile;
    entry.m_pFileObject = pIrpSp->FileObject;
    entry.m_ustrFullPath = *FullPath;
    entry.m_bDeleteOnClose = bDeleteOnClose;
    entry.m_ulCopyUpGeneration = CopyUpGeneration;
    AddFileHandleEntry(&entry);
    if ((ExistenceMask & ~1UL) != 0 && ulFilterFlag == 1 && ulDisposition != FILE_OPEN &&
        ulDisposition != FILE_CREATE && ulDisposition != FILE_OPEN_IF) {
        // A lower file replaced in filter directory 0: its other opens follow.
        NoteCopyInPackLocation();
    }

    // Without an entry no later request of this open would reach the real
    // file, and nothing would ever close its handle: the open fails instead.
    if (FindFileHandleEntry(pIrpSp->FileObject) == NULL) {
        ZwClose(hRealFile);
        nStatus = STATUS_INSUFFICIENT_RESOURCES;
        Irp->IoStatus.Status = nStatus;
        Irp->IoStatus.Information = 0;
        return nStatus;
    }
    PrepareCallerFileObject(pIrpSp->FileObject, hRealFile, ulDesiredAccess, ulShareAccess);
    return nStatus;
}

NTSTATUS TervaneCreate(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    PTervaneDeviceExtension pExtension = (PTervaneDeviceExtension)DeviceObject->DeviceExtension;
    PIO_STACK_LOCATION pIrpSp = IoGetCurrentIrpStackLocation(Irp);
    PFILE_OBJECT pFileObject = pIrpSp->FileObject;

    // The driver's own opens, in whatever process they are made.
    NTSTATUS nStatus;
    if (TervanePassOwnOpenDown(DeviceObject, Irp, &nStatus)) {
        return nStatus;
    }
    if (pFileObject == NULL || pFileObject->FileName.Length == 0 ||
        !IsMonitoredProcess((ULONG)(ULONG_PTR)PsGetCurrentProcessId(), &g_ustrCurrentProcessName)) {
        return PassCreateDown(DeviceObject, Irp, TervaneCreateCompletion);
    }
    if (pIrpSp->Flags & SL_OPEN_PAGING_FILE) {
        return PassCreateDown(DeviceObject, Irp, TervaneCreateCheckCompletion);
    }
    // A process's own name that ends in the bypass suffix is refused as the
    // file system refuses it, before any directory is made for it in the
    // pack location.
    if (HasBypassSuffix(&pFileObject->FileName)) {
        Irp->IoStatus.Status = STATUS_OBJECT_NAME_INVALID;
        Irp->IoStatus.Information = 0;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
        return STATUS_OBJECT_NAME_INVALID;
    }

    UNICODE_STRING ustrFullPath;
    ustrFullPath.Length = 0;
    ustrFullPath.MaximumLength = PATH_BUFFER_SIZE;
    ustrFullPath.Buffer = (PWSTR)ExAllocatePoolWithTag(NonPagedPool, PATH_BUFFER_SIZE, TRVN_TAG_GENERAL);
    TRVN_ASSERT(ustrFullPath.Buffer, DISPATCH_SOURCE, __LINE__);
    if (ustrFullPath.Buffer == NULL) {
        // No redirected open can be made without its path.
        Irp->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
        Irp->IoStatus.Information = 0;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    GetFullPathName(FALSE, pFileObject, pExtension, &ustrFullPath, TRUE);

    if (!IsDrivePath(&ustrFullPath)) {
        // Anything but a drive path (an empty result, a name too long to
        // resolve, a name relative to a volume open) cannot be mapped into a
        // filter directory. A name that cannot be resolved to a drive path is refused rather
        // than served from the real volume behind the filter directories.
        TRVN_LOG("TervaneCreate", __LINE__, "CreateFile\t[%wZ] cannot resolve [%wZ]\r\n", &ustrFullPath,
                 &pFileObject->FileName);
        ExFreePoolWithTag(ustrFullPath.Buffer, TRVN_TAG_GENERAL);
        nStatus = STATUS_OBJECT_NAME_INVALID;
        Irp->IoStatus.Status = nStatus;
        Irp->IoStatus.Information = 0;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
        return nStatus;
    }

    // Read before the existence check: a copy-up that ends after the check
    // is seen by the open's first request.
    const ULONG ulCopyUpGeneration = CurrentCopyUpGeneration();
    const ULONG ulExistenceMask = FiltCheckFileExists(&ustrFullPath, FILTER_MASK_ALL, NULL);
    const BOOLEAN bTargetDirectory = (pIrpSp->Flags & SL_OPEN_TARGET_DIRECTORY) != 0;
    if (bTargetDirectory) {
        PFilterDirectoryEntry pPack = GetFilterDirectory(1);
        if (pPack != NULL && RtlPrefixUnicodeString(&pPack->m_ustrRoot, &ustrFullPath, TRUE)) {
            ExFreePoolWithTag(ustrFullPath.Buffer, TRVN_TAG_GENERAL);
            return PassCreateDown(DeviceObject, Irp, TervaneCreateCheckCompletion);
        }
        if (!CutToFinalComponent(pIrpSp)) {
            ExFreePoolWithTag(ustrFullPath.Buffer, TRVN_TAG_GENERAL);
            nStatus = STATUS_OBJECT_NAME_INVALID;
            Irp->IoStatus.Status = nStatus;
            Irp->IoStatus.Information = 0;
            IoCompleteRequest(Irp, IO_NO_INCREMENT);
            return nStatus;
        }
        ReplaceByParent(&ustrFullPath);
    }

    if (IsExcludedPath(&ustrFullPath)) {
        ExFreePoolWithTag(ustrFullPath.Buffer, TRVN_TAG_GENERAL);
        return PassCreateDown(DeviceObject, Irp, TervaneCreateCompletion);
    }
    if (bTargetDirectory && LowestConfiguredFlag(ulExistenceMask) == 0) {
        // A new name is made in filter directory 0, where its directory may
        // not be yet; a failure shows as the failure of the open below.
        CopyUpDirectory(&ustrFullPath);
    }

    nStatus = OpenRedirected(Irp, pIrpSp, &ustrFullPath, ulExistenceMask, ulCopyUpGeneration);
    ExFreePoolWithTag(ustrFullPath.Buffer, TRVN_TAG_GENERAL);

    if (bTargetDirectory) {
        Irp->IoStatus.Information = ulExistenceMask != 0 ? FILE_EXISTS : FILE_DOES_NOT_EXIST;
    }
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return nStatus;
}
