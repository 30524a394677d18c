// IRP_MJ_LOCK_CONTROL of the emulated NTFS driver: byte-range locks as the
// FsRtl lock package keeps them. A lock belongs to a file object and a
// process, with a key. An exclusive lock conflicts with every overlapping
// lock; a shared one with overlapping exclusive locks of other owners.
// Reads are blocked by exclusive locks of anyone but the same file object,
// process and key; writes by every overlapping lock except exclusive ones of
// that same owner and key. Ranges of length zero overlap nothing. A request
// that may wait is kept pending and granted when an unlock makes room.
#include <algorithm>

#include "fs/fsstruc.h"

namespace tervane::emu::fs {

namespace {

bool Overlaps(uint64_t o1, uint64_t l1, uint64_t o2, uint64_t l2) {
    if (l1 == 0 || l2 == 0) return false;
    return o1 <= o2 + (l2 - 1) && o2 <= o1 + (l1 - 1);
}

bool SameOwner(const FileLock& l, PFILE_OBJECT fo, PEPROCESS process) {
    return l.fileObject == fo && l.process == process;
}

bool Conflicts(const Fcb* fcb, const FileLock& want) {
    for (const FileLock& l : fcb->locks) {
        if (!Overlaps(l.offset, l.length, want.offset, want.length)) continue;
        if (want.exclusive || l.exclusive) {
            if (!want.exclusive && SameOwner(l, want.fileObject, want.process)) continue;
            return true;
        }
    }
    return false;
}

struct LockRequest {
    FileLock lock;
    bool failImmediately;
};

NTSTATUS ParseLock(PIRP irp, LockRequest* out) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    if (!sp->Parameters.LockControl.Length) return STATUS_INVALID_PARAMETER;
    LONGLONG offset = sp->Parameters.LockControl.ByteOffset.QuadPart;
    LONGLONG length = sp->Parameters.LockControl.Length->QuadPart;
    // Offsets and lengths are unsigned to the lock package; a range must
    // not run past the last byte.
    uint64_t o = static_cast<uint64_t>(offset), l = static_cast<uint64_t>(length);
    if (l != 0 && o + (l - 1) < o) return kStatusInvalidLockRange;
    out->lock = FileLock{o, l, (sp->Flags & SL_EXCLUSIVE_LOCK) != 0, sp->Parameters.LockControl.Key, sp->FileObject,
                         IoGetRequestorProcess(irp)};
    out->failImmediately = (sp->Flags & SL_FAIL_IMMEDIATELY) != 0;
    return STATUS_SUCCESS;
}

// Grants every waiting request that now fits, in arrival order.
void GrantWaiters(Fcb* fcb, std::vector<PIRP>* done) {
    bool granted = true;
    while (granted) {
        granted = false;
        for (size_t i = 0; i < fcb->waitingLocks.size(); ++i) {
            PIRP irp = fcb->waitingLocks[i];
            LockRequest rq;
            ParseLock(irp, &rq);
            if (Conflicts(fcb, rq.lock)) continue;
            fcb->locks.push_back(rq.lock);
            fcb->waitingLocks.erase(fcb->waitingLocks.begin() + static_cast<long>(i));
            irp->IoStatus.Status = STATUS_SUCCESS;
            irp->IoStatus.Information = 0;
            done->push_back(irp);
            granted = true;
            break;
        }
    }
}

}  // namespace

bool CheckLockForRead(Fcb* fcb, uint64_t offset, uint64_t length, ULONG key, PFILE_OBJECT fo, PEPROCESS process) {
    for (const FileLock& l : fcb->locks) {
        if (!l.exclusive || !Overlaps(l.offset, l.length, offset, length)) continue;
        if (SameOwner(l, fo, process) && l.key == key) continue;
        return false;
    }
    return true;
}

bool CheckLockForWrite(Fcb* fcb, uint64_t offset, uint64_t length, ULONG key, PFILE_OBJECT fo, PEPROCESS process) {
    for (const FileLock& l : fcb->locks) {
        if (!Overlaps(l.offset, l.length, offset, length)) continue;
        if (l.exclusive && SameOwner(l, fo, process) && l.key == key) continue;
        return false;
    }
    return true;
}

void ReleaseLocksOf(Fcb* fcb, PFILE_OBJECT fo, PEPROCESS process, std::vector<PIRP>* done) {
    std::erase_if(fcb->locks, [&](const FileLock& l) {
        return l.fileObject == fo && (!process || l.process == process);
    });
    // Requests of this file object still waiting end with it.
    std::erase_if(fcb->waitingLocks, [&](PIRP irp) {
        if (IoGetCurrentIrpStackLocation(irp)->FileObject != fo) return false;
        irp->IoStatus.Status = STATUS_CANCELLED;
        irp->IoStatus.Information = 0;
        done->push_back(irp);
        return true;
    });
    GrantWaiters(fcb, done);
}

NTSTATUS FsdLockControl(PDEVICE_OBJECT device, PIRP irp) {
    Vcb* vcb = VcbOf(device);
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
    Fcb* fcb = FcbOf(sp->FileObject);
    if (!vcb || !fcb) return CompleteRequest(irp, STATUS_INVALID_PARAMETER, 0);
    if (fcb->isDirectory || fcb->isVolume) return CompleteRequest(irp, STATUS_INVALID_PARAMETER, 0);
    std::vector<PIRP> done;
    NTSTATUS status = STATUS_SUCCESS;
    bool pending = false;
    {
        std::lock_guard<VolumeMutex> lock(vcb->mutex);
        LockRequest rq;
        PEPROCESS process = IoGetRequestorProcess(irp);
        switch (sp->MinorFunction) {
            case IRP_MN_LOCK:
                status = ParseLock(irp, &rq);
                if (!NT_SUCCESS(status)) break;
                if (!Conflicts(fcb, rq.lock)) {
                    fcb->locks.push_back(rq.lock);
                } else if (rq.failImmediately) {
                    status = STATUS_LOCK_NOT_GRANTED;
                } else {
                    IoMarkIrpPending(irp);
                    fcb->waitingLocks.push_back(irp);
                    pending = true;
                }
                break;
            case IRP_MN_UNLOCK_SINGLE: {
                status = ParseLock(irp, &rq);
                if (!NT_SUCCESS(status)) break;
                auto it = std::find_if(fcb->locks.begin(), fcb->locks.end(), [&](const FileLock& l) {
                    return l.offset == rq.lock.offset && l.length == rq.lock.length && l.key == rq.lock.key &&
                           SameOwner(l, sp->FileObject, process);
                });
                if (it == fcb->locks.end()) {
                    status = STATUS_RANGE_NOT_LOCKED;
                    break;
                }
                fcb->locks.erase(it);
                GrantWaiters(fcb, &done);
                break;
            }
            case IRP_MN_UNLOCK_ALL:
                std::erase_if(fcb->locks, [&](const FileLock& l) { return SameOwner(l, sp->FileObject, process); });
                GrantWaiters(fcb, &done);
                break;
            case IRP_MN_UNLOCK_ALL_BY_KEY: {
                ULONG key = sp->Parameters.LockControl.Key;
                std::erase_if(fcb->locks, [&](const FileLock& l) {
                    return SameOwner(l, sp->FileObject, process) && l.key == key;
                });
                GrantWaiters(fcb, &done);
                break;
            }
            default:
                status = STATUS_INVALID_DEVICE_REQUEST;
                break;
        }
    }
    CompleteAll(done);
    if (pending) return STATUS_PENDING;
    return CompleteRequest(irp, status, 0);
}

}  // namespace tervane::emu::fs
