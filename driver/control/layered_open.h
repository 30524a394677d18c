// The layered open: every open the driver makes of its own maps its path into
// one filter directory (or takes a real path as it is) and marks the name with
// the bypass suffix. It sits beside the path mapping, below the file index,
// whose index files are opened through it.
#pragma once

#include "platform/platform.h"

// The bypass suffix: a name ending in it is passed down unfiltered (the
// create handler strips it). Every open the driver makes carries it while the
// filter directories are in force.
#define BYPASS_SUFFIX L"_??$"
#define BYPASS_SUFFIX_CHARS 4

// Opens or creates Path in the filter directory of the lowest flag of
// FilterMask (0: the path is real and used unchanged) with ZwCreateFile on
// "\??\" + real path (+ the bypass suffix). With CreateParents, a mask holding
// filter flag 1 and a creating disposition, the missing parent directories
// are made first. Returns ZwCreateFile's status, STATUS_UNSUCCESSFUL when no
// path buffer was had, STATUS_NOT_FOUND when the mask names no filter
// directory. *FileHandle is written only on success; the handle is a kernel handle.
NTSTATUS FiltCreateFile(ULONG FilterMask, BOOLEAN CreateParents, PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                        PUNICODE_STRING Path, BOOLEAN CaseSensitive, BOOLEAN ForceAccessCheck,
                        PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                        ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                        ULONG EaLength);

// FiltCreateFile as the driver's own opens make it: case-insensitive, no
// forced access check, no allocation size, attributes 0, no extended
// attributes, and a status block of its own.
NTSTATUS FiltOpenFile(ULONG FilterMask, BOOLEAN CreateParents, PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                      PCUNICODE_STRING Path, ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions);

// Opens or creates every ancestor directory of a real path (X:\a\b\name makes
// X:\a and X:\a\b; the last component is left to the caller). TRUE when all
// exist afterwards.
BOOLEAN CreateDirectoryRecursive(PCUNICODE_STRING RealPath);

// TRUE when the handle's object is a directory; FALSE for a file or when the
// query fails.
BOOLEAN IsDirectoryFile(HANDLE FileHandle);
