// The file-system fixture: the machine fixture with its host tree on C: and a
// test process, and short helpers around the Nt* file services.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <nt/ntifs.h>

#include "common/machine_test.h"

namespace tervane::test {

using namespace tervane::emu;

class FsTest : public MachineTest {
public:
    void SetUp() override {
        MachineTest::SetUp();
        ASSERT_EQ(MountHost(), STATUS_SUCCESS);
        process = machine->CreateProcess(100, "test.exe");
    }
    // Runs FN on a thread of the test process.
    void Run(const std::function<void()>& fn) { machine->Run(process, fn); }

    static std::u16string U(const std::string& s) { return Utf8ToUtf16(s); }

    // NtCreateFile of "\??\C:" + PATH (or PATH relative to ROOT).
    static OpenResult Open(const std::u16string& path, ACCESS_MASK access = GENERIC_READ | SYNCHRONIZE,
                           ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                           ULONG disposition = FILE_OPEN, ULONG options = FILE_SYNCHRONOUS_IO_NONALERT,
                           ULONG attributes = 0, HANDLE root = nullptr) {
        std::u16string full = root ? path : u"\\??\\C:" + path;
        UNICODE_STRING name = MakeUnicodeString(full);
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE, root, nullptr);
        IO_STATUS_BLOCK iosb{};
        iosb.Information = 0xdead;
        HANDLE h = nullptr;
        NTSTATUS status = NtCreateFile(&h, access, &oa, &iosb, nullptr, attributes, share, disposition, options, nullptr, 0);
        return {status, iosb.Information, h};
    }
    static OpenResult Create(const std::u16string& path, ULONG options = FILE_SYNCHRONOUS_IO_NONALERT,
                             ACCESS_MASK access = GENERIC_READ | GENERIC_WRITE | DELETE | SYNCHRONIZE, ULONG attributes = 0) {
        return Open(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_CREATE, options, attributes);
    }
    static NTSTATUS Close(HANDLE h) { return NtClose(h); }

    static NTSTATUS Write(HANDLE h, const std::string& data, LONGLONG offset, ULONG_PTR* written = nullptr) {
        IO_STATUS_BLOCK iosb{};
        LARGE_INTEGER off;
        off.QuadPart = offset;
        NTSTATUS s = NtWriteFile(h, nullptr, nullptr, nullptr, &iosb, const_cast<char*>(data.data()),
                                 static_cast<ULONG>(data.size()), offset == kNoOffset ? nullptr : &off, nullptr);
        if (written) *written = iosb.Information;
        return s;
    }
    static NTSTATUS Read(HANDLE h, std::string* out, ULONG length, LONGLONG offset) {
        IO_STATUS_BLOCK iosb{};
        LARGE_INTEGER off;
        off.QuadPart = offset;
        out->assign(length, '\0');
        NTSTATUS s = NtReadFile(h, nullptr, nullptr, nullptr, &iosb, out->data(), length,
                                offset == kNoOffset ? nullptr : &off, nullptr);
        out->resize(NT_SUCCESS(s) ? iosb.Information : 0);
        return s;
    }
    static NTSTATUS Query(HANDLE h, FILE_INFORMATION_CLASS cls, void* buf, ULONG length, ULONG_PTR* info = nullptr) {
        IO_STATUS_BLOCK iosb{};
        NTSTATUS s = NtQueryInformationFile(h, &iosb, buf, length, cls);
        if (info) *info = iosb.Information;
        return s;
    }
    static NTSTATUS Set(HANDLE h, FILE_INFORMATION_CLASS cls, void* buf, ULONG length) {
        IO_STATUS_BLOCK iosb{};
        return NtSetInformationFile(h, &iosb, buf, length, cls);
    }
    static NTSTATUS SetDelete(HANDLE h, bool del) {
        FILE_DISPOSITION_INFORMATION d{static_cast<BOOLEAN>(del)};
        return Set(h, FileDispositionInformation, &d, sizeof d);
    }
    static ULONG Attributes(HANDLE h) {
        FILE_BASIC_INFORMATION b{};
        Query(h, FileBasicInformation, &b, sizeof b);
        return b.FileAttributes;
    }
    // Renames H to NAME (a full "\??\..." name, or relative to ROOT / the
    // file's own directory).
    static NTSTATUS Rename(HANDLE h, const std::u16string& name, bool replace, HANDLE root = nullptr) {
        std::vector<uint8_t> buf(sizeof(FILE_RENAME_INFORMATION) + name.size() * 2);
        auto* ri = reinterpret_cast<FILE_RENAME_INFORMATION*>(buf.data());
        ri->ReplaceIfExists = replace;
        ri->RootDirectory = root;
        ri->FileNameLength = static_cast<ULONG>(name.size() * 2);
        memcpy(ri->FileName, name.data(), name.size() * 2);
        return Set(h, FileRenameInformation, ri, static_cast<ULONG>(buf.size()));
    }

    // Every name of one full listing of directory H (FileNamesInformation).
    static std::vector<std::string> List(HANDLE h, const std::u16string& pattern = u"", NTSTATUS* first = nullptr) {
        std::vector<std::string> names;
        std::vector<uint8_t> buf(512);
        bool restart = true;
        for (;;) {
            IO_STATUS_BLOCK iosb{};
            UNICODE_STRING p = MakeUnicodeString(pattern);
            NTSTATUS s = NtQueryDirectoryFile(h, nullptr, nullptr, nullptr, &iosb, buf.data(), static_cast<ULONG>(buf.size()),
                                              FileNamesInformation, FALSE, pattern.empty() ? nullptr : &p, restart);
            if (restart && first) *first = s;
            restart = false;
            if (!NT_SUCCESS(s)) break;
            for (size_t at = 0;;) {
                auto* r = reinterpret_cast<FILE_NAMES_INFORMATION*>(buf.data() + at);
                names.push_back(Utf16ToUtf8(std::u16string(reinterpret_cast<char16_t*>(r->FileName), r->FileNameLength / 2)));
                if (!r->NextEntryOffset) break;
                at += r->NextEntryOffset;
            }
        }
        return names;
    }

    static constexpr LONGLONG kNoOffset = -100;
    Process* process = nullptr;
};

}  // namespace tervane::test
