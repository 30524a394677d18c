#include "frontend.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "cli.h"
#include "hostpath.h"
#include "interpreter.h"
#include "lexer.h"

#ifndef TERVANE_VERSION
#define TERVANE_VERSION "unknown"
#endif

namespace tervane::tool {
namespace {

namespace fs = std::filesystem;

// A message about the script as a whole: text on ERR, or a JSON record on OUT.
void ReportRunError(const RunOptions& a, const std::string& message, std::ostream& out, std::ostream& err) {
    if (a.json) {
        nlohmann::json j = {{"file", a.file}, {"error", message}, {"exit", kExitScriptError}};
        out << j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
    } else {
        err << "tervane run: " << message << "\n";
    }
}

std::vector<std::string> Words(const std::string& path) {
    std::vector<std::string> words;
    std::istringstream in(path);
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

// The words that may follow PATH ("" for the first word).
std::vector<std::string> NextWords(const std::string& path) {
    std::vector<std::string> next;
    const size_t depth = Words(path).size();
    for (const auto& c : CliCommands()) {
        std::vector<std::string> words = Words(c.path);
        if (words.size() <= depth || (depth && std::string(c.path).rfind(path + " ", 0) != 0)) continue;
        if (std::find(next.begin(), next.end(), words[depth]) == next.end()) next.push_back(words[depth]);
    }
    return next;
}

// The command path that ARGV names ("index build"), or a group ("index")
// when it stops there; *ERROR is set when a word names no command. Options
// end the walk.
std::string CommandPath(int argc, char** argv, std::string* error) {
    std::string path;
    for (int i = 1; i < argc && argv[i][0] != '-'; ++i) {
        std::vector<std::string> next = NextWords(path);
        if (std::find(next.begin(), next.end(), argv[i]) == next.end()) {
            std::string choices;
            for (const auto& w : next) choices += (choices.empty() ? "" : ", ") + w;
            *error = "tervane" + (path.empty() ? std::string() : " " + path) + ": unknown command \"" +
                     EscapeText(argv[i]) + "\" (" + (path.empty() ? "tervane help lists them" : "one of " + choices) +
                     ")";
            return {};
        }
        path += (path.empty() ? "" : " ") + std::string(argv[i]);
        if (FindCliCommand(path)) return path;
    }
    return path;
}

}  // namespace

int RunFile(const RunOptions& a, std::ostream& out, std::ostream& err) {
    std::error_code ec;
    const fs::path cwd = fs::current_path(ec);
    std::ifstream file;
    std::istream* in = &std::cin;
    std::string name = "<stdin>";
    fs::path base = cwd;
    if (a.file != "-") {
        name = a.file;
        fs::file_status status = fs::status(a.file, ec);
        if (!fs::exists(status)) {
            ReportRunError(a, "cannot read " + a.file + ": " + HostReason(ENOENT), out, err);
            return kExitScriptError;
        }
        if (fs::is_directory(status)) {
            ReportRunError(a, a.file + " is a directory; give a script file", out, err);
            return kExitScriptError;
        }
        errno = 0;
        file.open(a.file);
        if (!file) {
            ReportRunError(a, "cannot read " + a.file + ": " + HostReason(errno ? errno : EIO), out, err);
            return kExitScriptError;
        }
        in = &file;
        // A script from a pipe or a device (/dev/stdin) has no directory of
        // its own; its relative paths are taken from the current directory.
        if (fs::is_regular_file(status)) base = fs::absolute(a.file, ec).parent_path();
    }
    bool removeBase = false;
    if (!a.workdir.empty()) {
        base = fs::absolute(a.workdir, ec);
        std::string problem = MakeHostDirectory(base);
        if (!problem.empty()) {
            ReportRunError(a, "--workdir: " + problem, out, err);
            return kExitScriptError;
        }
    } else if (a.temp) {
        std::string pattern = (fs::temp_directory_path(ec) / "tervane-run-XXXXXX").string();
        if (!mkdtemp(pattern.data())) {
            ReportRunError(a, "--temp: cannot make a directory like " + pattern + ": " + HostReason(errno), out, err);
            return kExitScriptError;
        }
        base = pattern;
        removeBase = true;
    }
    InterpreterOptions options;
    options.json = a.json;
    options.echo = a.echo;
    if (!a.driverImage.empty()) options.driverImage = fs::absolute(a.driverImage, ec).string();
    int code;
    {
        Interpreter interpreter(out, base, options);
        code = interpreter.RunScript(*in, name, err);
    }
    if (removeBase) fs::remove_all(base, ec);
    return code;
}

int Main(int argc, char** argv) {
    CLI::App app{"tervane: drive the emulated NT machine and the driver.", "tervane"};
    app.set_version_flag("--version", std::string("tervane ") + TERVANE_VERSION);
    app.require_subcommand(1);
    app.footer("tervane help COMMAND explains any command, scenario commands included.");

    // Values live in maps (stable references) that every subcommand binds to
    // by name; only the chosen one is filled.
    CliValues values;
    std::map<std::string, CLI::App*> groups;
    std::vector<std::pair<const CliCommand*, CLI::App*>> commands;
    for (const auto& c : CliCommands()) {
        std::vector<std::string> words = Words(c.path);
        CLI::App* parent = &app;
        std::string group;
        for (size_t i = 0; i + 1 < words.size(); ++i) {
            group += (group.empty() ? "" : " ") + words[i];
            if (!groups.count(group)) {
                std::string summary;
                for (const auto& other : CliCommands())
                    if (std::string(other.path).rfind(group + " ", 0) == 0)
                        summary += (summary.empty() ? "commands: " : ", ") + Words(other.path).back();
                groups[group] = parent->add_subcommand(words[i], summary);
                groups[group]->require_subcommand(1);
            }
            parent = groups[group];
        }
        CLI::App* sub = parent->add_subcommand(words.back(), c.summary);
        for (const auto& o : c.options) {
            if (o.value)
                sub->add_option(o.name, values.values[o.name], o.text)->type_name(o.value);
            else
                sub->add_flag(o.name, values.switches[o.name], o.text);
        }
        for (const auto& o : c.options)
            if (o.excludes) sub->get_option(o.name)->excludes(sub->get_option(o.excludes));
        for (const auto& a : c.arguments) {
            CLI::Option* option = a.many ? sub->add_option(a.name, values.lists[a.name], a.text)
                                         : sub->add_option(a.name, values.values[a.name], a.text);
            option->required(!a.optional);
        }
        commands.emplace_back(&c, sub);
    }

    std::string unknown;
    std::string path = CommandPath(argc, argv, &unknown);
    if (!unknown.empty()) {
        std::cerr << unknown << "\n";
        return kExitScriptError;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        if (path.empty() || groups.count(path))
            std::cerr << "tervane" << (path.empty() ? "" : " " + path) << ": give a command (tervane help lists them)\n";
        else
            std::cerr << "tervane " << path << ": " << e.what() << " (tervane help " << path << " explains it)\n";
        return kExitScriptError;
    }

    try {
        for (const auto& [command, sub] : commands)
            if (sub->parsed()) return command->run(values);
    } catch (const fs::filesystem_error& e) {
        std::cerr << "tervane: " << e.path1().string() << ": " << e.code().message() << "\n";
        return kExitScriptError;
    } catch (const std::exception& e) {
        std::cerr << "tervane: " << e.what() << "\n";
        return kExitScriptError;
    }
    return kExitScriptError;
}

}  // namespace tervane::tool
