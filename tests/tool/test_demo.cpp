// `tervane demo`: it passes on a fresh workspace in both output forms, keeps
// the workspace when asked, and catches every kind of difference it checks.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "demo.h"

using namespace tervane::tool;
namespace fs = std::filesystem;

namespace {

struct DemoOutput {
    int code;
    std::string text;
};

DemoOutput Demo(DemoOptions options) {
    std::ostringstream out;
    options.out = &out;
    if (options.width == 0) options.width = 100;  // what a run into a file gets, whatever the terminal
    int code = RunDemo(options);
    return {code, out.str()};
}

class DemoTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/tervane-demo-test-XXXXXX";
        dir_ = mkdtemp(pattern);
    }
    void TearDown() override { fs::remove_all(dir_); }
    fs::path dir_;
};

DemoStep& StepTitled(std::vector<DemoStep>& steps, const std::string& title) {
    for (auto& s : steps)
        if (s.title == title) return s;
    throw std::runtime_error("no demo step " + title);
}

size_t Count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

TEST_F(DemoTest, QuietRunPrintsOnlyTheVerdict) {
    DemoOptions options;
    options.quiet = true;
    auto r = Demo(options);
    EXPECT_EQ(r.code, 0) << r.text;
    EXPECT_EQ(Count(r.text, "\n"), 1u) << r.text;
    EXPECT_EQ(r.text.rfind("tervane demo: all ", 0), 0u) << r.text;
    EXPECT_NE(r.text.find(" checks passed."), std::string::npos);
}

TEST_F(DemoTest, VerboseRunShowsAndChecksEveryStepAndEndsClean) {
    DemoOptions wide;
    wide.width = 160;  // the kernel log's lines whole
    auto r = Demo(wide);
    ASSERT_EQ(r.code, 0) << r.text;
    EXPECT_EQ(r.text.find("DIFFERS"), std::string::npos) << r.text;
    // Every step of the walk, the index build and the shutdown is marked checked.
    const auto steps = DemoSteps();
    for (const auto& step : steps) EXPECT_NE(r.text.find(". " + step.title + "\n"), std::string::npos) << step.title;
    EXPECT_EQ(Count(r.text, "   checked: "), steps.size() + 2) << r.text;
    // The monitored and the unmonitored process side by side.
    EXPECT_NE(r.text.find("inkpad.exe, monitored:"), std::string::npos);
    EXPECT_NE(r.text.find("| backup.exe, not monitored:"), std::string::npos);
    EXPECT_NE(r.text.find("Copy to pack location succeeded!! [C:\\Inkpad\\inkpad.ini]"), std::string::npos);
    EXPECT_NE(r.text.find("Trvi allocs="), std::string::npos);
    EXPECT_NE(r.text.find("pool: 0 blocks outstanding"), std::string::npos);
    EXPECT_NE(r.text.find("handles: 0 open"), std::string::npos);
    // A temporary workspace is removed.
    auto at = r.text.find("Workspace: ");
    ASSERT_NE(at, std::string::npos);
    std::string workspace = r.text.substr(at + 11, r.text.find(' ', at + 11) - at - 11);
    EXPECT_FALSE(fs::exists(workspace)) << workspace;
}

TEST_F(DemoTest, FitsTheWidthSideBySideOnlyWhenThereIsRoom) {
    struct Case {
        size_t width;
        bool sideBySide;
    };
    for (const Case& c : {Case{60, false}, Case{85, false}, Case{100, true}, Case{160, true}}) {
        SCOPED_TRACE(c.width);
        DemoOptions options;
        options.width = c.width;
        auto r = Demo(options);
        ASSERT_EQ(r.code, 0) << r.text;
        std::istringstream lines(r.text);
        for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), c.width) << line;
        EXPECT_EQ(r.text.find("| backup.exe, not monitored:") != std::string::npos, c.sideBySide);
        EXPECT_EQ(Count(r.text, "backup.exe, not monitored:"), Count(r.text, "inkpad.exe, monitored:"));
        EXPECT_GT(Count(r.text, "backup.exe, not monitored:"), 5u);
    }
}

