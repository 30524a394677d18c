// IRP_MJ_SET_INFORMATION on a redirected open. Changes go to filter
// directory 0: the file is copied up first unless only its last-access time
// is set. Renames and delete requests are carried out by the driver across
// the filter directories; every other class is forwarded to the real file.
#include "dispatch/dispatch.h"
#include "dispatch/handler_common.h"

#include "control/filter_directory.h"
#include "base/strings.h"
#include "base/log.h"
#include "base/global_state.h"
#include "filemgr/file_manager.h"
#include "index/file_index.h"

#define NT_PREFIX L"\\??\\"
#define NT_PREFIX_CHARS 4
#define DOS_DEVICE_PREFIX L"\\DosDevice\\"
#define DOS_DEVICE_PREFIX_CHARS 11

// Whether a set-information request changes the file (and so needs it in
// filter directory 0). A basic-information record that sets only the
// last-access time, or nothing, leaves it where it is; one too short to read
// is left to the file system to refuse.
static BOOLEAN NeedsCopyUp(FILE_INFORMATION_CLASS Class, PVOID Buffer, ULONG Length) {
    if (Class != FileBasicInformation) {
        return TRUE;
    }
    if (Buffer == NULL || Length < sizeof(FILE_BASIC_INFORMATION)) {
        return FALSE;
    }
    PFILE_BASIC_INFORMATION pBasic = (PFILE_BASIC_INFORMATION)Buffer;
    return pBasic->ChangeTime.QuadPart != 0 || pBasic->LastWriteTime.QuadPart != 0 ||
           pBasic->CreationTime.QuadPart != 0 || pBasic->FileAttributes != 0;
}

// A rename, or a delete request: the name leaves the view.
static BOOLEAN MovesOrRemovesName(FILE_INFORMATION_CLASS Class, PVOID Buffer, ULONG Length) {
    if (Class == FileRenameInformation) {
        return TRUE;
    }
    return Class == FileDispositionInformation && Buffer != NULL && Length >= sizeof(FILE_DISPOSITION_INFORMATION) &&
           ((PFILE_DISPOSITION_INFORMATION)Buffer)->DeleteFile;
}

static BOOLEAN StartsWith(PCUNICODE_STRING Name, PCWSTR Prefix, ULONG PrefixChars) {
    return Name->Length >= PrefixChars * sizeof(WCHAR) &&
           RtlCompareMemory(Name->Buffer, Prefix, PrefixChars * sizeof(WCHAR)) == PrefixChars * sizeof(WCHAR);
}

static BOOLEAN AllocateNameString(PUNICODE_STRING String) {
    String->Length = 0;
    String->MaximumLength = PATH_BUFFER_SIZE;
    String->Buffer = (PWSTR)ExAllocatePoolWithTag(NonPagedPool, PATH_BUFFER_SIZE, TRVN_TAG_GENERAL);
    return String->Buffer != NULL;
}

static VOID FreeNameString(PUNICODE_STRING String) {
    if (String->Buffer != NULL) {
        ExFreePoolWithTag(String->Buffer, TRVN_TAG_GENERAL);
        String->Buffer = NULL;
    }
}

// Target of a rename relative to the root directory handle: that open's path,
// a backslash, the given name. FALSE when the handle is not a redirected open.
static BOOLEAN TargetFromRootDirectory(HANDLE RootDirectory, PUNICODE_STRING GivenName, PUNICODE_STRING Target) {
    PFILE_OBJECT pRootFileObject = NULL;
    NTSTATUS nStatus = ObReferenceObjectByHandle(RootDirectory, 1, *IoFileObjectType, KernelMode,
                                                 (PVOID*)&pRootFileObject, NULL);
    if (!NT_SUCCESS(nStatus)) {
        return FALSE;
    }
    BOOLEAN bFound = GetFileHandleEntryPath(pRootFileObject, Target);
    ObDereferenceObject(pRootFileObject);
    if (!bFound) {
        return FALSE;
    }
    if (!NT_SUCCESS(AppendStringToCountedN(Target, L"\\", 1)) || !NT_SUCCESS(AppendCountedString(Target, GivenName))) {
        return FALSE;
    }
    TRVN_LOG("TervaneSetInformationRename", __LINE__, "GetFullPath from RootDirectory: [%wZ] -> [%wZ]\r\n", GivenName,
             Target);
    return TRUE;
}

