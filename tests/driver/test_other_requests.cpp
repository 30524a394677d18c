// The remaining requests on redirected opens: byte-range locks (an exclusive
// one copies the file up first), clean-up releasing them, flush, security
// query and set, volume queries, and file-system control passed down.
#include "test_dispatch_support.h"

#include <cstring>

#include "core/tervane.h"
#include "filemgr/file_handle_table.h"

namespace tervane::test {
namespace {

// Records what the file system below receives for one major function while
// it lives, then hands each request on to the file system's own routine.
struct Seen {
    PFILE_OBJECT fileObject;
    UCHAR minor;
    ULONG code;          // file-system control code
    ULONG outputLength;  // of a file-system control request
};
std::vector<Seen> g_seen;
PDRIVER_DISPATCH g_realDispatch = nullptr;
UCHAR g_spiedMajor = 0;

NTSTATUS NTAPI SpyDispatch(PDEVICE_OBJECT device, PIRP irp) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    Seen seen = {sp->FileObject, sp->MinorFunction, 0, 0};
    if (g_spiedMajor == IRP_MJ_FILE_SYSTEM_CONTROL) {
        seen.code = sp->Parameters.FileSystemControl.FsControlCode;
        seen.outputLength = sp->Parameters.FileSystemControl.OutputBufferLength;
    }
    g_seen.push_back(seen);
    return g_realDispatch(device, irp);
}

class SpyBelow {
public:
    SpyBelow(emu::Machine* machine, UCHAR major) {
        machine->Run(machine->SystemProcess(), [&] {
            PDEVICE_OBJECT filter = g_apFilterDevices['C' - 'A'];
            driver_ = ((PTervaneDeviceExtension)filter->DeviceExtension)->m_pLowerDevice->DriverObject;
        });
        g_seen.clear();
        g_spiedMajor = major;
        g_realDispatch = driver_->MajorFunction[major];
        driver_->MajorFunction[major] = SpyDispatch;
    }
    ~SpyBelow() { driver_->MajorFunction[g_spiedMajor] = g_realDispatch; }

private:
    PDRIVER_OBJECT driver_ = nullptr;
};

class OtherRequestsTest : public DispatchTest {
protected:
    void SetUp() override {
        DispatchTest::SetUp();
        HostFile(std::string(kBase) + "/dir/lock.txt", "0123456789abcdefghijklmnopqrstuvwxyz");
        HostFile(std::string(kBase) + "/dir/sec.txt", "S");
        HostFile(std::string(kMid) + "/dir/vol.txt", "V");
        Configure();
    }
    enum Op { kShared, kExclusive, kUnlock };
    NTSTATUS Lock(HANDLE handle, Op op, LONGLONG offset, LONGLONG length) {
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        App([&] {
            IO_STATUS_BLOCK iosb = {};
            LARGE_INTEGER at, len;
            at.QuadPart = offset;
            len.QuadPart = length;
            // Never fail-immediately: a conflict must still not wait.
            status = op == kUnlock ? NtUnlockFile(handle, &iosb, &at, &len, 0)
                                   : NtLockFile(handle, nullptr, nullptr, nullptr, &iosb, &at, &len, 0, FALSE,
                                                op == kExclusive);
        });
        return status;
    }
    // A security query through HANDLE of PROCESS.
    NTSTATUS QuerySecurity(emu::Process* process, HANDLE handle, SECURITY_INFORMATION what, ULONG length,
                           std::vector<uint8_t>* out, ULONG* needed) {
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        out->assign(length, 0);
        machine->Run(process, [&] {
            status = NtQuerySecurityObject(handle, what, length ? out->data() : nullptr, length, needed);
        });
        return status;
    }
    // A volume query through HANDLE of PROCESS: status, information, bytes.
    NTSTATUS QueryVolume(emu::Process* process, HANDLE handle, FS_INFORMATION_CLASS cls, ULONG length,
                         std::vector<uint8_t>* out, ULONG_PTR* information) {
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        out->assign(length, 0xCD);
        machine->Run(process, [&] {
            IO_STATUS_BLOCK iosb = {};
            status = NtQueryVolumeInformationFile(handle, &iosb, out->data(), length, cls);
            *information = iosb.Information;
        });
        return status;
    }
};

// Locks are taken on the real file and never wait; an exclusive one first
// moves the file into the pack location; clean-up gives an open's locks back.
TEST_F(OtherRequestsTest, ByteRangeLocks) {
    OpenResult a = Open(app, u"C:\\dir\\lock.txt", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE);
    ASSERT_EQ(a.status, STATUS_SUCCESS);
    ASSERT_EQ(FilterFlagOf(a.handle), 4u);
    EXPECT_EQ(Lock(a.handle, kShared, 0, 10), STATUS_SUCCESS);
    EXPECT_EQ(FilterFlagOf(a.handle), 4u) << "a shared lock makes no copy";
    EXPECT_FALSE(HostExists(std::string(kPack) + "/dir/lock.txt"));
    EXPECT_EQ(Lock(a.handle, kExclusive, 20, 10), STATUS_SUCCESS);
    EXPECT_EQ(FilterFlagOf(a.handle), 1u) << "an exclusive lock copies the file up first";
    EXPECT_EQ(HostContent(std::string(kPack) + "/dir/lock.txt"), "0123456789abcdefghijklmnopqrstuvwxyz");
    EXPECT_EQ(LogCount("Copy to pack location succeeded!! [C:\\dir\\lock.txt]"), 1u);

    OpenResult b = Open(app, u"C:\\dir\\lock.txt", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE);
    ASSERT_EQ(b.status, STATUS_SUCCESS);
    struct Step {
        const char* name;
        bool byA;
        Op op;
        LONGLONG offset, length;
        NTSTATUS status;
    };
    const Step steps[] = {
        {"conflicting exclusive lock fails at once", false, kExclusive, 20, 10, STATUS_LOCK_NOT_GRANTED},
        {"conflicting shared lock fails at once", false, kShared, 25, 1, STATUS_LOCK_NOT_GRANTED},
        {"a range next to it is free", false, kShared, 30, 5, STATUS_SUCCESS},
        {"the holder unlocks", true, kUnlock, 20, 10, STATUS_SUCCESS},
        {"a second unlock finds nothing", true, kUnlock, 20, 10, STATUS_RANGE_NOT_LOCKED},
        {"the range is free now", false, kExclusive, 20, 10, STATUS_SUCCESS},
        {"and taken by the other open", true, kShared, 20, 1, STATUS_LOCK_NOT_GRANTED},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.name);
        EXPECT_EQ(Lock(step.byA ? a.handle : b.handle, step.op, step.offset, step.length), step.status);
    }
    EXPECT_EQ(FilterFlagOf(b.handle), 1u);
    {
        // Closing the handle: the I/O manager's unlock-all, the clean-up's
        // own, and the I/O manager's again when the close lets the real
        // handle go: all on the real file below.
        SpyBelow spy(machine.get(), IRP_MJ_LOCK_CONTROL);
        Close(app, b.handle);
        ASSERT_EQ(g_seen.size(), 3u);
        for (const Seen& seen : g_seen) {
            EXPECT_EQ(seen.minor, IRP_MN_UNLOCK_ALL);
            EXPECT_EQ(seen.fileObject, g_seen[0].fileObject);
        }
    }
    EXPECT_EQ(Lock(a.handle, kExclusive, 20, 15), STATUS_SUCCESS) << "clean-up released the other open's locks";
    Close(app, a.handle);
    EXPECT_EQ(LogCount("Copy to pack location succeeded!!"), 1u);
    EXPECT_EQ(HostContent(std::string(kBase) + "/dir/lock.txt"), "0123456789abcdefghijklmnopqrstuvwxyz");
    EXPECT_EQ(LogCount("LockControl [C:\\dir\\lock.txt]\tMinorFunc[1] Exclusive[2] CapturedByOffset[20] "
                       "CapturedLength[10] Key[0] Fail Immediately[0] Res[c0000055] Status[c0000055] Info[0]"),
              1u);
    EXPECT_EQ(LogCount("LockControl [C:\\dir\\lock.txt]\tMinorFunc[2] Exclusive[0] CapturedByOffset[20] "
                       "CapturedLength[10] Key[0] Fail Immediately[0] Res[0] Status[0] Info[0]"),
              1u);
    EXPECT_EQ(LogCount("LockControl [C:\\dir\\lock.txt]\tMinorFunc[3] Exclusive[0] CapturedByOffset[0] "
                       "CapturedLength[0] Key[0] Fail Immediately[0] Res[0] Status[0] Info[0]"),
              2u);
    // One line per request, unlock-all at each handle close included, and the copy.
    EXPECT_EQ(LogCount("TervaneLockControl() ("), 12u + 1u);
}

