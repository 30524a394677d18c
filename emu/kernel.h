// Internal interfaces between the emulator's services. Not visible to the
// driver; host code uses emu/machine.h.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include <emu/machine.h>
#include <nt/ntifs.h>

namespace tervane::emu {

class HandleTable;     // ob/handle_table.h
class ObjectManager;   // ob/
class IoManager;       // io/
class Registry;        // cm/
class PoolTracker;     // ex/pool
class DebugLog;        // dbg/
class FileSystem;      // fs/

// Size of a process object; the image name lives inside its first 12288 bytes.
constexpr size_t kProcessObjectSize = 0x3000;
constexpr size_t kImageNameOffset = 0x174;  // as on NT 5.1 x86
constexpr size_t kImageNameLength = 16;

}  // namespace tervane::emu

// The process object. Driver code sees only a PEPROCESS and may scan its bytes
// (image-name discovery), so the body is a plain block of kProcessObjectSize
// bytes whose image name sits at kImageNameOffset; the emulator's own fields
// follow in a side record.
struct _EPROCESS {
    unsigned char Body[tervane::emu::kProcessObjectSize];
    // Emulator-private part (outside the first 12288 bytes).
    uint32_t UniqueProcessId;
    tervane::emu::HandleTable* Handles;
    tervane::emu::Machine* Owner;
    std::atomic<int> ThreadCount;
};

// A thread object: a real host thread bound to a process.
struct _KTHREAD {
    _EPROCESS* Process;
    uint32_t UniqueThreadId;
    int CriticalRegionDepth;   // KeEnterCriticalRegion nesting
    bool Alerted;
    KPROCESSOR_MODE PreviousMode;  // UserMode inside Nt* called by a process thread
    void* WaitBlock;           // ke/ private
};
struct _ETHREAD {
    _KTHREAD Tcb;
};

namespace tervane::emu {

// The current thread of the calling host thread; null when the host thread
// is not bound to the machine (then kernel services refuse to run).
_ETHREAD* CurrentThread();
_EPROCESS* CurrentProcess();
void BindCurrentThread(_ETHREAD* thread);  // null unbinds

// The live machine's internals.
Machine::Impl& CurrentMachine();

// Misuse seen by the verifier ("IRP completed twice", ...): recorded in the
// report and written to the debug log.
void VerifierViolation(const std::string& what);

}  // namespace tervane::emu