// Target of a rename by a bare name: the sibling of the open file.
static BOOLEAN TargetFromSimpleName(PFileHandleEntry pFileHandleEntry, PUNICODE_STRING GivenName,
                                    PUNICODE_STRING Target) {
    PCUNICODE_STRING pPath = &pFileHandleEntry->m_ustrFullPath;
    const ULONG ulLast = PathPrefixChars(pPath);
    if (ulLast < 2) {
        return FALSE;  // the last backslash is the first character: no parent
    }
    UNICODE_STRING ustrParent;
    ustrParent.Buffer = pPath->Buffer;
    ustrParent.Length = ustrParent.MaximumLength = (USHORT)((ulLast - 1) * sizeof(WCHAR));
    if (!NT_SUCCESS(CopyCountedString(Target, &ustrParent))) {
        return FALSE;
    }
    if (Target->Buffer[Target->Length / sizeof(WCHAR) - 1] != L'\\' &&
        !NT_SUCCESS(AppendStringToCountedN(Target, L"\\", 1))) {
        return FALSE;
    }
    if (!NT_SUCCESS(AppendCountedString(Target, GivenName))) {
        return FALSE;
    }
    TRVN_LOG("TervaneSetInformationRename", __LINE__, "GetFullPath from Simple Path: [%wZ] -> [%wZ]\r\n", GivenName,
             Target);
    return TRUE;
}

// Forms the drive path a rename targets. FALSE when there is none: the root
// directory is not a redirected open, the name has no parent, or the name is
// an NT path other than "\??\" or "\DosDevice\" followed by a drive path (such
// a name cannot be mapped into the filter directories).
static BOOLEAN FormRenameTarget(PFileHandleEntry pFileHandleEntry, HANDLE RootDirectory, PUNICODE_STRING GivenName,
                                PUNICODE_STRING Target) {
    if (RootDirectory != NULL) {
        return TargetFromRootDirectory(RootDirectory, GivenName, Target);
    }
    const BOOLEAN bDriveForm = GivenName->Length >= 3 * sizeof(WCHAR) && GivenName->Buffer[1] == L':' &&
                               GivenName->Buffer[2] == L'\\';
    if (GivenName->Length != 0 && GivenName->Buffer[0] != L'\\' && !bDriveForm) {
        return TargetFromSimpleName(pFileHandleEntry, GivenName, Target);
    }
    UNICODE_STRING ustrRest = *GivenName;
    if (GivenName->Length != 0 && GivenName->Buffer[0] == L'\\') {
        ULONG ulSkip;
        if (StartsWith(GivenName, NT_PREFIX, NT_PREFIX_CHARS)) {
            ulSkip = NT_PREFIX_CHARS;
        } else if (StartsWith(GivenName, DOS_DEVICE_PREFIX, DOS_DEVICE_PREFIX_CHARS)) {
            ulSkip = DOS_DEVICE_PREFIX_CHARS;
        } else {
            return FALSE;
        }
        ustrRest.Buffer += ulSkip;
        ustrRest.Length = (USHORT)(ustrRest.Length - ulSkip * sizeof(WCHAR));
        ustrRest.MaximumLength = ustrRest.Length;
    }
    return IsDrivePath(&ustrRest) && NT_SUCCESS(CopyCountedString(Target, &ustrRest));
}

