#include "completion.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <sstream>

#include <nt/ntifs.h>

#include "cli.h"
#include "commands.h"
#include "control_records.h"
#include "decode.h"
#include "flags.h"
#include "lexer.h"
#include "ntcall.h"

namespace tervane::tool {
namespace {

constexpr ULONG kListChunk = 64 * 1024;

bool StartsWithNoCase(const std::string& text, const std::string& prefix) {
    if (prefix.size() > text.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(text[i])) != std::tolower(static_cast<unsigned char>(prefix[i])))
            return false;
    return true;
}

// Where the word at the end of LINE begins: after the last blank outside
// double quotes.
size_t WordStart(const std::string& line) {
    size_t start = 0;
    bool quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        char c = line[i];
        if (quoted && c == '\\' && i + 1 < line.size()) {
            ++i;
        } else if (c == '"') {
            quoted = !quoted;
        } else if (!quoted && (c == ' ' || c == '\t')) {
            start = i + 1;
        }
    }
    return start;
}

std::optional<uint32_t> PidOf(const std::string& prefix) {
    if (prefix.size() < 2 || prefix.back() != ':') return std::nullopt;
    uint32_t pid = 0;
    for (size_t i = 0; i + 1 < prefix.size(); ++i) {
        if (!std::isdigit(static_cast<unsigned char>(prefix[i]))) return std::nullopt;
        pid = pid * 10 + static_cast<uint32_t>(prefix[i] - '0');
    }
    return pid;
}

// What a command's usage line declares: its positional placeholders (of the
// first form), and every option key and switch of any form.
struct Usage {
    std::vector<std::string> positional;  // "H", "PATH", "ROOT..."
    std::set<std::string> options;        // "access"
    std::set<std::string> switches;       // "exclusive"
};

Usage ParseUsage(const std::string& usage) {
    Usage u;
    auto lower = [](const std::string& s, size_t n) {
        return n > 0 && std::all_of(s.begin(), s.begin() + static_cast<long>(n),
                                    [](char c) { return c >= 'a' && c <= 'z'; });
    };
    bool first = true;
    for (size_t at = 0; at <= usage.size();) {
        size_t bar = usage.find(" | ", at);
        std::istringstream words(usage.substr(at, bar == std::string::npos ? std::string::npos : bar - at));
        std::string w;
        words >> w;  // the command's name
        while (words >> w) {
            bool optional = w.front() == '[';
            std::string inner = optional ? w.substr(1, w.find(']') - 1) : w;
            size_t eq = inner.find('=');
            if (eq != std::string::npos && lower(inner, eq)) {
                u.options.insert(inner.substr(0, eq));
            } else if (optional && lower(inner, inner.size())) {
                u.switches.insert(inner);
            } else if (first && !inner.empty() && std::isupper(static_cast<unsigned char>(inner[0]))) {
                u.positional.push_back(inner);
            }
        }
        first = false;
        if (bar == std::string::npos) break;
        at = bar + 3;
    }
    return u;
}

std::vector<std::string> Names(std::span<const NamedValue> table) {
    std::vector<std::string> names;
    for (const auto& n : table) names.push_back(n.name);
    return names;
}

// The names of a flag option: completes the part after the last '|'.
std::vector<std::string> FlagValues(const std::string& head, const std::string& value,
                                    std::span<const NamedValue> table, bool many) {
    size_t bar = many ? value.rfind('|') : std::string::npos;
    std::string done = bar == std::string::npos ? "" : value.substr(0, bar + 1);
    std::vector<std::string> out;
    for (const auto& name : Names(table)) out.push_back(head + done + name);
    return out;
}

std::vector<std::string> HandleNames(const ProcessState* process) {
    std::vector<std::string> names;
    if (process)
        for (const auto& [name, handle] : process->handles) names.push_back(name);
    return names;
}

bool LooksLikeDrivePath(const std::string& text) {
    return text.size() >= 3 && std::isalpha(static_cast<unsigned char>(text[0])) && text[1] == ':' && text[2] == '\\';
}

