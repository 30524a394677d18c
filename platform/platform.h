// The one include through which driver code reaches kernel services. On
// Linux it maps to the emulated machine's NT headers; for 32-bit Windows to
// the DDK's <ntifs.h>.
#pragma once

#if defined(_WIN32)

#include <ntifs.h>

// The import library names NtBuildNumber as if it were a function; take the
// exported variable through its import slot instead.
extern "C" ULONG* TervaneImportedNtBuildNumber __asm__("__imp__NtBuildNumber@0");
#define NtBuildNumber (*TervaneImportedNtBuildNumber)

// ntoskrnl exports the bounded wide formatter; the DDK headers do not declare it.
#include <stdarg.h>
extern "C" int __cdecl _vsnwprintf(wchar_t* Buffer, size_t Count, const wchar_t* Format, va_list Args);

#else

#include <nt/ntifs.h>

// ntoskrnl's C run-time names, routed to the emulator's 16-bit versions.
#define wcslen EmuCrt_wcslen
#define wcscpy EmuCrt_wcscpy
#define wcsncpy EmuCrt_wcsncpy
#define wcschr EmuCrt_wcschr
#define wcsrchr EmuCrt_wcsrchr
#define wcscmp EmuCrt_wcscmp
#define wcsncmp EmuCrt_wcsncmp

#endif

static_assert(sizeof(WCHAR) == 2, "WCHAR must be 16 bits wide");