// Checks an existing rename target: it may be replaced only when asked, only
// when it is a file, and only when each of its copies can be opened for
// deletion.
static NTSTATUS CheckExistingTarget(PUNICODE_STRING Target, ULONG ExistenceMask, BOOLEAN ReplaceIfExists) {
    if (!ReplaceIfExists) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    HANDLE hTarget = NULL;
    NTSTATUS nStatus = FiltOpenFile(ExistenceMask, FALSE, &hTarget, GENERIC_READ, Target,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
                                    FILE_SYNCHRONOUS_IO_NONALERT);
    if (!NT_SUCCESS(nStatus) || IsDirectoryFile(hTarget)) {
        if (hTarget != NULL) {
            ZwClose(hTarget);
        }
        return STATUS_UNSUCCESSFUL;
    }
    ZwClose(hTarget);

    const ULONG ulAll = GetFilterMask();
    for (ULONG ulFlag = 1; ulFlag != 0 && ulFlag <= ulAll; ulFlag <<= 1) {
        if (!(ExistenceMask & ulFlag)) {
            continue;
        }
        hTarget = NULL;
        nStatus = FiltOpenFile(ulFlag, FALSE, &hTarget, DELETE | SYNCHRONIZE | FILE_WRITE_ATTRIBUTES, Target,
                               FILE_SHARE_READ | FILE_SHARE_DELETE, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT);
        if (!NT_SUCCESS(nStatus)) {
            return STATUS_UNSUCCESSFUL;
        }
        ZwClose(hTarget);
    }
    return STATUS_SUCCESS;
}

