// Control blocks of the emulated NTFS driver and small request helpers.
#include <unistd.h>

#include <new>

#include "fs/fsstruc.h"
#include "fs/names.h"

namespace tervane::emu::fs {

Fcb* CreateFcb(Vcb* vcb, uint64_t ino) {
    void* mem = ExAllocatePoolWithTag(NonPagedPool, sizeof(Fcb), kTagFcb);
    if (!mem) return nullptr;
    memset(mem, 0, sizeof(Fcb));
    Fcb* fcb = new (mem) Fcb();
    fcb->Header.NodeTypeCode = kNodeTypeFcb;
    fcb->Header.NodeByteSize = static_cast<CSHORT>(sizeof(Fcb) > 0x7fff ? 0x7fff : sizeof(Fcb));
    fcb->Header.IsFastIoPossible = FastIoIsNotPossible;
    ExInitializeResourceLite(&fcb->MainResource);
    ExInitializeResourceLite(&fcb->PagingIoResource);
    fcb->Header.Resource = &fcb->MainResource;
    fcb->Header.PagingIoResource = &fcb->PagingIoResource;
    fcb->vcb = vcb;
    fcb->ino = ino;
    return fcb;
}

void DeleteFcb(Fcb* fcb) {
    if (fcb->fd >= 0) close(fcb->fd);
    ExDeleteResourceLite(&fcb->MainResource);
    ExDeleteResourceLite(&fcb->PagingIoResource);
    fcb->~Fcb();
    ExFreePoolWithTag(fcb, kTagFcb);
}

void UnlinkFcb(Vcb* vcb, Fcb* fcb) {
    if (fcb->isVolume) {
        if (vcb->volumeFcb == fcb) vcb->volumeFcb = nullptr;
        return;
    }
    // A deleted file's inode may already serve a new file with its own FCB.
    auto it = vcb->fcbs.find(fcb->ino);
    if (it != vcb->fcbs.end() && it->second == fcb) {
        vcb->fcbs.erase(it);
        const uint64_t n = vcb->fcbsUnlinked.load(std::memory_order_relaxed);
        vcb->unlinkedInodes[n % Vcb::kUnlinkedKept] = fcb->ino;
        vcb->fcbsUnlinked.store(n + 1, std::memory_order_relaxed);
    }
}

bool UnlinkedSince(const Vcb* vcb, uint64_t since, uint64_t ino) {
    const uint64_t now = vcb->fcbsUnlinked.load(std::memory_order_relaxed);
    if (now - since > Vcb::kUnlinkedKept) return true;
    for (uint64_t n = since; n != now; ++n)
        if (vcb->unlinkedInodes[n % Vcb::kUnlinkedKept] == ino) return true;
    return false;
}

Ccb* CreateCcb() {
    void* mem = ExAllocatePoolWithTag(NonPagedPool, sizeof(Ccb), kTagCcb);
    return mem ? new (mem) Ccb() : nullptr;
}

void DeleteCcb(Ccb* ccb) {
    ccb->~Ccb();
    ExFreePoolWithTag(ccb, kTagCcb);
}

Fcb* FcbOf(PFILE_OBJECT fo) {
    auto* fcb = static_cast<Fcb*>(fo ? fo->FsContext : nullptr);
    return fcb && fcb->Header.NodeTypeCode == kNodeTypeFcb ? fcb : nullptr;
}

Ccb* CcbOf(PFILE_OBJECT fo) {
    auto* ccb = static_cast<Ccb*>(fo ? fo->FsContext2 : nullptr);
    return ccb && ccb->NodeTypeCode == kNodeTypeCcb ? ccb : nullptr;
}

PVOID RequestBuffer(PIRP irp) {
    if (irp->MdlAddress) return MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
    if ((irp->Flags & IRP_BUFFERED_IO) && irp->AssociatedIrp.SystemBuffer) return irp->AssociatedIrp.SystemBuffer;
    return irp->UserBuffer ? irp->UserBuffer : irp->AssociatedIrp.SystemBuffer;
}

NTSTATUS CompleteRequest(PIRP irp, NTSTATUS status, ULONG_PTR information) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

void CompleteAll(std::vector<PIRP>& done) {
    for (PIRP irp : done) IoCompleteRequest(irp, IO_NO_INCREMENT);
    done.clear();
}

bool HasOpenDescendants(Vcb* vcb, const std::u16string& fullName) {
    std::u16string prefix = UpcaseString(fullName == u"\\" ? fullName : fullName + u"\\");
    for (auto& [ino, fcb] : vcb->fcbs) {
        if (fcb->referenceCount == 0 || fcb->fullName.size() <= prefix.size()) continue;
        if (UpcaseString(std::u16string_view(fcb->fullName).substr(0, prefix.size())) == prefix) return true;
    }
    return false;
}

}  // namespace tervane::emu::fs
