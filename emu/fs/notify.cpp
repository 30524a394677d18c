// Directory change notification of the emulated NTFS driver. A request
// waits on its directory until the file system itself changes something
// there (or below, with SL_WATCH_TREE) that its filter selects; it then
// completes with one FILE_NOTIFY_INFORMATION record naming the change
// relative to the watched directory. A buffer too small for the record
// completes with STATUS_NOTIFY_ENUM_DIR and no data, as NT tells a caller
// to read the directory again. Changes made while no request waits are
// not kept; changes made on the host by others are not seen.
#include "fs/fsstruc.h"
#include "fs/names.h"

namespace tervane::emu::fs {

namespace {

// The name of FULLNAME relative to DIRECTORY, or false when it is not
// below it (directly, or at any depth with TREE).
bool RelativeName(const std::u16string& directory, const std::u16string& fullName, bool tree, std::u16string* rel) {
    std::u16string prefix = directory == u"\\" ? directory : directory + u"\\";
    if (fullName.size() <= prefix.size() || !EqualNoCase(std::u16string_view(fullName).substr(0, prefix.size()), prefix))
        return false;
    *rel = fullName.substr(prefix.size());
    return tree || rel->find(u'\\') == std::u16string::npos;
}

}  // namespace

void ReportChange(Vcb* vcb, const std::u16string& fullName, ULONG filter, ULONG action, std::vector<PIRP>* done) {
    std::erase_if(vcb->notifyWaiters, [&](NotifyWaiter& w) {
        std::u16string rel;
        if (!(w.filter & filter) || !RelativeName(w.directory, fullName, w.watchTree, &rel)) return false;
        PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(w.irp);
        ULONG length = sp->Parameters.NotifyDirectory.Length;
        ULONG need = static_cast<ULONG>(FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName) + rel.size() * 2);
        auto* out = static_cast<FILE_NOTIFY_INFORMATION*>(RequestBuffer(w.irp));
        if (!out || length < need) {
            w.irp->IoStatus.Status = STATUS_NOTIFY_ENUM_DIR;
            w.irp->IoStatus.Information = 0;
        } else {
            out->NextEntryOffset = 0;
            out->Action = action;
            out->FileNameLength = static_cast<ULONG>(rel.size() * 2);
            memcpy(out->FileName, rel.data(), rel.size() * 2);
            w.irp->IoStatus.Status = STATUS_SUCCESS;
            w.irp->IoStatus.Information = need;
        }
        done->push_back(w.irp);
        return true;
    });
}

void CompleteNotifyForFileObject(Vcb* vcb, PFILE_OBJECT fo, std::vector<PIRP>* done) {
    std::erase_if(vcb->notifyWaiters, [&](NotifyWaiter& w) {
        if (w.fileObject != fo) return false;
        w.irp->IoStatus.Status = STATUS_NOTIFY_CLEANUP;
        w.irp->IoStatus.Information = 0;
        done->push_back(w.irp);
        return true;
    });
}

NTSTATUS FsdNotifyChangeDirectory(Vcb* vcb, PIRP irp, std::unique_lock<VolumeMutex>& lock) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    Fcb* fcb = FcbOf(sp->FileObject);
    ULONG filter = sp->Parameters.NotifyDirectory.CompletionFilter;
    if (!fcb || !fcb->isDirectory || filter == 0 || (filter & ~FILE_NOTIFY_VALID_MASK)) {
        lock.unlock();
        return CompleteRequest(irp, STATUS_INVALID_PARAMETER, 0);
    }
    if (sp->FileObject->Flags & FO_CLEANUP_COMPLETE) {
        lock.unlock();
        return CompleteRequest(irp, STATUS_NOTIFY_CLEANUP, 0);
    }
    IoMarkIrpPending(irp);
    vcb->notifyWaiters.push_back(
        NotifyWaiter{irp, sp->FileObject, fcb->fullName, filter, (sp->Flags & SL_WATCH_TREE) != 0});
    lock.unlock();
    return STATUS_PENDING;
}

}  // namespace tervane::emu::fs
