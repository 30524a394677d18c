// The FUSE operations of the mount.
#include "operations.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>

#include "errno_map.h"
#include "listing.h"
#include "nt_file.h"

namespace tervane::fuse {
namespace {

// An open file or directory: the handle lives in the process that opened
// it, and the lease keeps that process until the release.
struct OpenFile {
    ProcessRegistry::Lease owner;
    HANDLE handle = nullptr;
    bool append = false;
    bool readOnlyAtClose = false;  // created without write permission
};

MountState& State() { return *static_cast<MountState*>(fuse_get_context()->private_data); }
OpenFile* FileOf(const fuse_file_info* fi) { return fi ? reinterpret_cast<OpenFile*>(fi->fh) : nullptr; }
int Fail(NTSTATUS status) { return -ErrnoFromStatus(status); }

int RunAs(const ProcessRegistry::Lease& lease, const std::function<int()>& fn) {
    if (!lease) return -EIO;
    int result = -EIO;
    try {
        State().machine->RunOnCallingThread(lease.process(), [&] { result = fn(); });
    } catch (const std::exception&) {
        result = -EIO;
    }
    return result;
}

// FN with the object name of PATH, on a thread of the calling process. A
// name NT cannot hold fails with its errno before anything is asked.
int ForPath(const char* path, const std::function<int(const std::u16string&)>& fn) {
    std::u16string name;
    if (int error = ObjectNameFor(path, State().drive, &name)) return -error;
    ProcessRegistry::Lease lease = State().registry->Enter(fuse_get_context()->pid);
    return RunAs(lease, [&] { return fn(name); });
}

// FN on the open file's handle, in the process that holds it.
int ForFile(const fuse_file_info* fi, const std::function<int(OpenFile&)>& fn) {
    OpenFile* file = FileOf(fi);
    if (!file) return -EBADF;
    return RunAs(file->owner, [&] { return fn(*file); });
}

// FN on FI's handle when given, else on a new open of PATH for ACCESS.
int ForHandle(const char* path, const fuse_file_info* fi, ACCESS_MASK access, const std::function<int(HANDLE)>& fn) {
    if (FileOf(fi)) {
        // The open may lack the access this change needs (a utime through a
        // descriptor opened for reading): then the path is opened for it.
        int result = ForFile(fi, [&](OpenFile& f) { return fn(f.handle); });
        if (result != -EACCES || !path) return result;
    }
    return ForPath(path, [&](const std::u16string& name) {
        HANDLE handle = nullptr;
        NTSTATUS status = OpenName(name, access, FILE_OPEN, 0, &handle);
        if (!NT_SUCCESS(status)) return Fail(status);
        int result = fn(handle);
        NtClose(handle);
        return result;
    });
}

void* Init(fuse_conn_info* conn, fuse_config* cfg) {
    // Each process has a view of its own, so nothing the kernel could cache
    // for one is right for another: no name, attribute or page caching.
    cfg->entry_timeout = 0;
    cfg->attr_timeout = 0;
    cfg->negative_timeout = 0;
    cfg->use_ino = 0;
    cfg->hard_remove = 1;
    cfg->nullpath_ok = 1;
    cfg->direct_io = 1;
    cfg->kernel_cache = 0;
    cfg->auto_cache = 0;
    conn->want &= ~FUSE_CAP_WRITEBACK_CACHE;
    conn->max_write = 1u << 20;
    return fuse_get_context()->private_data;
}

// A name NT cannot hold names nothing: looking it up finds nothing (so that
// a program's probe before a create goes on to the create, which is refused
// with the name's errno).
int LookupError(const char* path) {
    std::u16string name;
    int error = path ? ObjectNameFor(path, State().drive, &name) : 0;
    return error == EINVAL || error == EILSEQ ? -ENOENT : -error;
}

int Getattr(const char* path, struct stat* st, fuse_file_info* fi) {
    if (!fi)
        if (int error = LookupError(path)) return error;
    return ForHandle(path, fi, FILE_READ_ATTRIBUTES, [&](HANDLE h) {
        NtAttributes a;
        NTSTATUS status = QueryAttributes(h, &a);
        if (!NT_SUCCESS(status)) return Fail(status);
        FillStat(a, State().owner, st);
        return 0;
    });
}

int Access(const char* path, int mask) {
    if (int error = LookupError(path)) return error;
    return ForPath(path, [&](const std::u16string& name) {
        NtAttributes a;
        NTSTATUS status = QueryAttributesByName(name, &a);
        if (!NT_SUCCESS(status)) return Fail(status);
        bool readOnly = (a.attributes & FILE_ATTRIBUTE_READONLY) && !(a.attributes & FILE_ATTRIBUTE_DIRECTORY);
        return (mask & W_OK) && readOnly ? -EACCES : 0;
    });
}

int OpenWith(const char* path, fuse_file_info* fi, bool create, mode_t mode) {
    CreateParameters p = CreateParametersFor(fi->flags, create);
    auto file = std::make_unique<OpenFile>();
    file->append = p.append;
    file->owner = State().registry->Enter(fuse_get_context()->pid);
    std::u16string name;
    if (int error = ObjectNameFor(path, State().drive, &name)) return -error;
    int result = RunAs(file->owner, [&] {
        ULONG_PTR information = 0;
        ACCESS_MASK access = p.access | FILE_READ_ATTRIBUTES | (create ? FILE_WRITE_ATTRIBUTES : 0);
        NTSTATUS status = OpenName(name, access, p.disposition, p.options, &file->handle, FILE_ATTRIBUTE_NORMAL,
                                   &information);
        if (!NT_SUCCESS(status)) return Fail(status);
        // A file made without write permission is still written through
        // the open that made it; it turns read-only when that open ends.
        file->readOnlyAtClose = create && information == FILE_CREATED && !(mode & S_IWUSR);
        return 0;
    });
    if (result == 0) fi->fh = reinterpret_cast<uint64_t>(file.release());
    return result;
}

int Open(const char* path, fuse_file_info* fi) { return OpenWith(path, fi, false, 0); }
int Create(const char* path, mode_t mode, fuse_file_info* fi) { return OpenWith(path, fi, true, mode); }

int Release(const char*, fuse_file_info* fi) {
    OpenFile* file = FileOf(fi);
    if (!file) return 0;
    ForFile(fi, [](OpenFile& f) {
        if (f.readOnlyAtClose) {
            NtAttributes a;
            if (NT_SUCCESS(QueryAttributes(f.handle, &a)))
                SetBasic(f.handle, {}, {}, AttributesForMode(a.attributes, 0444));
        }
        NtClose(f.handle);
        return 0;
    });
    delete file;
    fi->fh = 0;
    return 0;
}

int Read(const char*, char* buffer, size_t size, off_t offset, fuse_file_info* fi) {
    return ForFile(fi, [&](OpenFile& f) {
        IO_STATUS_BLOCK iosb{};
        LARGE_INTEGER at;
        at.QuadPart = offset;
        NTSTATUS status = NtReadFile(f.handle, nullptr, nullptr, nullptr, &iosb, buffer, static_cast<ULONG>(size),
                                     &at, nullptr);
        if (status == STATUS_END_OF_FILE) return 0;
        if (!NT_SUCCESS(status)) return Fail(status);
        return static_cast<int>(iosb.Information);
    });
}

int Write(const char*, const char* buffer, size_t size, off_t offset, fuse_file_info* fi) {
    return ForFile(fi, [&](OpenFile& f) {
        IO_STATUS_BLOCK iosb{};
        LARGE_INTEGER at;
        // An appending open writes at the end as it is now, whatever offset
        // the kernel computed from a size it may have read before another
        // appender wrote.
        if (f.append) {
            at.LowPart = FILE_WRITE_TO_END_OF_FILE;
            at.HighPart = -1;
        } else {
            at.QuadPart = offset;
        }
        NTSTATUS status = NtWriteFile(f.handle, nullptr, nullptr, nullptr, &iosb, const_cast<char*>(buffer),
                                      static_cast<ULONG>(size), &at, nullptr);
        if (!NT_SUCCESS(status)) return Fail(status);
        return static_cast<int>(iosb.Information);
    });
}

int Truncate(const char* path, off_t size, fuse_file_info* fi) {
    if (size < 0) return -EINVAL;
    return ForHandle(path, fi, FILE_WRITE_DATA, [&](HANDLE h) { return Fail(SetEndOfFile(h, size)); });
}

int Flush(const char*, fuse_file_info*) { return 0; }

int Fsync(const char*, int, fuse_file_info* fi) {
    return ForFile(fi, [](OpenFile& f) {
        IO_STATUS_BLOCK iosb{};
        return Fail(NtFlushBuffersFile(f.handle, &iosb));
    });
}

// Deletes NAME (a file or, with DIRECTORY, a directory). NT refuses to
// delete a read-only file; POSIX asks only for the directory's permission,
// so the attribute is cleared and the delete tried once more.
int Remove(const std::u16string& name, bool directory) {
    HANDLE h = nullptr;
    ULONG options = directory ? FILE_DIRECTORY_FILE : FILE_NON_DIRECTORY_FILE;
    NTSTATUS status = OpenName(name, DELETE | FILE_READ_ATTRIBUTES, FILE_OPEN, options, &h);
    if (!NT_SUCCESS(status)) return Fail(status);
    status = SetDisposition(h);
    NtClose(h);
    if (status == STATUS_CANNOT_DELETE && !directory) {
        status = OpenName(name, DELETE | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES, FILE_OPEN, options, &h);
        if (!NT_SUCCESS(status)) return Fail(status);
        NtAttributes a;
        status = QueryAttributes(h, &a);
        if (NT_SUCCESS(status)) status = SetBasic(h, {}, {}, AttributesForMode(a.attributes, 0644));
        if (NT_SUCCESS(status)) status = SetDisposition(h);
        NtClose(h);
    }
    return Fail(status);
}

int Unlink(const char* path) {
    return ForPath(path, [](const std::u16string& name) { return Remove(name, false); });
}
int Rmdir(const char* path) {
    return ForPath(path, [](const std::u16string& name) { return Remove(name, true); });
}

int Mkdir(const char* path, mode_t) {
    return ForPath(path, [](const std::u16string& name) {
        HANDLE h = nullptr;
        NTSTATUS status = OpenName(name, FILE_LIST_DIRECTORY, FILE_CREATE, FILE_DIRECTORY_FILE, &h,
                                   FILE_ATTRIBUTE_NORMAL);
        if (NT_SUCCESS(status)) NtClose(h);
        return Fail(status);
    });
}

int RenameEntry(const char* from, const char* to, unsigned int flags) {
    if (flags & ~RENAME_NOREPLACE) return -EINVAL;  // RENAME_EXCHANGE, RENAME_WHITEOUT: no NT form
    std::u16string target;
    if (int error = ObjectNameFor(to, State().drive, &target)) return -error;
    bool replace = !(flags & RENAME_NOREPLACE);
    return ForPath(from, [&](const std::u16string& source) {
        HANDLE h = nullptr;
        NTSTATUS status = OpenName(source, DELETE | FILE_READ_ATTRIBUTES, FILE_OPEN, 0, &h);
        if (!NT_SUCCESS(status)) return Fail(status);
        status = Rename(h, target, replace);
        if (status == STATUS_ACCESS_DENIED && replace) {
            // POSIX replaces a read-only file and an empty directory; NT
            // replaces neither, so the target goes first. A target that
            // cannot go leaves the rename refused as it was.
            NtAttributes a;
            if (NT_SUCCESS(QueryAttributesByName(target, &a))) {
                bool directory = a.attributes & FILE_ATTRIBUTE_DIRECTORY;
                if (Remove(target, directory) == 0) status = Rename(h, target, false);
            }
        }
        NtClose(h);
        return Fail(status);
    });
}

// Directories have no permission bits of their own (always 0777 & ~umask);
// a file keeps only its owner's write bit, as the read-only attribute.
int Chmod(const char* path, mode_t mode, fuse_file_info* fi) {
    return ForHandle(path, fi, FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES, [&](HANDLE h) {
        NtAttributes a;
        NTSTATUS status = QueryAttributes(h, &a);
        if (!NT_SUCCESS(status)) return Fail(status);
        if (a.attributes & FILE_ATTRIBUTE_DIRECTORY) return 0;
        ULONG wanted = AttributesForMode(a.attributes, mode);
        if (wanted == (a.attributes ? a.attributes : FILE_ATTRIBUTE_NORMAL)) return 0;
        return Fail(SetBasic(h, {}, {}, wanted));
    });
}

// Owners are not kept: a change to the owner the mount reports is no
// change; any other is refused.
int Chown(const char*, uid_t uid, gid_t gid, fuse_file_info*) {
    const Ownership& o = State().owner;
    bool same = (uid == static_cast<uid_t>(-1) || uid == o.uid) && (gid == static_cast<gid_t>(-1) || gid == o.gid);
    return same ? 0 : -EPERM;
}

int Utimens(const char* path, const struct timespec tv[2], fuse_file_info* fi) {
    auto pick = [](const struct timespec& t) {
        LARGE_INTEGER v{};
        if (t.tv_nsec == UTIME_OMIT) return v;
        if (t.tv_nsec == UTIME_NOW) {
            struct timespec now;
            clock_gettime(CLOCK_REALTIME, &now);
            return NtFromTimespec(now);
        }
        return NtFromTimespec(t);
    };
    LARGE_INTEGER access = tv ? pick(tv[0]) : pick({0, UTIME_NOW});
    LARGE_INTEGER write = tv ? pick(tv[1]) : pick({0, UTIME_NOW});
    return ForHandle(path, fi, FILE_WRITE_ATTRIBUTES, [&](HANDLE h) { return Fail(SetBasic(h, access, write, 0)); });
}

int Statfs(const char*, struct statvfs* st) {
    return ForPath("/", [&](const std::u16string& root) {
        HANDLE h = nullptr;
        NTSTATUS status = OpenName(root, FILE_READ_ATTRIBUTES, FILE_OPEN, FILE_DIRECTORY_FILE, &h);
        if (!NT_SUCCESS(status)) return Fail(status);
        FILE_FS_FULL_SIZE_INFORMATION info{};
        IO_STATUS_BLOCK iosb{};
        status = NtQueryVolumeInformationFile(h, &iosb, &info, sizeof info, FileFsFullSizeInformation);
        NtClose(h);
        if (!NT_SUCCESS(status)) return Fail(status);
        *st = {};
        st->f_bsize = st->f_frsize = info.SectorsPerAllocationUnit * info.BytesPerSector;
        st->f_blocks = info.TotalAllocationUnits.QuadPart;
        st->f_bfree = info.ActualAvailableAllocationUnits.QuadPart;
        st->f_bavail = info.CallerAvailableAllocationUnits.QuadPart;
        st->f_namemax = 255;
        return 0;
    });
}

int Opendir(const char* path, fuse_file_info* fi) {
    auto file = std::make_unique<OpenFile>();
    file->owner = State().registry->Enter(fuse_get_context()->pid);
    std::u16string name;
    if (int error = ObjectNameFor(path, State().drive, &name)) return -error;
    int result = RunAs(file->owner, [&] {
        return Fail(OpenName(name, FILE_LIST_DIRECTORY, FILE_OPEN, FILE_DIRECTORY_FILE, &file->handle));
    });
    if (result == 0) fi->fh = reinterpret_cast<uint64_t>(file.release());
    return result;
}

int Readdir(const char*, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info* fi, fuse_readdir_flags) {
    std::vector<DirectoryEntry> entries;
    int result = ForFile(fi, [&](OpenFile& f) {
        std::vector<DirectoryEntry> all;
        NTSTATUS status = ListDirectory(f.handle, &all);
        if (!NT_SUCCESS(status)) return Fail(status);
        entries = UniqueEntries(all);
        return 0;
    });
    if (result) return result;
    struct stat st {};
    st.st_mode = S_IFDIR;
    fill(buffer, ".", &st, 0, static_cast<fuse_fill_dir_flags>(0));
    fill(buffer, "..", &st, 0, static_cast<fuse_fill_dir_flags>(0));
    for (const auto& e : entries) {
        st.st_mode = (e.attributes & FILE_ATTRIBUTE_DIRECTORY) ? S_IFDIR : S_IFREG;
        if (fill(buffer, emu::Utf16ToUtf8(e.name).c_str(), &st, 0, static_cast<fuse_fill_dir_flags>(0))) break;
    }
    return 0;
}

int Releasedir(const char* path, fuse_file_info* fi) { return Release(path, fi); }

// What NT cannot express is refused, never faked.
int Refuse(const char*, const char*) { return -EPERM; }
int RefuseNode(const char*, mode_t, dev_t) { return -EPERM; }
int Readlink(const char*, char*, size_t) { return -EINVAL; }  // nothing here is a symbolic link

fuse_operations MakeOperations() {
    fuse_operations ops{};
    ops.init = Init;
    ops.getattr = Getattr;
    ops.access = Access;
    ops.open = Open;
    ops.create = Create;
    ops.release = Release;
    ops.read = Read;
    ops.write = Write;
    ops.truncate = Truncate;
    ops.flush = Flush;
    ops.fsync = Fsync;
    ops.unlink = Unlink;
    ops.rmdir = Rmdir;
    ops.mkdir = Mkdir;
    ops.rename = RenameEntry;
    ops.chmod = Chmod;
    ops.chown = Chown;
    ops.utimens = Utimens;
    ops.statfs = Statfs;
    ops.opendir = Opendir;
    ops.readdir = Readdir;
    ops.releasedir = Releasedir;
    ops.symlink = Refuse;
    ops.link = Refuse;
    ops.mknod = RefuseNode;
    ops.readlink = Readlink;
    return ops;
}

}  // namespace

const fuse_operations& Operations() {
    static const fuse_operations ops = MakeOperations();
    return ops;
}

}  // namespace tervane::fuse
