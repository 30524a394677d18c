// FileRenameInformation of the emulated NTFS driver. The target is named
// one of four ways: a target directory the I/O manager opened
// (Parameters.SetFile.FileObject, its FileName cut to the last component),
// a name relative to a root-directory handle, a full "\??\X:\..." name, or
// a plain name in the file's own directory. A target on another volume is
// STATUS_NOT_SAME_DEVICE (two letters of one volume are the same device).
// As NTFS: an existing target needs ReplaceIfExists and may be neither a
// directory, nor open, nor read-only (STATUS_ACCESS_DENIED); a directory
// may replace a file; a directory with open files below it cannot be
// renamed (STATUS_ACCESS_DENIED).
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>

#include "fs/fsstruc.h"
#include "fs/names.h"
#include "kernel.h"

namespace tervane::emu::fs {

namespace {

struct Target {
    std::u16string dirName;  // full name of the target directory
    std::string dirHost;
    std::u16string leaf;
};

std::u16string ParentOf(const std::u16string& fullName) {
    size_t sep = fullName.rfind(u'\\');
    return sep == 0 ? u"\\" : fullName.substr(0, sep);
}

// Resolves FULL (a full name on this volume) into its directory and leaf,
// walking existing directories only.
NTSTATUS ResolveTarget(Vcb* vcb, const std::u16string& full, Target* t) {
    std::vector<std::u16string> comps;
    bool trailing;
    NTSTATUS status = SplitPath(full, &comps, &trailing);
    if (!NT_SUCCESS(status)) return status;
    if (comps.empty() || trailing) return STATUS_OBJECT_NAME_INVALID;
    int dfd = OpenHostDir(vcb, "");
    t->dirName = u"\\";
    t->dirHost.clear();
    for (size_t i = 0; i + 1 < comps.size(); ++i) {
        Lookup lk;
        status = LookupChild(vcb, dfd, comps[i], &lk);
        close(dfd);
        if (!NT_SUCCESS(status)) return status;
        if (!lk.found || !S_ISDIR(lk.st.st_mode)) return STATUS_OBJECT_PATH_NOT_FOUND;
        t->dirName = JoinNt(t->dirName, lk.name);
        t->dirHost = JoinHost(t->dirHost, lk.hostName);
        dfd = OpenHostDir(vcb, t->dirHost);
        if (dfd < 0) return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    close(dfd);
    t->leaf = comps.back();
    return STATUS_SUCCESS;
}

NTSTATUS FindTarget(Vcb* vcb, Fcb* fcb, PIRP irp, const FILE_RENAME_INFORMATION* ri, Target* t) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    std::u16string name(reinterpret_cast<const char16_t*>(ri->FileName), ri->FileNameLength / 2);
    if (PFILE_OBJECT targetFo = sp->Parameters.SetFile.FileObject) {
        Fcb* dir = FcbOf(targetFo);
        if (!dir || dir->vcb != vcb) return STATUS_NOT_SAME_DEVICE;
        if (!dir->isDirectory) return STATUS_OBJECT_PATH_NOT_FOUND;
        t->dirName = dir->fullName;
        t->dirHost = dir->hostPath;
        t->leaf.assign(reinterpret_cast<const char16_t*>(targetFo->FileName.Buffer), targetFo->FileName.Length / 2);
        return ValidateComponent(t->leaf);
    }
    if (ri->RootDirectory) {
        PVOID object = nullptr;
        NTSTATUS status = ObReferenceObjectByHandle(ri->RootDirectory, 0, *IoFileObjectType, KernelMode, &object, nullptr);
        if (!NT_SUCCESS(status)) return status;
        Fcb* root = FcbOf(static_cast<PFILE_OBJECT>(object));
        bool same = root && root->vcb == vcb;
        std::u16string base = same ? root->fullName : u"";
        bool isDir = same && (root->isDirectory || root->isVolume);
        ObDereferenceObject(object);
        if (!same) return STATUS_NOT_SAME_DEVICE;
        if (!isDir) return STATUS_INVALID_PARAMETER;
        if (name.empty() || name[0] == u'\\') return STATUS_OBJECT_NAME_INVALID;
        return ResolveTarget(vcb, base.empty() ? u"\\" + name : JoinNt(base, name), t);
    }
    if (!name.empty() && name[0] == u'\\') {
        UNICODE_STRING u = MakeUnicodeString(name);
        PVOID object = nullptr;
        std::u16string remaining;
        NTSTATUS status = ObLookupName(&u, TRUE, &object, &remaining);
        if (!NT_SUCCESS(status)) return status == STATUS_OBJECT_NAME_NOT_FOUND ? STATUS_OBJECT_PATH_NOT_FOUND : status;
        bool device = ObGetObjectType(object) == *IoDeviceObjectType;
        Vcb* other = device ? VcbOf(static_cast<PDEVICE_OBJECT>(object)) : nullptr;
        ObDereferenceObject(object);
        if (other != vcb) return device ? STATUS_NOT_SAME_DEVICE : STATUS_OBJECT_PATH_NOT_FOUND;
        return ResolveTarget(vcb, remaining, t);
    }
    if (name.empty()) return STATUS_OBJECT_NAME_INVALID;
    return ResolveTarget(vcb, JoinNt(ParentOf(fcb->fullName), name), t);
}

}  // namespace

NTSTATUS RenameFile(Vcb* vcb, Fcb* fcb, PIRP irp, std::vector<PIRP>* done) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    auto* ri = static_cast<const FILE_RENAME_INFORMATION*>(
        irp->AssociatedIrp.SystemBuffer ? irp->AssociatedIrp.SystemBuffer : RequestBuffer(irp));
    ULONG length = sp->Parameters.SetFile.Length;
    if (ri->FileNameLength % 2 ||
        static_cast<uint64_t>(FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName)) + ri->FileNameLength > length)
        return STATUS_INVALID_PARAMETER;
    if (fcb->hostPath.empty()) return STATUS_ACCESS_DENIED;  // the root
    if (fcb->deletePending) return STATUS_DELETE_PENDING;
    bool replace = ri->ReplaceIfExists || sp->Parameters.SetFile.ReplaceIfExists;

    Target t;
    NTSTATUS status = FindTarget(vcb, fcb, irp, ri, &t);
    if (!NT_SUCCESS(status)) return status;
    std::u16string newFull = JoinNt(t.dirName, t.leaf);
    std::u16string upOld = UpcaseString(fcb->fullName), upNew = UpcaseString(newFull);
    if (fcb->isDirectory) {
        if (upNew.size() > upOld.size() && upNew.compare(0, upOld.size() + 1, upOld + u"\\") == 0)
            return STATUS_INVALID_PARAMETER;  // into its own subtree
        if (HasOpenDescendants(vcb, fcb->fullName)) return STATUS_ACCESS_DENIED;
    }
    size_t slash = fcb->hostPath.rfind('/');
    std::string srcDirHost = slash == std::string::npos ? "" : fcb->hostPath.substr(0, slash);
    std::string srcLeafHost = slash == std::string::npos ? fcb->hostPath : fcb->hostPath.substr(slash + 1);
    std::u16string srcLeaf = fcb->fullName.substr(fcb->fullName.rfind(u'\\') + 1);
    std::string newHost;
    if (!NtNameToHost(t.leaf, &newHost)) return STATUS_OBJECT_NAME_INVALID;

    int srcFd = OpenHostDir(vcb, srcDirHost);
    if (srcFd < 0) return StatusFromErrno(errno);
    int dstFd = OpenHostDir(vcb, t.dirHost);
    if (dstFd < 0) {
        close(srcFd);
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    auto finish = [&](NTSTATUS s) {
        close(srcFd);
        close(dstFd);
        return s;
    };
    Lookup lk;
    status = LookupChild(vcb, dstFd, t.leaf, &lk);
    if (!NT_SUCCESS(status)) return finish(status);
    if (lk.hidden) return finish(STATUS_ACCESS_DENIED);
    bool replacing = false;
    if (lk.found && lk.st.st_ino != fcb->ino) {
        if (!replace) return finish(STATUS_OBJECT_NAME_COLLISION);
        if (S_ISDIR(lk.st.st_mode)) return finish(STATUS_ACCESS_DENIED);
        auto open = vcb->fcbs.find(lk.st.st_ino);
        if (open != vcb->fcbs.end() && open->second->referenceCount > 0) return finish(STATUS_ACCESS_DENIED);
        int tfd = OpenHostChild(dstFd, lk.hostName, false, nullptr);
        FileMeta tmeta;
        if (tfd >= 0) {
            LoadMeta(vcb, tfd, lk.st, &tmeta);
            close(tfd);
        }
        if (ReportedAttributes(tmeta, false) & FILE_ATTRIBUTE_READONLY) return finish(STATUS_ACCESS_DENIED);
        // A replaced name spelled in another case goes first, so the new
        // name takes the caller's spelling.
        if (lk.hostName != newHost && unlinkat(dstFd, lk.hostName.c_str(), 0) != 0)
            return finish(StatusFromErrno(errno));
        replacing = true;
    }
    if (lk.found && lk.st.st_ino == fcb->ino && lk.hostName == newHost && fcb->hostPath == JoinHost(t.dirHost, newHost))
        return finish(STATUS_SUCCESS);  // same name: nothing to do
    if (replacing && fcb->isDirectory && lk.hostName == newHost) {
        // A directory replaces a file (the host refuses that in one rename):
        // the two swap places, then the file, now under the old name, goes.
        if (renameat2(srcFd, srcLeafHost.c_str(), dstFd, newHost.c_str(), RENAME_EXCHANGE) == 0) {
            unlinkat(srcFd, srcLeafHost.c_str(), 0);
        } else if (errno != EINVAL || unlinkat(dstFd, newHost.c_str(), 0) != 0 ||
                   renameat2(srcFd, srcLeafHost.c_str(), dstFd, newHost.c_str(), RENAME_NOREPLACE) != 0) {
            return finish(StatusFromErrno(errno));
        }
    } else {
        unsigned flags = (replacing || (lk.found && lk.st.st_ino == fcb->ino)) ? 0 : RENAME_NOREPLACE;
        if (renameat2(srcFd, srcLeafHost.c_str(), dstFd, newHost.c_str(), flags) != 0)
            return finish(StatusFromErrno(errno));
    }

    if (replacing) {
        vcb->store->Forget(lk.st.st_ino);
        vcb->idPaths.erase(lk.st.st_ino);
        DirCacheRemove(vcb, dstFd, lk.name);
        ReportChange(vcb, JoinNt(t.dirName, lk.name), FILE_NOTIFY_CHANGE_FILE_NAME, FILE_ACTION_REMOVED, done);
    }
    DirCacheRemove(vcb, srcFd, srcLeaf);
    DirCache* cache = GetDirCache(vcb, dstFd);
    auto known = cache->byLong.find(UpcaseString(t.leaf));
    std::u16string shortName;
    if (known != cache->byLong.end() && known->second.hostName == newHost) {
        shortName = known->second.shortName;  // read back with the directory
    } else {
        shortName = GenerateShortName(vcb, dstFd, t.leaf);
        DirCacheAdd(vcb, dstFd, DirEntry{newHost, t.leaf, shortName});
    }
    std::u16string oldFull = fcb->fullName;
    fcb->fullName = newFull;
    fcb->hostPath = JoinHost(t.dirHost, newHost);
    fcb->meta.shortName = shortName;
    fcb->meta.changeTime = NtTimeNow();
    fcb->meta.present |= FileMeta::kHasShortName | FileMeta::kHasChangeTime;
    vcb->store->Save(fcb->fd, fcb->ino, fcb->meta);
    vcb->idPaths[fcb->ino] = newFull;
    ULONG filter = fcb->isDirectory ? FILE_NOTIFY_CHANGE_DIR_NAME : FILE_NOTIFY_CHANGE_FILE_NAME;
    if (EqualNoCase(ParentOf(oldFull), t.dirName)) {
        ReportChange(vcb, oldFull, filter, FILE_ACTION_RENAMED_OLD_NAME, done);
        ReportChange(vcb, newFull, filter, FILE_ACTION_RENAMED_NEW_NAME, done);
    } else {
        ReportChange(vcb, oldFull, filter, FILE_ACTION_REMOVED, done);
        ReportChange(vcb, newFull, filter, FILE_ACTION_ADDED, done);
    }
    return finish(STATUS_SUCCESS);
}

}  // namespace tervane::emu::fs
