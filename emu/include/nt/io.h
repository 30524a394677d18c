// I/O manager records: driver, device and file objects, request packets and
// their stack locations, memory descriptor lists, the fast I/O table.
#pragma once
#include "ntdef.h"
#include "ke.h"
#include "fileinfo.h"

typedef struct _DEVICE_OBJECT *PDEVICE_OBJECT;
typedef struct _DRIVER_OBJECT *PDRIVER_OBJECT;
typedef struct _FILE_OBJECT *PFILE_OBJECT;
typedef struct _IRP *PIRP;
typedef struct _IO_STACK_LOCATION *PIO_STACK_LOCATION;

#define IRP_MJ_CREATE 0x00
#define IRP_MJ_CREATE_NAMED_PIPE 0x01
#define IRP_MJ_CLOSE 0x02
#define IRP_MJ_READ 0x03
#define IRP_MJ_WRITE 0x04
#define IRP_MJ_QUERY_INFORMATION 0x05
#define IRP_MJ_SET_INFORMATION 0x06
#define IRP_MJ_QUERY_EA 0x07
#define IRP_MJ_SET_EA 0x08
#define IRP_MJ_FLUSH_BUFFERS 0x09
#define IRP_MJ_QUERY_VOLUME_INFORMATION 0x0a
#define IRP_MJ_SET_VOLUME_INFORMATION 0x0b
#define IRP_MJ_DIRECTORY_CONTROL 0x0c
#define IRP_MJ_FILE_SYSTEM_CONTROL 0x0d
#define IRP_MJ_DEVICE_CONTROL 0x0e
#define IRP_MJ_INTERNAL_DEVICE_CONTROL 0x0f
#define IRP_MJ_SHUTDOWN 0x10
#define IRP_MJ_LOCK_CONTROL 0x11
#define IRP_MJ_CLEANUP 0x12
#define IRP_MJ_CREATE_MAILSLOT 0x13
#define IRP_MJ_QUERY_SECURITY 0x14
#define IRP_MJ_SET_SECURITY 0x15
#define IRP_MJ_POWER 0x16
#define IRP_MJ_SYSTEM_CONTROL 0x17
#define IRP_MJ_DEVICE_CHANGE 0x18
#define IRP_MJ_QUERY_QUOTA 0x19
#define IRP_MJ_SET_QUOTA 0x1a
#define IRP_MJ_PNP 0x1b
#define IRP_MJ_MAXIMUM_FUNCTION 0x1b

#define IRP_MN_QUERY_DIRECTORY 0x01
#define IRP_MN_NOTIFY_CHANGE_DIRECTORY 0x02
#define IRP_MN_USER_FS_REQUEST 0x00
#define IRP_MN_MOUNT_VOLUME 0x01
#define IRP_MN_VERIFY_VOLUME 0x02
#define IRP_MN_LOAD_FILE_SYSTEM 0x03
#define IRP_MN_KERNEL_CALL 0x04
#define IRP_MN_LOCK 0x01
#define IRP_MN_UNLOCK_SINGLE 0x02
#define IRP_MN_UNLOCK_ALL 0x03
#define IRP_MN_UNLOCK_ALL_BY_KEY 0x04
#define IRP_MN_NORMAL 0x00
#define IRP_MN_DPC 0x01
#define IRP_MN_MDL 0x02
#define IRP_MN_COMPLETE 0x04

// Stack location flags (IO_STACK_LOCATION.Flags).
#define SL_PENDING_RETURNED 0x01
#define SL_INVOKE_ON_CANCEL 0x20
#define SL_INVOKE_ON_SUCCESS 0x40
#define SL_INVOKE_ON_ERROR 0x80
#define SL_FORCE_ACCESS_CHECK 0x01
#define SL_OPEN_PAGING_FILE 0x02
#define SL_OPEN_TARGET_DIRECTORY 0x04
#define SL_CASE_SENSITIVE 0x80
#define SL_KEY_SPECIFIED 0x01
#define SL_OVERRIDE_VERIFY_VOLUME 0x02
#define SL_WRITE_THROUGH 0x04
#define SL_FT_SEQUENTIAL_WRITE 0x08
#define SL_FAIL_IMMEDIATELY 0x01
#define SL_EXCLUSIVE_LOCK 0x02
#define SL_RESTART_SCAN 0x01
#define SL_RETURN_SINGLE_ENTRY 0x02
#define SL_INDEX_SPECIFIED 0x04
#define SL_WATCH_TREE 0x01
#define SL_ALLOW_RAW_MOUNT 0x01

// IRP.Flags.
#define IRP_NOCACHE 0x00000001
#define IRP_PAGING_IO 0x00000002
#define IRP_MOUNT_COMPLETION 0x00000002
#define IRP_SYNCHRONOUS_API 0x00000004
#define IRP_ASSOCIATED_IRP 0x00000008
#define IRP_BUFFERED_IO 0x00000010
#define IRP_DEALLOCATE_BUFFER 0x00000020
#define IRP_INPUT_OPERATION 0x00000040
#define IRP_SYNCHRONOUS_PAGING_IO 0x00000040
#define IRP_CREATE_OPERATION 0x00000080
#define IRP_READ_OPERATION 0x00000100
#define IRP_WRITE_OPERATION 0x00000200
#define IRP_CLOSE_OPERATION 0x00000400
#define IRP_DEFER_IO_COMPLETION 0x00000800

