// Names on the emulated NTFS volume: case folding, component validation,
// path splitting, host-name conversion, expression matching and 8.3 names.
// Pure functions: nothing here touches the host or the machine.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <nt/ntifs.h>

namespace tervane::emu::fs {

constexpr size_t kMaxComponentLength = 255;  // characters, as NTFS

// Upper case as the volume's upcase table folds it (ASCII, Latin-1, Latin
// Extended-A, Greek, Cyrillic, full-width Latin).
char16_t Upcase(char16_t c);
std::u16string UpcaseString(std::u16string_view s);
bool EqualNoCase(std::u16string_view a, std::u16string_view b);
// Orders names as an NTFS directory index does: by upcased code units.
bool LessNoCase(std::u16string_view a, std::u16string_view b);

// STATUS_SUCCESS or STATUS_OBJECT_NAME_INVALID: empty, longer than 255,
// "." or "..", a control character or one of " * / : < > ? \ |.
NTSTATUS ValidateComponent(std::u16string_view name);

// Splits an absolute ("\a\b") or relative ("a\b") name into validated
// components. "\" alone gives no components. One trailing backslash is
// allowed and reported (NTFS then insists on a directory); an empty
// component anywhere else is invalid.
NTSTATUS SplitPath(std::u16string_view path, std::vector<std::u16string>* components, bool* trailingBackslash);

// Host names are bytes; the volume shows those that are valid UTF-8 and a
// valid NT component. Anything else stays on the host, invisible.
bool HostNameToNt(std::string_view host, std::u16string* nt);
// False when NAME holds an unpaired surrogate (no UTF-8 form).
bool NtNameToHost(std::u16string_view nt, std::string* host);
// The same, appended to *HOST (which is left as it was on failure).
bool AppendNtNameAsHost(std::u16string_view nt, std::string* host);

// FsRtlIsNameInExpression semantics, without regard to case: * and ?,
// and the DOS wildcards < (DOS_STAR), > (DOS_QM) and " (DOS_DOT).
bool IsNameInExpression(std::u16string_view expression, std::u16string_view name);
bool ExpressionHasWildcards(std::u16string_view expression);

// True when NAME is a legal 8.3 name as it stands (then it needs no
// separate short name): 1-8 characters, optionally a dot and 1-3 more,
// from the FAT character set, compared without regard to case.
bool IsValid83Name(std::u16string_view name);
// The short-name candidate number ATTEMPT (1, 2, ...) for LONGNAME:
// "BASEXX~N.EXT" for the first four, then two characters, four hex digits
// of a hash of the long name, and "~N" (N = attempt - 4, 1..9).
// Empty when ATTEMPT is out of range.
std::u16string MakeShortNameCandidate(std::u16string_view longName, int attempt);

}  // namespace tervane::emu::fs
