#include "text.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tervane::tool {

std::string Wrap(const std::string& text, size_t width, const std::string& indent) {
    std::istringstream words(text);
    std::string out, line, word;
    while (words >> word) {
        if (!line.empty() && indent.size() + line.size() + 1 + word.size() > width) {
            out += indent + line + "\n";
            line.clear();
        }
        line += (line.empty() ? "" : " ") + word;
    }
    if (!line.empty()) out += indent + line + "\n";
    return out;
}

std::vector<std::string> FitColumn(const std::vector<std::string>& lines, size_t width) {
    width = std::max<size_t>(width, 16);
    std::vector<std::string> fitted;
    for (std::string line : lines) {
        size_t indent = line.find_first_not_of(' ');
        std::string lead(indent == std::string::npos ? 0 : indent + 2, ' ');
        // Each cut must shorten the line: the lead stays below half a line.
        if (lead.size() >= width / 2) lead.clear();
        bool cut = false;
        while (line.size() > width) {
            // At a blank, else before a backslash or slash (which keeps both
            // paths and escapes such as \r\n readable), else anywhere.
            size_t at = line.rfind(' ', width);
            if (at == std::string::npos || at < width / 2) {
                at = line.find_last_of("\\/", width);
                if (at == std::string::npos || at < width / 2) at = width;
            }
            fitted.push_back(line.substr(0, at));
            size_t rest = line.find_first_not_of(' ', at);
            line = rest == std::string::npos ? std::string() : lead + line.substr(rest);
            cut = true;
        }
        if (!cut || !line.empty()) fitted.push_back(line);
    }
    return fitted;
}

size_t OutputWidth(size_t fallback) {
    if (const char* columns = std::getenv("COLUMNS")) {
        char* end = nullptr;
        long value = std::strtol(columns, &end, 10);
        if (end != columns && *end == 0 && value > 0 && value < 10000) return static_cast<size_t>(value);
    }
    struct winsize size {};
    if (isatty(STDOUT_FILENO) && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    return fallback;
}

}  // namespace tervane::tool
