// Counted strings: initialisation, copy, append, comparison, case mapping and
// conversion between the ANSI code page and UTF-16, with NT's statuses.
#include "rtl/codepage.h"
#include <nt/ntifs.h>

using namespace tervane::emu;

namespace {

// Strings that Rtl allocates for its callers come from pool under this tag,
// and go back through RtlFreeUnicodeString / RtlFreeAnsiString.
constexpr ULONG kStringTag = 0x67727453;  // "Strg"

size_t WideLength(PCWSTR s) {
    size_t n = 0;
    while (s[n]) ++n;
    return n;
}

WCHAR Fold(WCHAR c, BOOLEAN caseInsensitive) { return caseInsensitive ? RtlUpcaseUnicodeChar(c) : c; }

// Terminates a counted string when a whole character still fits after it.
void TerminateIfRoom(PUNICODE_STRING s) {
    if (static_cast<ULONG>(s->Length) + sizeof(WCHAR) <= s->MaximumLength) s->Buffer[s->Length / sizeof(WCHAR)] = 0;
}

NTSTATUS MapCase(PUNICODE_STRING dest, PCUNICODE_STRING src, BOOLEAN allocate, WCHAR (*map)(WCHAR)) {
    if (allocate) {
        dest->Buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, src->Length, kStringTag));
        if (!dest->Buffer) return STATUS_NO_MEMORY;
        dest->MaximumLength = src->Length;
    } else if (src->Length > dest->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (USHORT i = 0; i < src->Length / sizeof(WCHAR); ++i) dest->Buffer[i] = map(src->Buffer[i]);
    dest->Length = src->Length;
    return STATUS_SUCCESS;
}

}  // namespace

// NT caps the length so that the terminator still fits in a USHORT maximum.
extern "C" VOID RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString) {
    DestinationString->Buffer = const_cast<PWSTR>(SourceString);
    if (!SourceString) {
        DestinationString->Length = DestinationString->MaximumLength = 0;
        return;
    }
    size_t bytes = WideLength(SourceString) * sizeof(WCHAR);
    if (bytes > 0xFFFC) bytes = 0xFFFC;
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength = static_cast<USHORT>(DestinationString->Length + sizeof(WCHAR));
}

extern "C" VOID RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString) {
    DestinationString->Buffer = const_cast<PCHAR>(SourceString);
    if (!SourceString) {
        DestinationString->Length = DestinationString->MaximumLength = 0;
        return;
    }
    size_t bytes = strlen(SourceString);
    if (bytes > MAXUSHORT - 1) bytes = MAXUSHORT - 1;
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength = static_cast<USHORT>(bytes + 1);
}

extern "C" VOID RtlInitString(PSTRING DestinationString, PCSZ SourceString) {
    RtlInitAnsiString(DestinationString, SourceString);
}

// Copies as much as the destination holds and terminates it when there is
// room; a null source empties the destination.
extern "C" VOID RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString) {
    if (!SourceString) {
        DestinationString->Length = 0;
        return;
    }
    USHORT bytes = SourceString->Length;
    if (bytes > DestinationString->MaximumLength) bytes = DestinationString->MaximumLength & ~1;
    memmove(DestinationString->Buffer, SourceString->Buffer, bytes);
    DestinationString->Length = bytes;
    TerminateIfRoom(DestinationString);
}

extern "C" NTSTATUS RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source) {
    if (!Source || Source->Length == 0) return STATUS_SUCCESS;
    ULONG total = static_cast<ULONG>(Destination->Length) + Source->Length;
    if (total > Destination->MaximumLength) return STATUS_BUFFER_TOO_SMALL;
    memmove(reinterpret_cast<PCHAR>(Destination->Buffer) + Destination->Length, Source->Buffer, Source->Length);
    Destination->Length = static_cast<USHORT>(total);
    TerminateIfRoom(Destination);
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source) {
    if (!Source) return STATUS_SUCCESS;
    size_t bytes = WideLength(Source) * sizeof(WCHAR);
    if (Destination->Length + bytes > Destination->MaximumLength) return STATUS_BUFFER_TOO_SMALL;
    memmove(reinterpret_cast<PCHAR>(Destination->Buffer) + Destination->Length, Source, bytes);
    Destination->Length = static_cast<USHORT>(Destination->Length + bytes);
    TerminateIfRoom(Destination);
    return STATUS_SUCCESS;
}

// The difference of the first differing characters (after upcasing when
// case-insensitive), else the difference of the lengths.
extern "C" LONG RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
    USHORT n1 = String1->Length / sizeof(WCHAR), n2 = String2->Length / sizeof(WCHAR);
    USHORT n = n1 < n2 ? n1 : n2;
    for (USHORT i = 0; i < n; ++i) {
        WCHAR a = Fold(String1->Buffer[i], CaseInSensitive), b = Fold(String2->Buffer[i], CaseInSensitive);
        if (a != b) return static_cast<LONG>(a) - static_cast<LONG>(b);
    }
    return static_cast<LONG>(String1->Length) - static_cast<LONG>(String2->Length);
}

extern "C" BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
    if (String1->Length != String2->Length) return FALSE;
    return RtlCompareUnicodeString(String1, String2, CaseInSensitive) == 0;
}

// TRUE when String1 is a prefix of String2.
extern "C" BOOLEAN RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
    if (String1->Length > String2->Length) return FALSE;
    for (USHORT i = 0; i < String1->Length / sizeof(WCHAR); ++i)
        if (Fold(String1->Buffer[i], CaseInSensitive) != Fold(String2->Buffer[i], CaseInSensitive)) return FALSE;
    return TRUE;
}

