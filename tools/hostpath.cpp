#include "hostpath.h"

#include <cstring>
#include <system_error>
#include <unistd.h>

#include "lexer.h"

namespace tervane::tool {

std::string HostReason(int error) { return std::strerror(error); }

std::string MakeHostDirectory(const std::filesystem::path& dir) {
    namespace fs = std::filesystem;
    const std::string shown = EscapeText(dir.string());
    std::error_code ec;
    fs::file_status status = fs::status(dir, ec);
    if (fs::exists(status) && !fs::is_directory(status)) return shown + " is a file, not a directory";
    if (!fs::exists(status)) {
        // The first part of the path that exists decides what went wrong.
        for (fs::path up = dir.parent_path(); !up.empty(); up = up.parent_path()) {
            fs::file_status s = fs::status(up, ec);
            if (!fs::exists(s)) {
                if (up == up.parent_path()) break;
                continue;
            }
            if (!fs::is_directory(s)) return "cannot make " + shown + ": " + EscapeText(up.string()) + " is a file";
            break;
        }
        fs::create_directories(dir, ec);
        if (ec) return "cannot make " + shown + ": " + ec.message();
    }
    if (access(dir.c_str(), R_OK | W_OK | X_OK) != 0) return "cannot use " + shown + ": " + HostReason(errno);
    return {};
}

}  // namespace tervane::tool
