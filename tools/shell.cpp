// `tervane shell`: the scenario language typed at a terminal, with line
// editing, completion, a history kept after every command, and Ctrl-C that
// drops the line being typed instead of ending the shell.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <optional>
#include <poll.h>
#include <sys/select.h>
#include <unistd.h>

#include <readline/history.h>
#include <readline/readline.h>

#include "completion.h"
#include "frontend.h"
#include "interpreter.h"
#include "lexer.h"

namespace tervane::tool {
namespace {

constexpr const char* kPrompt = "tervane> ";
constexpr int kHistoryLines = 1000;

std::string HistoryFile() {
    const char* home = std::getenv("HOME");
    return home && *home ? std::string(home) + "/.tervane_history" : std::string();
}

// ---- Ctrl-C -------------------------------------------------------------------
// The handler only writes to a pipe that the line reader watches beside the
// terminal: the signal may reach any thread of the machine, not the one
// waiting for input.
int g_interruptPipe[2] = {-1, -1};

void OnInterrupt(int) {
    int saved = errno;
    char byte = 1;
    [[maybe_unused]] ssize_t n = write(g_interruptPipe[1], &byte, 1);
    errno = saved;
}

void DrainInterrupts() {
    char bytes[64];
    while (read(g_interruptPipe[0], bytes, sizeof bytes) > 0) {
    }
}

class InterruptHandler {
public:
    InterruptHandler() {
        if (pipe(g_interruptPipe) != 0) return;
        for (int fd : g_interruptPipe) fcntl(fd, F_SETFL, O_NONBLOCK);
        struct sigaction action {};
        action.sa_handler = OnInterrupt;
        sigemptyset(&action.sa_mask);
        installed_ = sigaction(SIGINT, &action, &previous_) == 0;
    }
    ~InterruptHandler() {
        if (installed_) sigaction(SIGINT, &previous_, nullptr);
        for (int& fd : g_interruptPipe) {
            if (fd >= 0) close(fd);
            fd = -1;
        }
    }
    InterruptHandler(const InterruptHandler&) = delete;
    InterruptHandler& operator=(const InterruptHandler&) = delete;

private:
    struct sigaction previous_ {};
    bool installed_ = false;
};

// ---- Completion -----------------------------------------------------------------

Session* g_session = nullptr;
std::vector<std::string> g_matches;

char* NextMatch(const char*, int state) {
    static size_t next;
    if (state == 0) next = 0;
    return next < g_matches.size() ? strdup(g_matches[next++].c_str()) : nullptr;
}

char** Complete(const char* text, int start, int end) {
    rl_attempted_completion_over = 1;  // no file names of the host
    if (!g_session) return nullptr;
    std::string line(rl_line_buffer, static_cast<size_t>(end));
    Completion completion = CompleteLine(*g_session, line);
    // Readline's word may begin after an opening quote that ours includes.
    g_matches.clear();
    size_t cut = static_cast<size_t>(start) >= completion.start ? static_cast<size_t>(start) - completion.start : 0;
    for (const auto& c : completion.candidates)
        if (c.size() >= cut) g_matches.push_back(c.substr(cut));
    if (g_matches.empty()) return nullptr;
    // A directory, a flag list or an option goes on without a blank.
    char last = g_matches.size() == 1 ? g_matches[0].back() : ' ';
    if (last == '\\' || last == '|' || last == '=' || last == ':') {
        rl_completion_append_character = '\0';
        rl_completion_suppress_quote = 1;
    }
    return rl_completion_matches(text, NextMatch);
}

// ---- Reading lines ----------------------------------------------------------------

// Keys are read from a descriptor of the terminal's own, not blocking:
// Ctrl-C makes the terminal throw away input not yet read, so a key that
// select() reported may be gone by the time it is read, and a blocking read
// would then wait for the next key however often Ctrl-C is pressed.
int g_keys = -1;

// Readline's key reader: the next key, or NUL (set-mark, which changes
// nothing that stays) once Ctrl-C was pressed, so that the line reader gets
// back to its loop and drops the line.
int ReadKey(FILE*) {
    for (;;) {
        unsigned char key;
        ssize_t n = read(g_keys, &key, 1);
        if (n == 1) return key;
        if (n == 0 || (errno != EAGAIN && errno != EINTR)) return EOF;
        pollfd ready[2] = {{g_keys, POLLIN, 0}, {g_interruptPipe[0], POLLIN, 0}};
        if (poll(ready, 2, -1) < 0 && errno != EINTR) return EOF;
        if (ready[1].revents & POLLIN) return 0;
    }
}

// Opens the key descriptor and hands readline the reader; where the
// terminal cannot be opened again, readline reads as it does by itself.
void UseOwnKeyReader() {
    const char* terminal = ttyname(STDIN_FILENO);
    if (!terminal) return;
    g_keys = open(terminal, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (g_keys >= 0) rl_getc_function = ReadKey;
}

struct PendingLine {
    bool done = false;
    std::optional<std::string> text;  // nothing: end of input
};
PendingLine* g_pending = nullptr;

void OnLine(char* text) {
    g_pending->done = true;
    if (text) {
        g_pending->text = text;
        std::free(text);
    }
    rl_callback_handler_remove();  // no prompt while the command runs
}

// One line from the terminal; false at the end of input. Ctrl-C drops what
// was typed and prompts again.
bool ReadTerminalLine(std::string* line) {
    DrainInterrupts();  // a Ctrl-C while a command ran is spent
    PendingLine pending;
    g_pending = &pending;
    rl_callback_handler_install(kPrompt, OnLine);
    const int input = fileno(rl_instream ? rl_instream : stdin);
    while (!pending.done) {
        fd_set ready;
        FD_ZERO(&ready);
        FD_SET(input, &ready);
        FD_SET(g_interruptPipe[0], &ready);
        int n = select(std::max(input, g_interruptPipe[0]) + 1, &ready, nullptr, nullptr, nullptr);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) break;
        if (FD_ISSET(g_interruptPipe[0], &ready)) {
            DrainInterrupts();
            rl_free_line_state();
            rl_callback_sigcleanup();
            rl_cleanup_after_signal();
            rl_callback_handler_remove();
            std::fputs("^C\n", rl_outstream ? rl_outstream : stdout);
            rl_callback_handler_install(kPrompt, OnLine);
            continue;
        }
        if (FD_ISSET(input, &ready)) rl_callback_read_char();
    }
    if (!pending.done) rl_callback_handler_remove();
    g_pending = nullptr;
    if (!pending.text) return false;
    *line = *pending.text;
    return true;
}

// The history file, made when missing so that lines can be appended to it.
void OpenHistory(const std::string& file) {
    if (file.empty()) return;
    int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (fd >= 0) close(fd);
    read_history(file.c_str());
    history_truncate_file(file.c_str(), kHistoryLines);
    stifle_history(kHistoryLines);
}

void Remember(const std::string& line, const std::string& file) {
    if (line.find_first_not_of(" \t") == std::string::npos) return;
    add_history(line.c_str());
    if (!file.empty()) append_history(1, file.c_str());
}

}  // namespace

int RunShell(bool json) {
    const bool interactive = isatty(STDIN_FILENO) != 0;
    InterpreterOptions options;
    options.json = json;
    Interpreter interpreter(std::cout, std::filesystem::current_path(), options);
    std::optional<InterruptHandler> interrupts;
    const std::string history = HistoryFile();
    if (interactive) {
        interrupts.emplace();
        OpenHistory(history);
        g_session = &interpreter.session();
        rl_attempted_completion_function = Complete;
        rl_completer_word_break_characters = const_cast<char*>(" \t");
        rl_completer_quote_characters = "\"";
        rl_variable_bind("completion-ignore-case", "on");  // NT names ignore case
        rl_catch_signals = 0;
        UseOwnKeyReader();
        std::cout << "tervane shell: scenario commands, one a line. help lists them, help COMMAND explains one, "
                     "Tab completes,\nCtrl-C drops the line, exit or Ctrl-D ends the shell and shuts the machine "
                     "down.\n";
    }
    std::string line;
    int lineNumber = 0;
    while (interactive ? ReadTerminalLine(&line) : static_cast<bool>(std::getline(std::cin, line))) {
        ++lineNumber;
        if (interactive) Remember(line, history);
        std::vector<Token> words;
        try {
            words = SplitLine(line);
        } catch (const ScriptError&) {
        }
        if (words.size() == 1 && (words[0].text == "exit" || words[0].text == "quit")) break;
        if (!words.empty() && words[0].text == "help") {
            std::string topic;
            for (size_t i = 1; i < words.size(); ++i) topic += (i > 1 ? " " : "") + words[i].text;
            PrintHelp(topic, std::cout);
            continue;
        }
        try {
            interpreter.Execute(line, lineNumber);
        } catch (const ScriptError& e) {
            interpreter.ReportError("", lineNumber, e.what(), std::cerr);
        }
    }
    g_session = nullptr;
    if (g_keys >= 0) {
        rl_getc_function = rl_getc;
        close(g_keys);
        g_keys = -1;
    }
    int code = interpreter.Finish();
    if (interpreter.ExpectationFailed()) code = kExitExpectationFailed;
    interpreter.PrintSummary(code);
    return code;
}

}  // namespace tervane::tool
