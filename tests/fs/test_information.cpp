// File, volume and security information on the emulated NTFS volume.
#include "fs/fsstruc.h"
#include "fs_fixture.h"

using namespace tervane::test;

TEST_F(FsTest, QueryClassesAndBufferSizes) {
    std::filesystem::create_directories(host / "dir");
    WriteHostFile(host / "dir" / "file.txt", "12345");
    const ULONG nameBytes = sizeof(u"\\dir\\file.txt") - 2;
    const ULONG allFixed = FIELD_OFFSET(FILE_ALL_INFORMATION, NameInformation.FileName);
    struct Case {
        FILE_INFORMATION_CLASS cls;
        ULONG length;
        NTSTATUS status;
        ULONG_PTR info;
    } cases[] = {
        {FileBasicInformation, sizeof(FILE_BASIC_INFORMATION), STATUS_SUCCESS, sizeof(FILE_BASIC_INFORMATION)},
        {FileBasicInformation, sizeof(FILE_BASIC_INFORMATION) - 1, STATUS_INFO_LENGTH_MISMATCH, 0},
        {FileStandardInformation, sizeof(FILE_STANDARD_INFORMATION), STATUS_SUCCESS, sizeof(FILE_STANDARD_INFORMATION)},
        {FileInternalInformation, 8, STATUS_SUCCESS, 8},
        {FileEaInformation, 4, STATUS_SUCCESS, 4},
        {FileAccessInformation, 4, STATUS_SUCCESS, 4},
        {FilePositionInformation, 8, STATUS_SUCCESS, 8},
        {FileModeInformation, 4, STATUS_SUCCESS, 4},
        {FileAlignmentInformation, 4, STATUS_SUCCESS, 4},
        {FileNetworkOpenInformation, sizeof(FILE_NETWORK_OPEN_INFORMATION), STATUS_SUCCESS,
         sizeof(FILE_NETWORK_OPEN_INFORMATION)},
        {FileAttributeTagInformation, 8, STATUS_SUCCESS, 8},
        {FileNameInformation, 4 + nameBytes, STATUS_SUCCESS, 4 + nameBytes},
        {FileNameInformation, 4 + 6, STATUS_BUFFER_OVERFLOW, 4 + 6},
        {FileNameInformation, 3, STATUS_INFO_LENGTH_MISMATCH, 0},
        {FileAllInformation, allFixed + nameBytes, STATUS_SUCCESS, allFixed + nameBytes},
        {FileAllInformation, (allFixed + 2 + 7) & ~7u, STATUS_BUFFER_OVERFLOW, allFixed + 4},
        {FileAllInformation, allFixed, STATUS_INFO_LENGTH_MISMATCH, 0},
        {FileAlternateNameInformation, 64, STATUS_OBJECT_NAME_NOT_FOUND, 0},  // "file.txt" is a valid 8.3 name
        {FileRenameInformation, 64, STATUS_INVALID_INFO_CLASS, 0},
        {static_cast<FILE_INFORMATION_CLASS>(63), 64, STATUS_INVALID_INFO_CLASS, 0},  // past the last class
    };
    Run([&] {
        OpenResult f = Open(u"\\Dir\\FILE.TXT");
        ASSERT_EQ(f.status, STATUS_SUCCESS);
        for (auto& c : cases) {
            std::vector<uint8_t> buf(c.length + 16, 0xcc);
            ULONG_PTR info = 0;
            EXPECT_EQ(Query(f.handle, c.cls, buf.data(), c.length, &info), c.status) << c.cls << "/" << c.length;
            if (!NT_ERROR(c.status)) {
                EXPECT_EQ(info, c.info) << c.cls << "/" << c.length;
            }
            EXPECT_EQ(buf[c.length], 0xcc) << "wrote past the buffer: " << c.cls;
        }
        std::vector<uint8_t> buf(512);
        ASSERT_EQ(Query(f.handle, FileAllInformation, buf.data(), 512), STATUS_SUCCESS);
        auto* all = reinterpret_cast<FILE_ALL_INFORMATION*>(buf.data());
        EXPECT_EQ(all->StandardInformation.EndOfFile.QuadPart, 5);
        EXPECT_EQ(all->StandardInformation.AllocationSize.QuadPart, 4096);
        EXPECT_FALSE(all->StandardInformation.Directory);
        EXPECT_EQ(all->BasicInformation.FileAttributes, static_cast<ULONG>(FILE_ATTRIBUTE_ARCHIVE));
        EXPECT_EQ(all->ModeInformation.Mode, static_cast<ULONG>(FILE_SYNCHRONOUS_IO_NONALERT));
        // The name as stored, not as the caller spelled it.
        EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(all->NameInformation.FileName),
                                 all->NameInformation.FileNameLength / 2),
                  u"\\dir\\file.txt");
        Close(f.handle);
    });
}

