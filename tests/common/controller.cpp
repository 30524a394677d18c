#include "common/controller.h"

#include <algorithm>
#include <cstring>

// Standard headers come first: the driver's platform include renames a few
// wide-character routines of the C library.
#include "control/control.h"
#include "control/filter_directory.h"

namespace tervane::test {

NTSTATUS OpenControlDevice(HANDLE* handle) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\??\\Tervane");
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb;
    return NtCreateFile(handle, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &oa, &iosb, nullptr, 0, 0, FILE_OPEN,
                        FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
}

std::vector<uint8_t> Slots(const std::vector<std::u16string>& paths) {
    std::vector<uint8_t> buffer(paths.size() * PATH_SLOT_SIZE, 0);
    for (size_t i = 0; i < paths.size(); i++)
        memcpy(buffer.data() + i * PATH_SLOT_SIZE, paths[i].data(),
               std::min<size_t>(paths[i].size() * 2, PATH_SLOT_SIZE));
    return buffer;
}

std::vector<uint8_t> ProcessRecord(uint32_t pid, const std::u16string& name) {
    std::vector<uint8_t> record(sizeof(TervaneProcessRecord), 0);
    const ULONG id = pid;
    memcpy(record.data() + FIELD_OFFSET(TervaneProcessRecord, m_ulProcessId), &id, sizeof id);
    const size_t nameAt = FIELD_OFFSET(TervaneProcessRecord, m_wszName);
    memcpy(record.data() + nameAt, name.data(), std::min<size_t>(name.size() * 2, record.size() - nameAt));
    return record;
}

}  // namespace tervane::test
