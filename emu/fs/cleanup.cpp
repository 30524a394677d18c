// IRP_MJ_CLEANUP and IRP_MJ_CLOSE of the emulated NTFS driver. Cleanup runs
// when a file object's last handle goes: its share access, byte-range
// locks and change-notify requests go with it, delete-on-close takes
// effect, and the last cleanup of a delete-pending file removes it from
// the host. Close runs when the last reference goes and frees the
// control blocks.
#include <fcntl.h>
#include <unistd.h>

#include "fs/fsstruc.h"
#include "fs/names.h"

namespace tervane::emu::fs {

namespace {

void RemoveFromHost(Vcb* vcb, Fcb* fcb, std::vector<PIRP>* done) {
    size_t slash = fcb->hostPath.rfind('/');
    std::string parent = slash == std::string::npos ? "" : fcb->hostPath.substr(0, slash);
    std::string leaf = slash == std::string::npos ? fcb->hostPath : fcb->hostPath.substr(slash + 1);
    int dfd = OpenHostDir(vcb, parent);
    if (dfd < 0) return;
    struct stat st;
    // Only the file this FCB stands for: the name may have been reused.
    if (fstatat(dfd, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && st.st_ino == fcb->ino &&
        unlinkat(dfd, leaf.c_str(), fcb->isDirectory ? AT_REMOVEDIR : 0) == 0) {
        vcb->store->Forget(fcb->ino);
        size_t sep = fcb->fullName.rfind(u'\\');
        DirCacheRemove(vcb, dfd, fcb->fullName.substr(sep + 1));
        if (fcb->isDirectory) vcb->dirCaches.erase(fcb->ino);
        vcb->idPaths.erase(fcb->ino);
        UnlinkFcb(vcb, fcb);
        ReportChange(vcb, fcb->fullName, fcb->isDirectory ? FILE_NOTIFY_CHANGE_DIR_NAME : FILE_NOTIFY_CHANGE_FILE_NAME,
                     FILE_ACTION_REMOVED, done);
    } else {
        // A directory that filled up again stays; so does anything the host
        // will not let go.
        fcb->deletePending = false;
    }
    close(dfd);
}

}  // namespace

NTSTATUS FsdCleanup(PDEVICE_OBJECT device, PIRP irp) {
    Vcb* vcb = VcbOf(device);
    PFILE_OBJECT fo = IoGetCurrentIrpStackLocation(irp)->FileObject;
    Fcb* fcb = FcbOf(fo);
    Ccb* ccb = CcbOf(fo);
    if (!vcb || !fcb || !ccb) return CompleteRequest(irp, STATUS_SUCCESS, 0);
    std::vector<PIRP> done;
    bool remove;
    {
        std::shared_lock<std::shared_mutex> names(vcb->nameLock);
        std::lock_guard<VolumeMutex> lock(vcb->mutex);
        if (!fcb->isVolume) {
            ReleaseLocksOf(fcb, fo, nullptr, &done);
            CompleteNotifyForFileObject(vcb, fo, &done);
        }
        IoRemoveShareAccess(fo, &fcb->ShareAccess);
        if (ccb->deleteOnClose && !fcb->isVolume) fcb->deletePending = true;
        if (fcb->openCount > 0) fcb->openCount--;
        if (fcb->metaDirty && fcb->fd >= 0) {
            vcb->store->Save(fcb->fd, fcb->ino, fcb->meta);
            fcb->metaDirty = false;
        }
        fo->Flags |= FO_CLEANUP_COMPLETE;
        remove = fcb->openCount == 0 && fcb->deletePending && !fcb->isVolume && !fcb->hostPath.empty();
    }
    if (remove) {
        // Removing a name needs the names alone. A delete-pending file takes
        // no new opens, so the decision still holds unless another clean-up
        // of it removed it meanwhile.
        std::unique_lock<std::shared_mutex> names(vcb->nameLock);
        std::lock_guard<VolumeMutex> lock(vcb->mutex);
        if (fcb->openCount == 0 && fcb->deletePending) RemoveFromHost(vcb, fcb, &done);
    }
    CompleteAll(done);
    return CompleteRequest(irp, STATUS_SUCCESS, 0);
}

NTSTATUS FsdClose(PDEVICE_OBJECT device, PIRP irp) {
    Vcb* vcb = VcbOf(device);
    PFILE_OBJECT fo = IoGetCurrentIrpStackLocation(irp)->FileObject;
    Fcb* fcb = FcbOf(fo);
    Ccb* ccb = CcbOf(fo);
    if (!vcb || !fcb) return CompleteRequest(irp, STATUS_SUCCESS, 0);
    bool last;
    {
        std::lock_guard<VolumeMutex> lock(vcb->mutex);
        fo->FsContext2 = nullptr;
        fo->FsContext = nullptr;
        if (fcb->referenceCount > 0) fcb->referenceCount--;
        last = fcb->referenceCount == 0;
        if (last) UnlinkFcb(vcb, fcb);
    }
    // Out of every table: what is freed (and the host descriptor closed) is
    // this request's alone.
    if (ccb) DeleteCcb(ccb);
    if (last) DeleteFcb(fcb);
    return CompleteRequest(irp, STATUS_SUCCESS, 0);
}

}  // namespace tervane::emu::fs
