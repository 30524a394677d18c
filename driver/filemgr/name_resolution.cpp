// Name resolution: turns the FILE_OBJECT of an open into the drive path on
// which every decision about the open is taken (letter, colon, backslash,
// rest), from the open-file table, the NTFS metadata record names, the file
// system's own name of the file, or the name in the request, and spells
// 8.3 short-name components out as their long names.
#include "control/filter_directory.h"
#include "base/scoped.h"
#include "base/strings.h"
#include "base/log.h"
#include "base/global_state.h"
#include "filemgr/file_handle_table.h"
#include "filemgr/file_manager.h"
#include "filemgr/mapped_real_path.h"


namespace {

// The names of the first NTFS file records, by record number.
const PCWSTR s_apwszMetadataNames[] = {
    L"$Mft",    L"$MftMirr", L"$LogFile", L"$Volume", L"$AttrDef", L"$Root",
    L"$Bitmap", L"$Boot",    L"$BadClus", L"$Secure", L"$UpCase",  L"$Extend",
};
const ULONG METADATA_NAME_COUNT = sizeof(s_apwszMetadataNames) / sizeof(s_apwszMetadataNames[0]);

// The longest path the resolution builds, in characters (a path buffer).
const ULONG FULL_PATH_LIMIT_CHARS = 1024;

// FileNameInformation is asked for with the room a path buffer has left
// after the drive prefix, less one character.
const ULONG NAME_QUERY_LENGTH = (FULL_PATH_LIMIT_CHARS - 2) * sizeof(WCHAR) - sizeof(WCHAR);

// A directory query of LookupLongName returns one batch of this size.
const ULONG LONG_NAME_QUERY_SIZE = 2064;

const WCHAR NAME_TOO_LONG[] = L"<Name Too Long>";

BOOLEAN IsNetworkFileObject(PFILE_OBJECT FileObject) {
    return FileObject->DeviceObject != NULL && FileObject->DeviceObject->DeviceType == FILE_DEVICE_NETWORK_FILE_SYSTEM;
}

// The volume's file system calls itself NTFS. A recorded name shorter than
// four characters is not NTFS, whatever bytes follow it.
BOOLEAN IsNtfsVolume(PTervaneDeviceExtension pExtension) {
    PFILE_FS_ATTRIBUTE_INFORMATION pInfo = (PFILE_FS_ATTRIBUTE_INFORMATION)pExtension->m_pFsAttributeInfo;
    if (pInfo == NULL || pInfo->FileSystemNameLength < 4 * sizeof(WCHAR)) {
        return FALSE;
    }
    return RtlCompareMemory(pInfo->FileSystemName, L"NTFS", 4 * sizeof(WCHAR)) == 4 * sizeof(WCHAR);
}

// Removes the character at index ulIndex through a temporary copy. On a
// failed allocation the string stays as it is.
VOID RemoveCharacterAt(PUNICODE_STRING pustr, ULONG ulIndex) {
    ULONG ulChars = pustr->Length / sizeof(WCHAR);
    if (ulIndex >= ulChars) {
        return;
    }
    PoolBlock copy(pustr->Length, TRVN_TAG_GENERAL);
    if (copy.Get() == NULL) {
        TRVN_LOG("GetFullPathName", __LINE__, "Alloc Fail.\r\n");
        return;
    }
    PWCHAR pwcCopy = copy.As<WCHAR>();
    RtlCopyMemory(pwcCopy, pustr->Buffer, pustr->Length);
    RtlCopyMemory(pustr->Buffer + ulIndex, pwcCopy + ulIndex + 1, (ulChars - ulIndex - 1) * sizeof(WCHAR));
    pustr->Length -= sizeof(WCHAR);
}

// For an open without a name on an NTFS volume, when the file system may be
// asked: the name of the NTFS metadata file opened by its file reference.
BOOLEAN ResolveMetadataName(PFILE_OBJECT FileObject, PTervaneDeviceExtension pExtension, PUNICODE_STRING pustrOut,
                            WCHAR wcDrive) {
    FILE_INTERNAL_INFORMATION InternalInfo;
    InternalInfo.IndexNumber.QuadPart = 0;
    if (!QueryFileInformationWithIrp(pExtension->m_pLowerDevice, FileObject, FileInternalInformation, &InternalInfo,
                                     sizeof(InternalInfo))) {
        return FALSE;
    }
    ULONG ulRecord = InternalInfo.IndexNumber.LowPart & 0x0FFFFFFF;
    if (ulRecord >= METADATA_NAME_COUNT) {
        return FALSE;
    }
    FormatCountedString(pustrOut, L"%C:\\%s", (int)wcDrive, s_apwszMetadataNames[ulRecord]);
    return TRUE;
}

// For an open the file system below has opened, when it may be asked and no
// metadata name was found: the name the file system knows the open by.
BOOLEAN ResolveNameFromFileSystem(PFILE_OBJECT FileObject, PTervaneDeviceExtension pExtension,
                                  PUNICODE_STRING pustrOut, WCHAR wcDrive) {
    PoolBlock buffer(PATH_BUFFER_SIZE, TRVN_TAG_GENERAL);
    if (buffer.Get() == NULL) {
        return FALSE;
    }
    PFILE_NAME_INFORMATION pNameInfo = buffer.As<FILE_NAME_INFORMATION>();
    if (!QueryFileInformationWithIrp(pExtension->m_pLowerDevice, FileObject, FileNameInformation, pNameInfo,
                                     NAME_QUERY_LENGTH)) {
        return FALSE;
    }
    // Never read past what the query could have written.
    ULONG ulNameBytes = pNameInfo->FileNameLength;
    const ULONG ulRoom = NAME_QUERY_LENGTH - FIELD_OFFSET(FILE_NAME_INFORMATION, FileName);
    if (ulNameBytes > ulRoom) {
        ulNameBytes = ulRoom;
    }
    pustrOut->Length = 0;
    if (!IsNetworkFileObject(FileObject)) {
        FormatCountedString(pustrOut, L"%C:", (int)wcDrive);
    }
    AppendStringToCountedN(pustrOut, pNameInfo->FileName, ulNameBytes / sizeof(WCHAR));
    return TRUE;
}

// When the file system gave no name and the request carries one: that name,
// joined to the related open's name when it is relative. FALSE when the name
// is missing or too long.
BOOLEAN ResolveNameFromRequest(PFILE_OBJECT FileObject, PUNICODE_STRING pustrOut, WCHAR wcDrive) {
    PUNICODE_STRING pustrName = &FileObject->FileName;
    if (pustrName->Buffer == NULL) {
        FormatCountedString(pustrOut, L"%C:", (int)wcDrive);
        return FALSE;
    }
    const ULONG ulNameChars = pustrName->Length / sizeof(WCHAR);
    const BOOLEAN bRelative = ulNameChars == 0 || pustrName->Buffer[0] != L'\\';
    PFILE_OBJECT pRelated = FileObject->RelatedFileObject;
    const BOOLEAN bJoin = bRelative && pRelated != NULL && pRelated->FileName.Length != 0 &&
                          pRelated->FileName.Buffer != NULL;

    ULONG ulEstimate = ulNameChars + 2;
    if (bJoin) {
        ulEstimate += pRelated->FileName.Length / sizeof(WCHAR) + 1;
    }

    pustrOut->Length = 0;
    if (!IsNetworkFileObject(FileObject)) {
        FormatCountedString(pustrOut, L"%C:", (int)wcDrive);
    }
    if (ulEstimate >= FULL_PATH_LIMIT_CHARS) {
        AppendStringToCounted(pustrOut, NAME_TOO_LONG);
        return FALSE;
    }
    if (bJoin) {
        AppendCountedString(pustrOut, &pRelated->FileName);
        ULONG ulChars = pustrOut->Length / sizeof(WCHAR);
        if (ulChars == 0 || pustrOut->Buffer[ulChars - 1] != L'\\') {
            AppendStringToCounted(pustrOut, L"\\");
            ulChars = pustrOut->Length / sizeof(WCHAR);
        }
        if (ulEstimate > 3 && ulChars >= 4 && pustrOut->Buffer[2] == L'\\' && pustrOut->Buffer[3] == L'\\') {
            RemoveCharacterAt(pustrOut, 2);
        }
    }
    AppendCountedString(pustrOut, pustrName);
    return TRUE;
}

}  // namespace

