// UTF-8 <-> UTF-16 for host code.
#include <emu/machine.h>

namespace tervane::emu {

namespace {

// Appends the UTF-16 form of s. Malformed sequences (overlong forms,
// surrogates, values past U+10FFFF, cut-off or stray bytes) become U+FFFD,
// or end the walk with false when strict.
bool DecodeUtf8(std::string_view s, std::u16string* out, bool strict) {
    size_t i = 0;
    const size_t n = s.size();
    auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    while (i < n) {
        unsigned char c = byte(i);
        uint32_t cp;
        size_t extra;
        uint32_t min;
        if (c < 0x80) { cp = c; extra = 0; min = 0; }
        else if ((c & 0xE0) == 0xC0) { cp = c & 0x1F; extra = 1; min = 0x80; }
        else if ((c & 0xF0) == 0xE0) { cp = c & 0x0F; extra = 2; min = 0x800; }
        else if ((c & 0xF8) == 0xF0) { cp = c & 0x07; extra = 3; min = 0x10000; }
        else {
            if (strict) return false;
            out->push_back(0xFFFD);
            ++i;
            continue;
        }
        size_t k = 1;
        for (; k <= extra; ++k) {
            if (i + k >= n || (byte(i + k) & 0xC0) != 0x80) break;
            cp = (cp << 6) | (byte(i + k) & 0x3F);
        }
        if (k <= extra || cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            if (strict) return false;
            out->push_back(0xFFFD);
            i += k;  // skip the lead byte and the continuation bytes seen
            continue;
        }
        i += k;
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out->push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out->push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            out->push_back(static_cast<char16_t>(cp));
        }
    }
    return true;
}

}  // namespace

std::u16string Utf8ToUtf16(const std::string& s) {
    std::u16string out;
    out.reserve(s.size());
    DecodeUtf8(s, &out, false);
    return out;
}

bool AppendUtf8AsUtf16(std::string_view s, std::u16string* out) { return DecodeUtf8(s, out, true); }

static void AppendUtf8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

static std::string Utf16ToUtf8(const char16_t* p, size_t n) {
    std::string out;
    out.reserve(n);
    for (size_t i = 0; i < n; ++i) {
        uint32_t c = p[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < n && p[i + 1] >= 0xDC00 && p[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (p[i + 1] - 0xDC00);
            ++i;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;  // unpaired surrogate
        }
        AppendUtf8(out, c);
    }
    return out;
}

std::string Utf16ToUtf8(const std::u16string& s) { return Utf16ToUtf8(s.data(), s.size()); }

std::string Utf16ToUtf8(const UNICODE_STRING& s) {
    if (!s.Buffer) return {};
    return Utf16ToUtf8(reinterpret_cast<const char16_t*>(s.Buffer), s.Length / 2);
}

}  // namespace tervane::emu
