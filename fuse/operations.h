// The FUSE operations of the mount: each request runs on a machine thread
// of its caller's process (or, for a request on an open file, of the process
// that opened it, which holds the handle) and makes the Nt* calls a Windows
// program would make, so that the driver decides what the caller sees.
#pragma once

#define FUSE_USE_VERSION 314
#include <fuse3/fuse.h>

#include <emu/machine.h>

#include "posix_nt.h"
#include "process_registry.h"

namespace tervane::fuse {

struct MountState {
    emu::Machine* machine = nullptr;
    ProcessRegistry* registry = nullptr;
    char drive = 'C';
    Ownership owner;
};

// The operations; their private data is a MountState.
const fuse_operations& Operations();

}  // namespace tervane::fuse
