// The tervane command as a user runs it from a shell: exit codes, messages
// that name the thing and the host's reason, never a C++ exception's text.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <sys/wait.h>

namespace fs = std::filesystem;

namespace {

struct Output {
    int code;
    std::string text;  // standard output and standard error
};

// Runs COMMAND with sh in DIR; $T is the tervane binary.
Output Shell(const fs::path& dir, const std::string& command) {
    std::string line = "cd '" + dir.string() + "' && T='" TERVANE_BINARY "' && { " + command + " ; } 2>&1";
    FILE* pipe = popen(line.c_str(), "r");
    Output out{-1, {}};
    if (!pipe) return out;
    std::array<char, 4096> buffer;
    size_t n;
    while ((n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0) out.text.append(buffer.data(), n);
    int status = pclose(pipe);
    out.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return out;
}

class CliTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/tervane-cli-XXXXXX";
        dir_ = mkdtemp(pattern);
    }
    void TearDown() override { fs::remove_all(dir_); }
    fs::path dir_;
};

TEST_F(CliTest, CommandLinesGiveDocumentedExitCodesAndClearMessages) {
    struct Case {
        const char* command;
        int code;
        const char* says;
    };
    const Case cases[] = {
        // The command line itself.
        {"$T --version", 0, "tervane 0."},
        {"$T --help", 0, "run"},
        {"$T", 2, "tervane: give a command (tervane help lists them)"},
        {"$T foo", 2, "tervane: unknown command \"foo\" (tervane help lists them)"},
        {"$T index frob", 2, "tervane index: unknown command \"frob\" (one of build, dump, lookup)"},
        {"$T run", 2, "tervane run: FILE is required (tervane help run explains it)"},
        {"$T help frobnicate", 2, "no command \"frobnicate\""},
        {"$T help lock", 0, "usage: PID: lock H OFF LEN"},
        {"$T help index", 0, "usage: index HOSTDIR NODEFILE NAMEFILE [skip]"},  // the scenario command too
        {"$T help index build", 0, "usage: tervane index build [--quiet] [--skip-unrepresentable] HOSTDIR"},
        // Scripts that cannot be run say which and why.
        {"$T run .", 2, "tervane run: . is a directory; give a script file"},
        {"$T run missing.scn", 2, "tervane run: cannot read missing.scn: No such file or directory"},
        {"touch f && $T run f --workdir f", 2, "tervane run: --workdir: "},
        {"touch f && $T demo --keep f", 2, "f is a file, not a directory"},
        {"mkdir -p d/x && $T demo --keep d", 2, "is not empty"},
        {"printf 'bogus\\n' | $T run --json -", 2, "{\"error\":\"unknown command \\\"bogus\\\""},
        {"printf '\\001\\002\\000garbage\\n' | $T run -", 2, "<stdin>:1: the line holds the control character \\x01"},
        // Standard input is a script whose relative paths are the current directory's.
        {"printf 'volume C: v\\nprocess 5 a.exe\\n5: put C:\\\\x.txt hi\\n' | $T run - && test -f v/x.txt", 0,
         "summary: 3 commands; no expectations; the machine shut down clean; exit 0"},
        {"printf 'volume C: w\\n' | $T run /dev/stdin && test -d w", 0, "C: "},
        {"printf 'volume C: v\\nprocess 5 a.exe\\nnonsense\\n5: put C:\\\\x.txt hi\\n5: cat C:\\\\x.txt\\nexit\\n' | $T shell",
         0, "line 3: unknown command \"nonsense\""},
        // Index builds: distinct outputs, every name the index cannot hold.
        {"mkdir t && touch t/a && $T index build t x.node x.node", 2, "NODEFILE and NAMEFILE are the same file"},
        {"mkdir t && touch t/A t/a && $T index build t n m; r=$?; test ! -e n && exit $r", 1,
         "cannot hold t/a: differs only in case from A"},
        {"mkdir t && touch t/A t/a && $T index build --skip-unrepresentable t n m", 0,
         "left out t/a: differs only in case from A"},
        {"touch t && $T index build t n m", 2, "t is not a directory"},
        {"$T index lookup n m C:\\\\a", 2, "cannot read n: No such file or directory"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        fs::path dir = dir_ / std::to_string(&c - cases);
        fs::create_directories(dir);
        Output out = Shell(dir, c.command);
        EXPECT_EQ(out.code, c.code) << out.text;
        EXPECT_NE(out.text.find(c.says), std::string::npos) << out.text;
        EXPECT_EQ(out.text.find("exception"), std::string::npos) << out.text;
        EXPECT_EQ(out.text.find("filesystem error"), std::string::npos) << out.text;
    }
}

}  // namespace