// Renames the real file in filter directory 0 to Target mapped there.
static NTSTATUS RenameRealFile(PFileHandleEntry pFileHandleEntry, PUNICODE_STRING Target, BOOLEAN ReplaceIfExists) {
    UNICODE_STRING ustrRealTarget = {0, 0, NULL};
    PFilterDirectoryEntry pPack = GetFilterDirectory(1);
    // A real target longer than a path buffer would be cut: refuse it whole.
    if (pPack == NULL ||
        (ULONG)pPack->m_ustrRoot.Length + Target->Length - 2 * sizeof(WCHAR) > PATH_BUFFER_SIZE) {
        return pPack == NULL ? STATUS_UNSUCCESSFUL : STATUS_OBJECT_NAME_INVALID;
    }
    if (!GetRealFilePathForFilter(Target, &ustrRealTarget, 1, TRUE)) {
        return STATUS_UNSUCCESSFUL;
    }
    const ULONG ulRecordSize = sizeof(FILE_RENAME_INFORMATION) + NT_PREFIX_CHARS * sizeof(WCHAR) + ustrRealTarget.Length;
    PFILE_RENAME_INFORMATION pRecord =
        (PFILE_RENAME_INFORMATION)ExAllocatePoolWithTag(NonPagedPool, ulRecordSize, TRVN_TAG_GENERAL);
    if (pRecord == NULL) {
        FreeRealFilePath(&ustrRealTarget);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(pRecord, ulRecordSize);
    pRecord->ReplaceIfExists = ReplaceIfExists;
    pRecord->RootDirectory = NULL;
    RtlCopyMemory(pRecord->FileName, NT_PREFIX, NT_PREFIX_CHARS * sizeof(WCHAR));
    RtlCopyMemory(pRecord->FileName + NT_PREFIX_CHARS, ustrRealTarget.Buffer, ustrRealTarget.Length);
    pRecord->FileNameLength = ustrRealTarget.Length + NT_PREFIX_CHARS * sizeof(WCHAR);

    IO_STATUS_BLOCK iosb;
    NTSTATUS nStatus = ZwSetInformationFile(pFileHandleEntry->m_hRealFileHandle, &iosb, pRecord, ulRecordSize,
                                            FileRenameInformation);
    FreeRealFilePath(&ustrRealTarget);
    ExFreePoolWithTag(pRecord, TRVN_TAG_GENERAL);
    return nStatus;
}

// The rename happens in filter directory 0, so the target's directory must
// be there: made as copy-up makes ancestors when only a lower filter
// directory holds it, refused when the view holds none.
static NTSTATUS PrepareTargetDirectory(PUNICODE_STRING Target) {
    const ULONG ulLast = PathPrefixChars(Target);
    UNICODE_STRING ustrDirectory;
    ustrDirectory.Buffer = Target->Buffer;
    ustrDirectory.Length = ustrDirectory.MaximumLength = (USHORT)((ulLast > 3 ? ulLast - 1 : ulLast) * sizeof(WCHAR));
    return CopyUpDirectory(&ustrDirectory);
}

NTSTATUS TervaneSetInformationRename(PFileHandleEntry pFileHandleEntry, PFILE_RENAME_INFORMATION RenameInfo,
                                     ULONG Length) {
    // The record must hold its header and the name it announces.
    if (Length < (ULONG)FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) ||
        RenameInfo->FileNameLength > Length - FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) ||
        (RenameInfo->FileNameLength & 1)) {
        return STATUS_INVALID_PARAMETER;
    }
    // A given name longer than a path buffer cannot name a file of the view.
    if (RenameInfo->FileNameLength > PATH_BUFFER_SIZE) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    UNICODE_STRING ustrGivenName, ustrTarget;
    AllocateNameString(&ustrGivenName);
    AllocateNameString(&ustrTarget);
    if (ustrGivenName.Buffer == NULL || ustrTarget.Buffer == NULL) {
        FreeNameString(&ustrGivenName);
        FreeNameString(&ustrTarget);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(ustrGivenName.Buffer, RenameInfo->FileName, RenameInfo->FileNameLength);
    ustrGivenName.Length = (USHORT)RenameInfo->FileNameLength;

    NTSTATUS nStatus = STATUS_SUCCESS;
    if (!FormRenameTarget(pFileHandleEntry, RenameInfo->RootDirectory, &ustrGivenName, &ustrTarget)) {
        nStatus = STATUS_OBJECT_NAME_INVALID;
    } else if (RtlUpcaseUnicodeChar(ustrTarget.Buffer[0]) !=
               RtlUpcaseUnicodeChar(pFileHandleEntry->m_ustrFullPath.Buffer[0])) {
        nStatus = STATUS_NOT_SAME_DEVICE;  // the view holds one volume
    } else {
        NTSTATUS nCheckStatus;
        const ULONG ulMask = FiltCheckFileExists(&ustrTarget, FILTER_MASK_ALL, NULL, &nCheckStatus);
        if (!NT_SUCCESS(nCheckStatus)) {
            nStatus = nCheckStatus;  // an existing target might go unseen
        } else if (ulMask != 0) {
            nStatus = CheckExistingTarget(&ustrTarget, ulMask, RenameInfo->ReplaceIfExists);
        }
    }
    // The old name's lower copies are found and opened for deletion before
    // the rename, so that hiding them afterwards cannot fail.
    ULONG ulLowerMask = 0;
    if (NT_SUCCESS(nStatus)) {
        TRVN_ASSERT(pFileHandleEntry->m_ulFilterEntryFlag & 0x01, DISPATCH_SOURCE, __LINE__);
        nStatus = FiltPrepareRemoval(&pFileHandleEntry->m_ustrFullPath, &ulLowerMask);
    }
    if (NT_SUCCESS(nStatus)) {
        nStatus = PrepareTargetDirectory(&ustrTarget);
    }
    // The entry keeps its new path at its length, in a buffer had before
    // anything is renamed.
    UNICODE_STRING ustrNewPath = {0, 0, NULL};
    if (NT_SUCCESS(nStatus) && ustrTarget.Length != 0) {
        ustrNewPath.Buffer = (PWSTR)ExAllocatePoolWithTag(NonPagedPool, ustrTarget.Length, TRVN_TAG_GENERAL);
        ustrNewPath.MaximumLength = ustrTarget.Length;
        if (ustrNewPath.Buffer == NULL) {
            nStatus = STATUS_INSUFFICIENT_RESOURCES;
        } else {
            CopyCountedString(&ustrNewPath, &ustrTarget);
        }
    }
    if (NT_SUCCESS(nStatus)) {
        nStatus = RenameRealFile(pFileHandleEntry, &ustrTarget, RenameInfo->ReplaceIfExists);
    }
    if (NT_SUCCESS(nStatus)) {
        if (ulLowerMask != 0) {
            HidePath(&pFileHandleEntry->m_ustrFullPath);
        }
        ReplaceFileHandleEntryPath(pFileHandleEntry, &ustrNewPath);
        nStatus = STATUS_SUCCESS;
    }
    FreeNameString(&ustrNewPath);
    FreeNameString(&ustrGivenName);
    FreeNameString(&ustrTarget);
    return nStatus;
}

