// NtSetSecurityObject validates the caller's self-relative descriptor before
// any file system sees it: the header, every offset against the size its
// parts add up to, each SID and each ACL with its entries. Every descriptor
// here sits at the very end of a readable page, so a validator that reads
// one byte further than the descriptor declares faults.
#include <sys/mman.h>

#include "fs_fixture.h"

namespace tervane::test {
namespace {

using Bytes = std::vector<uint8_t>;

void Put16(Bytes& b, size_t at, uint16_t v) { memcpy(&b[at], &v, 2); }
void Put32(Bytes& b, size_t at, uint32_t v) { memcpy(&b[at], &v, 4); }

// S-1-5-<rids...>
Bytes Sid(std::vector<uint32_t> rids, uint8_t revision = 1) {
    Bytes b(8 + 4 * rids.size());
    b[0] = revision;
    b[1] = static_cast<uint8_t>(rids.size());
    b[7] = 5;
    for (size_t i = 0; i < rids.size(); ++i) Put32(b, 8 + 4 * i, rids[i]);
    return b;
}

Bytes Ace(const Bytes& sid, uint8_t type = ACCESS_ALLOWED_ACE_TYPE) {
    Bytes b(8 + sid.size());
    b[0] = type;
    Put16(b, 2, static_cast<uint16_t>(b.size()));
    Put32(b, 4, FILE_ALL_ACCESS);
    memcpy(&b[8], sid.data(), sid.size());
    return b;
}

Bytes Acl(const std::vector<Bytes>& aces, uint8_t revision = ACL_REVISION) {
    Bytes b(8);
    for (const auto& a : aces) b.insert(b.end(), a.begin(), a.end());
    b[0] = revision;
    Put16(b, 2, static_cast<uint16_t>(b.size()));
    Put16(b, 4, static_cast<uint16_t>(aces.size()));
    return b;
}

struct Layout {
    uint16_t control = SE_SELF_RELATIVE;
    uint8_t revision = SECURITY_DESCRIPTOR_REVISION;
    Bytes owner, dacl;
    bool daclFirst = false;
};

// A self-relative descriptor: header, then the parts back to back.
Bytes Descriptor(const Layout& l) {
    Bytes b(sizeof(SECURITY_DESCRIPTOR_RELATIVE));
    b[0] = l.revision;
    uint16_t control = l.control | (l.dacl.empty() ? 0 : SE_DACL_PRESENT);
    Put16(b, 2, control);
    auto append = [&](const Bytes& part, size_t field) {
        if (part.empty()) return;
        Put32(b, field, static_cast<uint32_t>(b.size()));
        b.insert(b.end(), part.begin(), part.end());
    };
    const size_t ownerField = offsetof(SECURITY_DESCRIPTOR_RELATIVE, Owner);
    const size_t daclField = offsetof(SECURITY_DESCRIPTOR_RELATIVE, Dacl);
    if (l.daclFirst) append(l.dacl, daclField);
    append(l.owner, ownerField);
    if (!l.daclFirst) append(l.dacl, daclField);
    return b;
}

// Two pages, the second inaccessible; BYTES are placed to end at the boundary.
class GuardedCopy {
public:
    explicit GuardedCopy(const Bytes& bytes) {
        page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        base_ = static_cast<uint8_t*>(mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(base_ + page_, page_, PROT_NONE);
        data_ = base_ + page_ - bytes.size();
        memcpy(data_, bytes.data(), bytes.size());
    }
    ~GuardedCopy() { munmap(base_, 2 * page_); }
    void* data() const { return data_; }

private:
    size_t page_;
    uint8_t* base_;
    uint8_t* data_;
};

const Bytes kSystem = Sid({18});

struct Case {
    const char* name;
    std::function<Bytes()> build;
    SECURITY_INFORMATION what;
    NTSTATUS expected;
};

const Case kCases[] = {
    {"owner only", [] { return Descriptor({.owner = kSystem}); }, OWNER_SECURITY_INFORMATION, STATUS_SUCCESS},
    {"owner and DACL, DACL first",
     [] { return Descriptor({.owner = kSystem, .dacl = Acl({Ace(kSystem)}), .daclFirst = true}); },
     OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, STATUS_SUCCESS},
    {"empty DACL", [] { return Descriptor({.dacl = Acl({})}); }, DACL_SECURITY_INFORMATION, STATUS_SUCCESS},
    {"null DACL (present, no ACL)", [] { return Descriptor({.control = SE_SELF_RELATIVE | SE_DACL_PRESENT}); },
     DACL_SECURITY_INFORMATION, STATUS_SUCCESS},
    {"bad descriptor revision", [] { return Descriptor({.revision = 2, .owner = kSystem}); },
     OWNER_SECURITY_INFORMATION, STATUS_INVALID_SECURITY_DESCR},
    {"absolute form", [] { return Descriptor({.control = 0, .owner = kSystem}); }, OWNER_SECURITY_INFORMATION,
     STATUS_INVALID_SECURITY_DESCR},
    {"owner offset far past the parts",
     [] {
         Bytes b = Descriptor({.owner = kSystem});
         Put32(b, offsetof(SECURITY_DESCRIPTOR_RELATIVE, Owner), 0x10000);
         return b;
     },
     OWNER_SECURITY_INFORMATION, STATUS_INVALID_SECURITY_DESCR},
    {"owner offset inside the header",
     [] {
         Bytes b = Descriptor({.owner = kSystem});
         Put32(b, offsetof(SECURITY_DESCRIPTOR_RELATIVE, Owner), 8);
         return b;
     },
     OWNER_SECURITY_INFORMATION, STATUS_INVALID_SECURITY_DESCR},
    {"owner offset not aligned",
     [] {
         Bytes b = Descriptor({.owner = kSystem});
         b.push_back(0);
         Put32(b, offsetof(SECURITY_DESCRIPTOR_RELATIVE, Owner), 21);
         return b;
     },
     OWNER_SECURITY_INFORMATION, STATUS_INVALID_SECURITY_DESCR},
    {"owner behind a gap",
     [] {
         Bytes b = Descriptor({.owner = kSystem});
         b.insert(b.begin() + 20, 8, 0);
         Put32(b, offsetof(SECURITY_DESCRIPTOR_RELATIVE, Owner), 28);
         return b;
     },
     OWNER_SECURITY_INFORMATION, STATUS_INVALID_SECURITY_DESCR},
    {"owner SID revision", [] { return Descriptor({.owner = Sid({18}, 9)}); }, OWNER_SECURITY_INFORMATION,
     STATUS_INVALID_SID},
    {"owner SID with 16 sub-authorities", [] { return Descriptor({.owner = Sid(std::vector<uint32_t>(16, 1))}); },
     OWNER_SECURITY_INFORMATION, STATUS_INVALID_SID},
    {"owner asked for, none given", [] { return Descriptor({.dacl = Acl({})}); }, OWNER_SECURITY_INFORMATION,
     STATUS_INVALID_OWNER},
    {"ACL revision", [] { return Descriptor({.dacl = Acl({}, 1)}); }, DACL_SECURITY_INFORMATION, STATUS_INVALID_ACL},
    {"ACL size below its header",
     [] {
         Bytes b = Descriptor({.dacl = Acl({})});
         Put16(b, 20 + 2, 4);
         return b;
     },
     DACL_SECURITY_INFORMATION, STATUS_INVALID_ACL},
    {"ACL size not aligned",
     [] {
         Bytes b = Descriptor({.dacl = Acl({})});
         b.insert(b.end(), {0, 0});
         Put16(b, 20 + 2, 10);
         return b;
     },
     DACL_SECURITY_INFORMATION, STATUS_INVALID_ACL},
    {"more entries counted than the ACL holds",
     [] {
         Bytes b = Descriptor({.dacl = Acl({Ace(kSystem)})});
         Put16(b, 20 + 4, 2);
         return b;
     },
     DACL_SECURITY_INFORMATION, STATUS_INVALID_ACL},
    {"entry larger than its ACL",
     [] {
         Bytes b = Descriptor({.dacl = Acl({Ace(kSystem)})});
         Put16(b, 20 + 8 + 2, 64);
         return b;
     },
     DACL_SECURITY_INFORMATION, STATUS_INVALID_ACL},
    {"entry whose SID overruns it",
     [] {
         Bytes b = Descriptor({.dacl = Acl({Ace(kSystem)})});
         b[20 + 8 + 8 + 1] = 5;  // five sub-authorities claimed, one present
         return b;
     },
     DACL_SECURITY_INFORMATION, STATUS_INVALID_ACL},
};

TEST_F(FsTest, SetSecurityValidatesDescriptor) {
    Run([&] {
        OpenResult f = Create(u"\\sd", FILE_SYNCHRONOUS_IO_NONALERT,
                              GENERIC_READ | GENERIC_WRITE | READ_CONTROL | WRITE_OWNER | WRITE_DAC | SYNCHRONIZE);
        ASSERT_EQ(f.status, STATUS_SUCCESS);
        for (const Case& c : kCases) {
            GuardedCopy sd(c.build());
            EXPECT_EQ(NtSetSecurityObject(f.handle, c.what, sd.data()), c.expected) << c.name;
        }
        // A rejected descriptor changed nothing: the owner is the one the
        // last good set left (SYSTEM).
        Bytes out(256);
        ULONG got = 0;
        ASSERT_EQ(NtQuerySecurityObject(f.handle, OWNER_SECURITY_INFORMATION, out.data(), 256, &got), STATUS_SUCCESS);
        auto* rel = reinterpret_cast<SECURITY_DESCRIPTOR_RELATIVE*>(out.data());
        ASSERT_NE(rel->Owner, 0u);
        EXPECT_EQ(Bytes(out.begin() + rel->Owner, out.begin() + rel->Owner + kSystem.size()), kSystem);
        Close(f.handle);
    });
}

// Objects other than files are validated the same way.
TEST_F(FsTest, SetSecurityValidatesDescriptorOfEvents) {
    Run([&] {
        HANDLE event = nullptr;
        ASSERT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE), STATUS_SUCCESS);
        GuardedCopy good(Descriptor({.owner = kSystem}));
        EXPECT_EQ(NtSetSecurityObject(event, OWNER_SECURITY_INFORMATION, good.data()), STATUS_SUCCESS);
        GuardedCopy bad(Descriptor({.owner = Sid(std::vector<uint32_t>(16, 1))}));
        EXPECT_EQ(NtSetSecurityObject(event, OWNER_SECURITY_INFORMATION, bad.data()), STATUS_INVALID_SID);
        NtClose(event);
    });
}

}  // namespace
}  // namespace tervane::test