// IRP.AllocationFlags.
#define IRP_QUOTA_CHARGED 0x01
#define IRP_ALLOCATED_MUST_SUCCEED 0x02
#define IRP_ALLOCATED_FIXED_SIZE 0x04
#define IRP_LOOKASIDE_ALLOCATION 0x08

// Device object.
#define DO_VERIFY_VOLUME 0x00000002
#define DO_BUFFERED_IO 0x00000004
#define DO_EXCLUSIVE 0x00000008
#define DO_DIRECT_IO 0x00000010
#define DO_MAP_IO_BUFFER 0x00000020
#define DO_DEVICE_HAS_NAME 0x00000040
#define DO_DEVICE_INITIALIZING 0x00000080
#define DO_SYSTEM_BOOT_PARTITION 0x00000100

#define IO_TYPE_DEVICE 3
#define IO_TYPE_DRIVER 4
#define IO_TYPE_FILE 5
#define IO_TYPE_IRP 6
#define IO_TYPE_VPB 10
#define IO_TYPE_DEVICE_OBJECT_EXTENSION 13

#define FILE_DEVICE_CD_ROM 0x00000002
#define FILE_DEVICE_TAPE 0x0000001f
#define FILE_DEVICE_VIRTUAL_DISK 0x00000024
#define FILE_DEVICE_DISK 0x00000007
#define FILE_DEVICE_DISK_FILE_SYSTEM 0x00000008
#define FILE_DEVICE_FILE_SYSTEM 0x00000009
#define FILE_DEVICE_NETWORK_FILE_SYSTEM 0x00000014
#define FILE_DEVICE_UNKNOWN 0x00000022
#define FILE_DEVICE_CD_ROM_FILE_SYSTEM 0x00000003

#define FILE_REMOVABLE_MEDIA 0x00000001
#define FILE_READ_ONLY_DEVICE 0x00000002
#define FILE_DEVICE_IS_MOUNTED 0x00000020
#define FILE_DEVICE_SECURE_OPEN 0x00000100

#define METHOD_BUFFERED 0
#define METHOD_IN_DIRECT 1
#define METHOD_OUT_DIRECT 2
#define METHOD_NEITHER 3
#define FILE_ANY_ACCESS 0
#define FILE_SPECIAL_ACCESS (FILE_ANY_ACCESS)
#define FILE_READ_ACCESS 0x0001
#define FILE_WRITE_ACCESS 0x0002
#define CTL_CODE(DeviceType, Function, Method, Access) \
    (((DeviceType) << 16) | ((Access) << 14) | ((Function) << 2) | (Method))
#define METHOD_FROM_CTL_CODE(ctrlCode) ((ULONG)((ctrlCode) & 3))
#define DEVICE_TYPE_FROM_CTL_CODE(ctrlCode) (((ULONG)((ctrlCode) & 0xffff0000)) >> 16)

#define IO_NO_INCREMENT 0
#define IO_DISK_INCREMENT 1

// Memory descriptor list.
typedef struct _MDL {
    struct _MDL* Next;
    CSHORT Size;
    CSHORT MdlFlags;
    PEPROCESS Process;
    PVOID MappedSystemVa;
    PVOID StartVa;
    ULONG ByteCount;
    ULONG ByteOffset;
} MDL, *PMDL;

#define MDL_MAPPED_TO_SYSTEM_VA 0x0001
#define MDL_PAGES_LOCKED 0x0002
#define MDL_SOURCE_IS_NONPAGED_POOL 0x0004
#define MDL_ALLOCATED_FIXED_SIZE 0x0008
#define MDL_PARTIAL 0x0010
#define MDL_IO_PAGE_READ 0x0040
#define MDL_WRITE_OPERATION 0x0080

#define MmGetMdlVirtualAddress(Mdl) ((PVOID)((PCHAR)((Mdl)->StartVa) + (Mdl)->ByteOffset))
#define MmGetMdlByteCount(Mdl) ((Mdl)->ByteCount)
#define MmGetMdlByteOffset(Mdl) ((Mdl)->ByteOffset)
#define MmGetSystemAddressForMdlSafe(Mdl, Priority)                                         \
    (((Mdl)->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL))            \
         ? ((Mdl)->MappedSystemVa)                                                          \
         : (MmMapLockedPagesSpecifyCache((Mdl), KernelMode, MmCached, NULL, FALSE, (Priority))))

// Volume parameter block.
typedef struct _VPB {
    CSHORT Type;
    CSHORT Size;
    USHORT Flags;
    USHORT VolumeLabelLength;
    PDEVICE_OBJECT DeviceObject;  // the file system's volume device
    PDEVICE_OBJECT RealDevice;    // the storage device
    ULONG SerialNumber;
    ULONG ReferenceCount;
    WCHAR VolumeLabel[32];
} VPB, *PVPB;
#define VPB_MOUNTED 0x0001

