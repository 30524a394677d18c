// The interpreter as `tervane run` drives it: exit codes, script errors with
// file and line, expect semantics, and the two output forms.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include <nlohmann/json.hpp>

#include "interpreter.h"

using namespace tervane::tool;
namespace fs = std::filesystem;

namespace {

struct RunOutput {
    int code;
    std::string out;
    std::string err;
};

class InterpreterTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/tervane-tool-XXXXXX";
        dir_ = mkdtemp(pattern);
    }
    void TearDown() override { fs::remove_all(dir_); }

    RunOutput Run(const std::string& script, InterpreterOptions options = {}) {
        std::ostringstream out, err;
        std::istringstream in(script);
        Interpreter interpreter(out, dir_, options);
        int code = interpreter.RunScript(in, "test.scn", err);
        return {code, out.str(), err.str()};
    }

    fs::path dir_;
};

const char* kSetup =
    "volume C: vol\n"
    "process 10 app.exe\n";

TEST_F(InterpreterTest, ExitCodesAndScriptErrorsNamingFileAndLine) {
    struct Case {
        std::string script;
        int code;
        const char* message;  // expected in the error output for code 2
    };
    const Case cases[] = {
        {"", kExitOk, ""},
        {"# a comment\n\n   \n", kExitOk, ""},
        {std::string(kSetup) + "expect STATUS_SUCCESS\n", kExitOk, ""},
        {std::string(kSetup) + "expect STATUS_ACCESS_DENIED\n", kExitExpectationFailed, ""},
        {"bogus 1 2\n", kExitScriptError, "test.scn:1: unknown command \"bogus\""},
        {std::string(kSetup) + "10: fly h1\n", kExitScriptError, "test.scn:3: unknown operation \"fly\""},
        {std::string(kSetup) + "open h1 C:\\a\n", kExitScriptError, "test.scn:3: \"open\" is an operation of a process"},
        {"expect STATUS_SUCCESS\n", kExitScriptError, "test.scn:1: expect: no command before it"},
        {std::string(kSetup) + "expect SUCCESS_PLEASE\n", kExitScriptError, "test.scn:3: expect: unknown status"},
        {std::string(kSetup) + "10: write h1 \"open\n", kExitScriptError, "test.scn:3: unterminated quoted"},
        {std::string(kSetup) + "10: open\n", kExitScriptError, "test.scn:3: open: missing handle name"},
        {std::string(kSetup) + "10: read h9 5\n", kExitScriptError, "test.scn:3: process 10 has no open handle named \"h9\""},
        {std::string(kSetup) + "11: ls C:\\\n", kExitScriptError, "test.scn:3: no process 11"},
        {std::string(kSetup) + "10: open h1 C:\\a disposition=FILE_OPENED\n", kExitScriptError,
         "unknown disposition \"FILE_OPENED\""},
        {std::string(kSetup) + "10: open h1 C:\\a acces=GENERIC_READ\n", kExitScriptError, "unknown option acces="},
        {std::string(kSetup) + "10: close h1 h2\n", kExitScriptError, "unexpected argument"},
        // A script error ends the run even after a failed expectation.
        {std::string(kSetup) + "expect STATUS_ACCESS_DENIED\nnope\n", kExitScriptError, "test.scn:4: unknown command"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script);
        RunOutput r = Run(c.script);
        EXPECT_EQ(r.code, c.code) << r.out << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    }
}

