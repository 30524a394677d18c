// The layered open: every open the driver makes of its own (volume roots at
// hook time aside) maps its path into one filter directory, marks the name
// with the bypass suffix so that the driver's own filter lets it through, and
// creates missing parents in filter directory 0 when asked.
#include "control/filter_directory.h"
#include "base/strings.h"
#include "base/log.h"
#include "base/scoped.h"
#include "base/global_state.h"
#include "control/layered_open.h"

namespace {

BOOLEAN DispositionCreates(ULONG CreateDisposition) {
    return CreateDisposition == FILE_SUPERSEDE || CreateDisposition == FILE_CREATE ||
           CreateDisposition == FILE_OPEN_IF || CreateDisposition == FILE_OVERWRITE_IF;
}

}  // namespace

NTSTATUS FiltCreateFile(ULONG ulFilterMask, BOOLEAN bCreateParents, PHANDLE phFile, ACCESS_MASK DesiredAccess,
                        PUNICODE_STRING pustrPath, BOOLEAN bCaseSensitive, BOOLEAN bForceAccessCheck,
                        PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                        ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                        ULONG EaLength) {
    PathBuffer realPath;
    PathBuffer objectPath;
    if (!realPath.Have() || !objectPath.Have()) {
        TRVN_LOG("FiltCreateFile", __LINE__, "cannot allocate buffer\r\n");
        return STATUS_UNSUCCESSFUL;
    }
    if (!GetRealFilePathForFilter(pustrPath, realPath.Get(), ulFilterMask, FALSE)) {
        TRVN_LOG("FiltCreateFile", __LINE__, "cannot get real file path");
        return STATUS_NOT_FOUND;
    }
    CopyStringToCounted(objectPath.Get(), L"\\??\\");
    AppendCountedString(objectPath.Get(), realPath.Get());

    if (bCreateParents && (ulFilterMask & 1) != 0 && DispositionCreates(CreateDisposition)) {
        // A failure shows as the failure of the open itself.
        CreateDirectoryRecursive(realPath.Get());
    }
    if (IsFilterIndexLoaded()) {
        AppendStringToCounted(objectPath.Get(), BYPASS_SUFFIX);
    }

    ULONG ulAttributes = OBJ_KERNEL_HANDLE;
    if (!bCaseSensitive) {
        ulAttributes |= OBJ_CASE_INSENSITIVE;
    }
    if (bForceAccessCheck) {
        ulAttributes |= OBJ_FORCE_ACCESS_CHECK;
    }
    OBJECT_ATTRIBUTES ObjectAttributes;
    InitializeObjectAttributes(&ObjectAttributes, objectPath.Get(), ulAttributes, NULL, NULL);
    return ZwCreateFile(phFile, DesiredAccess, &ObjectAttributes, IoStatusBlock, AllocationSize, FileAttributes,
                        ShareAccess, CreateDisposition, CreateOptions, EaBuffer, EaLength);
}

NTSTATUS FiltOpenFile(ULONG ulFilterMask, BOOLEAN bCreateParents, PHANDLE phFile, ACCESS_MASK DesiredAccess,
                      PCUNICODE_STRING pustrPath, ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions) {
    IO_STATUS_BLOCK IoStatus;
    return FiltCreateFile(ulFilterMask, bCreateParents, phFile, DesiredAccess, (PUNICODE_STRING)pustrPath, FALSE,
                          FALSE, &IoStatus, NULL, 0, ShareAccess, CreateDisposition, CreateOptions, NULL, 0);
}

BOOLEAN CreateDirectoryRecursive(PCUNICODE_STRING pustrRealPath) {
    if (pustrRealPath == NULL || (pustrRealPath->Length != 0 && pustrRealPath->Buffer == NULL)) {
        return FALSE;
    }
    USHORT usLength = pustrRealPath->Length & ~1;
    // A zero-byte request is not made of the pool: an empty path gets one character of room.
    PWSTR pwcWork = (PWSTR)ExAllocatePoolWithTag(NonPagedPool, usLength != 0 ? usLength : sizeof(WCHAR),
                                               TRVN_TAG_GENERAL);
    if (pwcWork == NULL) {
        TRVN_LOG("CreateDirectoryRecursive", __LINE__, "alloc fail\r\n");
        return FALSE;
    }
    RtlCopyMemory(pwcWork, pustrRealPath->Buffer, usLength);
    ULONG ulChars = usLength / sizeof(WCHAR);
    if (ulChars < 3 || pwcWork[2] != L'\\') {
        ExFreePoolWithTag(pwcWork, TRVN_TAG_GENERAL);
        TRVN_LOG("CreateDirectoryRecursive", __LINE__, "wrong path[%wZ]\r\n", pustrRealPath);
        return FALSE;
    }
    BOOLEAN bAll = TRUE;
    for (ULONG i = 3; i + 1 < ulChars; i++) {
        if (pwcWork[i] != L'\\') {
            continue;
        }
        UNICODE_STRING ustrPrefix;
        ustrPrefix.Length = (USHORT)(i * sizeof(WCHAR));
        ustrPrefix.MaximumLength = ustrPrefix.Length;
        ustrPrefix.Buffer = pwcWork;
        HANDLE hDirectory = NULL;
        NTSTATUS status = FiltOpenFile(0, FALSE, &hDirectory, SYNCHRONIZE, &ustrPrefix,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN_IF,
                                       FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
        if (!NT_SUCCESS(status)) {
            bAll = FALSE;
            break;
        }
        ZwClose(hDirectory);
    }
    ExFreePoolWithTag(pwcWork, TRVN_TAG_GENERAL);
    return bAll;
}

BOOLEAN IsDirectoryFile(HANDLE hFile) {
    FILE_STANDARD_INFORMATION StandardInfo;
    IO_STATUS_BLOCK IoStatus;
    IoStatus.Status = STATUS_SUCCESS;
    IoStatus.Information = 0;
    NTSTATUS status =
        ZwQueryInformationFile(hFile, &IoStatus, &StandardInfo, sizeof(StandardInfo), FileStandardInformation);
    if (!NT_SUCCESS(status)) {
        TRVN_LOG("IsDirectoryFile", __LINE__, "ZwQueryInformationFile failed /w Err[%d] IoStatus.Status[%d]",
                 status, IoStatus.Status);
        return FALSE;
    }
    return StandardInfo.Directory;
}
