// tervane-index.exe: index pairs on a Windows machine, with the code of
// `tervane index` (tools/index_cli.h): build one from a directory tree,
// dump one, look a path up in one.
#include <windows.h>

#include <iostream>
#include <string>
#include <vector>

#include "index_cli.h"
#include "windows_text.h"

namespace {

using namespace tervane::tool;

int Usage() {
    std::cerr << "usage: tervane-index build [--quiet] [--skip-unrepresentable] DIR NODEFILE NAMEFILE\n"
                 "       tervane-index dump NODEFILE NAMEFILE\n"
                 "       tervane-index lookup NODEFILE NAMEFILE PATH\n";
    return kIndexFailed;  // a usage error, as `tervane index` reports one
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    SetConsoleOutputCP(CP_UTF8);
    std::vector<std::string> words;
    IndexBuildOptions options;
    for (int i = 1; i < argc; ++i) {
        std::string word = tervane::win::Utf8(argv[i]);
        if (word == "--quiet") options.quiet = true;
        else if (word == "--skip-unrepresentable") options.skipUnrepresentable = true;
        else words.push_back(word);
    }
    if (words.empty()) return Usage();
    const std::string& verb = words[0];
    bool buildOptions = options.quiet || options.skipUnrepresentable;
    if (verb == "build" && words.size() == 4)
        return IndexBuild(words[1], words[2], words[3], options, std::cout, std::cerr);
    if (verb == "dump" && words.size() == 3 && !buildOptions) return IndexDump(words[1], words[2], std::cout, std::cerr);
    if (verb == "lookup" && words.size() == 4 && !buildOptions)
        return IndexLookup(words[1], words[2], words[3], std::cout, std::cerr);
    return Usage();
}
