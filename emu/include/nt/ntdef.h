// Basic NT types, macros and records shared by every kernel service of the
// emulated machine. Driver code sees these through platform/platform.h.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#ifdef __cplusplus
#define NT_EXTERN_C extern "C"
#define NT_BEGIN_C extern "C" {
#define NT_END_C }
#else
#define NT_EXTERN_C extern
#define NT_BEGIN_C
#define NT_END_C
#endif

// On x86 the entry points a driver gives the kernel (DriverEntry, dispatch,
// completion, fast I/O and lookaside routines) are stdcall, so a driver image
// built for NT and the machine agree on them. The machine's own services keep
// the host's convention; the image loader adapts an image's calls to them.
#if defined(__i386__)
#define NTAPI __attribute__((stdcall))
#else
#define NTAPI
#endif
#define NTSYSAPI
#define NTKERNELAPI
#define FASTCALL
#define DDKAPI
#define IN
#define OUT
#define OPTIONAL
#define CONST const
#define VOID void
#define UNREFERENCED_PARAMETER(P) ((void)(P))

typedef void* PVOID;
typedef void** PPVOID;
typedef char CHAR, CCHAR, *PCHAR, *PSZ;
typedef const char* PCSZ;
typedef const char* PCSTR;
typedef unsigned char UCHAR, *PUCHAR, BYTE, *PBYTE;
typedef int16_t SHORT, CSHORT, *PSHORT;
typedef uint16_t USHORT, *PUSHORT, WORD;
typedef int32_t LONG, *PLONG, INT;
typedef uint32_t ULONG, *PULONG, DWORD, UINT;
// 64-bit members are 8-aligned inside records on x86 NT, as on x64; the host's
// i386 ABI aligns them to 4 unless told otherwise.
#if defined(__i386__)
typedef int64_t __attribute__((aligned(8))) LONGLONG;
typedef uint64_t __attribute__((aligned(8))) ULONGLONG;
#else
typedef int64_t LONGLONG;
typedef uint64_t ULONGLONG;
#endif
typedef LONGLONG LONG64, *PLONGLONG;
typedef ULONGLONG ULONG64, *PULONGLONG;
typedef intptr_t LONG_PTR;
typedef uintptr_t ULONG_PTR, *PULONG_PTR, SIZE_T, *PSIZE_T, KAFFINITY;
typedef UCHAR BOOLEAN, *PBOOLEAN;
typedef UCHAR KIRQL, *PKIRQL;
typedef CCHAR KPROCESSOR_MODE;
typedef LONG NTSTATUS, *PNTSTATUS;
typedef LONG KPRIORITY;
typedef ULONG ACCESS_MASK, *PACCESS_MASK;
typedef ULONG SECURITY_INFORMATION, *PSECURITY_INFORMATION;
typedef ULONG LCID;
typedef void* HANDLE;
typedef HANDLE* PHANDLE;
typedef PVOID PSECURITY_DESCRIPTOR;
typedef PVOID PSID;

// WCHAR must be 16 bits wide: the whole project is built with -fshort-wchar so
// that L"..." literals are UTF-16 as on NT.
typedef wchar_t WCHAR;
typedef WCHAR *PWCHAR, *PWSTR, *LPWSTR;
typedef const WCHAR *PCWSTR, *LPCWSTR;
#ifdef __cplusplus
static_assert(sizeof(WCHAR) == 2, "WCHAR must be 16 bits: build with -fshort-wchar");
#else
_Static_assert(sizeof(WCHAR) == 2, "WCHAR must be 16 bits: build with -fshort-wchar");
#endif

#define TRUE 1
#define FALSE 0
#ifndef NULL
#define NULL 0
#endif

#define KernelMode 0
#define UserMode 1
#define PASSIVE_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2

#define MAXUSHORT 0xffff
#define MAXULONG 0xffffffffUL
#define MAXLONG 0x7fffffffL

#define NT_SUCCESS(Status) (((NTSTATUS)(Status)) >= 0)
#define NT_INFORMATION(Status) ((((ULONG)(Status)) >> 30) == 1)
#define NT_WARNING(Status) ((((ULONG)(Status)) >> 30) == 2)
#define NT_ERROR(Status) ((((ULONG)(Status)) >> 30) == 3)

#ifndef FIELD_OFFSET
#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#endif
#define CONTAINING_RECORD(address, type, field) \
    ((type*)((PCHAR)(address) - (ULONG_PTR)offsetof(type, field)))
#define ALIGN_DOWN_BY(length, alignment) ((ULONG_PTR)(length) & ~((ULONG_PTR)(alignment) - 1))
#define ALIGN_UP_BY(length, alignment) (ALIGN_DOWN_BY(((ULONG_PTR)(length) + (alignment) - 1), alignment))
#define ARRAYSIZE(a) (sizeof(a) / sizeof((a)[0]))
#define RTL_NUMBER_OF(a) ARRAYSIZE(a)
#define POINTER_ALIGNMENT

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    struct {
        ULONG LowPart;
        ULONG HighPart;
    } u;
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY {
    struct _SINGLE_LIST_ENTRY* Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY;

typedef struct _UNICODE_STRING {
    USHORT Length;         // bytes, no terminator
    USHORT MaximumLength;  // bytes
    PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

typedef struct _STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} STRING, *PSTRING, ANSI_STRING, *PANSI_STRING, OEM_STRING, *POEM_STRING;
typedef const STRING* PCANSI_STRING;

#define RTL_CONSTANT_STRING(s) {sizeof(s) - sizeof((s)[0]), sizeof(s), (PWSTR)(s)}

typedef struct _GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
} GUID;

