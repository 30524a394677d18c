// UTF-8 (the tools' text) and UTF-16 (Windows' text) for the Windows tools.
#pragma once

#include <windows.h>

#include <string>

namespace tervane::win {

inline std::wstring Wide(const std::string& utf8) {
    if (utf8.empty()) return {};
    int n = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
    std::wstring wide(n > 0 ? n : 0, L'\0');
    if (n > 0) MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), wide.data(), n);
    return wide;
}

inline std::string Utf8(const wchar_t* wide) {
    int n = WideCharToMultiByte(CP_UTF8, 0, wide, -1, nullptr, 0, nullptr, nullptr);
    if (n <= 1) return {};
    std::string text(n, '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide, -1, text.data(), n, nullptr, nullptr);
    text.resize(n - 1);  // the terminator
    return text;
}

}  // namespace tervane::win
