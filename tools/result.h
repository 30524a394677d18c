// What one command produced, and the two ways of printing it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <nt/ntdef.h>

namespace tervane::tool {

struct Result {
    NTSTATUS status = 0;
    std::optional<uint64_t> info;     // the status block's Information, when there is one
    std::vector<std::string> lines;   // output lines, without the two-blank indent
    std::string log;                  // kernel debug output while the command ran

    // "STATUS_SUCCESS (0x00000000) info=1".
    std::string ResultLine() const;
    // The result line and the indented output lines, each ending in '\n'.
    std::string Text() const;
    // One JSON object: line, command, status, value, info (when present),
    // output (array of lines) and log (array of lines).
    nlohmann::json Json(int lineNumber, const std::string& command) const;
};

// Splits TEXT into lines (without their '\n'); a final partial line counts.
std::vector<std::string> SplitLines(const std::string& text);

}  // namespace tervane::tool