typedef struct _SECTION_OBJECT_POINTERS {
    PVOID DataSectionObject;
    PVOID SharedCacheMap;
    PVOID ImageSectionObject;
} SECTION_OBJECT_POINTERS, *PSECTION_OBJECT_POINTERS;

typedef struct _IO_COMPLETION_CONTEXT {
    PVOID Port;
    PVOID Key;
} IO_COMPLETION_CONTEXT, *PIO_COMPLETION_CONTEXT;

// File object flags.
#define FO_FILE_OPEN 0x00000001
#define FO_SYNCHRONOUS_IO 0x00000002
#define FO_ALERTABLE_IO 0x00000004
#define FO_NO_INTERMEDIATE_BUFFERING 0x00000008
#define FO_WRITE_THROUGH 0x00000010
#define FO_SEQUENTIAL_ONLY 0x00000020
#define FO_CACHE_SUPPORTED 0x00000040
#define FO_NAMED_PIPE 0x00000080
#define FO_STREAM_FILE 0x00000100
#define FO_MAILSLOT 0x00000200
#define FO_OPENED_CASE_SENSITIVE 0x00020000
#define FO_HANDLE_CREATED 0x00040000
#define FO_FILE_FAST_IO_READ 0x00080000
#define FO_RANDOM_ACCESS 0x00100000
#define FO_FILE_OPEN_CANCELLED 0x00200000
#define FO_VOLUME_OPEN 0x00400000
#define FO_DIRECT_DEVICE_OPEN 0x00800000
#define FO_FILE_MODIFIED 0x00001000
#define FO_FILE_SIZE_CHANGED 0x00002000
#define FO_CLEANUP_COMPLETE 0x00004000
#define FO_TEMPORARY_FILE 0x00008000
#define FO_DELETE_ON_CLOSE 0x00010000

typedef struct _FILE_OBJECT {
    CSHORT Type;
    CSHORT Size;
    PDEVICE_OBJECT DeviceObject;
    PVPB Vpb;
    PVOID FsContext;
    PVOID FsContext2;
    PSECTION_OBJECT_POINTERS SectionObjectPointer;
    PVOID PrivateCacheMap;
    NTSTATUS FinalStatus;
    struct _FILE_OBJECT* RelatedFileObject;
    BOOLEAN LockOperation;
    BOOLEAN DeletePending;
    BOOLEAN ReadAccess;
    BOOLEAN WriteAccess;
    BOOLEAN DeleteAccess;
    BOOLEAN SharedRead;
    BOOLEAN SharedWrite;
    BOOLEAN SharedDelete;
    ULONG Flags;
    UNICODE_STRING FileName;
    LARGE_INTEGER CurrentByteOffset;
    ULONG Waiters;
    ULONG Busy;
    PVOID LastLock;
    KEVENT Lock;
    KEVENT Event;
    PIO_COMPLETION_CONTEXT CompletionContext;
    KSPIN_LOCK IrpListLock;
    LIST_ENTRY IrpList;
    PVOID FileObjectExtension;
} FILE_OBJECT;

// Create options (IO_STACK_LOCATION.Parameters.Create.Options low 24 bits;
// the disposition sits in the high 8 bits).
#define FILE_DIRECTORY_FILE 0x00000001
#define FILE_WRITE_THROUGH 0x00000002
#define FILE_SEQUENTIAL_ONLY 0x00000004
#define FILE_NO_INTERMEDIATE_BUFFERING 0x00000008
#define FILE_SYNCHRONOUS_IO_ALERT 0x00000010
#define FILE_SYNCHRONOUS_IO_NONALERT 0x00000020
#define FILE_NON_DIRECTORY_FILE 0x00000040
#define FILE_CREATE_TREE_CONNECTION 0x00000080
#define FILE_COMPLETE_IF_OPLOCKED 0x00000100
#define FILE_NO_EA_KNOWLEDGE 0x00000200
#define FILE_OPEN_FOR_RECOVERY 0x00000400
#define FILE_RANDOM_ACCESS 0x00000800
#define FILE_DELETE_ON_CLOSE 0x00001000
#define FILE_OPEN_BY_FILE_ID 0x00002000
#define FILE_OPEN_FOR_BACKUP_INTENT 0x00004000
#define FILE_NO_COMPRESSION 0x00008000
#define FILE_RESERVE_OPFILTER 0x00100000
#define FILE_OPEN_REPARSE_POINT 0x00200000
#define FILE_OPEN_NO_RECALL 0x00400000
#define FILE_OPEN_FOR_FREE_SPACE_QUERY 0x00800000
#define FILE_VALID_OPTION_FLAGS 0x00ffffff

// Create dispositions.
#define FILE_SUPERSEDE 0x00000000
#define FILE_OPEN 0x00000001
#define FILE_CREATE 0x00000002
#define FILE_OPEN_IF 0x00000003
#define FILE_OVERWRITE 0x00000004
#define FILE_OVERWRITE_IF 0x00000005
#define FILE_MAXIMUM_DISPOSITION 0x00000005

