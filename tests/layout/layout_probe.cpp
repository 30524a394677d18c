// The NT records the driver uses, as a compiler lays them out: offset, size
// and alignment of every field, size and alignment of every record. Compiled
// to assembly only (scripts/check-layout.sh), once against the DDK's
// <ntifs.h> for 32-bit Windows and once against the emulated machine's headers
// at -m32; the two listings must be identical.
//
// The list holds every field the driver reads or writes, including those
// reached through the DDK's inline helpers (stack locations, lookaside lists,
// completion routines), and the whole of the records the machine and the
// driver share by address (request packets, file, device and driver objects,
// the fast I/O table).
#if defined(_WIN32)
#include <ntifs.h>
#else
#include <nt/ntifs.h>
#endif

#define RECORD(T) \
    asm volatile("# LAYOUT " #T " size=%c0 align=%c1" ::"i"(sizeof(T)), "i"(alignof(T)))
#define FIELD(T, F)                                                                          \
    asm volatile("# LAYOUT " #T "." #F " offset=%c0 size=%c1 align=%c2" ::"i"(offsetof(T, F)), \
                 "i"(sizeof(((T*)0)->F)), "i"(alignof(decltype(((T*)0)->F))))

void LayoutProbe() {
    // Scalars whose width or alignment shapes the records.
    RECORD(BOOLEAN);
    RECORD(CCHAR);
    RECORD(CSHORT);
    RECORD(WCHAR);
    RECORD(ULONG);
    RECORD(LONGLONG);
    RECORD(ULONGLONG);
    RECORD(ULONG_PTR);
    RECORD(SIZE_T);
    RECORD(HANDLE);
    RECORD(NTSTATUS);
    RECORD(ACCESS_MASK);
    RECORD(KSPIN_LOCK);
    RECORD(POOL_TYPE);
    RECORD(FILE_INFORMATION_CLASS);
    RECORD(FS_INFORMATION_CLASS);
    RECORD(KEY_VALUE_INFORMATION_CLASS);
    RECORD(EVENT_TYPE);

    RECORD(LARGE_INTEGER);
    FIELD(LARGE_INTEGER, LowPart);
    FIELD(LARGE_INTEGER, HighPart);
    FIELD(LARGE_INTEGER, u.LowPart);
    FIELD(LARGE_INTEGER, u.HighPart);
    FIELD(LARGE_INTEGER, QuadPart);

    RECORD(LIST_ENTRY);
    FIELD(LIST_ENTRY, Flink);
    FIELD(LIST_ENTRY, Blink);
    RECORD(SINGLE_LIST_ENTRY);
    FIELD(SINGLE_LIST_ENTRY, Next);
    RECORD(SLIST_HEADER);
    FIELD(SLIST_HEADER, Alignment);
    FIELD(SLIST_HEADER, Next);
    FIELD(SLIST_HEADER, Depth);
    FIELD(SLIST_HEADER, Sequence);

    RECORD(UNICODE_STRING);
    FIELD(UNICODE_STRING, Length);
    FIELD(UNICODE_STRING, MaximumLength);
    FIELD(UNICODE_STRING, Buffer);
    RECORD(STRING);
    FIELD(STRING, Length);
    FIELD(STRING, MaximumLength);
    FIELD(STRING, Buffer);

    RECORD(IO_STATUS_BLOCK);
    FIELD(IO_STATUS_BLOCK, Status);
    FIELD(IO_STATUS_BLOCK, Pointer);
    FIELD(IO_STATUS_BLOCK, Information);

    RECORD(OBJECT_ATTRIBUTES);
    FIELD(OBJECT_ATTRIBUTES, Length);
    FIELD(OBJECT_ATTRIBUTES, RootDirectory);
    FIELD(OBJECT_ATTRIBUTES, ObjectName);
    FIELD(OBJECT_ATTRIBUTES, Attributes);
    FIELD(OBJECT_ATTRIBUTES, SecurityDescriptor);
    FIELD(OBJECT_ATTRIBUTES, SecurityQualityOfService);

    RECORD(GENERIC_MAPPING);
    FIELD(GENERIC_MAPPING, GenericRead);
    FIELD(GENERIC_MAPPING, GenericWrite);
    FIELD(GENERIC_MAPPING, GenericExecute);
    FIELD(GENERIC_MAPPING, GenericAll);

    // Dispatcher objects and executive locks embedded in driver records.
    RECORD(DISPATCHER_HEADER);
    FIELD(DISPATCHER_HEADER, Type);
    FIELD(DISPATCHER_HEADER, SignalState);
    FIELD(DISPATCHER_HEADER, WaitListHead);
    RECORD(KEVENT);
    FIELD(KEVENT, Header);
    RECORD(KAPC);
    RECORD(KDPC);
    RECORD(KDEVICE_QUEUE);
    RECORD(KDEVICE_QUEUE_ENTRY);
    RECORD(WAIT_CONTEXT_BLOCK);
    RECORD(ERESOURCE);
    FIELD(ERESOURCE, SystemResourcesList);
    FIELD(ERESOURCE, OwnerTable);
    FIELD(ERESOURCE, ActiveCount);
    FIELD(ERESOURCE, Flag);
    FIELD(ERESOURCE, NumberOfSharedWaiters);
    FIELD(ERESOURCE, NumberOfExclusiveWaiters);
    FIELD(ERESOURCE, Address);
    FIELD(ERESOURCE, SpinLock);
    RECORD(FAST_MUTEX);

    // Lookaside lists: the DDK's inline allocate and free work on these fields.
    RECORD(GENERAL_LOOKASIDE);
    RECORD(NPAGED_LOOKASIDE_LIST);
    FIELD(NPAGED_LOOKASIDE_LIST, L);
    FIELD(NPAGED_LOOKASIDE_LIST, L.ListHead);
    FIELD(NPAGED_LOOKASIDE_LIST, L.ListHead.Depth);
    FIELD(NPAGED_LOOKASIDE_LIST, L.Depth);
    FIELD(NPAGED_LOOKASIDE_LIST, L.MaximumDepth);
    FIELD(NPAGED_LOOKASIDE_LIST, L.TotalAllocates);
    FIELD(NPAGED_LOOKASIDE_LIST, L.AllocateMisses);
    FIELD(NPAGED_LOOKASIDE_LIST, L.AllocateHits);
    FIELD(NPAGED_LOOKASIDE_LIST, L.TotalFrees);
    FIELD(NPAGED_LOOKASIDE_LIST, L.FreeMisses);
    FIELD(NPAGED_LOOKASIDE_LIST, L.FreeHits);
    FIELD(NPAGED_LOOKASIDE_LIST, L.Type);
    FIELD(NPAGED_LOOKASIDE_LIST, L.Tag);
    FIELD(NPAGED_LOOKASIDE_LIST, L.Size);
    FIELD(NPAGED_LOOKASIDE_LIST, L.Allocate);
    FIELD(NPAGED_LOOKASIDE_LIST, L.Free);
    FIELD(NPAGED_LOOKASIDE_LIST, L.ListEntry);
    FIELD(NPAGED_LOOKASIDE_LIST, L.LastTotalAllocates);
    FIELD(NPAGED_LOOKASIDE_LIST, L.LastAllocateMisses);
    FIELD(NPAGED_LOOKASIDE_LIST, L.Future);

    RECORD(MDL);
    FIELD(MDL, Next);
    FIELD(MDL, Size);
    FIELD(MDL, MdlFlags);
    FIELD(MDL, Process);
    FIELD(MDL, MappedSystemVa);
    FIELD(MDL, StartVa);
    FIELD(MDL, ByteCount);
    FIELD(MDL, ByteOffset);

    RECORD(VPB);
    FIELD(VPB, Type);
    FIELD(VPB, Size);
    FIELD(VPB, Flags);
    FIELD(VPB, VolumeLabelLength);
    FIELD(VPB, DeviceObject);
    FIELD(VPB, RealDevice);
    FIELD(VPB, SerialNumber);
    FIELD(VPB, ReferenceCount);
    FIELD(VPB, VolumeLabel);

    RECORD(SECTION_OBJECT_POINTERS);
    FIELD(SECTION_OBJECT_POINTERS, DataSectionObject);
    FIELD(SECTION_OBJECT_POINTERS, SharedCacheMap);
    FIELD(SECTION_OBJECT_POINTERS, ImageSectionObject);

    RECORD(FILE_OBJECT);
    FIELD(FILE_OBJECT, Type);
    FIELD(FILE_OBJECT, Size);
    FIELD(FILE_OBJECT, DeviceObject);
    FIELD(FILE_OBJECT, Vpb);
    FIELD(FILE_OBJECT, FsContext);
    FIELD(FILE_OBJECT, FsContext2);
    FIELD(FILE_OBJECT, SectionObjectPointer);
    FIELD(FILE_OBJECT, PrivateCacheMap);
    FIELD(FILE_OBJECT, FinalStatus);
    FIELD(FILE_OBJECT, RelatedFileObject);
    FIELD(FILE_OBJECT, LockOperation);
    FIELD(FILE_OBJECT, DeletePending);
    FIELD(FILE_OBJECT, ReadAccess);
    FIELD(FILE_OBJECT, WriteAccess);
    FIELD(FILE_OBJECT, DeleteAccess);
    FIELD(FILE_OBJECT, SharedRead);
    FIELD(FILE_OBJECT, SharedWrite);
    FIELD(FILE_OBJECT, SharedDelete);
    FIELD(FILE_OBJECT, Flags);
    FIELD(FILE_OBJECT, FileName);
    FIELD(FILE_OBJECT, FileName.Length);
    FIELD(FILE_OBJECT, FileName.Buffer);
    FIELD(FILE_OBJECT, CurrentByteOffset);
    FIELD(FILE_OBJECT, Waiters);
    FIELD(FILE_OBJECT, Busy);
    FIELD(FILE_OBJECT, LastLock);
    FIELD(FILE_OBJECT, Lock);
    FIELD(FILE_OBJECT, Event);
    FIELD(FILE_OBJECT, CompletionContext);
    FIELD(FILE_OBJECT, IrpListLock);
    FIELD(FILE_OBJECT, IrpList);
    FIELD(FILE_OBJECT, FileObjectExtension);

    RECORD(DEVICE_OBJECT);
    FIELD(DEVICE_OBJECT, Type);
    FIELD(DEVICE_OBJECT, Size);
    FIELD(DEVICE_OBJECT, ReferenceCount);
    FIELD(DEVICE_OBJECT, DriverObject);
    FIELD(DEVICE_OBJECT, NextDevice);
    FIELD(DEVICE_OBJECT, AttachedDevice);
    FIELD(DEVICE_OBJECT, CurrentIrp);
    FIELD(DEVICE_OBJECT, Timer);
    FIELD(DEVICE_OBJECT, Flags);
    FIELD(DEVICE_OBJECT, Characteristics);
    FIELD(DEVICE_OBJECT, Vpb);
    FIELD(DEVICE_OBJECT, DeviceExtension);
    FIELD(DEVICE_OBJECT, DeviceType);
    FIELD(DEVICE_OBJECT, StackSize);
    FIELD(DEVICE_OBJECT, Queue);
    FIELD(DEVICE_OBJECT, Queue.ListEntry);
    FIELD(DEVICE_OBJECT, Queue.Wcb);
    FIELD(DEVICE_OBJECT, AlignmentRequirement);
    FIELD(DEVICE_OBJECT, DeviceQueue);
    FIELD(DEVICE_OBJECT, Dpc);
    FIELD(DEVICE_OBJECT, ActiveThreadCount);
    FIELD(DEVICE_OBJECT, SecurityDescriptor);
    FIELD(DEVICE_OBJECT, DeviceLock);
    FIELD(DEVICE_OBJECT, SectorSize);
    FIELD(DEVICE_OBJECT, Spare1);
    FIELD(DEVICE_OBJECT, DeviceObjectExtension);
    FIELD(DEVICE_OBJECT, Reserved);

    RECORD(DRIVER_EXTENSION);
    FIELD(DRIVER_EXTENSION, DriverObject);
    FIELD(DRIVER_EXTENSION, AddDevice);
    FIELD(DRIVER_EXTENSION, Count);
    FIELD(DRIVER_EXTENSION, ServiceKeyName);

    RECORD(DRIVER_OBJECT);
    FIELD(DRIVER_OBJECT, Type);
    FIELD(DRIVER_OBJECT, Size);
    FIELD(DRIVER_OBJECT, DeviceObject);
    FIELD(DRIVER_OBJECT, Flags);
    FIELD(DRIVER_OBJECT, DriverStart);
    FIELD(DRIVER_OBJECT, DriverSize);
    FIELD(DRIVER_OBJECT, DriverSection);
    FIELD(DRIVER_OBJECT, DriverExtension);
    FIELD(DRIVER_OBJECT, DriverName);
    FIELD(DRIVER_OBJECT, HardwareDatabase);
    FIELD(DRIVER_OBJECT, FastIoDispatch);
    FIELD(DRIVER_OBJECT, DriverInit);
    FIELD(DRIVER_OBJECT, DriverStartIo);
    FIELD(DRIVER_OBJECT, DriverUnload);
    FIELD(DRIVER_OBJECT, MajorFunction);

    RECORD(FAST_IO_DISPATCH);
    FIELD(FAST_IO_DISPATCH, SizeOfFastIoDispatch);
    FIELD(FAST_IO_DISPATCH, FastIoCheckIfPossible);
    FIELD(FAST_IO_DISPATCH, FastIoRead);
    FIELD(FAST_IO_DISPATCH, FastIoWrite);
    FIELD(FAST_IO_DISPATCH, FastIoQueryBasicInfo);
    FIELD(FAST_IO_DISPATCH, FastIoQueryStandardInfo);
    FIELD(FAST_IO_DISPATCH, FastIoLock);
    FIELD(FAST_IO_DISPATCH, FastIoUnlockSingle);
    FIELD(FAST_IO_DISPATCH, FastIoUnlockAll);
    FIELD(FAST_IO_DISPATCH, FastIoUnlockAllByKey);
    FIELD(FAST_IO_DISPATCH, FastIoDeviceControl);
    FIELD(FAST_IO_DISPATCH, AcquireFileForNtCreateSection);
    FIELD(FAST_IO_DISPATCH, ReleaseFileForNtCreateSection);
    FIELD(FAST_IO_DISPATCH, FastIoDetachDevice);
    FIELD(FAST_IO_DISPATCH, FastIoQueryNetworkOpenInfo);
    FIELD(FAST_IO_DISPATCH, AcquireForModWrite);
    FIELD(FAST_IO_DISPATCH, MdlRead);
    FIELD(FAST_IO_DISPATCH, MdlReadComplete);
    FIELD(FAST_IO_DISPATCH, PrepareMdlWrite);
    FIELD(FAST_IO_DISPATCH, MdlWriteComplete);
    FIELD(FAST_IO_DISPATCH, FastIoReadCompressed);
    FIELD(FAST_IO_DISPATCH, FastIoWriteCompressed);
    FIELD(FAST_IO_DISPATCH, MdlReadCompleteCompressed);
    FIELD(FAST_IO_DISPATCH, MdlWriteCompleteCompressed);
    FIELD(FAST_IO_DISPATCH, FastIoQueryOpen);
    FIELD(FAST_IO_DISPATCH, ReleaseForModWrite);
    FIELD(FAST_IO_DISPATCH, AcquireForCcFlush);
    FIELD(FAST_IO_DISPATCH, ReleaseForCcFlush);

    RECORD(IO_SECURITY_CONTEXT);
    FIELD(IO_SECURITY_CONTEXT, SecurityQos);
    FIELD(IO_SECURITY_CONTEXT, AccessState);
    FIELD(IO_SECURITY_CONTEXT, DesiredAccess);
    FIELD(IO_SECURITY_CONTEXT, FullCreateOptions);

    RECORD(IO_STACK_LOCATION);
    FIELD(IO_STACK_LOCATION, MajorFunction);
    FIELD(IO_STACK_LOCATION, MinorFunction);
    FIELD(IO_STACK_LOCATION, Flags);
    FIELD(IO_STACK_LOCATION, Control);
    FIELD(IO_STACK_LOCATION, Parameters);
    FIELD(IO_STACK_LOCATION, Parameters.Create);
    FIELD(IO_STACK_LOCATION, Parameters.Create.SecurityContext);
    FIELD(IO_STACK_LOCATION, Parameters.Create.Options);
    FIELD(IO_STACK_LOCATION, Parameters.Create.FileAttributes);
    FIELD(IO_STACK_LOCATION, Parameters.Create.ShareAccess);
    FIELD(IO_STACK_LOCATION, Parameters.Create.EaLength);
    FIELD(IO_STACK_LOCATION, Parameters.Read);
    FIELD(IO_STACK_LOCATION, Parameters.Read.Length);
    FIELD(IO_STACK_LOCATION, Parameters.Read.Key);
    FIELD(IO_STACK_LOCATION, Parameters.Read.ByteOffset);
    FIELD(IO_STACK_LOCATION, Parameters.Read.ByteOffset.LowPart);
    FIELD(IO_STACK_LOCATION, Parameters.Read.ByteOffset.HighPart);
    FIELD(IO_STACK_LOCATION, Parameters.Write);
    FIELD(IO_STACK_LOCATION, Parameters.Write.Length);
    FIELD(IO_STACK_LOCATION, Parameters.Write.Key);
    FIELD(IO_STACK_LOCATION, Parameters.Write.ByteOffset);
    FIELD(IO_STACK_LOCATION, Parameters.QueryDirectory);
    FIELD(IO_STACK_LOCATION, Parameters.QueryDirectory.Length);
    FIELD(IO_STACK_LOCATION, Parameters.QueryDirectory.FileName);
    FIELD(IO_STACK_LOCATION, Parameters.QueryDirectory.FileInformationClass);
    FIELD(IO_STACK_LOCATION, Parameters.QueryDirectory.FileIndex);
    FIELD(IO_STACK_LOCATION, Parameters.NotifyDirectory);
    FIELD(IO_STACK_LOCATION, Parameters.NotifyDirectory.Length);
    FIELD(IO_STACK_LOCATION, Parameters.NotifyDirectory.CompletionFilter);
    FIELD(IO_STACK_LOCATION, Parameters.QueryFile);
    FIELD(IO_STACK_LOCATION, Parameters.QueryFile.Length);
    FIELD(IO_STACK_LOCATION, Parameters.QueryFile.FileInformationClass);
    FIELD(IO_STACK_LOCATION, Parameters.SetFile);
    FIELD(IO_STACK_LOCATION, Parameters.SetFile.Length);
    FIELD(IO_STACK_LOCATION, Parameters.SetFile.FileInformationClass);
    FIELD(IO_STACK_LOCATION, Parameters.SetFile.FileObject);
    FIELD(IO_STACK_LOCATION, Parameters.SetFile.ReplaceIfExists);
    FIELD(IO_STACK_LOCATION, Parameters.SetFile.AdvanceOnly);
    FIELD(IO_STACK_LOCATION, Parameters.SetFile.ClusterCount);
    FIELD(IO_STACK_LOCATION, Parameters.SetFile.DeleteHandle);
    FIELD(IO_STACK_LOCATION, Parameters.QueryEa);
    FIELD(IO_STACK_LOCATION, Parameters.QueryEa.Length);
    FIELD(IO_STACK_LOCATION, Parameters.QueryEa.EaList);
    FIELD(IO_STACK_LOCATION, Parameters.QueryEa.EaListLength);
    FIELD(IO_STACK_LOCATION, Parameters.QueryEa.EaIndex);
    FIELD(IO_STACK_LOCATION, Parameters.SetEa.Length);
    FIELD(IO_STACK_LOCATION, Parameters.QueryVolume);
    FIELD(IO_STACK_LOCATION, Parameters.QueryVolume.Length);
    FIELD(IO_STACK_LOCATION, Parameters.QueryVolume.FsInformationClass);
    FIELD(IO_STACK_LOCATION, Parameters.SetVolume.Length);
    FIELD(IO_STACK_LOCATION, Parameters.SetVolume.FsInformationClass);
    FIELD(IO_STACK_LOCATION, Parameters.FileSystemControl);
    FIELD(IO_STACK_LOCATION, Parameters.FileSystemControl.OutputBufferLength);
    FIELD(IO_STACK_LOCATION, Parameters.FileSystemControl.InputBufferLength);
    FIELD(IO_STACK_LOCATION, Parameters.FileSystemControl.FsControlCode);
    FIELD(IO_STACK_LOCATION, Parameters.FileSystemControl.Type3InputBuffer);
    FIELD(IO_STACK_LOCATION, Parameters.LockControl);
    FIELD(IO_STACK_LOCATION, Parameters.LockControl.Length);
    FIELD(IO_STACK_LOCATION, Parameters.LockControl.Key);
    FIELD(IO_STACK_LOCATION, Parameters.LockControl.ByteOffset);
    FIELD(IO_STACK_LOCATION, Parameters.DeviceIoControl);
    FIELD(IO_STACK_LOCATION, Parameters.DeviceIoControl.OutputBufferLength);
    FIELD(IO_STACK_LOCATION, Parameters.DeviceIoControl.InputBufferLength);
    FIELD(IO_STACK_LOCATION, Parameters.DeviceIoControl.IoControlCode);
    FIELD(IO_STACK_LOCATION, Parameters.DeviceIoControl.Type3InputBuffer);
    FIELD(IO_STACK_LOCATION, Parameters.QuerySecurity);
    FIELD(IO_STACK_LOCATION, Parameters.QuerySecurity.SecurityInformation);
    FIELD(IO_STACK_LOCATION, Parameters.QuerySecurity.Length);
    FIELD(IO_STACK_LOCATION, Parameters.SetSecurity);
    FIELD(IO_STACK_LOCATION, Parameters.SetSecurity.SecurityInformation);
    FIELD(IO_STACK_LOCATION, Parameters.SetSecurity.SecurityDescriptor);
    FIELD(IO_STACK_LOCATION, Parameters.MountVolume.Vpb);
    FIELD(IO_STACK_LOCATION, Parameters.MountVolume.DeviceObject);
    FIELD(IO_STACK_LOCATION, Parameters.Others.Argument1);
    FIELD(IO_STACK_LOCATION, Parameters.Others.Argument2);
    FIELD(IO_STACK_LOCATION, Parameters.Others.Argument3);
    FIELD(IO_STACK_LOCATION, Parameters.Others.Argument4);
    FIELD(IO_STACK_LOCATION, DeviceObject);
    FIELD(IO_STACK_LOCATION, FileObject);
    FIELD(IO_STACK_LOCATION, CompletionRoutine);
    FIELD(IO_STACK_LOCATION, Context);

    RECORD(IRP);
    FIELD(IRP, Type);
    FIELD(IRP, Size);
    FIELD(IRP, MdlAddress);
    FIELD(IRP, Flags);
    FIELD(IRP, AssociatedIrp);
    FIELD(IRP, AssociatedIrp.MasterIrp);
    FIELD(IRP, AssociatedIrp.IrpCount);
    FIELD(IRP, AssociatedIrp.SystemBuffer);
    FIELD(IRP, ThreadListEntry);
    FIELD(IRP, IoStatus);
    FIELD(IRP, IoStatus.Status);
    FIELD(IRP, IoStatus.Information);
    FIELD(IRP, RequestorMode);
    FIELD(IRP, PendingReturned);
    FIELD(IRP, StackCount);
    FIELD(IRP, CurrentLocation);
    FIELD(IRP, Cancel);
    FIELD(IRP, CancelIrql);
    FIELD(IRP, ApcEnvironment);
    FIELD(IRP, AllocationFlags);
    FIELD(IRP, UserIosb);
    FIELD(IRP, UserEvent);
    FIELD(IRP, Overlay);
    FIELD(IRP, Overlay.AsynchronousParameters.UserApcRoutine);
    FIELD(IRP, Overlay.AsynchronousParameters.UserApcContext);
    FIELD(IRP, Overlay.AllocationSize);
    FIELD(IRP, CancelRoutine);
    FIELD(IRP, UserBuffer);
    FIELD(IRP, Tail);
    FIELD(IRP, Tail.Overlay);
    FIELD(IRP, Tail.Overlay.DriverContext);
    FIELD(IRP, Tail.Overlay.Thread);
    FIELD(IRP, Tail.Overlay.AuxiliaryBuffer);
    FIELD(IRP, Tail.Overlay.ListEntry);
    FIELD(IRP, Tail.Overlay.CurrentStackLocation);
    FIELD(IRP, Tail.Overlay.PacketType);
    FIELD(IRP, Tail.Overlay.OriginalFileObject);
    FIELD(IRP, Tail.Apc);
    FIELD(IRP, Tail.CompletionKey);

    RECORD(FSRTL_COMMON_FCB_HEADER);
    FIELD(FSRTL_COMMON_FCB_HEADER, NodeTypeCode);
    FIELD(FSRTL_COMMON_FCB_HEADER, NodeByteSize);
    FIELD(FSRTL_COMMON_FCB_HEADER, Flags);
    FIELD(FSRTL_COMMON_FCB_HEADER, IsFastIoPossible);
    FIELD(FSRTL_COMMON_FCB_HEADER, Flags2);
    FIELD(FSRTL_COMMON_FCB_HEADER, Resource);
    FIELD(FSRTL_COMMON_FCB_HEADER, PagingIoResource);
    FIELD(FSRTL_COMMON_FCB_HEADER, AllocationSize);
    FIELD(FSRTL_COMMON_FCB_HEADER, FileSize);
    FIELD(FSRTL_COMMON_FCB_HEADER, ValidDataLength);

    // File information records, read and written by the driver in its buffers.
    RECORD(FILE_BASIC_INFORMATION);
    FIELD(FILE_BASIC_INFORMATION, CreationTime);
    FIELD(FILE_BASIC_INFORMATION, LastAccessTime);
    FIELD(FILE_BASIC_INFORMATION, LastWriteTime);
    FIELD(FILE_BASIC_INFORMATION, ChangeTime);
    FIELD(FILE_BASIC_INFORMATION, FileAttributes);
    RECORD(FILE_STANDARD_INFORMATION);
    FIELD(FILE_STANDARD_INFORMATION, AllocationSize);
    FIELD(FILE_STANDARD_INFORMATION, EndOfFile);
    FIELD(FILE_STANDARD_INFORMATION, NumberOfLinks);
    FIELD(FILE_STANDARD_INFORMATION, DeletePending);
    FIELD(FILE_STANDARD_INFORMATION, Directory);
    RECORD(FILE_INTERNAL_INFORMATION);
    FIELD(FILE_INTERNAL_INFORMATION, IndexNumber);
    RECORD(FILE_POSITION_INFORMATION);
    FIELD(FILE_POSITION_INFORMATION, CurrentByteOffset);
    RECORD(FILE_NAME_INFORMATION);
    FIELD(FILE_NAME_INFORMATION, FileNameLength);
    FIELD(FILE_NAME_INFORMATION, FileName);
    RECORD(FILE_RENAME_INFORMATION);
    FIELD(FILE_RENAME_INFORMATION, ReplaceIfExists);
    FIELD(FILE_RENAME_INFORMATION, RootDirectory);
    FIELD(FILE_RENAME_INFORMATION, FileNameLength);
    FIELD(FILE_RENAME_INFORMATION, FileName);
    RECORD(FILE_DISPOSITION_INFORMATION);
    FIELD(FILE_DISPOSITION_INFORMATION, DeleteFile);
    RECORD(FILE_END_OF_FILE_INFORMATION);
    FIELD(FILE_END_OF_FILE_INFORMATION, EndOfFile);
    RECORD(FILE_NETWORK_OPEN_INFORMATION);
    FIELD(FILE_NETWORK_OPEN_INFORMATION, CreationTime);
    FIELD(FILE_NETWORK_OPEN_INFORMATION, LastAccessTime);
    FIELD(FILE_NETWORK_OPEN_INFORMATION, LastWriteTime);
    FIELD(FILE_NETWORK_OPEN_INFORMATION, ChangeTime);
    FIELD(FILE_NETWORK_OPEN_INFORMATION, AllocationSize);
    FIELD(FILE_NETWORK_OPEN_INFORMATION, EndOfFile);
    FIELD(FILE_NETWORK_OPEN_INFORMATION, FileAttributes);

    // Directory listing records: the merged listing copies and rewrites them.
    RECORD(FILE_DIRECTORY_INFORMATION);
    FIELD(FILE_DIRECTORY_INFORMATION, NextEntryOffset);
    FIELD(FILE_DIRECTORY_INFORMATION, FileIndex);
    FIELD(FILE_DIRECTORY_INFORMATION, CreationTime);
    FIELD(FILE_DIRECTORY_INFORMATION, LastAccessTime);
    FIELD(FILE_DIRECTORY_INFORMATION, LastWriteTime);
    FIELD(FILE_DIRECTORY_INFORMATION, ChangeTime);
    FIELD(FILE_DIRECTORY_INFORMATION, EndOfFile);
    FIELD(FILE_DIRECTORY_INFORMATION, AllocationSize);
    FIELD(FILE_DIRECTORY_INFORMATION, FileAttributes);
    FIELD(FILE_DIRECTORY_INFORMATION, FileNameLength);
    FIELD(FILE_DIRECTORY_INFORMATION, FileName);
    RECORD(FILE_FULL_DIR_INFORMATION);
    FIELD(FILE_FULL_DIR_INFORMATION, NextEntryOffset);
    FIELD(FILE_FULL_DIR_INFORMATION, FileIndex);
    FIELD(FILE_FULL_DIR_INFORMATION, CreationTime);
    FIELD(FILE_FULL_DIR_INFORMATION, AllocationSize);
    FIELD(FILE_FULL_DIR_INFORMATION, FileAttributes);
    FIELD(FILE_FULL_DIR_INFORMATION, FileNameLength);
    FIELD(FILE_FULL_DIR_INFORMATION, EaSize);
    FIELD(FILE_FULL_DIR_INFORMATION, FileName);
    RECORD(FILE_BOTH_DIR_INFORMATION);
    FIELD(FILE_BOTH_DIR_INFORMATION, NextEntryOffset);
    FIELD(FILE_BOTH_DIR_INFORMATION, FileIndex);
    FIELD(FILE_BOTH_DIR_INFORMATION, CreationTime);
    FIELD(FILE_BOTH_DIR_INFORMATION, AllocationSize);
    FIELD(FILE_BOTH_DIR_INFORMATION, FileAttributes);
    FIELD(FILE_BOTH_DIR_INFORMATION, FileNameLength);
    FIELD(FILE_BOTH_DIR_INFORMATION, EaSize);
    FIELD(FILE_BOTH_DIR_INFORMATION, ShortNameLength);
    FIELD(FILE_BOTH_DIR_INFORMATION, ShortName);
    FIELD(FILE_BOTH_DIR_INFORMATION, FileName);
    RECORD(FILE_ID_BOTH_DIR_INFORMATION);
    FIELD(FILE_ID_BOTH_DIR_INFORMATION, NextEntryOffset);
    FIELD(FILE_ID_BOTH_DIR_INFORMATION, CreationTime);
    FIELD(FILE_ID_BOTH_DIR_INFORMATION, AllocationSize);
    FIELD(FILE_ID_BOTH_DIR_INFORMATION, FileAttributes);
    FIELD(FILE_ID_BOTH_DIR_INFORMATION, FileNameLength);
    FIELD(FILE_ID_BOTH_DIR_INFORMATION, EaSize);
    FIELD(FILE_ID_BOTH_DIR_INFORMATION, ShortNameLength);
    FIELD(FILE_ID_BOTH_DIR_INFORMATION, ShortName);
    FIELD(FILE_ID_BOTH_DIR_INFORMATION, FileId);
    FIELD(FILE_ID_BOTH_DIR_INFORMATION, FileName);
    RECORD(FILE_ID_FULL_DIR_INFORMATION);
    FIELD(FILE_ID_FULL_DIR_INFORMATION, NextEntryOffset);
    FIELD(FILE_ID_FULL_DIR_INFORMATION, CreationTime);
    FIELD(FILE_ID_FULL_DIR_INFORMATION, AllocationSize);
    FIELD(FILE_ID_FULL_DIR_INFORMATION, FileAttributes);
    FIELD(FILE_ID_FULL_DIR_INFORMATION, FileNameLength);
    FIELD(FILE_ID_FULL_DIR_INFORMATION, EaSize);
    FIELD(FILE_ID_FULL_DIR_INFORMATION, FileId);
    FIELD(FILE_ID_FULL_DIR_INFORMATION, FileName);
    RECORD(FILE_NAMES_INFORMATION);
    FIELD(FILE_NAMES_INFORMATION, NextEntryOffset);
    FIELD(FILE_NAMES_INFORMATION, FileIndex);
    FIELD(FILE_NAMES_INFORMATION, FileNameLength);
    FIELD(FILE_NAMES_INFORMATION, FileName);

    RECORD(FILE_FS_ATTRIBUTE_INFORMATION);
    FIELD(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemAttributes);
    FIELD(FILE_FS_ATTRIBUTE_INFORMATION, MaximumComponentNameLength);
    FIELD(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemNameLength);
    FIELD(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName);

    RECORD(KEY_VALUE_FULL_INFORMATION);
    FIELD(KEY_VALUE_FULL_INFORMATION, TitleIndex);
    FIELD(KEY_VALUE_FULL_INFORMATION, Type);
    FIELD(KEY_VALUE_FULL_INFORMATION, DataOffset);
    FIELD(KEY_VALUE_FULL_INFORMATION, DataLength);
    FIELD(KEY_VALUE_FULL_INFORMATION, NameLength);
    FIELD(KEY_VALUE_FULL_INFORMATION, Name);
    RECORD(KEY_VALUE_PARTIAL_INFORMATION);
    FIELD(KEY_VALUE_PARTIAL_INFORMATION, TitleIndex);
    FIELD(KEY_VALUE_PARTIAL_INFORMATION, Type);
    FIELD(KEY_VALUE_PARTIAL_INFORMATION, DataLength);
    FIELD(KEY_VALUE_PARTIAL_INFORMATION, Data);
}
