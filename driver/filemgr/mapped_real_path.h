// A real path mapped into one filter directory, given back when its scope
// ends.
#pragma once

#include "platform/platform.h"

#include "control/filter_directory.h"

// A real path mapped into a filter directory with a new filter path block
// (GetRealFilePathForFilter with a new buffer), given back by FreeRealFilePath.
class MappedRealPath {
public:
    MappedRealPath() {
        m_ustr.Length = 0;
        m_ustr.MaximumLength = 0;
        m_ustr.Buffer = NULL;
    }
    ~MappedRealPath() { Release(); }
    MappedRealPath(const MappedRealPath&) = delete;
    MappedRealPath& operator=(const MappedRealPath&) = delete;

    // FALSE when no filter directory answers to the mask or no block was had.
    BOOLEAN Map(PCUNICODE_STRING DrivePath, ULONG FilterMask) {
        Release();
        if (FilterMask == 0) {
            // Mask 0 would copy into a buffer that was never taken.
            return FALSE;
        }
        if (!GetRealFilePathForFilter(DrivePath, &m_ustr, FilterMask, TRUE)) {
            Release();
            return FALSE;
        }
        return TRUE;
    }
    VOID Release() {
        if (m_ustr.Buffer != NULL) {
            FreeRealFilePath(&m_ustr);
        }
        m_ustr.Length = 0;
        m_ustr.MaximumLength = 0;
        m_ustr.Buffer = NULL;
    }
    PUNICODE_STRING Get() { return &m_ustr; }

private:
    UNICODE_STRING m_ustr;
};
