// Memory descriptor lists. The emulated machine has one flat address space,
// so an MDL records the buffer's address and length, locking only marks it,
// and mapping it into system space gives the buffer's own address.
#include "io/io_internal.h"

using namespace tervane::emu;

PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota, PIRP Irp) {
    auto* mdl = static_cast<PMDL>(ExAllocatePoolWithTag(NonPagedPool, sizeof(MDL), kTagMdl));
    if (!mdl) return nullptr;
    memset(mdl, 0, sizeof(MDL));
    uintptr_t address = reinterpret_cast<uintptr_t>(VirtualAddress);
    mdl->Size = sizeof(MDL);
    mdl->MdlFlags = MDL_ALLOCATED_FIXED_SIZE;
    mdl->StartVa = reinterpret_cast<PVOID>(address & ~uintptr_t(PAGE_SIZE - 1));
    mdl->ByteOffset = ULONG(address & (PAGE_SIZE - 1));
    mdl->ByteCount = Length;
    if (Irp) {
        if (!SecondaryBuffer) {
            Irp->MdlAddress = mdl;
        } else {
            PMDL* link = &Irp->MdlAddress;
            while (*link) link = &(*link)->Next;
            *link = mdl;
        }
    }
    return mdl;
}

VOID IoFreeMdl(PMDL Mdl) {
    if (Mdl->MdlFlags & MDL_PAGES_LOCKED)
        VerifierViolation("IoFreeMdl on an MDL whose pages are still locked");
    ExFreePoolWithTag(Mdl, kTagMdl);
}

VOID MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList) {
    MemoryDescriptorList->MappedSystemVa = MmGetMdlVirtualAddress(MemoryDescriptorList);
    MemoryDescriptorList->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
}

VOID MmProbeAndLockPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode, LOCK_OPERATION Operation) {
    if (MemoryDescriptorList->MdlFlags & MDL_PAGES_LOCKED)
        VerifierViolation("MmProbeAndLockPages on an MDL that is already locked");
    MemoryDescriptorList->MdlFlags |= MDL_PAGES_LOCKED;
    if (Operation != IoReadAccess) MemoryDescriptorList->MdlFlags |= MDL_WRITE_OPERATION;
    MemoryDescriptorList->Process = AccessMode == UserMode ? CurrentProcess() : nullptr;
}

VOID MmUnlockPages(PMDL MemoryDescriptorList) {
    if (!(MemoryDescriptorList->MdlFlags & MDL_PAGES_LOCKED))
        VerifierViolation("MmUnlockPages on an MDL that is not locked");
    if (MemoryDescriptorList->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA)
        MmUnmapLockedPages(MemoryDescriptorList->MappedSystemVa, MemoryDescriptorList);
    MemoryDescriptorList->MdlFlags &= ~(MDL_PAGES_LOCKED | MDL_WRITE_OPERATION);
}

PVOID MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                   MEMORY_CACHING_TYPE CacheType, PVOID BaseAddress, ULONG BugCheckOnFailure,
                                   ULONG Priority) {
    PMDL mdl = MemoryDescriptorList;
    if (!(mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL | MDL_PARTIAL))) {
        VerifierViolation("MmMapLockedPagesSpecifyCache on an MDL whose pages are not locked");
        return nullptr;
    }
    PVOID address = MmGetMdlVirtualAddress(mdl);
    if (AccessMode == KernelMode) {
        mdl->MappedSystemVa = address;
        mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    }
    return address;
}

VOID MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList) {
    MemoryDescriptorList->MdlFlags &= ~MDL_MAPPED_TO_SYSTEM_VA;
}
