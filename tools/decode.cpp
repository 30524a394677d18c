#include "decode.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include <emu/machine.h>
#include <nt/ntifs.h>

#include "flags.h"
#include "lexer.h"

namespace tervane::tool {
namespace {

template <typename T>
T Load(const uint8_t* p) {
    T value;
    std::memcpy(&value, p, sizeof value);
    return value;
}

std::string Utf16Raw(const uint8_t* p, size_t bytes) {
    std::u16string s(bytes / 2, u'\0');
    std::memcpy(s.data(), p, s.size() * 2);
    return emu::Utf16ToUtf8(s);
}

std::string Utf16Text(const uint8_t* p, size_t bytes) { return EscapeText(Utf16Raw(p, bytes)); }

std::string FlagsText(uint32_t value, std::span<const NamedValue> names) {
    std::string text = Hex32(value);
    if (value != 0) text += "(" + FormatFlags(value, names) + ")";
    return text;
}

enum class Kind { I64, Time, U32, Bool, Hex32, Attributes, Access, Mode, FsAttributes, NameLength, Name, Label };

struct Field {
    const char* name;
    size_t offset;
    Kind kind;
    size_t lengthOffset = 0;  // for Name / Label: where the byte count is (a ULONG)
};

size_t FieldSize(Kind kind) {
    switch (kind) {
    case Kind::I64:
    case Kind::Time: return 8;
    case Kind::Bool: return 1;
    case Kind::Name:
    case Kind::Label: return 0;
    default: return 4;
    }
}

// Prints FIELDS of a record at BASE; stops at the first one that does not
// fit in VALID bytes. JSON, when given, gets each field as a member.
void DescribeFields(const Field* fields, size_t count, const uint8_t* buf, size_t valid, size_t base,
                    std::vector<std::string>& out, nlohmann::json* json) {
    for (size_t i = 0; i < count; ++i) {
        const Field& f = fields[i];
        size_t at = base + f.offset;
        if (at + FieldSize(f.kind) > valid) {
            out.push_back(std::string("(the record ends before ") + f.name + ")");
            return;
        }
        const uint8_t* p = buf + at;
        std::string value;
        nlohmann::json raw;
        switch (f.kind) {
        case Kind::I64: raw = Load<int64_t>(p); value = std::to_string(Load<int64_t>(p)); break;
        case Kind::Time: {
            int64_t time = Load<int64_t>(p);
            raw = time;
            value = std::to_string(time);
            std::string date = FileTimeText(time);
            if (!date.empty()) value += " (" + date + ")";
            break;
        }
        case Kind::U32:
        case Kind::NameLength: raw = Load<uint32_t>(p); value = std::to_string(Load<uint32_t>(p)); break;
        case Kind::Bool: raw = static_cast<unsigned>(*p); value = std::to_string(static_cast<unsigned>(*p)); break;
        case Kind::Hex32: value = Hex32(Load<uint32_t>(p)); break;
        case Kind::Attributes: value = FlagsText(Load<uint32_t>(p), AttributeNames()); break;
        case Kind::Access: value = FlagsText(Load<uint32_t>(p), AccessNames()); break;
        case Kind::Mode: value = FlagsText(Load<uint32_t>(p), OptionNames()); break;
        case Kind::FsAttributes: value = FlagsText(Load<uint32_t>(p), FsAttributeNames()); break;
        case Kind::Name:
        case Kind::Label: {
            uint32_t length = Load<uint32_t>(buf + base + f.lengthOffset);
            size_t fits = valid - at;
            bool cut = length > fits;
            raw = Utf16Raw(p, cut ? fits : length);
            value = Utf16Text(p, cut ? fits : length);
            if (cut) value += " (cut off: " + std::to_string(fits) + " of " + std::to_string(length) + " bytes)";
            break;
        }
        }
        if (raw.is_null()) raw = Load<uint32_t>(p);  // hex and flag fields: their value
        if (json) (*json)[f.name] = raw;
        out.push_back(std::string(f.name) + "=" + value);
    }
}

#define F(type, field, kind) Field{#field, offsetof(type, field), Kind::kind}
#define FN(type, field, lengthField) Field{#field, offsetof(type, field), Kind::Name, offsetof(type, lengthField)}

const Field kBasic[] = {F(FILE_BASIC_INFORMATION, CreationTime, Time), F(FILE_BASIC_INFORMATION, LastAccessTime, Time),
                        F(FILE_BASIC_INFORMATION, LastWriteTime, Time), F(FILE_BASIC_INFORMATION, ChangeTime, Time),
                        F(FILE_BASIC_INFORMATION, FileAttributes, Attributes)};
const Field kStandard[] = {F(FILE_STANDARD_INFORMATION, AllocationSize, I64),
                           F(FILE_STANDARD_INFORMATION, EndOfFile, I64),
                           F(FILE_STANDARD_INFORMATION, NumberOfLinks, U32),
                           F(FILE_STANDARD_INFORMATION, DeletePending, Bool),
                           F(FILE_STANDARD_INFORMATION, Directory, Bool)};
const Field kInternal[] = {F(FILE_INTERNAL_INFORMATION, IndexNumber, I64)};
const Field kEa[] = {F(FILE_EA_INFORMATION, EaSize, U32)};
const Field kAccess[] = {F(FILE_ACCESS_INFORMATION, AccessFlags, Access)};
const Field kPosition[] = {F(FILE_POSITION_INFORMATION, CurrentByteOffset, I64)};
const Field kMode[] = {F(FILE_MODE_INFORMATION, Mode, Mode)};
const Field kAlignment[] = {F(FILE_ALIGNMENT_INFORMATION, AlignmentRequirement, U32)};
const Field kName[] = {F(FILE_NAME_INFORMATION, FileNameLength, NameLength),
                       FN(FILE_NAME_INFORMATION, FileName, FileNameLength)};
const Field kNetworkOpen[] = {
    F(FILE_NETWORK_OPEN_INFORMATION, CreationTime, Time), F(FILE_NETWORK_OPEN_INFORMATION, LastAccessTime, Time),
    F(FILE_NETWORK_OPEN_INFORMATION, LastWriteTime, Time), F(FILE_NETWORK_OPEN_INFORMATION, ChangeTime, Time),
    F(FILE_NETWORK_OPEN_INFORMATION, AllocationSize, I64), F(FILE_NETWORK_OPEN_INFORMATION, EndOfFile, I64),
    F(FILE_NETWORK_OPEN_INFORMATION, FileAttributes, Attributes)};
const Field kAttributeTag[] = {F(FILE_ATTRIBUTE_TAG_INFORMATION, FileAttributes, Attributes),
                               F(FILE_ATTRIBUTE_TAG_INFORMATION, ReparseTag, Hex32)};

const Field kFsVolume[] = {F(FILE_FS_VOLUME_INFORMATION, VolumeCreationTime, Time),
                           F(FILE_FS_VOLUME_INFORMATION, VolumeSerialNumber, Hex32),
                           F(FILE_FS_VOLUME_INFORMATION, VolumeLabelLength, NameLength),
                           F(FILE_FS_VOLUME_INFORMATION, SupportsObjects, Bool),
                           FN(FILE_FS_VOLUME_INFORMATION, VolumeLabel, VolumeLabelLength)};
const Field kFsLabel[] = {F(FILE_FS_LABEL_INFORMATION, VolumeLabelLength, NameLength),
                          FN(FILE_FS_LABEL_INFORMATION, VolumeLabel, VolumeLabelLength)};
const Field kFsSize[] = {F(FILE_FS_SIZE_INFORMATION, TotalAllocationUnits, I64),
                         F(FILE_FS_SIZE_INFORMATION, AvailableAllocationUnits, I64),
                         F(FILE_FS_SIZE_INFORMATION, SectorsPerAllocationUnit, U32),
                         F(FILE_FS_SIZE_INFORMATION, BytesPerSector, U32)};
const Field kFsFullSize[] = {F(FILE_FS_FULL_SIZE_INFORMATION, TotalAllocationUnits, I64),
                             F(FILE_FS_FULL_SIZE_INFORMATION, CallerAvailableAllocationUnits, I64),
                             F(FILE_FS_FULL_SIZE_INFORMATION, ActualAvailableAllocationUnits, I64),
                             F(FILE_FS_FULL_SIZE_INFORMATION, SectorsPerAllocationUnit, U32),
                             F(FILE_FS_FULL_SIZE_INFORMATION, BytesPerSector, U32)};
const Field kFsDevice[] = {F(FILE_FS_DEVICE_INFORMATION, DeviceType, Hex32),
                           F(FILE_FS_DEVICE_INFORMATION, Characteristics, Hex32)};
const Field kFsAttribute[] = {F(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemAttributes, FsAttributes),
                              F(FILE_FS_ATTRIBUTE_INFORMATION, MaximumComponentNameLength, U32),
                              F(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemNameLength, NameLength),
                              FN(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName, FileSystemNameLength)};

#define TABLE(t) t, sizeof(t) / sizeof((t)[0])

std::vector<std::string> Raw(const uint8_t* buf, size_t valid) {
    return {"bytes=" + HexBytes(buf, valid)};
}

}  // namespace

std::vector<std::string> DescribeFileInformation(uint32_t infoClass, const uint8_t* buf, size_t valid,
                                                 nlohmann::json* fields) {
    std::vector<std::string> out;
    switch (infoClass) {
    case FileBasicInformation: DescribeFields(TABLE(kBasic), buf, valid, 0, out, fields); break;
    case FileStandardInformation: DescribeFields(TABLE(kStandard), buf, valid, 0, out, fields); break;
    case FileInternalInformation: DescribeFields(TABLE(kInternal), buf, valid, 0, out, fields); break;
    case FileEaInformation: DescribeFields(TABLE(kEa), buf, valid, 0, out, fields); break;
    case FileAccessInformation: DescribeFields(TABLE(kAccess), buf, valid, 0, out, fields); break;
    case FilePositionInformation: DescribeFields(TABLE(kPosition), buf, valid, 0, out, fields); break;
    case FileModeInformation: DescribeFields(TABLE(kMode), buf, valid, 0, out, fields); break;
    case FileAlignmentInformation: DescribeFields(TABLE(kAlignment), buf, valid, 0, out, fields); break;
    case FileNameInformation:
    case FileAlternateNameInformation: DescribeFields(TABLE(kName), buf, valid, 0, out, fields); break;
    case FileNetworkOpenInformation: DescribeFields(TABLE(kNetworkOpen), buf, valid, 0, out, fields); break;
    case FileAttributeTagInformation: DescribeFields(TABLE(kAttributeTag), buf, valid, 0, out, fields); break;
    case FileAllInformation: {
        // The parts in their order; each stops the listing when cut off.
        struct Part {
            const Field* fields;
            size_t count;
            size_t offset;
        };
        const Part parts[] = {
            {TABLE(kBasic), offsetof(FILE_ALL_INFORMATION, BasicInformation)},
            {TABLE(kStandard), offsetof(FILE_ALL_INFORMATION, StandardInformation)},
            {TABLE(kInternal), offsetof(FILE_ALL_INFORMATION, InternalInformation)},
            {TABLE(kEa), offsetof(FILE_ALL_INFORMATION, EaInformation)},
            {TABLE(kAccess), offsetof(FILE_ALL_INFORMATION, AccessInformation)},
            {TABLE(kPosition), offsetof(FILE_ALL_INFORMATION, PositionInformation)},
            {TABLE(kMode), offsetof(FILE_ALL_INFORMATION, ModeInformation)},
            {TABLE(kAlignment), offsetof(FILE_ALL_INFORMATION, AlignmentInformation)},
            {TABLE(kName), offsetof(FILE_ALL_INFORMATION, NameInformation)},
        };
        for (const auto& part : parts) {
            size_t before = out.size();
            DescribeFields(part.fields, part.count, buf, valid, part.offset, out, fields);
            if (out.size() > before && out.back().rfind("(the record ends", 0) == 0) break;
        }
        break;
    }
    default:
        if (fields) (*fields)["bytes"] = HexBytes(buf, valid);
        return Raw(buf, valid);
    }
    return out;
}

std::vector<std::string> DescribeVolumeInformation(uint32_t infoClass, const uint8_t* buf, size_t valid,
                                                   nlohmann::json* fields) {
    std::vector<std::string> out;
    switch (infoClass) {
    case FileFsVolumeInformation: DescribeFields(TABLE(kFsVolume), buf, valid, 0, out, fields); break;
    case FileFsLabelInformation: DescribeFields(TABLE(kFsLabel), buf, valid, 0, out, fields); break;
    case FileFsSizeInformation: DescribeFields(TABLE(kFsSize), buf, valid, 0, out, fields); break;
    case FileFsFullSizeInformation: DescribeFields(TABLE(kFsFullSize), buf, valid, 0, out, fields); break;
    case FileFsDeviceInformation: DescribeFields(TABLE(kFsDevice), buf, valid, 0, out, fields); break;
    case FileFsAttributeInformation: DescribeFields(TABLE(kFsAttribute), buf, valid, 0, out, fields); break;
    default:
        if (fields) (*fields)["bytes"] = HexBytes(buf, valid);
        return Raw(buf, valid);
    }
    return out;
}

namespace {

// Where the parts of one directory record are, by class.
struct DirLayout {
    size_t nameLength, name, endOfFile, allocation, attributes;
    size_t eaSize = 0, shortLength = 0, shortName = 0, fileId = 0;  // 0: not in this class
    bool namesOnly = false;
};

bool LayoutFor(uint32_t infoClass, DirLayout* l) {
#define COMMON(T) offsetof(T, FileNameLength), offsetof(T, FileName), offsetof(T, EndOfFile), \
                  offsetof(T, AllocationSize), offsetof(T, FileAttributes)
    switch (infoClass) {
    case FileDirectoryInformation: *l = {COMMON(FILE_DIRECTORY_INFORMATION)}; return true;
    case FileFullDirectoryInformation:
        *l = {COMMON(FILE_FULL_DIR_INFORMATION), offsetof(FILE_FULL_DIR_INFORMATION, EaSize)};
        return true;
    case FileIdFullDirectoryInformation:
        *l = {COMMON(FILE_ID_FULL_DIR_INFORMATION), offsetof(FILE_ID_FULL_DIR_INFORMATION, EaSize), 0, 0,
              offsetof(FILE_ID_FULL_DIR_INFORMATION, FileId)};
        return true;
    case FileBothDirectoryInformation:
        *l = {COMMON(FILE_BOTH_DIR_INFORMATION), offsetof(FILE_BOTH_DIR_INFORMATION, EaSize),
              offsetof(FILE_BOTH_DIR_INFORMATION, ShortNameLength), offsetof(FILE_BOTH_DIR_INFORMATION, ShortName)};
        return true;
    case FileIdBothDirectoryInformation:
        *l = {COMMON(FILE_ID_BOTH_DIR_INFORMATION), offsetof(FILE_ID_BOTH_DIR_INFORMATION, EaSize),
              offsetof(FILE_ID_BOTH_DIR_INFORMATION, ShortNameLength),
              offsetof(FILE_ID_BOTH_DIR_INFORMATION, ShortName), offsetof(FILE_ID_BOTH_DIR_INFORMATION, FileId)};
        return true;
    case FileNamesInformation:
        *l = {offsetof(FILE_NAMES_INFORMATION, FileNameLength), offsetof(FILE_NAMES_INFORMATION, FileName), 0, 0, 0};
        l->namesOnly = true;
        return true;
    default: return false;
    }
#undef COMMON
}

// Walks the records of a listing; calls VISIT(record, name) for each whole
// one. Returns a line describing a malformed chain, or an empty string.
template <typename Visit>
std::string WalkRecords(const uint8_t* buf, size_t valid, size_t fixedSize, size_t nameLengthOffset,
                        size_t nameOffset, Visit visit) {
    size_t at = 0;
    while (true) {
        if (at + fixedSize > valid) return "record at offset " + std::to_string(at) + " is cut off";
        const uint8_t* rec = buf + at;
        uint32_t next = Load<uint32_t>(rec);
        uint32_t nameLength = Load<uint32_t>(rec + nameLengthOffset);
        if (nameOffset + nameLength > valid - at)
            return "name of the record at offset " + std::to_string(at) + " is cut off";
        visit(rec, Utf16Text(rec + nameOffset, nameLength));
        if (next == 0) return {};
        if (next % 8 != 0) return "record at offset " + std::to_string(at) + " has a next offset not 8-byte aligned";
        if (next > valid - at) return "record at offset " + std::to_string(at) + " points past the data";
        at += next;
    }
}

}  // namespace

std::vector<std::string> DescribeDirectoryEntries(uint32_t infoClass, const uint8_t* buf, size_t valid,
                                                  nlohmann::json* entries) {
    DirLayout l;
    if (entries) *entries = nlohmann::json::array();
    if (!LayoutFor(infoClass, &l)) return Raw(buf, valid);
    std::vector<std::string> out;
    if (valid == 0) return out;
    std::string problem = WalkRecords(buf, valid, l.name, l.nameLength, l.name, [&](const uint8_t* rec, std::string name) {
        nlohmann::json entry;
        entry["FileName"] = Utf16Raw(rec + l.name, Load<uint32_t>(rec + l.nameLength));
        std::string line = std::move(name);
        auto add = [&](const char* key, const std::string& text, nlohmann::json value) {
            line += std::string(" ") + key + "=" + text;
            entry[key] = std::move(value);
        };
        if (!l.namesOnly) {
            int64_t end = Load<int64_t>(rec + l.endOfFile), allocation = Load<int64_t>(rec + l.allocation);
            uint32_t attributes = Load<uint32_t>(rec + l.attributes);
            add("EndOfFile", std::to_string(end), end);
            add("AllocationSize", std::to_string(allocation), allocation);
            add("FileAttributes", FlagsText(attributes, AttributeNames()), attributes);
        }
        if (l.eaSize) add("EaSize", std::to_string(Load<uint32_t>(rec + l.eaSize)), Load<uint32_t>(rec + l.eaSize));
        if (l.shortName) {
            size_t shortLength = std::min<size_t>(rec[l.shortLength], 24);
            add("ShortName", Utf16Text(rec + l.shortName, shortLength), Utf16Raw(rec + l.shortName, shortLength));
        }
        if (l.fileId) add("FileId", std::to_string(Load<int64_t>(rec + l.fileId)), Load<int64_t>(rec + l.fileId));
        out.push_back(std::move(line));
        if (entries) entries->push_back(std::move(entry));
    });
    if (!problem.empty()) out.push_back("(" + problem + ")");
    return out;
}

std::string FileTimeText(int64_t time) {
    // 100 ns units from 1601-01-01 to 1970-01-01, and to 10000-01-01.
    constexpr int64_t kUnixEpoch = 116444736000000000LL;
    constexpr int64_t kYear10000 = 2650467744000000000LL;
    if (time <= 0 || time >= kYear10000) return {};
    int64_t fromUnix = time - kUnixEpoch;
    int64_t seconds = fromUnix >= 0 ? fromUnix / 10000000 : -((-fromUnix + 9999999) / 10000000);
    int64_t fraction = fromUnix - seconds * 10000000;
    time_t t = static_cast<time_t>(seconds);
    struct tm parts {};
    if (!gmtime_r(&t, &parts)) return {};
    char text[96];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%07lld UTC", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, static_cast<long long>(fraction));
    return text;
}

std::vector<DirectoryEntry> ParseBothDirectoryEntries(const uint8_t* buf, size_t valid) {
    std::vector<DirectoryEntry> entries;
    if (valid == 0) return entries;
    using T = FILE_BOTH_DIR_INFORMATION;
    WalkRecords(buf, valid, offsetof(T, FileName), offsetof(T, FileNameLength), offsetof(T, FileName),
                [&](const uint8_t* rec, const std::string&) {
                    entries.push_back({Utf16Raw(rec + offsetof(T, FileName), Load<uint32_t>(rec + offsetof(T, FileNameLength))),
                                       Load<uint32_t>(rec + offsetof(T, FileAttributes)),
                                       Load<int64_t>(rec + offsetof(T, EndOfFile))});
                });
    return entries;
}

std::vector<std::string> DescribeNotifyEntries(const uint8_t* buf, size_t valid) {
    std::vector<std::string> out;
    if (valid == 0) return out;
    using T = FILE_NOTIFY_INFORMATION;
    std::string problem = WalkRecords(buf, valid, offsetof(T, FileName), offsetof(T, FileNameLength),
                                      offsetof(T, FileName), [&](const uint8_t* rec, std::string name) {
                                          uint32_t action = Load<uint32_t>(rec + offsetof(T, Action));
                                          out.push_back(NameOf(action, NotifyActionNames()) + " " + name);
                                      });
    if (!problem.empty()) out.push_back("(" + problem + ")");
    return out;
}

std::string SidText(const uint8_t* buf, size_t avail) {
    if (avail < 8) return {};
    uint8_t count = buf[1];
    if (avail < 8 + 4u * count) return {};
    uint64_t authority = 0;
    for (int i = 2; i < 8; ++i) authority = authority << 8 | buf[i];
    std::string text = "S-" + std::to_string(buf[0]) + "-" + std::to_string(authority);
    for (uint8_t i = 0; i < count; ++i) text += "-" + std::to_string(Load<uint32_t>(buf + 8 + 4 * i));
    return text;
}

std::vector<uint8_t> ParseSid(const std::string& text) {
    if (text.rfind("S-", 0) != 0 && text.rfind("s-", 0) != 0) return {};
    std::vector<uint64_t> parts;
    size_t at = 2;
    while (at <= text.size()) {
        size_t dash = text.find('-', at);
        std::string part = text.substr(at, dash == std::string::npos ? std::string::npos : dash - at);
        if (part.empty() || part.size() > 15 || part.find_first_not_of("0123456789") != std::string::npos) return {};
        parts.push_back(std::stoull(part));
        if (dash == std::string::npos) break;
        at = dash + 1;
    }
    // Revision, authority, then 0 to 15 sub-authorities of 32 bits.
    if (parts.size() < 2 || parts.size() > 17 || parts[0] > 255 || parts[1] >= (1ull << 48)) return {};
    std::vector<uint8_t> sid(8 + 4 * (parts.size() - 2));
    sid[0] = static_cast<uint8_t>(parts[0]);
    sid[1] = static_cast<uint8_t>(parts.size() - 2);
    for (int i = 0; i < 6; ++i) sid[2 + i] = static_cast<uint8_t>(parts[1] >> (8 * (5 - i)));
    for (size_t i = 2; i < parts.size(); ++i) {
        if (parts[i] > 0xffffffffull) return {};
        uint32_t v = static_cast<uint32_t>(parts[i]);
        std::memcpy(sid.data() + 8 + 4 * (i - 2), &v, 4);
    }
    return sid;
}

namespace {

void DescribeAcl(const char* what, const uint8_t* buf, size_t valid, uint32_t offset, std::vector<std::string>& out) {
    if (offset + sizeof(ACL) > valid) {
        out.push_back(std::string(what) + " at offset " + std::to_string(offset) + " lies outside the descriptor");
        return;
    }
    const uint8_t* acl = buf + offset;
    uint16_t aclSize = Load<uint16_t>(acl + offsetof(ACL, AclSize));
    uint16_t aceCount = Load<uint16_t>(acl + offsetof(ACL, AceCount));
    out.push_back(std::string(what) + " AclSize=" + std::to_string(aclSize) + " AceCount=" + std::to_string(aceCount));
    size_t end = std::min<size_t>(valid, offset + static_cast<size_t>(aclSize));
    size_t at = offset + sizeof(ACL);
    for (uint16_t i = 0; i < aceCount; ++i) {
        if (at + sizeof(ACE_HEADER) + 4 > end) {
            out.push_back("  ace " + std::to_string(i) + " lies outside the ACL");
            return;
        }
        uint8_t type = buf[at];
        uint8_t flags = buf[at + 1];
        uint16_t aceSize = Load<uint16_t>(buf + at + 2);
        if (aceSize < sizeof(ACE_HEADER) + 4 || at + aceSize > end) {
            out.push_back("  ace " + std::to_string(i) + " has a bad size " + std::to_string(aceSize));
            return;
        }
        const char* typeName = type == ACCESS_ALLOWED_ACE_TYPE  ? "allow"
                               : type == ACCESS_DENIED_ACE_TYPE ? "deny"
                               : type == SYSTEM_AUDIT_ACE_TYPE  ? "audit"
                                                                : "type?";
        std::string sid = SidText(buf + at + 8, aceSize - 8);
        out.push_back("  " + std::string(typeName) + " " + Hex32(Load<uint32_t>(buf + at + 4)) + " " +
                      (sid.empty() ? "(bad SID)" : sid) + " flags=" + std::to_string(flags));
        at += aceSize;
    }
}

}  // namespace

std::vector<std::string> DescribeSecurityDescriptor(const uint8_t* buf, size_t valid) {
    using SD = SECURITY_DESCRIPTOR_RELATIVE;
    std::vector<std::string> out;
    if (valid < sizeof(SD)) {
        out.push_back("(a descriptor of " + std::to_string(valid) + " bytes is too short)");
        return out;
    }
    uint16_t control = Load<uint16_t>(buf + offsetof(SD, Control));
    char controlText[8];
    std::snprintf(controlText, sizeof controlText, "0x%04X", control);
    out.push_back("Revision=" + std::to_string(buf[0]) + " Control=" + controlText);
    for (auto [name, field] : {std::pair{"Owner", offsetof(SD, Owner)}, std::pair{"Group", offsetof(SD, Group)}}) {
        uint32_t offset = Load<uint32_t>(buf + field);
        if (offset == 0) continue;
        std::string sid = offset < valid ? SidText(buf + offset, valid - offset) : std::string();
        out.push_back(std::string(name) + "=" + (sid.empty() ? "(outside the descriptor)" : sid));
    }
    struct AclField {
        const char* name;
        uint32_t presentBit;
        size_t offsetField;
    };
    for (const AclField& acl : {AclField{"Dacl", SE_DACL_PRESENT, offsetof(SD, Dacl)},
                                AclField{"Sacl", SE_SACL_PRESENT, offsetof(SD, Sacl)}}) {
        if (!(control & acl.presentBit)) continue;
        uint32_t offset = Load<uint32_t>(buf + acl.offsetField);
        if (offset == 0) out.push_back(std::string(acl.name) + "=null");
        else DescribeAcl(acl.name, buf, valid, offset, out);
    }
    return out;
}

}  // namespace tervane::tool