// Security is read and changed on the real file where it lies: no copy-up.
TEST_F(OtherRequestsTest, SecurityQueryAndSet) {
    const SECURITY_INFORMATION all = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                                     DACL_SECURITY_INFORMATION;
    OpenResult real = Open(other, u"C:\\layers\\base\\dir\\sec.txt", READ_CONTROL | SYNCHRONIZE);
    ASSERT_EQ(real.status, STATUS_SUCCESS);
    std::vector<uint8_t> expected;
    ULONG size = 0;
    ASSERT_EQ(QuerySecurity(other, real.handle, all, 0, &expected, &size), STATUS_BUFFER_TOO_SMALL);
    ASSERT_EQ(QuerySecurity(other, real.handle, all, size, &expected, &size), STATUS_SUCCESS);

    OpenResult open = Open(app, u"C:\\dir\\sec.txt", READ_CONTROL | WRITE_DAC | SYNCHRONIZE);
    ASSERT_EQ(open.status, STATUS_SUCCESS);
    struct Case {
        ULONG length;
        NTSTATUS status;
    };
    const Case cases[] = {{0, STATUS_BUFFER_TOO_SMALL}, {size - 1, STATUS_BUFFER_TOO_SMALL}, {size, STATUS_SUCCESS},
                          {size + 64, STATUS_SUCCESS}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.length);
        std::vector<uint8_t> got;
        ULONG needed = 0;
        EXPECT_EQ(QuerySecurity(app, open.handle, all, c.length, &got, &needed), c.status);
        EXPECT_EQ(needed, size);
        if (NT_SUCCESS(c.status)) {
            EXPECT_EQ(std::vector<uint8_t>(got.begin(), got.begin() + size), expected);
        }
    }
    char hex[16];
    snprintf(hex, sizeof(hex), "%x", size);
    EXPECT_EQ(LogCount("QuerySecurity\t[C:\\dir\\sec.txt] SecInfo[7] Res[0xc0000023] Status[0x80000005] Info[0x" +
                       std::string(hex) + "] cbNeeded[" + std::to_string(size) + "]"),
              2u);
    EXPECT_EQ(LogCount("QuerySecurity\t[C:\\dir\\sec.txt] SecInfo[7] Res[0x0] Status[0x0] Info[0x" +
                       std::string(hex) + "] cbNeeded[" + std::to_string(size) + "]"),
              2u);

    // A DACL granting everyone read: header, ACL, one allow ACE for S-1-1-0.
    const uint8_t acl[] = {2, 0, 28, 0, 1, 0, 0, 0,                     // ACL, size 28, one ACE
                           0, 0, 20, 0, 0x89, 0, 0x12, 0,               // allow, size 20, FILE_GENERIC_READ
                           1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0};         // S-1-1-0
    std::vector<uint8_t> descriptor(sizeof(SECURITY_DESCRIPTOR_RELATIVE) + sizeof(acl), 0);
    auto* header = reinterpret_cast<PISECURITY_DESCRIPTOR_RELATIVE>(descriptor.data());
    header->Revision = SECURITY_DESCRIPTOR_REVISION;
    header->Control = SE_SELF_RELATIVE | SE_DACL_PRESENT;
    header->Dacl = sizeof(SECURITY_DESCRIPTOR_RELATIVE);
    memcpy(descriptor.data() + header->Dacl, acl, sizeof(acl));
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    App([&] { status = NtSetSecurityObject(open.handle, DACL_SECURITY_INFORMATION, descriptor.data()); });
    EXPECT_EQ(status, STATUS_SUCCESS);
    Close(app, open.handle);
    EXPECT_EQ(LogCount("SetSecurity\t[C:\\dir\\sec.txt] SecInfo[4] Res[0x0] Status[0x0] Info[0x0]"), 1u);

    // A security change is a change: the copy in the pack carries the new
    // DACL, the base's own file keeps its descriptor.
    OpenResult pack = Open(other, u"C:\\layers\\pack\\dir\\sec.txt", READ_CONTROL | SYNCHRONIZE);
    ASSERT_EQ(pack.status, STATUS_SUCCESS);
    std::vector<uint8_t> now;
    ULONG nowSize = 0;
    QuerySecurity(other, pack.handle, DACL_SECURITY_INFORMATION, 0, &now, &nowSize);
    ASSERT_EQ(QuerySecurity(other, pack.handle, DACL_SECURITY_INFORMATION, nowSize, &now, &nowSize), STATUS_SUCCESS);
    auto* nowHeader = reinterpret_cast<PISECURITY_DESCRIPTOR_RELATIVE>(now.data());
    ASSERT_NE(nowHeader->Dacl, 0u);
    ASSERT_LE(nowHeader->Dacl + sizeof(acl), now.size());
    EXPECT_EQ(memcmp(now.data() + nowHeader->Dacl, acl, sizeof(acl)), 0);
    Close(other, pack.handle);
    std::vector<uint8_t> base;
    ASSERT_EQ(QuerySecurity(other, real.handle, all, size, &base, &size), STATUS_SUCCESS);
    EXPECT_EQ(base, expected);
    Close(other, real.handle);
}

