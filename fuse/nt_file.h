// The Nt* calls behind each POSIX request, as a Windows program makes them.
// Every function runs on a machine thread of the calling process.
#pragma once

#include <string>
#include <vector>

#include <nt/ntifs.h>

#include "posix_nt.h"

namespace tervane::fuse {

constexpr ULONG kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// NtCreateFile of NAME (an object name, "\??\C:\a"), case-insensitive,
// sharing everything (POSIX has no share modes). *INFORMATION gets the
// status block's information (FILE_CREATED ...) when given.
NTSTATUS OpenName(const std::u16string& name, ACCESS_MASK access, ULONG disposition, ULONG options,
                  HANDLE* handle, ULONG attributes = 0, ULONG_PTR* information = nullptr);

// The attributes, times and size of an open file.
NTSTATUS QueryAttributes(HANDLE handle, NtAttributes* attributes);
// Opens NAME for attributes only, queries them, closes.
NTSTATUS QueryAttributesByName(const std::u16string& name, NtAttributes* attributes);

// FileBasicInformation: times of 0 and attributes of 0 stay as they are.
NTSTATUS SetBasic(HANDLE handle, LARGE_INTEGER access, LARGE_INTEGER write, ULONG attributes);
NTSTATUS SetEndOfFile(HANDLE handle, int64_t size);
NTSTATUS SetDisposition(HANDLE handle);
// FileRenameInformation with TARGET as a full object name.
NTSTATUS Rename(HANDLE handle, const std::u16string& target, bool replace);

// Every entry of a directory listing, in the order returned.
struct DirectoryEntry {
    std::u16string name;
    ULONG attributes = 0;
};
NTSTATUS ListDirectory(HANDLE directory, std::vector<DirectoryEntry>* entries);

}  // namespace tervane::fuse