// IO_STATUS_BLOCK.Information of a create.
#define FILE_SUPERSEDED 0x00000000
#define FILE_OPENED 0x00000001
#define FILE_CREATED 0x00000002
#define FILE_OVERWRITTEN 0x00000003
#define FILE_EXISTS 0x00000004
#define FILE_DOES_NOT_EXIST 0x00000005
#define IO_REPARSE 0x0

// Share access.
#define FILE_SHARE_READ 0x00000001
#define FILE_SHARE_WRITE 0x00000002
#define FILE_SHARE_DELETE 0x00000004
#define FILE_SHARE_VALID_FLAGS 0x00000007

// File access rights.
#define FILE_READ_DATA 0x0001
#define FILE_LIST_DIRECTORY 0x0001
#define FILE_WRITE_DATA 0x0002
#define FILE_ADD_FILE 0x0002
#define FILE_APPEND_DATA 0x0004
#define FILE_ADD_SUBDIRECTORY 0x0004
#define FILE_READ_EA 0x0008
#define FILE_WRITE_EA 0x0010
#define FILE_EXECUTE 0x0020
#define FILE_TRAVERSE 0x0020
#define FILE_DELETE_CHILD 0x0040
#define FILE_READ_ATTRIBUTES 0x0080
#define FILE_WRITE_ATTRIBUTES 0x0100
#define FILE_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x1FF)
#define FILE_GENERIC_READ (STANDARD_RIGHTS_READ | FILE_READ_DATA | FILE_READ_ATTRIBUTES | FILE_READ_EA | SYNCHRONIZE)
#define FILE_GENERIC_WRITE \
    (STANDARD_RIGHTS_WRITE | FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA | FILE_APPEND_DATA | SYNCHRONIZE)
#define FILE_GENERIC_EXECUTE (STANDARD_RIGHTS_EXECUTE | FILE_READ_ATTRIBUTES | FILE_EXECUTE | SYNCHRONIZE)

// ReadFile/WriteFile special byte offsets (LowPart with HighPart == -1).
#define FILE_WRITE_TO_END_OF_FILE 0xffffffff
#define FILE_USE_FILE_POINTER_POSITION 0xfffffffe

typedef struct _SHARE_ACCESS {
    ULONG OpenCount;
    ULONG Readers;
    ULONG Writers;
    ULONG Deleters;
    ULONG SharedRead;
    ULONG SharedWrite;
    ULONG SharedDelete;
} SHARE_ACCESS, *PSHARE_ACCESS;

typedef struct _ACCESS_STATE {
    ACCESS_MASK RemainingDesiredAccess;
    ACCESS_MASK PreviouslyGrantedAccess;
    ACCESS_MASK OriginalDesiredAccess;
} ACCESS_STATE, *PACCESS_STATE;

typedef struct _IO_SECURITY_CONTEXT {
    PVOID SecurityQos;
    PACCESS_STATE AccessState;
    ACCESS_MASK DesiredAccess;
    ULONG FullCreateOptions;
} IO_SECURITY_CONTEXT, *PIO_SECURITY_CONTEXT;

