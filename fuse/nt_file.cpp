// The Nt* calls behind each POSIX request.
#include "nt_file.h"

#include <cstring>

#include <emu/machine.h>

namespace tervane::fuse {

NTSTATUS OpenName(const std::u16string& name, ACCESS_MASK access, ULONG disposition, ULONG options,
                  HANDLE* handle, ULONG attributes, ULONG_PTR* information) {
    UNICODE_STRING object = emu::MakeUnicodeString(name);
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &object, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = NtCreateFile(handle, access | SYNCHRONIZE, &oa, &iosb, nullptr, attributes, kShareAll,
                                   disposition, options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    if (information) *information = iosb.Information;
    return status;
}

NTSTATUS QueryAttributes(HANDLE handle, NtAttributes* a) {
    FILE_NETWORK_OPEN_INFORMATION info{};
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = NtQueryInformationFile(handle, &iosb, &info, sizeof info, FileNetworkOpenInformation);
    if (!NT_SUCCESS(status)) return status;
    a->creation = info.CreationTime;
    a->access = info.LastAccessTime;
    a->write = info.LastWriteTime;
    a->change = info.ChangeTime;
    a->size = info.EndOfFile.QuadPart;
    a->allocation = info.AllocationSize.QuadPart;
    a->attributes = info.FileAttributes;
    return status;
}

NTSTATUS QueryAttributesByName(const std::u16string& name, NtAttributes* a) {
    HANDLE handle = nullptr;
    NTSTATUS status = OpenName(name, FILE_READ_ATTRIBUTES, FILE_OPEN, 0, &handle);
    if (!NT_SUCCESS(status)) return status;
    status = QueryAttributes(handle, a);
    NtClose(handle);
    return status;
}

NTSTATUS SetBasic(HANDLE handle, LARGE_INTEGER access, LARGE_INTEGER write, ULONG attributes) {
    FILE_BASIC_INFORMATION info{};
    info.LastAccessTime = access;
    info.LastWriteTime = write;
    info.FileAttributes = attributes;
    IO_STATUS_BLOCK iosb{};
    return NtSetInformationFile(handle, &iosb, &info, sizeof info, FileBasicInformation);
}

NTSTATUS SetEndOfFile(HANDLE handle, int64_t size) {
    FILE_END_OF_FILE_INFORMATION info{};
    info.EndOfFile.QuadPart = size;
    IO_STATUS_BLOCK iosb{};
    return NtSetInformationFile(handle, &iosb, &info, sizeof info, FileEndOfFileInformation);
}

NTSTATUS SetDisposition(HANDLE handle) {
    FILE_DISPOSITION_INFORMATION info{TRUE};
    IO_STATUS_BLOCK iosb{};
    return NtSetInformationFile(handle, &iosb, &info, sizeof info, FileDispositionInformation);
}

NTSTATUS Rename(HANDLE handle, const std::u16string& target, bool replace) {
    std::vector<uint8_t> buffer(FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + target.size() * sizeof(WCHAR));
    auto* info = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer.data());
    info->ReplaceIfExists = replace;
    info->RootDirectory = nullptr;
    info->FileNameLength = static_cast<ULONG>(target.size() * sizeof(WCHAR));
    std::memcpy(info->FileName, target.data(), info->FileNameLength);
    IO_STATUS_BLOCK iosb{};
    return NtSetInformationFile(handle, &iosb, info, static_cast<ULONG>(buffer.size()), FileRenameInformation);
}

NTSTATUS ListDirectory(HANDLE directory, std::vector<DirectoryEntry>* entries) {
    std::vector<uint8_t> buffer(64 * 1024);
    bool restart = true;
    for (;;) {
        IO_STATUS_BLOCK iosb{};
        NTSTATUS status = NtQueryDirectoryFile(directory, nullptr, nullptr, nullptr, &iosb, buffer.data(),
                                               static_cast<ULONG>(buffer.size()), FileDirectoryInformation, FALSE,
                                               nullptr, restart);
        restart = false;
        if (status == STATUS_NO_MORE_FILES) return STATUS_SUCCESS;
        if (!NT_SUCCESS(status)) return status;
        size_t at = 0;
        for (;;) {
            auto* e = reinterpret_cast<FILE_DIRECTORY_INFORMATION*>(buffer.data() + at);
            DirectoryEntry entry;
            entry.name.assign(reinterpret_cast<const char16_t*>(e->FileName), e->FileNameLength / sizeof(WCHAR));
            entry.attributes = e->FileAttributes;
            entries->push_back(std::move(entry));
            if (!e->NextEntryOffset) break;
            at += e->NextEntryOffset;
        }
    }
}

}  // namespace tervane::fuse
