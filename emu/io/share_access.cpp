// Share-access bookkeeping for file systems. An open that asks for read,
// write or delete access conflicts with earlier opens that did not share
// that access, and an open that does not share an access conflicts with
// earlier opens that hold it. Opens asking for none of the three (attributes
// only, synchronize) never conflict and are not counted.
#include "io/io_internal.h"

namespace {

struct Wanted {
    bool read, write, del, sharedRead, sharedWrite, sharedDelete;
};

Wanted Decode(ACCESS_MASK access, ULONG share) {
    return {(access & (FILE_EXECUTE | FILE_READ_DATA)) != 0, (access & (FILE_WRITE_DATA | FILE_APPEND_DATA)) != 0,
            (access & DELETE) != 0, (share & FILE_SHARE_READ) != 0, (share & FILE_SHARE_WRITE) != 0,
            (share & FILE_SHARE_DELETE) != 0};
}

void Record(PFILE_OBJECT file, const Wanted& w) {
    file->ReadAccess = w.read;
    file->WriteAccess = w.write;
    file->DeleteAccess = w.del;
    file->SharedRead = w.sharedRead;
    file->SharedWrite = w.sharedWrite;
    file->SharedDelete = w.sharedDelete;
}

void Count(PSHARE_ACCESS share, PFILE_OBJECT file, int delta) {
    share->OpenCount += delta;
    share->Readers += file->ReadAccess ? delta : 0;
    share->Writers += file->WriteAccess ? delta : 0;
    share->Deleters += file->DeleteAccess ? delta : 0;
    share->SharedRead += file->SharedRead ? delta : 0;
    share->SharedWrite += file->SharedWrite ? delta : 0;
    share->SharedDelete += file->SharedDelete ? delta : 0;
}

bool Counted(PFILE_OBJECT file) { return file->ReadAccess || file->WriteAccess || file->DeleteAccess; }

}  // namespace

NTSTATUS IoCheckShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess, PFILE_OBJECT FileObject,
                            PSHARE_ACCESS ShareAccess, BOOLEAN Update) {
    Wanted w = Decode(DesiredAccess, DesiredShareAccess);
    Record(FileObject, w);
    if (!w.read && !w.write && !w.del) return STATUS_SUCCESS;
    ULONG open = ShareAccess->OpenCount;
    if ((w.read && ShareAccess->SharedRead < open) || (w.write && ShareAccess->SharedWrite < open) ||
        (w.del && ShareAccess->SharedDelete < open) || (ShareAccess->Readers && !w.sharedRead) ||
        (ShareAccess->Writers && !w.sharedWrite) || (ShareAccess->Deleters && !w.sharedDelete))
        return STATUS_SHARING_VIOLATION;
    if (Update) Count(ShareAccess, FileObject, 1);
    return STATUS_SUCCESS;
}

VOID IoSetShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess, PFILE_OBJECT FileObject,
                      PSHARE_ACCESS ShareAccess) {
    Wanted w = Decode(DesiredAccess, DesiredShareAccess);
    Record(FileObject, w);
    memset(ShareAccess, 0, sizeof(*ShareAccess));
    if (Counted(FileObject)) Count(ShareAccess, FileObject, 1);
}

VOID IoUpdateShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess) {
    if (Counted(FileObject)) Count(ShareAccess, FileObject, 1);
}

VOID IoRemoveShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess) {
    if (Counted(FileObject)) Count(ShareAccess, FileObject, -1);
}
