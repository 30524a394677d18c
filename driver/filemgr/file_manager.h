// Operations of the driver on real files across the filter directories (the
// layered open they build on is in control/layered_open.h) and the request
// packets the driver builds itself and sends below its filter device.
#pragma once

#include "platform/platform.h"

#include "control/layered_open.h"

#define FILE_MANAGER_SOURCE "file_manager"

// ---- Own request packets -----------------------------------------------------

// Sends IRP_MJ_QUERY_INFORMATION for FileObject straight to DeviceObject and
// waits for it. TRUE when it succeeded.
BOOLEAN QueryFileInformationWithIrp(PDEVICE_OBJECT DeviceObject, PFILE_OBJECT FileObject,
                                    FILE_INFORMATION_CLASS FileInformationClass, PVOID Buffer, ULONG Length);

// Sends IRP_MJ_READ (Read) or IRP_MJ_WRITE for FileObject below FilterDevice
// (through CallLowerDevice) and waits for it. With CallerIrp the data buffer
// (its MDL, else system buffer, else user buffer) and the request flags are
// the caller's; without one, Buffer and IrpFlags are used. Returns the status
// written into IoStatus, whose Information holds the bytes moved.
NTSTATUS ReadWriteFileWithIrp(PIRP CallerIrp, BOOLEAN Read, ULONG RouteFlag, PFILE_OBJECT FileObject,
                              PDEVICE_OBJECT FilterDevice, PVOID Buffer, LARGE_INTEGER ByteOffset, ULONG Length,
                              ULONG Key, ULONG IrpFlags, PIO_STATUS_BLOCK IoStatus);

// Reads (Read) or writes Length bytes of Buffer at ByteOffset of the file
// FileObject, with an own request sent to the device below this driver's
// filter on the file's volume (the top of its stack when no filter of ours
// is there), and waits for it. The file system moves the position of a
// synchronous FileObject as for any read or write. Returns the status
// written into IoStatus, whose Information holds the bytes moved.
NTSTATUS TransferBelowFilter(BOOLEAN Read, PFILE_OBJECT FileObject, PDEVICE_OBJECT FilterDevice, PVOID Buffer,
                             LARGE_INTEGER ByteOffset, ULONG Length, ULONG Key, PIO_STATUS_BLOCK IoStatus);

// Passes Irp down: to the device below drive C:'s filter device when the
// route flag holds filter flag 1 or 2, else to LowerDevice.
NTSTATUS CallLowerDevice(ULONG RouteFlag, PDEVICE_OBJECT LowerDevice, PIRP Irp);

// Completion of every own request: copies the status to the user status
// block, signals the user event, frees the request.
NTSTATUS NTAPI OwnIrpCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);

// ---- Existence across filter directories ----------------------------------------

// Opens the real path for reading and closes it again: a success status means
// the object exists. Failures other than "name/path not found" are logged.
NTSTATUS CheckFileExists(PCUNICODE_STRING RealPath);

// The filter flags, among FilterMask, of the filter directories in which the
// drive path names an object. Filter directory 0 is probed on disk; the
// others only when the path is not hidden and their index (if any) lists it.
// *Status (optional) receives the most telling probe status: success, then
// STATUS_OBJECT_NAME_NOT_FOUND, then STATUS_OBJECT_PATH_NOT_FOUND.
// *CheckStatus (optional) receives STATUS_SUCCESS, or the failure of a
// probe that could not be made for want of memory: the mask may then lack a
// copy that exists, and a caller that acts on the mask fails with that status.
ULONG FiltCheckFileExists(PCUNICODE_STRING Path, ULONG FilterMask, PNTSTATUS Status, PNTSTATUS CheckStatus = NULL);

// A probe's status that says nothing about the object: the probe itself
// could not be made (the driver's own buffers answer STATUS_UNSUCCESSFUL).
inline BOOLEAN IsShortOfResources(NTSTATUS Status) {
    return Status == STATUS_INSUFFICIENT_RESOURCES || Status == STATUS_NO_MEMORY || Status == STATUS_UNSUCCESSFUL;
}

// ---- Name resolution -------------------------------------------------------------

struct _TervaneDeviceExtension;

// Writes the drive path of FileObject into Out (its own buffer): from the
// open-file table, an NTFS metadata record name, the file system's name of an
// open file (unless NoQuery), or the request's name joined to its related
// open's. Length 0, the drive prefix alone, or the prefix and
// "<Name Too Long>" when the name cannot be resolved. With
// ExpandShortNames, 8.3 components are replaced by their long names.
VOID GetFullPathName(BOOLEAN NoQuery, PFILE_OBJECT FileObject, struct _TervaneDeviceExtension* Extension,
                     PUNICODE_STRING Out, BOOLEAN ExpandShortNames);

