// The host API of the emulated NT machine. Tests and the tervane command use
// only this and the Nt* services.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <nt/ntifs.h>

namespace tervane::emu {

class Process;  // an EPROCESS of the machine (opaque to users)

// Pool usage of one tag, like a poolmon line.
struct PoolTagUsage {
    std::string tag;  // four characters as they read in memory order
    uint64_t allocs = 0;
    uint64_t frees = 0;
    uint64_t outstandingBlocks = 0;
    uint64_t outstandingBytes = 0;
};

// What the verifier found at shutdown (or at any time through Snapshot()).
struct VerifierReport {
    std::vector<PoolTagUsage> pool;       // tags with outstanding blocks only
    std::vector<std::string> handles;     // one line per handle still open: "pid handle type name"
    std::vector<std::string> fileObjects; // one line per file object still referenced
    std::vector<std::string> views;       // one line per section view still mapped
    std::vector<std::string> violations;  // misuse seen during the run, in order
    // What drivers loaded from an image without an unload routine still hold
    // (their devices, pool and views): kept for the life of the system, not
    // leaked, and so not part of Clean().
    std::vector<std::string> kept;
    bool Clean() const {
        return pool.empty() && handles.empty() && fileObjects.empty() && views.empty() && violations.empty();
    }
    std::string ToString() const;
};

// One allocation refused by fault injection, as the observer hears of it (on
// the thread that asked for the memory).
struct FaultInjected {
    uint64_t serial = 0;     // the allocation's number since the machine started, from 1
    uint64_t tagSerial = 0;  // its number among the allocations with its tag
    std::string tag;
};

struct MachineOptions {
    bool echoLog = false;           // also write every DbgPrint to stderr
    size_t logCapacity = 16u << 20; // bytes of recent debug output kept; older lines are dropped
    uint16_t buildNumber = 2600;    // NtBuildNumber low word
};

class Machine {
public:
    explicit Machine(MachineOptions options = {});
    ~Machine();  // shuts down if Shutdown was not called
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // The one machine alive in this host process, or nullptr.
    static Machine* Current();

    // Volumes. MountVolume creates the volume device of the emulated file
    // system over HOSTDIR (made if missing) and links "\??\X:" to it.
    NTSTATUS MountVolume(char letter, const std::string& hostDir);
    // Gives the volume of EXISTING a second drive letter.
    NTSTATUS AliasVolume(char letter, char existing);
    // Links "\??\X:" to an arbitrary device name (tests with their own devices).
    NTSTATUS LinkDrive(char letter, const std::u16string& deviceName);

    // Registry: sets a REG_SZ value, creating the key path as needed. KEY is
    // a full name such as "\\Registry\\Machine\\SOFTWARE\\...".
    void SetRegistryString(const std::string& key, const std::string& name, const std::string& value);
    void SetBuildNumber(uint16_t build);

    // Processes. The System process (id 4, image "System") always exists.
    Process* CreateProcess(uint32_t pid, const std::string& imageName);
    Process* SystemProcess();
    Process* FindProcess(uint32_t pid);
    // Ends a process: closes its handle table (cleanup/close as NT does).
    void TerminateProcess(Process* process);

    // Runs FN on a thread of PROCESS and waits for it. Kernel services called
    // inside see that process as current.
    void Run(Process* process, const std::function<void()>& fn);
    // Starts FN on a new thread of PROCESS; Join() waits for it.
    class Thread {
    public:
        ~Thread();
        void Join();
        struct Impl;
        std::unique_ptr<Impl> impl;
    };
    std::unique_ptr<Thread> StartThread(Process* process, const std::function<void()>& fn);
    // Runs FN on the calling host thread, bound for that call to a new
    // thread of PROCESS (a front end whose own workers serve many
    // processes, such as the FUSE mount). Rethrows what FN threw.
    void RunOnCallingThread(Process* process, const std::function<void()>& fn);

    // Loads a driver: creates its driver object "\Driver\NAME" and calls
    // ENTRY in the System process. Returns DriverEntry's status.
    NTSTATUS LoadDriver(const std::u16string& name, PDRIVER_INITIALIZE entry, PDRIVER_OBJECT* driverObject = nullptr);

    // Loads a driver image file (a 32-bit x86 PE built for NT) as
    // "\Driver\NAME": maps its sections, applies its base relocations, binds
    // its imports by name to the machine's routines, and runs its DriverEntry
    // in the System process. A file the machine cannot load is refused with a
    // status and a reason, and leaves the machine as it was. Images run on
    // the 32-bit machine only (scripts/build-32.sh).
    struct ImageLoad {
        NTSTATUS status = STATUS_SUCCESS;  // DriverEntry's status, or the refusal's
        std::string refusal;               // why the image was refused; empty when it ran
        PDRIVER_OBJECT driverObject = nullptr;
    };
    ImageLoad LoadDriverImage(const std::string& path, const std::u16string& name);

    // Kernel debug log: every DbgPrint line and assertion report, in order,
    // as far as the log still keeps them (the most recent logCapacity bytes).
    std::vector<std::string> LogLines() const;
    // The log text since the previous call to TakeNewLog (what is still kept).
    std::string TakeNewLog();
    // Lines dropped from the log to keep it within MachineOptions::logCapacity.
    uint64_t DroppedLogLines() const;

    // Verifier.
    std::vector<PoolTagUsage> PoolUsage() const;  // every tag ever used
    VerifierReport Snapshot() const;              // what is outstanding now
    // Fault injection. Allocations are pool blocks and lookaside entries,
    // counted from the machine's start, refused ones included.
    // FailNthAllocation: fail the Nth allocation from now (1 = the next), or
    // with TAG the Nth allocation with that tag. FailAllocationsWithTag:
    // fail every allocation with TAG (4 characters) after the first SKIP of
    // them from now. Clear removes both.
    void FailNthAllocation(uint64_t n, const std::string& tag = "");
    void FailAllocationsWithTag(const std::string& tag, uint64_t skip = 0);
    void ClearFaultInjection();
    uint64_t AllocationCount() const;
    uint64_t AllocationCount(const std::string& tag) const;
    // Hears of every refused allocation; an empty function stops it.
    void SetFaultObserver(std::function<void(const FaultInjected&)> observer);
    std::vector<std::string> HandleLines(uint32_t pid = 0) const;  // 0 = every process

    // Closes every process's handles, dismounts volumes, and reports.
    VerifierReport Shutdown();

    struct Impl;
    Impl& impl() { return *impl_; }

private:
    std::unique_ptr<Impl> impl_;
};

// Text helpers for host code (the machine's strings are UTF-16).
std::u16string Utf8ToUtf16(const std::string& s);  // malformed input becomes U+FFFD
// Appends the UTF-16 form of s; false (out partly appended) when s is not UTF-8.
bool AppendUtf8AsUtf16(std::string_view s, std::u16string* out);
std::string Utf16ToUtf8(const std::u16string& s);
std::string Utf16ToUtf8(const UNICODE_STRING& s);
std::string StatusName(NTSTATUS status);   // "STATUS_SUCCESS", or "0x..." when unknown
bool StatusFromName(const std::string& name, NTSTATUS* status);

// A UNICODE_STRING over a u16string the caller keeps alive.
inline UNICODE_STRING MakeUnicodeString(const std::u16string& s) {
    UNICODE_STRING u;
    u.Length = static_cast<USHORT>(s.size() * 2);
    u.MaximumLength = u.Length;
    u.Buffer = reinterpret_cast<PWSTR>(const_cast<char16_t*>(s.data()));
    return u;
}

}  // namespace tervane::emu
