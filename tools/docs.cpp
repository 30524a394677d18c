// The manual page and the bash completion, written from the command tables
// at build time (tools/docgen), so that they say what the tool does.
#include <algorithm>
#include <ostream>
#include <set>
#include <sstream>

#include "cli.h"
#include "commands.h"
#include "help.h"

#ifndef TERVANE_VERSION
#define TERVANE_VERSION "unknown"
#endif

namespace tervane::tool {
namespace {

// Text for roff: backslashes escaped, option dashes as minus signs, and no
// line that starts with a control character.
std::string Roff(const std::string& text, bool dashes = false) {
    std::string out;
    for (char c : text) {
        if (c == '\\') out += "\\e";
        else if (c == '-' && dashes) out += "\\-";
        else out += c;
    }
    if (!out.empty() && (out[0] == '.' || out[0] == '\'')) out = "\\&" + out;
    return out;
}

// Words of the command line are shown with their dashes as minus signs.
std::string RoffUsage(const std::string& usage) {
    std::string out;
    std::istringstream words(usage);
    for (std::string w; words >> w;) {
        bool option = w.find("--") != std::string::npos;
        out += (out.empty() ? "" : " ") + Roff(w, option);
    }
    return out;
}

std::string Join(const std::vector<std::string>& words) {
    std::string out;
    for (const auto& w : words) out += (out.empty() ? "" : " ") + w;
    return out;
}

std::vector<std::string> Split(const std::string& text) {
    std::vector<std::string> words;
    std::istringstream in(text);
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

}  // namespace

void WriteManPage(std::ostream& out) {
    out << ".\\\" tervane(1), generated from the help texts of tervane " TERVANE_VERSION "\n"
        << ".TH TERVANE 1 \"\" \"tervane " TERVANE_VERSION "\" \"User Commands\"\n"
        << ".SH NAME\ntervane \\- drive the emulated NT machine and the layered-view filter driver\n"
        << ".SH SYNOPSIS\n.nf\n";
    for (const auto& c : CliCommands()) out << RoffUsage(CliUsage(c)) << "\n";
    out << "tervane \\-\\-version\n.fi\n"
        << ".SH DESCRIPTION\n"
        << "tervane runs a user-mode NT machine with the filter driver, which gives selected processes a layered "
           "view of a volume: an ordered list of filter directories stands in place of the volume's own tree. "
           "Scenario scripts drive the machine one command a line (\\fBrun\\fR, \\fBshell\\fR); \\fBdemo\\fR walks "
           "through the layered view; \\fBindex\\fR makes and reads the index files the driver loads.\n"
        << ".SH COMMANDS\n";
    for (const auto& c : CliCommands()) {
        out << ".SS \"" << c.path << "\"\n" << RoffUsage(CliUsage(c)) << "\n.PP\n" << Roff(c.text) << "\n";
        for (const auto& a : c.arguments)
            out << ".TP\n.I " << a.name << (a.many ? "..." : "") << "\n" << Roff(a.text) << "\n";
        for (const auto& o : c.options) {
            out << ".TP\n\\fB" << Roff(o.name, true) << "\\fR";
            if (o.value) out << " \\fI" << o.value << "\\fR";
            out << "\n" << Roff(o.text) << "\n";
        }
        out << ".PP\nExit status:\n";
        for (const auto& e : c.exits) out << ".TP\n.B " << e.code << "\n" << Roff(e.meaning) << "\n";
        out << ".PP\nExample:\n.RS\n.nf\n" << RoffUsage(c.example) << "\n.fi\n.RE\n";
    }
    out << ".SH SCENARIO LANGUAGE\n"
        << "One command a line; # starts a comment; arguments are separated by blanks; an argument with blanks "
           "or special characters is written in double quotes with C escapes. Paths are drive paths as a process "
           "names them (C:\\edir\\ea.txt); host paths appear only in \\fBvolume\\fR and \\fBindex\\fR. Every "
           "command prints a result line that begins with the status name and its value, then its output "
           "indented by two blanks. Operations of a process are written PID: OP ARGS; handle names are chosen "
           "by the script. Worked examples are in the examples folder of the source tree.\n";
    for (Scope scope : {Scope::Machine, Scope::Process}) {
        out << ".SS \"" << (scope == Scope::Machine ? "Machine commands" : "Process operations") << "\"\n";
        for (const auto& c : AllCommands()) {
            if (c.scope != scope) continue;
            out << ".TP\n.B \"" << (scope == Scope::Process ? "PID: " : "") << Roff(c.usage) << "\"\n"
                << Roff(c.summary) << "\n";
        }
        if (scope == Scope::Machine)
            out << ".TP\n.B \"" << Roff(ExpectHelp().usage) << "\"\n" << Roff(ExpectHelp().text) << "\n";
    }
    out << ".SH ENVIRONMENT\n.TP\n.B COLUMNS\nThe width of the demo's output; without it, the terminal's width, or "
           "100 when the output is no terminal.\n.TP\n.B HOME\nWhere the shell keeps its history.\n"
        << ".SH FILES\n.TP\n.I ~/.tervane_history\nThe shell's history, one command a line, appended after every "
           "command.\n"
        << ".SH SEE ALSO\n\\fBtervane help\\fR \\fICOMMAND\\fR explains any command with an example.\n";
}

void WriteBashCompletion(std::ostream& out) {
    std::vector<std::string> paths, firstWords, valueOptions;
    for (const auto& c : CliCommands()) {
        std::vector<std::string> words = Split(c.path);
        for (size_t n = 1; n <= words.size(); ++n) {
            std::string prefix = Join({words.begin(), words.begin() + static_cast<long>(n)});
            if (std::find(paths.begin(), paths.end(), prefix) == paths.end()) paths.push_back(prefix);
        }
        if (std::find(firstWords.begin(), firstWords.end(), words[0]) == firstWords.end()) firstWords.push_back(words[0]);
        for (const auto& o : c.options)
            if (o.value && std::find(valueOptions.begin(), valueOptions.end(), o.name) == valueOptions.end())
                valueOptions.push_back(o.name);
    }
    std::set<std::string> topics(firstWords.begin(), firstWords.end());
    for (const auto& c : AllCommands()) topics.insert(c.name);
    topics.insert(ExpectHelp().name);

    auto kindWord = [](ValueKind kind) {
        switch (kind) {
        case ValueKind::File: return "file";
        case ValueKind::Directory: return "dir";
        case ValueKind::Topic: return "topic";
        default: return "text";
        }
    };
    out << "# bash completion for tervane, generated from its help table.\n"
        << "_tervane_value() {\n"
        << "    case \"$1\" in\n"
        << "    file) compopt -o filenames 2>/dev/null; COMPREPLY=($(compgen -f -- \"$cur\")) ;;\n"
        << "    dir) compopt -o filenames 2>/dev/null; COMPREPLY=($(compgen -d -- \"$cur\")) ;;\n"
        << "    topic) COMPREPLY=($(compgen -W \"" << Join({topics.begin(), topics.end()}) << "\" -- \"$cur\")) ;;\n"
        << "    *) COMPREPLY=() ;;\n"
        << "    esac\n"
        << "}\n\n"
        << "_tervane() {\n"
        << "    local cur=\"${COMP_WORDS[COMP_CWORD]}\" prev=\"${COMP_WORDS[COMP_CWORD-1]}\"\n"
        << "    local path=\"\" n=0 i w skip=\"\"\n"
        << "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
        << "        w=\"${COMP_WORDS[i]}\"\n"
        << "        if [[ -n $skip ]]; then skip=\"\"; continue; fi\n"
        << "        case \"$w\" in\n";
    if (!valueOptions.empty()) {
        std::string patterns;
        for (const auto& o : valueOptions) patterns += (patterns.empty() ? "" : "|") + o;
        out << "        " << patterns << ") skip=1; continue ;;\n";
    }
    out << "        -*) continue ;;\n"
        << "        esac\n"
        << "        if ((n == 0)); then\n"
        << "            case \"${path:+$path }$w\" in\n";
    for (const auto& p : paths) out << "            \"" << p << "\") path=\"${path:+$path }$w\"; continue ;;\n";
    out << "            esac\n"
        << "        fi\n"
        << "        ((n++))\n"
        << "    done\n"
        << "    case \"$path\" in\n";
    for (const auto& p : paths) {
        const CliCommand* command = FindCliCommand(p);
        out << "    \"" << p << "\")\n";
        if (!command) {  // a group: the words that follow
            std::string next;
            for (const auto& other : paths)
                if (other.rfind(p + " ", 0) == 0 && Split(other).size() == Split(p).size() + 1)
                    next += (next.empty() ? "" : " ") + Split(other).back();
            out << "        COMPREPLY=($(compgen -W \"" << next << "\" -- \"$cur\")) ;;\n";
            continue;
        }
        std::string options = "--help";
        for (const auto& o : command->options) {
            options += " " + std::string(o.name);
            if (o.value) out << "        if [[ $prev == " << o.name << " ]]; then _tervane_value " << kindWord(o.kind) << "; return; fi\n";
        }
        out << "        if [[ $cur == -* ]]; then COMPREPLY=($(compgen -W \"" << options << "\" -- \"$cur\")); return; fi\n"
            << "        local kinds=(";
        for (const auto& a : command->arguments) out << " " << kindWord(a.kind);
        out << " )\n";
        bool many = !command->arguments.empty() && command->arguments.back().many;
        if (many) out << "        ((n >= ${#kinds[@]})) && n=$((${#kinds[@]} - 1))\n";
        out << "        _tervane_value \"${kinds[n]}\" ;;\n";
    }
    out << "    \"\")\n"
        << "        COMPREPLY=($(compgen -W \"" << Join(firstWords) << " --help --version\" -- \"$cur\")) ;;\n"
        << "    esac\n"
        << "}\n"
        << "complete -F _tervane tervane\n";
}

}  // namespace tervane::tool
