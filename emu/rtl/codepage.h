// The machine's ANSI code page: Windows-1252, the code page of a US-English
// NT installation. Characters outside it convert to '?', as NT's default
// character.
#pragma once

#include <string>

#include <nt/ntdef.h>

namespace tervane::emu {

WCHAR AnsiToUnicodeChar(unsigned char c);
char UnicodeToAnsiChar(WCHAR c);
// ANSI bytes as UTF-8 text for the host (the debug log).
std::string AnsiToUtf8(const char* text, size_t length);

}  // namespace tervane::emu
