// Names of the emulated NTFS volume: validation, splitting, host names,
// expressions and 8.3 names.
#include <gtest/gtest.h>

#include "fs/names.h"

using namespace tervane::emu::fs;

TEST(FsNames, ComponentValidation) {
    struct Case {
        std::u16string name;
        NTSTATUS expected;
    } cases[] = {
        {u"a.txt", STATUS_SUCCESS},
        {u"name with spaces. ", STATUS_SUCCESS},
        {u"\u00e9t\u00e9", STATUS_SUCCESS},
        {std::u16string(255, u'x'), STATUS_SUCCESS},
        {std::u16string(256, u'x'), STATUS_OBJECT_NAME_INVALID},
        {u"", STATUS_OBJECT_NAME_INVALID},
        {u".", STATUS_OBJECT_NAME_INVALID},
        {u"..", STATUS_OBJECT_NAME_INVALID},
        {u"...", STATUS_SUCCESS},
        {std::u16string(u"a\0b", 3), STATUS_OBJECT_NAME_INVALID},
        {u"a\x1f", STATUS_OBJECT_NAME_INVALID},
    };
    for (auto& c : cases) EXPECT_EQ(ValidateComponent(c.name), c.expected) << std::string(c.name.begin(), c.name.end());
    for (char16_t bad : std::u16string(u"\"*/:<>?\\|"))
        EXPECT_EQ(ValidateComponent(std::u16string(u"a") + bad), STATUS_OBJECT_NAME_INVALID) << char(bad);
}

TEST(FsNames, SplitPath) {
    struct Case {
        std::u16string path;
        NTSTATUS status;
        std::vector<std::u16string> parts;
        bool trailing;
    } cases[] = {
        {u"\\", STATUS_SUCCESS, {}, false},
        {u"\\a", STATUS_SUCCESS, {u"a"}, false},
        {u"\\a\\b.txt", STATUS_SUCCESS, {u"a", u"b.txt"}, false},
        {u"\\a\\b\\", STATUS_SUCCESS, {u"a", u"b"}, true},
        {u"a\\b", STATUS_SUCCESS, {u"a", u"b"}, false},
        {u"\\a\\\\b", STATUS_OBJECT_NAME_INVALID, {}, false},
        {u"\\a\\\\", STATUS_OBJECT_NAME_INVALID, {}, false},
        {u"\\\\", STATUS_OBJECT_NAME_INVALID, {}, false},
        {u"\\a\\..\\b", STATUS_OBJECT_NAME_INVALID, {}, false},
        {u"\\a\\.", STATUS_OBJECT_NAME_INVALID, {}, false},
        {u"\\a:stream", STATUS_OBJECT_NAME_INVALID, {}, false},
    };
    for (auto& c : cases) {
        std::vector<std::u16string> parts;
        bool trailing = false;
        NTSTATUS status = SplitPath(c.path, &parts, &trailing);
        EXPECT_EQ(status, c.status) << std::string(c.path.begin(), c.path.end());
        if (NT_SUCCESS(status)) {
            EXPECT_EQ(parts, c.parts);
            EXPECT_EQ(trailing, c.trailing);
        }
    }
}

TEST(FsNames, HostNamesRoundTripOnlyWhenValid) {
    std::u16string nt;
    EXPECT_TRUE(HostNameToNt("caf\xc3\xa9", &nt));
    EXPECT_EQ(nt, u"caf\u00e9");
    EXPECT_TRUE(HostNameToNt("\xf0\x9f\x98\x80", &nt));  // outside the BMP: a surrogate pair
    EXPECT_EQ(nt, u"\U0001F600");
    std::string host;
    EXPECT_TRUE(NtNameToHost(nt, &host));
    EXPECT_EQ(host, "\xf0\x9f\x98\x80");
    for (const char* bad : {"\xff", "a\x80", "\xc0\xaf", "\xed\xa0\x80", "\xe2\x82", "\xf4\x90\x80\x80"})
        EXPECT_FALSE(HostNameToNt(bad, &nt)) << bad;
    EXPECT_FALSE(NtNameToHost(u"a\xd800", &host));   // unpaired high surrogate
    EXPECT_FALSE(NtNameToHost(u"\xdc00z", &host));   // unpaired low surrogate
    // Appending after an ASCII head: what was there stays, and a name that
    // has no host spelling adds nothing to it.
    struct Append {
        std::u16string nt;
        bool ok;
        std::string host;
    } appends[] = {
        {u"plain.txt", true, "dir/plain.txt"},
        {u"caf\u00e9 \u20ac", true, "dir/caf\xc3\xa9 \xe2\x82\xac"},
        {u"ab\xd800", false, "dir/"},
        {u"abc\U0001F600d\xdc00", false, "dir/"},
    };
    for (const Append& a : appends) {
        host = "dir/";
        EXPECT_EQ(AppendNtNameAsHost(a.nt, &host), a.ok) << a.host;
        EXPECT_EQ(host, a.host);
    }
}

