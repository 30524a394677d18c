// The open-file table: one FileHandleEntry per open that the create handler
// served from a filter directory, keyed by the caller's FILE_OBJECT.
#pragma once

#include "platform/platform.h"

// Source name of the request handlers in assertion reports.
#define DISPATCH_SOURCE "dispatch"

// Number of buckets of the table; a FILE_OBJECT's bucket is its address
// shifted right by FILE_HANDLE_TABLE_SHIFT, modulo the bucket count.
#define FILE_HANDLE_TABLE_BUCKETS 1024
#define FILE_HANDLE_TABLE_SHIFT 5

// One redirected open. Non-paged pool, "Trvm"; the entry owns the buffers of
// m_ustrFullPath and m_ustrCurrentQueryDirectoryName (both non-paged pool,
// "Trvm") and its two handles.
typedef struct FileHandleEntry {
    KEVENT m_kEvent;                                 // serialises the requests on this open
    ULONG m_ulCreateOptions;                         // options the real file was opened with
    ULONG m_ulDesiredAccess;                         // access the real file was opened with
    ULONG m_ulShareAccess;                           // the caller's share access plus FILE_SHARE_READ
    ULONG m_ulFilterEntryFlag;                       // filter flag of the directory holding the real file
    HANDLE m_hRealFileHandle;                        // kernel handle of the real file
    HANDLE m_hQueryDirHandle;                        // directory read by a running listing, or null
    ULONG m_ulQueryDirFilterFlag;                    // filter flag of m_hQueryDirHandle's copy, or 0
    UNICODE_STRING m_ustrCurrentQueryDirectoryName;  // pattern of the running listing, or all zero
    PFILE_OBJECT m_pFileObject;                      // the caller's FILE_OBJECT: the key
    UNICODE_STRING m_ustrFullPath;                   // drive path by which the caller named the file
    BOOLEAN m_bDeleteOnClose;                        // delete from every filter directory at close
    ULONG m_ulRemoveLowerMask;                       // with m_bDeleteOnClose: lower filter directories whose
                                                     // copies the close hides (FiltPrepareRemoval)
    ULONG m_ulCopyUpGeneration;                      // copy-up counter when the open last looked for a
                                                     // copy in filter directory 0 (CurrentCopyUpGeneration)
    struct FileHandleEntry* m_pNext;                 // next entry of the same bucket
} FileHandleEntry, *PFileHandleEntry;

// Once, at start-up, before any volume is hooked.
VOID InitFileHandleTable();

// Makes an entry from a template filled in by the caller and puts it at the
// head of its bucket. The template's event, link and buffer ownership are
// ignored; its path is copied into a new buffer of the path's length. A null
// template does nothing; a failure is logged. AddFileHandleEntry does not
// report it; MakeFileHandleEntry returns the entry, or NULL when none was
// made, so that an open can fail without looking the entry up again.
PFileHandleEntry MakeFileHandleEntry(const FileHandleEntry* Template);
VOID AddFileHandleEntry(const FileHandleEntry* Template);

// The entry of FileObject, or null. A hash lookup that allocates nothing.
PFileHandleEntry FindFileHandleEntry(PFILE_OBJECT FileObject);

// Copies the path of FileObject's entry into Path (its own buffer; what does
// not fit is cut). Path is emptied first; FALSE for a null Path (untouched)
// or when FileObject has no entry.
BOOLEAN GetFileHandleEntryPath(PFILE_OBJECT FileObject, PUNICODE_STRING Path);

// Gives Entry the path NewPath, whose buffer (non-paged pool, "Trvm") the
// entry owns from then on; the old path buffer is freed. Done under the
// table's lock so that readers of the path never copy from a freed buffer.
VOID ReplaceFileHandleEntryPath(PFileHandleEntry Entry, PUNICODE_STRING NewPath);

// Unlinks and frees the entry of FileObject with its buffers (its handles
// are the caller's to close first). Nothing happens when there is none.
VOID RemoveFileHandleEntry(PFILE_OBJECT FileObject);

// Closes the handles of and frees every entry left in the table and deletes
// its lock (ReleaseDriverState).
VOID ReleaseFileHandleTable();
