#include "hex.h"

#include "lexer.h"

namespace tervane::tool {

std::string HexBytes(const uint8_t* buf, size_t size) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < size; ++i) {
        out += kHex[buf[i] >> 4];
        out += kHex[buf[i] & 15];
    }
    return out;
}

std::vector<uint8_t> ParseHexBytes(const std::string& text) {
    std::vector<uint8_t> out;
    int high = -1;
    for (char c : text) {
        if (c == ' ') continue;
        int v = (c >= '0' && c <= '9') ? c - '0'
                : (c >= 'a' && c <= 'f') ? c - 'a' + 10
                : (c >= 'A' && c <= 'F') ? c - 'A' + 10
                                          : -1;
        if (v < 0) throw ScriptError("malformed hex bytes \"" + text + "\"");
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<uint8_t>(high * 16 + v));
            high = -1;
        }
    }
    if (high >= 0) throw ScriptError("odd number of hex digits in \"" + text + "\"");
    return out;
}

}  // namespace tervane::tool
