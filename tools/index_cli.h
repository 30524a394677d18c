// `tervane index build|dump|lookup`: index files on the host.
#pragma once

#include <iosfwd>
#include <string>

namespace tervane::tool {

// Each returns the exit code: 0, or 1 with a message on ERR.
int IndexBuild(const std::string& hostDir, const std::string& nodeFile, const std::string& nameFile, bool quiet,
               std::ostream& out, std::ostream& err);
int IndexDump(const std::string& nodeFile, const std::string& nameFile, std::ostream& out, std::ostream& err);
int IndexLookup(const std::string& nodeFile, const std::string& nameFile, const std::string& path,
                std::ostream& out, std::ostream& err);

}  // namespace tervane::tool
