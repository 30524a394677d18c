// The Machine host API: one live emulated NT machine, its processes, threads,
// drivers, volumes and shutdown.
#include <emu/machine.h>

#include <cstdio>
#include <stdexcept>

#include "machine/machine_impl.h"
#include "machine/services.h"
#include "ps/process.h"

namespace tervane::emu {

namespace {
std::atomic<Machine*> g_current{nullptr};
constexpr uint32_t kSystemProcessId = 4;
}  // namespace

Machine::Impl& CurrentMachine() {
    Machine* machine = g_current.load();
    if (!machine) {
        std::fprintf(stderr, "tervane: a kernel service was called while no machine is alive\n");
        std::abort();
    }
    return machine->impl();
}

Machine* Machine::Current() { return g_current.load(); }

Machine::Machine(MachineOptions options) {
    Machine* expected = nullptr;
    impl_ = std::make_unique<Impl>(this, options);
    if (!g_current.compare_exchange_strong(expected, this))
        throw std::logic_error("a Machine is already alive in this process; only one can exist at a time");
    NtBuildNumber = 0xF0000000u | options.buildNumber;
    LockOrderReset();
    ObStartup();
    impl_->system = new Process(this, kSystemProcessId, "System");
    {
        std::lock_guard<std::mutex> guard(impl_->processLock);
        impl_->processes[kSystemProcessId] = impl_->system;
    }
    impl_->system->Run([] {
        PsSystemProcess()->Handles = ObCreateHandleTable();
        IoStartup();
        CmStartup();
        MmStartup();
    });
}

Machine::~Machine() {
    Shutdown();
    std::vector<Process*> all;
    {
        std::lock_guard<std::mutex> guard(impl_->processLock);
        for (auto& [pid, process] : impl_->processes) all.push_back(process);
        all.insert(all.end(), impl_->ended.begin(), impl_->ended.end());
        impl_->processes.clear();
        impl_->ended.clear();
    }
    for (Process* process : all) process->StopWorker();
    for (Process* process : all) delete process;
    ResourceFreeAll();
    LdrUnmapImages();
    g_current.store(nullptr);
}

Process* Machine::CreateProcess(uint32_t pid, const std::string& imageName) {
    {
        std::lock_guard<std::mutex> guard(impl_->processLock);
        if (impl_->processes.count(pid)) return nullptr;
    }
    auto* process = new Process(this, pid, imageName);
    process->Run([process] {
        process->eprocess()->Handles = ObCreateHandleTable();
    });
    std::lock_guard<std::mutex> guard(impl_->processLock);
    impl_->processes[pid] = process;
    return process;
}

Process* Machine::SystemProcess() { return impl_->system; }

Process* Machine::FindProcess(uint32_t pid) {
    std::lock_guard<std::mutex> guard(impl_->processLock);
    auto it = impl_->processes.find(pid);
    return it == impl_->processes.end() ? nullptr : it->second;
}

// Runs the process's handle-table rundown on its own thread, as NT does at
// process exit, so that cleanup requests see the process as current.
static void CloseProcessHandles(Process* process) {
    process->Run([process] {
        _EPROCESS* e = process->eprocess();
        if (!e->Handles) return;
        ObCloseAllHandles(e);
        ObDestroyHandleTable(e->Handles);
        e->Handles = nullptr;
    });
}

void Machine::TerminateProcess(Process* process) {
    if (!process || process == impl_->system || process->terminated) return;
    if (CurrentProcess() == process->eprocess())
        throw std::logic_error("a process cannot be terminated from one of its own threads");
    CloseProcessHandles(process);
    process->StopWorker();
    process->terminated = true;
    std::lock_guard<std::mutex> guard(impl_->processLock);
    impl_->processes.erase(process->pid());
    impl_->ended.push_back(process);
}

void Machine::Run(Process* process, const std::function<void()>& fn) {
    if (!process) throw std::invalid_argument("Machine::Run: no process");
    process->Run(fn);
}

struct Machine::Thread::Impl {
    std::thread thread;
    std::exception_ptr error;
};

Machine::Thread::~Thread() {
    if (impl && impl->thread.joinable()) impl->thread.join();
}

void Machine::Thread::Join() {
    if (impl && impl->thread.joinable()) impl->thread.join();
    if (impl && impl->error) {
        std::exception_ptr error = impl->error;
        impl->error = nullptr;
        std::rethrow_exception(error);
    }
}

std::unique_ptr<Machine::Thread> Machine::StartThread(Process* process, const std::function<void()>& fn) {
    if (!process || process->terminated) throw std::invalid_argument("Machine::StartThread: no live process");
    auto thread = std::make_unique<Thread>();
    thread->impl = std::make_unique<Thread::Impl>();
    _ETHREAD* object = PsCreateThreadObject(process->eprocess());
    Thread::Impl* impl = thread->impl.get();
    impl->thread = std::thread([object, fn, impl] {
        try {
            PsRunAsThread(object, fn);
        } catch (...) {
            impl->error = std::current_exception();
        }
        PsDeleteThreadObject(object);
    });
    return thread;
}

void Machine::RunOnCallingThread(Process* process, const std::function<void()>& fn) {
    if (!process || process->terminated) throw std::invalid_argument("Machine::RunOnCallingThread: no live process");
    _ETHREAD* object = PsCreateThreadObject(process->eprocess());
    struct End {
        _ETHREAD* object;
        ~End() { PsDeleteThreadObject(object); }
    } end{object};
    PsRunAsThread(object, fn);
}

NTSTATUS Machine::LoadDriver(const std::u16string& name, PDRIVER_INITIALIZE entry, PDRIVER_OBJECT* driverObject) {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    PDRIVER_OBJECT object = nullptr;
    impl_->system->Run([&] { status = IoLoadDriver(name, entry, &object); });
    if (driverObject) *driverObject = object;
    return status;
}

static std::u16string DriveLinkName(char letter) {
    std::u16string name = u"\\??\\";
    name += static_cast<char16_t>(std::toupper(static_cast<unsigned char>(letter)));
    name += u':';
    return name;
}

NTSTATUS Machine::MountVolume(char letter, const std::string& hostDir) {
    if (!std::isalpha(static_cast<unsigned char>(letter))) return STATUS_OBJECT_NAME_INVALID;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    impl_->system->Run([&] {
        std::u16string device;
        status = FsMountVolume(hostDir, &device);
        if (NT_SUCCESS(status)) status = ObCreateSymbolicLinkInternal(DriveLinkName(letter), device);
    });
    return status;
}

NTSTATUS Machine::LinkDrive(char letter, const std::u16string& deviceName) {
    if (!std::isalpha(static_cast<unsigned char>(letter))) return STATUS_OBJECT_NAME_INVALID;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    impl_->system->Run([&] { status = ObCreateSymbolicLinkInternal(DriveLinkName(letter), deviceName); });
    return status;
}

NTSTATUS Machine::AliasVolume(char letter, char existing) {
    if (!std::isalpha(static_cast<unsigned char>(letter)) || !std::isalpha(static_cast<unsigned char>(existing)))
        return STATUS_OBJECT_NAME_INVALID;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    impl_->system->Run([&] {
        // The new letter links to the device the existing letter names.
        std::u16string linkName = DriveLinkName(existing);
        UNICODE_STRING name = MakeUnicodeString(linkName);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
        HANDLE link = nullptr;
        status = ZwOpenSymbolicLinkObject(&link, GENERIC_READ, &attributes);
        if (!NT_SUCCESS(status)) return;
        WCHAR buffer[512];
        UNICODE_STRING target = {0, sizeof(buffer), buffer};
        ULONG returned = 0;
        status = ZwQuerySymbolicLinkObject(link, &target, &returned);
        ZwClose(link);
        if (!NT_SUCCESS(status)) return;
        std::u16string device(reinterpret_cast<const char16_t*>(target.Buffer), target.Length / 2);
        status = ObCreateSymbolicLinkInternal(DriveLinkName(letter), device);
    });
    return status;
}

void Machine::SetBuildNumber(uint16_t build) {
    impl_->options.buildNumber = build;
    NtBuildNumber = 0xF0000000u | build;
}

std::vector<std::string> Machine::LogLines() const { return impl_->log.Lines(); }

std::string Machine::TakeNewLog() { return impl_->log.TakeNew(); }

uint64_t Machine::DroppedLogLines() const { return impl_->log.DroppedLines(); }

std::vector<PoolTagUsage> Machine::PoolUsage() const { return impl_->pool.Usage(false); }

void Machine::FailNthAllocation(uint64_t n, const std::string& tag) {
    impl_->pool.FailNth(n, !tag.empty(), PoolTagFromText(tag));
}

uint64_t Machine::AllocationCount() const { return impl_->pool.Attempts(); }

uint64_t Machine::AllocationCount(const std::string& tag) const {
    return impl_->pool.AttemptsWithTag(PoolTagFromText(tag));
}

void Machine::SetFaultObserver(std::function<void(const FaultInjected&)> observer) {
    impl_->pool.SetFaultObserver(std::move(observer));
}

void Machine::FailAllocationsWithTag(const std::string& tag, uint64_t skip) {
    impl_->pool.FailTag(PoolTagFromText(tag), skip);
}

void Machine::ClearFaultInjection() { impl_->pool.ClearFaults(); }

std::vector<std::string> Machine::HandleLines(uint32_t pid) const {
    return ObDescribeHandles(pid);
}

VerifierReport Machine::Snapshot() const {
    VerifierReport report;
    report.pool = impl_->pool.Usage(true);
    report.handles = ObDescribeHandles(0);
    report.fileObjects = IoDescribeFileObjects();
    report.views = MmDescribeViews();
    report.violations = impl_->verifier.Violations();
    return report;
}

VerifierReport Machine::Shutdown() {
    std::lock_guard<std::mutex> guard(impl_->shutdownLock);
    if (impl_->shutDown) return impl_->finalReport;
    VerifierReport& report = impl_->finalReport;
    // Processes exit first: their handles close as at process exit. Kernel
    // handles still open after that are leaks, and so is every file object
    // that outlives all handles.
    std::vector<Process*> processes;
    {
        std::lock_guard<std::mutex> plock(impl_->processLock);
        for (auto& [pid, process] : impl_->processes)
            if (process != impl_->system) processes.push_back(process);
    }
    for (Process* process : processes) CloseProcessHandles(process);
    // Drivers loaded from images release what they hold in their unload
    // routine; what those without one hold is kept, not leaked.
    impl_->system->Run([] { LdrUnloadDrivers(); });
    const std::set<const void*> kept = LdrKeptOwners();
    report.handles = ObDescribeHandles(0, kept);
    report.kept = LdrKeptDevices();
    for (const void* owner : kept)
        for (const std::string& handle : ObDescribeHandles(0, {}, owner))
            report.kept.push_back(LdrOwnerName(owner) + ": handle " + handle);
    impl_->system->Run([this, &report, &kept] {
        _EPROCESS* system = impl_->system->eprocess();
        for (const void* owner : kept)
            for (const std::string& view : MmDescribeViewsOf(owner))
                report.kept.push_back(LdrOwnerName(owner) + ": " + view);
        if (system->Handles) ObCloseAllHandles(system);
        report.fileObjects = IoDescribeFileObjects();
        report.views = MmDescribeViews(kept);
        FsShutdown();
        IoShutdown();
        MmShutdown();
        CmShutdown();
        LookasideDrainAll();
        if (system->Handles) ObCloseAllHandles(system);
        if (system->Handles) ObDestroyHandleTable(system->Handles);
        system->Handles = nullptr;
        ObShutdown();
    });
    report.pool = impl_->pool.Usage(true, kept);
    for (const void* owner : kept) {
        for (const PoolTagUsage& u : impl_->pool.OwnedUsage(owner))
            report.kept.push_back(LdrOwnerName(owner) + ": pool " + u.tag + " blocks=" +
                                  std::to_string(u.outstandingBlocks) + " bytes=" + std::to_string(u.outstandingBytes));
    }
    report.violations = impl_->verifier.Violations();
    impl_->shutDown = true;
    return report;
}

void Machine::SetRegistryString(const std::string& key, const std::string& name, const std::string& value) {
    impl_->system->Run([&] { CmSetRegistryString(Utf8ToUtf16(key), Utf8ToUtf16(name), Utf8ToUtf16(value)); });
}

}  // namespace tervane::emu
