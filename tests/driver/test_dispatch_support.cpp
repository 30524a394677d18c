#include "test_dispatch_support.h"

#include <algorithm>
#include <cstring>

#include "control/control.h"
#include "control/filter_directory.h"
#include "core/tervane.h"
#include "filemgr/file_handle_table.h"
#include "indexfile/indexfile.h"

namespace tervane::test {

void DispatchTest::SetUp() {
    TervaneTest::SetUp();
    for (const char* dir : {kPack, kMid, kBase, "ctl"}) HostDir(dir);
    ASSERT_EQ(MountHost(), STATUS_SUCCESS);
    ASSERT_EQ(LoadTervane(), STATUS_SUCCESS);
    app = machine->CreateProcess(1234, "app.exe");
    other = machine->CreateProcess(77, "other.exe");
}

void DispatchTest::BeforeShutdown() {
    machine->TerminateProcess(app);
    machine->TerminateProcess(other);
    TervaneTest::BeforeShutdown();
}

void DispatchTest::Configure() {
    indexfile::IndexFiles files;
    std::string error;
    ASSERT_TRUE(indexfile::BuildIndex(host / kBase, &files, &error)) << error;
    ASSERT_TRUE(indexfile::WriteIndexFiles(files, host / "ctl" / "base.node", host / "ctl" / "base.name", &error))
        << error;

    ASSERT_EQ(Control(IOCTL_SET_FILTER_LIST,
                      Slots({u"C:\\layers\\pack", u"C:\\layers\\mid", u"C:\\layers\\base"})).status,
              STATUS_SUCCESS);
    ASSERT_EQ(Control(IOCTL_LOAD_FILTER_INDEX, Slots({u"C:\\ctl\\base.node", u"C:\\ctl\\base.name"})).status,
              STATUS_SUCCESS);
    ASSERT_EQ(Control(IOCTL_ADD_PROCESS, ProcessRecord(1234, u"app.exe")).status, STATUS_SUCCESS);
    ASSERT_EQ(Control(IOCTL_START_FILTERING, {}, 1).status, STATUS_SUCCESS);
}

OpenResult DispatchTest::Open(emu::Process* process, const std::u16string& path, ACCESS_MASK access,
                              ULONG disposition, ULONG options, ULONG share, HANDLE related) {
    OpenResult result;
    std::u16string name = related != nullptr ? path : u"\\??\\" + path;
    machine->Run(process, [&] {
        UNICODE_STRING us = emu::MakeUnicodeString(name);
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &us, OBJ_CASE_INSENSITIVE, related, nullptr);
        IO_STATUS_BLOCK iosb = {};
        result.status = NtCreateFile(&result.handle, access, &oa, &iosb, nullptr, FILE_ATTRIBUTE_NORMAL, share,
                                     disposition, options, nullptr, 0);
        result.information = iosb.Information;
    });
    return result;
}

void DispatchTest::Close(emu::Process* process, HANDLE handle) {
    machine->Run(process, [&] { EXPECT_EQ(NtClose(handle), STATUS_SUCCESS); });
}

NTSTATUS DispatchTest::Read(emu::Process* process, HANDLE handle, std::string* data, ULONG length, LONGLONG offset) {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    machine->Run(process, [&] {
        std::string buffer(length, '\0');
        IO_STATUS_BLOCK iosb = {};
        LARGE_INTEGER at;
        at.QuadPart = offset;
        status = NtReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer.data(), length,
                            offset < 0 ? nullptr : &at, nullptr);
        buffer.resize(NT_SUCCESS(status) ? iosb.Information : 0);
        *data = buffer;
    });
    return status;
}

NTSTATUS DispatchTest::Write(emu::Process* process, HANDLE handle, const std::string& data, LONGLONG offset) {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    machine->Run(process, [&] {
        std::string buffer = data;
        IO_STATUS_BLOCK iosb = {};
        LARGE_INTEGER at;
        at.QuadPart = offset;
        if (offset == kEndOfFile) {
            at.HighPart = -1;
            at.LowPart = FILE_WRITE_TO_END_OF_FILE;
        }
        status = NtWriteFile(handle, nullptr, nullptr, nullptr, &iosb, buffer.data(), ULONG(buffer.size()),
                             offset == -1 ? nullptr : &at, nullptr);
    });
    return status;
}

std::string DispatchTest::Cat(emu::Process* process, const std::u16string& path) {
    OpenResult open = Open(process, path);
    if (!NT_SUCCESS(open.status)) return "<" + emu::StatusName(open.status) + ">";
    std::string all, chunk;
    while (NT_SUCCESS(Read(process, open.handle, &chunk, 4096)) && !chunk.empty()) all += chunk;
    Close(process, open.handle);
    return all;
}

std::vector<std::string> DispatchTest::List(emu::Process* process, const std::u16string& dir) {
    std::vector<std::string> names;
    OpenResult open = Open(process, dir, FILE_LIST_DIRECTORY | SYNCHRONIZE, FILE_OPEN,
                           FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    if (!NT_SUCCESS(open.status)) return {"<" + emu::StatusName(open.status) + ">"};
    machine->Run(process, [&] {
        std::vector<uint8_t> buffer(4096);
        for (BOOLEAN restart = TRUE;; restart = FALSE) {
            IO_STATUS_BLOCK iosb = {};
            NTSTATUS status = NtQueryDirectoryFile(open.handle, nullptr, nullptr, nullptr, &iosb, buffer.data(),
                                                   ULONG(buffer.size()), FileNamesInformation, FALSE, nullptr, restart);
            if (!NT_SUCCESS(status)) break;
            for (size_t offset = 0;;) {
                auto* info = reinterpret_cast<PFILE_NAMES_INFORMATION>(buffer.data() + offset);
                std::u16string name(reinterpret_cast<const char16_t*>(info->FileName), info->FileNameLength / 2);
                names.push_back(emu::Utf16ToUtf8(name));
                if (info->NextEntryOffset == 0) break;
                offset += info->NextEntryOffset;
            }
        }
    });
    Close(process, open.handle);
    std::sort(names.begin(), names.end());
    return names;
}

ULONG DispatchTest::FilterFlagOf(HANDLE handle) {
    ULONG flag = 0;
    App([&] {
        PFILE_OBJECT fileObject = nullptr;
        ASSERT_EQ(ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, (PVOID*)&fileObject, nullptr),
                  STATUS_SUCCESS);
        PFileHandleEntry entry = FindFileHandleEntry(fileObject);
        flag = entry != nullptr ? entry->m_ulFilterEntryFlag : 0;
        ObDereferenceObject(fileObject);
    });
    return flag;
}

}  // namespace tervane::test
