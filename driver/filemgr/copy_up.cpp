// Copy-up: before the first change to an object that a monitored process
// opened in a lower filter directory, the object is copied into filter
// directory 0 and the open moves over to the copy. A directory is copied
// breadth-first, from the last filter directory towards filter directory 0,
// so that the copy nearest to filter directory 0 is written last and wins.
#include "control/filter_directory.h"
#include "control/strings.h"
#include "core/log.h"
#include "core/tervane.h"
#include "dispatch/file_handle_table.h"
#include "filemgr/file_manager.h"
#include "filemgr/filemgr_scoped.h"
#include "index/file_index.h"

using filemgr::FileObjectReference;
using filemgr::MappedRealPath;
using filemgr::PathBuffer;
using filemgr::ScopedHandle;
using filemgr::ScopedPool;

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

// Copies one entry of a listed directory: queues a subdirectory, copies a
// file. Failures are warnings; the walk goes on.
VOID CopyDirectoryEntry(PCUNICODE_STRING pustrPath, ULONG ulDestinationFlag, PDEVICE_OBJECT FilterDevice,
                        PPathQueue pQueue, DirectoryCopyBuffers& b, PFILE_DIRECTORY_INFORMATION pInfo) {
    PUNICODE_STRING pustrName = b.EntryName.Get();
    pustrName->Length = 0;
    AppendStringToCountedN(pustrName, pInfo->FileName, pInfo->FileNameLength / sizeof(WCHAR));
    if (pustrName->Length != pInfo->FileNameLength || IsDotEntry(pustrName)) {
        return;
    }
    JoinPath(pustrPath, b.RelativePath.Get(), b.Work.Get(), FALSE);
    JoinPath(b.Work.Get(), pustrName, b.EntryDrivePath.Get(), FALSE);
    if (IsPathHidden(b.EntryDrivePath.Get())) {
        return;
    }

    if (pInfo->FileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
        PUNICODE_STRING pustrRelative = b.RelativePath.Get();
        const USHORT usLength = pustrRelative->Length;
        if (usLength != 0) {
            AppendStringToCounted(pustrRelative, L"\\");
        }
        AppendCountedString(pustrRelative, pustrName);
        // With a trailing backslash the subdirectory's ancestors are made,
        // not the subdirectory itself.
        JoinPath(b.EntryDrivePath.Get(), NULL, b.Destination.Get(), FALSE);
        if (!CreateParentsInFilter(b.Destination.Get(), ulDestinationFlag)) {
            TRVN_LOG("FiltCopyFile", __LINE__, "[warn] cannot create directory recursive for [%wZ]",
                     b.Destination.Get());
        }
        if (!PushPathQueue(pQueue, pustrRelative)) {
            TRVN_LOG("FiltCopyFile", __LINE__, "[warn] cannot push back to queue [%wZ]\r\n", pustrRelative);
        }
        pustrRelative->Length = usLength;
        return;
    }

    JoinPath(b.SourceDirectory.Get(), b.RelativePath.Get(), b.Work.Get(), FALSE);
    JoinPath(b.Work.Get(), pustrName, b.Work.Get(), FALSE);
    b.Destination.Get()->Length = 0;
    if (!GetRealFilePathForFilter(b.EntryDrivePath.Get(), b.Destination.Get(), ulDestinationFlag, FALSE)) {
        TRVN_LOG("FiltCopyFile", __LINE__, "[warn] cannot get dest real file path for [%wZ]\r\n",
                 b.EntryDrivePath.Get());
        return;
    }
    if (!CreateParentsInFilter(b.EntryDrivePath.Get(), ulDestinationFlag)) {
        TRVN_LOG("FiltCopyFile", __LINE__, "[warn] cannot create directory recursive for [%wZ]",
                 b.EntryDrivePath.Get());
    }
    if (!CopyFile(b.Work.Get(), b.Destination.Get(), FilterDevice)) {
        TRVN_LOG("FiltCopyFile", __LINE__, "[warn] cannot copy file [%wZ] to [%wZ]\r\n", b.Work.Get(),
                 b.Destination.Get());
    }
}

// Lists the directory at the relative path and copies what it holds.
VOID CopyListedDirectory(PCUNICODE_STRING pustrPath, ULONG ulDestinationFlag, PDEVICE_OBJECT FilterDevice,
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
        return;
    }
    for (;;) {
        nStatus = ZwQueryDirectoryFile(hDirectory.Get(), NULL, NULL, NULL, &IoStatus, pListing, COPY_LISTING_SIZE,
                                       FileDirectoryInformation, FALSE, NULL, FALSE);
        if (!NT_SUCCESS(nStatus)) {
            break;
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
            CopyDirectoryEntry(pustrPath, ulDestinationFlag, FilterDevice, pQueue, b, pInfo);
            if (pInfo->NextEntryOffset == 0) {
                break;
            }
            ulOffset += pInfo->NextEntryOffset;
        }
    }
}

