#include "result.h"

#include <emu/machine.h>

#include "flags.h"
#include "lexer.h"

namespace tervane::tool {

std::string Result::ResultLine() const {
    std::string line = emu::StatusName(status) + " (" + Hex32(static_cast<uint32_t>(status)) + ")";
    if (info) line += " info=" + std::to_string(*info);
    return line;
}

std::string Result::Text() const {
    std::string text = ResultLine() + "\n";
    for (const auto& line : lines) text += "  " + line + "\n";
    return text;
}

nlohmann::json Result::Json(int lineNumber, const std::string& command) const {
    nlohmann::json j;
    j["line"] = lineNumber;
    j["command"] = command;
    j["status"] = emu::StatusName(status);
    j["value"] = Hex32(static_cast<uint32_t>(status));
    if (info) j["info"] = *info;
    j["output"] = lines;
    auto logLines = SplitLines(log);
    for (auto& l : logLines)
        if (!l.empty() && l.back() == '\r') l.pop_back();
    j["log"] = logLines;
    for (const auto& [key, value] : data.items()) j[key] = value;
    return j;
}

void PutBytes(nlohmann::json& data, const std::string& bytes) {
    data["data"] = bytes;
    if (FirstInvalidUtf8(bytes) != std::string::npos) {
        static const char kHex[] = "0123456789abcdef";
        std::string hex;
        for (unsigned char c : bytes) {
            hex += kHex[c >> 4];
            hex += kHex[c & 15];
        }
        data["hex"] = hex;
    }
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t nl = text.find('\n', start);
        if (nl == std::string::npos) {
            lines.push_back(text.substr(start));
            break;
        }
        lines.push_back(text.substr(start, nl - start));
        start = nl + 1;
    }
    return lines;
}

}  // namespace tervane::tool
