// Copy-up: before the first change to an object that a monitored process
// opened in a lower filter directory, the object is copied into filter
// directory 0 and the open moves over to the copy. The copy is made once per
// file: a later copy-up of the same file, from any open, takes the copy that
// is there. A directory is copied breadth-first from every lower filter
// directory, the nearest to filter directory 0 first, adding only what
// filter directory 0 lacks, so that nothing already there is overwritten and
// the nearest copy of each name wins.
#include "control/filter_directory.h"
#include "base/scoped.h"
#include "base/strings.h"
#include "base/log.h"
#include "base/global_state.h"
#include "filemgr/file_handle_table.h"
#include "filemgr/file_manager.h"
#include "filemgr/mapped_real_path.h"
#include "index/file_index.h"


// A directory is listed in batches of this size during a copy.
#define COPY_LISTING_SIZE 720

BOOLEAN CreateParentsInFilter(PCUNICODE_STRING pustrPath, ULONG ulFilterMask) {
    if (ulFilterMask == 0) {
        return FALSE;
    }
    const ULONG ulLowest = ulFilterMask & (~ulFilterMask + 1);
    MappedRealPath Real;
    if (!Real.Map(pustrPath, ulLowest)) {
        return FALSE;
    }
    return CreateDirectoryRecursive(Real.Get());
}