// Volume queries describe the volume of the real file, as an open of that
// file itself would see it; flush goes to the real file.
TEST_F(OtherRequestsTest, VolumeQueriesAndFlush) {
    OpenResult open = Open(app, u"C:\\dir\\vol.txt", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE);
    ASSERT_EQ(open.status, STATUS_SUCCESS);
    OpenResult real = Open(other, u"C:\\layers\\mid\\dir\\vol.txt");
    ASSERT_EQ(real.status, STATUS_SUCCESS);
    struct Case {
        FS_INFORMATION_CLASS cls;
        ULONG length;
        bool sameBytes;  // free space may move between two queries
    };
    const Case cases[] = {
        {FileFsVolumeInformation, 200, true},   {FileFsSizeInformation, 200, false},
        {FileFsDeviceInformation, 200, true},   {FileFsAttributeInformation, 200, true},
        {FileFsAttributeInformation, 13, true},  // too short for the name
        {FileFsVolumeInformation, 4, true},      // too short for the record
        {FileFsControlInformation, 200, true},   // not answered by this volume
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.cls << "/" << c.length);
        std::vector<uint8_t> want, got;
        ULONG_PTR wantInfo = 0, gotInfo = 0;
        NTSTATUS wantStatus = QueryVolume(other, real.handle, c.cls, c.length, &want, &wantInfo);
        EXPECT_EQ(QueryVolume(app, open.handle, c.cls, c.length, &got, &gotInfo), wantStatus)
            << emu::StatusName(wantStatus);
        EXPECT_EQ(gotInfo, wantInfo);
        if (c.sameBytes) {
            EXPECT_EQ(got, want);
        }
    }
    EXPECT_EQ(LogCount("TervaneQueryVolumeInformation"), 0u) << "volume queries log nothing";

    NTSTATUS status = STATUS_UNSUCCESSFUL;
    App([&] {
        IO_STATUS_BLOCK iosb = {};
        status = NtFlushBuffersFile(open.handle, &iosb);
    });
    EXPECT_EQ(status, STATUS_SUCCESS);
    EXPECT_EQ(LogCount("FlushBuffers\t[C:\\dir\\vol.txt]"), 1u);
    EXPECT_FALSE(HostExists(std::string(kPack) + "/dir/vol.txt")) << "a flush is no write";
    Close(app, open.handle);
    Close(other, real.handle);
}

