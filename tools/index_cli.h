// `tervane index build|dump|lookup`: index files on the host.
#pragma once

#include <iosfwd>
#include <string>

namespace tervane::tool {

// Exit codes of the index commands.
enum IndexExit : int {
    kIndexOk = 0,
    kIndexNo = 1,      // build: the tree holds names the index cannot hold; lookup: not in the index
    kIndexFailed = 2,        // the files or the tree cannot be read or written, or are not an index pair
};

struct IndexBuildOptions {
    bool quiet = false;                // no progress lines
    bool skipUnrepresentable = false;  // leave out the names the volume does not show
};

int IndexBuild(const std::string& hostDir, const std::string& nodeFile, const std::string& nameFile,
               const IndexBuildOptions& options, std::ostream& out, std::ostream& err);
int IndexDump(const std::string& nodeFile, const std::string& nameFile, std::ostream& out, std::ostream& err);
int IndexLookup(const std::string& nodeFile, const std::string& nameFile, const std::string& path,
                std::ostream& out, std::ostream& err);

}  // namespace tervane::tool
