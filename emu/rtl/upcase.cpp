// Case mapping of UTF-16 characters by the machine's upcase table.
#include <nt/ntifs.h>

namespace {

struct CaseRun {
    WCHAR first, last;
    int delta;
    int stride;  // 1: every character of the run, 2: every other one
};

constexpr CaseRun kUpcase[] = {
#include "rtl/upcase_table.inc"
};

}  // namespace

extern "C" WCHAR RtlUpcaseUnicodeChar(WCHAR SourceCharacter) {
    WCHAR c = SourceCharacter;
    if (c < 0x80) return (c >= 'a' && c <= 'z') ? static_cast<WCHAR>(c - 32) : c;
    // Binary search for the last run starting at or below C.
    size_t lo = 0, hi = sizeof(kUpcase) / sizeof(kUpcase[0]);
    while (lo < hi) {
        size_t mid = (lo + hi) / 2;
        if (kUpcase[mid].first <= c) lo = mid + 1;
        else hi = mid;
    }
    if (lo == 0) return c;
    const CaseRun& run = kUpcase[lo - 1];
    if (c > run.last || (c - run.first) % run.stride != 0) return c;
    return static_cast<WCHAR>(c + run.delta);
}

extern "C" WCHAR RtlDowncaseUnicodeChar(WCHAR SourceCharacter) {
    WCHAR c = SourceCharacter;
    if (c < 0x80) return (c >= 'A' && c <= 'Z') ? static_cast<WCHAR>(c + 32) : c;
    // The inverse of the upcase table: the lower-case character whose upper
    // case is C (the first one when several map there).
    for (const CaseRun& run : kUpcase) {
        int lower = c - run.delta;
        if (lower >= run.first && lower <= run.last && (lower - run.first) % run.stride == 0)
            return static_cast<WCHAR>(lower);
    }
    return c;
}
