#include "index_cli.h"

#include <ostream>

#include "indexfile/indexfile.h"

namespace tervane::tool {
namespace {

const char* TypeName(uint32_t type) {
    return type == indexfile::kTypeDirectory ? "dir" : type == indexfile::kTypeFile ? "file" : "type?";
}

}  // namespace

int IndexBuild(const std::string& hostDir, const std::string& nodeFile, const std::string& nameFile, bool quiet,
               std::ostream& out, std::ostream& err) {
    indexfile::IndexFiles files;
    std::string error;
    indexfile::ProgressCallback progress;
    if (!quiet) {
        progress = [&out](const indexfile::BuildProgress& p) {
            out << "  " << p.entries << " entries, " << p.nameBytes << " name bytes\n" << std::flush;
        };
    }
    if (!indexfile::BuildIndex(hostDir, &files, &error, progress)) {
        err << "tervane index build: " << error << "\n";
        return 1;
    }
    if (!indexfile::WriteIndexFiles(files, nodeFile, nameFile, &error)) {
        err << "tervane index build: " << error << "\n";
        return 1;
    }
    if (!quiet) {
        out << "wrote " << nodeFile << " (" << files.node.size() << " bytes) and " << nameFile << " ("
            << files.name.size() << " bytes)\n";
    }
    return 0;
}

int IndexDump(const std::string& nodeFile, const std::string& nameFile, std::ostream& out, std::ostream& err) {
    indexfile::IndexFiles files;
    std::string error;
    if (!indexfile::ReadIndexFiles(nodeFile, nameFile, &files, &error)) {
        err << "tervane index dump: " << error << "\n";
        return 1;
    }
    bool ok = indexfile::DumpIndex(files, [&out](const indexfile::DumpLine& line) {
        out << std::string(2 * line.depth, ' ') << line.path << "  offset=" << line.offset << " "
            << TypeName(line.type) << "\n";
    }, &error);
    if (!ok) {
        err << "tervane index dump: " << error << "\n";
        return 1;
    }
    return 0;
}

int IndexLookup(const std::string& nodeFile, const std::string& nameFile, const std::string& path,
                std::ostream& out, std::ostream& err) {
    indexfile::IndexFiles files;
    std::string error;
    if (!indexfile::ReadIndexFiles(nodeFile, nameFile, &files, &error)) {
        err << "tervane index lookup: " << error << "\n";
        return 1;
    }
    std::u16string wide;
    if (!indexfile::Utf8ToUtf16(path, &wide)) {
        err << "tervane index lookup: the path is not valid UTF-8\n";
        return 1;
    }
    auto entry = indexfile::LookupPath(files, wide, &error);
    if (!error.empty()) {
        err << "tervane index lookup: " << error << "\n";
        return 1;
    }
    if (!entry) {
        out << path << ": not in the index\n";
        return 1;
    }
    out << path << ": " << TypeName(entry->type) << " offset=" << entry->offset << " parent=" << entry->parentOffset
        << "\n";
    return 0;
}

}  // namespace tervane::tool