BOOLEAN CopyDirectoryTree(PCUNICODE_STRING pustrPath, ULONG ulSourceMask, ULONG ulDestinationFlag,
                          PDEVICE_OBJECT FilterDevice) {
    ScopedPool listing(COPY_LISTING_SIZE, TRVN_TAG_GENERAL);
    DirectoryCopyBuffers b;
    if (listing.Get() == NULL || !b.Have()) {
        TRVN_LOG("FiltCopyFile", __LINE__, "cannot allocate buffer\r\n");
        return FALSE;
    }
    // From the last filter directory's flag down to filter directory 0's.
    const ULONG ulAll = GetFilterMask();
    ULONGLONG ullAbove = 1;
    while (ullAbove < ulAll) {
        ullAbove <<= 1;
    }
    for (ULONG ulFlag = (ULONG)(ullAbove >> 1); ulFlag != 0; ulFlag >>= 1) {
        if ((ulSourceMask & ulFlag) == 0) {
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
            continue;
        }
        while (PopPathQueue(pQueue, b.RelativePath.Get(), FALSE)) {
            CopyListedDirectory(pustrPath, ulDestinationFlag, FilterDevice, pQueue, b, listing.Get());
        }
        DestroyPathQueue(pQueue);
    }
    return TRUE;
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

NTSTATUS CopyUpOpenFile(PFileHandleEntry pEntry, ULONG ulDestinationFlag, PHANDLE phOldHandle, BOOLEAN bCopyContents,
                        PDEVICE_OBJECT FilterDevice) {
    if (pEntry == NULL || phOldHandle == NULL || ulDestinationFlag == pEntry->m_ulFilterEntryFlag) {
        return STATUS_UNSUCCESSFUL;
    }
    if (bCopyContents) {
        BOOLEAN bIsDirectory = IsDirectoryFile(pEntry->m_hRealFileHandle);
        if (!FiltCopyFile(&pEntry->m_ustrFullPath, pEntry->m_ulFilterEntryFlag, ulDestinationFlag, bIsDirectory,
                          FilterDevice)) {
            return STATUS_UNSUCCESSFUL;
        }
    }
    HANDLE hNew = NULL;
    IO_STATUS_BLOCK IoStatus;
    NTSTATUS nStatus = FiltCreateFile(ulDestinationFlag, FALSE, &hNew, pEntry->m_ulDesiredAccess,
                                      &pEntry->m_ustrFullPath, FALSE, FALSE, &IoStatus, NULL, 0,
                                      pEntry->m_ulShareAccess, FILE_OPEN, pEntry->m_ulCreateOptions, NULL, 0);
    TRVN_ASSERT(NT_SUCCESS( nStatus ), FILE_MANAGER_SOURCE, __LINE__);
    if (!NT_SUCCESS(nStatus)) {
        return nStatus;
    }

    PFILE_OBJECT pRealFileObject = NULL;
    NTSTATUS nStatusObject =
        ObReferenceObjectByHandle(hNew, 0, *IoFileObjectType, KernelMode, (PVOID*)&pRealFileObject, NULL);
    TRVN_ASSERT(NT_SUCCESS( nStatusObject ), FILE_MANAGER_SOURCE, __LINE__);
    if (NT_SUCCESS(nStatusObject)) {
        PFILE_OBJECT pCallerFileObject = pEntry->m_pFileObject;
        if (pCallerFileObject != NULL) {
            pCallerFileObject->FsContext = pRealFileObject->FsContext;
            pCallerFileObject->FsContext2 = pRealFileObject->FsContext2;
            pCallerFileObject->SectionObjectPointer = pRealFileObject->SectionObjectPointer;
            pCallerFileObject->Flags = pRealFileObject->Flags & ~(FO_CACHE_SUPPORTED | FO_FILE_FAST_IO_READ);
            if (pRealFileObject->FsContext != NULL) {
                ((PFSRTL_COMMON_FCB_HEADER)pRealFileObject->FsContext)->IsFastIoPossible = FastIoIsPossible;
            }
        }
        ObDereferenceObject(pRealFileObject);
    }
    *phOldHandle = pEntry->m_hRealFileHandle;
    pEntry->m_ulFilterEntryFlag = ulDestinationFlag;
    pEntry->m_hRealFileHandle = hNew;
    return STATUS_SUCCESS;
}