TEST_F(InterpreterTest, ExpectChecksTheLastCommandThatIsNotAnExpect) {
    struct Case {
        const char* expect;
        bool passes;
    };
    // The command checked: `process 20 x.exe`, which prints
    // "STATUS_SUCCESS (0x00000000)" and "  20 x.exe".
    const Case cases[] = {
        {"expect STATUS_SUCCESS", true},
        {"expect status_success", true},
        {"expect 0", true},
        {"expect 0x00000000", true},
        {"expect not STATUS_SUCCESS", false},
        {"expect STATUS_PENDING", false},
        {"expect not STATUS_PENDING", true},
        {"expect \"20 x.exe\"", true},
        {"expect \"STATUS_SUCCESS (0x00000000)\"", true},  // the result line counts
        {"expect \"20 X.EXE\"", false},                    // case-sensitive
        {"expect not \"20 x.exe\"", false},
        {"expect not \"y.exe\"", true},
        {"expect not log \"anything\"", true},
        {"expect log \"anything\"", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expect);
        // The same expectation three times: every one checks the process
        // command, not the expect before it.
        std::string script = std::string(kSetup) + "process 20 x.exe\n" + c.expect + "\n" + c.expect + "\n" + c.expect + "\n";
        RunOutput r = Run(script);
        EXPECT_EQ(r.code, c.passes ? kExitOk : kExitExpectationFailed) << r.out << r.err;
        if (!c.passes) {
            EXPECT_NE(r.out.find("EXPECTATION FAILED (line 4): "), std::string::npos) << r.out;
            EXPECT_NE(r.out.find("EXPECTATION FAILED (line 6): "), std::string::npos) << r.out;
            EXPECT_NE(r.out.find("(line 3)"), std::string::npos) << "names the checked command's line: " << r.out;
        }
    }
}

TEST_F(InterpreterTest, FailedExpectationsDoNotStopTheRun) {
    RunOutput r = Run(std::string(kSetup) + "expect STATUS_ACCESS_DENIED\nprocess 30 later.exe\nexpect \"30 later.exe\"\n");
    EXPECT_EQ(r.code, kExitExpectationFailed);
    EXPECT_NE(r.out.find("EXPECTATION FAILED (line 3): status STATUS_SUCCESS (0x00000000), expected "
                         "STATUS_ACCESS_DENIED (0xC0000022)"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("  30 later.exe"), std::string::npos) << r.out;
}

TEST_F(InterpreterTest, ResultLinesOutputAndEscapes) {
    RunOutput r = Run(std::string(kSetup) +
                      "10: open h1 C:\\missing.txt\n"
                      "10: open h1 C:\\a.txt access=GENERIC_READ|GENERIC_WRITE|SYNCHRONIZE disposition=FILE_CREATE\n"
                      "10: write h1 \"one\\ntwo\\x01\"\n"
                      "10: read h1 100 offset=0\n"
                      "10: close h1\n");
    EXPECT_EQ(r.code, kExitOk) << r.out << r.err;
    EXPECT_NE(r.out.find("STATUS_OBJECT_NAME_NOT_FOUND (0xC0000034) info=0\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("STATUS_SUCCESS (0x00000000) info=2\n  h1 FILE_CREATED\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("STATUS_SUCCESS (0x00000000) info=8\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("  \"one\\ntwo\\x01\"\n"), std::string::npos) << r.out;
    // The volume's directory was made beside the script.
    EXPECT_TRUE(fs::is_regular_file(dir_ / "vol" / "a.txt"));
}

TEST_F(InterpreterTest, JsonGivesOneObjectALine) {
    InterpreterOptions options;
    options.json = true;
    RunOutput r = Run(std::string(kSetup) + "10: open h1 C:\\nothing.txt\nexpect STATUS_SUCCESS\n", options);
    EXPECT_EQ(r.code, kExitExpectationFailed);
    std::istringstream lines(r.out);
    std::string line;
    std::vector<nlohmann::json> objects;
    while (std::getline(lines, line)) objects.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(objects.size(), 4u) << r.out;
    const auto& open = objects[2];
    EXPECT_EQ(open["line"], 3);
    EXPECT_EQ(open["command"], "10: open h1 C:\\nothing.txt");
    EXPECT_EQ(open["status"], "STATUS_OBJECT_NAME_NOT_FOUND");
    EXPECT_EQ(open["value"], "0xC0000034");
    EXPECT_EQ(open["info"], 0);
    EXPECT_TRUE(open["output"].is_array());
    EXPECT_TRUE(open["log"].is_array());
    EXPECT_EQ(objects[1]["output"][0], "10 app.exe");
    EXPECT_FALSE(objects[1].contains("info"));  // no status block behind `process`
    EXPECT_EQ(objects[3]["expectation"], "failed");
    EXPECT_EQ(objects[3]["line"], 4);
}

}  // namespace
