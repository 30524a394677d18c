// Sorting a command's arguments into positional values, options and switches.
#include <gtest/gtest.h>

#include "args.h"

using namespace tervane::tool;

namespace {

TEST(Args, OptionsSwitchesAndPositionalsInAnyOrder) {
    Args args("list", SplitLine("restart d1 pattern=*.txt single length=0x100"), {"pattern", "length", "class"},
              {"single", "restart"});
    EXPECT_EQ(args.Next("H"), "d1");
    args.Done();
    EXPECT_EQ(args.Option("pattern"), "*.txt");
    EXPECT_EQ(args.Option("length"), "0x100");
    EXPECT_FALSE(args.Option("class"));
    EXPECT_TRUE(args.Switch("single"));
    EXPECT_TRUE(args.Switch("restart"));
}

TEST(Args, QuotedWordsAreAlwaysPositional) {
    // A quoted "single" or "a=b" is text to write, not a switch or an option.
    Args args("write", SplitLine("h1 \"single\" \"offset=5\" \"\""), {"offset"}, {"single"});
    EXPECT_EQ(args.Next("H"), "h1");
    EXPECT_EQ(args.Next("TEXT"), "single");
    EXPECT_EQ(args.Next("TEXT"), "offset=5");
    EXPECT_EQ(args.Next("TEXT"), "");
    EXPECT_FALSE(args.Switch("single"));
    EXPECT_FALSE(args.Option("offset"));
}

TEST(Args, PathsWithEqualsSignsStayPositional) {
    Args args("put", SplitLine("C:\\a=b.txt X=1"));
    EXPECT_EQ(args.Next("PATH"), "C:\\a=b.txt");
    EXPECT_EQ(args.Next("TEXT"), "X=1");
}

TEST(Args, MistakesAreScriptErrors) {
    struct Case {
        const char* line;
        const char* what;
    };
    const Case cases[] = {
        {"h1 ofset=3", "an unknown option"},
        {"h1 offset=1 offset=2", "an option twice"},
        {"h1 single single", "a switch twice"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_THROW(Args("read", SplitLine(c.line), {"offset"}, {"single"}), ScriptError);
    }
    Args missing("read", SplitLine("h1"), {"offset"});
    missing.Next("H");
    EXPECT_THROW(missing.Next("LEN"), ScriptError);
    Args extra("close", SplitLine("h1 h2"));
    extra.Next("H");
    EXPECT_THROW(extra.Done(), ScriptError);
}

}  // namespace
