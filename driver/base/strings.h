// Path buffers and bounded operations on counted wide strings. The bounded
// operations never write past a destination's capacity: what does not fit is
// cut and STATUS_BUFFER_OVERFLOW says so.
#pragma once

#include "platform/platform.h"

// A path buffer holds 1024 characters.
#define PATH_BUFFER_SIZE 2048
#define PATH_BUFFER_CHARS (PATH_BUFFER_SIZE / sizeof(WCHAR))

// Longest counted string the bounded operations accept, in characters.
#define MAX_COUNTED_STRING_CHARS 32767

// Depths of the two path pools.
#define GENERAL_PATH_POOL_DEPTH 256
#define FILTER_PATH_POOL_DEPTH 128

// The general path pool (AllocatePathBuffer/FreePathBuffer) and the filter
// path pool (filter-directory roots and mapped real paths).
extern NPAGED_LOOKASIDE_LIST g_GeneralPathPool;
extern NPAGED_LOOKASIDE_LIST g_FilterPathPool;

// Created once at start-up.
VOID InitGeneralPathPool();
VOID InitFilterPathPool();

// Takes a 2048-byte block for String (length 0, capacity 2048). FALSE for a
// null string or when no block could be had (the buffer is then null).
BOOLEAN AllocatePathBuffer(PUNICODE_STRING String);
// Gives String's block back to the general path pool; length and capacity 0.
VOID FreePathBuffer(PUNICODE_STRING String);

// Filter path pool blocks (2048 bytes).
PVOID AllocateFilterPathBlock();
VOID FreeFilterPathBlock(PVOID Block);

// 0 for a valid counted string of at most MaxChars characters, else
// STATUS_INVALID_PARAMETER.
NTSTATUS ValidateCountedString(PCUNICODE_STRING String, ULONG MaxChars);

NTSTATUS CopyCountedString(PUNICODE_STRING Destination, PCUNICODE_STRING Source);
NTSTATUS CopyStringToCounted(PUNICODE_STRING Destination, PCWSTR Source);
NTSTATUS AppendCountedString(PUNICODE_STRING Destination, PCUNICODE_STRING Source);
NTSTATUS AppendStringToCounted(PUNICODE_STRING Destination, PCWSTR Source);
NTSTATUS AppendStringToCountedN(PUNICODE_STRING Destination, PCWSTR Source, SIZE_T Count);
NTSTATUS FormatCountedString(PUNICODE_STRING Destination, PCWSTR Format, ...);
// Copies Source into Buffer (SizeInBytes) and always terminates it.
NTSTATUS CopyStringToBuffer(PWSTR Buffer, SIZE_T SizeInBytes, PCWSTR Source);

// ---- Path helpers ----

// TRUE for a drive path: letter, colon, backslash, rest.
BOOLEAN IsDrivePath(PCUNICODE_STRING Path);
// The characters of Path up to and including its last backslash; 0 when it
// has none.
ULONG PathPrefixChars(PCUNICODE_STRING Path);
