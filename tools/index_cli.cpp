#include "index_cli.h"

#include <ostream>

#include "indexfile/indexfile.h"
#include "lexer.h"

namespace tervane::tool {
namespace {

const char* TypeName(uint32_t type) {
    return type == indexfile::kTypeDirectory ? "dir" : type == indexfile::kTypeFile ? "file" : "type?";
}

// Host paths may hold any byte; control characters are shown escaped.
std::string Shown(const std::string& path) { return EscapeText(path); }

}  // namespace

int IndexBuild(const std::string& hostDir, const std::string& nodeFile, const std::string& nameFile,
               const IndexBuildOptions& options, std::ostream& out, std::ostream& err) {
    const char* head = "tervane index build: ";
    if (indexfile::SameFile(indexfile::HostPath(nodeFile), indexfile::HostPath(nameFile))) {
        err << head << "NODEFILE and NAMEFILE are the same file (" << Shown(nodeFile)
            << "); the name file would overwrite the node file\n";
        return kIndexFailed;
    }
    indexfile::IndexFiles files;
    std::string error;
    std::vector<indexfile::NameProblem> problems;
    indexfile::BuildOptions build;
    build.skipUnrepresentable = options.skipUnrepresentable;
    build.problems = &problems;
    if (!options.quiet) {
        build.progress = [&out](const indexfile::BuildProgress& p) {
            out << "  " << indexfile::CountsText(p.entries, p.nameBytes) << "\n" << std::flush;
        };
    }
    bool built = indexfile::BuildIndex(indexfile::HostPath(hostDir), &files, &error, build);
    for (const auto& p : problems)
        err << head << (options.skipUnrepresentable ? "left out " : "cannot hold ") << Shown(indexfile::PathText(p.path)) << ": "
            << p.reason << "\n";
    if (!built) {
        if (!problems.empty() && !options.skipUnrepresentable) {
            err << head << problems.size() << (problems.size() == 1 ? " name" : " names")
                << " the volume does not show; nothing written (--skip-unrepresentable builds the rest)\n";
            return kIndexNo;
        }
        err << head << Shown(error) << "\n";
        return kIndexFailed;
    }
    if (!indexfile::WriteIndexFiles(files, indexfile::HostPath(nodeFile), indexfile::HostPath(nameFile), &error)) {
        err << head << Shown(error) << "\n";
        return kIndexFailed;
    }
    if (!options.quiet) {
        out << "wrote " << Shown(nodeFile) << " (" << files.node.size() << " bytes) and " << Shown(nameFile) << " ("
            << files.name.size() << " bytes): "
            << indexfile::CountsText(indexfile::EntryCountOf(files), indexfile::NameBytesOf(files));
        if (!problems.empty()) out << "; " << problems.size() << " left out";
        out << "\n";
    }
    return kIndexOk;
}

int IndexDump(const std::string& nodeFile, const std::string& nameFile, std::ostream& out, std::ostream& err) {
    indexfile::IndexFiles files;
    std::string error;
    if (!indexfile::ReadIndexFiles(indexfile::HostPath(nodeFile), indexfile::HostPath(nameFile), &files, &error)) {
        err << "tervane index dump: " << Shown(error) << "\n";
        return kIndexFailed;
    }
    bool ok = indexfile::DumpIndex(files, [&out](const indexfile::DumpLine& line) {
        out << std::string(2 * line.depth, ' ') << line.path << "  offset=" << line.offset << " "
            << TypeName(line.type) << "\n";
    }, &error);
    if (!ok) {
        err << "tervane index dump: " << error << "\n";
        return kIndexFailed;
    }
    return kIndexOk;
}

int IndexLookup(const std::string& nodeFile, const std::string& nameFile, const std::string& path,
                std::ostream& out, std::ostream& err) {
    indexfile::IndexFiles files;
    std::string error;
    if (!indexfile::ReadIndexFiles(indexfile::HostPath(nodeFile), indexfile::HostPath(nameFile), &files, &error)) {
        err << "tervane index lookup: " << Shown(error) << "\n";
        return kIndexFailed;
    }
    std::u16string wide;
    if (!indexfile::Utf8ToUtf16(path, &wide)) {
        err << "tervane index lookup: the path is not valid UTF-8\n";
        return kIndexFailed;
    }
    auto entry = indexfile::LookupPath(files, wide, &error);
    if (!error.empty()) {
        err << "tervane index lookup: " << error << "\n";
        return kIndexFailed;
    }
    if (!entry) {
        out << Shown(path) << ": not in the index\n";
        return kIndexNo;
    }
    out << Shown(path) << ": " << TypeName(entry->type) << " offset=" << entry->offset
        << " parent=" << entry->parentOffset << "\n";
    return kIndexOk;
}

}  // namespace tervane::tool