BOOLEAN HasShortNameComponent(PCUNICODE_STRING pustrPath) {
    if (pustrPath == NULL || pustrPath->Buffer == NULL) {
        return FALSE;
    }
    const ULONG ulChars = pustrPath->Length / sizeof(WCHAR);
    ULONG i = 0;
    while (i < ulChars && pustrPath->Buffer[i] != L'\\') {
        i++;
    }
    ULONG ulCount = 0;
    BOOLEAN bTilde = FALSE;
    for (i++; i <= ulChars; i++) {
        if (i == ulChars || pustrPath->Buffer[i] == L'\\') {
            if (bTilde && ulCount <= 8) {
                return TRUE;
            }
            ulCount = 0;
            bTilde = FALSE;
            continue;
        }
        ulCount++;
        if (pustrPath->Buffer[i] == L'~') {
            bTilde = TRUE;
        }
    }
    return FALSE;
}

BOOLEAN LookupLongName(PCUNICODE_STRING pustrDirectory, PCUNICODE_STRING pustrComponent, PUNICODE_STRING pustrOut) {
    PoolBlock directory(PATH_BUFFER_SIZE, TRVN_TAG_GENERAL);
    if (directory.Get() == NULL) {
        return FALSE;
    }
    RtlZeroMemory(directory.Get(), PATH_BUFFER_SIZE);
    UNICODE_STRING ustrDirectory;
    ustrDirectory.Buffer = directory.As<WCHAR>();
    ustrDirectory.Length = 0;
    ustrDirectory.MaximumLength = PATH_BUFFER_SIZE;
    if (FormatCountedString(&ustrDirectory, L"%wZ\\", pustrDirectory) != STATUS_SUCCESS) {
        return FALSE;
    }

    ScopedHandle hDirectory;
    IO_STATUS_BLOCK IoStatus;
    NTSTATUS nStatus = FiltOpenFile(0, FALSE, hDirectory.Out(),
                                    SYNCHRONIZE | FILE_READ_ATTRIBUTES | FILE_LIST_DIRECTORY, &ustrDirectory,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
                                    FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    if (!NT_SUCCESS(nStatus)) {
        return FALSE;
    }
    PoolBlock batch(LONG_NAME_QUERY_SIZE, TRVN_TAG_GENERAL);
    if (batch.Get() == NULL) {
        return FALSE;
    }
    nStatus = ZwQueryDirectoryFile(hDirectory.Get(), NULL, NULL, NULL, &IoStatus, batch.Get(), LONG_NAME_QUERY_SIZE,
                                   FileNamesInformation, FALSE, (PUNICODE_STRING)pustrComponent, TRUE);
    hDirectory.Close();
    if (!NT_SUCCESS(nStatus)) {
        return FALSE;
    }
    PFILE_NAMES_INFORMATION pEntry = batch.As<FILE_NAMES_INFORMATION>();
    const ULONG ulRoom = LONG_NAME_QUERY_SIZE - FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName);
    if (pEntry->FileNameLength > ulRoom || pEntry->FileNameLength > pustrOut->MaximumLength) {
        return FALSE;
    }
    RtlCopyMemory(pustrOut->Buffer, pEntry->FileName, pEntry->FileNameLength);
    pustrOut->Length = (USHORT)pEntry->FileNameLength;
    return TRUE;
}