typedef struct _IO_STATUS_BLOCK {
    union {
        NTSTATUS Status;
        PVOID Pointer;
    };
    ULONG_PTR Information;
} IO_STATUS_BLOCK, *PIO_STATUS_BLOCK;

typedef VOID (*PIO_APC_ROUTINE)(PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, ULONG Reserved);

// Object attributes.
#define OBJ_INHERIT 0x00000002L
#define OBJ_PERMANENT 0x00000010L
#define OBJ_EXCLUSIVE 0x00000020L
#define OBJ_CASE_INSENSITIVE 0x00000040L
#define OBJ_OPENIF 0x00000080L
#define OBJ_OPENLINK 0x00000100L
#define OBJ_KERNEL_HANDLE 0x00000200L
#define OBJ_FORCE_ACCESS_CHECK 0x00000400L
#define OBJ_VALID_ATTRIBUTES 0x000007F2L

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;

#define InitializeObjectAttributes(p, n, a, r, s) \
    do {                                          \
        (p)->Length = sizeof(OBJECT_ATTRIBUTES);  \
        (p)->RootDirectory = (r);                 \
        (p)->Attributes = (a);                    \
        (p)->ObjectName = (n);                    \
        (p)->SecurityDescriptor = (s);            \
        (p)->SecurityQualityOfService = NULL;     \
    } while (0)

// Access rights.
#define DELETE 0x00010000L
#define READ_CONTROL 0x00020000L
#define WRITE_DAC 0x00040000L
#define WRITE_OWNER 0x00080000L
#define SYNCHRONIZE 0x00100000L
#define STANDARD_RIGHTS_REQUIRED 0x000F0000L
#define STANDARD_RIGHTS_READ READ_CONTROL
#define STANDARD_RIGHTS_WRITE READ_CONTROL
#define STANDARD_RIGHTS_EXECUTE READ_CONTROL
#define STANDARD_RIGHTS_ALL 0x001F0000L
#define SPECIFIC_RIGHTS_ALL 0x0000FFFFL
#define ACCESS_SYSTEM_SECURITY 0x01000000L
#define MAXIMUM_ALLOWED 0x02000000L
#define GENERIC_READ 0x80000000L
#define GENERIC_WRITE 0x40000000L
#define GENERIC_EXECUTE 0x20000000L
#define GENERIC_ALL 0x10000000L

typedef struct _GENERIC_MAPPING {
    ACCESS_MASK GenericRead;
    ACCESS_MASK GenericWrite;
    ACCESS_MASK GenericExecute;
    ACCESS_MASK GenericAll;
} GENERIC_MAPPING, *PGENERIC_MAPPING;

// Security information flags.
#define OWNER_SECURITY_INFORMATION 0x00000001L
#define GROUP_SECURITY_INFORMATION 0x00000002L
#define DACL_SECURITY_INFORMATION 0x00000004L
#define SACL_SECURITY_INFORMATION 0x00000008L
#define LABEL_SECURITY_INFORMATION 0x00000010L

typedef enum _POOL_TYPE : int {
    NonPagedPool = 0,
    PagedPool = 1,
    NonPagedPoolMustSucceed = 2,
    DontUseThisType = 3,
    NonPagedPoolCacheAligned = 4,
    PagedPoolCacheAligned = 5,
    NonPagedPoolCacheAlignedMustS = 6
} POOL_TYPE;

typedef enum _EVENT_TYPE : int { NotificationEvent = 0, SynchronizationEvent = 1 } EVENT_TYPE;

typedef enum _KWAIT_REASON : int { Executive = 0, UserRequest = 6, WrExecutive = 7 } KWAIT_REASON;

typedef enum _MEMORY_CACHING_TYPE : int { MmNonCached = 0, MmCached = 1, MmWriteCombined = 2 } MEMORY_CACHING_TYPE;

typedef enum _MM_PAGE_PRIORITY : int { LowPagePriority = 0, NormalPagePriority = 16, HighPagePriority = 32 } MM_PAGE_PRIORITY;

typedef enum _LOCK_OPERATION : int { IoReadAccess = 0, IoWriteAccess = 1, IoModifyAccess = 2 } LOCK_OPERATION;

// Opaque kernel object types; their bodies live in the emulator.
typedef struct _KTHREAD *PKTHREAD, *PRKTHREAD;
typedef struct _ETHREAD *PETHREAD;
typedef struct _EPROCESS *PEPROCESS, *PKPROCESS;
typedef struct _OBJECT_TYPE *POBJECT_TYPE;
