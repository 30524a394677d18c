// Index files: a node file and a name file whose bytes become the initial
// contents of the two areas of a FileIndex, used in place.
//
// The files are not trusted. A file that would overrun its area or leave the
// stored-room counters pointing into existing data is refused with
// STATUS_FILE_CORRUPT_ERROR: larger than its area, a node file shorter than
// header + root + 4 bytes or whose length minus 72 is not a multiple of 48, a
// name file shorter than 14 bytes or whose names region has an odd length.
// A pair is refused, too, when the node file is not one (its first entry is
// not a root, an entry does not carry its own offset) or the name file does
// not hold the node file's names (a name outside the names region, empty,
// or holding a zero or a backslash): two files swapped, one file given twice,
// or files that are no index at all. Every refusal is logged. Links inside
// the areas are checked on every access (index_internal.h).
#include "control/filter_directory.h"
#include "base/scoped.h"
#include "control/layered_open.h"
#include "index/index_internal.h"

static BOOLEAN IsNodeFileSizeValid(ULONG ulSize, ULONG ulAreaSize) {
    return ulSize <= ulAreaSize && ulSize >= FILE_INDEX_NODE_FILE_EXTRA + FILE_INDEX_ENTRY_SIZE &&
           (ulSize - FILE_INDEX_NODE_FILE_EXTRA) % FILE_INDEX_ENTRY_SIZE == 0;
}

static BOOLEAN IsNameFileSizeValid(ULONG ulSize, ULONG ulAreaSize) {
    return ulSize <= ulAreaSize && ulSize >= FILE_INDEX_NAME_FILE_EXTRA &&
           ((ulSize - FILE_INDEX_NAME_FILE_EXTRA) & 1) == 0;
}

// The node file's entries are those of a node file: a root first, then
// entries that each carry their own entry offset.
static BOOLEAN IsNodeArea(const UCHAR* pNodeArea, ULONG ulNodeFileSize) {
    const ULONG ulEntries = (ulNodeFileSize - FILE_INDEX_NODE_FILE_EXTRA) / FILE_INDEX_ENTRY_SIZE;
    const FileIndexEntry* pEntries = (const FileIndexEntry*)(pNodeArea + FILE_INDEX_NODE_HEADER_SIZE);
    const FileIndexEntry* pRoot = &pEntries[0];
    if (pRoot->m_ulType != FILE_INDEX_TYPE_DIRECTORY || pRoot->m_ulNameOffset != 0 || pRoot->m_ulNameLength != 0 ||
        pRoot->m_ulOffset != 0 || pRoot->m_ulParentOffset != 0 || pRoot->m_ulNextSiblingOffset != 0 ||
        pRoot->m_ulPrevSiblingOffset != 0) {
        return FALSE;
    }
    for (ULONG k = 1; k < ulEntries; k++) {
        if (pEntries[k].m_ulOffset != k * FILE_INDEX_ENTRY_SIZE) {
            return FALSE;
        }
    }
    return TRUE;
}

// Every entry's name lies in the name file's names region and is one path
// component: not empty, no zero character, no backslash. (A node file read
// as names is mostly zeros; a stricter test would refuse host names that
// the index tool takes as they are.)
static BOOLEAN HoldsNodeNames(const UCHAR* pNodeArea, ULONG ulNodeFileSize, const UCHAR* pNameArea,
                              ULONG ulNameFileSize) {
    const ULONG ulEntries = (ulNodeFileSize - FILE_INDEX_NODE_FILE_EXTRA) / FILE_INDEX_ENTRY_SIZE;
    const ULONG ulRegion = ulNameFileSize - FILE_INDEX_NAME_FILE_EXTRA;
    const FileIndexEntry* pEntries = (const FileIndexEntry*)(pNodeArea + FILE_INDEX_NODE_HEADER_SIZE);
    for (ULONG k = 1; k < ulEntries; k++) {
        const ULONG ulStart = pEntries[k].m_ulNameOffset & ~1UL;
        const ULONG ulLength = pEntries[k].m_ulNameLength & 0xFFFF;
        if (ulLength == 0 || (ulLength & 1) != 0 || ulStart > ulRegion || ulLength > ulRegion - ulStart) {
            return FALSE;
        }
        const UCHAR* pName = pNameArea + FILE_INDEX_NAME_HEADER_SIZE + ulStart;
        for (ULONG i = 0; i < ulLength; i += sizeof(WCHAR)) {
            const WCHAR wc = (WCHAR)(pName[i] | (pName[i + 1] << 8));
            if (wc == L'\0' || wc == L'\\') {
                return FALSE;
            }
        }
    }
    return TRUE;
}