BOOLEAN ExpandShortNames(PCUNICODE_STRING pustrPath, PUNICODE_STRING pustrOut) {
    PathBuffer component;
    PathBuffer result;
    PathBuffer longName;
    if (!component.Have() || !result.Have() || !longName.Have()) {
        return FALSE;
    }
    const ULONG ulChars = pustrPath->Length / sizeof(WCHAR);
    const PWCHAR pwc = pustrPath->Buffer;
    ULONG i = 0;
    while (i < ulChars && pwc[i] != L'\\') {
        i++;
    }
    if (AppendStringToCountedN(result.Get(), pwc, i) != STATUS_SUCCESS) {
        return FALSE;
    }
    while (i < ulChars) {
        ULONG ulStart = i + 1;
        ULONG ulEnd = ulStart;
        while (ulEnd < ulChars && pwc[ulEnd] != L'\\') {
            ulEnd++;
        }
        i = ulEnd;
        if (ulEnd == ulStart) {
            // An empty component: the trailing one adds nothing; one inside
            // the path keeps its backslash and is not looked up.
            if (ulEnd < ulChars && AppendStringToCounted(result.Get(), L"\\") != STATUS_SUCCESS) {
                return FALSE;
            }
            continue;
        }
        if ((ulEnd - ulStart) * sizeof(WCHAR) > PATH_BUFFER_SIZE) {
            return FALSE;
        }
        UNICODE_STRING ustrComponent;
        ustrComponent.Buffer = pwc + ulStart;
        ustrComponent.Length = (USHORT)((ulEnd - ulStart) * sizeof(WCHAR));
        ustrComponent.MaximumLength = ustrComponent.Length;
        CopyCountedString(component.Get(), &ustrComponent);

        longName.Get()->Length = 0;
        BOOLEAN bFound = LookupLongName(result.Get(), component.Get(), longName.Get());
        if (AppendStringToCounted(result.Get(), L"\\") != STATUS_SUCCESS ||
            AppendCountedString(result.Get(), bFound ? longName.Get() : component.Get()) != STATUS_SUCCESS) {
            return FALSE;
        }
    }
    return CopyCountedString(pustrOut, result.Get()) == STATUS_SUCCESS;
}

