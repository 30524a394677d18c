// The scenario language's lexer and number parser: any line splits without
// a fault; any bytes, escaped for output and quoted, split back into exactly
// those bytes; numbers either parse or are refused as a script error.
#include <cstdio>
#include <cstdlib>

#include "lexer.h"

using namespace tervane::tool;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    try {
        for (const Token& token : SplitLine(bytes))
            if (token.unquotedPrefix > token.text.size()) std::abort();
    } catch (const ScriptError&) {
    }
    const std::vector<Token> back = SplitLine("\"" + EscapeBytes(bytes) + "\"");
    if (back.size() != 1 || back[0].text != bytes) {
        std::fprintf(stderr, "escaped bytes did not split back into themselves\n");
        std::abort();
    }
    if (FirstInvalidUtf8(bytes) == std::string::npos && FirstInvalidUtf8(EscapeText(bytes)) != std::string::npos)
        std::abort();
    try {
        ParseNumber(bytes, "number", size % 2 == 0);
    } catch (const ScriptError&) {
    }
    return 0;
}
