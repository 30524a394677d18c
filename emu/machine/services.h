// What the machine calls in the other services. The I/O manager is referenced
// weakly so that the machine works (with less) in a build that lacks it.
#pragma once

#include <string>

#include "kernel.h"

namespace tervane::emu {

void IoStartup() __attribute__((weak));
void IoShutdown() __attribute__((weak));
NTSTATUS IoLoadDriver(const std::u16string& name, PDRIVER_INITIALIZE entry, PDRIVER_OBJECT* driverObject)
    __attribute__((weak));
std::vector<std::string> IoDescribeFileObjects() __attribute__((weak));

// Executive bookkeeping the machine finishes at shutdown.
void LookasideDrainAll();   // empties every lookaside list still initialised
void ResourceFreeAll();     // frees the host state of resources never deleted
void CmSetRegistryString(const std::u16string& key, const std::u16string& name, const std::u16string& value);

}  // namespace tervane::emu
