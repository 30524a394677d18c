// Writes the manual page and the bash completion of tervane into the
// directory given, from the same tables as `tervane help` (run at build time).
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "help.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: tervane_docgen OUTDIR\n";
        return 2;
    }
    std::filesystem::path dir = argv[1];
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    struct Output {
        const char* name;
        void (*write)(std::ostream&);
    } outputs[] = {{"tervane.1", tervane::tool::WriteManPage}, {"tervane.bash", tervane::tool::WriteBashCompletion}};
    for (const auto& o : outputs) {
        std::ofstream file(dir / o.name);
        o.write(file);
        if (!file.flush()) {
            std::cerr << "tervane_docgen: cannot write " << (dir / o.name).string() << "\n";
            return 1;
        }
    }
    return 0;
}
