// System services. Nt* take the caller's previous mode (user mode from a
// process thread); Zw* run as kernel mode callers. Both resolve names and
// handles through the object manager and send request packets to the top of
// the device stack.
#pragma once
#include "ntdef.h"
#include "io.h"

#define NT_FILE_SERVICES(P)                                                                                   \
    NTSTATUS P##CreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes, \
                           PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,  \
                           ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,     \
                           ULONG EaLength);                                                                     \
    NTSTATUS P##OpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,   \
                         PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions);                 \
    NTSTATUS P##ReadFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,        \
                         PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, \
                         PULONG Key);                                                                           \
    NTSTATUS P##WriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,       \
                          PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,                           \
                          PLARGE_INTEGER ByteOffset, PULONG Key);                                               \
    NTSTATUS P##QueryInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, \
                                     ULONG Length, FILE_INFORMATION_CLASS FileInformationClass);               \
    NTSTATUS P##SetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,   \
                                   ULONG Length, FILE_INFORMATION_CLASS FileInformationClass);                 \
    NTSTATUS P##QueryDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,                \
                                   PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,    \
                                   ULONG Length, FILE_INFORMATION_CLASS FileInformationClass,                  \
                                   BOOLEAN ReturnSingleEntry, PUNICODE_STRING FileName, BOOLEAN RestartScan);  \
    NTSTATUS P##NotifyChangeDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,         \
                                          PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer,      \
                                          ULONG Length, ULONG CompletionFilter, BOOLEAN WatchTree);            \
    NTSTATUS P##QuerySecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,                   \
                                    PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Length,                     \
                                    PULONG LengthNeeded);                                                      \
    NTSTATUS P##SetSecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,                     \
                                  PSECURITY_DESCRIPTOR SecurityDescriptor);                                    \
    NTSTATUS P##QueryVolumeInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,                  \
                                           PVOID FsInformation, ULONG Length,                                  \
                                           FS_INFORMATION_CLASS FsInformationClass);                           \
    NTSTATUS P##FsControlFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,   \
                              PIO_STATUS_BLOCK IoStatusBlock, ULONG FsControlCode, PVOID InputBuffer,          \
                              ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength);          \
    NTSTATUS P##DeviceIoControlFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,               \
                                    PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, ULONG IoControlCode,     \
                                    PVOID InputBuffer, ULONG InputBufferLength, PVOID OutputBuffer,            \
                                    ULONG OutputBufferLength);                                                 \
    NTSTATUS P##LockFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,        \
                         PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER ByteOffset, PLARGE_INTEGER Length,     \
                         ULONG Key, BOOLEAN FailImmediately, BOOLEAN ExclusiveLock);                           \
    NTSTATUS P##UnlockFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER ByteOffset,       \
                           PLARGE_INTEGER Length, ULONG Key);                                                  \
    NTSTATUS P##FlushBuffersFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock);                           \
    NTSTATUS P##Close(HANDLE Handle);                                                                          \
    NTSTATUS P##WaitForSingleObject(HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout);                 \
    NTSTATUS P##CreateEvent(PHANDLE EventHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes, \
                            EVENT_TYPE EventType, BOOLEAN InitialState);                                       \
    NTSTATUS P##SetEvent(HANDLE EventHandle, PLONG PreviousState);                                             \
    NTSTATUS P##CreateSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,                        \
                                         POBJECT_ATTRIBUTES ObjectAttributes, PUNICODE_STRING LinkTarget);     \
    NTSTATUS P##OpenSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,                          \
                                       POBJECT_ATTRIBUTES ObjectAttributes);                                   \
    NTSTATUS P##QuerySymbolicLinkObject(HANDLE LinkHandle, PUNICODE_STRING LinkTarget, PULONG ReturnedLength);

NT_BEGIN_C
NT_FILE_SERVICES(Nt)
NT_FILE_SERVICES(Zw)
NT_END_C

#define NtCurrentProcess() ((HANDLE)(LONG_PTR)-1)
#define ZwCurrentProcess() NtCurrentProcess()
