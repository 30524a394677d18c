// Security descriptors of the emulated NTFS driver. Each file keeps a
// self-relative descriptor on the host; a file that has none answers with
// the default one. Queries return the requested parts in self-relative
// form; sets replace the parts named. Descriptors are stored and reported,
// not enforced: the machine has no tokens to check them against.
#include <cstring>

#include "fs/fsstruc.h"

namespace tervane::emu::fs {

namespace {

using Bytes = std::vector<uint8_t>;

// S-1-<authority>-<subs...>
Bytes MakeSid(uint8_t authority, std::initializer_list<ULONG> subs) {
    Bytes b{1, static_cast<uint8_t>(subs.size()), 0, 0, 0, 0, 0, authority};
    for (ULONG s : subs)
        for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(s >> (8 * i)));
    return b;
}

void Put16(Bytes& b, size_t at, uint16_t v) {
    b[at] = static_cast<uint8_t>(v);
    b[at + 1] = static_cast<uint8_t>(v >> 8);
}
void Put32(Bytes& b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

Bytes MakeAllowAce(uint8_t flags, ACCESS_MASK mask, const Bytes& sid) {
    Bytes ace(8);
    ace[0] = ACCESS_ALLOWED_ACE_TYPE;
    ace[1] = flags;
    Put16(ace, 2, static_cast<uint16_t>(8 + sid.size()));
    Put32(ace, 4, mask);
    ace.insert(ace.end(), sid.begin(), sid.end());
    return ace;
}

// Length of a SID at P with AVAIL bytes, or 0 when malformed.
size_t SidLength(const uint8_t* p, size_t avail) {
    if (avail < 8 || p[0] != 1 || p[1] > 15) return 0;
    size_t len = 8 + 4u * p[1];
    return len <= avail ? len : 0;
}

// Length of an ACL at P with AVAIL bytes, or 0 when malformed.
size_t AclLength(const uint8_t* p, size_t avail) {
    if (avail < sizeof(ACL)) return 0;
    size_t size = p[2] | (p[3] << 8);
    size_t count = p[4] | (p[5] << 8);
    if ((p[0] != 2 && p[0] != 4) || size < sizeof(ACL) || size > avail) return 0;
    size_t at = sizeof(ACL);
    for (size_t i = 0; i < count; ++i) {
        if (at + 4 > size) return 0;
        size_t aceSize = p[at + 2] | (p[at + 3] << 8);
        if (aceSize < 4 || at + aceSize > size) return 0;
        at += aceSize;
    }
    return size;
}

// The four parts of a descriptor, each empty when absent.
struct Parts {
    uint16_t control = 0;
    Bytes owner, group, sacl, dacl;
};

// Reads a descriptor of LENGTH bytes (self-relative or, with FROMCALLER,
// absolute with pointers). False when malformed.
bool Parse(const uint8_t* p, size_t length, Parts* out) {
    if (length < sizeof(SECURITY_DESCRIPTOR_RELATIVE) || p[0] != SECURITY_DESCRIPTOR_REVISION) return false;
    uint16_t control = static_cast<uint16_t>(p[2] | (p[3] << 8));
    out->control = control & ~SE_SELF_RELATIVE;
    auto part = [&](size_t at, bool acl, Bytes* dst) -> bool {
        uint32_t off = p[at] | (p[at + 1] << 8) | (p[at + 2] << 16) | (static_cast<uint32_t>(p[at + 3]) << 24);
        if (off == 0) return true;
        if (off >= length) return false;
        size_t len = acl ? AclLength(p + off, length - off) : SidLength(p + off, length - off);
        if (!len) return false;
        dst->assign(p + off, p + off + len);
        return true;
    };
    if (control & SE_SELF_RELATIVE)
        return part(4, false, &out->owner) && part(8, false, &out->group) &&
               ((control & SE_SACL_PRESENT) ? part(12, true, &out->sacl) : true) &&
               ((control & SE_DACL_PRESENT) ? part(16, true, &out->dacl) : true);
    // Absolute form: pointers after the header, as the caller's memory holds it.
    struct Absolute {
        UCHAR Revision, Sbz1;
        USHORT Control;
        PSID Owner, Group;
        PACL Sacl, Dacl;
    };
    if (length < sizeof(Absolute)) return false;
    Absolute a;
    memcpy(&a, p, sizeof a);
    auto sid = [](PSID s, Bytes* dst) -> bool {
        if (!s) return true;
        auto* q = static_cast<const uint8_t*>(s);
        size_t len = SidLength(q, 8 + 4 * 15);
        if (!len) return false;
        dst->assign(q, q + len);
        return true;
    };
    auto acl = [](PACL a, Bytes* dst) -> bool {
        if (!a) return true;
        auto* q = reinterpret_cast<const uint8_t*>(a);
        size_t len = AclLength(q, a->AclSize);
        if (!len) return false;
        dst->assign(q, q + len);
        return true;
    };
    return sid(a.Owner, &out->owner) && sid(a.Group, &out->group) &&
           ((control & SE_SACL_PRESENT) ? acl(a.Sacl, &out->sacl) : true) &&
           ((control & SE_DACL_PRESENT) ? acl(a.Dacl, &out->dacl) : true);
}

// Builds the self-relative form of the parts selected by WHICH.
Bytes Build(const Parts& parts, SECURITY_INFORMATION which) {
    Bytes b(sizeof(SECURITY_DESCRIPTOR_RELATIVE), 0);
    b[0] = SECURITY_DESCRIPTOR_REVISION;
    uint16_t control = SE_SELF_RELATIVE;
    auto append = [&](const Bytes& part, size_t field) {
        if (part.empty()) return;
        Put32(b, field, static_cast<uint32_t>(b.size()));
        b.insert(b.end(), part.begin(), part.end());
    };
    if (which & SACL_SECURITY_INFORMATION) {
        control |= parts.control & (SE_SACL_PRESENT | SE_SACL_AUTO_INHERITED | SE_SACL_PROTECTED | SE_SACL_DEFAULTED);
        append(parts.sacl, 12);
    }
    if (which & DACL_SECURITY_INFORMATION) {
        control |= parts.control & (SE_DACL_PRESENT | SE_DACL_AUTO_INHERITED | SE_DACL_PROTECTED | SE_DACL_DEFAULTED);
        append(parts.dacl, 16);
    }
    if (which & OWNER_SECURITY_INFORMATION) append(parts.owner, 4);
    if (which & GROUP_SECURITY_INFORMATION) append(parts.group, 8);
    Put16(b, 2, control);
    return b;
}

Parts StoredParts(Vcb* vcb, Fcb* fcb) {
    Parts parts;
    auto stored = fcb->fd >= 0 ? vcb->store->LoadSecurity(fcb->fd, fcb->ino) : std::nullopt;
    if (!stored || !Parse(stored->data(), stored->size(), &parts)) {
        Bytes def = DefaultSecurityDescriptor(fcb->isDirectory);
        Parse(def.data(), def.size(), &parts);
    }
    return parts;
}

}  // namespace

std::vector<uint8_t> DefaultSecurityDescriptor(bool directory) {
    // Owner Administrators, group SYSTEM; full control to Administrators,
    // SYSTEM and Everyone, inherited by children of directories.
    Bytes admins = MakeSid(5, {32, 544}), system = MakeSid(5, {18}), everyone = MakeSid(1, {0});
    uint8_t inherit = directory ? (OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE) : 0;
    Bytes aces;
    for (const Bytes* sid : {&admins, &system, &everyone}) {
        Bytes ace = MakeAllowAce(inherit, FILE_ALL_ACCESS, *sid);
        aces.insert(aces.end(), ace.begin(), ace.end());
    }
    Parts parts;
    parts.control = SE_DACL_PRESENT;
    parts.owner = admins;
    parts.group = system;
    parts.dacl = Bytes(sizeof(ACL), 0);
    parts.dacl[0] = ACL_REVISION;
    Put16(parts.dacl, 2, static_cast<uint16_t>(sizeof(ACL) + aces.size()));
    Put16(parts.dacl, 4, 3);
    parts.dacl.insert(parts.dacl.end(), aces.begin(), aces.end());
    return Build(parts, OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION);
}

NTSTATUS FsdQuerySecurity(PDEVICE_OBJECT device, PIRP irp) {
    Vcb* vcb = VcbOf(device);
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    Fcb* fcb = FcbOf(sp->FileObject);
    if (!vcb || !fcb) return CompleteRequest(irp, STATUS_INVALID_PARAMETER, 0);
    Bytes sd;
    {
        std::lock_guard<VolumeMutex> lock(vcb->mutex);
        sd = Build(StoredParts(vcb, fcb), sp->Parameters.QuerySecurity.SecurityInformation);
    }
    ULONG length = sp->Parameters.QuerySecurity.Length;
    // Too small: STATUS_BUFFER_OVERFLOW with the length needed in
    // Information (a warning, so it reaches the caller's status block); the
    // service reports STATUS_BUFFER_TOO_SMALL with that length.
    if (length < sd.size()) return CompleteRequest(irp, STATUS_BUFFER_OVERFLOW, sd.size());
    PVOID buffer = RequestBuffer(irp);
    if (!buffer) return CompleteRequest(irp, STATUS_INVALID_USER_BUFFER, 0);
    memcpy(buffer, sd.data(), sd.size());
    return CompleteRequest(irp, STATUS_SUCCESS, sd.size());
}

NTSTATUS FsdSetSecurity(PDEVICE_OBJECT device, PIRP irp) {
    Vcb* vcb = VcbOf(device);
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    Fcb* fcb = FcbOf(sp->FileObject);
    if (!vcb || !fcb || fcb->isVolume) return CompleteRequest(irp, STATUS_INVALID_PARAMETER, 0);
    auto* given = static_cast<const uint8_t*>(sp->Parameters.SetSecurity.SecurityDescriptor);
    if (!given) return CompleteRequest(irp, STATUS_INVALID_SECURITY_DESCR, 0);
    SECURITY_INFORMATION which = sp->Parameters.SetSecurity.SecurityInformation;
    // A self-relative descriptor carries its own length; an absolute one
    // is its header plus what its pointers reach.
    ULONG length = (given[2] | (given[3] << 8)) & SE_SELF_RELATIVE ? RtlLengthSecurityDescriptor(const_cast<uint8_t*>(given))
                                                                   : 64;
    Parts in;
    if (!Parse(given, length, &in)) return CompleteRequest(irp, STATUS_INVALID_SECURITY_DESCR, 0);
    if ((which & OWNER_SECURITY_INFORMATION) && in.owner.empty()) return CompleteRequest(irp, STATUS_INVALID_OWNER, 0);
    std::vector<PIRP> done;
    NTSTATUS status = STATUS_SUCCESS;
    {
        std::lock_guard<VolumeMutex> lock(vcb->mutex);
        Parts parts = StoredParts(vcb, fcb);
        if (which & OWNER_SECURITY_INFORMATION) parts.owner = in.owner;
        if (which & GROUP_SECURITY_INFORMATION) parts.group = in.group;
        auto take = [&](uint16_t mask, Bytes Parts::*field) {
            parts.control = static_cast<uint16_t>((parts.control & ~mask) | (in.control & mask));
            parts.*field = in.*field;
        };
        if (which & DACL_SECURITY_INFORMATION)
            take(SE_DACL_PRESENT | SE_DACL_AUTO_INHERITED | SE_DACL_PROTECTED | SE_DACL_DEFAULTED, &Parts::dacl);
        if (which & SACL_SECURITY_INFORMATION)
            take(SE_SACL_PRESENT | SE_SACL_AUTO_INHERITED | SE_SACL_PROTECTED | SE_SACL_DEFAULTED, &Parts::sacl);
        Bytes sd = Build(parts, OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION |
                                    SACL_SECURITY_INFORMATION);
        if (!vcb->store->SaveSecurity(fcb->fd, fcb->ino, sd)) status = STATUS_ACCESS_DENIED;
        else ReportChange(vcb, fcb->fullName, FILE_NOTIFY_CHANGE_SECURITY, FILE_ACTION_MODIFIED, &done);
    }
    CompleteAll(done);
    return CompleteRequest(irp, status, 0);
}

}  // namespace tervane::emu::fs
