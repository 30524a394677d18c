// Pieces every driver fixture needs: the control protocol's input records,
// the controller's open of the control device, and log searches.
#pragma once

#include <emu/machine.h>

#include <cstdint>
#include <string>
#include <vector>

#include "core/tervane.h"

namespace tervane::test {

// One path slot per path, each cut to the slot size.
std::vector<uint8_t> Slots(const std::vector<std::u16string>& paths);
// A process record: the id, then the image name cut to its field.
std::vector<uint8_t> ProcessRecord(ULONG pid, const std::u16string& name);

// Opens the control device from CONTROLLER for reading and writing.
NTSTATUS OpenControlDevice(emu::Machine& machine, emu::Process* controller, HANDLE* handle);

// Occurrences of TEXT in the machine's debug log.
size_t CountInLog(const emu::Machine& machine, const std::string& text);

}  // namespace tervane::test
