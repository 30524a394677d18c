// Internal interfaces between the emulator's services. Not visible to the
// driver; host code uses emu/machine.h.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <emu/machine.h>
#include <nt/ntifs.h>

// A machine routine that a driver image may enter directly (through an import
// or a pointer the machine gave it): on x86 the image keeps its stack aligned
// to 4 only, where the machine's code assumes 16.
#if defined(__i386__)
#define MACHINE_ENTRY __attribute__((force_align_arg_pointer))
#else
#define MACHINE_ENTRY
#endif

namespace tervane::emu {

class HandleTable;     // ob/handle_table.h
class Process;         // ps/process.h

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
    tervane::emu::Process* Host;  // the host-side record (worker thread, lifetime)
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
    // Emulator-private: one reference for the thread's run, one for each
    // request packet it issued that is not yet freed (a pending request
    // outlives the run of its thread; see PsDereferenceThread).
    std::atomic<LONG> ReferenceCount;
};

namespace tervane::emu {

// The current thread of the calling host thread; null when the host thread
// is not bound to the machine (then kernel services refuse to run).
_ETHREAD* CurrentThread();
_EPROCESS* CurrentProcess();
// Thread object references (ps/thread.cpp): the object is freed with its
// last reference, which may come after the thread's run has ended.
void PsReferenceThread(_ETHREAD* thread);
void PsDereferenceThread(_ETHREAD* thread);
void BindCurrentThread(_ETHREAD* thread);  // null unbinds

// The live machine's internals.
Machine::Impl& CurrentMachine();

// ---- Object manager internals (ob/) --------------------------------------
// An object type: DeleteProcedure runs when the last reference goes,
// CloseProcedure each time a handle to the object is closed (with the number
// of handles the process still has to it).
struct ObjectTypeInit {
    const char* name;                 // "File", "Device", "Key", "Section", ...
    GENERIC_MAPPING mapping;
    ACCESS_MASK validAccess;
    void (*deleteProcedure)(PVOID object);
    void (*closeProcedure)(_EPROCESS* process, PVOID object, ACCESS_MASK grantedAccess, ULONG handleCount);
};
POBJECT_TYPE ObCreateObjectType(const ObjectTypeInit& init);
const char* ObTypeName(POBJECT_TYPE type);
// Allocates a zeroed object body with a header; reference count 1.
NTSTATUS ObCreateObject(POBJECT_TYPE type, ULONG bodySize, PVOID* object);
POBJECT_TYPE ObGetObjectType(PVOID object);
LONG ObPointerCount(PVOID object);
LONG ObHandleCount(PVOID object);
// Gives OBJECT a handle in the current process's table, or in the kernel
// table when ATTRIBUTES has OBJ_KERNEL_HANDLE (kernel-mode callers only).
// Takes its own reference.
NTSTATUS ObInsertHandle(PVOID object, ACCESS_MASK grantedAccess, ULONG attributes, PHANDLE handle);
// Names an object in the namespace ("\Device\Tervane"); takes a reference.
NTSTATUS ObInsertNamedObject(PVOID object, PCUNICODE_STRING name);
NTSTATUS ObRemoveNamedObject(PCUNICODE_STRING name);
// Resolves a full name through directories and symbolic links. Returns the
// object found (referenced) and the part of the name that is left over when
// the walk stops at an object that parses its own names (a device).
NTSTATUS ObLookupName(PCUNICODE_STRING name, BOOLEAN caseInsensitive, PVOID* object, std::u16string* remaining);
NTSTATUS ObCreateSymbolicLinkInternal(const std::u16string& linkName, const std::u16string& target);
HandleTable* ObCreateHandleTable();
void ObCloseAllHandles(_EPROCESS* process);   // process exit, machine shutdown
void ObDestroyHandleTable(HandleTable* table);
// "pid 0xHANDLE Type name" for the handles of process PID (0 = all), leaving
// out those opened by the driver images in SKIP, or only those ONLYOWNER opened.
std::vector<std::string> ObDescribeHandles(uint32_t pid, const std::set<const void*>& skip = {},
                                           const void* onlyOwner = nullptr);
void ObStartup();   // namespace root, \Device, \Driver, \FileSystem, \??, \DosDevices -> \??, \Registry
void ObShutdown();

// ---- I/O manager internals (io/) -------------------------------------------
void IoStartup();
// Creates "\Driver\NAME" (or a full "\FileSystem\NAME") and calls ENTRY;
// the caller runs it on a thread of the System process.
// A driver loaded from an image file gives its mapping (DriverStart and
// DriverSize of the driver object).
NTSTATUS IoLoadDriver(const std::u16string& name, PDRIVER_INITIALIZE entry, PDRIVER_OBJECT* driverObject,
                      PVOID imageBase = nullptr, ULONG imageSize = 0);
std::vector<std::string> IoDescribeFileObjects();  // file objects still alive
void IoShutdown();

// ---- File system (fs/) ----------------------------------------------------
// Mounts HOSTDIR as a new volume: a named storage device
// "\Device\HarddiskVolumeN" whose VPB points at the file system's volume
// device. Returns the storage device's name for the drive-letter link.
NTSTATUS FsMountVolume(const std::string& hostDir, std::u16string* deviceName);
void FsShutdown();

// Misuse seen by the verifier ("IRP completed twice", ...): recorded in the
// report and written to the debug log.
void VerifierViolation(const std::string& what);
// Lock order (executive resources, fast mutexes). Acquiring is called before
// a thread may wait for LOCK (BLOCKING false for an acquire that does not
// wait: it adds no order); Acquired once the thread holds it; Released when
// OWNER lets go of one hold; Forget when the lock is deleted or initialised
// again. An acquire that reverses an order seen before is a violation.
void VerifierLockAcquiring(const void* lock, const char* kind, bool blocking);
void VerifierLockAcquired(const void* lock);
void VerifierLockReleased(const void* lock, _ETHREAD* owner);
void VerifierLockForget(const void* lock);

// ---- Kernel, executive and machine internals (ke/ ex/ ps/ cm/ mm/ machine/) -
// Critical-region balance around a driver callback: take the depth before
// calling (EmuKeGetCriticalRegionDepth), then call this afterwards. A changed
// depth is a violation naming WHAT ("IRP_MJ_CREATE dispatch of \Driver\X");
// the depth is restored so that one fault is reported once.
void VerifierCheckCriticalRegion(LONG depthBefore, const std::string& what);
// Queues a user APC to THREAD: ROUTINE(CONTEXT, IOSB, 0) runs when the thread
// next waits alertably in user mode (the wait then returns STATUS_USER_APC)
// or calls NtTestAlert; if the thread ends first it is dropped unrun.
void KeQueueUserApc(_KTHREAD* thread, PIO_APC_ROUTINE routine, PVOID context, PIO_STATUS_BLOCK ioStatusBlock);
// The System process (id 4), which owns kernel handles and driver loading.
_EPROCESS* PsSystemProcess();
_EPROCESS* PsLookupProcess(uint32_t pid);  // no reference taken; null if none
// Image name of a process as the host sees it ("System").
std::string PsImageName(const _EPROCESS* process);
// Writes to the kernel debug log (text already formatted, ANSI/UTF-8).
void DbgLogWrite(std::string_view text);
// Registry (cm/): created by the machine after ObStartup, torn down before
// ObShutdown.
void CmStartup();
void CmShutdown();
// Sections (mm/): views still mapped, one line each ("view 0x... of section
// 0x... (N bytes)"), leaving out those mapped by the owners in SKIP;
// MmShutdown unmaps what is left.
void MmStartup();
std::vector<std::string> MmDescribeViews(const std::set<const void*>& skip = {});
std::vector<std::string> MmDescribeViewsOf(const void* owner);

// ---- What driver images own (ldr/, ex/, ob/, mm/) -------------------------
// While a driver image calls the machine, the call site in the image is
// recorded (LdrCallScope, set by the loader's adapters); pool, handles and
// views made meanwhile belong to that image (its base address is the owner;
// null for the machine and built-in code), so that what a driver without an
// unload routine keeps at shutdown is reported apart from leaks.
class LdrCallScope {
public:
    explicit LdrCallScope(const void* site);
    ~LdrCallScope();
    LdrCallScope(const LdrCallScope&) = delete;
    LdrCallScope& operator=(const LdrCallScope&) = delete;

private:
    const void* previous_;
};
const void* LdrCurrentOwner();                         // null outside calls from an image
const void* LdrImageContaining(const void* address);  // its base, or null
constexpr ULONG kUntaggedPoolTag = 0x656E6F4E;  // "None", the tag of ExAllocatePool
PVOID ExAllocatePoolFor(const void* owner, POOL_TYPE type, SIZE_T bytes, ULONG tag);
// At shutdown: runs the unload routine of every image driver that has one;
// the images of those without one are the owners whose pool and views are
// kept rather than leaked, and KeptDevices describes their devices.
void LdrUnloadDrivers();
std::set<const void*> LdrKeptOwners();
std::string LdrOwnerName(const void* owner);   // "\Driver\Tervane (no unload routine)"
std::vector<std::string> LdrKeptDevices();
void LdrUnmapImages();                         // when the machine goes
void MmShutdown();

}  // namespace tervane::emu