// The entries of a directory as PROCESS sees it (or, for machine commands,
// the controller, else the System process), or nothing when it cannot be
// listed.
std::vector<DirectoryEntry> ListAs(Session& session, ProcessState* process, const std::string& dir) {
    std::vector<DirectoryEntry> entries;
    if (!session.Started()) return entries;
    auto list = [&] {
        OpenRequest request;
        request.path = dir;
        request.access = FILE_LIST_DIRECTORY | SYNCHRONIZE;
        request.options = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT;
        HANDLE handle = nullptr;
        IO_STATUS_BLOCK iosb{};
        if (!NT_SUCCESS(OpenFile(request, &handle, &iosb))) return;
        std::vector<uint8_t> buffer(kListChunk);
        while (true) {
            NTSTATUS status = NtQueryDirectoryFile(handle, nullptr, nullptr, nullptr, &iosb, buffer.data(), kListChunk,
                                                   FileBothDirectoryInformation, FALSE, nullptr, FALSE);
            if (!NT_SUCCESS(status)) break;
            auto more = ParseBothDirectoryEntries(buffer.data(), std::min<size_t>(iosb.Information, kListChunk));
            if (more.empty()) break;
            entries.insert(entries.end(), more.begin(), more.end());
        }
        NtClose(handle);
    };
    try {
        if (!process) process = session.controller;
        if (process) session.RunIn(*process, list);
        else session.Machine().Run(session.Machine().SystemProcess(), list);
    } catch (const std::exception&) {
        entries.clear();  // a path that does not fit a name: nothing to offer
    }
    return entries;
}

std::vector<std::string> DrivePaths(Session& session, ProcessState* process, const std::string& word) {
    bool quoted = !word.empty() && word[0] == '"';
    std::string typed = quoted ? word.substr(1) : word;
    std::vector<std::string> out;
    if (!LooksLikeDrivePath(typed)) return out;
    std::string dir = typed.substr(0, typed.rfind('\\') + 1);
    std::string prefix = typed.substr(dir.size());
    std::set<std::string> seen;  // a merged listing names a directory once per layer
    for (const auto& e : ListAs(session, process, dir)) {
        if (e.name == "." || e.name == ".." || !StartsWithNoCase(e.name, prefix) || !seen.insert(e.name).second)
            continue;
        std::string path = dir + e.name + ((e.attributes & FILE_ATTRIBUTE_DIRECTORY) ? "\\" : "");
        bool needsQuotes = quoted || path.find_first_of(" \t#\"") != std::string::npos;
        out.push_back(needsQuotes ? "\"" + path : path);
    }
    return out;
}

// Values for the positional PLACEHOLDER of COMMAND.
std::vector<std::string> PositionalValues(Session& session, ProcessState* process, const std::string& command,
                                          const std::string& placeholder, const std::string& word) {
    if (LooksLikeDrivePath(word[0] == '"' ? word.substr(1) : word)) return DrivePaths(session, process, word);
    if (placeholder == "H" || placeholder == "H2") return HandleNames(process);
    if (placeholder == "CLASS") return Names(command == "volinfo" ? FsInfoClasses() : FileInfoClasses());
    if (placeholder == "WHAT") return FlagValues("", word, SecurityInfoNames(), true);
    if (placeholder == "CODE" && command == "fsctl") return Names(FsctlNames());
    if (placeholder == "PID") {
        std::vector<std::string> pids;
        for (uint32_t pid : session.ProcessIds()) pids.push_back(std::to_string(pid));
        return pids;
    }
    return {};
}

// Values of the option KEY= of COMMAND.
std::vector<std::string> OptionValues(ProcessState* process, const std::string& command, const std::string& key,
                                      const std::string& value) {
    const std::string head = key + "=";
    if (key == "access") return FlagValues(head, value, AccessNames(), true);
    if (key == "share") return FlagValues(head, value, ShareNames(), true);
    if (key == "options") return FlagValues(head, value, OptionNames(), true);
    if (key == "attributes") return FlagValues(head, value, AttributeNames(), true);
    if (key == "filter") return FlagValues(head, value, NotifyFilterNames(), true);
    if (key == "disposition") return FlagValues(head, value, DispositionNames(), false);
    if (key == "class") return FlagValues(head, value, FileInfoClasses(), false);
    if (key == "related" || key == "root") {
        std::vector<std::string> out;
        for (const auto& name : HandleNames(process)) out.push_back(head + name);
        return out;
    }
    return {};
}

