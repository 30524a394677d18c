// The tervane command as a user runs it from a shell: exit codes, messages
// that name the thing and the host's reason, never a C++ exception's text.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <pty.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

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

// tervane shell at a terminal (a pseudo-terminal here).
class Terminal {
public:
    explicit Terminal(const fs::path& home) {
        pid_ = forkpty(&fd_, nullptr, nullptr, nullptr);
        if (pid_ == 0) {
            setenv("HOME", home.c_str(), 1);
            setenv("TERM", "dumb", 1);
            if (chdir(home.c_str()) != 0) _exit(127);
            execl(TERVANE_BINARY, "tervane", "shell", static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    ~Terminal() {
        if (fd_ >= 0) close(fd_);
        if (pid_ > 0 && !waited_) waitpid(pid_, nullptr, 0);
    }
    void Type(const std::string& keys) { ASSERT_EQ(write(fd_, keys.data(), keys.size()), ssize_t(keys.size())); }
    // Reads until TEXT has been shown (a guard of 20 s ends a wait that
    // would never end); false when it was not.
    bool Shows(const std::string& text) {
        while (seen_.find(text, from_) == std::string::npos) {
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, 20000) <= 0) return false;
            char buffer[4096];
            ssize_t n = read(fd_, buffer, sizeof buffer);
            if (n <= 0) return false;
            seen_.append(buffer, size_t(n));
        }
        from_ = seen_.find(text, from_) + text.size();
        return true;
    }
    int Exit() {
        int status = 0;
        while (Shows("\x01never")) {
        }
        waitpid(pid_, &status, 0);
        waited_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    const std::string& Seen() const { return seen_; }

private:
    pid_t pid_ = -1;
    int fd_ = -1;
    bool waited_ = false;
    std::string seen_;
    size_t from_ = 0;
};

std::string ReadFile(const fs::path& file) {
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// A banner, Tab that completes commands and paths, history written after
// each command, Ctrl-C that drops the line and not the shell, and the
// verifier's summary at the end.
TEST_F(CliTest, ShellAtATerminal) {
#ifdef TERVANE_PLAIN_SHELL
    GTEST_SKIP() << "this build's shell reads plain lines (no readline)";
#endif
    Terminal t(dir_);
    ASSERT_TRUE(t.Shows("help lists them")) << t.Seen();
    t.Type("volume C: v\r");
    ASSERT_TRUE(t.Shows("tervane> ")) << t.Seen();
    t.Type("proc\t5 a.exe\r");
    ASSERT_TRUE(t.Shows("  5 a.exe")) << t.Seen();
    // Keys go only to a prompt: typed earlier, they would meet the terminal
    // in its ordinary mode, where Ctrl-C is a signal and not a key.
    ASSERT_TRUE(t.Shows("tervane> ")) << t.Seen();
    EXPECT_EQ(ReadFile(dir_ / ".tervane_history"), "volume C: v\nprocess 5 a.exe\n");
    t.Type("5: put C:\\notes.txt hi\r");
    ASSERT_TRUE(t.Shows("info=2")) << t.Seen();
    ASSERT_TRUE(t.Shows("tervane> ")) << t.Seen();
    t.Type("5: cat C:\\no\t\r");
    ASSERT_TRUE(t.Shows("\"hi\"")) << t.Seen();
    ASSERT_TRUE(t.Shows("tervane> ")) << t.Seen();
    t.Type("5: rm C:\\notes.txt");
    // Ctrl-C once the shell has read the line: the terminal throws away
    // input not yet read when it sends the signal.
    ASSERT_TRUE(t.Shows("rm C:\\notes.txt")) << t.Seen();
    t.Type("\x03");
    ASSERT_TRUE(t.Shows("^C")) << t.Seen();
    t.Type("exit\r");
    EXPECT_EQ(t.Exit(), 0) << t.Seen();
    EXPECT_NE(t.Seen().find("summary: 4 commands; no expectations; the machine shut down clean; exit 0"),
              std::string::npos)
        << t.Seen();
    EXPECT_NE(ReadFile(dir_ / ".tervane_history").find("5: cat C:\\notes.txt"), std::string::npos);
    EXPECT_EQ(ReadFile(dir_ / ".tervane_history").find("5: rm"), std::string::npos) << "a dropped line is no command";
    EXPECT_TRUE(fs::exists(dir_ / "v" / "notes.txt"));
}

// Ctrl-C pressed right after a line was typed, before the shell read it:
// the terminal throws the line away with the signal, and the shell must
// still answer the Ctrl-C at once instead of waiting for another key.
TEST_F(CliTest, ShellAnswersCtrlCRightAfterTyping) {
#ifdef TERVANE_PLAIN_SHELL
    GTEST_SKIP() << "this build's shell reads plain lines (no readline)";
#endif
    Terminal t(dir_);
    ASSERT_TRUE(t.Shows("help lists them")) << t.Seen();
    ASSERT_TRUE(t.Shows("tervane> ")) << t.Seen();
    for (int round = 0; round < 200; ++round) {
        t.Type("volume C: v");
        t.Type("\x03");
        ASSERT_TRUE(t.Shows("^C")) << "round " << round << "\n" << t.Seen();
        ASSERT_TRUE(t.Shows("tervane> ")) << "round " << round << "\n" << t.Seen();
    }
    t.Type("exit\r");
    EXPECT_EQ(t.Exit(), 0) << t.Seen();
    EXPECT_NE(t.Seen().find("summary: 0 commands"), std::string::npos) << t.Seen();
}

}  // namespace
