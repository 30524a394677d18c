// The machine's export table for driver images. An x86 driver calls most
// kernel routines stdcall, a few fastcall (arguments in ECX and EDX) and the
// C run-time ones cdecl, always with its stack aligned to 4; the machine's
// own routines use the host's cdecl and expect 16. Each export is therefore
// an adapter with the driver's convention that realigns the stack and calls
// the machine's routine. Data exports are the machine's variables themselves.
#include "ldr/exports.h"

#include <cstdarg>
#include <cstring>
#include <strings.h>
#include <type_traits>

#include "kernel.h"

namespace tervane::emu::ldr {
namespace {

#if defined(__i386__)
// The adapters of ROUTINE, one per convention. Only scalar arguments and
// results of at most 4 bytes (8 for a result) are passed alike by both sides.
template <auto Routine>
struct Adapt;
template <typename R, typename... A, R (*Routine)(A...)>
struct Adapt<Routine> {
    static_assert(((std::is_scalar_v<A> && sizeof(A) <= 4) && ...), "an argument x86 conventions pass differently");
    using Result = std::conditional_t<std::is_void_v<R>, int, R>;
    static_assert(std::is_void_v<R> || (std::is_scalar_v<R> && sizeof(Result) <= 8), "a result passed differently");
    MACHINE_ENTRY __attribute__((stdcall)) static R Stdcall(A... args) {
        LdrCallScope call(__builtin_return_address(0));
        return Routine(args...);
    }
    MACHINE_ENTRY __attribute__((fastcall)) static R Fastcall(A... args) {
        LdrCallScope call(__builtin_return_address(0));
        return Routine(args...);
    }
    MACHINE_ENTRY __attribute__((cdecl)) static R Cdecl(A... args) {
        LdrCallScope call(__builtin_return_address(0));
        return Routine(args...);
    }
};
#define ADAPTER(convention, routine) reinterpret_cast<const void*>(&Adapt<&routine>::convention)
#else
// A 64-bit machine runs no x86 code; its table only names what it provides.
#define ADAPTER(convention, routine) reinterpret_cast<const void*>(&routine)
#endif

// DbgPrint takes a variable list of arguments, passed alike on both sides.
MACHINE_ENTRY ULONG DriverDbgPrint(PCSTR format, ...) {
    LdrCallScope call(__builtin_return_address(0));
    va_list args;
    va_start(args, format);
    ULONG status = vDbgPrintEx(0, 0, format, args);
    va_end(args);
    return status;
}

// The x86 HAL's spin lock routines, which the DDK's KeAcquireSpinLock and
// KeReleaseSpinLock name on that platform (fastcall: the lock in ECX, the
// IRQL to return to in EDX).
KIRQL HalAcquireSpinLock(PKSPIN_LOCK SpinLock) {
    KIRQL irql;
    KeAcquireSpinLock(SpinLock, &irql);
    return irql;
}

VOID HalReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) { KeReleaseSpinLock(SpinLock, NewIrql); }

#define NTOSKRNL "ntoskrnl.exe"
#define STDCALL(routine) {NTOSKRNL, #routine, Convention::Stdcall, ADAPTER(Stdcall, routine)}
#define FASTCALL_EXPORT(routine) {NTOSKRNL, #routine, Convention::Fastcall, ADAPTER(Fastcall, routine)}
#define CDECL_AS(name, routine) {NTOSKRNL, name, Convention::Cdecl, ADAPTER(Cdecl, routine)}
#define DATA(variable) {NTOSKRNL, #variable, Convention::Data, &variable}
#define OWN(name, convention, routine) {NTOSKRNL, name, convention, reinterpret_cast<const void*>(&routine)}

const MachineExport kExports[] = {
    // Executive: pool, lookaside lists, resources, interlocked lists.
    STDCALL(ExAllocatePoolWithTag),
    STDCALL(ExAllocatePool),
    STDCALL(ExFreePoolWithTag),
    STDCALL(ExFreePool),
    STDCALL(ExInitializeNPagedLookasideList),
    STDCALL(ExDeleteNPagedLookasideList),
    STDCALL(ExInitializeResourceLite),
    STDCALL(ExDeleteResourceLite),
    STDCALL(ExAcquireResourceExclusiveLite),
    STDCALL(ExAcquireResourceSharedLite),
    FASTCALL_EXPORT(ExReleaseResourceLite),
    STDCALL(ExReleaseResourceForThreadLite),
    STDCALL(ExIsResourceAcquiredExclusiveLite),
    STDCALL(ExIsResourceAcquiredSharedLite),
    STDCALL(ExGetExclusiveWaiterCount),
    STDCALL(ExGetSharedWaiterCount),
    FASTCALL_EXPORT(InterlockedIncrement),
    FASTCALL_EXPORT(InterlockedDecrement),
    FASTCALL_EXPORT(InterlockedExchange),
    FASTCALL_EXPORT(InterlockedExchangeAdd),
    FASTCALL_EXPORT(InterlockedCompareExchange),
    FASTCALL_EXPORT(InterlockedPopEntrySList),
    FASTCALL_EXPORT(InterlockedPushEntrySList),
    FASTCALL_EXPORT(ExInterlockedPopEntrySList),
    FASTCALL_EXPORT(ExInterlockedPushEntrySList),
    // I/O manager.
    STDCALL(IoCreateDevice),
    STDCALL(IoDeleteDevice),
    STDCALL(IoCreateSymbolicLink),
    STDCALL(IoDeleteSymbolicLink),
    STDCALL(IoAttachDeviceToDeviceStack),
    STDCALL(IoDetachDevice),
    STDCALL(IoGetAttachedDevice),
    STDCALL(IoGetAttachedDeviceReference),
    STDCALL(IoGetRelatedDeviceObject),
    STDCALL(IoGetCurrentProcess),
    FASTCALL_EXPORT(IofCallDriver),
    FASTCALL_EXPORT(IofCompleteRequest),
    STDCALL(IoAllocateIrp),
    STDCALL(IoFreeIrp),
    STDCALL(IoReuseIrp),
    STDCALL(IoInitializeIrp),
    STDCALL(IoBuildDeviceIoControlRequest),
    STDCALL(IoBuildSynchronousFsdRequest),
    STDCALL(IoAllocateMdl),
    STDCALL(IoFreeMdl),
    STDCALL(IoGetFileObjectGenericMapping),
    STDCALL(IoQueryVolumeInformation),
    STDCALL(IoQueryFileInformation),
    STDCALL(IoCheckShareAccess),
    STDCALL(IoSetShareAccess),
    STDCALL(IoUpdateShareAccess),
    STDCALL(IoRemoveShareAccess),
    STDCALL(IoIsOperationSynchronous),
    STDCALL(IoGetRequestorProcess),
    STDCALL(IoGetRequestorProcessId),
    STDCALL(IoCreateStreamFileObject),
    STDCALL(IoRegisterFileSystem),
    DATA(IoFileObjectType),
    DATA(IoDeviceObjectType),
    DATA(IoDriverObjectType),
    // Memory manager.
    STDCALL(MmBuildMdlForNonPagedPool),
    STDCALL(MmProbeAndLockPages),
    STDCALL(MmUnlockPages),
    STDCALL(MmMapLockedPagesSpecifyCache),
    STDCALL(MmUnmapLockedPages),
    STDCALL(ZwCreateSection),
    STDCALL(MmMapViewInSystemSpace),
    STDCALL(MmUnmapViewInSystemSpace),
    DATA(MmSectionObjectType),
    // Kernel: events, waits, critical regions, threads, time.
    STDCALL(KeInitializeEvent),
    STDCALL(KeSetEvent),
    STDCALL(KeResetEvent),
    STDCALL(KeClearEvent),
    STDCALL(KeReadStateEvent),
    STDCALL(KeWaitForSingleObject),
    STDCALL(KeDelayExecutionThread),
    STDCALL(KeEnterCriticalRegion),
    STDCALL(KeLeaveCriticalRegion),
    STDCALL(KeGetCurrentThread),
    STDCALL(KeInitializeSpinLock),
    STDCALL(KeQuerySystemTime),
    STDCALL(KeQueryInterruptTime),
    // Object manager, processes.
    STDCALL(ObReferenceObjectByHandle),
    STDCALL(ObReferenceObjectByPointer),
    FASTCALL_EXPORT(ObfReferenceObject),
    FASTCALL_EXPORT(ObfDereferenceObject),
    STDCALL(ObQueryNameString),
    STDCALL(PsGetCurrentProcessId),
    STDCALL(PsGetCurrentThreadId),
    STDCALL(PsGetCurrentThread),
    STDCALL(PsGetProcessId),
    STDCALL(PsLookupProcessByProcessId),
    DATA(NtBuildNumber),
    // Run-time library.
    STDCALL(RtlInitUnicodeString),
    STDCALL(RtlInitAnsiString),
    STDCALL(RtlInitString),
    STDCALL(RtlCopyUnicodeString),
    STDCALL(RtlAppendUnicodeStringToString),
    STDCALL(RtlAppendUnicodeToString),
    STDCALL(RtlCompareUnicodeString),
    STDCALL(RtlEqualUnicodeString),
    STDCALL(RtlPrefixUnicodeString),
    STDCALL(RtlUpcaseUnicodeString),
    STDCALL(RtlDowncaseUnicodeString),
    STDCALL(RtlUpcaseUnicodeChar),
    STDCALL(RtlDowncaseUnicodeChar),
    STDCALL(RtlAnsiStringToUnicodeString),
    STDCALL(RtlUnicodeStringToAnsiString),
    STDCALL(RtlFreeUnicodeString),
    STDCALL(RtlFreeAnsiString),
    STDCALL(RtlIntegerToUnicodeString),
    STDCALL(RtlUnicodeStringToInteger),
    STDCALL(RtlAssert),
    STDCALL(RtlCompareMemory),
    STDCALL(RtlMapGenericMask),
    STDCALL(RtlLengthSecurityDescriptor),
    // System services.
    STDCALL(ZwCreateFile),
    STDCALL(ZwOpenFile),
    STDCALL(ZwReadFile),
    STDCALL(ZwWriteFile),
    STDCALL(ZwQueryInformationFile),
    STDCALL(ZwSetInformationFile),
    STDCALL(ZwQueryDirectoryFile),
    STDCALL(ZwNotifyChangeDirectoryFile),
    STDCALL(ZwQuerySecurityObject),
    STDCALL(ZwSetSecurityObject),
    STDCALL(ZwQueryVolumeInformationFile),
    STDCALL(ZwFsControlFile),
    STDCALL(ZwDeviceIoControlFile),
    STDCALL(ZwLockFile),
    STDCALL(ZwUnlockFile),
    STDCALL(ZwFlushBuffersFile),
    STDCALL(ZwClose),
    STDCALL(ZwWaitForSingleObject),
    STDCALL(ZwCreateEvent),
    STDCALL(ZwSetEvent),
    STDCALL(ZwCreateSymbolicLinkObject),
    STDCALL(ZwOpenSymbolicLinkObject),
    STDCALL(ZwQuerySymbolicLinkObject),
    STDCALL(ZwOpenKey),
    STDCALL(ZwCreateKey),
    STDCALL(ZwQueryValueKey),
    STDCALL(ZwSetValueKey),
    // Debug output and the C run-time routines ntoskrnl carries (the wide
    // ones on 16-bit characters).
    OWN("DbgPrint", Convention::Cdecl, DriverDbgPrint),
    STDCALL(vDbgPrintEx),
    CDECL_AS("_vsnprintf", _vsnprintf),
    CDECL_AS("_vsnwprintf", _vsnwprintf),
    CDECL_AS("memcpy", memcpy),
    CDECL_AS("memmove", memmove),
    CDECL_AS("memset", memset),
    CDECL_AS("strlen", strlen),
    CDECL_AS("strcmp", strcmp),
    CDECL_AS("strncmp", strncmp),
    CDECL_AS("strcpy", strcpy),
    CDECL_AS("strncpy", strncpy),
    CDECL_AS("wcslen", EmuCrt_wcslen),
    CDECL_AS("wcscpy", EmuCrt_wcscpy),
    CDECL_AS("wcsncpy", EmuCrt_wcsncpy),
    CDECL_AS("wcschr", EmuCrt_wcschr),
    CDECL_AS("wcsrchr", EmuCrt_wcsrchr),
    CDECL_AS("wcscmp", EmuCrt_wcscmp),
    CDECL_AS("wcsncmp", EmuCrt_wcsncmp),
    CDECL_AS("_wcsicmp", _wcsicmp),
    CDECL_AS("_wcsnicmp", _wcsnicmp),
    // The hardware abstraction layer.
    {"hal.dll", "KeGetCurrentIrql", Convention::Stdcall, ADAPTER(Stdcall, KeGetCurrentIrql)},
    {"hal.dll", "KfAcquireSpinLock", Convention::Fastcall, ADAPTER(Fastcall, HalAcquireSpinLock)},
    {"hal.dll", "KfReleaseSpinLock", Convention::Fastcall, ADAPTER(Fastcall, HalReleaseSpinLock)},
};

}  // namespace

bool MachineProvidesModule(std::string_view module) {
    for (const char* name : {"ntoskrnl.exe", "hal.dll"})
        if (module.size() == std::strlen(name) && strncasecmp(module.data(), name, module.size()) == 0) return true;
    return false;
}

const MachineExport* FindMachineExport(std::string_view module, std::string_view name) {
    for (const MachineExport& e : kExports) {
        if (module.size() == std::strlen(e.module) && strncasecmp(module.data(), e.module, module.size()) == 0 &&
            name == e.name)
            return &e;
    }
    return nullptr;
}

}  // namespace tervane::emu::ldr
