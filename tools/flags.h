// NT flag and class names as scripts write them: names joined by '|' or a
// number, information classes by name.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace tervane::tool {

struct NamedValue {
    const char* name;
    uint32_t value;
};

// The tables a script can draw names from.
std::span<const NamedValue> AccessNames();       // GENERIC_*, FILE_* rights, DELETE, SYNCHRONIZE...
std::span<const NamedValue> ShareNames();        // FILE_SHARE_*
std::span<const NamedValue> OptionNames();       // create options
std::span<const NamedValue> AttributeNames();    // FILE_ATTRIBUTE_*
std::span<const NamedValue> DispositionNames();  // FILE_SUPERSEDE .. FILE_OVERWRITE_IF
std::span<const NamedValue> CreateResultNames(); // FILE_SUPERSEDED .. FILE_DOES_NOT_EXIST
std::span<const NamedValue> NotifyFilterNames(); // FILE_NOTIFY_CHANGE_*
std::span<const NamedValue> NotifyActionNames(); // FILE_ACTION_*
std::span<const NamedValue> SecurityInfoNames(); // *_SECURITY_INFORMATION
std::span<const NamedValue> FsctlNames();        // FSCTL_*
std::span<const NamedValue> FsAttributeNames();  // FILE_CASE_SENSITIVE_SEARCH...
std::span<const NamedValue> FileInfoClasses();   // FileBasicInformation = 4 ...
std::span<const NamedValue> FsInfoClasses();     // FileFsVolumeInformation = 1 ...

// Parses NAME|NAME|0x10 against TABLE (names without regard to case). Throws
// ScriptError naming WHAT for an unknown name or a malformed number.
uint32_t ParseFlags(std::string_view text, std::span<const NamedValue> table, const char* what);

// One name of TABLE, or a number.
uint32_t ParseOneName(std::string_view text, std::span<const NamedValue> table, const char* what);

// An information class: its full name (FileBasicInformation), the name
// without "File"/"FileFs" and "Information" (Basic), or its number.
uint32_t ParseInfoClass(std::string_view text, std::span<const NamedValue> table, const char* what);

// 0x00000021 becomes "FILE_ATTRIBUTE_READONLY|FILE_ATTRIBUTE_ARCHIVE"; bits
// without a name are added as a hex number; 0 prints as "0". Only names of a
// single bit (or of exactly VALUE) are used.
std::string FormatFlags(uint32_t value, std::span<const NamedValue> table);

// The name of VALUE in TABLE, or its hex form.
std::string NameOf(uint32_t value, std::span<const NamedValue> table);

// "0x%08X".
std::string Hex32(uint32_t value);

}  // namespace tervane::tool
