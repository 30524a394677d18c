// Run-time library: counted strings, conversions, formatters, assertions.
#pragma once
#include <stdarg.h>
#include "ntdef.h"

NT_BEGIN_C
VOID RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
VOID RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString);
VOID RtlInitString(PSTRING DestinationString, PCSZ SourceString);
VOID RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString);
NTSTATUS RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source);
NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source);
LONG RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive);
BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive);
BOOLEAN RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive);
NTSTATUS RtlUpcaseUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString,
                                BOOLEAN AllocateDestinationString);
NTSTATUS RtlDowncaseUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString,
                                  BOOLEAN AllocateDestinationString);
WCHAR RtlUpcaseUnicodeChar(WCHAR SourceCharacter);
WCHAR RtlDowncaseUnicodeChar(WCHAR SourceCharacter);
NTSTATUS RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PCANSI_STRING SourceString,
                                      BOOLEAN AllocateDestinationString);
NTSTATUS RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString,
                                      BOOLEAN AllocateDestinationString);
VOID RtlFreeUnicodeString(PUNICODE_STRING UnicodeString);
VOID RtlFreeAnsiString(PANSI_STRING AnsiString);
NTSTATUS RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String);
NTSTATUS RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value);
VOID RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PCHAR Message);
SIZE_T RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length);
VOID RtlMapGenericMask(PACCESS_MASK AccessMask, PGENERIC_MAPPING GenericMapping);
ULONG RtlLengthSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor);

// The C run-time routines that ntoskrnl exports. Wide variants take 16-bit
// characters; the emulator implements them itself (never the host C library,
// whose wchar_t is 32 bits wide).
int _vsnwprintf(WCHAR* Buffer, size_t Count, const WCHAR* Format, va_list Args);
int _snwprintf(WCHAR* Buffer, size_t Count, const WCHAR* Format, ...);
int _vsnprintf(char* Buffer, size_t Count, const char* Format, va_list Args);
int _snprintf(char* Buffer, size_t Count, const char* Format, ...);
// Names that the host C library also defines are renamed so that the host's
// own (32-bit wchar_t) versions are never interposed.
size_t EmuCrt_wcslen(const WCHAR* String);
int _wcsicmp(const WCHAR* String1, const WCHAR* String2);
int _wcsnicmp(const WCHAR* String1, const WCHAR* String2, size_t Count);
WCHAR* EmuCrt_wcscpy(WCHAR* Destination, const WCHAR* Source);
WCHAR* EmuCrt_wcsncpy(WCHAR* Destination, const WCHAR* Source, size_t Count);
WCHAR* EmuCrt_wcschr(const WCHAR* String, WCHAR Character);
WCHAR* EmuCrt_wcsrchr(const WCHAR* String, WCHAR Character);
int EmuCrt_wcscmp(const WCHAR* String1, const WCHAR* String2);
int EmuCrt_wcsncmp(const WCHAR* String1, const WCHAR* String2, size_t Count);
NT_END_C

#define RtlCopyMemory(Destination, Source, Length) memcpy((Destination), (Source), (Length))
#define RtlMoveMemory(Destination, Source, Length) memmove((Destination), (Source), (Length))
#define RtlFillMemory(Destination, Length, Fill) memset((Destination), (Fill), (Length))
#define RtlZeroMemory(Destination, Length) memset((Destination), 0, (Length))
#define RtlEqualMemory(Destination, Source, Length) (!memcmp((Destination), (Source), (Length)))