// Everything a deletion needs that can fail is done here, where the caller
// hears of a failure: the copy in filter directory 0 is marked for deletion
// on the real handle (the file system deletes it when the close closes that
// handle), and the lower copies are found and opened for deletion once; the
// close then only hides their name, which needs no memory.
NTSTATUS TervaneSetInformationDisposition(PFileHandleEntry pFileHandleEntry, PIO_STATUS_BLOCK IoStatus,
                                          PFILE_DISPOSITION_INFORMATION DispositionInfo, ULONG Length) {
    if (Length < sizeof(FILE_DISPOSITION_INFORMATION)) {
        IoStatus->Status = STATUS_INFO_LENGTH_MISMATCH;
        IoStatus->Information = 0;
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    const BOOLEAN bDeleteFile = DispositionInfo->DeleteFile;
    if (bDeleteFile == pFileHandleEntry->m_bDeleteOnClose) {
        IoStatus->Status = STATUS_SUCCESS;
        IoStatus->Information = 1;
        return STATUS_SUCCESS;
    }
    NTSTATUS nStatus = bDeleteFile ? PrepareDeleteOnClose(pFileHandleEntry) : CancelDeleteOnClose(pFileHandleEntry);
    IoStatus->Status = nStatus;
    IoStatus->Information = 0;
    return nStatus;
}

// Forwards a set-information request of any other class to the real file as
// an own request carrying the caller's parameters and a copy of its record.
static NTSTATUS ForwardToRealFile(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry pFileHandleEntry,
                                  PVOID pSetInfoBuffer) {
    PFILE_OBJECT pRealFileObject = NULL;
    NTSTATUS nStatus = ObReferenceObjectByHandle(pFileHandleEntry->m_hRealFileHandle, 0, *IoFileObjectType, KernelMode,
                                                 (PVOID*)&pRealFileObject, NULL);
    TRVN_ASSERT(NT_SUCCESS( nStatus ), DISPATCH_SOURCE, __LINE__);
    if (!NT_SUCCESS(nStatus)) {
        Irp->IoStatus.Status = nStatus;
        Irp->IoStatus.Information = 0;
        return nStatus;
    }
    OwnRequest request;
    if (!PrepareOwnRequest(&request, DeviceObject, pFileHandleEntry->m_ulFilterEntryFlag, pRealFileObject)) {
        ObDereferenceObject(pRealFileObject);
        Irp->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
        Irp->IoStatus.Information = 0;
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    request.m_pIrp->Flags = Irp->Flags;
    request.m_pIrp->AssociatedIrp.SystemBuffer = pSetInfoBuffer;
    request.m_pIrp->UserBuffer = pSetInfoBuffer;
    PIO_STACK_LOCATION pNext = IoGetNextIrpStackLocation(request.m_pIrp);
    pNext->MajorFunction = IRP_MJ_SET_INFORMATION;
    pNext->Parameters = IoGetCurrentIrpStackLocation(Irp)->Parameters;
    SendOwnRequest(&request, DeviceObject, pFileHandleEntry->m_ulFilterEntryFlag, FALSE);
    ObDereferenceObject(pRealFileObject);
    Irp->IoStatus = request.m_IoStatus;
    return request.m_IoStatus.Status;
}

NTSTATUS TervaneSetInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFileHandleEntry pFileHandleEntry) {
    TRVN_ASSERT(pFileHandleEntry != NULL, DISPATCH_SOURCE, __LINE__);
    PIO_STACK_LOCATION pIrpSp = IoGetCurrentIrpStackLocation(Irp);
    const FILE_INFORMATION_CLASS eClass = pIrpSp->Parameters.SetFile.FileInformationClass;
    const ULONG ulLength = pIrpSp->Parameters.SetFile.Length;
    WaitForEntry(pFileHandleEntry);
    const NTSTATUS nFollowStatus = FollowPackCopy(DeviceObject, pFileHandleEntry);
    if (!NT_SUCCESS(nFollowStatus)) {
        return FailRequest(pFileHandleEntry, Irp, nFollowStatus);
    }

    // A change that cannot be made on a copy in filter directory 0 is not
    // made at all: a lower filter directory is never renamed, marked or
    // changed in its place.
    NTSTATUS nStatus = STATUS_SUCCESS;
    if (pFileHandleEntry->m_ulFilterEntryFlag != 1 &&
        NeedsCopyUp(eClass, Irp->AssociatedIrp.SystemBuffer, ulLength)) {
        nStatus = CopyUpBeforeChange(DeviceObject, pFileHandleEntry, "TervaneSetInformation");
    } else if (MovesOrRemovesName(eClass, Irp->AssociatedIrp.SystemBuffer, ulLength) &&
               IsDirectoryFile(pFileHandleEntry->m_hRealFileHandle)) {
        // A directory of filter directory 0 may be no more than the ancestor
        // of what was copied into it: a rename takes the lower filter
        // directories' contents along (its old name then hides them), and a
        // delete finds the directory as full as the view shows it.
        nStatus = CopyUpDirectoryContents(&pFileHandleEntry->m_ustrFullPath, DeviceObject);
    }

    // The handlers work on a copy of the caller's record. An empty record
    // needs no copy; every class refuses it below.
    PVOID pSetInfoBuffer = NULL;
    if (NT_SUCCESS(nStatus) && ulLength != 0 && Irp->AssociatedIrp.SystemBuffer != NULL) {
        pSetInfoBuffer = ExAllocatePoolWithTag(NonPagedPool, ulLength, TRVN_TAG_GENERAL);
        TRVN_ASSERT(pSetInfoBuffer, DISPATCH_SOURCE, __LINE__);
        if (pSetInfoBuffer == NULL) {
            nStatus = STATUS_INSUFFICIENT_RESOURCES;
        } else {
            RtlCopyMemory(pSetInfoBuffer, Irp->AssociatedIrp.SystemBuffer, ulLength);
        }
    }

    if (NT_SUCCESS(nStatus)) {
        if (eClass == FileRenameInformation) {
            nStatus = pSetInfoBuffer != NULL
                ? TervaneSetInformationRename(pFileHandleEntry, (PFILE_RENAME_INFORMATION)pSetInfoBuffer, ulLength)
                : STATUS_INFO_LENGTH_MISMATCH;
            if (NT_SUCCESS(nStatus)) {
                // The file system never saw this request: report plain success.
                Irp->IoStatus.Status = STATUS_SUCCESS;
                Irp->IoStatus.Information = 0;
            }
        } else if (eClass == FileDispositionInformation) {
            if (pSetInfoBuffer != NULL) {
                nStatus = TervaneSetInformationDisposition(pFileHandleEntry, &Irp->IoStatus,
                                                           (PFILE_DISPOSITION_INFORMATION)pSetInfoBuffer, ulLength);
            } else {
                nStatus = STATUS_INFO_LENGTH_MISMATCH;
            }
        } else {
            nStatus = ForwardToRealFile(DeviceObject, Irp, pFileHandleEntry, pSetInfoBuffer);
        }
    }
    if (pSetInfoBuffer != NULL) {
        ExFreePoolWithTag(pSetInfoBuffer, TRVN_TAG_GENERAL);
    }

    TRVN_LOG("TervaneSetInformation", __LINE__,
             "SetInformation\tetc: FileInfoClass[%d] Length[%d] Res[%x] Status[%x] Info[%x]\r\n", (int)eClass, ulLength,
             nStatus, Irp->IoStatus.Status, (ULONG)Irp->IoStatus.Information);
    if (!NT_SUCCESS(nStatus)) {
        Irp->IoStatus.Status = nStatus;
        Irp->IoStatus.Information = 0;
    }
    return ReleaseAndComplete(pFileHandleEntry, Irp, nStatus);
}
