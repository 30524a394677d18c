// Splitting script lines, escapes both ways, and numbers.
#include <gtest/gtest.h>

#include "lexer.h"

using namespace tervane::tool;

namespace {

std::vector<std::string> Texts(const std::vector<Token>& tokens) {
    std::vector<std::string> out;
    for (const auto& t : tokens) out.push_back(t.text);
    return out;
}

struct SplitCase {
    const char* line;
    std::vector<std::string> tokens;
};

TEST(SplitLine, ArgumentsQuotesEscapesAndComments) {
    const SplitCase cases[] = {
        {"", {}},
        {"   \t ", {}},
        {"# only a comment", {}},
        {"open h1 C:\\dir\\a.txt", {"open", "h1", "C:\\dir\\a.txt"}},  // backslashes are literal unquoted
        {"  put   C:\\a   b  ", {"put", "C:\\a", "b"}},
        {"write h1 \"two words\"", {"write", "h1", "two words"}},
        {"write h1 \"a\\nb\\\\c\\\"d\"", {"write", "h1", "a\nb\\c\"d"}},
        {"write h1 \"\\x41\\x7a\\x00!\"", {"write", "h1", std::string("Az\0!", 4)}},
        {"write h1 \"\\t\\r\\0\"", {"write", "h1", std::string("\t\r\0", 3)}},
        {"put \"C:\\docs\\My file\"", {"put", "C:\\docs\\My file"}},  // other backslashes stay
        {"write h1 \"\"", {"write", "h1", ""}},
        {"list d pattern=\"a b*\"", {"list", "d", "pattern=a b*"}},
        {"ls C:\\ # trailing comment", {"ls", "C:\\"}},
        {"put C:\\a#b.txt x", {"put", "C:\\a#b.txt", "x"}},  // '#' inside a word is a character
        {"write h1 \"# not a comment\"", {"write", "h1", "# not a comment"}},
        {"a\"b c\"d", {"ab cd"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        EXPECT_EQ(Texts(SplitLine(c.line)), c.tokens);
    }
}

TEST(SplitLine, RemembersWhichPartWasQuoted) {
    auto tokens = SplitLine("single \"single\" key=\"v w\" \"k=v\"");
    ASSERT_EQ(tokens.size(), 4u);
    EXPECT_TRUE(tokens[0].Unquoted());
    EXPECT_FALSE(tokens[1].Unquoted());
    EXPECT_EQ(tokens[2].unquotedPrefix, 4u);
    EXPECT_EQ(tokens[3].unquotedPrefix, 0u);
}

TEST(SplitLine, MalformedQuotesAndEscapesAreScriptErrors) {
    const char* bad[] = {
        "write h1 \"unterminated",
        "write h1 \"ends in backslash\\",
        "write h1 \"\\x4\"",
        "write h1 \"\\xzz\"",
    };
    for (const char* line : bad) {
        SCOPED_TRACE(line);
        EXPECT_THROW(SplitLine(line), ScriptError);
    }
}

TEST(EscapeBytes, EveryByteSurvivesARoundTripThroughQuotes) {
    std::string all;
    for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
    std::string escaped = EscapeBytes(all);
    for (char c : escaped) EXPECT_TRUE(c >= 0x20 && c < 0x7f) << "unprintable byte in output";
    auto tokens = SplitLine("\"" + escaped + "\"");
    ASSERT_EQ(tokens.size(), 1u);
    EXPECT_EQ(tokens[0].text, all);
}

TEST(EscapeText, KeepsUtf8ButEscapesControls) {
    EXPECT_EQ(EscapeText("caf\xc3\xa9\n"), "caf\xc3\xa9\\n");
    EXPECT_EQ(EscapeText("C:\\a \"b\"\x01"), "C:\\a \"b\"\\x01");
    EXPECT_EQ(EscapeBytes("caf\xc3\xa9"), "caf\\xc3\\xa9");
}

TEST(ParseNumber, DecimalHexAndRefusals) {
    EXPECT_EQ(ParseNumber("0", "n"), 0);
    EXPECT_EQ(ParseNumber("4096", "n"), 4096);
    EXPECT_EQ(ParseNumber("0x1F", "n"), 31);
    EXPECT_EQ(ParseNumber("0xFFFFFFFF", "n"), 0xFFFFFFFFLL);
    EXPECT_EQ(ParseNumber("-2", "n", true), -2);
    for (const char* bad : {"", "x", "12a", "0x", "0xg", "1.5", "99999999999999999999"}) {
        SCOPED_TRACE(bad);
        EXPECT_THROW(ParseNumber(bad, "n"), ScriptError);
    }
    EXPECT_THROW(ParseNumber("-1", "n"), ScriptError);  // negative only where allowed
}

}  // namespace