// FileModeInformation as Windows answers it (Wine's test_file_mode): the
// caching and synchronous-I/O options come back, FILE_DELETE_ON_CLOSE and
// the hints RANDOM_ACCESS and NO_COMPRESSION do not.
TEST_F(FsTest, ModeInformationReportsOpenOptions) {
    struct Case {
        ULONG options;
        ULONG mode;
    } cases[] = {
        {0, 0},
        {FILE_DELETE_ON_CLOSE, 0},
        {FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT, FILE_SYNCHRONOUS_IO_NONALERT},
        {FILE_WRITE_THROUGH, FILE_WRITE_THROUGH},
        {FILE_SEQUENTIAL_ONLY, FILE_SEQUENTIAL_ONLY},
        {FILE_NO_INTERMEDIATE_BUFFERING, FILE_NO_INTERMEDIATE_BUFFERING},
        {FILE_SYNCHRONOUS_IO_ALERT, FILE_SYNCHRONOUS_IO_ALERT},
        {FILE_RANDOM_ACCESS | FILE_NO_COMPRESSION, 0},
    };
    Run([&] {
        for (auto& c : cases) {
            OpenResult f = Open(u"\\m", GENERIC_READ | DELETE | SYNCHRONIZE, 7, FILE_OPEN_IF, c.options);
            ASSERT_EQ(f.status, STATUS_SUCCESS) << std::hex << c.options;
            FILE_MODE_INFORMATION mode{0xdead};
            EXPECT_EQ(Query(f.handle, FileModeInformation, &mode, sizeof mode), STATUS_SUCCESS);
            EXPECT_EQ(mode.Mode, c.mode) << std::hex << c.options;
            Close(f.handle);
        }
    });
}

TEST_F(FsTest, SetBasicZeroLeavesAlone) {
    Run([&] {
        OpenResult f = Create(u"\\f");
        ASSERT_EQ(f.status, STATUS_SUCCESS);
        FILE_BASIC_INFORMATION before{};
        Query(f.handle, FileBasicInformation, &before, sizeof before);
        FILE_BASIC_INFORMATION set{};
        set.LastWriteTime.QuadPart = 125911584000000000LL;  // 2000-01-01
        set.FileAttributes = FILE_ATTRIBUTE_HIDDEN;
        ASSERT_EQ(Set(f.handle, FileBasicInformation, &set, sizeof set), STATUS_SUCCESS);
        FILE_BASIC_INFORMATION after{};
        Query(f.handle, FileBasicInformation, &after, sizeof after);
        EXPECT_EQ(after.LastWriteTime.QuadPart, 125911584000000000LL);
        EXPECT_EQ(after.CreationTime.QuadPart, before.CreationTime.QuadPart);
        EXPECT_EQ(after.LastAccessTime.QuadPart, before.LastAccessTime.QuadPart);
        EXPECT_EQ(after.FileAttributes, static_cast<ULONG>(FILE_ATTRIBUTE_HIDDEN));
        set = {};
        set.FileAttributes = FILE_ATTRIBUTE_NORMAL;  // clears them all
        ASSERT_EQ(Set(f.handle, FileBasicInformation, &set, sizeof set), STATUS_SUCCESS);
        EXPECT_EQ(Attributes(f.handle), static_cast<ULONG>(FILE_ATTRIBUTE_NORMAL));
        EXPECT_EQ(Set(f.handle, FileBasicInformation, &set, sizeof set - 8), STATUS_INFO_LENGTH_MISMATCH);
        EXPECT_EQ(Set(f.handle, static_cast<FILE_INFORMATION_CLASS>(60), &set, sizeof set), STATUS_INVALID_INFO_CLASS);
        Close(f.handle);
    });
}

