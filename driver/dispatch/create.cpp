// IRP_MJ_CREATE on a hooked volume while filtering is on: opens of monitored
// processes are served from the filter directories and completed here; every
// other open is passed down to the file system.
#include "dispatch/dispatch.h"

#include "control/exclusion_list.h"
#include "control/filter_directory.h"
#include "control/process_list.h"
#include "base/strings.h"
#include "base/log.h"
#include "base/scoped.h"
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
    // A parent that cannot be probed counts as removed: the create fails
    // instead of making the directory again.
    NTSTATUS nCheckStatus;
    return IsPathHidden(&ustrParent) &&
           ((FiltCheckFileExists(&ustrParent, 1, NULL, &nCheckStatus) & 1) == 0 || !NT_SUCCESS(nCheckStatus));
}

// The filter directory in which the real file is opened, by disposition: the
// lowest one that holds the file, or filter directory 0 for a new,
// superseded or overwritten file.
static ULONG ChooseFilterFlag(ULONG ExistenceMask, ULONG Disposition) {
    const ULONG ulFound = LowestConfiguredFlag(ExistenceMask);
    switch (Disposition) {
    case FILE_SUPERSEDE:
    case FILE_OVERWRITE:
    case FILE_OVERWRITE_IF:
        return 1;
    case FILE_OPEN:
    case FILE_CREATE:
    case FILE_OPEN_IF:
        return ulFound != 0 ? ulFound : 1;
    default:
        TRVN_ASSERT(FALSE, DISPATCH_SOURCE, __LINE__);
        // The file system refuses the disposition; an unknown one is sent
        // where an open would go rather than to no directory at all.
        return ulFound != 0 ? ulFound : 1;
    }
}

