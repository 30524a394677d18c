// NT flag names, information classes, and status names.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include <emu/machine.h>
#include <nt/ntifs.h>

#include "flags.h"
#include "lexer.h"

using namespace tervane::tool;

namespace {

struct FlagCase {
    const char* text;
    std::span<const NamedValue> (*table)();
    uint32_t value;
};

TEST(ParseFlags, NamesJoinedByBarsOrNumbers) {
    const FlagCase cases[] = {
        {"GENERIC_READ|SYNCHRONIZE", AccessNames, GENERIC_READ | SYNCHRONIZE},
        {"generic_write", AccessNames, GENERIC_WRITE},
        {"FILE_READ_DATA|0x100000", AccessNames, FILE_READ_DATA | SYNCHRONIZE},
        {"0", AccessNames, 0},
        {"7", ShareNames, 7},
        {"FILE_SHARE_READ|FILE_SHARE_DELETE", ShareNames, FILE_SHARE_READ | FILE_SHARE_DELETE},
        {"FILE_DIRECTORY_FILE|FILE_SYNCHRONOUS_IO_NONALERT", OptionNames,
         FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT},
        {"FILE_ATTRIBUTE_READONLY|FILE_ATTRIBUTE_HIDDEN", AttributeNames, 3},
        {"FILE_NOTIFY_CHANGE_NAME", NotifyFilterNames, 3},
        {"DACL_SECURITY_INFORMATION|OWNER_SECURITY_INFORMATION", SecurityInfoNames, 5},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(ParseFlags(c.text, c.table(), "flag"), c.value);
    }
}

TEST(ParseFlags, RefusesUnknownNamesEmptyPartsAndNamesOfAnotherTable) {
    const char* bad[] = {"", "|", "GENERIC_READ|", "|GENERIC_READ", "GENERIC_READ||SYNCHRONIZE", "GENERIC_REED",
                         "FILE_SHARE_READ", "0x", "0x100000000"};
    for (const char* text : bad) {
        SCOPED_TRACE(text);
        EXPECT_THROW(ParseFlags(text, AccessNames(), "access flag"), ScriptError);
    }
}

TEST(ParseOneName, DispositionsByNameOrNumberOnly) {
    EXPECT_EQ(ParseOneName("FILE_SUPERSEDE", DispositionNames(), "d"), FILE_SUPERSEDE);
    EXPECT_EQ(ParseOneName("FILE_OVERWRITE_IF", DispositionNames(), "d"), FILE_OVERWRITE_IF);
    EXPECT_EQ(ParseOneName("3", DispositionNames(), "d"), 3u);
    EXPECT_THROW(ParseOneName("FILE_OPEN|FILE_CREATE", DispositionNames(), "d"), ScriptError);
    EXPECT_THROW(ParseOneName("FILE_OPENED", DispositionNames(), "d"), ScriptError);
}

TEST(ParseInfoClass, FullShortAndNumberForms) {
    EXPECT_EQ(ParseInfoClass("FileBasicInformation", FileInfoClasses(), "c"), uint32_t(FileBasicInformation));
    EXPECT_EQ(ParseInfoClass("Basic", FileInfoClasses(), "c"), uint32_t(FileBasicInformation));
    EXPECT_EQ(ParseInfoClass("idbothdirectory", FileInfoClasses(), "c"), uint32_t(FileIdBothDirectoryInformation));
    EXPECT_EQ(ParseInfoClass("99", FileInfoClasses(), "c"), 99u);  // unknown classes reach the file system
    EXPECT_EQ(ParseInfoClass("Attribute", FsInfoClasses(), "c"), uint32_t(FileFsAttributeInformation));
    EXPECT_EQ(ParseInfoClass("FileFsSizeInformation", FsInfoClasses(), "c"), uint32_t(FileFsSizeInformation));
    EXPECT_THROW(ParseInfoClass("Attribute", FileInfoClasses(), "c"), ScriptError);
    EXPECT_THROW(ParseInfoClass("Basic", FsInfoClasses(), "c"), ScriptError);
}

TEST(FormatFlags, SingleBitNamesAndLeftoverHex) {
    EXPECT_EQ(FormatFlags(0, AttributeNames()), "0");
    EXPECT_EQ(FormatFlags(0x21, AttributeNames()), "FILE_ATTRIBUTE_READONLY|FILE_ATTRIBUTE_ARCHIVE");
    EXPECT_EQ(FormatFlags(0x80000010, AttributeNames()), "FILE_ATTRIBUTE_DIRECTORY|0x80000000");
    EXPECT_EQ(FormatFlags(FILE_NOTIFY_CHANGE_NAME, NotifyFilterNames()), "FILE_NOTIFY_CHANGE_NAME");
    // What FormatFlags prints, ParseFlags reads back.
    for (uint32_t v : {0x1u, 0x27u, 0x100u, 0x4000u, 0x80000123u})
        EXPECT_EQ(ParseFlags(FormatFlags(v, AttributeNames()), AttributeNames(), "a"), v);
}

// Every status of the NT headers has a name both ways, so that the tool can
// print any status the machine returns and scripts can expect it by name.
TEST(StatusNames, EveryStatusOfTheHeaderIsKnownBothWays) {
    std::ifstream header(std::string(TERVANE_SOURCE_DIR) + "/emu/include/nt/ntstatus.h");
    ASSERT_TRUE(header) << "cannot read ntstatus.h";
    std::regex define(R"(#define (STATUS_\w+) \(\(NTSTATUS\)(0x[0-9A-Fa-f]+)L\))");
    std::string line;
    int seen = 0;
    while (std::getline(header, line)) {
        std::smatch m;
        if (!std::regex_search(line, m, define)) continue;
        ++seen;
        NTSTATUS value = static_cast<NTSTATUS>(std::stoul(m[2], nullptr, 16));
        NTSTATUS parsed = 0;
        EXPECT_TRUE(tervane::emu::StatusFromName(m[1], &parsed)) << m[1];
        EXPECT_EQ(parsed, value) << m[1];
        std::string name = tervane::emu::StatusName(value);
        NTSTATUS back = 0;
        EXPECT_TRUE(tervane::emu::StatusFromName(name, &back) && back == value) << m[1] << " prints as " << name;
    }
    EXPECT_GT(seen, 100);
    EXPECT_EQ(tervane::emu::StatusName(STATUS_SUCCESS), "STATUS_SUCCESS");
    EXPECT_EQ(tervane::emu::StatusName(static_cast<NTSTATUS>(0xC0001234)), "0xC0001234");
    EXPECT_FALSE(tervane::emu::StatusFromName("STATUS_NO_SUCH_THING", nullptr));
}

}  // namespace
