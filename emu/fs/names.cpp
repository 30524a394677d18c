// Names on the emulated NTFS volume (see names.h).
#include "fs/names.h"

#include <emu/machine.h>

#include <algorithm>

namespace tervane::emu::fs {

char16_t Upcase(char16_t c) {
    if (c < 0x80) return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - 0x20) : c;
    if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return static_cast<char16_t>(c - 0x20);
    if (c == 0xFF) return 0x178;
    if (c >= 0x100 && c <= 0x17F) {
        // Latin Extended-A pairs: upper case even, lower case odd, except the
        // two runs where the pairs start on an odd code point.
        bool oddUpper = (c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E);
        if (c == 0x130 || c == 0x131 || c == 0x138 || c == 0x149 || c == 0x17F) return c;
        if (oddUpper) return (c % 2 == 0) ? static_cast<char16_t>(c - 1) : c;
        return (c % 2 == 1) ? static_cast<char16_t>(c - 1) : c;
    }
    if (c >= 0x3B1 && c <= 0x3C9 && c != 0x3C2) return static_cast<char16_t>(c - 0x20);
    if (c >= 0x430 && c <= 0x44F) return static_cast<char16_t>(c - 0x20);
    if (c >= 0x450 && c <= 0x45F) return static_cast<char16_t>(c - 0x50);
    if (c >= 0xFF41 && c <= 0xFF5A) return static_cast<char16_t>(c - 0x20);
    return c;
}

std::u16string UpcaseString(std::u16string_view s) {
    std::u16string out(s);
    for (auto& c : out) c = Upcase(c);
    return out;
}

bool EqualNoCase(std::u16string_view a, std::u16string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (Upcase(a[i]) != Upcase(b[i])) return false;
    return true;
}

bool LessNoCase(std::u16string_view a, std::u16string_view b) {
    size_t n = std::min(a.size(), b.size());
    for (size_t i = 0; i < n; ++i) {
        char16_t x = Upcase(a[i]), y = Upcase(b[i]);
        if (x != y) return x < y;
    }
    return a.size() < b.size();
}

static bool IsIllegalNameChar(char16_t c) {
    if (c < 0x20) return true;
    switch (c) {
        case u'"': case u'*': case u'/': case u':': case u'<': case u'>': case u'?': case u'\\': case u'|':
            return true;
        default:
            return false;
    }
}

NTSTATUS ValidateComponent(std::u16string_view name) {
    if (name.empty() || name.size() > kMaxComponentLength) return STATUS_OBJECT_NAME_INVALID;
    if (name == u"." || name == u"..") return STATUS_OBJECT_NAME_INVALID;
    for (char16_t c : name)
        if (IsIllegalNameChar(c)) return STATUS_OBJECT_NAME_INVALID;
    return STATUS_SUCCESS;
}

NTSTATUS SplitPath(std::u16string_view path, std::vector<std::u16string>* components, bool* trailingBackslash) {
    components->clear();
    *trailingBackslash = false;
    size_t pos = 0;
    if (!path.empty() && path[0] == u'\\') pos = 1;
    if (pos == path.size()) return STATUS_SUCCESS;  // "\" or ""
    while (pos <= path.size()) {
        size_t end = path.find(u'\\', pos);
        if (end == std::u16string_view::npos) end = path.size();
        std::u16string_view part = path.substr(pos, end - pos);
        if (part.empty()) {
            // Only a single trailing backslash may leave an empty part.
            if (end == path.size() && !components->empty() && path[end - 1] == u'\\' &&
                (end < 2 || path[end - 2] != u'\\')) {
                *trailingBackslash = true;
                return STATUS_SUCCESS;
            }
            return STATUS_OBJECT_NAME_INVALID;
        }
        NTSTATUS status = ValidateComponent(part);
        if (!NT_SUCCESS(status)) return status;
        components->emplace_back(part);
        if (end == path.size()) break;
        pos = end + 1;
        if (pos == path.size()) {
            *trailingBackslash = true;
            break;
        }
    }
    return STATUS_SUCCESS;
}

bool HostNameToNt(std::string_view host, std::u16string* nt) {
    nt->clear();
    return AppendUtf8AsUtf16(host, nt);
}

bool NtNameToHost(std::u16string_view nt, std::string* host) {
    host->clear();
    return AppendNtNameAsHost(nt, host);
}

bool AppendNtNameAsHost(std::u16string_view nt, std::string* host) {
    const size_t start = host->size();
    for (size_t i = 0; i < nt.size(); ++i) {
        uint32_t cp = nt[i];
        if (cp >= 0xD800 && cp <= 0xDBFF) {
            if (i + 1 >= nt.size() || nt[i + 1] < 0xDC00 || nt[i + 1] > 0xDFFF) {
                host->resize(start);
                return false;
            }
            cp = 0x10000 + ((cp - 0xD800) << 10) + (nt[i + 1] - 0xDC00);
            ++i;
        } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
            host->resize(start);
            return false;
        }
        if (cp < 0x80) {
            host->push_back(static_cast<char>(cp));
        } else if (cp < 0x800) {
            host->push_back(static_cast<char>(0xC0 | (cp >> 6)));
            host->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            host->push_back(static_cast<char>(0xE0 | (cp >> 12)));
            host->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            host->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        } else {
            host->push_back(static_cast<char>(0xF0 | (cp >> 18)));
            host->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
            host->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
            host->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
        }
    }
    return true;
}

