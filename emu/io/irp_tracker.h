// The verifier's record in front of every packet the I/O manager allocates.
#pragma once

#include "io/io_internal.h"

namespace tervane::emu {

constexpr uint32_t kIrpLiveMagic = 0x50524921;  // "!IRP"
constexpr uint32_t kIrpFreeMagic = 0x45455246;  // "FREE"

struct IrpTracker {
    uint32_t magic;
    std::atomic<bool> dispatched;  // sent with IofCallDriver, completion not begun
    IrpTracker* nextFree;          // lookaside link while free
    _ETHREAD* thread;              // the requesting thread a service packet references
};
constexpr size_t kIrpTrackerSize = (sizeof(IrpTracker) + 15) & ~size_t(15);

// The tracker of IRP, or null for a packet in the caller's own memory.
IrpTracker* IopTracker(PIRP irp);

}  // namespace tervane::emu
