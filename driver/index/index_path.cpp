// Path operations of a file index. A drive path's first three characters
// (letter, colon, backslash) are skipped: every index has one root that
// stands for the root of any drive. Components are scanned in place in the
// caller's string, so no operation allocates memory.
#include "index/index_internal.h"

static ULONG CharCount(PCUNICODE_STRING pustr) {
    return pustr->Length / sizeof(WCHAR);
}

static BOOLEAN IsUsablePath(PCUNICODE_STRING pustr) {
    return pustr != NULL && (pustr->Length == 0 || pustr->Buffer != NULL);
}

// A counted string over ulCount characters of pwcStart.
static UNICODE_STRING Slice(PWSTR pwcStart, ULONG ulCount) {
    UNICODE_STRING ustr;
    ustr.Length = (USHORT)(ulCount * sizeof(WCHAR));
    ustr.MaximumLength = ustr.Length;
    ustr.Buffer = pwcStart;
    return ustr;
}

// Position of the next backslash in [ulFrom, ulEnd), or ulEnd.
static ULONG NextBackslash(PWSTR pwc, ULONG ulFrom, ULONG ulEnd) {
    while (ulFrom < ulEnd && pwc[ulFrom] != L'\\') {
        ulFrom++;
    }
    return ulFrom;
}

// Characters of a drive path ("X:\..."), or 0 when the string cannot be one:
// missing, without a buffer, or shorter than its drive part.
static ULONG DrivePathChars(PCUNICODE_STRING pustrFilePath) {
    if (!IsUsablePath(pustrFilePath)) {
        return 0;
    }
    ULONG ulChars = CharCount(pustrFilePath);
    if (ulChars < 3) {
        return 0;
    }
    TRVN_ASSERT(pustrFilePath->Buffer[1] == L':' && pustrFilePath->Buffer[2] == L'\\', FILE_INDEX_SOURCE, __LINE__);
    return ulChars;
}

BOOLEAN LookupIndexPath(PFileIndex pIndex, PCUNICODE_STRING pustrFilePath, PFileIndexEntry pResult) {
    if (pIndex == NULL || pResult == NULL) {
        return FALSE;
    }
    ULONG ulChars = DrivePathChars(pustrFilePath);
    if (ulChars == 0) {
        return FALSE;
    }
    if (ulChars == 3) {
        *pResult = *IndexRoot(pIndex);
        return TRUE;
    }
    UNICODE_STRING ustrRelative = Slice(pustrFilePath->Buffer + 3, ulChars - 3);
    FileIndexEntry root = *IndexRoot(pIndex);
    return WalkIndexPath(pIndex, &root, &ustrRelative, pResult);
}

BOOLEAN WalkIndexPath(PFileIndex pIndex, const FileIndexEntry* pStart, PCUNICODE_STRING pustrRelativePath,
                      PFileIndexEntry pResult) {
    if (pIndex == NULL || pStart == NULL || !IsUsablePath(pustrRelativePath) || pResult == NULL) {
        return FALSE;
    }
    PWSTR pwc = pustrRelativePath->Buffer;
    ULONG ulEnd = CharCount(pustrRelativePath);
    if (ulEnd == 0 || (ulEnd == 1 && pwc[0] == L'\\')) {
        *pResult = *pStart;
        return TRUE;
    }
    ULONG ulPos = pwc[0] == L'\\' ? 1 : 0;

    ResourceLock lock(&pIndex->m_Lock, FALSE);
    FileIndexEntry current = *pStart;
    for (;;) {
        ULONG ulSlash = NextBackslash(pwc, ulPos, ulEnd);
        UNICODE_STRING ustrComponent = Slice(pwc + ulPos, ulSlash - ulPos);
        if (ulSlash == ulEnd) {
            return FindIndexChild(pIndex, &current, &ustrComponent, pResult);
        }
        FileIndexEntry found;
        if (!FindIndexChild(pIndex, &current, &ustrComponent, &found)) {
            return FALSE;
        }
        if (ulSlash + 1 == ulEnd) {
            *pResult = found;
            return TRUE;
        }
        PFileIndexEntry pNext = IndexEntryAt(pIndex, found.m_ulOffset);
        if (pNext == NULL) {
            return FALSE;
        }
        current = *pNext;
        ulPos = ulSlash + 1;
    }
}

