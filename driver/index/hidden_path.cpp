// The hidden-path index: paths no longer looked for in any filter directory
// but filter directory 0. A path is hidden when its entry exists and has no
// children; marking a path replaces whatever was marked below it.
#include "index/index_internal.h"

PFileIndex g_pHiddenPathIndex;

VOID CreateHiddenPathIndex() {
    g_pHiddenPathIndex = CreateFileIndex(HIDDEN_PATH_AREA_SIZE, HIDDEN_PATH_AREA_SIZE);
}

VOID HidePath(PCUNICODE_STRING pustrPath) {
    PFileIndex pIndex = g_pHiddenPathIndex;
    if (pustrPath == NULL || pustrPath->Buffer == NULL || pIndex == NULL) {
        return;
    }
    // One hold across both steps, so no test sees the path between them.
    FileIndexLock lock(pIndex);
    RemoveIndexPath(pIndex, pustrPath);
    InsertIndexPath(pIndex, pustrPath, FILE_INDEX_TYPE_DIRECTORY);
}

BOOLEAN IsPathHidden(PCUNICODE_STRING pustrPath) {
    PFileIndex pIndex = g_pHiddenPathIndex;
    if (pIndex == NULL || pustrPath == NULL || pustrPath->Length <= 3 * sizeof(WCHAR)) {
        return FALSE;
    }
    FileIndexEntry entry;
    return LookupIndexPath(pIndex, pustrPath, &entry) && entry.m_ulFirstChildOffset == 0;
}
