// Event objects for callers that hold handles (Nt/ZwCreateEvent, SetEvent)
// and waits on a handle. An Event object's body is the KEVENT itself; a
// file object is waited on through its Event, as NT does.
#include "ob/ob_internal.h"

namespace tervane::emu {

POBJECT_TYPE ObpEventType;

namespace {

NTSTATUS CreateEvent(KPROCESSOR_MODE mode, PHANDLE eventHandle, ACCESS_MASK desiredAccess,
                     POBJECT_ATTRIBUTES attributes, EVENT_TYPE eventType, BOOLEAN initialState) {
    if (!eventHandle) return STATUS_INVALID_PARAMETER;
    if (eventType != NotificationEvent && eventType != SynchronizationEvent) return STATUS_INVALID_PARAMETER;
    PVOID object;
    NTSTATUS status = ObCreateObject(ObpEventType, sizeof(KEVENT), &object);
    if (!NT_SUCCESS(status)) return status;
    KeInitializeEvent(static_cast<PKEVENT>(object), eventType, initialState);
    return ObpInsertObject(object, attributes, mode, desiredAccess, eventHandle);
}

NTSTATUS SetEvent(KPROCESSOR_MODE mode, HANDLE eventHandle, PLONG previousState) {
    PVOID object;
    NTSTATUS status = ObpReferenceByHandle(eventHandle, EVENT_MODIFY_STATE, ObpEventType, mode, &object, nullptr);
    if (!NT_SUCCESS(status)) return status;
    LONG previous = KeSetEvent(static_cast<PKEVENT>(object), 0, FALSE);
    if (previousState) *previousState = previous;
    ObfDereferenceObject(object);
    return STATUS_SUCCESS;
}

NTSTATUS WaitForSingleObject(KPROCESSOR_MODE mode, HANDLE handle, BOOLEAN alertable, PLARGE_INTEGER timeout) {
    PVOID object;
    NTSTATUS status = ObpReferenceByHandle(handle, SYNCHRONIZE, nullptr, mode, &object, nullptr);
    if (!NT_SUCCESS(status)) return status;
    PVOID waitable = nullptr;
    POBJECT_TYPE type = ObGetObjectType(object);
    if (type == ObpEventType) waitable = object;
    else if (type == *IoFileObjectType) waitable = &static_cast<PFILE_OBJECT>(object)->Event;
    status = waitable ? KeWaitForSingleObject(waitable, UserRequest, mode, alertable, timeout)
                      : STATUS_OBJECT_TYPE_MISMATCH;
    ObfDereferenceObject(object);
    return status;
}

}  // namespace

void ObpCreateEventType() {
    if (ObpEventType) return;
    ObjectTypeInit init{};
    init.name = "Event";
    init.mapping = {STANDARD_RIGHTS_READ | EVENT_QUERY_STATE, STANDARD_RIGHTS_WRITE | EVENT_MODIFY_STATE,
                    STANDARD_RIGHTS_EXECUTE | SYNCHRONIZE, EVENT_ALL_ACCESS};
    init.validAccess = EVENT_ALL_ACCESS;
    ObpEventType = ObCreateObjectType(init);
}

}  // namespace tervane::emu

using namespace tervane::emu;

#define EVENT_SERVICES(P, MODE)                                                                               \
    NTSTATUS P##CreateEvent(PHANDLE EventHandle, ACCESS_MASK DesiredAccess,                                   \
                            POBJECT_ATTRIBUTES ObjectAttributes, EVENT_TYPE EventType, BOOLEAN InitialState) { \
        PreviousModeScope scope(MODE);                                                                        \
        return CreateEvent(MODE, EventHandle, DesiredAccess, ObjectAttributes, EventType, InitialState);      \
    }                                                                                                         \
    NTSTATUS P##SetEvent(HANDLE EventHandle, PLONG PreviousState) {                                           \
        PreviousModeScope scope(MODE);                                                                        \
        return SetEvent(MODE, EventHandle, PreviousState);                                                    \
    }                                                                                                         \
    NTSTATUS P##WaitForSingleObject(HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout) {               \
        PreviousModeScope scope(MODE);                                                                        \
        return WaitForSingleObject(MODE, Handle, Alertable, Timeout);                                         \
    }

EVENT_SERVICES(Nt, UserMode)
EVENT_SERVICES(Zw, KernelMode)
