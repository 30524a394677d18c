// The control protocol's input records as a controller builds them: one path
// slot per path, each cut to the slot size, and a process record (the id,
// then the image name cut to its field). Shared by the driver tests and the
// fuzzers; the header names no driver header, so that it may come before
// the standard ones.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tervane::test {

std::vector<uint8_t> Slots(const std::vector<std::u16string>& paths);
std::vector<uint8_t> ProcessRecord(uint32_t pid, const std::u16string& name);

}  // namespace tervane::test
