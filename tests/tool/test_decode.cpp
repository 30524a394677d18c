// Decoding the records services return: whole, cut off and malformed.
#include <gtest/gtest.h>

#include <cstring>

#include <nt/ntifs.h>

#include "decode.h"
#include "lexer.h"

using namespace tervane::tool;

namespace {

bool Holds(const std::vector<std::string>& lines, const std::string& text) {
    for (const auto& l : lines)
        if (l.find(text) != std::string::npos) return true;
    return false;
}

template <typename T>
void Put(std::vector<uint8_t>& b, size_t at, T v) {
    std::memcpy(b.data() + at, &v, sizeof v);
}

void PutName(std::vector<uint8_t>& b, size_t at, const std::u16string& name) {
    std::memcpy(b.data() + at, name.data(), name.size() * 2);
}

TEST(DescribeFileInformation, BasicWholeAndCutOff) {
    FILE_BASIC_INFORMATION info{};
    info.CreationTime.QuadPart = 132000000000000000LL;
    info.LastWriteTime.QuadPart = 5;
    info.FileAttributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE;
    auto bytes = reinterpret_cast<const uint8_t*>(&info);

    auto whole = DescribeFileInformation(FileBasicInformation, bytes, sizeof info);
    EXPECT_TRUE(Holds(whole, "CreationTime=132000000000000000"));
    EXPECT_TRUE(Holds(whole, "LastWriteTime=5"));
    EXPECT_TRUE(Holds(whole, "FileAttributes=0x00000021(FILE_ATTRIBUTE_READONLY|FILE_ATTRIBUTE_ARCHIVE)"));

    // Only 20 bytes valid: two times, then a note instead of a read past them.
    auto cut = DescribeFileInformation(FileBasicInformation, bytes, 20);
    EXPECT_TRUE(Holds(cut, "LastAccessTime=0"));
    EXPECT_FALSE(Holds(cut, "LastWriteTime="));
    EXPECT_TRUE(Holds(cut, "the record ends before LastWriteTime"));
}

TEST(DescribeFileInformation, NamesAreBoundedByTheValidBytes) {
    std::u16string name = u"\\dir\\a.txt";
    std::vector<uint8_t> buf(4 + name.size() * 2);
    Put<uint32_t>(buf, 0, static_cast<uint32_t>(name.size() * 2));
    PutName(buf, 4, name);

    auto whole = DescribeFileInformation(FileNameInformation, buf.data(), buf.size());
    EXPECT_TRUE(Holds(whole, "FileNameLength=20"));
    EXPECT_TRUE(Holds(whole, "FileName=\\dir\\a.txt"));

    // STATUS_BUFFER_OVERFLOW: the length says 20 but only 8 name bytes came.
    auto partial = DescribeFileInformation(FileNameInformation, buf.data(), 12);
    EXPECT_TRUE(Holds(partial, "FileName=\\dir (cut off: 8 of 20 bytes)"));

    // A lying length far beyond the buffer is cut to the valid bytes too.
    Put<uint32_t>(buf, 0, 0xFFFFFFF0u);
    auto lying = DescribeFileInformation(FileNameInformation, buf.data(), buf.size());
    EXPECT_TRUE(Holds(lying, "cut off"));
}

TEST(DescribeFileInformation, UnknownClassesPrintRawBytes) {
    const uint8_t bytes[] = {0xde, 0xad, 0x01};
    EXPECT_EQ(DescribeFileInformation(FileStreamInformation, bytes, 3), std::vector<std::string>{"bytes=dead01"});
}

TEST(DescribeVolumeInformation, AttributeNamesTheFileSystem) {
    std::u16string fsName = u"NTFS";
    std::vector<uint8_t> buf(offsetof(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName) + 8);
    Put<uint32_t>(buf, 0, FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK);
    Put<int32_t>(buf, 4, 255);
    Put<uint32_t>(buf, 8, 8);
    PutName(buf, 12, fsName);
    auto lines = DescribeVolumeInformation(FileFsAttributeInformation, buf.data(), buf.size());
    EXPECT_TRUE(Holds(lines, "FileSystemAttributes=0x00000006(FILE_CASE_PRESERVED_NAMES|FILE_UNICODE_ON_DISK)"));
    EXPECT_TRUE(Holds(lines, "MaximumComponentNameLength=255"));
    EXPECT_TRUE(Holds(lines, "FileSystemName=NTFS"));
}

// Two FileBothDirectoryInformation records, 8-byte aligned, as a listing
// returns them.
std::vector<uint8_t> TwoEntries() {
    using T = FILE_BOTH_DIR_INFORMATION;
    size_t first = (offsetof(T, FileName) + 10 + 7) & ~size_t(7);
    std::vector<uint8_t> buf(first + offsetof(T, FileName) + 6);
    Put<uint32_t>(buf, 0, static_cast<uint32_t>(first));
    Put<int64_t>(buf, offsetof(T, EndOfFile), 5);
    Put<uint32_t>(buf, offsetof(T, FileAttributes), FILE_ATTRIBUTE_ARCHIVE);
    Put<uint32_t>(buf, offsetof(T, FileNameLength), 10);
    buf[offsetof(T, ShortNameLength)] = 0;
    PutName(buf, offsetof(T, FileName), u"a.txt");
    Put<uint32_t>(buf, first + offsetof(T, FileAttributes), FILE_ATTRIBUTE_DIRECTORY);
    Put<uint32_t>(buf, first + offsetof(T, FileNameLength), 6);
    buf[first + offsetof(T, ShortNameLength)] = 6;
    PutName(buf, first + offsetof(T, ShortName), u"SUB");
    PutName(buf, first + offsetof(T, FileName), u"sub");
    return buf;
}

TEST(DescribeDirectoryEntries, OneLinePerEntryNameFirst) {
    auto buf = TwoEntries();
    auto lines = DescribeDirectoryEntries(FileBothDirectoryInformation, buf.data(), buf.size());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("a.txt EndOfFile=5 ", 0), 0u) << lines[0];
    EXPECT_EQ(lines[1].rfind("sub ", 0), 0u) << lines[1];
    EXPECT_TRUE(Holds(lines, "ShortName=SUB"));

