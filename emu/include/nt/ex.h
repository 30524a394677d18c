// Executive support: pool, lookaside lists, executive resources, interlocked.
#pragma once
#include "ntdef.h"
#include "ke.h"

typedef PVOID (NTAPI *PALLOCATE_FUNCTION)(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
typedef VOID (NTAPI *PFREE_FUNCTION)(PVOID Buffer);

typedef union _SLIST_HEADER {
    ULONGLONG Alignment;
    struct {
        SINGLE_LIST_ENTRY Next;
        USHORT Depth;
        USHORT Sequence;
    };
} SLIST_HEADER, *PSLIST_HEADER;

typedef struct _GENERAL_LOOKASIDE {
    SLIST_HEADER ListHead;
    USHORT Depth;
    USHORT MaximumDepth;
    ULONG TotalAllocates;
    union {
        ULONG AllocateMisses;
        ULONG AllocateHits;
    };
    ULONG TotalFrees;
    union {
        ULONG FreeMisses;
        ULONG FreeHits;
    };
    POOL_TYPE Type;
    ULONG Tag;
    ULONG Size;
    PALLOCATE_FUNCTION Allocate;
    PFREE_FUNCTION Free;
    LIST_ENTRY ListEntry;
    ULONG LastTotalAllocates;
    union {
        ULONG LastAllocateMisses;
        ULONG LastAllocateHits;
    };
    ULONG Future[2];
} GENERAL_LOOKASIDE, *PGENERAL_LOOKASIDE;

// The free list lives in L.ListHead and is worked on with the interlocked
// list operations only, so a driver's inline allocate and free (which pop and
// push the list themselves) and the machine's agree.
typedef struct _NPAGED_LOOKASIDE_LIST {
    GENERAL_LOOKASIDE L;
#if defined(__i386__)
    KSPIN_LOCK Lock__ObsoleteButDoNotDelete;
#endif
} NPAGED_LOOKASIDE_LIST, *PNPAGED_LOOKASIDE_LIST;

typedef ULONG_PTR ERESOURCE_THREAD;

typedef struct _OWNER_ENTRY {
    ERESOURCE_THREAD OwnerThread;
    union {
        ULONG OwnerCount;
        ULONG TableSize;
    };
} OWNER_ENTRY, *POWNER_ENTRY;

// An executive resource, as large as NT's so that records embedding one keep
// their layout. The machine keeps its own state behind OwnerTable (where NT
// keeps its table of shared owners) and mirrors the counts into the record;
// the record itself may be embedded anywhere (global, pool).
typedef struct _ERESOURCE {
    LIST_ENTRY SystemResourcesList;
    POWNER_ENTRY OwnerTable;
    SHORT ActiveCount;
    USHORT Flag;
    PVOID SharedWaiters;
    PKEVENT ExclusiveWaiters;
    OWNER_ENTRY OwnerEntry;
    ULONG ActiveEntries;
    ULONG ContentionCount;
    ULONG NumberOfSharedWaiters;
    ULONG NumberOfExclusiveWaiters;
#if !defined(__i386__)
    PVOID Reserved2;
#endif
    union {
        PVOID Address;
        ULONG_PTR CreatorBackTraceIndex;
    };
    KSPIN_LOCK SpinLock;
} ERESOURCE, *PERESOURCE;
#define ExGetCurrentResourceThread() ((ERESOURCE_THREAD)PsGetCurrentThread())

typedef struct _FAST_MUTEX {
    LONG Count;
    PVOID Owner;
    ULONG Contention;
    KEVENT Event;
    ULONG OldIrql;
} FAST_MUTEX, *PFAST_MUTEX;

NT_BEGIN_C
PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
PVOID ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes);
VOID ExFreePoolWithTag(PVOID P, ULONG Tag);
VOID ExFreePool(PVOID P);

VOID ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                     PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag, USHORT Depth);
VOID ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside);
PVOID ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside);
VOID ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry);

