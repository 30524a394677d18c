// Help: every command explains itself, every example is a line the
// interpreter accepts as that command, and the manual page and the bash
// completion made from the same tables say the same.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

#include "cli.h"
#include "commands.h"
#include "frontend.h"
#include "help.h"

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
    for (const char* name : {"run", "shell", "demo", "index", "index build", "help", "expect"}) {
        SCOPED_TRACE(name);
        std::ostringstream out;
        EXPECT_TRUE(PrintHelp(name, out));
        EXPECT_NE(out.str().find("example:"), std::string::npos);
    }
    std::ostringstream overview;
    EXPECT_TRUE(PrintHelp("", overview));
    for (const auto& c : AllCommands()) EXPECT_NE(overview.str().find(c.name), std::string::npos) << c.name;
    for (const auto& c : CliCommands()) EXPECT_NE(overview.str().find(CliUsage(c)), std::string::npos) << c.path;

    std::ostringstream unknown;
    EXPECT_FALSE(PrintHelp("frobnicate", unknown));
    EXPECT_NE(unknown.str().find("no command \"frobnicate\""), std::string::npos);
}

// Every file an example or a help text names exists in the source tree.
TEST(Help, ExamplesNameFilesThatExist) {
    for (const auto& c : CliCommands()) {
        for (std::string text : {std::string(c.example), std::string(c.text)}) {
            for (size_t at = text.find("examples/"); at != std::string::npos; at = text.find("examples/", at + 1)) {
                std::string path = text.substr(at, text.find_first_of(" \n", at) - at);
                while (!path.empty() && (path.back() == '.' || path.back() == ',')) path.pop_back();
                EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(TERVANE_SOURCE_DIR) / path)) << path;
            }
        }
    }
}

std::string RunShell(const std::string& command) {
    std::string text;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return text;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) text.append(buffer, n);
    pclose(pipe);
    return text;
}

// The manual page names every command and renders without a warning.
TEST(Docs, ManualPageCoversEveryCommandAndRenders) {
    std::ostringstream page;
    WriteManPage(page);
    for (const auto& c : CliCommands()) EXPECT_NE(page.str().find(".SS \"" + std::string(c.path) + "\""), std::string::npos);
    for (const auto& c : AllCommands()) EXPECT_NE(page.str().find(".B \"" + std::string(c.scope == Scope::Process ? "PID: " : "") + c.name), std::string::npos) << c.name;
    std::string file = std::filesystem::temp_directory_path() / ("tervane-man-" + std::to_string(getpid()) + ".1");
    std::ofstream(file) << page.str();
    std::string warnings = RunShell("groff -man -ww -z '" + file + "' 2>&1; echo status=$?");
    std::filesystem::remove(file);
    EXPECT_EQ(warnings, "status=0\n");
}

// The bash completion completes what the command line takes.
TEST(Docs, BashCompletionCompletesCommandsOptionsAndValues) {
    std::ostringstream script;
    WriteBashCompletion(script);
    std::filesystem::path dir = std::filesystem::temp_directory_path() / ("tervane-bash-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir / "somedir");
    std::ofstream(dir / "completion.bash") << script.str();
    std::ofstream(dir / "script.scn") << "";
    struct Case {
        const char* line;  // the words before the cursor and the word being completed
        const char* offers;
    };
    const Case cases[] = {
        {"tervane ru", "run"},
        {"tervane --v", "--version"},
        {"tervane index b", "build"},
        {"tervane index build --s", "--skip-unrepresentable"},
        {"tervane index build som", "somedir"},
        {"tervane run --w", "--workdir"},
        {"tervane run --workdir so", "somedir"},
        {"tervane run scr", "script.scn"},
        {"tervane run --json scr", "script.scn"},
        {"tervane demo --keep so", "somedir"},
        {"tervane help op", "open"},
        {"tervane help ex", "expect"},
        {"tervane shell --", "--json"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        std::string line = c.line;
        std::string command = "cd '" + dir.string() + "' && bash -c '. ./completion.bash; COMP_WORDS=(" + line +
                              "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _tervane; echo \"${COMPREPLY[*]}\"' 2>&1";
        if (line.back() == ' ') line += "\"\"";
        std::string offered = RunShell(command);
        EXPECT_NE((" " + offered).find(std::string(" ") + c.offers), std::string::npos) << offered;
    }
    std::filesystem::remove_all(dir);
}

TEST(Help, NamesAreUniqueWithinAScope) {
    auto all = AllCommands();
    for (size_t i = 0; i < all.size(); ++i)
        for (size_t j = i + 1; j < all.size(); ++j)
            EXPECT_FALSE(all[i].scope == all[j].scope && std::string(all[i].name) == all[j].name) << all[i].name;
}

}  // namespace
