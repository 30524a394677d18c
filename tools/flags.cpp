#include "flags.h"

#include <cstdio>
#include <strings.h>

#include <nt/ntifs.h>

#include "lexer.h"

namespace tervane::tool {
namespace {

#define NV(x) NamedValue{#x, static_cast<uint32_t>(x)}

const NamedValue kAccess[] = {
    NV(GENERIC_READ), NV(GENERIC_WRITE), NV(GENERIC_EXECUTE), NV(GENERIC_ALL), NV(MAXIMUM_ALLOWED),
    NV(ACCESS_SYSTEM_SECURITY), NV(DELETE), NV(READ_CONTROL), NV(WRITE_DAC), NV(WRITE_OWNER),
    NV(SYNCHRONIZE), NV(STANDARD_RIGHTS_REQUIRED), NV(STANDARD_RIGHTS_ALL), NV(SPECIFIC_RIGHTS_ALL),
    NV(FILE_READ_DATA), NV(FILE_LIST_DIRECTORY), NV(FILE_WRITE_DATA), NV(FILE_ADD_FILE),
    NV(FILE_APPEND_DATA), NV(FILE_ADD_SUBDIRECTORY), NV(FILE_READ_EA), NV(FILE_WRITE_EA),
    NV(FILE_EXECUTE), NV(FILE_TRAVERSE), NV(FILE_DELETE_CHILD), NV(FILE_READ_ATTRIBUTES),
    NV(FILE_WRITE_ATTRIBUTES), NV(FILE_ALL_ACCESS), NV(FILE_GENERIC_READ), NV(FILE_GENERIC_WRITE),
    NV(FILE_GENERIC_EXECUTE),
};

const NamedValue kShare[] = {NV(FILE_SHARE_READ), NV(FILE_SHARE_WRITE), NV(FILE_SHARE_DELETE),
                             NV(FILE_SHARE_VALID_FLAGS)};

const NamedValue kOptions[] = {
    NV(FILE_DIRECTORY_FILE), NV(FILE_WRITE_THROUGH), NV(FILE_SEQUENTIAL_ONLY),
    NV(FILE_NO_INTERMEDIATE_BUFFERING), NV(FILE_SYNCHRONOUS_IO_ALERT), NV(FILE_SYNCHRONOUS_IO_NONALERT),
    NV(FILE_NON_DIRECTORY_FILE), NV(FILE_CREATE_TREE_CONNECTION), NV(FILE_COMPLETE_IF_OPLOCKED),
    NV(FILE_NO_EA_KNOWLEDGE), NV(FILE_OPEN_FOR_RECOVERY), NV(FILE_RANDOM_ACCESS), NV(FILE_DELETE_ON_CLOSE),
    NV(FILE_OPEN_BY_FILE_ID), NV(FILE_OPEN_FOR_BACKUP_INTENT), NV(FILE_NO_COMPRESSION),
    NV(FILE_RESERVE_OPFILTER), NV(FILE_OPEN_REPARSE_POINT), NV(FILE_OPEN_NO_RECALL),
    NV(FILE_OPEN_FOR_FREE_SPACE_QUERY),
};

const NamedValue kAttributes[] = {
    NV(FILE_ATTRIBUTE_READONLY), NV(FILE_ATTRIBUTE_HIDDEN), NV(FILE_ATTRIBUTE_SYSTEM),
    NV(FILE_ATTRIBUTE_DIRECTORY), NV(FILE_ATTRIBUTE_ARCHIVE), NV(FILE_ATTRIBUTE_DEVICE),
    NV(FILE_ATTRIBUTE_NORMAL), NV(FILE_ATTRIBUTE_TEMPORARY), NV(FILE_ATTRIBUTE_SPARSE_FILE),
    NV(FILE_ATTRIBUTE_REPARSE_POINT), NV(FILE_ATTRIBUTE_COMPRESSED), NV(FILE_ATTRIBUTE_OFFLINE),
    NV(FILE_ATTRIBUTE_NOT_CONTENT_INDEXED), NV(FILE_ATTRIBUTE_ENCRYPTED),
};

const NamedValue kDispositions[] = {NV(FILE_SUPERSEDE), NV(FILE_OPEN), NV(FILE_CREATE),
                                    NV(FILE_OPEN_IF), NV(FILE_OVERWRITE), NV(FILE_OVERWRITE_IF)};

const NamedValue kCreateResults[] = {NV(FILE_SUPERSEDED), NV(FILE_OPENED), NV(FILE_CREATED),
                                     NV(FILE_OVERWRITTEN), NV(FILE_EXISTS), NV(FILE_DOES_NOT_EXIST)};

const NamedValue kNotifyFilters[] = {
    NV(FILE_NOTIFY_CHANGE_FILE_NAME), NV(FILE_NOTIFY_CHANGE_DIR_NAME), NV(FILE_NOTIFY_CHANGE_NAME),
    NV(FILE_NOTIFY_CHANGE_ATTRIBUTES), NV(FILE_NOTIFY_CHANGE_SIZE), NV(FILE_NOTIFY_CHANGE_LAST_WRITE),
    NV(FILE_NOTIFY_CHANGE_LAST_ACCESS), NV(FILE_NOTIFY_CHANGE_CREATION), NV(FILE_NOTIFY_CHANGE_EA),
    NV(FILE_NOTIFY_CHANGE_SECURITY), NV(FILE_NOTIFY_VALID_MASK),
};

const NamedValue kNotifyActions[] = {NV(FILE_ACTION_ADDED), NV(FILE_ACTION_REMOVED), NV(FILE_ACTION_MODIFIED),
                                     NV(FILE_ACTION_RENAMED_OLD_NAME), NV(FILE_ACTION_RENAMED_NEW_NAME)};

const NamedValue kSecurityInfo[] = {NV(OWNER_SECURITY_INFORMATION), NV(GROUP_SECURITY_INFORMATION),
                                    NV(DACL_SECURITY_INFORMATION), NV(SACL_SECURITY_INFORMATION),
                                    NV(LABEL_SECURITY_INFORMATION)};

const NamedValue kFsctl[] = {NV(FSCTL_LOCK_VOLUME), NV(FSCTL_UNLOCK_VOLUME), NV(FSCTL_DISMOUNT_VOLUME),
                             NV(FSCTL_IS_VOLUME_MOUNTED), NV(FSCTL_GET_REPARSE_POINT), NV(FSCTL_GET_OBJECT_ID),
                             NV(FSCTL_FILESYSTEM_GET_STATISTICS)};

const NamedValue kFsAttributes[] = {
    NV(FILE_CASE_SENSITIVE_SEARCH), NV(FILE_CASE_PRESERVED_NAMES), NV(FILE_UNICODE_ON_DISK),
    NV(FILE_PERSISTENT_ACLS), NV(FILE_FILE_COMPRESSION), NV(FILE_VOLUME_QUOTAS),
    NV(FILE_SUPPORTS_SPARSE_FILES), NV(FILE_SUPPORTS_REPARSE_POINTS), NV(FILE_VOLUME_IS_COMPRESSED),
    NV(FILE_SUPPORTS_OBJECT_IDS), NV(FILE_SUPPORTS_ENCRYPTION), NV(FILE_NAMED_STREAMS),
};

const NamedValue kFileClasses[] = {
    NV(FileDirectoryInformation), NV(FileFullDirectoryInformation), NV(FileBothDirectoryInformation),
    NV(FileBasicInformation), NV(FileStandardInformation), NV(FileInternalInformation),
    NV(FileEaInformation), NV(FileAccessInformation), NV(FileNameInformation), NV(FileRenameInformation),
    NV(FileLinkInformation), NV(FileNamesInformation), NV(FileDispositionInformation),
    NV(FilePositionInformation), NV(FileFullEaInformation), NV(FileModeInformation),
    NV(FileAlignmentInformation), NV(FileAllInformation), NV(FileAllocationInformation),
    NV(FileEndOfFileInformation), NV(FileAlternateNameInformation), NV(FileStreamInformation),
    NV(FilePipeInformation), NV(FilePipeLocalInformation), NV(FilePipeRemoteInformation),
    NV(FileMailslotQueryInformation), NV(FileMailslotSetInformation), NV(FileCompressionInformation),
    NV(FileObjectIdInformation), NV(FileCompletionInformation), NV(FileMoveClusterInformation),
    NV(FileQuotaInformation), NV(FileReparsePointInformation), NV(FileNetworkOpenInformation),
    NV(FileAttributeTagInformation), NV(FileTrackingInformation), NV(FileIdBothDirectoryInformation),
    NV(FileIdFullDirectoryInformation), NV(FileValidDataLengthInformation), NV(FileShortNameInformation),
};

const NamedValue kFsClasses[] = {
    NV(FileFsVolumeInformation), NV(FileFsLabelInformation), NV(FileFsSizeInformation),
    NV(FileFsDeviceInformation), NV(FileFsAttributeInformation), NV(FileFsControlInformation),
    NV(FileFsFullSizeInformation), NV(FileFsObjectIdInformation), NV(FileFsDriverPathInformation),
    NV(FileFsVolumeFlagsInformation),
};

#undef NV

bool SameName(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool IsNumber(std::string_view s) { return !s.empty() && s[0] >= '0' && s[0] <= '9'; }

uint32_t ParseUnsigned32(std::string_view text, const char* what) {
    int64_t v = ParseNumber(text, what);
    if (v > 0xffffffffLL) throw ScriptError(std::string(what) + " does not fit 32 bits: " + std::string(text));
    return static_cast<uint32_t>(v);
}

std::string ShortClassName(std::string_view name) {
    std::string_view s = name;
    if (s.starts_with("FileFs")) s.remove_prefix(6);
    else if (s.starts_with("File")) s.remove_prefix(4);
    if (s.ends_with("Information")) s.remove_suffix(11);
    return std::string(s);
}

}  // namespace

std::span<const NamedValue> AccessNames() { return kAccess; }
std::span<const NamedValue> ShareNames() { return kShare; }
std::span<const NamedValue> OptionNames() { return kOptions; }
std::span<const NamedValue> AttributeNames() { return kAttributes; }
std::span<const NamedValue> DispositionNames() { return kDispositions; }
std::span<const NamedValue> CreateResultNames() { return kCreateResults; }
std::span<const NamedValue> NotifyFilterNames() { return kNotifyFilters; }
std::span<const NamedValue> NotifyActionNames() { return kNotifyActions; }
std::span<const NamedValue> SecurityInfoNames() { return kSecurityInfo; }
std::span<const NamedValue> FsctlNames() { return kFsctl; }
std::span<const NamedValue> FsAttributeNames() { return kFsAttributes; }
std::span<const NamedValue> FileInfoClasses() { return kFileClasses; }
std::span<const NamedValue> FsInfoClasses() { return kFsClasses; }

uint32_t ParseOneName(std::string_view text, std::span<const NamedValue> table, const char* what) {
    if (IsNumber(text)) return ParseUnsigned32(text, what);
    for (const auto& nv : table)
        if (SameName(nv.name, text)) return nv.value;
    throw ScriptError("unknown " + std::string(what) + " \"" + std::string(text) + "\"");
}

uint32_t ParseFlags(std::string_view text, std::span<const NamedValue> table, const char* what) {
    if (text.empty()) throw ScriptError(std::string("empty ") + what);
    uint32_t value = 0;
    size_t start = 0;
    while (true) {
        size_t bar = text.find('|', start);
        std::string_view part = text.substr(start, bar == std::string_view::npos ? std::string_view::npos : bar - start);
        if (part.empty()) throw ScriptError(std::string("empty name in ") + what + " \"" + std::string(text) + "\"");
        value |= ParseOneName(part, table, what);
        if (bar == std::string_view::npos) break;
        start = bar + 1;
    }
    return value;
}

uint32_t ParseInfoClass(std::string_view text, std::span<const NamedValue> table, const char* what) {
    if (IsNumber(text)) return ParseUnsigned32(text, what);
    for (const auto& nv : table)
        if (SameName(nv.name, text) || SameName(ShortClassName(nv.name), text)) return nv.value;
    throw ScriptError("unknown " + std::string(what) + " \"" + std::string(text) + "\"");
}

std::string Hex32(uint32_t value) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%08X", value);
    return buf;
}

std::string FormatFlags(uint32_t value, std::span<const NamedValue> table) {
    if (value == 0) return "0";
    for (const auto& nv : table)
        if (nv.value == value) return nv.name;
    std::string out;
    uint32_t rest = value;
    for (const auto& nv : table) {
        bool singleBit = nv.value != 0 && (nv.value & (nv.value - 1)) == 0;
        if (singleBit && (rest & nv.value)) {
            if (!out.empty()) out += '|';
            out += nv.name;
            rest &= ~nv.value;
        }
    }
    if (rest) {
        if (!out.empty()) out += '|';
        out += Hex32(rest);
    }
    return out;
}

std::string NameOf(uint32_t value, std::span<const NamedValue> table) {
    for (const auto& nv : table)
        if (nv.value == value) return nv.name;
    return Hex32(value);
}

}  // namespace tervane::tool
