// Turning the records the services return into output lines. Every decoder
// reads only the VALID bytes the service reported and says so when a record
// was cut off, so a short or malformed answer never leads outside the buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "hex.h"

namespace tervane::tool {

// Each decoder can also fill a JSON form of what it decoded (FIELDS: an
// object of Name: value, numbers as numbers; ENTRIES: an array of such
// objects), for --json.

// NtQueryInformationFile: "Name=value" lines. Times read as their value and
// the date ("132000000000000000 (2019-04-18 17:20:00.0000000 UTC)").
std::vector<std::string> DescribeFileInformation(uint32_t infoClass, const uint8_t* buf, size_t valid,
                                                 nlohmann::json* fields = nullptr);
// NtQueryVolumeInformationFile: "Name=value" lines.
std::vector<std::string> DescribeVolumeInformation(uint32_t infoClass, const uint8_t* buf, size_t valid,
                                                   nlohmann::json* fields = nullptr);
// NtQueryDirectoryFile: one line per entry, its name first.
std::vector<std::string> DescribeDirectoryEntries(uint32_t infoClass, const uint8_t* buf, size_t valid,
                                                  nlohmann::json* entries = nullptr);
// A time in 100 ns units since 1601 (UTC) as "YYYY-MM-DD hh:mm:ss.fffffff
// UTC"; empty for 0 and for values outside years 1601 to 9999.
std::string FileTimeText(int64_t time);
// The names of the entries (for conveniences that walk a listing).
struct DirectoryEntry {
    std::string name;  // UTF-8, not escaped
    uint32_t attributes = 0;
    int64_t size = 0;
};
std::vector<DirectoryEntry> ParseBothDirectoryEntries(const uint8_t* buf, size_t valid);
// NtNotifyChangeDirectoryFile: "ACTION name" per record.
std::vector<std::string> DescribeNotifyEntries(const uint8_t* buf, size_t valid);
// A self-relative security descriptor.
std::vector<std::string> DescribeSecurityDescriptor(const uint8_t* buf, size_t valid);

// "S-1-5-32-544" from a SID at BUF; empty when it does not fit in AVAIL.
std::string SidText(const uint8_t* buf, size_t avail);
// Parses "S-1-5-32-544" into its binary form; empty on a malformed SID.
std::vector<uint8_t> ParseSid(const std::string& text);

}  // namespace tervane::tool
