// What a controller does, shared by the driver tests and the fuzzers: it
// opens the control device and builds the protocol's input records, one
// path slot per path, each cut to the slot size, and a process record (the
// id, then the image name cut to its field). The header names no driver
// header, so that it may come before the standard ones.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nt/ntifs.h>

namespace tervane::test {

// NtCreateFile of the control device's link, on the calling machine thread.
NTSTATUS OpenControlDevice(HANDLE* handle);

std::vector<uint8_t> Slots(const std::vector<std::u16string>& paths);
std::vector<uint8_t> ProcessRecord(uint32_t pid, const std::u16string& name);

}  // namespace tervane::test