TEST_F(FsTest, VolumeInformation) {
    Run([&] {
        OpenResult root = Open(u"\\");
        ASSERT_EQ(root.status, STATUS_SUCCESS);
        std::vector<uint8_t> buf(256);
        IO_STATUS_BLOCK iosb{};
        ASSERT_EQ(NtQueryVolumeInformationFile(root.handle, &iosb, buf.data(), 256, FileFsAttributeInformation),
                  STATUS_SUCCESS);
        auto* attr = reinterpret_cast<FILE_FS_ATTRIBUTE_INFORMATION*>(buf.data());
        EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(attr->FileSystemName), attr->FileSystemNameLength / 2), u"NTFS");
        EXPECT_EQ(attr->MaximumComponentNameLength, 255);
        EXPECT_TRUE(attr->FileSystemAttributes & FILE_CASE_PRESERVED_NAMES);
        EXPECT_TRUE(attr->FileSystemAttributes & FILE_UNICODE_ON_DISK);
        EXPECT_TRUE(attr->FileSystemAttributes & FILE_PERSISTENT_ACLS);
        EXPECT_EQ(iosb.Information, FIELD_OFFSET(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName) + 8u);
        // Room for two of the name's four characters.
        EXPECT_EQ(NtQueryVolumeInformationFile(root.handle, &iosb, buf.data(), sizeof(FILE_FS_ATTRIBUTE_INFORMATION),
                                               FileFsAttributeInformation),
                  STATUS_BUFFER_OVERFLOW);
        EXPECT_EQ(iosb.Information, sizeof(FILE_FS_ATTRIBUTE_INFORMATION));
        for (auto cls : {FileFsVolumeInformation, FileFsSizeInformation, FileFsDeviceInformation, FileFsFullSizeInformation})
            EXPECT_EQ(NtQueryVolumeInformationFile(root.handle, &iosb, buf.data(), 256, cls), STATUS_SUCCESS) << cls;
        auto* size = reinterpret_cast<FILE_FS_FULL_SIZE_INFORMATION*>(buf.data());
        EXPECT_EQ(size->BytesPerSector, 512u);
        EXPECT_GT(size->TotalAllocationUnits.QuadPart, 0);
        Close(root.handle);
    });
}

