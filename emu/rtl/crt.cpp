// The 16-bit wide-character C run-time routines that ntoskrnl exports. The
// case-insensitive comparisons fold A-Z only, as the kernel's C locale does.
#include <nt/ntifs.h>

namespace {
WCHAR FoldAscii(WCHAR c) { return (c >= 'A' && c <= 'Z') ? static_cast<WCHAR>(c + 32) : c; }
}  // namespace

extern "C" size_t EmuCrt_wcslen(const WCHAR* String) {
    size_t n = 0;
    while (String[n]) ++n;
    return n;
}

extern "C" int _wcsicmp(const WCHAR* String1, const WCHAR* String2) {
    for (;; ++String1, ++String2) {
        WCHAR a = FoldAscii(*String1), b = FoldAscii(*String2);
        if (a != b || a == 0) return static_cast<int>(a) - static_cast<int>(b);
    }
}

extern "C" int _wcsnicmp(const WCHAR* String1, const WCHAR* String2, size_t Count) {
    for (; Count; --Count, ++String1, ++String2) {
        WCHAR a = FoldAscii(*String1), b = FoldAscii(*String2);
        if (a != b || a == 0) return static_cast<int>(a) - static_cast<int>(b);
    }
    return 0;
}

extern "C" WCHAR* EmuCrt_wcscpy(WCHAR* Destination, const WCHAR* Source) {
    WCHAR* d = Destination;
    while ((*d++ = *Source++) != 0) {
    }
    return Destination;
}

// As the C library: stops after COUNT characters (no terminator then) and
// pads a shorter source with zeros up to COUNT.
extern "C" WCHAR* EmuCrt_wcsncpy(WCHAR* Destination, const WCHAR* Source, size_t Count) {
    size_t i = 0;
    for (; i < Count && Source[i]; ++i) Destination[i] = Source[i];
    for (; i < Count; ++i) Destination[i] = 0;
    return Destination;
}

extern "C" WCHAR* EmuCrt_wcschr(const WCHAR* String, WCHAR Character) {
    for (;; ++String) {
        if (*String == Character) return const_cast<WCHAR*>(String);
        if (*String == 0) return nullptr;
    }
}

extern "C" WCHAR* EmuCrt_wcsrchr(const WCHAR* String, WCHAR Character) {
    const WCHAR* found = nullptr;
    for (;; ++String) {
        if (*String == Character) found = String;
        if (*String == 0) return const_cast<WCHAR*>(found);
    }
}

extern "C" int EmuCrt_wcscmp(const WCHAR* String1, const WCHAR* String2) {
    for (;; ++String1, ++String2) {
        if (*String1 != *String2 || *String1 == 0) return static_cast<int>(*String1) - static_cast<int>(*String2);
    }
}

extern "C" int EmuCrt_wcsncmp(const WCHAR* String1, const WCHAR* String2, size_t Count) {
    for (; Count; --Count, ++String1, ++String2) {
        if (*String1 != *String2 || *String1 == 0) return static_cast<int>(*String1) - static_cast<int>(*String2);
    }
    return 0;
}
