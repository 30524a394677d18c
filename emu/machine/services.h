// What the machine calls in the other services.
#pragma once

#include <string>

#include "kernel.h"

namespace tervane::emu {

// Executive bookkeeping the machine finishes at shutdown.
void LookasideDrainAll();   // empties every lookaside list still initialised
void ResourceFreeAll();     // frees the host state of resources never deleted
void LockOrderReset();      // forgets the lock order of an earlier machine
void CmSetRegistryString(const std::u16string& key, const std::u16string& name, const std::u16string& value);

}  // namespace tervane::emu