// An overwrite of a file found in a filter directory starts from an empty
// copy in filter directory 0 that carries the found file's attributes. A
// failed copy is logged and fails the open: going on would create a new
// file in filter directory 0 and report it created, the found file's
// attributes lost. The copy reports no status; what makes it fail is a
// shortage of memory or of request packets, and the open says so.
static NTSTATUS PrepareOverwrite(PUNICODE_STRING FullPath, ULONG ExistenceMask, ULONG Disposition) {
    if (Disposition != FILE_OVERWRITE && Disposition != FILE_OVERWRITE_IF) {
        return STATUS_SUCCESS;
    }
    const ULONG ulFound = LowestConfiguredFlag(ExistenceMask);
    if (ulFound != 0 && !FiltCopyFileAttribute(FullPath, ulFound, 1, TRUE)) {
        TRVN_LOG("TervaneCreate", __LINE__, "FiltCopyFileAttribute failed for file [%wZ] from filter [%d] to [%d]\r\n",
                 FullPath, ulFound, 1);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
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
    SetFastIoPossible(FileObject->FsContext);
    ObDereferenceObject(pRealFileObject);
}

// The open as the caller asked for it, in the form the real open takes.
typedef struct CreateParameters {
    ULONG m_ulDisposition;
    ULONG m_ulCreateOptions;  // without FILE_DELETE_ON_CLOSE, always synchronous
    ACCESS_MASK m_ulDesiredAccess;
    ULONG m_ulShareAccess;    // the caller's, with FILE_SHARE_READ added
    ULONG m_ulFileAttributes;
    BOOLEAN m_bDeleteOnClose;
    ULONG m_ulRemoveLowerMask;  // with m_bDeleteOnClose: the lower copies the close hides
} CreateParameters;

static VOID ReadCreateParameters(PIO_STACK_LOCATION pIrpSp, CreateParameters* pParameters) {
    pParameters->m_ulDisposition = pIrpSp->Parameters.Create.Options >> CREATE_DISPOSITION_SHIFT;
    pParameters->m_ulCreateOptions = pIrpSp->Parameters.Create.Options & CREATE_OPTIONS_MASK;
    pParameters->m_ulDesiredAccess = pIrpSp->Parameters.Create.SecurityContext->DesiredAccess;
    pParameters->m_ulShareAccess = pIrpSp->Parameters.Create.ShareAccess | FILE_SHARE_READ;
    pParameters->m_ulFileAttributes = pIrpSp->Parameters.Create.FileAttributes;
    pParameters->m_bDeleteOnClose = (pParameters->m_ulCreateOptions & FILE_DELETE_ON_CLOSE) != 0;
    pParameters->m_ulRemoveLowerMask = 0;
    pParameters->m_ulCreateOptions &= ~FILE_DELETE_ON_CLOSE;
    if (!(pParameters->m_ulCreateOptions & (FILE_SYNCHRONOUS_IO_NONALERT | FILE_SYNCHRONOUS_IO_ALERT))) {
        pParameters->m_ulCreateOptions |= FILE_SYNCHRONOUS_IO_NONALERT;
    }
}

// Opens the real file in the filter directory of FilterFlag into the
// request's status block, or refuses a new name whose directory was removed
// from the view.
static NTSTATUS OpenRealFile(PIRP Irp, PIO_STACK_LOCATION pIrpSp, PUNICODE_STRING FullPath, ULONG FilterFlag,
                             const CreateParameters* pParameters, PHANDLE phRealFile) {
    const ULONG ulDisposition = pParameters->m_ulDisposition;
    if (FilterFlag == 1 && ulDisposition != FILE_OPEN && ulDisposition != FILE_OVERWRITE &&
        IsParentRemoved(FullPath)) {
        Irp->IoStatus.Status = STATUS_OBJECT_PATH_NOT_FOUND;
        Irp->IoStatus.Information = 0;
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    return FiltCreateFile(FilterFlag, FilterFlag == 1, phRealFile, pParameters->m_ulDesiredAccess, FullPath,
                          (pIrpSp->Flags & SL_CASE_SENSITIVE) != 0, (pIrpSp->Flags & SL_FORCE_ACCESS_CHECK) != 0,
                          &Irp->IoStatus, &Irp->Overlay.AllocationSize, pParameters->m_ulFileAttributes,
                          pParameters->m_ulShareAccess, ulDisposition, pParameters->m_ulCreateOptions, NULL, 0);
}

// A real open that found nothing reports what the view lacks: a missing
// name or a missing path, as the existence check across every filter
// directory tells them apart.
static NTSTATUS RefineNotFound(PUNICODE_STRING FullPath, NTSTATUS Status) {
    if (Status != STATUS_OBJECT_PATH_NOT_FOUND && Status != STATUS_OBJECT_NAME_NOT_FOUND) {
        return Status;
    }
    NTSTATUS nExistStatus = STATUS_SUCCESS;
    if (FiltCheckFileExists(FullPath, FILTER_MASK_ALL, &nExistStatus) == 0 &&
        (nExistStatus == STATUS_OBJECT_PATH_NOT_FOUND || nExistStatus == STATUS_OBJECT_NAME_NOT_FOUND)) {
        return nExistStatus;
    }
    return Status;
}

// Records the open-file entry of a successful real open and gives the
// caller's FILE_OBJECT the real file's context. Without an entry no later
// request of this open would reach the real file, and nothing would ever
// close its handle: the open fails instead.
static NTSTATUS RecordRedirectedOpen(PIRP Irp, PIO_STACK_LOCATION pIrpSp, PUNICODE_STRING FullPath,
                                     ULONG ExistenceMask, ULONG CopyUpGeneration, ULONG FilterFlag,
                                     const CreateParameters* pParameters, HANDLE hRealFile, NTSTATUS Status) {
    FileHandleEntry entry;
    RtlZeroMemory(&entry, sizeof(entry));
    entry.m_ulCreateOptions = pParameters->m_ulCreateOptions;
    entry.m_ulDesiredAccess = pParameters->m_ulDesiredAccess;
    entry.m_ulShareAccess = pParameters->m_ulShareAccess;
    entry.m_ulFilterEntryFlag = FilterFlag;
    entry.m_hRealFileHandle = hRealFile;
    entry.m_pFileObject = pIrpSp->FileObject;
    entry.m_ustrFullPath = *FullPath;
    entry.m_bDeleteOnClose = pParameters->m_bDeleteOnClose;
    entry.m_ulRemoveLowerMask = pParameters->m_ulRemoveLowerMask;
    entry.m_ulCopyUpGeneration = CopyUpGeneration;
    const BOOLEAN bRecorded = MakeFileHandleEntry(&entry) != NULL;
    const ULONG ulDisposition = pParameters->m_ulDisposition;
    if ((ExistenceMask & ~1UL) != 0 && FilterFlag == 1 && ulDisposition != FILE_OPEN &&
        ulDisposition != FILE_CREATE && ulDisposition != FILE_OPEN_IF) {
        // A lower file replaced in filter directory 0: its other opens follow.
        NoteCopyInPackLocation();
    }
    if (!bRecorded) {
        ZwClose(hRealFile);
        Irp->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
        Irp->IoStatus.Information = 0;
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PrepareCallerFileObject(pIrpSp->FileObject, hRealFile, pParameters->m_ulDesiredAccess,
                            pParameters->m_ulShareAccess);
    return Status;
}

// Opens the real file for a redirected open and records the entry. Returns
// the open's status (refined for not-found), which is already in IoStatus.
static NTSTATUS OpenRedirected(PIRP Irp, PIO_STACK_LOCATION pIrpSp, PUNICODE_STRING FullPath, ULONG ExistenceMask,
                               ULONG CopyUpGeneration) {
    CreateParameters parameters;
    ReadCreateParameters(pIrpSp, &parameters);
    const ULONG ulFilterFlag = ChooseFilterFlag(ExistenceMask, parameters.m_ulDisposition);

    // Deletion at close: what can fail is done now, before the open. The
    // file system deletes a real file of filter directory 0 itself when its
    // handle closes; a lower filter directory's file is never deleted, its
    // name (with those of the other lower copies) leaves the view at close.
    CreateParameters realParameters = parameters;
    NTSTATUS nPrepareStatus = STATUS_SUCCESS;
    if (parameters.m_bDeleteOnClose) {
        nPrepareStatus = FiltPrepareRemoval(FullPath, &parameters.m_ulRemoveLowerMask);
        if (ulFilterFlag == 1) {
            realParameters.m_ulCreateOptions |= FILE_DELETE_ON_CLOSE;
        }
    }
    // The overwrite's copy comes last, just before the open that needs it.
    if (NT_SUCCESS(nPrepareStatus)) {
        nPrepareStatus = PrepareOverwrite(FullPath, ExistenceMask, parameters.m_ulDisposition);
    }
    if (!NT_SUCCESS(nPrepareStatus)) {
        Irp->IoStatus.Status = nPrepareStatus;
        Irp->IoStatus.Information = 0;
        return nPrepareStatus;
    }
    if (pIrpSp->Parameters.Create.EaLength != 0) {
        TRVN_LOG("TervaneCreate", __LINE__, "Warning: EaLength not zero[%d] EaBuffer not NULL[%08x]\r\n",
                 pIrpSp->Parameters.Create.EaLength, (ULONG)(ULONG_PTR)Irp->AssociatedIrp.SystemBuffer);
    }

    HANDLE hRealFile = NULL;
    NTSTATUS nStatus = OpenRealFile(Irp, pIrpSp, FullPath, ulFilterFlag, &realParameters, &hRealFile);
    TRVN_LOG("TervaneCreate", __LINE__,
             "CreateFile\t[%wZ] /w Access[%x] FileAttrib[%x] Share[%x] Option[%x] Res[%x] Status[%x] Info[%x]\r\n",
             FullPath, parameters.m_ulDesiredAccess, parameters.m_ulFileAttributes,
             (ULONG)pIrpSp->Parameters.Create.ShareAccess, parameters.m_ulCreateOptions, nStatus,
             Irp->IoStatus.Status, (ULONG)Irp->IoStatus.Information);
    if (!NT_SUCCESS(nStatus)) {
        nStatus = RefineNotFound(FullPath, nStatus);
        Irp->IoStatus.Status = nStatus;
        return nStatus;
    }
    return RecordRedirectedOpen(Irp, pIrpSp, FullPath, ExistenceMask, CopyUpGeneration, ulFilterFlag, &parameters,
                                hRealFile, nStatus);
}

// Completes an open the driver refuses itself, with no information.
static NTSTATUS CompleteCreate(PIRP Irp, NTSTATUS Status) {
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = 0;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}

// Whether a path lies under filter directory 0's root (a plain prefix,
// case-insensitive; false while no filter directory is configured).
static BOOLEAN IsUnderPackRoot(PCUNICODE_STRING FullPath) {
    PFilterDirectoryEntry pPack = GetFilterDirectory(1);
    return pPack != NULL && RtlPrefixUnicodeString(&pPack->m_ustrRoot, FullPath, TRUE);
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
    WCHAR awcName[LOG_PROCESS_NAME_CHARS];
    UNICODE_STRING ustrName = {0, sizeof(awcName), awcName};
    if (pFileObject == NULL || pFileObject->FileName.Length == 0 ||
        !IsMonitoredProcess((ULONG)(ULONG_PTR)PsGetCurrentProcessId(), &ustrName)) {
        return PassCreateDown(DeviceObject, Irp, TervaneCreateCompletion);
    }
    SetCurrentProcessName(&ustrName);
    if (pIrpSp->Flags & SL_OPEN_PAGING_FILE) {
        return PassCreateDown(DeviceObject, Irp, TervaneCreateCheckCompletion);
    }
    // A process's own name that ends in the bypass suffix is refused as the
    // file system refuses it, before any directory is made for it in the
    // pack location.
    if (HasBypassSuffix(&pFileObject->FileName)) {
        return CompleteCreate(Irp, STATUS_OBJECT_NAME_INVALID);
    }

    // The full path, given back on every way out of the handler.
    PoolBlock pathBlock(PATH_BUFFER_SIZE, TRVN_TAG_GENERAL);
    UNICODE_STRING ustrFullPath;
    ustrFullPath.Length = 0;
    ustrFullPath.MaximumLength = PATH_BUFFER_SIZE;
    ustrFullPath.Buffer = pathBlock.As<WCHAR>();
    TRVN_ASSERT(ustrFullPath.Buffer, DISPATCH_SOURCE, __LINE__);
    if (ustrFullPath.Buffer == NULL) {
        // No redirected open can be made without its path.
        return CompleteCreate(Irp, STATUS_INSUFFICIENT_RESOURCES);
    }
    GetFullPathName(FALSE, pFileObject, pExtension, &ustrFullPath, TRUE);
    if (!IsDrivePath(&ustrFullPath)) {
        // Anything but a drive path (an empty result, a name too long to
        // resolve, a name relative to a volume open) cannot be mapped into a
        // filter directory; it is refused rather than served from the real
        // volume behind the filter directories.
        TRVN_LOG("TervaneCreate", __LINE__, "CreateFile\t[%wZ] cannot resolve [%wZ]\r\n", &ustrFullPath,
                 &pFileObject->FileName);
        return CompleteCreate(Irp, STATUS_OBJECT_NAME_INVALID);
    }

    // Read before the existence check: a copy-up that ends after the check
    // is seen by the open's first request.
    const ULONG ulCopyUpGeneration = CurrentCopyUpGeneration();
    NTSTATUS nCheckStatus;
    const ULONG ulExistenceMask = FiltCheckFileExists(&ustrFullPath, FILTER_MASK_ALL, NULL, &nCheckStatus);
    if (!NT_SUCCESS(nCheckStatus)) {
        // Without knowing where the file lies, no open can be made: another
        // filter directory's copy, or a new one, would take its place.
        return CompleteCreate(Irp, nCheckStatus);
    }
    const BOOLEAN bTargetDirectory = (pIrpSp->Flags & SL_OPEN_TARGET_DIRECTORY) != 0;
    if (bTargetDirectory) {
        if (IsUnderPackRoot(&ustrFullPath)) {
            return PassCreateDown(DeviceObject, Irp, TervaneCreateCheckCompletion);
        }
        if (!CutToFinalComponent(pIrpSp)) {
            return CompleteCreate(Irp, STATUS_OBJECT_NAME_INVALID);
        }
        ReplaceByParent(&ustrFullPath);
    }
    if (IsExcludedPath(&ustrFullPath)) {
        return PassCreateDown(DeviceObject, Irp, TervaneCreateCompletion);
    }
    if (bTargetDirectory && LowestConfiguredFlag(ulExistenceMask) == 0) {
        // A new name is made in filter directory 0, where its directory may
        // not be yet; a failure shows as the failure of the open below.
        CopyUpDirectory(&ustrFullPath);
    }

    nStatus = OpenRedirected(Irp, pIrpSp, &ustrFullPath, ulExistenceMask, ulCopyUpGeneration);
    if (bTargetDirectory) {
        Irp->IoStatus.Information = ulExistenceMask != 0 ? FILE_EXISTS : FILE_DOES_NOT_EXIST;
    }
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return nStatus;
}
