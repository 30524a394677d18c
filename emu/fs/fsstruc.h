// Shared records of the emulated NTFS driver: the volume control block
// (device extension of the volume device), the file control block
// (FILE_OBJECT.FsContext, one per open file) and the context control block
// (FILE_OBJECT.FsContext2, one per file object), plus the routines the
// request handlers share.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <nt/ntifs.h>

#include "fs/metadata.h"
#include "machine/adaptive_mutex.h"

namespace tervane::emu::fs {

// Pool tags, as they read in memory.
constexpr ULONG MakeTag(const char (&s)[5]) {
    return ULONG(uint8_t(s[0])) | ULONG(uint8_t(s[1])) << 8 | ULONG(uint8_t(s[2])) << 16 | ULONG(uint8_t(s[3])) << 24;
}
constexpr ULONG kTagFcb = MakeTag("TfsF");
constexpr ULONG kTagCcb = MakeTag("TfsC");
constexpr ULONG kTagVpb = MakeTag("TfsV");

// The volume mutex: held for short stretches by every request.
using VolumeMutex = AdaptiveMutex;

constexpr CSHORT kNodeTypeFcb = 0x0702;
constexpr CSHORT kNodeTypeCcb = 0x0703;
constexpr ULONG kClusterSize = 4096;
constexpr NTSTATUS kStatusInvalidLockRange = static_cast<NTSTATUS>(0xC00001A1L);

struct Vcb;
struct Fcb;

// Information classes arrive in enum-typed fields that a caller may have
// filled with any number: they are read as plain numbers, never as an
// enum value outside its range.
template <typename E>
ULONG ClassValue(const E& field) {
    static_assert(sizeof(E) == sizeof(ULONG));
    ULONG v;
    memcpy(&v, &field, sizeof v);
    return v;
}

// One entry of a host directory as the volume shows it.
struct DirEntry {
    std::string hostName;
    std::u16string name;       // long name, case as on the host
    std::u16string shortName;  // empty when the long name is a valid 8.3 name
};

// The volume's view of one host directory: every visible name by upcased
// long name (which is also the order NTFS lists an index in) and the short
// names. Kept current by the file system's own changes; a host stamp change
// made by anyone else makes it be read again.
struct DirCache {
    int64_t stampMtime = -1, stampCtime = -1;
    std::map<std::u16string, DirEntry> byLong;                    // upcased long name -> entry
    std::unordered_map<std::u16string, std::u16string> shortToLong;  // upcased short -> upcased long
};

// A byte-range lock.
struct FileLock {
    uint64_t offset, length;
    bool exclusive;
    ULONG key;
    PFILE_OBJECT fileObject;
    PEPROCESS process;
};

// A change-notification request waiting on a directory.
struct NotifyWaiter {
    PIRP irp;
    PFILE_OBJECT fileObject;
    std::u16string directory;  // full name of the watched directory
    ULONG filter;
    bool watchTree;
};

struct Fcb {
    FSRTL_COMMON_FCB_HEADER Header;  // first: filters read it
    ERESOURCE MainResource;
    ERESOURCE PagingIoResource;
    SECTION_OBJECT_POINTERS SectionObjects;
    SHARE_ACCESS ShareAccess;
    Vcb* vcb = nullptr;
    bool isVolume = false;    // an open of the volume itself
    bool isDirectory = false;
    bool deletePending = false;
    ULONG openCount = 0;       // file objects not yet cleaned up
    ULONG referenceCount = 0;  // file objects not yet closed
    uint64_t ino = 0;
    int fd = -1;               // host descriptor: read-write when the host allows
    bool fdWritable = false;
    std::u16string fullName;   // "\dir\name", long names as stored; "\" for the root
    std::string hostPath;      // relative to the volume root; "" for the root
    FileMeta meta;
    bool metaDirty = false;    // written back at cleanup
    std::vector<FileLock> locks;
    std::vector<PIRP> waitingLocks;
};

struct Ccb {
    CSHORT NodeTypeCode = kNodeTypeCcb;
    ACCESS_MASK grantedAccess = 0;
    bool deleteOnClose = false;
    // Directory enumeration: the pattern of the first query, a sorted
    // snapshot of the directory taken then, and the cursor into it
    // (0 = ".", 1 = "..", 2.. = snapshot entries).
    bool enumStarted = false;
    std::u16string pattern;
    bool patternHasWildcards = false;
    std::vector<DirEntry> snapshot;
    size_t cursor = 0;
};

// The device extension of a volume device.
struct Vcb {
    PDEVICE_OBJECT volumeDevice = nullptr;
    PDEVICE_OBJECT storageDevice = nullptr;
    PVPB vpb = nullptr;
    bool ownVpb = false;
    std::string hostRoot;
    int rootFd = -1;
    dev_t rootDev = 0;
    uint64_t rootIno = 0;
    ULONG serialNumber = 0;
    int64_t creationTime = 0;
    std::unique_ptr<MetaStore> store;
    // Names: held shared by opens that change nothing on the host, and by
    // reads and clean-ups that remove nothing; exclusively by everything
    // that makes, removes, renames or empties a file. Taken before mutex.
    std::shared_mutex nameLock;
    // Guards everything below and every Fcb/Ccb of the volume. Opens under
    // a shared nameLock leave it for their host calls.
    VolumeMutex mutex;
    std::unordered_map<uint64_t, Fcb*> fcbs;            // by inode
    // Control blocks taken out of fcbs so far, and the inodes of the last
    // kUnlinkedKept of them (unlink N at N % kUnlinkedKept): an open that
    // read a file's status before a control block of that file went reads
    // it again before it makes a new one (see UnlinkedSince).
    static constexpr uint64_t kUnlinkedKept = 64;
    std::atomic<uint64_t> fcbsUnlinked{0};
    uint64_t unlinkedInodes[kUnlinkedKept] = {};
    std::unordered_map<uint64_t, std::u16string> idPaths;  // inode -> full name last seen
    std::map<uint64_t, DirCache> dirCaches;              // by directory inode
    std::vector<NotifyWaiter> notifyWaiters;
    Fcb* volumeFcb = nullptr;
};

// ---- Host access (hostfs.cpp) ----------------------------------------------
// A resolved child of a directory.
struct Lookup {
    bool found = false;
    bool hidden = false;   // present on the host but not shown (link, device, ...)
    std::string hostName;
    std::u16string name;   // as stored (long name)
    struct stat st {};
};
// Opens the directory HOSTPATH (relative to the root; "" = root) walking
// component by component without following links. -1 with errno on failure.
int OpenHostDir(Vcb* vcb, const std::string& hostPath);
// Opens the directory HOSTPATH (relative to the root) in one host call that
// refuses, as the walk of OpenHostDir does, links and anything outside the
// volume. -1 with errno on failure, also where the host lacks the call: the
// caller then walks.
int OpenHostDirBeneath(Vcb* vcb, const std::string& hostPath);
// Opens the regular file or directory HOSTPATH (relative to the root, every
// component spelled as on the host) for data, confined as
// OpenHostDirBeneath, and fills *ST. -1 with errno when the host cannot
// tell so directly (no such spelling, a link on the way, something that is
// no regular file or directory, no such call): the caller then walks.
int OpenHostFileBeneath(Vcb* vcb, const std::string& hostPath, bool* writable, struct stat* st);
// Resolves NAME (long or short, any case) inside the directory open as DIRFD.
// Needs vcb->mutex (the directory cache); it is LookupChildExact, then, when
// that asks for it, LookupChildCached.
NTSTATUS LookupChild(Vcb* vcb, int dirFd, const std::u16string& name, Lookup* out);
// NAME by its exact host spelling: host calls only, no lock needed. Sets
// *ASKCACHE when that spelling names nothing on the host, so that only the
// directory cache (other case, short names) can tell.
NTSTATUS LookupChildExact(int dirFd, const std::u16string& name, Lookup* out, bool* askCache);
NTSTATUS LookupChildCached(Vcb* vcb, int dirFd, const std::u16string& name, Lookup* out);
// The directory's cache, read again when stale.
DirCache* GetDirCache(Vcb* vcb, int dirFd);
// Records a change the file system made itself in the directory open as DIRFD.
void DirCacheAdd(Vcb* vcb, int dirFd, const DirEntry& entry);
void DirCacheRemove(Vcb* vcb, int dirFd, const std::u16string& name);
// A short name for LONGNAME unique in the directory (empty when not needed).
std::u16string GenerateShortName(Vcb* vcb, int dirFd, const std::u16string& longName);
// Opens a regular file or directory child for data; refuses anything else.
int OpenHostChild(int dirFd, const std::string& hostName, bool directory, bool* writable);
std::string JoinHost(const std::string& dir, const std::string& name);
std::u16string JoinNt(const std::u16string& dir, const std::u16string& name);
NTSTATUS StatusFromErrno(int err);
// Reads attributes and times of an open host file as NTFS reports them.
struct FileTimes {
    int64_t creation, lastAccess, lastWrite, change;
};
void GetTimes(const struct stat& st, const FileMeta& meta, FileTimes* times);
ULONG ReportedAttributes(const FileMeta& meta, bool directory);
// Loads the metadata of a host file whose status ST was just read.
void LoadMeta(Vcb* vcb, int fd, const struct stat& st, FileMeta* meta);
// Finds the full name of inode INO, walking the volume when it is not known.
bool FindPathById(Vcb* vcb, uint64_t ino, std::u16string* fullName, std::string* hostPath);

// ---- Control blocks (fcbsup.cpp) -------------------------------------------
Fcb* CreateFcb(Vcb* vcb, uint64_t ino);
void DeleteFcb(Fcb* fcb);
// Takes FCB out of the volume's tables (it stays allocated).
void UnlinkFcb(Vcb* vcb, Fcb* fcb);
// True when a control block of inode INO may have gone since the volume's
// unlink count was SINCE; also when too many went to tell. Needs vcb->mutex.
bool UnlinkedSince(const Vcb* vcb, uint64_t since, uint64_t ino);
Ccb* CreateCcb();
void DeleteCcb(Ccb* ccb);
Fcb* FcbOf(PFILE_OBJECT fileObject);
Ccb* CcbOf(PFILE_OBJECT fileObject);
Vcb* VcbOf(PDEVICE_OBJECT deviceObject);
// The buffer of a request: the MDL's system address, the system buffer of
// buffered I/O, or the caller's buffer.
PVOID RequestBuffer(PIRP irp);
NTSTATUS CompleteRequest(PIRP irp, NTSTATUS status, ULONG_PTR information);
// True when any open file lies below the directory FULLNAME.
bool HasOpenDescendants(Vcb* vcb, const std::u16string& fullName);

// ---- Change notification (notify.cpp) --------------------------------------
// Reports a change of FULLNAME to the requests watching its directory; the
// completed requests are appended to DONE for completion outside the lock.
void ReportChange(Vcb* vcb, const std::u16string& fullName, ULONG filter, ULONG action, std::vector<PIRP>* done);
void CompleteNotifyForFileObject(Vcb* vcb, PFILE_OBJECT fileObject, std::vector<PIRP>* done);
void CompleteAll(std::vector<PIRP>& done);

// ---- Byte-range locks (lockctrl.cpp) -----------------------------------------
bool CheckLockForRead(Fcb* fcb, uint64_t offset, uint64_t length, ULONG key, PFILE_OBJECT fo, PEPROCESS process);
bool CheckLockForWrite(Fcb* fcb, uint64_t offset, uint64_t length, ULONG key, PFILE_OBJECT fo, PEPROCESS process);
// Cleanup: drops the locks of FO in PROCESS and fails its waiting requests.
void ReleaseLocksOf(Fcb* fcb, PFILE_OBJECT fo, PEPROCESS process, std::vector<PIRP>* done);

// ---- Security (security.cpp) -----------------------------------------------
std::vector<uint8_t> DefaultSecurityDescriptor(bool directory);

// ---- Dispatch routines -----------------------------------------------------
NTSTATUS NTAPI FsdCreate(PDEVICE_OBJECT, PIRP);
NTSTATUS NTAPI FsdCleanup(PDEVICE_OBJECT, PIRP);
NTSTATUS NTAPI FsdClose(PDEVICE_OBJECT, PIRP);
NTSTATUS NTAPI FsdRead(PDEVICE_OBJECT, PIRP);
NTSTATUS NTAPI FsdWrite(PDEVICE_OBJECT, PIRP);
NTSTATUS NTAPI FsdQueryInformation(PDEVICE_OBJECT, PIRP);
NTSTATUS NTAPI FsdSetInformation(PDEVICE_OBJECT, PIRP);
NTSTATUS NTAPI FsdDirectoryControl(PDEVICE_OBJECT, PIRP);
NTSTATUS NTAPI FsdQueryVolumeInformation(PDEVICE_OBJECT, PIRP);
NTSTATUS NTAPI FsdFileSystemControl(PDEVICE_OBJECT, PIRP);
NTSTATUS NTAPI FsdLockControl(PDEVICE_OBJECT, PIRP);
NTSTATUS NTAPI FsdQuerySecurity(PDEVICE_OBJECT, PIRP);
NTSTATUS NTAPI FsdSetSecurity(PDEVICE_OBJECT, PIRP);
NTSTATUS NTAPI FsdFlushBuffers(PDEVICE_OBJECT, PIRP);
NTSTATUS FsdNotifyChangeDirectory(Vcb* vcb, PIRP irp, std::unique_lock<VolumeMutex>& lock);

// Forces the file store for metadata on volumes mounted from now on (tests
// of hosts without extended attributes).
void FsSetForceMetadataFiles(bool force);

}  // namespace tervane::emu::fs
