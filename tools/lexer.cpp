#include "lexer.h"

#include <cerrno>
#include <cstdlib>

namespace tervane::tool {
namespace {

// The length of the well-formed UTF-8 sequence at TEXT[I], or 0.
size_t Utf8SequenceLength(std::string_view text, size_t i) {
    auto b = static_cast<unsigned char>(text[i]);
    size_t length = b < 0x80 ? 1 : (b & 0xE0) == 0xC0 ? 2 : (b & 0xF0) == 0xE0 ? 3 : (b & 0xF8) == 0xF0 ? 4 : 0;
    if (length == 0 || i + length > text.size()) return 0;
    uint32_t cp = length == 1 ? b : b & (0x7F >> length);
    for (size_t k = 1; k < length; ++k) {
        auto c = static_cast<unsigned char>(text[i + k]);
        if ((c & 0xC0) != 0x80) return 0;
        cp = cp << 6 | (c & 0x3F);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
    static const uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMin[length] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return length;
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Reads a quoted run starting after the opening quote; returns the index just
// past the closing quote.
size_t ReadQuoted(std::string_view line, size_t i, std::string& out) {
    while (i < line.size()) {
        char c = line[i++];
        if (c == '"') return i;
        if (c != '\\') {
            out += c;
            continue;
        }
        if (i >= line.size()) break;
        char e = line[i++];
        switch (e) {
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case '0': out += '\0'; break;
        case '\\': out += '\\'; break;
        case '"': out += '"'; break;
        case 'x': {
            int hi = i < line.size() ? HexDigit(line[i]) : -1;
            int lo = i + 1 < line.size() ? HexDigit(line[i + 1]) : -1;
            if (hi < 0 || lo < 0) throw ScriptError("\\x must be followed by two hex digits");
            out += static_cast<char>(hi * 16 + lo);
            i += 2;
            break;
        }
        default:
            // Any other backslash stands for itself, so that "C:\docs\a b"
            // needs no doubled backslashes.
            out += '\\';
            out += e;
        }
    }
    throw ScriptError("unterminated quoted argument (a \" is missing)");
}

}  // namespace

std::vector<Token> SplitLine(std::string_view line) {
    std::vector<Token> tokens;
    size_t i = 0;
    while (true) {
        while (i < line.size() && IsBlank(line[i])) ++i;
        if (i >= line.size() || line[i] == '#') break;
        Token token;
        bool seenQuote = false;
        while (i < line.size() && !IsBlank(line[i])) {
            if (line[i] == '"') {
                if (!seenQuote) token.unquotedPrefix = token.text.size();
                seenQuote = true;
                i = ReadQuoted(line, i + 1, token.text);
            } else {
                token.text += line[i++];
            }
        }
        if (!seenQuote) token.unquotedPrefix = token.text.size();
        tokens.push_back(std::move(token));
    }
    return tokens;
}

// TEXT mode keeps what a name may hold (bytes of 0x80 and above, the
// backslash and the quote) and escapes only control characters.
static std::string Escape(std::string_view bytes, bool text) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size());
    for (size_t i = 0; i < bytes.size(); ++i) {
        char ch = bytes[i];
        auto c = static_cast<unsigned char>(ch);
        // Text keeps whole UTF-8 characters; a stray byte is escaped.
        if (text && c >= 0x80) {
            size_t length = Utf8SequenceLength(bytes, i);
            if (length) {
                out.append(bytes.substr(i, length));
                i += length - 1;
                continue;
            }
        }
        if (text && (c == '\\' || c == '"')) {
            out += ch;
            continue;
        }
        switch (c) {
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        case '\\': out += "\\\\"; break;
        case '"': out += "\\\""; break;
        default:
            if (c >= 0x20 && c < 0x7f) {
                out += ch;
            } else {
                out += "\\x";
                out += kHex[c >> 4];
                out += kHex[c & 15];
            }
        }
    }
    return out;
}

std::string EscapeBytes(std::string_view bytes) { return Escape(bytes, false); }
std::string EscapeText(std::string_view text) { return Escape(text, true); }

std::string QuoteText(std::string_view text) { return "\"" + EscapeText(text) + "\""; }

size_t FirstInvalidUtf8(std::string_view text) {
    for (size_t i = 0; i < text.size();) {
        size_t length = Utf8SequenceLength(text, i);
        if (length == 0) return i;
        i += length;
    }
    return std::string_view::npos;
}

int64_t ParseNumber(std::string_view text, const char* what, bool allowNegative) {
    std::string s(text);
    bool negative = !s.empty() && s[0] == '-';
    if (negative && !allowNegative) throw ScriptError(std::string(what) + " must not be negative: " + s);
    const char* digits = s.c_str() + (negative ? 1 : 0);
    int base = 10;
    if (digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        base = 16;
        digits += 2;
    }
    if (*digits == 0) throw ScriptError(std::string("expected a number for ") + what + ", got \"" + s + "\"");
    for (const char* p = digits; *p; ++p) {
        if (base == 10 ? !(*p >= '0' && *p <= '9') : HexDigit(*p) < 0)
            throw ScriptError(std::string("expected a number for ") + what + ", got \"" + s + "\"");
    }
    errno = 0;
    unsigned long long value = std::strtoull(digits, nullptr, base);
    // Hex values may use all 64 bits (NT values are unsigned); decimal ones
    // must fit a signed 64-bit number.
    if (errno == ERANGE || (base == 10 && value > static_cast<unsigned long long>(INT64_MAX)))
        throw ScriptError(std::string(what) + " is out of range: " + s);
    auto result = static_cast<int64_t>(value);
    return negative ? -result : result;
}

}  // namespace tervane::tool
