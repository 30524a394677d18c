// Names of NT status values, for messages: the machine's, the tool's and
// the Windows tools' (which include this header alone; emu/machine.h
// declares the same two functions for the machine's users).
#pragma once

#include <cstdint>
#include <string>

namespace tervane::emu {

std::string StatusName(int32_t status);  // "STATUS_SUCCESS", or "0x..." when unknown
bool StatusFromName(const std::string& name, int32_t* status);

}  // namespace tervane::emu
