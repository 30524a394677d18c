#include "test_harness.h"

#include <algorithm>
#include <cstring>

#include "control/control.h"
#include "control/filter_directory.h"

namespace tervane::test {

std::vector<uint8_t> Slots(const std::vector<std::u16string>& paths) {
    std::vector<uint8_t> buffer(paths.size() * PATH_SLOT_SIZE, 0);
    for (size_t i = 0; i < paths.size(); i++) {
        memcpy(buffer.data() + i * PATH_SLOT_SIZE, paths[i].data(),
               std::min<size_t>(paths[i].size() * 2, PATH_SLOT_SIZE));
    }
    return buffer;
}

std::vector<uint8_t> ProcessRecord(ULONG pid, const std::u16string& name) {
    std::vector<uint8_t> record(sizeof(TervaneProcessRecord), 0);
    memcpy(record.data(), &pid, 4);
    memcpy(record.data() + 4, name.data(), std::min<size_t>(name.size() * 2, 40));
    return record;
}

NTSTATUS OpenControlDevice(emu::Machine& machine, emu::Process* controller, HANDLE* handle) {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    machine.Run(controller, [&] {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, L"\\??\\Tervane");
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        IO_STATUS_BLOCK iosb;
        status = NtCreateFile(handle, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &oa, &iosb, nullptr, 0, 0,
                              FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    });
    return status;
}

size_t CountInLog(const emu::Machine& machine, const std::string& text) {
    size_t n = 0;
    for (const auto& line : machine.LogLines()) {
        for (size_t pos = line.find(text); pos != std::string::npos; pos = line.find(text, pos + 1)) n++;
    }
    return n;
}

}  // namespace tervane::test