bool ExpressionHasWildcards(std::u16string_view e) {
    return e.find_first_of(u"*?<>\"") != std::u16string_view::npos;
}

bool IsNameInExpression(std::u16string_view expr, std::u16string_view name) {
    const size_t m = expr.size(), n = name.size();
    const size_t lastDot = name.rfind(u'.');
    // reach[i][j]: expression position i can stand at name position j.
    // Filled forward, one expression position at a time.
    std::vector<char> cur(n + 1, 0), next(n + 1, 0);
    cur[0] = 1;
    for (size_t i = 0; i < m; ++i) {
        std::fill(next.begin(), next.end(), 0);
        char16_t e = expr[i];
        for (size_t j = 0; j <= n; ++j) {
            if (!cur[j]) continue;
            switch (e) {
                case u'*':
                    for (size_t k = j; k <= n; ++k) next[k] = 1;
                    break;
                case u'<':  // any run that does not consume the name's last dot
                    for (size_t k = j; k <= n; ++k) {
                        next[k] = 1;
                        if (k < n && k == lastDot) break;
                    }
                    break;
                case u'>':  // one character, or nothing at a dot or the end
                    if (j < n && name[j] != u'.') next[j + 1] = 1;
                    else next[j] = 1;
                    break;
                case u'"':  // a dot, or nothing at the end
                    if (j < n && name[j] == u'.') next[j + 1] = 1;
                    else if (j == n) next[j] = 1;
                    break;
                case u'?':
                    if (j < n) next[j + 1] = 1;
                    break;
                default:
                    if (j < n && Upcase(name[j]) == Upcase(e)) next[j + 1] = 1;
                    break;
            }
        }
        cur.swap(next);
    }
    return cur[n] != 0;
}

static bool Is83Char(char16_t c) {
    c = Upcase(c);
    if ((c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9')) return true;
    return std::u16string_view(u"!#$%&'()-@^_`{}~").find(c) != std::u16string_view::npos;
}

bool IsValid83Name(std::u16string_view name) {
    size_t dot = name.find(u'.');
    std::u16string_view base = name.substr(0, dot);
    std::u16string_view ext = dot == std::u16string_view::npos ? std::u16string_view() : name.substr(dot + 1);
    if (base.empty() || base.size() > 8) return false;
    if (dot != std::u16string_view::npos && (ext.empty() || ext.size() > 3)) return false;
    for (char16_t c : base)
        if (!Is83Char(c)) return false;
    for (char16_t c : ext)
        if (!Is83Char(c)) return false;
    return true;
}

// Characters of LONGNAME kept in a short name: upcased 8.3 characters; the
// FAT-illegal + , ; = [ ] become '_', non-ASCII becomes '_', blanks and
// dots are dropped.
static std::u16string ShortChars(std::u16string_view s) {
    std::u16string out;
    for (char16_t c : s) {
        if (c == u' ' || c == u'.') continue;
        if (Is83Char(c) && c < 0x80) out.push_back(Upcase(c));
        else out.push_back(u'_');
    }
    return out;
}

std::u16string MakeShortNameCandidate(std::u16string_view longName, int attempt) {
    if (attempt < 1 || attempt > 13) return {};
    std::u16string_view trimmed = longName;
    while (!trimmed.empty() && trimmed.front() == u'.') trimmed.remove_prefix(1);
    size_t dot = trimmed.rfind(u'.');
    std::u16string base = ShortChars(trimmed.substr(0, dot));
    std::u16string ext = dot == std::u16string_view::npos ? std::u16string() : ShortChars(trimmed.substr(dot + 1));
    if (ext.size() > 3) ext.resize(3);
    if (base.empty()) base.assign(1, u'_');
    std::u16string out;
    if (attempt <= 4) {
        out = base.substr(0, 6) + u"~" + static_cast<char16_t>(u'0' + attempt);
    } else {
        uint32_t h = 2166136261u;  // FNV-1a over the upcased long name
        for (char16_t c : longName) h = (h ^ Upcase(c)) * 16777619u;
        static const char16_t kHex[] = u"0123456789ABCDEF";
        out = base.substr(0, 2);
        for (int k = 3; k >= 0; --k) out.push_back(kHex[(h >> (k * 4)) & 0xF]);
        out += u"~";
        out.push_back(static_cast<char16_t>(u'0' + (attempt - 4)));
    }
    if (!ext.empty()) out += u"." + ext;
    return out;
}

}  // namespace tervane::emu::fs