// Whether a component after the drive prefix has at most 8 characters and a "~".
BOOLEAN HasShortNameComponent(PCUNICODE_STRING Path);
// Rebuilds the path with every component spelled as its directory lists it.
// FALSE (output undefined) when a work buffer is missing or the result does not fit.
BOOLEAN ExpandShortNames(PCUNICODE_STRING Path, PUNICODE_STRING Out);
// The one name in the directory that the component matches, into Out.
BOOLEAN LookupLongName(PCUNICODE_STRING Directory, PCUNICODE_STRING Component, PUNICODE_STRING Out);

// ---- Copy-up claims ---------------------------------------------------------------

// One drive path being copied up into filter directory 0.
typedef struct CopyUpClaim* PCopyUpClaim;

// Once, at start-up, with the open-file table.
VOID InitCopyUpClaims();
// Claims the drive path for one copy-up, waiting while another copy-up holds
// it. STATUS_INSUFFICIENT_RESOURCES (nothing claimed) without memory for the
// claim. The claim is released with ReleaseCopyUpPath.
NTSTATUS ClaimCopyUpPath(PCUNICODE_STRING Path, PCopyUpClaim* Claim);
VOID ReleaseCopyUpPath(PCopyUpClaim Claim);
// A counter that moves on every time a file gets a copy in filter directory 0
// that opens of a lower copy of it must follow (CopyUpOpenFile, an overwrite
// at create). An open that last looked at an older value looks again.
VOID NoteCopyInPackLocation();
ULONG CurrentCopyUpGeneration();
// Deletes the claims' lock (ReleaseDriverState).
VOID ReleaseCopyUpClaims();

// ---- Copy-up ---------------------------------------------------------------------

struct FileHandleEntry;

// Moves the open over to its object in DestinationFlag's filter directory:
// reopens it there with the open's access, share access and options, gives
// the caller's FILE_OBJECT the copy's file-system context and switches the
// entry to the copy. The replaced real handle is handed back in *OldHandle
// for the caller to close. With CopyContents the object is copied there
// first, under a claim on its path: a file only when the destination holds no
// copy of it yet (another open's copy is taken as it is), a directory by
// adding what the destination lacks from every lower filter directory. A
// failed copy leaves the open where it was and returns STATUS_UNSUCCESSFUL
// (or the claim's or the probe's failure status); STATUS_UNSUCCESSFUL too
// when the entry is already there.
NTSTATUS CopyUpOpenFile(struct FileHandleEntry* Entry, ULONG DestinationFlag, PHANDLE OldHandle,
                        BOOLEAN CopyContents, PDEVICE_OBJECT FilterDevice);

// Adds to a directory in filter directory 0 (made there first when needed)
// what the lower filter directories' copies of it hold and it lacks, under a
// claim on its path, so that the directory can be renamed there whole.
// STATUS_SUCCESS at once when no lower filter directory holds it;
// STATUS_UNSUCCESSFUL when something could not be copied.
NTSTATUS CopyUpDirectoryContents(PCUNICODE_STRING Path, PDEVICE_OBJECT FilterDevice);

// Whether filter directory 0 holds the drive path: STATUS_SUCCESS (it does),
// STATUS_OBJECT_NAME_NOT_FOUND (it does not), or the status of a probe that
// could not tell.
NTSTATUS ProbePackLocation(PCUNICODE_STRING Path);

// Copies a drive path from the lowest source filter directory that holds it
// into the destination filter directory, superseding what is there. A
// directory is copied from every source filter directory that holds it, the
// nearest to filter directory 0 first, adding only what the destination
// lacks; hidden entries are not copied, and any entry that could not be
// copied makes the result FALSE.
BOOLEAN FiltCopyFile(PCUNICODE_STRING Path, ULONG SourceMask, ULONG DestinationFlag, BOOLEAN IsDirectory,
                     PDEVICE_OBJECT FilterDevice);

// Copies one real file: data in 16 KB non-cached requests below FilterDevice,
// end of file, DACL and SACL, then attributes and times. The destination is
// superseded. TRUE when all data arrived (the ends of file agree); otherwise
// the destination is deleted again, so that no partial copy is left to hide
// the source.
BOOLEAN CopyFile(PCUNICODE_STRING Source, PCUNICODE_STRING Destination, PDEVICE_OBJECT FilterDevice);

// Gives the drive path in the destination filter directory the attributes and
// times of its copy in the source one (after making the parents); with
// Supersede the destination becomes an empty file first.
BOOLEAN FiltCopyFileAttribute(PCUNICODE_STRING Path, ULONG SourceFlag, ULONG DestinationFlag,
                              BOOLEAN Supersede);
BOOLEAN CopyFileAttribute(PCUNICODE_STRING Source, PCUNICODE_STRING Destination, BOOLEAN Supersede);

// Copies the DACL, then the SACL, of one open object onto another.
NTSTATUS CopySecurityInformationWithHandle(HANDLE SourceHandle, HANDLE DestinationHandle);

