// tervane index build, dump and lookup as a user runs them.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <sys/stat.h>

#include "index_cli.h"
#include "interpreter.h"

using namespace tervane::tool;
namespace fs = std::filesystem;

namespace {

class IndexCliTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/tervane-index-cli-XXXXXX";
        dir_ = mkdtemp(pattern);
        fs::create_directories(dir_ / "tree" / "Program Files" / "App");
        std::ofstream(dir_ / "tree" / "Program Files" / "App" / "app.exe") << "MZ";
        std::ofstream(dir_ / "tree" / "boot.ini") << "x";
    }
    void TearDown() override { fs::remove_all(dir_); }
    std::string Node() const { return (dir_ / "i.node").string(); }
    std::string Name() const { return (dir_ / "i.name").string(); }
    fs::path dir_;
};

TEST_F(IndexCliTest, BuildThenDumpAndLookUp) {
    std::ostringstream out, err;
    ASSERT_EQ(IndexBuild((dir_ / "tree").string(), Node(), Name(), {}, out, err), 0) << err.str();
    EXPECT_NE(out.str().find("wrote "), std::string::npos);

    std::ostringstream dump;
    ASSERT_EQ(IndexDump(Node(), Name(), dump, err), 0) << err.str();
    EXPECT_NE(dump.str().find("\\Program Files\\App\\app.exe  offset="), std::string::npos) << dump.str();
    EXPECT_NE(dump.str().find("\\Program Files  offset="), std::string::npos);
    EXPECT_NE(dump.str().find(" dir\n"), std::string::npos);

    struct Case {
        const char* path;
        int code;
        const char* says;
    };
    const Case cases[] = {
        {"C:\\Program Files\\App\\app.exe", 0, ": file offset="},
        {"c:\\program files\\APP", 0, ": dir offset="},
        {"\\boot.ini", 0, ": file"},
        {"C:\\Program Files\\Other", kIndexNo, ": not in the index"},
        {"C:\\boot.ini\\below", kIndexNo, ": not in the index"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        std::ostringstream found, lookupErr;
        EXPECT_EQ(IndexLookup(Node(), Name(), c.path, found, lookupErr), c.code);
        EXPECT_NE(found.str().find(c.says), std::string::npos) << found.str() << lookupErr.str();
    }
}

TEST_F(IndexCliTest, BrokenFilesAndMissingTreesGiveAMessage) {
    std::ostringstream out, err;
    EXPECT_EQ(IndexBuild((dir_ / "nothing-here").string(), Node(), Name(), {true, false}, out, err), kIndexFailed);
    EXPECT_NE(err.str().find("nothing-here does not exist"), std::string::npos) << err.str();
    EXPECT_EQ(IndexBuild((dir_ / "tree").string(), Node(), (dir_ / "." / "i.node").string(), {}, out, err),
              kIndexFailed);
    EXPECT_NE(err.str().find("are the same file"), std::string::npos) << err.str();
    EXPECT_FALSE(fs::exists(Node()));
    EXPECT_EQ(IndexBuild((dir_ / "tree").string(), (dir_ / "no" / "n").string(), Name(), {}, out, err), kIndexFailed);
    EXPECT_NE(err.str().find("cannot write " + (dir_ / "no" / "n").string() + ": No such file or directory"),
              std::string::npos)
        << err.str();

    out.str("");
    ASSERT_EQ(IndexBuild((dir_ / "tree").string(), Node(), Name(), {true, false}, out, err), 0);
    EXPECT_TRUE(out.str().empty()) << "--quiet prints nothing";
    fs::resize_file(Node(), fs::file_size(Node()) - 5);  // no longer 72 + 48 n bytes
    for (int which = 0; which < 2; ++which) {
        std::ostringstream o, e;
        int code = which == 0 ? IndexDump(Node(), Name(), o, e) : IndexLookup(Node(), Name(), "\\boot.ini", o, e);
        EXPECT_EQ(code, kIndexFailed);
        EXPECT_NE(e.str().find("tervane index "), std::string::npos);
    }
}

// The index lists what the volume shows: every host name the volume hides is
// reported (and stops the build) or left out with --skip-unrepresentable,
// and the counts are worded as the scenario command words them.
TEST_F(IndexCliTest, NamesTheVolumeHidesAreReportedAndCanBeLeftOut) {
    const fs::path tree = dir_ / "odd";
    fs::create_directories(tree / "dir");
    struct Case {
        std::string name;
        const char* kind;  // "file", "link", "fifo"
        const char* reason;  // nullptr: the volume shows it
    };
    const Case cases[] = {
        {"plain.txt", "file", nullptr},
        {"CASE.TXT", "file", nullptr},
        {"Case.txt", "file", "differs only in case from CASE.TXT"},  // the first in byte order wins
        {"back\\slash", "file", "holds the character '\\'"},
        {"a:b.txt", "file", "holds the character ':'"},
        {"q?.txt", "file", "holds the character '?'"},
        {"bell\x07", "file", "holds the control character 0x07"},
        {"latin1-\xe9", "file", "is not valid UTF-8"},
        {std::string(255, 'n'), "file", nullptr},
        {"link", "link", "symbolic link"},
        {"fifo", "fifo", "neither a file nor a directory"},
        {"\xe4\xb8\xad\xe6\x96\x87.txt", "file", nullptr},  // CJK
    };
    std::set<std::string> shown{"dir"};
    for (const auto& c : cases) {
        fs::path at = tree / c.name;
        if (std::string(c.kind) == "file") std::ofstream(at) << "x";
        if (std::string(c.kind) == "link") fs::create_symlink("plain.txt", at);
        if (std::string(c.kind) == "fifo") {
            ASSERT_EQ(mkfifo(at.c_str(), 0600), 0);
        }
        if (!c.reason) shown.insert(c.name);
    }
    std::ostringstream out, err;
    EXPECT_EQ(IndexBuild(tree.string(), Node(), Name(), {}, out, err), kIndexNo);
    EXPECT_FALSE(fs::exists(Node())) << "nothing is written";
    for (const auto& c : cases) {
        if (!c.reason) continue;
        SCOPED_TRACE(c.reason);
        EXPECT_NE(err.str().find(std::string(c.reason)), std::string::npos) << err.str();
    }
    EXPECT_NE(err.str().find("8 names the volume does not show"), std::string::npos) << err.str();

    out.str("");
    err.str("");
    ASSERT_EQ(IndexBuild(tree.string(), Node(), Name(), {false, true}, out, err), kIndexOk) << err.str();
    EXPECT_NE(err.str().find("left out " + (tree / "a:b.txt").string() + ": holds the character ':'"), std::string::npos);
    EXPECT_NE(out.str().find("; 8 left out"), std::string::npos) << out.str();
    std::set<std::string> indexed;
    std::ostringstream dump;
    ASSERT_EQ(IndexDump(Node(), Name(), dump, err), kIndexOk);
    std::istringstream lines(dump.str());
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("  \\", 0) == 0) indexed.insert(line.substr(3, line.find("  offset=") - 3));
    EXPECT_EQ(indexed, shown);

    // The volume over the same tree lists the same names, and the scenario
    // command counts as the command line does.
    std::ostringstream transcript, scriptErr;
    std::istringstream script("volume C: odd\nprocess 5 a.exe\n5: ls C:\\\nindex odd i2.node i2.name skip\n");
    Interpreter interpreter(transcript, dir_);
    ASSERT_EQ(interpreter.RunScript(script, "odd.scn", scriptErr), kExitOk) << transcript.str() << scriptErr.str();
    std::set<std::string> listed;
    std::istringstream ls(transcript.str().substr(transcript.str().find("STATUS_SUCCESS (0x00000000) info=")));
    std::string line;
    std::getline(ls, line);  // the result line
    while (std::getline(ls, line) && line.rfind("  ", 0) == 0) {
        std::string name = line.substr(2, line.rfind(' ') - 2);
        if (name != "." && name != "..") listed.insert(name);
    }
    EXPECT_EQ(listed, shown);
    std::string counts = out.str().substr(out.str().find("): ") + 3);
    counts = counts.substr(0, counts.find(";"));
    EXPECT_NE(transcript.str().find("  " + counts + "; node file"), std::string::npos) << counts << transcript.str();
}

}  // namespace