// Releases what MapIndexFile acquired, in the reverse order: view, section
// reference, file handle.
VOID ReleaseIndexFile(HANDLE hFile, PIndexFileMapping pMapping) {
    if (pMapping->m_pView != NULL) {
        MmUnmapViewInSystemSpace(pMapping->m_pView);
        pMapping->m_pView = NULL;
    }
    if (pMapping->m_pSection != NULL) {
        ObDereferenceObject(pMapping->m_pSection);
        pMapping->m_pSection = NULL;
    }
    if (hFile != NULL) {
        ZwClose(hFile);
    }
}

NTSTATUS MapIndexFile(ULONG ulAreaSize, PCUNICODE_STRING pustrFilePath, PHANDLE phFile,
                      PIndexFileMapping pMapping, PVOID* ppArea, PULONG pulFileSize) {
    *phFile = NULL;
    pMapping->m_pSection = NULL;
    pMapping->m_pView = NULL;
    *ppArea = NULL;
    *pulFileSize = 0;

    IO_STATUS_BLOCK IoStatus;
    NTSTATUS status = FiltOpenFile(0, FALSE, phFile, SYNCHRONIZE, pustrFilePath, FILE_SHARE_READ, FILE_OPEN,
                                   FILE_WRITE_THROUGH | FILE_SYNCHRONOUS_IO_NONALERT);
    if (!NT_SUCCESS(status)) {
        *phFile = NULL;
        return status;
    }

    OBJECT_ATTRIBUTES SectionAttributes;
    InitializeObjectAttributes(&SectionAttributes, NULL, OBJ_KERNEL_HANDLE, NULL, NULL);
    LARGE_INTEGER MaximumSize;
    MaximumSize.QuadPart = ulAreaSize;
    HANDLE hSection = NULL;
    status = ZwCreateSection(&hSection, SECTION_ALL_ACCESS, &SectionAttributes, &MaximumSize, PAGE_READWRITE,
                             SEC_COMMIT, NULL);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    // The handle was made just above by ZwCreateSection: no type check is needed.
    PVOID pSection = NULL;
    status = ObReferenceObjectByHandle(hSection, SECTION_ALL_ACCESS, NULL, KernelMode, &pSection, NULL);
    if (NT_SUCCESS(status)) {
        pMapping->m_pSection = pSection;
        PVOID pView = NULL;
        SIZE_T ViewSize = ulAreaSize;
        status = MmMapViewInSystemSpace(pSection, &pView, &ViewSize);
        if (NT_SUCCESS(status)) {
            pMapping->m_pView = pView;
            *ppArea = pView;
            FILE_STANDARD_INFORMATION StandardInfo;
            status = ZwQueryInformationFile(*phFile, &IoStatus, &StandardInfo, sizeof(StandardInfo),
                                            FileStandardInformation);
            if (NT_SUCCESS(status)) {
                *pulFileSize = StandardInfo.EndOfFile.LowPart;
                if (StandardInfo.EndOfFile.HighPart != 0 || StandardInfo.EndOfFile.LowPart > ulAreaSize) {
                    status = STATUS_FILE_CORRUPT_ERROR;  // it would overrun the area
                } else {
                    LARGE_INTEGER ByteOffset;
                    ByteOffset.QuadPart = 0;
                    status = ZwReadFile(*phFile, NULL, NULL, NULL, &IoStatus, pView, *pulFileSize, &ByteOffset,
                                        NULL);
                    if (NT_SUCCESS(status) && IoStatus.Information != *pulFileSize) {
                        status = STATUS_FILE_CORRUPT_ERROR;  // the file shrank under us
                    }
                }
            }
        }
    }
    ZwClose(hSection);
    return status;
}

