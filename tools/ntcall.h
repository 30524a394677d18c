// Small helpers for calling the machine's Nt* services from the tool.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include <nt/ntifs.h>

namespace tervane::tool {

// A counted string that owns its characters.
class OwnedUnicode {
public:
    explicit OwnedUnicode(std::u16string text);
    OwnedUnicode(const OwnedUnicode&) = delete;
    OwnedUnicode& operator=(const OwnedUnicode&) = delete;
    PUNICODE_STRING get() { return &string_; }

private:
    std::u16string text_;
    UNICODE_STRING string_;
};

// True for "C:", "C:\..." and the like.
bool IsDrivePath(const std::string& path);

// The object name a process hands NtCreateFile for PATH: a drive path gets
// "\??\" in front; a path that starts with '\' and a relative one are kept.
// Throws ScriptError when the name does not fit a counted string.
std::u16string ObjectNameFor(const std::string& path);

// Makes CALL with a new event of the calling process as its Event
// argument and, when the service answers STATUS_PENDING (a handle opened
// without synchronous I/O), waits for that event, so that the caller's
// buffers and status block outlive the request. Returns the final status:
// the status block's once the request pended. An event of its own, not
// the handle: another request's completion signals the handle as well.
NTSTATUS CallAndWait(const std::function<NTSTATUS(HANDLE event)>& call, const IO_STATUS_BLOCK& iosb);

struct OpenRequest {
    std::string path;             // as the script wrote it
    std::optional<uint64_t> fileId;  // open by id instead of by name
    HANDLE related = nullptr;
    ACCESS_MASK access = GENERIC_READ | SYNCHRONIZE;
    ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    ULONG disposition = FILE_OPEN;
    ULONG options = FILE_SYNCHRONOUS_IO_NONALERT;
    ULONG attributes = 0;  // no attributes: the file system picks its default
};

// NtCreateFile as a program calls it (names case-insensitive).
NTSTATUS OpenFile(const OpenRequest& request, HANDLE* handle, IO_STATUS_BLOCK* iosb);

}  // namespace tervane::tool