BOOLEAN InsertIndexPath(PFileIndex pIndex, PCUNICODE_STRING pustrFilePath, ULONG ulType) {
    if (pIndex == NULL) {
        return FALSE;
    }
    ResourceLock lock(&pIndex->m_Lock, TRUE);
    ULONG ulChars = DrivePathChars(pustrFilePath);
    if (ulChars == 0) {
        return FALSE;
    }
    if (ulChars == 3) {
        return TRUE;
    }
    PWSTR pwc = pustrFilePath->Buffer + 3;
    ULONG ulEnd = ulChars - 3;
    if (pwc[ulEnd - 1] == L'\\') {
        ulEnd--;
    }
    FileIndexEntry current = *IndexRoot(pIndex);
    ULONG ulPos = 0;
    for (;;) {
        ULONG ulSlash = NextBackslash(pwc, ulPos, ulEnd);
        UNICODE_STRING ustrComponent = Slice(pwc + ulPos, ulSlash - ulPos);
        if (ulSlash == ulEnd) {
            return AddIndexChild(pIndex, &current, &ustrComponent, ulType);
        }
        FileIndexEntry found;
        if (!FindIndexChild(pIndex, &current, &ustrComponent, &found)) {
            if (!AddIndexChild(pIndex, &current, &ustrComponent, FILE_INDEX_TYPE_DIRECTORY) ||
                !FindIndexChild(pIndex, &current, &ustrComponent, &found)) {
                return FALSE;
            }
        }
        current = found;
        ulPos = ulSlash + 1;
    }
}

BOOLEAN RemoveIndexPath(PFileIndex pIndex, PCUNICODE_STRING pustrFilePath) {
    if (pIndex == NULL) {
        return FALSE;
    }
    ResourceLock lock(&pIndex->m_Lock, TRUE);
    FileIndexEntry entry;
    if (!LookupIndexPath(pIndex, pustrFilePath, &entry)) {
        return FALSE;
    }
    return UnlinkIndexEntry(pIndex, &entry);
}

BOOLEAN RenameIndexPath(PFileIndex pIndex, PCUNICODE_STRING pustrSourcePath, PCUNICODE_STRING pustrTargetPath) {
    if (pIndex == NULL || !IsUsablePath(pustrSourcePath) || !IsUsablePath(pustrTargetPath) ||
        CharCount(pustrSourcePath) < 2 || CharCount(pustrTargetPath) < 2) {
        return FALSE;
    }
    PWSTR pwcTarget = pustrTargetPath->Buffer;
    ULONG ulTargetChars = CharCount(pustrTargetPath);
    ULONG ulSlash = ulTargetChars;
    while (ulSlash > 0 && pwcTarget[ulSlash - 1] != L'\\') {
        ulSlash--;
    }
    if (ulSlash == 0 || ulSlash == ulTargetChars) {
        return FALSE;  // no backslash, or the target ends with one
    }
    // ulSlash is one past the backslash: the parent keeps it, the name follows.
    UNICODE_STRING ustrNewName = Slice(pwcTarget + ulSlash, ulTargetChars - ulSlash);
    UNICODE_STRING ustrParent = Slice(pwcTarget, ulSlash);
    if (ulSlash < 2) {
        return FALSE;
    }

    ResourceLock lock(&pIndex->m_Lock, TRUE);
    FileIndexEntry source;
    if (!LookupIndexPath(pIndex, pustrSourcePath, &source)) {
        return FALSE;
    }
    FileIndexEntry parent;
    if (!LookupIndexPath(pIndex, &ustrParent, &parent)) {
        if (!InsertIndexPath(pIndex, &ustrParent, FILE_INDEX_TYPE_DIRECTORY) ||
            !LookupIndexPath(pIndex, &ustrParent, &parent)) {
            return FALSE;
        }
    }
    return MoveIndexEntry(pIndex, &source, &parent, &ustrNewName);
}
