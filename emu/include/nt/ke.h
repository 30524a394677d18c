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

// Kernel records that NT embeds in request packets and device objects. The
// machine queues no DPCs or device work and delivers APCs its own way; these
// are here so that the records around them have NT's layout.
typedef struct _KAPC* PKAPC;
typedef struct _KDPC* PKDPC;
typedef VOID (NTAPI *PKNORMAL_ROUTINE)(PVOID NormalContext, PVOID SystemArgument1, PVOID SystemArgument2);
typedef VOID (NTAPI *PKKERNEL_ROUTINE)(PKAPC Apc, PKNORMAL_ROUTINE* NormalRoutine, PVOID* NormalContext,
                                       PVOID* SystemArgument1, PVOID* SystemArgument2);
typedef VOID (NTAPI *PKRUNDOWN_ROUTINE)(PKAPC Apc);
typedef VOID (NTAPI *PKDEFERRED_ROUTINE)(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                                         PVOID SystemArgument2);

typedef struct _KAPC {
    UCHAR Type;
    UCHAR SpareByte0;
    UCHAR Size;
    UCHAR SpareByte1;
    ULONG SpareLong0;
    PKTHREAD Thread;
    LIST_ENTRY ApcListEntry;
    PKKERNEL_ROUTINE KernelRoutine;
    PKRUNDOWN_ROUTINE RundownRoutine;
    PKNORMAL_ROUTINE NormalRoutine;
    PVOID NormalContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    CCHAR ApcStateIndex;
    KPROCESSOR_MODE ApcMode;
    BOOLEAN Inserted;
} KAPC;

typedef struct _KDPC {
    UCHAR Type;
    UCHAR Importance;
    USHORT Number;
    LIST_ENTRY DpcListEntry;
    PKDEFERRED_ROUTINE DeferredRoutine;
    PVOID DeferredContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    PVOID DpcData;
} KDPC;

typedef struct _KDEVICE_QUEUE_ENTRY {
    LIST_ENTRY DeviceListEntry;
    ULONG SortKey;
    BOOLEAN Inserted;
} KDEVICE_QUEUE_ENTRY, *PKDEVICE_QUEUE_ENTRY;

typedef struct _KDEVICE_QUEUE {
    CSHORT Type;
    CSHORT Size;
    LIST_ENTRY DeviceListHead;
    KSPIN_LOCK Lock;
    BOOLEAN Busy;
} KDEVICE_QUEUE, *PKDEVICE_QUEUE;

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
