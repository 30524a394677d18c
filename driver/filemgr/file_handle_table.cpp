// The open-file table: a fixed array of bucket chains under one executive
// resource. Every operation takes the resource exclusively, inside a
// critical region, and holds it only for the walk, the link change or the
// path copy.
#include "filemgr/file_handle_table.h"

#include "base/strings.h"
#include "base/scoped.h"
#include "base/log.h"
#include "base/global_state.h"

static PFileHandleEntry s_apFileHandleBuckets[FILE_HANDLE_TABLE_BUCKETS];
static ERESOURCE s_FileHandleTableLock;
// Entries in the table. Every request on a hooked volume looks its
// FILE_OBJECT up, filtering on or off; with no redirected open at all the
// lookup ends here without the lock. An entry is counted before its open
// completes, so no request on that open can miss it.
static LONG volatile s_lFileHandleEntryCount;

// The address is shifted as a pointer-wide value and then masked, so a
// 64-bit build uses the same low address bits as the 32-bit driver.
static ULONG FileHandleBucket(PFILE_OBJECT FileObject) {
    return (ULONG)(((ULONG_PTR)FileObject >> FILE_HANDLE_TABLE_SHIFT) & (FILE_HANDLE_TABLE_BUCKETS - 1));
}

// The entry of FileObject; the caller holds the table's lock.
static PFileHandleEntry FindLocked(PFILE_OBJECT FileObject) {
    PFileHandleEntry pEntry = s_apFileHandleBuckets[FileHandleBucket(FileObject)];
    while (pEntry != NULL && pEntry->m_pFileObject != FileObject) {
        pEntry = pEntry->m_pNext;
    }
    return pEntry;
}

static VOID FreeEntryBuffers(PFileHandleEntry Entry) {
    if (Entry->m_ustrFullPath.Buffer != NULL) {
        ExFreePoolWithTag(Entry->m_ustrFullPath.Buffer, TRVN_TAG_GENERAL);
    }
    if (Entry->m_ustrCurrentQueryDirectoryName.Buffer != NULL) {
        ExFreePoolWithTag(Entry->m_ustrCurrentQueryDirectoryName.Buffer, TRVN_TAG_GENERAL);
    }
}

VOID InitFileHandleTable() {
    for (ULONG i = 0; i < FILE_HANDLE_TABLE_BUCKETS; i++) {
        s_apFileHandleBuckets[i] = NULL;
    }
    s_lFileHandleEntryCount = 0;
    ExInitializeResourceLite(&s_FileHandleTableLock);
}

PFileHandleEntry MakeFileHandleEntry(const FileHandleEntry* Template) {
    if (Template == NULL) {
        return NULL;
    }
    PFileHandleEntry pEntry =
        (PFileHandleEntry)ExAllocatePoolWithTag(NonPagedPool, sizeof(FileHandleEntry), TRVN_TAG_GENERAL);
    if (pEntry == NULL) {
        TRVN_LOG("AddFileHandleEntry", __LINE__, "add file handle fail (alloc fail)");
        return NULL;
    }
    RtlCopyMemory(pEntry, Template, sizeof(FileHandleEntry));
    KeInitializeEvent(&pEntry->m_kEvent, SynchronizationEvent, TRUE);
    pEntry->m_pNext = NULL;

    // The path is kept at its length, not at the template's capacity: an
    // open holds its entry for as long as it lives. An empty path gives an
    // entry with no path buffer at all rather than a zero-byte allocation.
    pEntry->m_ustrFullPath.Length = 0;
    pEntry->m_ustrFullPath.MaximumLength = Template->m_ustrFullPath.Length;
    pEntry->m_ustrFullPath.Buffer = NULL;
    if (pEntry->m_ustrFullPath.MaximumLength != 0) {
        pEntry->m_ustrFullPath.Buffer =
            (PWSTR)ExAllocatePoolWithTag(NonPagedPool, pEntry->m_ustrFullPath.MaximumLength, TRVN_TAG_GENERAL);
        if (pEntry->m_ustrFullPath.Buffer == NULL) {
            TRVN_LOG("AddFileHandleEntry", __LINE__, "add file handle fail (file path alloc fail)");
            ExFreePoolWithTag(pEntry, TRVN_TAG_GENERAL);
            return NULL;
        }
    }
    if (!NT_SUCCESS(CopyCountedString(&pEntry->m_ustrFullPath, &Template->m_ustrFullPath))) {
        TRVN_LOG("AddFileHandleEntry", __LINE__, "add file handle fail (path copy fail)");
        if (pEntry->m_ustrFullPath.Buffer != NULL) {
            ExFreePoolWithTag(pEntry->m_ustrFullPath.Buffer, TRVN_TAG_GENERAL);
        }
        ExFreePoolWithTag(pEntry, TRVN_TAG_GENERAL);
        return NULL;
    }

    ResourceLock lock(&s_FileHandleTableLock, TRUE);
    PFileHandleEntry* ppHead = &s_apFileHandleBuckets[FileHandleBucket(pEntry->m_pFileObject)];
    pEntry->m_pNext = *ppHead;
    *ppHead = pEntry;
    InterlockedIncrement(&s_lFileHandleEntryCount);
    return pEntry;
}

