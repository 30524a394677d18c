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
    // The output as data for --json (the bytes read, the entries listed, the
    // fields queried...): its members are added to the command's record.
    nlohmann::json data = nlohmann::json::object();

    // "STATUS_SUCCESS (0x00000000) info=1".
    std::string ResultLine() const;
    // The result line and the indented output lines, each ending in '\n'.
    std::string Text() const;
    // One JSON object: line, command, status, value, info (when present),
    // output (array of lines), log (array of lines, without the CR of the
    // driver's CRLF line ends), and the members of DATA.
    nlohmann::json Json(int lineNumber, const std::string& command) const;
};

// Splits TEXT into lines (without their '\n'); a final partial line counts.
std::vector<std::string> SplitLines(const std::string& text);

// BYTES for a JSON record: "data" holds them as a string (UTF-8 text stays as
// it is), and "hex" all of them when they are not UTF-8 text.
void PutBytes(nlohmann::json& data, const std::string& bytes);

}  // namespace tervane::tool