// Routines of a driver that the I/O manager calls.
typedef NTSTATUS (NTAPI *PIO_COMPLETION_ROUTINE)(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);
typedef NTSTATUS (NTAPI *PDRIVER_DISPATCH)(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef NTSTATUS (NTAPI *PDRIVER_INITIALIZE)(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
typedef VOID (NTAPI *PDRIVER_UNLOAD)(PDRIVER_OBJECT DriverObject);
typedef VOID (NTAPI *PDRIVER_CANCEL)(PDEVICE_OBJECT DeviceObject, PIRP Irp);

typedef enum _IO_ALLOCATION_ACTION : int {
    KeepObject = 1,
    DeallocateObject,
    DeallocateObjectKeepRegisters
} IO_ALLOCATION_ACTION;
typedef IO_ALLOCATION_ACTION (NTAPI *PDRIVER_CONTROL)(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID MapRegisterBase,
                                                      PVOID Context);

// A device's wait for an adapter; the machine has no adapters, but
// DEVICE_OBJECT embeds one.
typedef struct _WAIT_CONTEXT_BLOCK {
    KDEVICE_QUEUE_ENTRY WaitQueueEntry;
    PDRIVER_CONTROL DeviceRoutine;
    PVOID DeviceContext;
    ULONG NumberOfMapRegisters;
    PVOID DeviceObject;
    PVOID CurrentIrp;
    PKDPC BufferChainingDpc;
} WAIT_CONTEXT_BLOCK, *PWAIT_CONTEXT_BLOCK;

// On x86 NT packs the stack location to 4: its parameters start at offset 4
// although some of them hold 64-bit members.
#if defined(__i386__)
#pragma pack(push, 4)
#endif
typedef struct _IO_STACK_LOCATION {
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    UCHAR Flags;
    UCHAR Control;
    union {
        struct {
            PIO_SECURITY_CONTEXT SecurityContext;
            ULONG Options;
            USHORT FileAttributes;
            USHORT ShareAccess;
            ULONG EaLength;
        } Create;
        struct {
            ULONG Length;
            ULONG Key;
            LARGE_INTEGER ByteOffset;
        } Read;
        struct {
            ULONG Length;
            ULONG Key;
            LARGE_INTEGER ByteOffset;
        } Write;
        struct {
            ULONG Length;
            PUNICODE_STRING FileName;
            FILE_INFORMATION_CLASS FileInformationClass;
            ULONG FileIndex;
        } QueryDirectory;
        struct {
            ULONG Length;
            ULONG CompletionFilter;
        } NotifyDirectory;
        struct {
            ULONG Length;
            FILE_INFORMATION_CLASS FileInformationClass;
        } QueryFile;
        struct {
            ULONG Length;
            FILE_INFORMATION_CLASS FileInformationClass;
            PFILE_OBJECT FileObject;
            union {
                struct {
                    BOOLEAN ReplaceIfExists;
                    BOOLEAN AdvanceOnly;
                };
                ULONG ClusterCount;
                HANDLE DeleteHandle;
            };
        } SetFile;
        struct {
            ULONG Length;
            PVOID EaList;
            ULONG EaListLength;
            ULONG EaIndex;
        } QueryEa;
        struct {
            ULONG Length;
        } SetEa;
        struct {
            ULONG Length;
            FS_INFORMATION_CLASS FsInformationClass;
        } QueryVolume;
        struct {
            ULONG Length;
            FS_INFORMATION_CLASS FsInformationClass;
        } SetVolume;
        struct {
            ULONG OutputBufferLength;
            ULONG InputBufferLength;
            ULONG FsControlCode;
            PVOID Type3InputBuffer;
        } FileSystemControl;
        struct {
            PLARGE_INTEGER Length;
            ULONG Key;
            LARGE_INTEGER ByteOffset;
        } LockControl;
        struct {
            ULONG OutputBufferLength;
            ULONG InputBufferLength;
            ULONG IoControlCode;
            PVOID Type3InputBuffer;
        } DeviceIoControl;
        struct {
            SECURITY_INFORMATION SecurityInformation;
            ULONG Length;
        } QuerySecurity;
        struct {
            SECURITY_INFORMATION SecurityInformation;
            PSECURITY_DESCRIPTOR SecurityDescriptor;
        } SetSecurity;
        struct {
            PVPB Vpb;
            PDEVICE_OBJECT DeviceObject;
        } MountVolume;
        struct {
            PVOID Argument1;
            PVOID Argument2;
            PVOID Argument3;
            PVOID Argument4;
        } Others;
    } Parameters;
    PDEVICE_OBJECT DeviceObject;
    PFILE_OBJECT FileObject;
    PIO_COMPLETION_ROUTINE CompletionRoutine;
    PVOID Context;
} IO_STACK_LOCATION;
#if defined(__i386__)
#pragma pack(pop)
#endif

typedef struct _IRP {
    CSHORT Type;
    USHORT Size;
    PMDL MdlAddress;
    ULONG Flags;
    union {
        struct _IRP* MasterIrp;
        LONG IrpCount;
        PVOID SystemBuffer;
    } AssociatedIrp;
    LIST_ENTRY ThreadListEntry;
    IO_STATUS_BLOCK IoStatus;
    KPROCESSOR_MODE RequestorMode;
    BOOLEAN PendingReturned;
    CHAR StackCount;
    CHAR CurrentLocation;
    BOOLEAN Cancel;
    KIRQL CancelIrql;
    CCHAR ApcEnvironment;
    UCHAR AllocationFlags;
    PIO_STATUS_BLOCK UserIosb;
    PKEVENT UserEvent;
    union {
        struct {
            PIO_APC_ROUTINE UserApcRoutine;
            PVOID UserApcContext;
        } AsynchronousParameters;
        LARGE_INTEGER AllocationSize;
    } Overlay;
    PDRIVER_CANCEL CancelRoutine;
    PVOID UserBuffer;
    union {
        struct {
            union {
                KDEVICE_QUEUE_ENTRY DeviceQueueEntry;
                struct {
                    PVOID DriverContext[4];
                };
            };
            PETHREAD Thread;
            PCHAR AuxiliaryBuffer;
            struct {
                LIST_ENTRY ListEntry;
                union {
                    struct _IO_STACK_LOCATION* CurrentStackLocation;
                    ULONG PacketType;
                };
            };
            PFILE_OBJECT OriginalFileObject;
        } Overlay;
        KAPC Apc;
        PVOID CompletionKey;
    } Tail;
} IRP;

// Fast I/O table.
typedef BOOLEAN (NTAPI *PFAST_IO_CHECK_IF_POSSIBLE)(PFILE_OBJECT, PLARGE_INTEGER, ULONG, BOOLEAN, ULONG, BOOLEAN,
                                              PIO_STATUS_BLOCK, PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_READ)(PFILE_OBJECT, PLARGE_INTEGER, ULONG, BOOLEAN, ULONG, PVOID, PIO_STATUS_BLOCK,
                                 PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_WRITE)(PFILE_OBJECT, PLARGE_INTEGER, ULONG, BOOLEAN, ULONG, PVOID, PIO_STATUS_BLOCK,
                                  PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_QUERY_BASIC_INFO)(PFILE_OBJECT, BOOLEAN, PFILE_BASIC_INFORMATION, PIO_STATUS_BLOCK,
                                             PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_QUERY_STANDARD_INFO)(PFILE_OBJECT, BOOLEAN, PFILE_STANDARD_INFORMATION,
                                                PIO_STATUS_BLOCK, PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_LOCK)(PFILE_OBJECT, PLARGE_INTEGER, PLARGE_INTEGER, PEPROCESS, ULONG, BOOLEAN, BOOLEAN,
                                 PIO_STATUS_BLOCK, PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_UNLOCK_SINGLE)(PFILE_OBJECT, PLARGE_INTEGER, PLARGE_INTEGER, PEPROCESS, ULONG,
                                          PIO_STATUS_BLOCK, PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_UNLOCK_ALL)(PFILE_OBJECT, PEPROCESS, PIO_STATUS_BLOCK, PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_UNLOCK_ALL_BY_KEY)(PFILE_OBJECT, PVOID, ULONG, PIO_STATUS_BLOCK, PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_DEVICE_CONTROL)(PFILE_OBJECT, BOOLEAN, PVOID, ULONG, PVOID, ULONG, ULONG,
                                           PIO_STATUS_BLOCK, PDEVICE_OBJECT);
typedef VOID (NTAPI *PFAST_IO_ACQUIRE_FILE)(PFILE_OBJECT);
typedef VOID (NTAPI *PFAST_IO_RELEASE_FILE)(PFILE_OBJECT);
typedef VOID (NTAPI *PFAST_IO_DETACH_DEVICE)(PDEVICE_OBJECT, PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_QUERY_NETWORK_OPEN_INFO)(PFILE_OBJECT, BOOLEAN, PFILE_NETWORK_OPEN_INFORMATION,
                                                    PIO_STATUS_BLOCK, PDEVICE_OBJECT);
typedef NTSTATUS (NTAPI *PFAST_IO_ACQUIRE_FOR_MOD_WRITE)(PFILE_OBJECT, PLARGE_INTEGER, struct _ERESOURCE**,
                                                   PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_MDL_READ)(PFILE_OBJECT, PLARGE_INTEGER, ULONG, ULONG, PMDL*, PIO_STATUS_BLOCK,
                                     PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_MDL_READ_COMPLETE)(PFILE_OBJECT, PMDL, PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_PREPARE_MDL_WRITE)(PFILE_OBJECT, PLARGE_INTEGER, ULONG, ULONG, PMDL*, PIO_STATUS_BLOCK,
                                              PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_MDL_WRITE_COMPLETE)(PFILE_OBJECT, PLARGE_INTEGER, PMDL, PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_READ_COMPRESSED)(PFILE_OBJECT, PLARGE_INTEGER, ULONG, ULONG, PVOID, PMDL*,
                                            PIO_STATUS_BLOCK, struct _COMPRESSED_DATA_INFO*, ULONG, PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_WRITE_COMPRESSED)(PFILE_OBJECT, PLARGE_INTEGER, ULONG, ULONG, PVOID, PMDL*,
                                             PIO_STATUS_BLOCK, struct _COMPRESSED_DATA_INFO*, ULONG,
                                             PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_MDL_READ_COMPLETE_COMPRESSED)(PFILE_OBJECT, PMDL, PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_MDL_WRITE_COMPLETE_COMPRESSED)(PFILE_OBJECT, PLARGE_INTEGER, PMDL, PDEVICE_OBJECT);
typedef BOOLEAN (NTAPI *PFAST_IO_QUERY_OPEN)(PIRP, PFILE_NETWORK_OPEN_INFORMATION, PDEVICE_OBJECT);
typedef NTSTATUS (NTAPI *PFAST_IO_RELEASE_FOR_MOD_WRITE)(PFILE_OBJECT, struct _ERESOURCE*, PDEVICE_OBJECT);
typedef NTSTATUS (NTAPI *PFAST_IO_ACQUIRE_FOR_CCFLUSH)(PFILE_OBJECT, PDEVICE_OBJECT);
typedef NTSTATUS (NTAPI *PFAST_IO_RELEASE_FOR_CCFLUSH)(PFILE_OBJECT, PDEVICE_OBJECT);

typedef struct _FAST_IO_DISPATCH {
    ULONG SizeOfFastIoDispatch;
    PFAST_IO_CHECK_IF_POSSIBLE FastIoCheckIfPossible;
    PFAST_IO_READ FastIoRead;
    PFAST_IO_WRITE FastIoWrite;
    PFAST_IO_QUERY_BASIC_INFO FastIoQueryBasicInfo;
    PFAST_IO_QUERY_STANDARD_INFO FastIoQueryStandardInfo;
    PFAST_IO_LOCK FastIoLock;
    PFAST_IO_UNLOCK_SINGLE FastIoUnlockSingle;
    PFAST_IO_UNLOCK_ALL FastIoUnlockAll;
    PFAST_IO_UNLOCK_ALL_BY_KEY FastIoUnlockAllByKey;
    PFAST_IO_DEVICE_CONTROL FastIoDeviceControl;
    PFAST_IO_ACQUIRE_FILE AcquireFileForNtCreateSection;
    PFAST_IO_RELEASE_FILE ReleaseFileForNtCreateSection;
    PFAST_IO_DETACH_DEVICE FastIoDetachDevice;
    PFAST_IO_QUERY_NETWORK_OPEN_INFO FastIoQueryNetworkOpenInfo;
    PFAST_IO_ACQUIRE_FOR_MOD_WRITE AcquireForModWrite;
    PFAST_IO_MDL_READ MdlRead;
    PFAST_IO_MDL_READ_COMPLETE MdlReadComplete;
    PFAST_IO_PREPARE_MDL_WRITE PrepareMdlWrite;
    PFAST_IO_MDL_WRITE_COMPLETE MdlWriteComplete;
    PFAST_IO_READ_COMPRESSED FastIoReadCompressed;
    PFAST_IO_WRITE_COMPRESSED FastIoWriteCompressed;
    PFAST_IO_MDL_READ_COMPLETE_COMPRESSED MdlReadCompleteCompressed;
    PFAST_IO_MDL_WRITE_COMPLETE_COMPRESSED MdlWriteCompleteCompressed;
    PFAST_IO_QUERY_OPEN FastIoQueryOpen;
    PFAST_IO_RELEASE_FOR_MOD_WRITE ReleaseForModWrite;
    PFAST_IO_ACQUIRE_FOR_CCFLUSH AcquireForCcFlush;
    PFAST_IO_RELEASE_FOR_CCFLUSH ReleaseForCcFlush;
} FAST_IO_DISPATCH, *PFAST_IO_DISPATCH;

typedef struct _DRIVER_EXTENSION {
    PDRIVER_OBJECT DriverObject;
    PVOID AddDevice;
    ULONG Count;
    UNICODE_STRING ServiceKeyName;
} DRIVER_EXTENSION, *PDRIVER_EXTENSION;

typedef struct _DRIVER_OBJECT {
    CSHORT Type;
    CSHORT Size;
    PDEVICE_OBJECT DeviceObject;  // first device of the driver's device list
    ULONG Flags;
    PVOID DriverStart;
    ULONG DriverSize;
    PVOID DriverSection;
    PDRIVER_EXTENSION DriverExtension;
    UNICODE_STRING DriverName;
    PUNICODE_STRING HardwareDatabase;
    PFAST_IO_DISPATCH FastIoDispatch;
    PDRIVER_INITIALIZE DriverInit;
    PVOID DriverStartIo;
    PDRIVER_UNLOAD DriverUnload;
    PDRIVER_DISPATCH MajorFunction[IRP_MJ_MAXIMUM_FUNCTION + 1];
} DRIVER_OBJECT;

typedef struct _DEVICE_OBJECT {
    CSHORT Type;
    USHORT Size;
    LONG ReferenceCount;
    PDRIVER_OBJECT DriverObject;
    PDEVICE_OBJECT NextDevice;      // next device of the same driver
    PDEVICE_OBJECT AttachedDevice;  // device attached above this one
    PIRP CurrentIrp;
    PVOID Timer;
    ULONG Flags;
    ULONG Characteristics;
    PVPB Vpb;
    PVOID DeviceExtension;
    ULONG DeviceType;
    CCHAR StackSize;
    union {
        LIST_ENTRY ListEntry;
        WAIT_CONTEXT_BLOCK Wcb;
    } Queue;
    ULONG AlignmentRequirement;
    KDEVICE_QUEUE DeviceQueue;
    KDPC Dpc;
    ULONG ActiveThreadCount;
    PSECURITY_DESCRIPTOR SecurityDescriptor;
    KEVENT DeviceLock;
    USHORT SectorSize;
    USHORT Spare1;
    PVOID DeviceObjectExtension;
    PVOID Reserved;
} DEVICE_OBJECT;

// Stack-location helpers, as the DDK defines them.
#define IoGetCurrentIrpStackLocation(Irp) ((Irp)->Tail.Overlay.CurrentStackLocation)
#define IoGetNextIrpStackLocation(Irp) ((Irp)->Tail.Overlay.CurrentStackLocation - 1)
#define IoSetNextIrpStackLocation(Irp)                   \
    do {                                                 \
        (Irp)->CurrentLocation--;                        \
        (Irp)->Tail.Overlay.CurrentStackLocation--;      \
    } while (0)
#define IoSkipCurrentIrpStackLocation(Irp)               \
    do {                                                 \
        (Irp)->CurrentLocation++;                        \
        (Irp)->Tail.Overlay.CurrentStackLocation++;      \
    } while (0)
#define IoCopyCurrentIrpStackLocationToNext(Irp)                                                  \
    do {                                                                                          \
        PIO_STACK_LOCATION _irpSp = IoGetCurrentIrpStackLocation(Irp);                           \
        PIO_STACK_LOCATION _nextIrpSp = IoGetNextIrpStackLocation(Irp);                          \
        memcpy(_nextIrpSp, _irpSp, FIELD_OFFSET(IO_STACK_LOCATION, CompletionRoutine));           \
        _nextIrpSp->Control = 0;                                                                  \
    } while (0)
#define IoSetCompletionRoutine(Irp, Routine, CompletionContext, Success, Error, Cancel) \
    do {                                                                                 \
        PIO_STACK_LOCATION _irpSp = IoGetNextIrpStackLocation(Irp);                     \
        _irpSp->CompletionRoutine = (Routine);                                          \
        _irpSp->Context = (CompletionContext);                                          \
        _irpSp->Control = 0;                                                            \
        if (Success) _irpSp->Control = SL_INVOKE_ON_SUCCESS;                            \
        if (Error) _irpSp->Control |= SL_INVOKE_ON_ERROR;                               \
        if (Cancel) _irpSp->Control |= SL_INVOKE_ON_CANCEL;                             \
    } while (0)
#define IoMarkIrpPending(Irp) (IoGetCurrentIrpStackLocation(Irp)->Control |= SL_PENDING_RETURNED)
#define IoCallDriver(a, b) IofCallDriver(a, b)
#define IoCompleteRequest(a, b) IofCompleteRequest(a, b)
#define IoSizeOfIrp(StackSize) ((USHORT)(sizeof(IRP) + ((StackSize) * (sizeof(IO_STACK_LOCATION)))))

NT_BEGIN_C
extern POBJECT_TYPE* IoFileObjectType;
extern POBJECT_TYPE* IoDeviceObjectType;
extern POBJECT_TYPE* IoDriverObjectType;

NTSTATUS IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                        ULONG DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                        PDEVICE_OBJECT* DeviceObject);
VOID IoDeleteDevice(PDEVICE_OBJECT DeviceObject);
NTSTATUS IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName);
NTSTATUS IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName);
PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice);
VOID IoDetachDevice(PDEVICE_OBJECT TargetDevice);
PDEVICE_OBJECT IoGetAttachedDevice(PDEVICE_OBJECT DeviceObject);
PDEVICE_OBJECT IoGetAttachedDeviceReference(PDEVICE_OBJECT DeviceObject);
PDEVICE_OBJECT IoGetRelatedDeviceObject(PFILE_OBJECT FileObject);
PEPROCESS IoGetCurrentProcess(VOID);
NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
VOID FASTCALL IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost);
PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota);
VOID IoFreeIrp(PIRP Irp);
VOID IoReuseIrp(PIRP Irp, NTSTATUS Status);
VOID IoInitializeIrp(PIRP Irp, USHORT PacketSize, CCHAR StackSize);
PIRP IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                   ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                   BOOLEAN InternalDeviceIoControl, PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock);
PIRP IoBuildSynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer, ULONG Length,
                                  PLARGE_INTEGER StartingOffset, PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock);
PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota, PIRP Irp);
VOID IoFreeMdl(PMDL Mdl);
VOID MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList);
VOID MmProbeAndLockPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode, LOCK_OPERATION Operation);
VOID MmUnlockPages(PMDL MemoryDescriptorList);
PVOID MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                   MEMORY_CACHING_TYPE CacheType, PVOID BaseAddress, ULONG BugCheckOnFailure,
                                   ULONG Priority);
VOID MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList);
PGENERIC_MAPPING IoGetFileObjectGenericMapping(VOID);
NTSTATUS IoQueryVolumeInformation(PFILE_OBJECT FileObject, FS_INFORMATION_CLASS FsInformationClass,
                                  ULONG Length, PVOID FsInformation, PULONG ReturnedLength);
NTSTATUS IoQueryFileInformation(PFILE_OBJECT FileObject, FILE_INFORMATION_CLASS FileInformationClass,
                                ULONG Length, PVOID FileInformation, PULONG ReturnedLength);
NTSTATUS IoCheckShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess, PFILE_OBJECT FileObject,
                            PSHARE_ACCESS ShareAccess, BOOLEAN Update);
VOID IoSetShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess, PFILE_OBJECT FileObject,
                      PSHARE_ACCESS ShareAccess);
VOID IoUpdateShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess);
VOID IoRemoveShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess);
BOOLEAN IoIsOperationSynchronous(PIRP Irp);
PEPROCESS IoGetRequestorProcess(PIRP Irp);
ULONG IoGetRequestorProcessId(PIRP Irp);
PFILE_OBJECT IoCreateStreamFileObject(PFILE_OBJECT FileObject, PDEVICE_OBJECT DeviceObject);
VOID IoRegisterFileSystem(PDEVICE_OBJECT DeviceObject);
NT_END_C
