// tervane index build, dump and lookup as a user runs them.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "index_cli.h"

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
    ASSERT_EQ(IndexBuild((dir_ / "tree").string(), Node(), Name(), false, out, err), 0) << err.str();
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
        {"C:\\Program Files\\Other", 1, ": not in the index"},
        {"C:\\boot.ini\\below", 1, ": not in the index"},
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
    EXPECT_EQ(IndexBuild((dir_ / "nothing-here").string(), Node(), Name(), true, out, err), 1);
    EXPECT_NE(err.str().find("tervane index build: "), std::string::npos);

    ASSERT_EQ(IndexBuild((dir_ / "tree").string(), Node(), Name(), true, out, err), 0);
    EXPECT_TRUE(out.str().empty()) << "--quiet prints nothing";
    fs::resize_file(Node(), fs::file_size(Node()) - 5);  // no longer 72 + 48 n bytes
    for (int which = 0; which < 2; ++which) {
        std::ostringstream o, e;
        int code = which == 0 ? IndexDump(Node(), Name(), o, e) : IndexLookup(Node(), Name(), "\\boot.ini", o, e);
        EXPECT_EQ(code, 1);
        EXPECT_NE(e.str().find("tervane index "), std::string::npos);
    }
}

}  // namespace