// The arguments of a command given so far, and what may come next.
std::vector<std::string> ArgumentValues(Session& session, ProcessState* process, const std::string& command,
                                        const Usage& usage, const std::vector<Token>& given, const std::string& word) {
    size_t eq = word.find('=');
    if (eq != std::string::npos && usage.options.count(word.substr(0, eq)))
        return OptionValues(process, command, word.substr(0, eq), word.substr(eq + 1));
    std::set<std::string> used;
    size_t positional = 0;
    for (const auto& t : given) {
        size_t e = t.text.find('=');
        if (t.Unquoted() && e != std::string::npos && usage.options.count(t.text.substr(0, e))) used.insert(t.text.substr(0, e));
        else if (t.Unquoted() && usage.switches.count(t.text)) used.insert(t.text);
        else ++positional;
    }
    std::vector<std::string> out;
    if (!usage.positional.empty()) {
        const std::string& last = usage.positional.back();
        bool many = last.size() > 3 && last.compare(last.size() - 3, 3, "...") == 0;
        if (positional < usage.positional.size() || many) {
            std::string placeholder = usage.positional[std::min(positional, usage.positional.size() - 1)];
            if (many && positional >= usage.positional.size() - 1) placeholder = last.substr(0, last.size() - 3);
            out = PositionalValues(session, process, command, placeholder, word);
        }
    }
    for (const auto& o : usage.options)
        if (!used.count(o)) out.push_back(o + "=");
    for (const auto& s : usage.switches)
        if (!used.count(s)) out.push_back(s);
    return out;
}

std::vector<std::string> Candidates(Session& session, const std::vector<Token>& before, const std::string& word) {
    std::vector<std::string> out;
    if (before.empty()) {
        for (const auto& c : AllCommands())
            if (c.scope == Scope::Machine) out.push_back(c.name);
        for (const char* extra : {"expect", "help", "exit", "quit"}) out.push_back(extra);
        for (uint32_t pid : session.ProcessIds()) out.push_back(std::to_string(pid) + ":");
        return out;
    }
    const std::string first = before[0].text;
    if (auto pid = PidOf(first)) {
        ProcessState* process = session.FindProcess(*pid);
        if (before.size() == 1) {
            for (const auto& c : AllCommands())
                if (c.scope == Scope::Process) out.push_back(c.name);
            return out;
        }
        const CommandSpec* command = FindCommand(before[1].text, Scope::Process);
        if (!command) return out;
        return ArgumentValues(session, process, command->name, ParseUsage(command->usage),
                              {before.begin() + 2, before.end()}, word);
    }
    if (first == "help") {
        for (const auto& c : AllCommands()) out.push_back(c.name);
        for (const auto& c : CliCommands()) out.push_back(std::string(c.path).substr(0, std::string(c.path).find(' ')));
        out.push_back("expect");
        return out;
    }
    if (first == "expect") return before.size() == 1 ? std::vector<std::string>{"not", "log"} : out;
    if (first == "ctl") {
        if (before.size() == 1) {
            for (const auto& v : control::Verbs()) out.push_back(v.name);
            return out;
        }
        const control::Verb* verb = control::FindVerb(before[1].text);
        if (!verb) return out;
        return ArgumentValues(session, nullptr, "ctl", ParseUsage(std::string(verb->name) + " " + verb->words),
                              {before.begin() + 2, before.end()}, word);
    }
    const CommandSpec* command = FindCommand(first, Scope::Machine);
    if (!command) return out;
    return ArgumentValues(session, nullptr, command->name, ParseUsage(command->usage), {before.begin() + 1, before.end()},
                          word);
}

}  // namespace

Completion CompleteLine(Session& session, const std::string& line) {
    Completion c;
    c.start = WordStart(line);
    const std::string word = line.substr(c.start);
    std::vector<Token> before;
    try {
        before = SplitLine(line.substr(0, c.start));
    } catch (const ScriptError&) {
        return c;
    }
    // Paths match without regard to case or an opening quote; the rest as typed.
    auto unquoted = [](const std::string& s) { return !s.empty() && s[0] == '"' ? s.substr(1) : s; };
    const bool path = LooksLikeDrivePath(unquoted(word));
    std::set<std::string> seen;
    for (auto& candidate : Candidates(session, before, word)) {
        bool matches = path ? StartsWithNoCase(unquoted(candidate), unquoted(word)) : candidate.rfind(word, 0) == 0;
        if (matches && seen.insert(candidate).second) c.candidates.push_back(std::move(candidate));
    }
    std::sort(c.candidates.begin(), c.candidates.end());
    return c;
}

}  // namespace tervane::tool