// End of file of an open file (0 on failure); its allocation size on request.
LONGLONG GetFileSize(HANDLE FileHandle, PLARGE_INTEGER AllocationSize);

// Makes the missing ancestors of the path's real path in the filter directory
// of the mask's lowest flag.
BOOLEAN CreateParentsInFilter(PCUNICODE_STRING Path, ULONG FilterMask);

// Makes a directory of the view (a drive path) in filter directory 0, with
// its ancestors, when only lower filter directories hold it, as copy-up
// makes the ancestors of what it copies. STATUS_SUCCESS when filter
// directory 0 holds it afterwards (a drive root always counts);
// STATUS_OBJECT_PATH_NOT_FOUND when the view has no such name (never made,
// or removed); the open's status when the view's object is not a directory
// or the directory cannot be made.
NTSTATUS CopyUpDirectory(PCUNICODE_STRING Directory);

// Out = base, a backslash unless the base ends in one or the tail begins
// with one, then the tail (bounded). With TakeBuffer the output first gets a
// general path pool block. FALSE only without an output or a block.
BOOLEAN JoinPath(PCUNICODE_STRING Base, PCUNICODE_STRING Tail, PUNICODE_STRING Out,
                 BOOLEAN TakeBuffer);

// A first-in first-out queue of relative paths below one directory.
struct PathQueueElement;
typedef struct PathQueue {
    UNICODE_STRING m_ustrRealDirectory;  // the directory in the source filter directory
    UNICODE_STRING m_ustrDrivePath;      // the same directory's drive path
    struct PathQueueElement* m_pHead;
    struct PathQueueElement* m_pTail;
} PathQueue, *PPathQueue;

PPathQueue CreatePathQueue(PCUNICODE_STRING RealDirectory, PCUNICODE_STRING DrivePath);
BOOLEAN PushPathQueue(PPathQueue Queue, PCUNICODE_STRING RelativePath);
// FALSE when empty. Copies the head's path into Out (when given; with
// TakeBuffer into a new path buffer) and frees the head.
BOOLEAN PopPathQueue(PPathQueue Queue, PUNICODE_STRING Out, BOOLEAN TakeBuffer);
VOID DestroyPathQueue(PPathQueue Queue);

// ---- Merged directory listing ---------------------------------------------------

// The parameters of a directory query as its stack location carries them:
// pass &IoGetCurrentIrpStackLocation(Irp)->Parameters.QueryDirectory.
typedef decltype(((PIO_STACK_LOCATION)0)->Parameters.QueryDirectory) QUERY_DIRECTORY_PARAMETERS;

// Fills Buffer with the kept records of the next batch of the listing of
// Entry's directory (one filter directory's copy after the other, from
// filter directory 0 upwards), in the class of the parameters. A restart (or
// the first query) starts again at the lowest filter directory with the new
// pattern. STATUS_NO_MORE_FILES at the end, STATUS_NO_SUCH_FILE when the
// directory exists nowhere; *BytesWritten is set only on success.
NTSTATUS FiltQueryDirectory(struct FileHandleEntry* Entry, const QUERY_DIRECTORY_PARAMETERS* Parameters,
                            PVOID Buffer, BOOLEAN ReturnSingleEntry, BOOLEAN RestartScan,
                            PULONG BytesWritten);

// With Restart, opens the directory in the first filter directory that holds
// it and stores the pattern; without, moves on to the next one.
NTSTATUS FiltQueryDirectoryUpdateFilter(struct FileHandleEntry* Entry, BOOLEAN Restart,
                                        PCUNICODE_STRING Pattern);

// The name is exactly "." or "..".
BOOLEAN IsDotOrDotDot(PCUNICODE_STRING Name);

// ---- Delete in filter directories -------------------------------------------------

// Removes a drive path from the merged view: deletes the copy in filter
// directory 0 and hides the name from the others, after opening every copy
// for deletion first. FALSE (nothing changed by the probe) when a copy cannot
// be opened for deletion or the copy in filter directory 0 cannot be deleted.
BOOLEAN FiltDeleteFile(PCUNICODE_STRING Path);

// The part of a removal that can fail, made before anything is changed:
// finds the filter directories other than filter directory 0 that hold the
// drive path (*LowerMask) and opens each of those copies for deletion.
// The caller removes the name later with HidePath when the mask is not 0,
// which needs no memory; the copy in filter directory 0 is the caller's.
NTSTATUS FiltPrepareRemoval(PCUNICODE_STRING Path, PULONG LowerMask);

// Deletes one real file, clearing a read-only attribute that stands in the way.
NTSTATUS DeleteRealFile(PCUNICODE_STRING RealPath);

// Sets a real file's attributes to FILE_ATTRIBUTE_NORMAL, keeping its times.
NTSTATUS ResetFileAttributes(PCUNICODE_STRING RealPath);
