// What the machine exports to driver images: the routines and variables of
// ntoskrnl.exe and hal.dll it implements, each with the calling convention
// an x86 driver uses for it.
#pragma once

#include <string_view>

namespace tervane::emu::ldr {

enum class Convention { Stdcall, Fastcall, Cdecl, Data };

struct MachineExport {
    const char* module;       // "ntoskrnl.exe", "hal.dll"
    const char* name;
    Convention convention;
    const void* address;      // an entry point of that convention, or the variable
};

// MODULE!NAME (module names compare without case), or null.
const MachineExport* FindMachineExport(std::string_view module, std::string_view name);
bool MachineProvidesModule(std::string_view module);

}  // namespace tervane::emu::ldr
