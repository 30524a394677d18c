// Plain-text layout shared by help and the demo.
#pragma once

#include <string>
#include <vector>

namespace tervane::tool {

// Word-wraps TEXT so that no line is wider than WIDTH (a word longer than a
// line stands alone), every line starting with INDENT and ending in '\n'.
std::string Wrap(const std::string& text, size_t width, const std::string& indent);

// Splits lines longer than WIDTH: at the last blank that leaves at least half
// a line, else before the last backslash or slash that does, else anywhere. Continuations are indented two more blanks than the
// line they continue.
std::vector<std::string> FitColumn(const std::vector<std::string>& lines, size_t width);

// The width the text of a terminal program may use: COLUMNS when set to a
// number, else the terminal's width when standard output is one, else
// FALLBACK (so that output into files and pipes does not vary).
size_t OutputWidth(size_t fallback);

}  // namespace tervane::tool
