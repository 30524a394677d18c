#include "frontend.h"

#include <filesystem>
#include <fstream>
#include <iostream>

#include <CLI/CLI.hpp>

#include "index_cli.h"
#include "interpreter.h"

namespace tervane::tool {
namespace {

struct RunArgs {
    std::string file;
    std::string workdir;
    bool temp = false;
    bool json = false;
    bool echo = false;
};

// Relative host directories of `volume` resolve against the script's
// directory, or WORKDIR, or a new temporary directory removed afterwards.
int RunFile(const RunArgs& a) {
    std::ifstream in(a.file);
    if (!in) {
        std::cerr << "tervane run: cannot read " << a.file << "\n";
        return kExitScriptError;
    }
    std::filesystem::path base = std::filesystem::absolute(a.file).parent_path();
    if (!a.workdir.empty()) {
        base = std::filesystem::absolute(a.workdir);
        std::filesystem::create_directories(base);
    } else if (a.temp) {
        std::string pattern = (std::filesystem::temp_directory_path() / "tervane-run-XXXXXX").string();
        if (!mkdtemp(pattern.data())) {
            std::cerr << "tervane run: cannot make a temporary directory\n";
            return kExitScriptError;
        }
        base = pattern;
    }
    InterpreterOptions options;
    options.json = a.json;
    options.echo = a.echo;
    int code;
    {
        Interpreter interpreter(std::cout, base, options);
        code = interpreter.RunScript(in, a.file, std::cerr);
    }
    if (a.temp && a.workdir.empty()) std::filesystem::remove_all(base);
    return code;
}

}  // namespace

int Main(int argc, char** argv) {
    CLI::App app{"tervane: drive the emulated NT machine and the driver.", "tervane"};
    app.require_subcommand(1);
    app.footer("tervane help COMMAND explains any command, scenario commands included.");

    RunArgs runArgs;
    auto* run = app.add_subcommand("run", "run a scenario script (exit 0 ok, 1 expectation failed, 2 script error, "
                                          "3 leak or verifier finding)");
    run->add_option("FILE", runArgs.file, "the script")->required();
    run->add_flag("--json", runArgs.json, "one JSON object a line");
    run->add_flag("--echo", runArgs.echo, "print each command before its result");
    auto* workdir = run->add_option("--workdir", runArgs.workdir,
                                    "resolve relative host directories here instead of beside the script");
    run->add_flag("--temp", runArgs.temp, "resolve them in a new temporary directory, removed afterwards")
        ->excludes(workdir);

    bool shellJson = false;
    auto* shell = app.add_subcommand("shell", "type scenario commands interactively");
    shell->add_flag("--json", shellJson, "one JSON object a line");

    std::string keep;
    bool quiet = false;
    auto* demo = app.add_subcommand("demo", "a narrated, self-checking walk through the layered view");
    demo->add_option("--keep", keep, "keep the workspace in this directory");
    demo->add_flag("--quiet", quiet, "print only the verdict");

    auto* index = app.add_subcommand("index", "build, dump and look up index files");
    index->require_subcommand(1);
    std::string hostDir, nodeFile, nameFile, lookupPath;
    bool indexQuiet = false;
    auto* build = index->add_subcommand("build", "make an index pair from a host directory tree");
    build->add_option("HOSTDIR", hostDir, "the tree")->required();
    build->add_option("NODEFILE", nodeFile, "the node file to write")->required();
    build->add_option("NAMEFILE", nameFile, "the name file to write")->required();
    build->add_flag("--quiet", indexQuiet, "no progress output");
    auto* dump = index->add_subcommand("dump", "print the tree of an index pair with offsets and types");
    dump->add_option("NODEFILE", nodeFile, "the node file")->required();
    dump->add_option("NAMEFILE", nameFile, "the name file")->required();
    auto* lookup = index->add_subcommand("lookup", "look one path up in an index pair");
    lookup->add_option("NODEFILE", nodeFile, "the node file")->required();
    lookup->add_option("NAMEFILE", nameFile, "the name file")->required();
    lookup->add_option("PATH", lookupPath, "a path such as C:\\dir\\a.txt")->required();

    std::string helpTopic;
    auto* help = app.add_subcommand("help", "explain a command, with an example");
    help->add_option("COMMAND", helpTopic, "a command of tervane or of the scenario language");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : kExitScriptError;
    }

    try {
        if (*run) return RunFile(runArgs);
        if (*shell) return RunShell(shellJson);
        if (*demo) return RunDemo(keep, quiet);
        if (*build) return IndexBuild(hostDir, nodeFile, nameFile, indexQuiet, std::cout, std::cerr);
        if (*dump) return IndexDump(nodeFile, nameFile, std::cout, std::cerr);
        if (*lookup) return IndexLookup(nodeFile, nameFile, lookupPath, std::cout, std::cerr);
        if (*help) return PrintHelp(helpTopic, std::cout) ? 0 : kExitScriptError;
    } catch (const std::exception& e) {
        std::cerr << "tervane: " << e.what() << "\n";
        return kExitScriptError;
    }
    return kExitScriptError;
}

}  // namespace tervane::tool