PFileIndex LoadFileIndex(PCUNICODE_STRING pustrNodeFile, ULONG ulNodeAreaSize, PCUNICODE_STRING pustrNameFile,
                         ULONG ulNameAreaSize) {
    HANDLE hNodeFile = NULL;
    HANDLE hNameFile = NULL;
    IndexFileMapping NodeMapping;
    IndexFileMapping NameMapping;
    PVOID pNodeArea = NULL;
    PVOID pNameArea = NULL;
    ULONG ulNodeFileSize = 0;
    ULONG ulNameFileSize = 0;

    if (RtlEqualUnicodeString(pustrNodeFile, pustrNameFile, TRUE)) {
        TRVN_LOG("LoadFileIndex", __LINE__, "index file [%wZ] given as both node file and name file\r\n",
                 pustrNodeFile);
        return NULL;
    }
    // The node file's view also holds the child table, after the area.
    const ULONG ulTableOffset = IndexChildTableOffset(ulNodeAreaSize);
    const ULONG ulNodeViewSize =
        ulTableOffset != 0 ? ulTableOffset + IndexChildTableSize(ulNodeAreaSize) : ulNodeAreaSize;
    NTSTATUS status =
        MapIndexFile(ulNodeViewSize, pustrNodeFile, &hNodeFile, &NodeMapping, &pNodeArea, &ulNodeFileSize);
    if (NT_SUCCESS(status) && (!IsNodeFileSizeValid(ulNodeFileSize, ulNodeAreaSize) ||
                               !IsNodeArea((const UCHAR*)pNodeArea, ulNodeFileSize))) {
        TRVN_LOG("LoadFileIndex", __LINE__, "index file [%wZ] is not a node file\r\n", pustrNodeFile);
        status = STATUS_FILE_CORRUPT_ERROR;
    }
    if (!NT_SUCCESS(status)) {
        ReleaseIndexFile(hNodeFile, &NodeMapping);
        return NULL;
    }
    status = MapIndexFile(ulNameAreaSize, pustrNameFile, &hNameFile, &NameMapping, &pNameArea, &ulNameFileSize);
    if (NT_SUCCESS(status) && (!IsNameFileSizeValid(ulNameFileSize, ulNameAreaSize) ||
                               !HoldsNodeNames((const UCHAR*)pNodeArea, ulNodeFileSize, (const UCHAR*)pNameArea,
                                               ulNameFileSize))) {
        TRVN_LOG("LoadFileIndex", __LINE__, "index file [%wZ] is not the name file of [%wZ]\r\n", pustrNameFile,
                 pustrNodeFile);
        status = STATUS_FILE_CORRUPT_ERROR;
    }
    if (!NT_SUCCESS(status)) {
        ReleaseIndexFile(hNameFile, &NameMapping);
        ReleaseIndexFile(hNodeFile, &NodeMapping);
        return NULL;
    }
    PFileIndex pIndex = InitFileIndex(pNodeArea, ulNodeAreaSize, &NodeMapping, hNodeFile, pNameArea,
                                      ulNameAreaSize, &NameMapping, hNameFile);
    if (pIndex == NULL) {
        ReleaseIndexFile(hNameFile, &NameMapping);
        ReleaseIndexFile(hNodeFile, &NodeMapping);
        return NULL;
    }
    pIndex->m_ulNodeUsed = ulNodeFileSize - FILE_INDEX_NODE_FILE_EXTRA;
    pIndex->m_ulNameUsed = ulNameFileSize - FILE_INDEX_NAME_FILE_EXTRA;
    BuildIndexChildTable(pIndex, ulTableOffset != 0 ? (PUCHAR)pNodeArea + ulTableOffset : NULL);
    return pIndex;
}
