// Host directories the tool makes or uses, with messages that name the path
// and the host's reason; nothing here throws.
#pragma once

#include <filesystem>
#include <string>

namespace tervane::tool {

// Makes DIR and its parents when missing and checks that the tool can list,
// read and write it. Empty on success; otherwise why not, naming the path:
// "/x/f is a file, not a directory", "cannot make /root/d: Permission denied".
std::string MakeHostDirectory(const std::filesystem::path& dir);

// The reason of the last failed host call (errno) as the host words it.
std::string HostReason(int error);

}  // namespace tervane::tool
