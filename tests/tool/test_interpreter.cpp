// The interpreter as `tervane run` drives it: exit codes, script errors with
// file and line, expect semantics, and the two output forms.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "interpreter.h"
#include "lexer.h"

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
        // Setup that fails stops the script, naming the thing and the reason.
        {"volume C: afile\n", kExitScriptError, "afile is a file, not a directory"},
        {"volume C: afile/below\n", kExitScriptError, "cannot make "},
        {"volume F: Z:\n", kExitScriptError, "test.scn:1: volume: drive Z: has no volume"},
        {std::string(kSetup) + "volume C: other\n", kExitScriptError, "test.scn:3: volume: drive C: is in use already"},
        {std::string(kSetup) + "process 10 again.exe\n", kExitScriptError, "process: process 10 exists already"},
        {"process 4 me.exe\n", kExitScriptError, "a process with id 4 already (System)"},
        {std::string(kSetup) + "handles 99\n", kExitScriptError, "test.scn:3: handles: no process 99"},
        // A script is text; what is not is named, escaped, never printed raw.
        {std::string("bo\0gus\n", 7), kExitScriptError, "test.scn:1: the line holds the control character \\x00 at column 3"},
        {"\x01\x02garbage\n", kExitScriptError, "control character \\x01 at column 1"},
        {"volume C: \xff\n", kExitScriptError, "not UTF-8 text: byte \\xff at column 11"},
        {"10: \"\\x01\"\n", kExitScriptError, "unknown operation \"\\x01\""},
        {std::string(kSetup) + "10: \"op\\x7f\"\n", kExitScriptError, "unknown operation \"op\\x7f\""},
        {"\xEF\xBB\xBFprocess 5 a.exe\r\nexpect \"5 a.exe\"\r\n", kExitOk, ""},  // byte order mark, CRLF
    };
    std::ofstream(dir_ / "afile") << "x";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script);
        RunOutput r = Run(c.script);
        EXPECT_EQ(r.code, c.code) << r.out << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
        EXPECT_EQ(FirstInvalidUtf8(r.err), std::string::npos) << r.err;
        for (char ch : r.err) EXPECT_TRUE(ch == '\n' || static_cast<unsigned char>(ch) >= 0x20) << r.err;
    }
}

TEST_F(InterpreterTest, EachResultFollowsItsCommandAndASummaryEndsTheRun) {
    InterpreterOptions options;
    options.echo = true;
    RunOutput r = Run(std::string(kSetup) +
                          "10: open h1 C:\\a.txt disposition=FILE_CREATE\n"
                          "expect STATUS_ACCESS_DENIED\n"
                          "expect \"h1 FILE_CREATED\"\n"
                          "10: open h2 C:\\a.txt\n",
                      options);
    EXPECT_EQ(r.code, kExitExpectationFailed);
    EXPECT_NE(r.out.find("> 10: open h1 C:\\a.txt disposition=FILE_CREATE\nSTATUS_SUCCESS"), std::string::npos) << r.out;
    // Handles the script leaves open are named, closed at the end, and no leak.
    EXPECT_NE(r.out.find("warning: the script left 2 handles open (10: h1, 10: h2)"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("summary: 4 commands; 2 expectations, 1 failed (line 4); 2 left open; the machine shut "
                         "down clean; exit 1\n"),
              std::string::npos)
        << r.out;
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
    RunOutput r = Run(std::string(kSetup) + "10: open h1 C:\\nothing.txt\nexpect STATUS_SUCCESS\nbogus\n", options);
    EXPECT_EQ(r.code, kExitScriptError);
    EXPECT_EQ(r.err, "") << "script errors are records too";
    std::istringstream lines(r.out);
    std::string line;
    std::vector<nlohmann::json> objects;
    while (std::getline(lines, line)) objects.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(objects.size(), 6u) << r.out;
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
    EXPECT_EQ(objects[4]["file"], "test.scn");
    EXPECT_EQ(objects[4]["line"], 5);
    EXPECT_EQ(objects[4]["error"], "unknown command \"bogus\" (tervane help lists them)");
    const auto& summary = objects[5]["summary"];
    EXPECT_EQ(summary["commands"], 3);
    EXPECT_EQ(summary["failedLines"], nlohmann::json({4}));
    EXPECT_EQ(summary["errorLines"], nlohmann::json({5}));
    EXPECT_EQ(summary["exit"], kExitScriptError);
    EXPECT_EQ(summary["verifierClean"], true);
}

// Data in --json records is the data itself: bytes as a string, listings and
// queries as fields, never the escaped text of the plain output.
TEST_F(InterpreterTest, JsonRecordsCarryRawDataAsFields) {
    InterpreterOptions options;
    options.json = true;
    RunOutput r = Run(std::string(kSetup) +
                          "10: put \"C:\\line q.txt\" \"a\\\\b\\n\\xe4\\xb8\\xad\"\n"
                          "10: cat \"C:\\line q.txt\"\n"
                          "10: put C:\\bin \"\\xff\\x00\"\n"
                          "10: cat C:\\bin\n"
                          "10: ls C:\\\n"
                          "10: open d C:\\ options=FILE_DIRECTORY_FILE|FILE_SYNCHRONOUS_IO_NONALERT\n"
                          "10: list d pattern=bin\n"
                          "10: query d Basic\n"
                          "10: read d 1\n"
                          "handles 10\n"
                          "10: close d\n"
                          "pool\n",
                      options);
    ASSERT_EQ(r.code, kExitOk) << r.out << r.err;
    std::vector<nlohmann::json> records;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) records.push_back(nlohmann::json::parse(line));
    auto record = [&](int line) {
        for (const auto& j : records)
            if (j.value("line", 0) == line && j.contains("command")) return j;
        return nlohmann::json();
    };
    EXPECT_EQ(record(4)["data"], "a\\b\n\xe4\xb8\xad");
    EXPECT_FALSE(record(4).contains("hex"));
    EXPECT_EQ(record(6)["hex"], "ff00");
    EXPECT_TRUE(record(6)["data"].is_string());
    nlohmann::json names = nlohmann::json::array();
    const nlohmann::json ls = record(7), pool = record(14);
    for (const auto& e : ls["entries"]) names.push_back(e["name"]);
    EXPECT_NE(std::find(names.begin(), names.end(), "line q.txt"), names.end()) << names;
    EXPECT_EQ(record(9)["entries"].size(), 1u);
    EXPECT_EQ(record(9)["entries"][0]["FileName"], "bin");
    EXPECT_EQ(record(9)["entries"][0]["EndOfFile"], 2);
    EXPECT_TRUE(record(10)["fields"]["LastWriteTime"].is_number_integer()) << record(10);
    EXPECT_TRUE(record(10)["fields"]["FileAttributes"].is_number_integer());
    EXPECT_EQ(record(12)["handles"][0]["name"], "d");
    EXPECT_EQ(record(12)["handles"][0]["type"], "File");
    std::vector<std::string> tags;
    for (const auto& p : pool["pool"]) tags.push_back(p["tag"]);
    EXPECT_FALSE(tags.empty());
    EXPECT_TRUE(std::is_sorted(tags.begin(), tags.end()));
}

}  // namespace