// File-system control goes down as it came, with the caller's FILE_OBJECT,
// and the file system's answer is the caller's.
TEST_F(OtherRequestsTest, FileSystemControlIsPassedDown) {
    OpenResult open = Open(app, u"C:\\dir\\vol.txt");
    ASSERT_EQ(open.status, STATUS_SUCCESS);
    PFILE_OBJECT callerFileObject = nullptr;
    App([&] {
        ASSERT_EQ(ObReferenceObjectByHandle(open.handle, 0, *IoFileObjectType, KernelMode, (PVOID*)&callerFileObject,
                                            nullptr),
                  STATUS_SUCCESS);
        ObDereferenceObject(callerFileObject);
    });
    SpyBelow spy(machine.get(), IRP_MJ_FILE_SYSTEM_CONTROL);
    struct Case {
        ULONG code;
        NTSTATUS status;
    };
    const Case cases[] = {
        {FSCTL_IS_VOLUME_MOUNTED, STATUS_SUCCESS},
        {FSCTL_GET_REPARSE_POINT, STATUS_NOT_A_REPARSE_POINT},
        {FSCTL_FILESYSTEM_GET_STATISTICS, STATUS_INVALID_DEVICE_REQUEST},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.code);
        g_seen.clear();
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        App([&] {
            std::vector<uint8_t> output(64);
            IO_STATUS_BLOCK iosb = {};
            status = NtFsControlFile(open.handle, nullptr, nullptr, nullptr, &iosb, c.code, nullptr, 0,
                                     output.data(), ULONG(output.size()));
        });
        EXPECT_EQ(status, c.status) << emu::StatusName(status);
        ASSERT_EQ(g_seen.size(), 1u);
        EXPECT_EQ(g_seen[0].fileObject, callerFileObject);
        EXPECT_EQ(g_seen[0].minor, IRP_MN_USER_FS_REQUEST);
        EXPECT_EQ(g_seen[0].code, c.code);
        EXPECT_EQ(g_seen[0].outputLength, 64u);
    }
    Close(app, open.handle);
    EXPECT_EQ(LogCount("TervaneFileSystemControl"), 0u);
}

}  // namespace
}  // namespace tervane::test
