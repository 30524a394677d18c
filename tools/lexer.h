// Splitting a scenario line into arguments, and printing bytes back with the
// same escapes.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tervane::tool {

// A mistake in a script (unknown command or argument, malformed quotes...).
// The interpreter adds the file and line when it reports one.
struct ScriptError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// One argument. Unquoted text is taken literally (backslashes included, so
// C:\dir\a.txt needs no quotes); text inside double quotes understands the
// escapes \n \r \t \0 \\ \" and \xHH, and keeps any other backslash as it
// is. A token may mix both, as in
// pattern="a b*"; unquotedPrefix tells how many leading bytes were unquoted.
struct Token {
    std::string text;
    size_t unquotedPrefix = 0;
    bool Unquoted() const { return unquotedPrefix == text.size(); }
};

// Splits LINE at blanks. A '#' at the start of an argument begins a comment
// that runs to the end of the line; inside a word it is an ordinary character.
std::vector<Token> SplitLine(std::string_view line);

// Renders bytes for output: printable ASCII as is, everything else (and the
// backslash and double quote) with the escapes SplitLine understands.
std::string EscapeBytes(std::string_view bytes);

// For names and other UTF-8 text: escapes only control characters and bytes
// that are not part of a UTF-8 character, and keeps UTF-8 characters,
// backslashes and quotes as they are.
std::string EscapeText(std::string_view text);

// TEXT in double quotes, escaped as EscapeText does: for messages that
// quote what a script wrote.
std::string QuoteText(std::string_view text);

// The position of the first byte that does not belong to a well-formed UTF-8
// sequence, or npos.
size_t FirstInvalidUtf8(std::string_view text);

// Parses a number: decimal, or hex with 0x. Negative values allowed when
// allowNegative. Throws ScriptError naming WHAT on anything else.
int64_t ParseNumber(std::string_view text, const char* what, bool allowNegative = false);

}  // namespace tervane::tool