extern "C" NTSTATUS RtlUpcaseUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString,
                                           BOOLEAN AllocateDestinationString) {
    return MapCase(DestinationString, SourceString, AllocateDestinationString, RtlUpcaseUnicodeChar);
}

extern "C" NTSTATUS RtlDowncaseUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString,
                                             BOOLEAN AllocateDestinationString) {
    return MapCase(DestinationString, SourceString, AllocateDestinationString, RtlDowncaseUnicodeChar);
}

// The result is terminated, so the destination needs room for one more
// character than the source has; without it nothing is written and the
// destination is left as it was.
extern "C" NTSTATUS RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PCANSI_STRING SourceString,
                                                 BOOLEAN AllocateDestinationString) {
    ULONG needed = (static_cast<ULONG>(SourceString->Length) + 1) * sizeof(WCHAR);
    if (needed > MAXUSHORT) return STATUS_INVALID_PARAMETER_2;
    USHORT length = static_cast<USHORT>(needed - sizeof(WCHAR));
    if (AllocateDestinationString) {
        PWSTR buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, needed, kStringTag));
        if (!buffer) return STATUS_NO_MEMORY;
        DestinationString->Buffer = buffer;
        DestinationString->MaximumLength = static_cast<USHORT>(needed);
    } else if (length >= DestinationString->MaximumLength || needed > DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (USHORT i = 0; i < SourceString->Length; ++i)
        DestinationString->Buffer[i] = AnsiToUnicodeChar(static_cast<unsigned char>(SourceString->Buffer[i]));
    DestinationString->Buffer[SourceString->Length] = 0;
    DestinationString->Length = length;
    return STATUS_SUCCESS;
}

// Without allocation a short destination takes what fits (terminated) and
// the status is STATUS_BUFFER_OVERFLOW, as on NT.
extern "C" NTSTATUS RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString,
                                                 BOOLEAN AllocateDestinationString) {
    ULONG chars = SourceString->Length / sizeof(WCHAR);
    if (chars + 1 > MAXUSHORT) return STATUS_INVALID_PARAMETER_2;
    NTSTATUS status = STATUS_SUCCESS;
    if (AllocateDestinationString) {
        PCHAR buffer = static_cast<PCHAR>(ExAllocatePoolWithTag(PagedPool, chars + 1, kStringTag));
        if (!buffer) return STATUS_NO_MEMORY;
        DestinationString->Buffer = buffer;
        DestinationString->MaximumLength = static_cast<USHORT>(chars + 1);
    } else if (chars >= DestinationString->MaximumLength) {
        if (DestinationString->MaximumLength == 0) return STATUS_BUFFER_OVERFLOW;
        status = STATUS_BUFFER_OVERFLOW;
        chars = DestinationString->MaximumLength - 1;
    }
    for (ULONG i = 0; i < chars; ++i) DestinationString->Buffer[i] = UnicodeToAnsiChar(SourceString->Buffer[i]);
    DestinationString->Buffer[chars] = 0;
    DestinationString->Length = static_cast<USHORT>(chars);
    return status;
}

extern "C" VOID RtlFreeUnicodeString(PUNICODE_STRING UnicodeString) {
    if (UnicodeString->Buffer) ExFreePoolWithTag(UnicodeString->Buffer, kStringTag);
    UnicodeString->Buffer = nullptr;
    UnicodeString->Length = UnicodeString->MaximumLength = 0;
}

extern "C" VOID RtlFreeAnsiString(PANSI_STRING AnsiString) {
    if (AnsiString->Buffer) ExFreePoolWithTag(AnsiString->Buffer, kStringTag);
    AnsiString->Buffer = nullptr;
    AnsiString->Length = AnsiString->MaximumLength = 0;
}

// Digits in upper case; bases 2, 8, 10 and 16 (0 means 10).
extern "C" NTSTATUS RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String) {
    if (Base == 0) Base = 10;
    if (Base != 2 && Base != 8 && Base != 10 && Base != 16) return STATUS_INVALID_PARAMETER;
    char digits[33];
    int n = 0;
    do {
        digits[n++] = "0123456789ABCDEF"[Value % Base];
        Value /= Base;
    } while (Value);
    char text[33];
    for (int i = 0; i < n; ++i) text[i] = digits[n - 1 - i];
    ANSI_STRING ansi = {static_cast<USHORT>(n), static_cast<USHORT>(n), text};
    return RtlAnsiStringToUnicodeString(String, &ansi, FALSE);
}

// Leading blanks, an optional sign, and with base 0 a 0x/0o/0b prefix
// choosing the base; parsing stops at the first character that is not a
// digit of the base.
extern "C" NTSTATUS RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value) {
    if (Base != 0 && Base != 2 && Base != 8 && Base != 10 && Base != 16) return STATUS_INVALID_PARAMETER;
    if (!Value) return STATUS_ACCESS_VIOLATION;
    const WCHAR* p = String->Buffer;
    size_t n = String->Length / sizeof(WCHAR), i = 0;
    while (i < n && p[i] <= ' ') ++i;
    bool negative = false;
    if (i < n && (p[i] == '-' || p[i] == '+')) negative = p[i++] == '-';
    if (Base == 0) {
        Base = 10;
        if (i + 1 < n && p[i] == '0') {
            WCHAR x = p[i + 1];
            if (x == 'x') Base = 16;
            else if (x == 'o') Base = 8;
            else if (x == 'b') Base = 2;
            if (Base != 10) i += 2;
        }
    }
    ULONG result = 0;
    for (; i < n; ++i) {
        WCHAR c = p[i];
        ULONG digit;
        if (c >= '0' && c <= '9') digit = c - '0';
        else if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
        else break;
        if (digit >= Base) break;
        result = result * Base + digit;
    }
    *Value = negative ? 0u - result : result;
    return STATUS_SUCCESS;
}
