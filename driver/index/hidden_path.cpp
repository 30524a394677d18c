// The hidden-path index: paths no longer looked for in any filter directory
// but filter directory 0. An entry without children is a mark. A path is
// hidden when it or one of its ancestors is marked, so that whatever a
// removed directory held in the lower filter directories stays out of sight
// with it; marking a path replaces whatever was marked below it.
#include "index/index_internal.h"

PFileIndex g_pHiddenPathIndex;

VOID CreateHiddenPathIndex() {
    g_pHiddenPathIndex = CreateFileIndex(HIDDEN_PATH_AREA_SIZE, HIDDEN_PATH_AREA_SIZE);
}

// Walks the drive path's components from the root and returns the position
// just after the first one whose entry is a mark, or 0 when neither the path
// nor an ancestor of it is marked. The caller holds the index's lock.
static ULONG EndOfMarkedPrefix(PFileIndex pIndex, PCUNICODE_STRING pustrPath) {
    const ULONG ulEnd = pustrPath->Length / sizeof(WCHAR);
    PWSTR pwc = pustrPath->Buffer;
    if (ulEnd <= 3 || pwc[1] != L':' || pwc[2] != L'\\') {
        return 0;  // a drive root or less, or not a drive path
    }
    FileIndexEntry current = *IndexRoot(pIndex);
    ULONG ulPos = 3;
    for (ULONG ulSteps = IndexWalkLimit(pIndex); ulPos < ulEnd && ulSteps != 0; ulSteps--) {
        ULONG ulSlash = ulPos;
        while (ulSlash < ulEnd && pwc[ulSlash] != L'\\') {
            ulSlash++;
        }
        UNICODE_STRING ustrComponent;
        ustrComponent.Length = ustrComponent.MaximumLength = (USHORT)((ulSlash - ulPos) * sizeof(WCHAR));
        ustrComponent.Buffer = pwc + ulPos;
        FileIndexEntry found;
        if (!FindIndexChild(pIndex, &current, &ustrComponent, &found)) {
            return 0;
        }
        if (found.m_ulFirstChildOffset == 0) {
            return ulSlash;
        }
        PFileIndexEntry pNext = IndexEntryAt(pIndex, found.m_ulOffset);
        if (pNext == NULL) {
            return 0;
        }
        current = *pNext;
        ulPos = ulSlash + 1;
    }
    return 0;
}

VOID HidePath(PCUNICODE_STRING pustrPath) {
    PFileIndex pIndex = g_pHiddenPathIndex;
    if (pustrPath == NULL || pustrPath->Buffer == NULL || pIndex == NULL) {
        return;
    }
    // One hold across both steps, so no test sees the path between them.
    ResourceLock lock(&pIndex->m_Lock, TRUE);
    // Below a marked ancestor the path is hidden already; a mark there would
    // give the ancestor a child and so uncover everything else below it.
    const ULONG ulMarkedEnd = EndOfMarkedPrefix(pIndex, pustrPath);
    for (ULONG i = ulMarkedEnd; ulMarkedEnd != 0 && i < pustrPath->Length / sizeof(WCHAR); i++) {
        if (pustrPath->Buffer[i] != L'\\') {
            return;
        }
    }
    RemoveIndexPath(pIndex, pustrPath);
    InsertIndexPath(pIndex, pustrPath, FILE_INDEX_TYPE_DIRECTORY);
}

BOOLEAN IsPathHidden(PCUNICODE_STRING pustrPath) {
    PFileIndex pIndex = g_pHiddenPathIndex;
    if (pIndex == NULL || pustrPath == NULL || pustrPath->Buffer == NULL) {
        return FALSE;
    }
    ResourceLock lock(&pIndex->m_Lock, FALSE);
    return EndOfMarkedPrefix(pIndex, pustrPath) != 0;
}
