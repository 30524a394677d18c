// Request packets the driver builds itself for a FILE_OBJECT it holds, sent
// below its own filter device so that they do not come back through it. Each
// lives only for one call: the state is on the caller's stack, the caller
// waits until the completion routine has signalled, and the completion
// routine frees the packet.
#include "base/global_state.h"
#include "filemgr/file_manager.h"

// Drive C:'s slot among the filter devices.
#define ROUTE_DRIVE_INDEX ('C' - 'A')

// Where CallLowerDevice sends a request. Route flags 1 and 2 name the filter
// directories on the system volume, reached below drive C:'s filter device;
// while drive C: has never been hooked the given device is used instead.
static PDEVICE_OBJECT RouteTarget(ULONG ulRouteFlag, PDEVICE_OBJECT LowerDevice) {
    if ((ulRouteFlag & 3) != 0) {
        PDEVICE_OBJECT FilterDevice = g_apFilterDevices[ROUTE_DRIVE_INDEX];
        if (FilterDevice != NULL) {
            PDEVICE_OBJECT Below = ((PTervaneDeviceExtension)FilterDevice->DeviceExtension)->m_pLowerDevice;
            if (Below != NULL) {
                return Below;
            }
        }
    }
    return LowerDevice;
}

NTSTATUS CallLowerDevice(ULONG ulRouteFlag, PDEVICE_OBJECT LowerDevice, PIRP Irp) {
    return IofCallDriver(RouteTarget(ulRouteFlag, LowerDevice), Irp);
}

NTSTATUS NTAPI OwnIrpCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    *Irp->UserIosb = Irp->IoStatus;
    KeSetEvent(Irp->UserEvent, 0, FALSE);
    IoFreeIrp(Irp);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// The fields every own request carries.
static VOID PrepareOwnIrp(PIRP Irp, PKEVENT Event, PIO_STATUS_BLOCK IoStatus, PFILE_OBJECT FileObject) {
    Irp->UserEvent = Event;
    Irp->UserIosb = IoStatus;
    Irp->Tail.Overlay.Thread = (PETHREAD)KeGetCurrentThread();
    Irp->Tail.Overlay.OriginalFileObject = FileObject;
    Irp->RequestorMode = KernelMode;
}

BOOLEAN QueryFileInformationWithIrp(PDEVICE_OBJECT DeviceObject, PFILE_OBJECT FileObject,
                                    FILE_INFORMATION_CLASS FileInformationClass, PVOID Buffer, ULONG Length) {
    KEVENT Event;
    IO_STATUS_BLOCK IoStatus;
    KeInitializeEvent(&Event, SynchronizationEvent, FALSE);
    PIRP Irp = IoAllocateIrp(DeviceObject->StackSize, FALSE);
    if (Irp == NULL) {
        return FALSE;
    }
    Irp->AssociatedIrp.SystemBuffer = Buffer;
    PrepareOwnIrp(Irp, &Event, &IoStatus, FileObject);
    Irp->Flags = 0;

    PIO_STACK_LOCATION Stack = IoGetNextIrpStackLocation(Irp);
    Stack->MajorFunction = IRP_MJ_QUERY_INFORMATION;
    Stack->DeviceObject = DeviceObject;
    Stack->FileObject = FileObject;
    Stack->Parameters.QueryFile.Length = Length;
    Stack->Parameters.QueryFile.FileInformationClass = FileInformationClass;

    IoSetCompletionRoutine(Irp, OwnIrpCompletion, NULL, TRUE, TRUE, TRUE);
    IofCallDriver(DeviceObject, Irp);
    KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, NULL);
    return NT_SUCCESS(IoStatus.Status);
}