    auto entries = ParseBothDirectoryEntries(buf.data(), buf.size());
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].size, 5);
    EXPECT_TRUE(entries[1].attributes & FILE_ATTRIBUTE_DIRECTORY);
}

TEST(DescribeDirectoryEntries, MalformedChainsAreReportedNotFollowed) {
    struct Case {
        const char* what;
        void (*spoil)(std::vector<uint8_t>&);
        size_t valid;  // 0: the whole buffer
        const char* note;
    };
    const Case cases[] = {
        {"next offset past the data", [](std::vector<uint8_t>& b) { Put<uint32_t>(b, 0, 0x10000); }, 0,
         "points past the data"},
        {"next offset not aligned", [](std::vector<uint8_t>& b) { Put<uint32_t>(b, 0, 12); }, 0, "not 8-byte aligned"},
        {"second record cut off", [](std::vector<uint8_t>&) {}, 110, "cut off"},
        {"name longer than the data",
         [](std::vector<uint8_t>& b) { Put<uint32_t>(b, offsetof(FILE_BOTH_DIR_INFORMATION, FileNameLength), 4000); }, 0,
         "name of the record at offset 0 is cut off"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto buf = TwoEntries();
        c.spoil(buf);
        auto lines = DescribeDirectoryEntries(FileBothDirectoryInformation, buf.data(), c.valid ? c.valid : buf.size());
        EXPECT_TRUE(Holds(lines, c.note));
    }
}

TEST(DescribeNotifyEntries, ActionAndName) {
    using T = FILE_NOTIFY_INFORMATION;
    std::vector<uint8_t> buf(offsetof(T, FileName) + 10);
    Put<uint32_t>(buf, offsetof(T, Action), FILE_ACTION_ADDED);
    Put<uint32_t>(buf, offsetof(T, FileNameLength), 10);
    PutName(buf, offsetof(T, FileName), u"x.txt");
    EXPECT_EQ(DescribeNotifyEntries(buf.data(), buf.size()), std::vector<std::string>{"FILE_ACTION_ADDED x.txt"});
    EXPECT_TRUE(DescribeNotifyEntries(buf.data(), 0).empty());
}

TEST(Sids, ParseAndPrintRoundTrip) {
    for (const char* text : {"S-1-1-0", "S-1-5-18", "S-1-5-32-544", "S-1-5-21-1004336348-1177238915-682003330-512"}) {
        SCOPED_TRACE(text);
        auto sid = ParseSid(text);
        ASSERT_FALSE(sid.empty());
        EXPECT_EQ(SidText(sid.data(), sid.size()), text);
        EXPECT_EQ(SidText(sid.data(), sid.size() - 1), "");  // one byte short: refused
    }
    for (const char* bad : {"", "S-", "S-1", "X-1-5", "S-1-5-x", "S-256-5", "S-1-5-4294967296",
                            "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16"}) {
        SCOPED_TRACE(bad);
        EXPECT_TRUE(ParseSid(bad).empty());
    }
}

TEST(DescribeSecurityDescriptor, OwnerAndDaclWithBoundsChecks) {
    auto owner = ParseSid("S-1-5-32-544");
    auto everyone = ParseSid("S-1-1-0");
    using SD = SECURITY_DESCRIPTOR_RELATIVE;
    size_t aclAt = sizeof(SD) + owner.size();
    size_t aceSize = 8 + everyone.size();
    std::vector<uint8_t> sd(aclAt + sizeof(ACL) + aceSize);
    SD header{1, 0, SE_SELF_RELATIVE | SE_DACL_PRESENT, static_cast<ULONG>(sizeof(SD)), 0, 0,
              static_cast<ULONG>(aclAt)};
    std::memcpy(sd.data(), &header, sizeof header);
    std::memcpy(sd.data() + sizeof(SD), owner.data(), owner.size());
    ACL acl{ACL_REVISION, 0, static_cast<USHORT>(sizeof(ACL) + aceSize), 1, 0};
    std::memcpy(sd.data() + aclAt, &acl, sizeof acl);
    size_t ace = aclAt + sizeof(ACL);
    sd[ace] = ACCESS_ALLOWED_ACE_TYPE;
    Put<uint16_t>(sd, ace + 2, static_cast<uint16_t>(aceSize));
    Put<uint32_t>(sd, ace + 4, FILE_ALL_ACCESS);
    std::memcpy(sd.data() + ace + 8, everyone.data(), everyone.size());

    auto lines = DescribeSecurityDescriptor(sd.data(), sd.size());
    EXPECT_TRUE(Holds(lines, "Control=0x8004"));
    EXPECT_TRUE(Holds(lines, "Owner=S-1-5-32-544"));
    EXPECT_TRUE(Holds(lines, "allow 0x001F01FF S-1-1-0"));

    // The same descriptor cut before its ACE, and with an ACE count that lies.
    EXPECT_TRUE(Holds(DescribeSecurityDescriptor(sd.data(), ace + 4), "lies outside the ACL"));
    Put<uint16_t>(sd, aclAt + offsetof(ACL, AceCount), 50);
    EXPECT_TRUE(Holds(DescribeSecurityDescriptor(sd.data(), sd.size()), "lies outside the ACL"));
    EXPECT_TRUE(Holds(DescribeSecurityDescriptor(sd.data(), 10), "too short"));
}

TEST(HexBytes, RoundTripAndRefusals) {
    const uint8_t bytes[] = {0x00, 0x7f, 0x80, 0xff};
    EXPECT_EQ(HexBytes(bytes, 4), "007f80ff");
    EXPECT_EQ(ParseHexBytes("00 7f80FF"), std::vector<uint8_t>(bytes, bytes + 4));
    EXPECT_THROW(ParseHexBytes("abc"), ScriptError);
    EXPECT_THROW(ParseHexBytes("zz"), ScriptError);
}

}  // namespace