VOID AddFileHandleEntry(const FileHandleEntry* Template) {
    MakeFileHandleEntry(Template);
}

PFileHandleEntry FindFileHandleEntry(PFILE_OBJECT FileObject) {
    if (InterlockedCompareExchange(&s_lFileHandleEntryCount, 0, 0) == 0) {
        return NULL;
    }
    ResourceLock lock(&s_FileHandleTableLock, TRUE);
    return FindLocked(FileObject);
}

BOOLEAN GetFileHandleEntryPath(PFILE_OBJECT FileObject, PUNICODE_STRING Path) {
    if (Path == NULL) {
        return FALSE;
    }
    FormatCountedString(Path, L"");
    ResourceLock lock(&s_FileHandleTableLock, TRUE);
    PFileHandleEntry pEntry = FindLocked(FileObject);
    if (pEntry == NULL) {
        return FALSE;
    }
    RtlCopyUnicodeString(Path, &pEntry->m_ustrFullPath);
    return TRUE;
}

VOID ReplaceFileHandleEntryPath(PFileHandleEntry Entry, PUNICODE_STRING NewPath) {
    PWSTR pOldBuffer;
    {
        ResourceLock lock(&s_FileHandleTableLock, TRUE);
        pOldBuffer = Entry->m_ustrFullPath.Buffer;
        Entry->m_ustrFullPath = *NewPath;
    }
    NewPath->Buffer = NULL;
    NewPath->Length = 0;
    NewPath->MaximumLength = 0;
    if (pOldBuffer != NULL) {
        ExFreePoolWithTag(pOldBuffer, TRVN_TAG_GENERAL);
    }
}

VOID RemoveFileHandleEntry(PFILE_OBJECT FileObject) {
    PFileHandleEntry pFound = NULL;
    {
        ResourceLock lock(&s_FileHandleTableLock, TRUE);
        PFileHandleEntry* ppLink = &s_apFileHandleBuckets[FileHandleBucket(FileObject)];
        while (*ppLink != NULL && (*ppLink)->m_pFileObject != FileObject) {
            ppLink = &(*ppLink)->m_pNext;
        }
        if (*ppLink != NULL) {
            pFound = *ppLink;
            *ppLink = pFound->m_pNext;
            InterlockedDecrement(&s_lFileHandleEntryCount);
        }
    }
    if (pFound != NULL) {
        FreeEntryBuffers(pFound);
        ExFreePoolWithTag(pFound, TRVN_TAG_GENERAL);
    }
}

VOID ReleaseFileHandleTable() {
    for (ULONG i = 0; i < FILE_HANDLE_TABLE_BUCKETS; i++) {
        PFileHandleEntry pEntry = s_apFileHandleBuckets[i];
        s_apFileHandleBuckets[i] = NULL;
        while (pEntry != NULL) {
            PFileHandleEntry pNext = pEntry->m_pNext;
            if (pEntry->m_hQueryDirHandle != NULL) {
                ZwClose(pEntry->m_hQueryDirHandle);
            }
            if (pEntry->m_hRealFileHandle != NULL) {
                ZwClose(pEntry->m_hRealFileHandle);
            }
            FreeEntryBuffers(pEntry);
            ExFreePoolWithTag(pEntry, TRVN_TAG_GENERAL);
            pEntry = pNext;
        }
    }
    s_lFileHandleEntryCount = 0;
    ExDeleteResourceLite(&s_FileHandleTableLock);
}
