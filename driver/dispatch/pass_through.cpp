// Requests a filter device does not serve itself go down to the volume below
// it, with a completion routine that carries the pending flag up.
#include "dispatch/dispatch.h"

#include "base/global_state.h"

NTSTATUS NTAPI TervanePassThroughCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Context);
    if (Irp->PendingReturned) {
        IoMarkIrpPending(Irp);
    }
    return Irp->IoStatus.Status;
}

NTSTATUS PassRequestDown(PDEVICE_OBJECT DeviceObject, PIRP Irp, PIO_COMPLETION_ROUTINE Completion) {
    PTervaneDeviceExtension pExtension = (PTervaneDeviceExtension)DeviceObject->DeviceExtension;
    IoCopyCurrentIrpStackLocationToNext(Irp);
    IoSetCompletionRoutine(Irp, Completion, NULL, TRUE, TRUE, TRUE);
    return IoCallDriver(pExtension->m_pLowerDevice, Irp);
}

NTSTATUS TervanePassThrough(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return PassRequestDown(DeviceObject, Irp, TervanePassThroughCompletion);
}
