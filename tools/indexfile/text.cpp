// UTF-8 / UTF-16 conversion, host paths as UTF-8, and the case folding of
// index names.
#include <exception>

#include "format.h"
#include "indexfile.h"

namespace tervane::indexfile {

std::filesystem::path HostPath(std::string_view utf8) {
    return std::filesystem::path(std::u8string(utf8.begin(), utf8.end()));
}

bool PathToUtf8(const std::filesystem::path& path, std::string* out) {
    try {
        std::u8string text = path.u8string();
        out->assign(text.begin(), text.end());
        return true;
    } catch (const std::exception&) {  // Windows: an unpaired surrogate
        return false;
    }
}

std::string PathText(const std::filesystem::path& path) {
    std::string text;
    if (PathToUtf8(path, &text)) return text;
    for (auto c : path.native()) text += static_cast<uint32_t>(c) < 0x80 ? static_cast<char>(c) : '?';
    return text;
}

bool Utf8ToUtf16(std::string_view in, std::u16string* out) {
    out->clear();
    size_t i = 0;
    while (i < in.size()) {
        uint8_t b = uint8_t(in[i]);
        uint32_t cp;
        size_t extra;
        if (b < 0x80) {
            cp = b;
            extra = 0;
        } else if ((b & 0xE0) == 0xC0) {
            cp = b & 0x1F;
            extra = 1;
        } else if ((b & 0xF0) == 0xE0) {
            cp = b & 0x0F;
            extra = 2;
        } else if ((b & 0xF8) == 0xF0) {
            cp = b & 0x07;
            extra = 3;
        } else {
            return false;
        }
        if (i + extra >= in.size()) return false;  // truncated sequence
        for (size_t k = 1; k <= extra; k++) {
            uint8_t c = uint8_t(in[i + k]);
            if ((c & 0xC0) != 0x80) return false;
            cp = cp << 6 | (c & 0x3F);
        }
        static const uint32_t kMin[] = {0, 0x80, 0x800, 0x10000};
        if (cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out->push_back(char16_t(0xD800 + (cp >> 10)));
            out->push_back(char16_t(0xDC00 + (cp & 0x3FF)));
        } else {
            out->push_back(char16_t(cp));
        }
        i += extra + 1;
    }
    return true;
}

bool Utf16ToUtf8(std::u16string_view in, std::string* out) {
    out->clear();
    for (size_t i = 0; i < in.size(); i++) {
        uint32_t cp = in[i];
        if (cp >= 0xD800 && cp <= 0xDBFF) {
            if (i + 1 >= in.size() || in[i + 1] < 0xDC00 || in[i + 1] > 0xDFFF) return false;
            cp = 0x10000 + ((cp - 0xD800) << 10) + (in[i + 1] - 0xDC00);
            i++;
        } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
            return false;
        }
        if (cp < 0x80) {
            out->push_back(char(cp));
        } else if (cp < 0x800) {
            out->push_back(char(0xC0 | cp >> 6));
            out->push_back(char(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            out->push_back(char(0xE0 | cp >> 12));
            out->push_back(char(0x80 | ((cp >> 6) & 0x3F)));
            out->push_back(char(0x80 | (cp & 0x3F)));
        } else {
            out->push_back(char(0xF0 | cp >> 18));
            out->push_back(char(0x80 | ((cp >> 12) & 0x3F)));
            out->push_back(char(0x80 | ((cp >> 6) & 0x3F)));
            out->push_back(char(0x80 | (cp & 0x3F)));
        }
    }
    return true;
}

namespace detail {

char16_t UpcaseUnit(char16_t c) {
    if (c >= u'a' && c <= u'z') return char16_t(c - 0x20);
    if (c < 0xE0) return c;
    if (c <= 0xFE) return c == 0xF7 ? c : char16_t(c - 0x20);          // Latin-1
    if (c == 0xFF) return 0x178;
    if (c >= 0x3B1 && c <= 0x3C9 && c != 0x3C2) return char16_t(c - 0x20);  // Greek
    if (c >= 0x430 && c <= 0x44F) return char16_t(c - 0x20);               // Cyrillic
    if (c >= 0x450 && c <= 0x45F) return char16_t(c - 0x50);
    return c;
}

std::u16string Upcase(std::u16string_view s) {
    std::u16string r(s);
    for (auto& c : r) c = UpcaseUnit(c);
    return r;
}

std::u16string RelativePart(std::u16string_view path) {
    if (path.size() >= 2 && path[1] == u':') path.remove_prefix(2);
    std::u16string r(path);
    for (auto& c : r) {
        if (c == u'/') c = u'\\';
    }
    return r;
}

}  // namespace detail
}  // namespace tervane::indexfile
