// The copy of one real file: data in large non-cached requests sent below
// the filter, end of file, security, then attributes and times; and the
// attribute-only copy that prepares an overwrite in filter directory 0.
#include "control/filter_directory.h"
#include "base/scoped.h"
#include "base/strings.h"
#include "base/log.h"
#include "base/global_state.h"
#include "filemgr/file_manager.h"
#include "filemgr/mapped_real_path.h"


// Size of one data request of a copy; the buffer is taken once per file.
#define COPY_CHUNK_SIZE 0x4000
// FileBasicInformation is read into buffers of these sizes.
#define COPY_BASIC_INFO_SIZE 40
#define ATTRIBUTE_BASIC_INFO_SIZE 295
// One security descriptor; a larger one is not copied.
#define SECURITY_BUFFER_SIZE 276

#define COPY_READ_FLAGS (IRP_NOCACHE | IRP_READ_OPERATION | IRP_DEFER_IO_COMPLETION)
#define COPY_WRITE_FLAGS (IRP_NOCACHE | IRP_WRITE_OPERATION | IRP_DEFER_IO_COMPLETION)

#define SHARE_ALL (FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE)

LONGLONG GetFileSize(HANDLE hFile, PLARGE_INTEGER pAllocationSize) {
    PoolBlock buffer(sizeof(FILE_STANDARD_INFORMATION), TRVN_TAG_GENERAL);
    if (buffer.Get() == NULL) {
        TRVN_LOG("GetFileSize", __LINE__, "cannot allocate buffer\r\n");
        return 0;
    }
    PFILE_STANDARD_INFORMATION pInfo = buffer.As<FILE_STANDARD_INFORMATION>();
    IO_STATUS_BLOCK IoStatus;
    NTSTATUS nStatus =
        ZwQueryInformationFile(hFile, &IoStatus, pInfo, sizeof(FILE_STANDARD_INFORMATION), FileStandardInformation);
    if (!NT_SUCCESS(nStatus)) {
        TRVN_LOG("GetFileSize", __LINE__, "query information fail\r\n");
        return 0;
    }
    if (pAllocationSize != NULL) {
        *pAllocationSize = pInfo->AllocationSize;
    }
    return pInfo->EndOfFile.QuadPart;
}