NTSTATUS ReadWriteFileWithIrp(PIRP CallerIrp, BOOLEAN bRead, ULONG ulRouteFlag, PFILE_OBJECT FileObject,
                              PDEVICE_OBJECT FilterDevice, PVOID Buffer, LARGE_INTEGER ByteOffset, ULONG Length,
                              ULONG Key, ULONG IrpFlags, PIO_STATUS_BLOCK IoStatus) {
    KEVENT Event;
    KeInitializeEvent(&Event, SynchronizationEvent, FALSE);
    PDEVICE_OBJECT LowerDevice = ((PTervaneDeviceExtension)FilterDevice->DeviceExtension)->m_pLowerDevice;
    // Routed requests may go to another volume's stack: the packet gets room
    // for whichever of the two stacks is deeper.
    CCHAR StackSize = FilterDevice->StackSize;
    PDEVICE_OBJECT Target = RouteTarget(ulRouteFlag, LowerDevice);
    if (Target != NULL && Target->StackSize > StackSize) {
        StackSize = Target->StackSize;
    }
    PIRP Irp = IoAllocateIrp(StackSize, FALSE);
    if (Irp == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (CallerIrp != NULL) {
        if (CallerIrp->MdlAddress != NULL) {
            Irp->MdlAddress = CallerIrp->MdlAddress;
        } else if (CallerIrp->AssociatedIrp.SystemBuffer != NULL) {
            Irp->AssociatedIrp.SystemBuffer = CallerIrp->AssociatedIrp.SystemBuffer;
        } else {
            Irp->UserBuffer = CallerIrp->UserBuffer;
        }
        Irp->Flags = CallerIrp->Flags;
    } else {
        Irp->UserBuffer = Buffer;
        Irp->Flags = IrpFlags;
    }
    PrepareOwnIrp(Irp, &Event, IoStatus, FileObject);

    PIO_STACK_LOCATION Stack = IoGetNextIrpStackLocation(Irp);
    Stack->MajorFunction = bRead ? IRP_MJ_READ : IRP_MJ_WRITE;
    Stack->FileObject = FileObject;
    if (bRead) {
        Stack->Parameters.Read.ByteOffset = ByteOffset;
        Stack->Parameters.Read.Length = Length;
        Stack->Parameters.Read.Key = Key;
    } else {
        Stack->Parameters.Write.ByteOffset = ByteOffset;
        Stack->Parameters.Write.Length = Length;
        Stack->Parameters.Write.Key = Key;
    }

    IoSetCompletionRoutine(Irp, OwnIrpCompletion, NULL, TRUE, TRUE, TRUE);
    CallLowerDevice(ulRouteFlag, LowerDevice, Irp);
    KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, NULL);
    return IoStatus->Status;
}

NTSTATUS TransferBelowFilter(BOOLEAN bRead, PFILE_OBJECT FileObject, PDEVICE_OBJECT FilterDevice, PVOID Buffer,
                             LARGE_INTEGER ByteOffset, ULONG Length, ULONG Key, PIO_STATUS_BLOCK IoStatus) {
    PDEVICE_OBJECT Target = IoGetRelatedDeviceObject(FileObject);
    if (Target != NULL && Target->DriverObject == FilterDevice->DriverObject) {
        Target = ((PTervaneDeviceExtension)Target->DeviceExtension)->m_pLowerDevice;
    }
    if (Target == NULL) {
        IoStatus->Status = STATUS_INVALID_DEVICE_REQUEST;
        IoStatus->Information = 0;
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    KEVENT Event;
    KeInitializeEvent(&Event, SynchronizationEvent, FALSE);
    PIRP Irp = IoAllocateIrp(Target->StackSize, FALSE);
    if (Irp == NULL) {
        IoStatus->Status = STATUS_INSUFFICIENT_RESOURCES;
        IoStatus->Information = 0;
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Irp->UserBuffer = Buffer;
    Irp->Flags = bRead ? IRP_READ_OPERATION : IRP_WRITE_OPERATION;
    PrepareOwnIrp(Irp, &Event, IoStatus, FileObject);

    PIO_STACK_LOCATION Stack = IoGetNextIrpStackLocation(Irp);
    Stack->MajorFunction = bRead ? IRP_MJ_READ : IRP_MJ_WRITE;
    Stack->DeviceObject = Target;
    Stack->FileObject = FileObject;
    // Read and Write parameters share one layout.
    Stack->Parameters.Read.ByteOffset = ByteOffset;
    Stack->Parameters.Read.Length = Length;
    Stack->Parameters.Read.Key = Key;

    IoSetCompletionRoutine(Irp, OwnIrpCompletion, NULL, TRUE, TRUE, TRUE);
    IofCallDriver(Target, Irp);
    KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, NULL);
    return IoStatus->Status;
}
