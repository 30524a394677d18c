// Help: every command explains itself, and every example is a line the
// interpreter accepts as that command.
#include <gtest/gtest.h>

#include <sstream>

#include "commands.h"
#include "frontend.h"

using namespace tervane::tool;

namespace {

TEST(Help, EveryScenarioCommandHasUsageTextAndAWellFormedExample) {
    ASSERT_GT(AllCommands().size(), 30u);
    for (const auto& c : AllCommands()) {
        SCOPED_TRACE(c.name);
        std::ostringstream out;
        ASSERT_TRUE(PrintHelp(c.name, out));
        EXPECT_NE(out.str().find("usage: "), std::string::npos);
        EXPECT_NE(out.str().find("example:"), std::string::npos);
        EXPECT_GT(std::string(c.summary).size(), 10u);

        auto tokens = SplitLine(c.example);
        ASSERT_FALSE(tokens.empty());
        size_t at = 0;
        if (c.scope == Scope::Process) {
            ASSERT_GE(tokens.size(), 2u);
            EXPECT_EQ(tokens[0].text.back(), ':') << "a process operation's example starts with PID:";
            at = 1;
        }
        EXPECT_EQ(tokens[at].text, c.name);
        EXPECT_EQ(FindCommand(c.name, c.scope), &c);
    }
}

TEST(Help, CommandLineCommandsExpectAndUnknownNames) {
    for (const char* name : {"run", "shell", "demo", "index", "help", "expect"}) {
        SCOPED_TRACE(name);
        std::ostringstream out;
        EXPECT_TRUE(PrintHelp(name, out));
        EXPECT_NE(out.str().find("example:"), std::string::npos);
    }
    std::ostringstream overview;
    EXPECT_TRUE(PrintHelp("", overview));
    for (const auto& c : AllCommands()) EXPECT_NE(overview.str().find(c.name), std::string::npos) << c.name;

    std::ostringstream unknown;
    EXPECT_FALSE(PrintHelp("frobnicate", unknown));
    EXPECT_NE(unknown.str().find("no command \"frobnicate\""), std::string::npos);
}

TEST(Help, NamesAreUniqueWithinAScope) {
    auto all = AllCommands();
    for (size_t i = 0; i < all.size(); ++i)
        for (size_t j = i + 1; j < all.size(); ++j)
            EXPECT_FALSE(all[i].scope == all[j].scope && std::string(all[i].name) == all[j].name) << all[i].name;
}

}  // namespace
