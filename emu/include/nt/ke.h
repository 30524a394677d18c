// Kernel dispatcher objects: events, waits, critical regions, threads.
#pragma once
#include "ntdef.h"

typedef struct _DISPATCHER_HEADER {
    UCHAR Type;  // 0 notification event, 1 synchronization event
    UCHAR Absolute;
    UCHAR Size;
    UCHAR Inserted;
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER;

// A KEVENT is embedded in driver records (FILE_OBJECT, driver structures), so it
// is a plain record; the emulator keeps its waiters in a side table keyed by
// the event's address, created on first wait.
typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;

NT_BEGIN_C
VOID KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
LONG KeResetEvent(PRKEVENT Event);
VOID KeClearEvent(PRKEVENT Event);
LONG KeReadStateEvent(PRKEVENT Event);
// Object is a KEVENT (or any dispatcher object whose first member is a
// DISPATCHER_HEADER). Timeout: negative = relative in 100 ns, positive =
// absolute system time, NULL = infinite. Returns STATUS_SUCCESS,
// STATUS_TIMEOUT or STATUS_ALERTED/STATUS_USER_APC when alertable.
NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                               BOOLEAN Alertable, PLARGE_INTEGER Timeout);
NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval);
BOOLEAN KeAlertThread(PKTHREAD Thread, KPROCESSOR_MODE AlertMode);
// Returns STATUS_ALERTED (clearing the alert) if the calling thread was
// alerted, else STATUS_SUCCESS; either way its queued user APCs run.
NTSTATUS NtTestAlert(VOID);
VOID KeEnterCriticalRegion(VOID);
VOID KeLeaveCriticalRegion(VOID);
PKTHREAD KeGetCurrentThread(VOID);
KIRQL KeGetCurrentIrql(VOID);
VOID KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
ULONGLONG KeQueryInterruptTime(VOID);
VOID KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
VOID KeAcquireSpinLock(PKSPIN_LOCK SpinLock, PKIRQL OldIrql);
VOID KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
// Emulator extension (not in NT): the critical-region depth of the current
// thread, for tests and the verifier.
LONG EmuKeGetCriticalRegionDepth(VOID);
NT_END_C
