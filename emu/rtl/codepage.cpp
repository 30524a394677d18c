// Windows-1252 <-> UTF-16.
#include "rtl/codepage.h"

#include <emu/machine.h>

namespace tervane::emu {

namespace {
// 0x80-0x9F; the five bytes the code page leaves undefined map to the C1
// control of the same value, as NT's table does.
constexpr WCHAR kHigh[32] = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                             0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                             0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                             0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};
}  // namespace

WCHAR AnsiToUnicodeChar(unsigned char c) { return (c >= 0x80 && c < 0xA0) ? kHigh[c - 0x80] : c; }

char UnicodeToAnsiChar(WCHAR c) {
    if (c < 0x80 || (c >= 0xA0 && c <= 0xFF)) return static_cast<char>(c);
    for (int i = 0; i < 32; ++i)
        if (kHigh[i] == c) return static_cast<char>(0x80 + i);
    return '?';
}

std::string AnsiToUtf8(const char* text, size_t length) {
    std::u16string wide;
    wide.reserve(length);
    for (size_t i = 0; i < length; ++i) wide.push_back(AnsiToUnicodeChar(static_cast<unsigned char>(text[i])));
    return Utf16ToUtf8(wide);
}

}  // namespace tervane::emu