NTSTATUS CopySecurityInformationWithHandle(HANDLE hSource, HANDLE hDestination) {
    PoolBlock buffer(SECURITY_BUFFER_SIZE, TRVN_TAG_GENERAL);
    if (buffer.Get() == NULL) {
        TRVN_LOG("CopySecurityInformationWithHandle", __LINE__, "cannot alloc buffer\r\n");
        // Nothing was copied for want of memory, and the caller is told so.
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ULONG ulNeeded = 0;
    NTSTATUS nStatus = ZwQuerySecurityObject(hSource, DACL_SECURITY_INFORMATION, buffer.Get(),
                                             SECURITY_BUFFER_SIZE, &ulNeeded);
    if (!NT_SUCCESS(nStatus)) {
        TRVN_LOG("CopySecurityInformationWithHandle", __LINE__, "cannot query DACL security src file /w Err[%d]\r\n",
                 nStatus);
        return nStatus;
    }
    ZwSetSecurityObject(hDestination, DACL_SECURITY_INFORMATION, buffer.Get());
    nStatus = ZwQuerySecurityObject(hSource, SACL_SECURITY_INFORMATION, buffer.Get(), SECURITY_BUFFER_SIZE,
                                    &ulNeeded);
    if (!NT_SUCCESS(nStatus)) {
        TRVN_LOG("CopySecurityInformationWithHandle", __LINE__, "cannot query SACL security src file /w Err[%d]\r\n",
                 nStatus);
        return nStatus;
    }
    return ZwSetSecurityObject(hDestination, SACL_SECURITY_INFORMATION, buffer.Get());
}

// The data loop: the whole file in chunks, each read and written at the same
// offset. TRUE when the source's end was reached with every write done.
static BOOLEAN CopyFileData(PFILE_OBJECT pSource, PFILE_OBJECT pDestination, PDEVICE_OBJECT FilterDevice,
                            PVOID pBuffer, PCUNICODE_STRING pustrSource, PCUNICODE_STRING pustrDestination) {
    LARGE_INTEGER Offset;
    Offset.QuadPart = 0;
    for (;;) {
        IO_STATUS_BLOCK ReadStatus;
        ReadStatus.Status = STATUS_SUCCESS;
        ReadStatus.Information = 0;
        NTSTATUS nStatus = ReadWriteFileWithIrp(NULL, TRUE, 0, pSource, FilterDevice, pBuffer, Offset,
                                                COPY_CHUNK_SIZE, 0, COPY_READ_FLAGS, &ReadStatus);
        if (!NT_SUCCESS(nStatus)) {
            if (nStatus == STATUS_END_OF_FILE) {
                return TRUE;
            }
            TRVN_LOG("CopyFile", __LINE__, "cannot read from src file [%wZ] /w Err[%d]\r\n", pustrSource, nStatus);
            return FALSE;
        }
        IO_STATUS_BLOCK WriteStatus;
        WriteStatus.Status = STATUS_SUCCESS;
        WriteStatus.Information = 0;
        nStatus = ReadWriteFileWithIrp(NULL, FALSE, 0, pDestination, FilterDevice, pBuffer, Offset,
                                       (ULONG)ReadStatus.Information, 0, COPY_WRITE_FLAGS, &WriteStatus);
        Offset.QuadPart += ReadStatus.Information;
        if (!NT_SUCCESS(nStatus)) {
            TRVN_LOG("CopyFile", __LINE__, "cannot write to dest file [%wZ] /w Err[%d]\r\n", pustrDestination,
                     nStatus);
            return FALSE;
        }
        if (WriteStatus.Information == 0) {
            return TRUE;
        }
    }
}

// The result: the data loop ended at the source's end and the destination
// has the source's end of file. An empty file therefore copies successfully.
// A copy that falls short is deleted again.
BOOLEAN CopyFile(PCUNICODE_STRING pustrSource, PCUNICODE_STRING pustrDestination, PDEVICE_OBJECT FilterDevice) {
    PathBuffer sourceCopy;
    PathBuffer destinationCopy;
    if (!sourceCopy.Have() || !destinationCopy.Have()) {
        TRVN_LOG("CopyFile", __LINE__, "cannot allocate buffer\r\n");
        return FALSE;
    }
    PoolBlock chunk(COPY_CHUNK_SIZE, TRVN_TAG_GENERAL);
    PoolBlock basic(COPY_BASIC_INFO_SIZE, TRVN_TAG_GENERAL);
    if (chunk.Get() == NULL || basic.Get() == NULL) {
        TRVN_LOG("CopyFile", __LINE__, "cannot allocate memory for read buffer\r\n");
        return FALSE;
    }
    // Private copies of both paths: the opens below take non-const strings.
    CopyCountedString(sourceCopy.Get(), pustrSource);
    CopyCountedString(destinationCopy.Get(), pustrDestination);

    ScopedHandle hSource;
    IO_STATUS_BLOCK IoStatus;
    NTSTATUS nStatus = FiltOpenFile(0, FALSE, hSource.Out(), GENERIC_READ, sourceCopy.Get(), SHARE_ALL, FILE_OPEN,
                                    FILE_SYNCHRONOUS_IO_NONALERT | FILE_NO_INTERMEDIATE_BUFFERING);
    if (!NT_SUCCESS(nStatus)) {
        TRVN_LOG("CopyFile", __LINE__, "cannot open src file [%wZ] /w Err[%d]\r\n", pustrSource, nStatus);
        return FALSE;
    }
    PFILE_BASIC_INFORMATION pBasic = basic.As<FILE_BASIC_INFORMATION>();
    nStatus = ZwQueryInformationFile(hSource.Get(), &IoStatus, pBasic, COPY_BASIC_INFO_SIZE, FileBasicInformation);
    if (!NT_SUCCESS(nStatus)) {
        TRVN_LOG("CopyFile", __LINE__, "cannot Query Info src file [%wZ] /w Err[%d]\r\n", pustrSource, nStatus);
        return FALSE;
    }
    const ULONG ulAttributes = pBasic->FileAttributes;
    LARGE_INTEGER AllocationSize;
    AllocationSize.QuadPart = 0;
    LARGE_INTEGER EndOfFile;
    EndOfFile.QuadPart = GetFileSize(hSource.Get(), &AllocationSize);

    ScopedHandle hDestination;
    nStatus = FiltCreateFile(0, FALSE, hDestination.Out(),
                             FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES | READ_CONTROL | SYNCHRONIZE,
                             destinationCopy.Get(), FALSE, FALSE, &IoStatus, &AllocationSize, ulAttributes, 0,
                             FILE_SUPERSEDE, FILE_NO_INTERMEDIATE_BUFFERING, NULL, 0);
    if (!NT_SUCCESS(nStatus)) {
        TRVN_LOG("CopyFile", __LINE__, "cannot open dest file [%wZ] /w Err[%d]\r\n", pustrDestination, nStatus);
        return FALSE;
    }

    FILE_END_OF_FILE_INFORMATION EndOfFileInfo;
    EndOfFileInfo.EndOfFile = EndOfFile;
    NTSTATUS nDestSetEOFInfoRes = ZwSetInformationFile(hDestination.Get(), &IoStatus, &EndOfFileInfo,
                                                       sizeof(EndOfFileInfo), FileEndOfFileInformation);
    TRVN_ASSERT(NT_SUCCESS( nDestSetEOFInfoRes ), FILE_MANAGER_SOURCE, __LINE__);

    nStatus = CopySecurityInformationWithHandle(hSource.Get(), hDestination.Get());
    if (!NT_SUCCESS(nStatus)) {
        TRVN_LOG("CopyFile", __LINE__, "CopySecurityInformationWithHandle failed /w Err[%d]\r\n", nStatus);
    }

    BOOLEAN bDataCopied = FALSE;
    {
        FileObjectReference Source;
        FileObjectReference Destination;
        NTSTATUS nReadStatus = Source.Reference(hSource.Get(), FILE_READ_DATA);
        TRVN_ASSERT(NT_SUCCESS( nReadStatus ), FILE_MANAGER_SOURCE, __LINE__);
        NTSTATUS nWriteStatus = Destination.Reference(hDestination.Get(), FILE_WRITE_DATA);
        TRVN_ASSERT(NT_SUCCESS( nWriteStatus ), FILE_MANAGER_SOURCE, __LINE__);
        if (NT_SUCCESS(nReadStatus) && NT_SUCCESS(nWriteStatus)) {
            bDataCopied = CopyFileData(Source.Get(), Destination.Get(), FilterDevice, chunk.Get(), pustrSource,
                                       pustrDestination);
        }
    }
    const LONGLONG llSourceSize = GetFileSize(hSource.Get(), NULL);
    const LONGLONG llDestinationSize = GetFileSize(hDestination.Get(), NULL);
    hDestination.Close();
    if (!bDataCopied || llDestinationSize != llSourceSize) {
        // Wherever the destination lies, it would be found before the source
        // and hide it: an incomplete copy does not stay.
        nStatus = DeleteRealFile(destinationCopy.Get());
        if (!NT_SUCCESS(nStatus)) {
            TRVN_LOG("CopyFile", __LINE__, "cannot delete incomplete copy [%wZ] /w Err[%d]\r\n", pustrDestination,
                     nStatus);
        }
        return FALSE;
    }

    if (!CopyFileAttribute(sourceCopy.Get(), destinationCopy.Get(), FALSE)) {
        TRVN_LOG("CopyFile", __LINE__, "CopyFileAttributes failed\r\n");
    }
    return TRUE;
}

BOOLEAN CopyFileAttribute(PCUNICODE_STRING pustrSource, PCUNICODE_STRING pustrDestination, BOOLEAN bSupersede) {
    PoolBlock buffer(ATTRIBUTE_BASIC_INFO_SIZE, TRVN_TAG_GENERAL);
    if (buffer.Get() == NULL) {
        TRVN_LOG("CopyFileAttribute", __LINE__, "cannot allocate buffer\r\n");
        return FALSE;
    }
    ScopedHandle hSource;
    IO_STATUS_BLOCK IoStatus;
    NTSTATUS nStatus = FiltOpenFile(0, FALSE, hSource.Out(), GENERIC_READ | SYNCHRONIZE, pustrSource, SHARE_ALL,
                                    FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT);
    if (!NT_SUCCESS(nStatus)) {
        TRVN_LOG("CopyFileAttribute", __LINE__, "cannot open src file [%wZ] /w Err[%d]\r\n", pustrSource, nStatus);
        return FALSE;
    }
    PFILE_BASIC_INFORMATION pBasic = buffer.As<FILE_BASIC_INFORMATION>();
    nStatus = ZwQueryInformationFile(hSource.Get(), &IoStatus, pBasic, ATTRIBUTE_BASIC_INFO_SIZE,
                                     FileBasicInformation);
    if (!NT_SUCCESS(nStatus)) {
        TRVN_LOG("CopyFileAttribute", __LINE__, "cannot query src file info [%wZ] /w Err[%d]\r\n", pustrSource,
                 nStatus);
        return FALSE;
    }
    ULONG ulOptions = FILE_SYNCHRONOUS_IO_NONALERT;
    if (pBasic->FileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
        ulOptions |= FILE_DIRECTORY_FILE;
    }
    ScopedHandle hDestination;
    nStatus = FiltCreateFile(0, FALSE, hDestination.Out(),
                             GENERIC_READ | SYNCHRONIZE | FILE_WRITE_ATTRIBUTES | FILE_READ_DATA,
                             (PUNICODE_STRING)pustrDestination, FALSE, FALSE, &IoStatus, NULL, pBasic->FileAttributes,
                             SHARE_ALL, bSupersede ? FILE_SUPERSEDE : FILE_OPEN, ulOptions, NULL, 0);
    if (!NT_SUCCESS(nStatus)) {
        TRVN_LOG("CopyFileAttribute", __LINE__, "cannot open dest file [%wZ] /w Err[%d]\r\n", pustrDestination,
                 nStatus);
        return FALSE;
    }
    nStatus = ZwSetInformationFile(hDestination.Get(), &IoStatus, pBasic, ATTRIBUTE_BASIC_INFO_SIZE,
                                   FileBasicInformation);
    if (!NT_SUCCESS(nStatus)) {
        TRVN_LOG("CopyFileAttribute", __LINE__, "cannot set dest file info [%wZ] /w Err[%d]\r\n", pustrDestination,
                 nStatus);
        return FALSE;
    }
    return TRUE;
}

BOOLEAN FiltCopyFileAttribute(PCUNICODE_STRING pustrPath, ULONG ulSourceFlag, ULONG ulDestinationFlag,
                              BOOLEAN bSupersede) {
    MappedRealPath Source;
    MappedRealPath Destination;
    if (!Source.Map(pustrPath, ulSourceFlag) || !Destination.Map(pustrPath, ulDestinationFlag)) {
        TRVN_LOG("FiltCopyFileAttribute", __LINE__, "GetRealFilePathForFilter failed\r\n");
        return FALSE;
    }
    // A failure to make the parents shows as the failure of the copy.
    CreateDirectoryRecursive(Destination.Get());
    return CopyFileAttribute(Source.Get(), Destination.Get(), bSupersede);
}