TEST_F(FsTest, SecurityDescriptors) {
    Run([&] {
        OpenResult f = Create(u"\\f", FILE_SYNCHRONOUS_IO_NONALERT,
                              GENERIC_READ | GENERIC_WRITE | READ_CONTROL | WRITE_OWNER | WRITE_DAC | SYNCHRONIZE);
        ASSERT_EQ(f.status, STATUS_SUCCESS);
        ULONG need = 0;
        uint8_t small[8];
        SECURITY_INFORMATION all = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
        EXPECT_EQ(NtQuerySecurityObject(f.handle, all, small, sizeof small, &need), STATUS_BUFFER_TOO_SMALL);
        ASSERT_GT(need, sizeof(SECURITY_DESCRIPTOR_RELATIVE));
        std::vector<uint8_t> sd(need);
        ULONG got = 0;
        ASSERT_EQ(NtQuerySecurityObject(f.handle, all, sd.data(), need, &got), STATUS_SUCCESS);
        auto* rel = reinterpret_cast<SECURITY_DESCRIPTOR_RELATIVE*>(sd.data());
        EXPECT_TRUE(rel->Control & SE_SELF_RELATIVE);
        EXPECT_TRUE(rel->Control & SE_DACL_PRESENT);
        EXPECT_NE(rel->Owner, 0u);
        EXPECT_NE(rel->Dacl, 0u);
        // Only the owner: no group, no DACL.
        std::vector<uint8_t> owner(256);
        ASSERT_EQ(NtQuerySecurityObject(f.handle, OWNER_SECURITY_INFORMATION, owner.data(), 256, &got), STATUS_SUCCESS);
        auto* o = reinterpret_cast<SECURITY_DESCRIPTOR_RELATIVE*>(owner.data());
        EXPECT_NE(o->Owner, 0u);
        EXPECT_EQ(o->Group, 0u);
        EXPECT_EQ(o->Dacl, 0u);
        // Setting the owner to SYSTEM (S-1-5-18) persists.
        uint8_t newSd[sizeof(SECURITY_DESCRIPTOR_RELATIVE) + 12] = {1, 0, 0x00, 0x80, 20, 0, 0, 0};
        const uint8_t system[12] = {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0};
        memcpy(newSd + 20, system, 12);
        ASSERT_EQ(NtSetSecurityObject(f.handle, OWNER_SECURITY_INFORMATION, newSd), STATUS_SUCCESS);
        ASSERT_EQ(NtQuerySecurityObject(f.handle, OWNER_SECURITY_INFORMATION, owner.data(), 256, &got), STATUS_SUCCESS);
        EXPECT_EQ(memcmp(owner.data() + o->Owner, system, 12), 0);
        uint8_t bad[sizeof newSd];
        memcpy(bad, newSd, sizeof bad);
        bad[20] = 9;  // not a SID revision
        EXPECT_EQ(NtSetSecurityObject(f.handle, OWNER_SECURITY_INFORMATION, bad), STATUS_INVALID_SID);
        Close(f.handle);
    });
}

// Attributes, times, short names and descriptors live on the host: a second
// machine over the same directory sees them, with extended attributes or
// with the fallback store.
class FsPersistence : public ::testing::TestWithParam<bool> {};

TEST_P(FsPersistence, SecondMachineSeesMetadata) {
    tervane::emu::fs::FsSetForceMetadataFiles(GetParam());
    auto host = FreshHostDir(GetParam() ? "persist-files" : "persist-xattr");
    LARGE_INTEGER created{};
    for (int round = 0; round < 2; ++round) {
        Machine m;
        ASSERT_EQ(m.MountVolume('C', host.string()), STATUS_SUCCESS);
        Process* p = m.CreateProcess(100, "test.exe");
        m.Run(p, [&] {
            if (round == 0) {
                OpenResult f = FsTest::Create(u"\\A long name.text", FILE_SYNCHRONOUS_IO_NONALERT,
                                              GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, FILE_ATTRIBUTE_HIDDEN);
                ASSERT_EQ(f.status, STATUS_SUCCESS);
                FILE_BASIC_INFORMATION b{};
                FsTest::Query(f.handle, FileBasicInformation, &b, sizeof b);
                created = b.CreationTime;
                FsTest::Close(f.handle);
            } else {
                OpenResult f = FsTest::Open(u"\\ALONGN~1.TEX");
                ASSERT_EQ(f.status, STATUS_SUCCESS);
                FILE_BASIC_INFORMATION b{};
                FsTest::Query(f.handle, FileBasicInformation, &b, sizeof b);
                EXPECT_EQ(b.CreationTime.QuadPart, created.QuadPart);
                EXPECT_EQ(b.FileAttributes, static_cast<ULONG>(FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_ARCHIVE));
                FsTest::Close(f.handle);
            }
        });
        VerifierReport report = m.Shutdown();
        EXPECT_TRUE(report.Clean()) << report.ToString();
    }
    tervane::emu::fs::FsSetForceMetadataFiles(false);
    std::filesystem::remove_all(host);
}

INSTANTIATE_TEST_SUITE_P(XattrsAndFiles, FsPersistence, ::testing::Values(false, true));
