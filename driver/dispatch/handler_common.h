// Shared pieces of the handlers of redirected opens.
#pragma once

#include "platform/platform.h"

#include "filemgr/file_handle_table.h"

// Waits for the entry's turn: requests on one redirected open run one at a
// time. Every handler that works on the real file waits here first.
inline VOID WaitForEntry(PFileHandleEntry Entry) {
    KeWaitForSingleObject(&Entry->m_kEvent, Executive, KernelMode, TRUE, NULL);
}

// Gives the open to the next request.
inline VOID ReleaseEntry(PFileHandleEntry Entry) {
    KeSetEvent(&Entry->m_kEvent, 0, FALSE);
}

// Releases the entry and completes Irp with Status; returns Status.
inline NTSTATUS ReleaseAndComplete(PFileHandleEntry Entry, PIRP Irp, NTSTATUS Status) {
    ReleaseEntry(Entry);
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}


// Deletion at close, made ready when it is asked for (a delete request, or
// an open with FILE_DELETE_ON_CLOSE), so that the close, which cannot fail,
// needs no memory for it: the lower copies are found and opened for deletion,
// then a real file in filter directory 0 is marked for deletion on the real
// handle. Nothing is changed when a step fails. Cancel takes the mark back.
NTSTATUS PrepareDeleteOnClose(PFileHandleEntry pFileHandleEntry);
NTSTATUS CancelDeleteOnClose(PFileHandleEntry pFileHandleEntry);

// Copies the open's file up into filter directory 0 and closes the handle it
// replaced; logs the copy under Function's name. A failed copy is reported
// and leaves the entry unchanged. Returns the copy-up's status, with which
// the caller fails the request that needed the copy.
NTSTATUS CopyUpBeforeChange(PDEVICE_OBJECT DeviceObject, PFileHandleEntry Entry, const char* Function);

// Moves an open of a lower file over to the file's copy in filter directory
// 0 when one was made since the open last looked (by another open's copy-up
// or an overwrite), so that every open of a file reads what any of them
// wrote. Cheap when nothing was copied up meanwhile. The caller holds the
// entry's event. A failure (a probe that could not be made, a move that
// failed) is returned: the request fails with it rather than serve the lower
// file's older content.
NTSTATUS FollowPackCopy(PDEVICE_OBJECT DeviceObject, PFileHandleEntry Entry);

// Fails Irp with Status (no information), releasing the entry; returns Status.
inline NTSTATUS FailRequest(PFileHandleEntry Entry, PIRP Irp, NTSTATUS Status) {
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = 0;
    return ReleaseAndComplete(Entry, Irp, Status);
}

// An own request packet for the real FILE_OBJECT of an open, sent below the
// filter and waited for on the calling thread. The event and the status
// block live in the packet's owner, on the caller's stack.
typedef struct OwnRequest {
    KEVENT m_kEvent;
    IO_STATUS_BLOCK m_IoStatus;
    PIRP m_pIrp;
} OwnRequest;

// Allocates the packet (room for the deeper of the filter device's stack and
// the stack the route flag sends it to) and fills everything but the next
// stack location's major function and parameters. FALSE when no packet could
// be had.
BOOLEAN PrepareOwnRequest(OwnRequest* Request, PDEVICE_OBJECT FilterDevice, ULONG RouteFlag,
                          PFILE_OBJECT RealFileObject);

// Sends the prepared packet with CallLowerDevice, waits for its completion
// and returns what the call returned; the packet's own result is then in
// m_IoStatus. A call that pends is reported as the assertion "FALSE" when
// PendingIsUnexpected (lock requests are sent so that they never wait).
NTSTATUS SendOwnRequest(OwnRequest* Request, PDEVICE_OBJECT FilterDevice, ULONG RouteFlag,
                        BOOLEAN PendingIsUnexpected);
