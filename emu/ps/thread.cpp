// Threads: the current thread of each host thread, thread objects and the
// process and thread identity services.
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "ke/dispatcher.h"
#include "machine/machine_impl.h"
#include "ps/process.h"

namespace tervane::emu {

namespace {
thread_local _ETHREAD* tCurrentThread = nullptr;
// Thread ids are multiples of 4 like all client ids; they start high so that
// they stay clear of the small process ids that scripts choose.
std::atomic<uint32_t> g_nextThreadId{0x1000};

[[noreturn]] void Unbound(const char* service) {
    std::fprintf(stderr, "tervane: %s called on a host thread that is not a thread of the machine "
                         "(use Machine::Run or StartThread)\n", service);
    std::abort();
}
}  // namespace

_ETHREAD* CurrentThread() { return tCurrentThread; }

_EPROCESS* CurrentProcess() { return tCurrentThread ? tCurrentThread->Tcb.Process : nullptr; }

void BindCurrentThread(_ETHREAD* thread) { tCurrentThread = thread; }

_ETHREAD* PsCreateThreadObject(_EPROCESS* process) {
    auto* thread = new _ETHREAD();
    thread->Tcb.Process = process;
    thread->Tcb.UniqueThreadId = g_nextThreadId.fetch_add(4);
    thread->Tcb.CriticalRegionDepth = 0;
    thread->Tcb.Alerted = false;
    thread->Tcb.PreviousMode = KernelMode;
    KeInitializeThreadWait(&thread->Tcb);
    thread->ReferenceCount.store(1);
    process->ThreadCount++;
    return thread;
}

void PsDeleteThreadObject(_ETHREAD* thread) {
    if (!thread) return;
    thread->Tcb.Process->ThreadCount--;
    KeDeleteThreadWait(&thread->Tcb);  // user APCs queued from now on are dropped
    PsDereferenceThread(thread);
}

void PsReferenceThread(_ETHREAD* thread) { thread->ReferenceCount.fetch_add(1, std::memory_order_relaxed); }

void PsDereferenceThread(_ETHREAD* thread) {
    if (thread->ReferenceCount.fetch_sub(1, std::memory_order_acq_rel) == 1) delete thread;
}

void PsRunAsThread(_ETHREAD* thread, const std::function<void()>& fn) {
    _ETHREAD* previous = tCurrentThread;
    tCurrentThread = thread;
    struct Unbind {
        _ETHREAD* thread;
        _ETHREAD* previous;
        ~Unbind() {
            int depth = thread->Tcb.CriticalRegionDepth;
            if (depth != 0) {
                thread->Tcb.CriticalRegionDepth = 0;
                VerifierViolation("unbalanced critical region: thread " + std::to_string(thread->Tcb.UniqueThreadId) +
                                  " of process " + std::to_string(thread->Tcb.Process->UniqueProcessId) +
                                  " ended its run at depth " + std::to_string(depth));
            }
            tCurrentThread = previous;
        }
    } unbind{thread, previous};
    fn();
}

_EPROCESS* PsSystemProcess() {
    Machine::Impl& m = CurrentMachine();
    std::lock_guard<std::mutex> guard(m.processLock);
    return m.system ? m.system->eprocess() : nullptr;
}

_EPROCESS* PsLookupProcess(uint32_t pid) {
    Machine::Impl& m = CurrentMachine();
    std::lock_guard<std::mutex> guard(m.processLock);
    auto it = m.processes.find(pid);
    return it == m.processes.end() ? nullptr : it->second->eprocess();
}

std::string PsImageName(const _EPROCESS* process) {
    const char* name = reinterpret_cast<const char*>(process->Body + kImageNameOffset);
    return std::string(name, strnlen(name, kImageNameLength));
}

_ETHREAD* RequireCurrentThread(const char* service) {
    if (!tCurrentThread) Unbound(service);
    return tCurrentThread;
}

}  // namespace tervane::emu

using namespace tervane::emu;

// Free build of the default release; Machine::SetBuildNumber changes it.
extern "C" {
ULONG NtBuildNumber = 0xF0000000u | 2600;
}

extern "C" PEPROCESS PsGetCurrentProcess(VOID) { return RequireCurrentThread("PsGetCurrentProcess")->Tcb.Process; }

extern "C" HANDLE PsGetCurrentProcessId(VOID) {
    return reinterpret_cast<HANDLE>(
        static_cast<ULONG_PTR>(RequireCurrentThread("PsGetCurrentProcessId")->Tcb.Process->UniqueProcessId));
}

extern "C" PETHREAD PsGetCurrentThread(VOID) { return RequireCurrentThread("PsGetCurrentThread"); }

extern "C" HANDLE PsGetCurrentThreadId(VOID) {
    return reinterpret_cast<HANDLE>(
        static_cast<ULONG_PTR>(RequireCurrentThread("PsGetCurrentThreadId")->Tcb.UniqueThreadId));
}

extern "C" HANDLE PsGetProcessId(PEPROCESS Process) {
    return reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(Process->UniqueProcessId));
}

// Processes are not reference-counted objects here; the process stays valid
// until the machine goes, so no reference is taken.
extern "C" NTSTATUS PsLookupProcessByProcessId(HANDLE ProcessId, PEPROCESS* Process) {
    _EPROCESS* process = PsLookupProcess(static_cast<uint32_t>(reinterpret_cast<ULONG_PTR>(ProcessId)));
    if (!process) return STATUS_INVALID_PARAMETER;
    *Process = process;
    return STATUS_SUCCESS;
}

extern "C" PKTHREAD KeGetCurrentThread(VOID) { return &RequireCurrentThread("KeGetCurrentThread")->Tcb; }
