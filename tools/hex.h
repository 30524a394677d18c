// Bytes as hex digits and back, for raw requests and their answers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tervane::tool {

// Lower-case hex, no separators.
std::string HexBytes(const uint8_t* buf, size_t size);
// Parses hex digits (blanks ignored); throws ScriptError when malformed.
std::vector<uint8_t> ParseHexBytes(const std::string& text);

}  // namespace tervane::tool