TEST(FsNames, CaseFolding) {
    EXPECT_TRUE(EqualNoCase(u"ReadMe.TXT", u"readme.txt"));
    EXPECT_TRUE(EqualNoCase(u"\u00e9\u0101\u0431", u"\u00c9\u0100\u0411"));
    EXPECT_FALSE(EqualNoCase(u"a", u"b"));
    EXPECT_TRUE(LessNoCase(u"apple", u"Banana"));
    EXPECT_FALSE(LessNoCase(u"B", u"a"));
    EXPECT_TRUE(LessNoCase(u"a", u"_"));  // compared upcased: 'A' (0x41) before '_' (0x5F)
}

TEST(FsNames, Expressions) {
    struct Case {
        std::u16string expr, name;
        bool match;
    } cases[] = {
        {u"*", u"anything.txt", true},
        {u"*", u".", true},
        {u"*.txt", u"a.TXT", true},
        {u"*.txt", u"a.txt.bak", false},
        {u"*.*", u"noext", false},
        {u"a?c", u"abc", true},
        {u"a?c", u"ac", false},
        {u"FILE.TXT", u"file.txt", true},
        {u"*a*b*", u"xxaxxbxx", true},
        {u"*a*b*", u"xxbxxaxx", false},
        // DOS_STAR: anything up to the last dot.
        {u"<.txt", u"a.b.txt", true},
        {u"<", u"name.ext", false},
        {u"<", u"noext", true},
        {u"<.", u"noext", false},
        // DOS_QM: one character, or nothing at a dot or the end.
        {u"a>>>", u"ab", true},
        {u"a>>>.txt", u"ab.txt", true},
        {u">>>", u"abcd", false},
        // DOS_DOT: a dot, or nothing at the end.
        {u"abc\"*", u"abc", true},
        {u"abc\"txt", u"abc.txt", true},
        {u"<\"*", u"abc", true},
        {u"", u"", true},
        {u"", u"a", false},
    };
    for (auto& c : cases)
        EXPECT_EQ(IsNameInExpression(c.expr, c.name), c.match)
            << std::string(c.expr.begin(), c.expr.end()) << " ~ " << std::string(c.name.begin(), c.name.end());
    EXPECT_TRUE(ExpressionHasWildcards(u"a<b"));
    EXPECT_FALSE(ExpressionHasWildcards(u"plain.txt"));
}

TEST(FsNames, EightDotThree) {
    struct Case {
        std::u16string name;
        bool valid;
    } cases[] = {
        {u"README.TXT", true}, {u"readme.txt", true},  {u"A", true},          {u"ABCDEFGH.IJK", true},
        {u"ABCDEFGHI", false}, {u"A.TEXT", false},     {u"A.B.C", false},     {u"has space", false},
        {u".profile", false},  {u"a+b.txt", false},    {u"caf\u00e9", false}, {u"x.", false},
    };
    for (auto& c : cases) EXPECT_EQ(IsValid83Name(c.name), c.valid) << std::string(c.name.begin(), c.name.end());

    struct Gen {
        std::u16string longName;
        int attempt;
        std::u16string shortName;
    } gens[] = {
        {u"Long File Name.html", 1, u"LONGFI~1.HTM"},
        {u"Long File Name.html", 3, u"LONGFI~3.HTM"},
        {u"a+b,c.txt", 1, u"A_B_C~1.TXT"},
        {u".bashrc", 1, u"BASHRC~1"},
        {u"x.y.z.document", 2, u"XYZ~2.DOC"},
    };
    for (auto& g : gens) EXPECT_EQ(MakeShortNameCandidate(g.longName, g.attempt), g.shortName);
    // Past the fourth, a hashed form that stays 8.3 and differs per name.
    std::u16string h1 = MakeShortNameCandidate(u"Long File Name.html", 5);
    std::u16string h2 = MakeShortNameCandidate(u"Long File Name2.html", 5);
    EXPECT_TRUE(IsValid83Name(h1));
    EXPECT_NE(h1, h2);
    EXPECT_EQ(h1, MakeShortNameCandidate(u"long file name.HTML", 5));  // stable under case
    EXPECT_TRUE(MakeShortNameCandidate(u"x", 14).empty());
}