NTSTATUS CopyUpDirectory(PCUNICODE_STRING pustrDirectory) {
    if (pustrDirectory->Length <= 3 * sizeof(WCHAR)) {
        return STATUS_SUCCESS;  // a drive root is in every filter directory
    }
    NTSTATUS nCheckStatus;
    const ULONG ulExists = FiltCheckFileExists(pustrDirectory, FILTER_MASK_ALL, NULL, &nCheckStatus);
    if (!NT_SUCCESS(nCheckStatus)) {
        return nCheckStatus;
    }
    if (ulExists & 1) {
        return STATUS_SUCCESS;
    }
    if (ulExists == 0) {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    // What the view shows there must be a directory, or none is made for it.
    ScopedHandle hLower;
    NTSTATUS nStatus = FiltOpenFile(ulExists & (~ulExists + 1), FALSE, hLower.Out(), FILE_LIST_DIRECTORY | SYNCHRONIZE,
                                    pustrDirectory, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
                                    FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    if (!NT_SUCCESS(nStatus)) {
        return nStatus;
    }
    hLower.Close();
    ScopedHandle hPack;
    return FiltOpenFile(1, TRUE, hPack.Out(), SYNCHRONIZE, pustrDirectory,
                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN_IF,
                        FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
}

namespace {

// The six path buffers of a directory copy.
struct DirectoryCopyBuffers {
    PathBuffer SourceDirectory;  // the directory's real path in the source filter directory
    PathBuffer EntryDrivePath;   // drive path of the entry being copied
    PathBuffer Destination;      // real path of the entry in the destination filter directory
    PathBuffer RelativePath;     // of the directory being listed, below the copied directory
    PathBuffer EntryName;
    PathBuffer Work;

    BOOLEAN Have() {
        return SourceDirectory.Have() && EntryDrivePath.Have() && Destination.Have() && RelativePath.Have() &&
               EntryName.Have() && Work.Have();
    }
};

BOOLEAN IsDotEntry(PCUNICODE_STRING pustrName) {
    return IsDotOrDotDot(pustrName);
}

// Whether a real path names an object: STATUS_SUCCESS (it does, also when
// another open keeps it to itself), STATUS_OBJECT_NAME_NOT_FOUND (it does
// not), or the status of a probe that could not tell.
NTSTATUS ProbeRealPath(PCUNICODE_STRING pustrRealPath) {
    NTSTATUS nStatus = CheckFileExists(pustrRealPath);
    if (NT_SUCCESS(nStatus) || nStatus == STATUS_SHARING_VIOLATION) {
        return STATUS_SUCCESS;
    }
    if (nStatus == STATUS_OBJECT_NAME_NOT_FOUND || nStatus == STATUS_OBJECT_PATH_NOT_FOUND) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    return nStatus;
}

// Copies one file of a directory copy unless the destination has it already
// (the destination's own copy, or one a nearer filter directory gave). The
// file's path is claimed for the copy, as for the copy-up of an open.
BOOLEAN CopyDirectoryFile(DirectoryCopyBuffers& b, PDEVICE_OBJECT FilterDevice) {
    PCopyUpClaim pClaim = NULL;
    NTSTATUS nStatus = ClaimCopyUpPath(b.EntryDrivePath.Get(), &pClaim);
    if (NT_SUCCESS(nStatus)) {
        nStatus = ProbeRealPath(b.Destination.Get());
        if (nStatus == STATUS_OBJECT_NAME_NOT_FOUND) {
            nStatus = CopyFile(b.Work.Get(), b.Destination.Get(), FilterDevice) ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
        }
        ReleaseCopyUpPath(pClaim);
    }
    if (!NT_SUCCESS(nStatus)) {
        TRVN_LOG("FiltCopyFile", __LINE__, "[warn] cannot copy file [%wZ] to [%wZ]\r\n", b.Work.Get(),
                 b.Destination.Get());
        return FALSE;
    }
    return TRUE;
}

// Copies one entry of a listed directory: makes and queues a subdirectory,
// copies a file. A failure is a warning and the walk goes on, but the entry
// is missing from the copy: FALSE.
BOOLEAN CopyDirectoryEntry(PCUNICODE_STRING pustrPath, ULONG ulDestinationFlag, PDEVICE_OBJECT FilterDevice,
                           PPathQueue pQueue, DirectoryCopyBuffers& b, PFILE_DIRECTORY_INFORMATION pInfo) {
    PUNICODE_STRING pustrName = b.EntryName.Get();
    pustrName->Length = 0;
    AppendStringToCountedN(pustrName, pInfo->FileName, pInfo->FileNameLength / sizeof(WCHAR));
    if (pustrName->Length != pInfo->FileNameLength) {
        return FALSE;
    }
    if (IsDotEntry(pustrName)) {
        return TRUE;
    }
    JoinPath(pustrPath, b.RelativePath.Get(), b.Work.Get(), FALSE);
    JoinPath(b.Work.Get(), pustrName, b.EntryDrivePath.Get(), FALSE);
    if (IsPathHidden(b.EntryDrivePath.Get())) {
        return TRUE;
    }

    if (pInfo->FileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
        // The subdirectory itself is made, so that an empty one moves with
        // its parent too.
        ScopedHandle hMade;
        NTSTATUS nStatus = FiltOpenFile(ulDestinationFlag, TRUE, hMade.Out(), SYNCHRONIZE, b.EntryDrivePath.Get(),
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN_IF,
                                        FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
        if (!NT_SUCCESS(nStatus)) {
            TRVN_LOG("FiltCopyFile", __LINE__, "[warn] cannot create directory recursive for [%wZ]",
                     b.EntryDrivePath.Get());
            return FALSE;
        }
        PUNICODE_STRING pustrRelative = b.RelativePath.Get();
        const USHORT usLength = pustrRelative->Length;
        if (usLength != 0) {
            AppendStringToCounted(pustrRelative, L"\\");
        }
        AppendCountedString(pustrRelative, pustrName);
        BOOLEAN bPushed = PushPathQueue(pQueue, pustrRelative);
        if (!bPushed) {
            TRVN_LOG("FiltCopyFile", __LINE__, "[warn] cannot push back to queue [%wZ]\r\n", pustrRelative);
        }
        pustrRelative->Length = usLength;
        return bPushed;
    }

    JoinPath(b.SourceDirectory.Get(), b.RelativePath.Get(), b.Work.Get(), FALSE);
    JoinPath(b.Work.Get(), pustrName, b.Work.Get(), FALSE);
    b.Destination.Get()->Length = 0;
    if (!GetRealFilePathForFilter(b.EntryDrivePath.Get(), b.Destination.Get(), ulDestinationFlag, FALSE)) {
        TRVN_LOG("FiltCopyFile", __LINE__, "[warn] cannot get dest real file path for [%wZ]\r\n",
                 b.EntryDrivePath.Get());
        return FALSE;
    }
    if (!CreateParentsInFilter(b.EntryDrivePath.Get(), ulDestinationFlag)) {
        TRVN_LOG("FiltCopyFile", __LINE__, "[warn] cannot create directory recursive for [%wZ]",
                 b.EntryDrivePath.Get());
        return FALSE;
    }
    return CopyDirectoryFile(b, FilterDevice);
}

// Lists the directory at the relative path and copies what it holds. FALSE
// when something of it could not be copied.
BOOLEAN CopyListedDirectory(PCUNICODE_STRING pustrPath, ULONG ulDestinationFlag, PDEVICE_OBJECT FilterDevice,
                            PPathQueue pQueue, DirectoryCopyBuffers& b, PVOID pListing) {
    JoinPath(b.SourceDirectory.Get(), b.RelativePath.Get(), b.Work.Get(), FALSE);
    ScopedHandle hDirectory;
    IO_STATUS_BLOCK IoStatus;
    NTSTATUS nStatus = FiltCreateFile(0, FALSE, hDirectory.Out(), GENERIC_READ | SYNCHRONIZE, b.Work.Get(), FALSE,
                                      FALSE, &IoStatus, NULL, FILE_ATTRIBUTE_DIRECTORY,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
                                      FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, NULL, 0);
    if (!NT_SUCCESS(nStatus)) {
        TRVN_LOG("FiltCopyFile", __LINE__, "[warn] cannot open file [%wZ] /w Err[%d]\r\n", b.Work.Get(), nStatus);
        return FALSE;
    }
    BOOLEAN bComplete = TRUE;
    for (;;) {
        nStatus = ZwQueryDirectoryFile(hDirectory.Get(), NULL, NULL, NULL, &IoStatus, pListing, COPY_LISTING_SIZE,
                                       FileDirectoryInformation, FALSE, NULL, FALSE);
        if (!NT_SUCCESS(nStatus)) {
            // Anything but the end of the listing leaves entries uncopied.
            return bComplete && nStatus == STATUS_NO_MORE_FILES;
        }
        // Each record is checked to lie wholly inside what the query wrote.
        const ULONG ulWritten = (ULONG)IoStatus.Information;
        ULONG ulOffset = 0;
        for (;;) {
            PFILE_DIRECTORY_INFORMATION pInfo = (PFILE_DIRECTORY_INFORMATION)((PUCHAR)pListing + ulOffset);
            const ULONG ulNameAt = ulOffset + FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileName);
            if (ulNameAt > ulWritten || pInfo->FileNameLength > ulWritten - ulNameAt) {
                break;
            }
            if (!CopyDirectoryEntry(pustrPath, ulDestinationFlag, FilterDevice, pQueue, b, pInfo)) {
                bComplete = FALSE;
            }
            if (pInfo->NextEntryOffset == 0) {
                break;
            }
            ulOffset += pInfo->NextEntryOffset;
        }
    }
}

BOOLEAN CopyDirectoryTree(PCUNICODE_STRING pustrPath, ULONG ulSourceMask, ULONG ulDestinationFlag,
                          PDEVICE_OBJECT FilterDevice) {
    PoolBlock listing(COPY_LISTING_SIZE, TRVN_TAG_GENERAL);
    DirectoryCopyBuffers b;
    if (listing.Get() == NULL || !b.Have()) {
        TRVN_LOG("FiltCopyFile", __LINE__, "cannot allocate buffer\r\n");
        return FALSE;
    }
    // From the filter directory nearest to filter directory 0 upwards: what
    // a nearer one gave is not replaced by a farther one's copy.
    BOOLEAN bComplete = TRUE;
    const ULONG ulSources = ulSourceMask & ~ulDestinationFlag;
    for (ULONG ulFlag = 1; ulFlag != 0 && ulFlag <= ulSources; ulFlag <<= 1) {
        if ((ulSources & ulFlag) == 0) {
            continue;
        }
        b.SourceDirectory.Get()->Length = 0;
        if (!GetRealFilePathForFilter(pustrPath, b.SourceDirectory.Get(), ulFlag, FALSE)) {
            continue;
        }
        PPathQueue pQueue = CreatePathQueue(b.SourceDirectory.Get(), pustrPath);
        if (pQueue == NULL) {
            TRVN_LOG("FiltCopyFile", __LINE__, "cannot create queue\r\n");
            return FALSE;
        }
        b.RelativePath.Get()->Length = 0;
        if (!PushPathQueue(pQueue, b.RelativePath.Get())) {
            TRVN_LOG("FiltCopyFile", __LINE__, "cannot push back to queue [%wZ]\r\n", b.RelativePath.Get());
            DestroyPathQueue(pQueue);
            bComplete = FALSE;
            continue;
        }
        while (PopPathQueue(pQueue, b.RelativePath.Get(), FALSE)) {
            if (!CopyListedDirectory(pustrPath, ulDestinationFlag, FilterDevice, pQueue, b, listing.Get())) {
                bComplete = FALSE;
            }
        }
        DestroyPathQueue(pQueue);
    }
    return bComplete;
}

}  // namespace

BOOLEAN FiltCopyFile(PCUNICODE_STRING pustrPath, ULONG ulSourceMask, ULONG ulDestinationFlag, BOOLEAN bIsDirectory,
                     PDEVICE_OBJECT FilterDevice) {
    const ULONG ulExists = FiltCheckFileExists(pustrPath, ulSourceMask, NULL) & ulSourceMask;
    if (ulExists == 0) {
        TRVN_LOG("FiltCopyFile", __LINE__, "source not exists [%wZ] /w FF[%d]\r\n", pustrPath, ulExists);
        return FALSE;
    }
    if (!CreateParentsInFilter(pustrPath, ulDestinationFlag)) {
        TRVN_LOG("FiltCopyFile", __LINE__, "cannot create directory recursive [%wZ]\r\n", pustrPath);
        return FALSE;
    }
    if (bIsDirectory) {
        return CopyDirectoryTree(pustrPath, ulExists, ulDestinationFlag, FilterDevice);
    }
    MappedRealPath Source;
    if (!Source.Map(pustrPath, ulExists)) {
        TRVN_LOG("FiltCopyFile", __LINE__, "cannot get src real file path for [%wZ]\r\n", pustrPath);
        return FALSE;
    }
    MappedRealPath Destination;
    if (!Destination.Map(pustrPath, ulDestinationFlag)) {
        TRVN_LOG("FiltCopyFile", __LINE__, "cannot get dest real file path for [%wZ]\r\n", pustrPath);
        return FALSE;
    }
    return CopyFile(Source.Get(), Destination.Get(), FilterDevice);
}

NTSTATUS ProbePackLocation(PCUNICODE_STRING pustrPath) {
    MappedRealPath Pack;
    if (!Pack.Map(pustrPath, 1)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return ProbeRealPath(Pack.Get());
}

namespace {

// Makes the directory in filter directory 0 and adds to it what the lower
// filter directories' copies hold and it lacks. The caller holds the claim.
NTSTATUS MergeDirectoryIntoPack(PCUNICODE_STRING pustrPath, PDEVICE_OBJECT FilterDevice) {
    NTSTATUS nStatus = CopyUpDirectory(pustrPath);
    if (!NT_SUCCESS(nStatus)) {
        return nStatus;
    }
    return FiltCopyFile(pustrPath, GetFilterMask(), 1, TRUE, FilterDevice) ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

// The copy of an open's object into the destination, made while its path is
// claimed. A file that the destination holds already (another open copied it
// up, or made it anew) is taken as it is.
NTSTATUS CopyOpenObject(PFileHandleEntry pEntry, ULONG ulDestinationFlag, PDEVICE_OBJECT FilterDevice) {
    // A file taken for a directory (or the reverse) would be copied as the
    // wrong kind of object: without the answer nothing is copied.
    FILE_STANDARD_INFORMATION Standard;
    IO_STATUS_BLOCK IoStatus;
    NTSTATUS nStatus = ZwQueryInformationFile(pEntry->m_hRealFileHandle, &IoStatus, &Standard, sizeof(Standard),
                                              FileStandardInformation);
    if (!NT_SUCCESS(nStatus)) {
        return nStatus;
    }
    if (Standard.Directory) {
        if (ulDestinationFlag == 1) {
            return MergeDirectoryIntoPack(&pEntry->m_ustrFullPath, FilterDevice);
        }
        return FiltCopyFile(&pEntry->m_ustrFullPath, GetFilterMask(), ulDestinationFlag, TRUE, FilterDevice)
            ? STATUS_SUCCESS
            : STATUS_UNSUCCESSFUL;
    }
    MappedRealPath Destination;
    if (!Destination.Map(&pEntry->m_ustrFullPath, ulDestinationFlag)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    nStatus = ProbeRealPath(Destination.Get());
    if (nStatus != STATUS_OBJECT_NAME_NOT_FOUND) {
        return nStatus;
    }
    return FiltCopyFile(&pEntry->m_ustrFullPath, pEntry->m_ulFilterEntryFlag, ulDestinationFlag, FALSE, FilterDevice)
        ? STATUS_SUCCESS
        : STATUS_UNSUCCESSFUL;
}

}  // namespace

NTSTATUS CopyUpOpenFile(PFileHandleEntry pEntry, ULONG ulDestinationFlag, PHANDLE phOldHandle, BOOLEAN bCopyContents,
                        PDEVICE_OBJECT FilterDevice) {
    if (pEntry == NULL || phOldHandle == NULL || ulDestinationFlag == pEntry->m_ulFilterEntryFlag) {
        return STATUS_UNSUCCESSFUL;
    }
    // Two opens of one file copy it one after the other: the second finds
    // the first one's copy and moves over to it.
    PCopyUpClaim pClaim = NULL;
    if (bCopyContents) {
        NTSTATUS nStatus = ClaimCopyUpPath(&pEntry->m_ustrFullPath, &pClaim);
        if (!NT_SUCCESS(nStatus)) {
            return nStatus;
        }
        nStatus = CopyOpenObject(pEntry, ulDestinationFlag, FilterDevice);
        if (!NT_SUCCESS(nStatus)) {
            ReleaseCopyUpPath(pClaim);
            return nStatus;
        }
    }
    HANDLE hNew = NULL;
    NTSTATUS nStatus = FiltOpenFile(ulDestinationFlag, FALSE, &hNew, pEntry->m_ulDesiredAccess, &pEntry->m_ustrFullPath,
                                    pEntry->m_ulShareAccess, FILE_OPEN, pEntry->m_ulCreateOptions);
    TRVN_ASSERT(NT_SUCCESS( nStatus ), FILE_MANAGER_SOURCE, __LINE__);
    ReleaseCopyUpPath(pClaim);
    if (!NT_SUCCESS(nStatus)) {
        return nStatus;
    }
    if (bCopyContents) {
        NoteCopyInPackLocation();
    }

    // An open to be deleted at close stays so on its copy.
    if (pEntry->m_bDeleteOnClose && ulDestinationFlag == 1) {
        FILE_DISPOSITION_INFORMATION disposition;
        disposition.DeleteFile = TRUE;
        IO_STATUS_BLOCK IoStatus;
        nStatus = ZwSetInformationFile(hNew, &IoStatus, &disposition, sizeof(disposition), FileDispositionInformation);
        if (!NT_SUCCESS(nStatus)) {
            ZwClose(hNew);
            return nStatus;
        }
    }

    PFILE_OBJECT pRealFileObject = NULL;
    NTSTATUS nStatusObject =
        ObReferenceObjectByHandle(hNew, 0, *IoFileObjectType, KernelMode, (PVOID*)&pRealFileObject, NULL);
    TRVN_ASSERT(NT_SUCCESS( nStatusObject ), FILE_MANAGER_SOURCE, __LINE__);
    if (!NT_SUCCESS(nStatusObject)) {
        ZwClose(hNew);  // the caller's open could not follow it
        return nStatusObject;
    }
    {
        PFILE_OBJECT pCallerFileObject = pEntry->m_pFileObject;
        if (pCallerFileObject != NULL) {
            pCallerFileObject->FsContext = pRealFileObject->FsContext;
            pCallerFileObject->FsContext2 = pRealFileObject->FsContext2;
            pCallerFileObject->SectionObjectPointer = pRealFileObject->SectionObjectPointer;
            pCallerFileObject->Flags = pRealFileObject->Flags & ~(FO_CACHE_SUPPORTED | FO_FILE_FAST_IO_READ);
            SetFastIoPossible(pRealFileObject->FsContext);
        }
        ObDereferenceObject(pRealFileObject);
    }
    *phOldHandle = pEntry->m_hRealFileHandle;
    pEntry->m_ulFilterEntryFlag = ulDestinationFlag;
    pEntry->m_hRealFileHandle = hNew;
    return STATUS_SUCCESS;
}

NTSTATUS CopyUpDirectoryContents(PCUNICODE_STRING pustrPath, PDEVICE_OBJECT FilterDevice) {
    NTSTATUS nCheckStatus;
    const ULONG ulLower = FiltCheckFileExists(pustrPath, GetFilterMask() & ~1UL, NULL, &nCheckStatus) & ~1UL;
    if (!NT_SUCCESS(nCheckStatus)) {
        return nCheckStatus;  // what lies below cannot be known, so it cannot be carried along
    }
    if (ulLower == 0) {
        return STATUS_SUCCESS;  // no lower filter directory holds it
    }
    PCopyUpClaim pClaim = NULL;
    NTSTATUS nStatus = ClaimCopyUpPath(pustrPath, &pClaim);
    if (!NT_SUCCESS(nStatus)) {
        return nStatus;
    }
    nStatus = MergeDirectoryIntoPack(pustrPath, FilterDevice);
    ReleaseCopyUpPath(pClaim);
    return nStatus;
}
