// Names of the NT status values the machine knows, for messages, the debug
// log and the tervane command. Every value of nt/ntstatus.h appears here (a
// tool test compares the two); values are written out so that the table does
// not depend on which names the header defines. Where two names share a value
// (STATUS_SUCCESS and STATUS_WAIT_0) the first listed is the one printed.
#include <cctype>
#include <cstdio>
#include <string>

#include <emu/status_names.h>

namespace tervane::emu {
namespace {

struct StatusEntry {
    const char* name;
    int32_t value;
};

const StatusEntry kStatuses[] = {
    {"STATUS_SUCCESS", static_cast<int32_t>(0x00000000u)},
    {"STATUS_WAIT_0", static_cast<int32_t>(0x00000000u)},
    {"STATUS_ABANDONED", static_cast<int32_t>(0x00000080u)},
    {"STATUS_USER_APC", static_cast<int32_t>(0x000000C0u)},
    {"STATUS_ALERTED", static_cast<int32_t>(0x00000101u)},
    {"STATUS_TIMEOUT", static_cast<int32_t>(0x00000102u)},
    {"STATUS_PENDING", static_cast<int32_t>(0x00000103u)},
    {"STATUS_REPARSE", static_cast<int32_t>(0x00000104u)},
    {"STATUS_MORE_ENTRIES", static_cast<int32_t>(0x00000105u)},
    {"STATUS_NOT_ALL_ASSIGNED", static_cast<int32_t>(0x00000106u)},
    {"STATUS_SOME_NOT_MAPPED", static_cast<int32_t>(0x00000107u)},
    {"STATUS_OPLOCK_BREAK_IN_PROGRESS", static_cast<int32_t>(0x00000108u)},
    {"STATUS_NOTIFY_CLEANUP", static_cast<int32_t>(0x0000010Bu)},
    {"STATUS_NOTIFY_ENUM_DIR", static_cast<int32_t>(0x0000010Cu)},
    {"STATUS_OBJECT_NAME_EXISTS", static_cast<int32_t>(0x40000000u)},
    {"STATUS_BUFFER_OVERFLOW", static_cast<int32_t>(0x80000005u)},
    {"STATUS_NO_MORE_FILES", static_cast<int32_t>(0x80000006u)},
    {"STATUS_NO_MORE_EAS", static_cast<int32_t>(0x80000012u)},
    {"STATUS_NO_MORE_ENTRIES", static_cast<int32_t>(0x8000001Au)},
    {"STATUS_UNSUCCESSFUL", static_cast<int32_t>(0xC0000001u)},
    {"STATUS_NOT_IMPLEMENTED", static_cast<int32_t>(0xC0000002u)},
    {"STATUS_INVALID_INFO_CLASS", static_cast<int32_t>(0xC0000003u)},
    {"STATUS_INFO_LENGTH_MISMATCH", static_cast<int32_t>(0xC0000004u)},
    {"STATUS_ACCESS_VIOLATION", static_cast<int32_t>(0xC0000005u)},
    {"STATUS_INVALID_HANDLE", static_cast<int32_t>(0xC0000008u)},
    {"STATUS_INVALID_PARAMETER", static_cast<int32_t>(0xC000000Du)},
    {"STATUS_NO_SUCH_DEVICE", static_cast<int32_t>(0xC000000Eu)},
    {"STATUS_NO_SUCH_FILE", static_cast<int32_t>(0xC000000Fu)},
    {"STATUS_INVALID_DEVICE_REQUEST", static_cast<int32_t>(0xC0000010u)},
    {"STATUS_END_OF_FILE", static_cast<int32_t>(0xC0000011u)},
    {"STATUS_NO_MEMORY", static_cast<int32_t>(0xC0000017u)},
    {"STATUS_CONFLICTING_ADDRESSES", static_cast<int32_t>(0xC0000018u)},
    {"STATUS_ACCESS_DENIED", static_cast<int32_t>(0xC0000022u)},
    {"STATUS_BUFFER_TOO_SMALL", static_cast<int32_t>(0xC0000023u)},
    {"STATUS_OBJECT_TYPE_MISMATCH", static_cast<int32_t>(0xC0000024u)},
    {"STATUS_INVALID_PARAMETER_MIX", static_cast<int32_t>(0xC0000030u)},
    {"STATUS_OBJECT_NAME_INVALID", static_cast<int32_t>(0xC0000033u)},
    {"STATUS_OBJECT_NAME_NOT_FOUND", static_cast<int32_t>(0xC0000034u)},
    {"STATUS_OBJECT_NAME_NOT_FOUND_ALIAS", static_cast<int32_t>(0xC0000034u)},
    {"STATUS_OBJECT_NAME_COLLISION", static_cast<int32_t>(0xC0000035u)},
    {"STATUS_OBJECT_PATH_INVALID", static_cast<int32_t>(0xC0000039u)},
    {"STATUS_OBJECT_PATH_NOT_FOUND", static_cast<int32_t>(0xC000003Au)},
    {"STATUS_OBJECT_PATH_SYNTAX_BAD", static_cast<int32_t>(0xC000003Bu)},
    {"STATUS_DATA_ERROR", static_cast<int32_t>(0xC000003Eu)},
    {"STATUS_SHARING_VIOLATION", static_cast<int32_t>(0xC0000043u)},
    {"STATUS_EAS_NOT_SUPPORTED", static_cast<int32_t>(0xC000004Fu)},
    {"STATUS_EA_TOO_LARGE", static_cast<int32_t>(0xC0000050u)},
    {"STATUS_FILE_LOCK_CONFLICT", static_cast<int32_t>(0xC0000054u)},
    {"STATUS_LOCK_NOT_GRANTED", static_cast<int32_t>(0xC0000055u)},
    {"STATUS_DELETE_PENDING", static_cast<int32_t>(0xC0000056u)},
    {"STATUS_INVALID_OWNER", static_cast<int32_t>(0xC000005Au)},
    {"STATUS_INVALID_SID", static_cast<int32_t>(0xC0000078u)},
    {"STATUS_INVALID_ACL", static_cast<int32_t>(0xC0000077u)},
    {"STATUS_INVALID_SECURITY_DESCR", static_cast<int32_t>(0xC0000079u)},
    {"STATUS_RANGE_NOT_LOCKED", static_cast<int32_t>(0xC000007Eu)},
    {"STATUS_DISK_FULL", static_cast<int32_t>(0xC000007Fu)},
    {"STATUS_INSUFFICIENT_RESOURCES", static_cast<int32_t>(0xC000009Au)},
    {"STATUS_MEDIA_WRITE_PROTECTED", static_cast<int32_t>(0xC00000A2u)},
    {"STATUS_FILE_IS_A_DIRECTORY", static_cast<int32_t>(0xC00000BAu)},
    {"STATUS_NOT_SUPPORTED", static_cast<int32_t>(0xC00000BBu)},
    {"STATUS_BAD_NETWORK_PATH", static_cast<int32_t>(0xC00000BEu)},
    {"STATUS_INTERNAL_ERROR", static_cast<int32_t>(0xC00000E5u)},
    {"STATUS_INVALID_PARAMETER_1", static_cast<int32_t>(0xC00000EFu)},
    {"STATUS_INVALID_PARAMETER_2", static_cast<int32_t>(0xC00000F0u)},
    {"STATUS_INVALID_PARAMETER_3", static_cast<int32_t>(0xC00000F1u)},
    {"STATUS_INVALID_PARAMETER_4", static_cast<int32_t>(0xC00000F2u)},
    {"STATUS_DIRECTORY_NOT_EMPTY", static_cast<int32_t>(0xC0000101u)},
    {"STATUS_FILE_CORRUPT_ERROR", static_cast<int32_t>(0xC0000102u)},
    {"STATUS_NOT_A_DIRECTORY", static_cast<int32_t>(0xC0000103u)},
    {"STATUS_NAME_TOO_LONG", static_cast<int32_t>(0xC0000106u)},
    {"STATUS_FILES_OPEN", static_cast<int32_t>(0xC0000107u)},
    {"STATUS_INVALID_IMAGE_FORMAT", static_cast<int32_t>(0xC000007Bu)},
    {"STATUS_INVALID_IMAGE_NOT_MZ", static_cast<int32_t>(0xC000012Fu)},
    {"STATUS_INVALID_IMAGE_WIN_64", static_cast<int32_t>(0xC000035Au)},
    {"STATUS_DLL_NOT_FOUND", static_cast<int32_t>(0xC0000135u)},
    {"STATUS_DRIVER_ORDINAL_NOT_FOUND", static_cast<int32_t>(0xC0000262u)},
    {"STATUS_DRIVER_ENTRYPOINT_NOT_FOUND", static_cast<int32_t>(0xC0000263u)},
    {"STATUS_IMAGE_ALREADY_LOADED", static_cast<int32_t>(0xC000010Eu)},
    {"STATUS_CANCELLED", static_cast<int32_t>(0xC0000120u)},
    {"STATUS_CANNOT_DELETE", static_cast<int32_t>(0xC0000121u)},
    {"STATUS_FILE_DELETED", static_cast<int32_t>(0xC0000123u)},
    {"STATUS_FILE_CLOSED", static_cast<int32_t>(0xC0000128u)},
    {"STATUS_NOT_SAME_DEVICE", static_cast<int32_t>(0xC00000D4u)},
    {"STATUS_FILE_RENAMED", static_cast<int32_t>(0xC00000D5u)},
    {"STATUS_INVALID_LEVEL", static_cast<int32_t>(0xC0000148u)},
    {"STATUS_NOT_LOCKED", static_cast<int32_t>(0xC000002Au)},
    {"STATUS_MAPPED_FILE_SIZE_ZERO", static_cast<int32_t>(0xC000011Eu)},
    {"STATUS_USER_MAPPED_FILE", static_cast<int32_t>(0xC0000243u)},
    {"STATUS_NOT_FOUND", static_cast<int32_t>(0xC0000225u)},
    {"STATUS_INVALID_DEVICE_STATE", static_cast<int32_t>(0xC0000184u)},
    {"STATUS_TOO_MANY_OPENED_FILES", static_cast<int32_t>(0xC000011Fu)},
    {"STATUS_IO_REPARSE_TAG_NOT_HANDLED", static_cast<int32_t>(0xC0000279u)},
    {"STATUS_STOPPED_ON_SYMLINK", static_cast<int32_t>(0x8000002Du)},
    {"STATUS_MUTANT_NOT_OWNED", static_cast<int32_t>(0xC0000046u)},
    {"STATUS_RESOURCE_NOT_OWNED", static_cast<int32_t>(0xC0000264u)},
    {"STATUS_INVALID_USER_BUFFER", static_cast<int32_t>(0xC00000E8u)},
    {"STATUS_NOT_A_REPARSE_POINT", static_cast<int32_t>(0xC0000275u)},
    {"STATUS_DEVICE_NOT_READY", static_cast<int32_t>(0xC00000A3u)},
    {"STATUS_VOLUME_DISMOUNTED", static_cast<int32_t>(0xC000026Eu)},
    {"STATUS_PRIVILEGE_NOT_HELD", static_cast<int32_t>(0xC0000061u)},
    {"STATUS_NONEXISTENT_SECTOR", static_cast<int32_t>(0xC0000015u)},
    {"STATUS_SECTION_TOO_BIG", static_cast<int32_t>(0xC0000040u)},
    {"STATUS_INVALID_VIEW_SIZE", static_cast<int32_t>(0xC000001Fu)},
    {"STATUS_NOT_MAPPED_VIEW", static_cast<int32_t>(0xC0000019u)},
    {"STATUS_INVALID_PARAMETER_6", static_cast<int32_t>(0xC00000F4u)},
    {"STATUS_INVALID_PAGE_PROTECTION", static_cast<int32_t>(0xC0000045u)},
    {"STATUS_MORE_PROCESSING_REQUIRED", static_cast<int32_t>(0xC0000016u)},
    {"STATUS_INVALID_ADDRESS", static_cast<int32_t>(0xC0000141u)},
    {"STATUS_NO_TOKEN", static_cast<int32_t>(0xC000007Cu)},
    {"STATUS_BAD_DEVICE_TYPE", static_cast<int32_t>(0xC00000CBu)},
    {"STATUS_DEVICE_BUSY", static_cast<int32_t>(0x80000011u)},
    {"STATUS_NO_EAS_ON_FILE", static_cast<int32_t>(0xC0000052u)},
    {"STATUS_NONEXISTENT_EA_ENTRY", static_cast<int32_t>(0xC0000051u)},
    {"STATUS_FILE_INVALID", static_cast<int32_t>(0xC0000098u)},
    {"STATUS_UNRECOGNIZED_VOLUME", static_cast<int32_t>(0xC000014Fu)},
};

bool SameNameIgnoringCase(const char* a, const std::string& b) {
    size_t i = 0;
    for (; a[i] != 0; ++i) {
        if (i >= b.size() || std::toupper(static_cast<unsigned char>(a[i])) !=
                                 std::toupper(static_cast<unsigned char>(b[i])))
            return false;
    }
    return i == b.size();
}

}  // namespace

std::string StatusName(int32_t status) {
    for (const auto& entry : kStatuses)
        if (entry.value == status) return entry.name;
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(status));
    return text;
}

// Names are matched without regard to case, so "status_success" is accepted.
bool StatusFromName(const std::string& name, int32_t* status) {
    for (const auto& entry : kStatuses) {
        if (SameNameIgnoringCase(entry.name, name)) {
            if (status) *status = entry.value;
            return true;
        }
    }
    return false;
}

}  // namespace tervane::emu