NTSTATUS ExInitializeResourceLite(PERESOURCE Resource);
NTSTATUS ExDeleteResourceLite(PERESOURCE Resource);
BOOLEAN ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait);
BOOLEAN ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait);
VOID FASTCALL ExReleaseResourceLite(PERESOURCE Resource);
VOID ExReleaseResourceForThreadLite(PERESOURCE Resource, ERESOURCE_THREAD ResourceThreadId);
BOOLEAN ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource);
ULONG ExIsResourceAcquiredSharedLite(PERESOURCE Resource);
ULONG ExGetExclusiveWaiterCount(PERESOURCE Resource);
ULONG ExGetSharedWaiterCount(PERESOURCE Resource);

VOID ExInitializeFastMutex(PFAST_MUTEX FastMutex);
VOID ExAcquireFastMutex(PFAST_MUTEX FastMutex);
VOID ExReleaseFastMutex(PFAST_MUTEX FastMutex);

LONG FASTCALL InterlockedIncrement(LONG volatile* Addend);
LONG FASTCALL InterlockedDecrement(LONG volatile* Addend);
LONG FASTCALL InterlockedExchange(LONG volatile* Target, LONG Value);
LONG FASTCALL InterlockedExchangeAdd(LONG volatile* Addend, LONG Value);
LONG FASTCALL InterlockedCompareExchange(LONG volatile* Destination, LONG Exchange, LONG Comparand);
PVOID InterlockedExchangePointer(PVOID volatile* Target, PVOID Value);
PVOID InterlockedCompareExchangePointer(PVOID volatile* Destination, PVOID Exchange, PVOID Comparand);
// Singly linked lists whose header changes as one unit (depth and sequence
// with the first entry).
PSINGLE_LIST_ENTRY FASTCALL InterlockedPushEntrySList(PSLIST_HEADER ListHead, PSINGLE_LIST_ENTRY ListEntry);
PSINGLE_LIST_ENTRY FASTCALL InterlockedPopEntrySList(PSLIST_HEADER ListHead);
PSINGLE_LIST_ENTRY ExInterlockedPushEntrySList(PSLIST_HEADER ListHead, PSINGLE_LIST_ENTRY ListEntry,
                                               PKSPIN_LOCK Lock);
PSINGLE_LIST_ENTRY ExInterlockedPopEntrySList(PSLIST_HEADER ListHead, PKSPIN_LOCK Lock);
NT_END_C

#define ExQueryDepthSList(ListHead) ((USHORT)(ListHead)->Depth)

// Doubly linked list helpers, as the DDK defines them.
#ifdef __cplusplus
inline VOID InitializeListHead(PLIST_ENTRY ListHead) { ListHead->Flink = ListHead->Blink = ListHead; }
inline BOOLEAN IsListEmpty(const LIST_ENTRY* ListHead) { return ListHead->Flink == ListHead; }
inline BOOLEAN RemoveEntryList(PLIST_ENTRY Entry) {
    PLIST_ENTRY Flink = Entry->Flink, Blink = Entry->Blink;
    Blink->Flink = Flink;
    Flink->Blink = Blink;
    return Flink == Blink;
}
inline PLIST_ENTRY RemoveHeadList(PLIST_ENTRY ListHead) {
    PLIST_ENTRY Entry = ListHead->Flink;
    RemoveEntryList(Entry);
    return Entry;
}
inline PLIST_ENTRY RemoveTailList(PLIST_ENTRY ListHead) {
    PLIST_ENTRY Entry = ListHead->Blink;
    RemoveEntryList(Entry);
    return Entry;
}
inline VOID InsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry) {
    PLIST_ENTRY Blink = ListHead->Blink;
    Entry->Flink = ListHead;
    Entry->Blink = Blink;
    Blink->Flink = Entry;
    ListHead->Blink = Entry;
}
inline VOID InsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry) {
    PLIST_ENTRY Flink = ListHead->Flink;
    Entry->Flink = Flink;
    Entry->Blink = ListHead;
    Flink->Blink = Entry;
    ListHead->Flink = Entry;
}
#endif