TEST_F(DemoTest, KeepLeavesTheWorkspaceWithTheLayersAsTheWalkLeftThem) {
    DemoOptions options;
    options.keepDir = (dir_ / "ws").string();
    options.quiet = true;
    auto r = Demo(options);
    ASSERT_EQ(r.code, 0) << r.text;
    auto read = [&](const std::string& rel) {
        std::ifstream in(dir_ / "ws" / rel, std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    };
    EXPECT_EQ(read("volume/layers/pack/Inkpad/inkpad.ini"),
              "[window]\r\nwidth=800\r\nheight=600\r\n[recent]\r\nfile1=notes.txt\r\n");
    EXPECT_EQ(read("volume/layers/base/Inkpad/inkpad.ini"), "[window]\r\nwidth=800\r\nheight=600\r\n");
    EXPECT_TRUE(fs::exists(dir_ / "ws/volume/layers/base/Inkpad/plugins/wordcount.dll"));
    EXPECT_TRUE(fs::exists(dir_ / "ws/volume/index/base.node"));
    EXPECT_EQ(read("volume/Temp/inkpad.log"), "started\r\n");
}

TEST_F(DemoTest, KeepRefusesADirectoryThatHoldsFiles) {
    fs::create_directories(dir_ / "full");
    std::ofstream(dir_ / "full" / "old.txt") << "x";
    DemoOptions options;
    options.keepDir = (dir_ / "full").string();
    auto r = Demo(options);
    EXPECT_EQ(r.code, 2);
    EXPECT_NE(r.text.find("the directory is not empty"), std::string::npos) << r.text;
    EXPECT_TRUE(fs::exists(dir_ / "full" / "old.txt"));
}

// Each change makes one thing the demo shows differ from what it expects;
// the demo must fail, name the step, and say what differed.
TEST_F(DemoTest, EveryKindOfDifferenceFailsTheRunAndIsNamed) {
    struct Case {
        const char* name;
        std::function<void(std::vector<DemoStep>&)> adjust;
        const char* said;  // in the verdict
    };
    const Case cases[] = {
        {"output text",
         [](auto& steps) { StepTitled(steps, "A layered open").left[1].expects = {"expect \"Inkpad 1.0\""}; },
         "A layered open: 1234: cat C:\\Inkpad\\readme.txt: output lacks \"Inkpad 1.0\""},
        {"status",
         [](auto& steps) { StepTitled(steps, "A layered open").right[0].expects = {"expect STATUS_SUCCESS"}; },
         "status STATUS_OBJECT_NAME_NOT_FOUND (0xC0000034), expected STATUS_SUCCESS"},
        {"debug output",
         [](auto& steps) {
             StepTitled(steps, "A deletion, hidden from the view").left[0].expects = {"expect log \"never logged\""};
         },
         "debug output lacks \"never logged\""},
        {"host file content",
         [](auto& steps) {
             StepTitled(steps, "Copy-up on write").host[1].content = "[window]\r\nwidth=1024\r\n";
         },
         "volume/layers/base/Inkpad/inkpad.ini holds"},
        {"host file that should be absent",
         [](auto& steps) {
             StepTitled(steps, "A deletion, hidden from the view").host.push_back(
                 {"volume/layers/base/Inkpad/plugins/wordcount.dll", std::nullopt});
         },
         "wordcount.dll should not exist"},
        {"host file that is missing",
         [](auto& steps) {
             StepTitled(steps, "A rename").host.push_back({"volume/layers/pack/Inkpad/readme.txt", "x"});
         },
         "volume/layers/pack/Inkpad/readme.txt is missing"},
        {"script error",
         [](auto& steps) { StepTitled(steps, "An exclusion").left.push_back({"1234: fly away", {}}); },
         "An exclusion: 1234: fly away: unknown operation \"fly\""},
    };
    for (const auto& c : cases) {
        DemoOptions options;
        options.quiet = true;
        options.adjust = c.adjust;
        auto r = Demo(options);
        EXPECT_EQ(r.code, 1) << c.name << "\n" << r.text;
        EXPECT_NE(r.text.find(" checks differed:"), std::string::npos) << c.name << "\n" << r.text;
        EXPECT_NE(r.text.find(c.said), std::string::npos) << c.name << "\n" << r.text;
        EXPECT_EQ(r.text.find("passed"), std::string::npos) << c.name;
    }
}

TEST_F(DemoTest, AFailedSetUpStopsTheWalkButStillShutsDownClean) {
    DemoOptions options;
    options.adjust = [](auto& steps) { steps[0].left[4].line = "ctl add-process"; };  // a script error
    auto r = Demo(options);
    EXPECT_EQ(r.code, 1) << r.text;
    EXPECT_NE(r.text.find("The walk stops here"), std::string::npos) << r.text;
    EXPECT_EQ(r.text.find("2. A layered open"), std::string::npos) << r.text;
    EXPECT_NE(r.text.find("checked: nothing outstanding."), std::string::npos) << r.text;
    EXPECT_NE(r.text.find("tervane demo: 1 of "), std::string::npos) << r.text;
}

}  // namespace
