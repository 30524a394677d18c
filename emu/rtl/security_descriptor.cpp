// Validation and capture of the self-relative security descriptors callers
// pass to NtSetSecurityObject. A descriptor is read part by part, each part
// only as far as its own header declares (a SID's sub-authority count, an
// ACL's AclSize). Offsets must lie inside the size the parts themselves add
// up to, so a descriptor can never send us reading past what it declares;
// parts may come in any order but leave no gaps.
#include "rtl/security_descriptor.h"

#include <algorithm>
#include <cstring>

namespace tervane::emu {
namespace {

constexpr UCHAR kSidRevision = 1;
constexpr UCHAR kSidMaxSubAuthorities = 15;
constexpr UCHAR kMinAclRevision = 2, kMaxAclRevision = 4;
constexpr ULONG kSidHeaderSize = 8;  // revision, count, identifier authority
constexpr ULONG kHeaderSize = sizeof(SECURITY_DESCRIPTOR_RELATIVE);

ULONG LongAlign(ULONG n) { return (n + 3) & ~3u; }

// A SID at P with at most ROOM bytes to hold it; its length, or 0 when invalid.
ULONG ValidSidLength(const UCHAR* p, ULONG room) {
    if (room < kSidHeaderSize) return 0;
    if (p[0] != kSidRevision || p[1] > kSidMaxSubAuthorities) return 0;
    ULONG length = kSidHeaderSize + 4u * p[1];
    return length <= room ? length : 0;
}

USHORT ReadUshort(const UCHAR* p) {
    USHORT v;
    memcpy(&v, p, sizeof v);
    return v;
}

// An ACL at P: its AclSize, or 0 when the ACL or one of its entries is invalid.
ULONG ValidAclLength(const UCHAR* p) {
    if (p[0] < kMinAclRevision || p[0] > kMaxAclRevision) return 0;
    ULONG size = ReadUshort(p + offsetof(ACL, AclSize));
    if (size < sizeof(ACL) || (size & 3)) return 0;
    ULONG count = ReadUshort(p + offsetof(ACL, AceCount));
    ULONG pos = sizeof(ACL);
    for (ULONG i = 0; i < count; ++i) {
        if (size - pos < sizeof(ACE_HEADER)) return 0;
        UCHAR type = p[pos];
        ULONG aceSize = ReadUshort(p + pos + offsetof(ACE_HEADER, AceSize));
        if (aceSize < sizeof(ACE_HEADER) || (aceSize & 3) || aceSize > size - pos) return 0;
        // Allowed, denied, audit and alarm entries: header, mask, then a SID
        // that must fit inside the entry.
        if (type <= 3) {
            ULONG sidStart = offsetof(ACCESS_ALLOWED_ACE, SidStart);
            if (aceSize < sidStart || !ValidSidLength(p + pos + sidStart, aceSize - sidStart)) return 0;
        }
        pos += aceSize;
    }
    return size;
}

struct Part {
    ULONG offset;
    bool acl;
    ULONG length = 0;
    ULONG copiedAt = 0;
};

}  // namespace

NTSTATUS RtlpCaptureSecurityDescriptor(PSECURITY_DESCRIPTOR sd, std::vector<UCHAR>* copy) {
    const auto* base = static_cast<const UCHAR*>(sd);
    SECURITY_DESCRIPTOR_RELATIVE header;
    memcpy(&header, base, sizeof header);
    // Only the self-relative form is exchanged with this machine.
    if (header.Revision != SECURITY_DESCRIPTOR_REVISION || !(header.Control & SE_SELF_RELATIVE))
        return STATUS_INVALID_SECURITY_DESCR;

    // In layout order of the copy: SACL, DACL, owner, group.
    Part parts[4] = {{header.Sacl, true}, {header.Dacl, true}, {header.Owner, false}, {header.Group, false}};
    bool present[4] = {(header.Control & SE_SACL_PRESENT) && header.Sacl, (header.Control & SE_DACL_PRESENT) && header.Dacl,
                       header.Owner != 0, header.Group != 0};
    Part* order[4];
    int count = 0;
    for (int i = 0; i < 4; ++i)
        if (present[i]) order[count++] = &parts[i];
    // At most four parts: order them by offset with an insertion sort.
    for (int i = 1; i < count; ++i)
        for (int j = i; j > 0 && order[j]->offset < order[j - 1]->offset; --j) std::swap(order[j], order[j - 1]);

    ULONG implied = kHeaderSize;
    for (int i = 0; i < count; ++i) {
        Part* part = order[i];
        if (part->offset < kHeaderSize || (part->offset & 3) || part->offset > implied)
            return STATUS_INVALID_SECURITY_DESCR;
        const UCHAR* p = base + part->offset;
        if (part->acl) {
            part->length = ValidAclLength(p);
            if (!part->length) return STATUS_INVALID_ACL;
        } else {
            part->length = ValidSidLength(p, kSidHeaderSize + 4u * kSidMaxSubAuthorities);
            if (!part->length) return STATUS_INVALID_SID;
        }
        implied += LongAlign(part->length);
    }
    for (int i = 0; i < count; ++i)
        if (order[i]->offset + order[i]->length > implied) return STATUS_INVALID_SECURITY_DESCR;

    copy->assign(implied, 0);
    ULONG cursor = kHeaderSize;
    for (int i = 0; i < 4; ++i) {
        if (!present[i]) continue;
        parts[i].copiedAt = cursor;
        memcpy(copy->data() + cursor, base + parts[i].offset, parts[i].length);
        cursor += LongAlign(parts[i].length);
    }
    copy->resize(cursor);
    header.Sacl = present[0] ? parts[0].copiedAt : 0;
    header.Dacl = present[1] ? parts[1].copiedAt : 0;
    header.Owner = parts[2].copiedAt;
    header.Group = parts[3].copiedAt;
    memcpy(copy->data(), &header, sizeof header);
    return STATUS_SUCCESS;
}

}  // namespace tervane::emu