VOID GetFullPathName(BOOLEAN bNoQuery, PFILE_OBJECT FileObject, PTervaneDeviceExtension pExtension,
                     PUNICODE_STRING pustrOut, BOOLEAN bExpandShortNames) {
    if (pustrOut == NULL) {
        return;
    }
    pustrOut->Length = 0;
    if (!IsFilterIndexLoaded() || pExtension == NULL || !pExtension->m_bHooked) {
        return;
    }
    if (FileObject != NULL && GetFileHandleEntryPath(FileObject, pustrOut)) {
        return;
    }
    const WCHAR wcDrive = (WCHAR)pExtension->m_ulDriveLetter;
    if (FileObject == NULL) {
        FormatCountedString(pustrOut, L"%C:", (int)wcDrive);
        return;
    }

    // The file system is asked only about FILE_OBJECTs it has opened: the
    // FILE_OBJECT of a create on its way down carries no context yet, and a
    // query about it would be about nothing.
    const BOOLEAN bMayQuery = !bNoQuery && FileObject->FsContext != NULL;
    BOOLEAN bResolved = FALSE;
    if (FileObject->FileName.Buffer == NULL && IsNtfsVolume(pExtension)) {
        if (bNoQuery) {
            FormatCountedString(pustrOut, L"%C:", (int)wcDrive);
            return;
        }
        bResolved = bMayQuery && ResolveMetadataName(FileObject, pExtension, pustrOut, wcDrive);
    }
    if (!bResolved && bMayQuery) {
        bResolved = ResolveNameFromFileSystem(FileObject, pExtension, pustrOut, wcDrive);
    }
    if (!bResolved) {
        if (FileObject->FileName.Buffer == NULL) {
            pustrOut->Length = 0;
            FormatCountedString(pustrOut, L"%C:", (int)wcDrive);
            return;
        }
        bResolved = ResolveNameFromRequest(FileObject, pustrOut, wcDrive);
    }

    if (bExpandShortNames && bResolved && HasShortNameComponent(pustrOut)) {
        PoolBlock temporary(pustrOut->MaximumLength, TRVN_TAG_GENERAL);
        if (temporary.Get() != NULL) {
            UNICODE_STRING ustrExpanded;
            ustrExpanded.Buffer = temporary.As<WCHAR>();
            ustrExpanded.Length = 0;
            ustrExpanded.MaximumLength = pustrOut->MaximumLength;
            if (ExpandShortNames(pustrOut, &ustrExpanded)) {
                CopyCountedString(pustrOut, &ustrExpanded);
            }
        }
    }
}
