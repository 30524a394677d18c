// A machine with one volume over a fresh host directory, and short helpers
// around the Nt* file services for the file-system tests. Every test ends
// with the verifier's report: nothing may be left outstanding.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <emu/machine.h>
#include <nt/ntifs.h>

namespace fstest {

using namespace tervane::emu;

inline std::filesystem::path FreshDir(const std::string& tag) {
    static std::atomic<int> counter{0};
    auto dir = std::filesystem::temp_directory_path() /
               ("tervane-fs-" + std::to_string(getpid()) + "-" + tag + "-" + std::to_string(counter++));
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return dir;
}

inline void WriteHostFile(const std::filesystem::path& p, const std::string& text) {
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << text;
}

inline std::string ReadHostFile(const std::filesystem::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct OpenResult {
    NTSTATUS status;
    ULONG_PTR info;
    HANDLE handle;
};

class FsTest : public ::testing::Test {
public:
    void SetUp() override {
        host = FreshDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
        machine = std::make_unique<Machine>();
        ASSERT_EQ(machine->MountVolume('C', host.string()), STATUS_SUCCESS);
        process = machine->CreateProcess(100, "test.exe");
    }
    void TearDown() override {
        VerifierReport report = machine->Shutdown();
        EXPECT_TRUE(report.Clean()) << report.ToString();
        machine.reset();
        std::filesystem::remove_all(host);
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
    std::filesystem::path host;
    std::unique_ptr<Machine> machine;
    Process* process = nullptr;
};

}  // namespace fstest
