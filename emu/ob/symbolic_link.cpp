// Symbolic link objects: creation, opening, querying, and the I/O manager's
// IoCreateSymbolicLink / IoDeleteSymbolicLink built on them. Lookups follow
// links (ob/directory.cpp) unless the link itself is asked for.
#include "ob/ob_internal.h"

namespace tervane::emu {

POBJECT_TYPE ObpSymbolicLinkType;

namespace {

void DeleteLink(PVOID object) {
    auto* link = static_cast<ObpSymbolicLink*>(object);
    delete link->target;
    link->target = nullptr;
}

NTSTATUS CreateLinkObject(const std::u16string& target, PVOID* object) {
    NTSTATUS status = ObCreateObject(ObpSymbolicLinkType, sizeof(ObpSymbolicLink), object);
    if (NT_SUCCESS(status)) static_cast<ObpSymbolicLink*>(*object)->target = new std::u16string(target);
    return status;
}

NTSTATUS CreateSymbolicLinkObject(KPROCESSOR_MODE mode, PHANDLE linkHandle, ACCESS_MASK desiredAccess,
                                  POBJECT_ATTRIBUTES attributes, PUNICODE_STRING linkTarget) {
    if (!linkHandle || !linkTarget) return STATUS_INVALID_PARAMETER;
    std::u16string target;
    NTSTATUS status = ObpCaptureName(linkTarget, &target);
    if (!NT_SUCCESS(status)) return STATUS_INVALID_PARAMETER;
    PVOID link;
    status = CreateLinkObject(target, &link);
    if (!NT_SUCCESS(status)) return status;
    return ObpInsertObject(link, attributes, mode, desiredAccess, linkHandle);
}

NTSTATUS QuerySymbolicLinkObject(KPROCESSOR_MODE mode, HANDLE linkHandle, PUNICODE_STRING linkTarget,
                                 PULONG returnedLength) {
    if (!linkTarget) return STATUS_INVALID_PARAMETER;
    PVOID object;
    NTSTATUS status =
        ObpReferenceByHandle(linkHandle, SYMBOLIC_LINK_QUERY, ObpSymbolicLinkType, mode, &object, nullptr);
    if (!NT_SUCCESS(status)) return status;
    const std::u16string& target = *static_cast<ObpSymbolicLink*>(object)->target;
    ULONG length = ULONG(target.size() * 2);
    // With ReturnedLength the caller gets the terminator too and must have
    // room for it; without, the characters alone must fit.
    ULONG needed = returnedLength ? length + 2 : length;
    if (linkTarget->MaximumLength < needed) {
        status = STATUS_BUFFER_TOO_SMALL;
    } else {
        memcpy(linkTarget->Buffer, target.data(), length);
        if (returnedLength) linkTarget->Buffer[target.size()] = 0;
        linkTarget->Length = USHORT(length);
    }
    if (returnedLength) *returnedLength = length + 2;
    ObfDereferenceObject(object);
    return status;
}

}  // namespace

void ObpCreateSymbolicLinkType() {
    if (ObpSymbolicLinkType) return;
    ObjectTypeInit init{};
    init.name = "SymbolicLink";
    init.mapping = {STANDARD_RIGHTS_READ | SYMBOLIC_LINK_QUERY, STANDARD_RIGHTS_WRITE,
                    STANDARD_RIGHTS_EXECUTE | SYMBOLIC_LINK_QUERY, SYMBOLIC_LINK_ALL_ACCESS};
    init.validAccess = SYMBOLIC_LINK_ALL_ACCESS;
    init.deleteProcedure = DeleteLink;
    ObpSymbolicLinkType = ObCreateObjectType(init);
}

NTSTATUS ObCreateSymbolicLinkInternal(const std::u16string& linkName, const std::u16string& target) {
    PVOID link;
    NTSTATUS status = CreateLinkObject(target, &link);
    if (!NT_SUCCESS(status)) return status;
    status = ObpInsertName(link, linkName);  // permanent: the namespace keeps it
    ObfDereferenceObject(link);
    return status;
}

}  // namespace tervane::emu

using namespace tervane::emu;

NTSTATUS IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName) {
    std::u16string link, target;
    if (!NT_SUCCESS(ObpCaptureName(SymbolicLinkName, &link)) || !NT_SUCCESS(ObpCaptureName(DeviceName, &target)))
        return STATUS_OBJECT_NAME_INVALID;
    return ObCreateSymbolicLinkInternal(link, target);
}

NTSTATUS IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName) {
    return ObpRemoveNamedObject(SymbolicLinkName, ObpSymbolicLinkType);
}

#define LINK_SERVICES(P, MODE)                                                                                   \
    NTSTATUS P##CreateSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,                          \
                                         POBJECT_ATTRIBUTES ObjectAttributes, PUNICODE_STRING LinkTarget) {      \
        PreviousModeScope scope(MODE);                                                                           \
        return CreateSymbolicLinkObject(MODE, LinkHandle, DesiredAccess, ObjectAttributes, LinkTarget);          \
    }                                                                                                            \
    NTSTATUS P##OpenSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,                            \
                                       POBJECT_ATTRIBUTES ObjectAttributes) {                                    \
        PreviousModeScope scope(MODE);                                                                           \
        if (!LinkHandle) return STATUS_INVALID_PARAMETER;                                                        \
        return ObpOpenObjectByName(ObjectAttributes, ObpSymbolicLinkType, MODE, DesiredAccess, LinkHandle);      \
    }                                                                                                            \
    NTSTATUS P##QuerySymbolicLinkObject(HANDLE LinkHandle, PUNICODE_STRING LinkTarget, PULONG ReturnedLength) {  \
        PreviousModeScope scope(MODE);                                                                           \
        return QuerySymbolicLinkObject(MODE, LinkHandle, LinkTarget, ReturnedLength);                            \
    }

LINK_SERVICES(Nt, UserMode)
LINK_SERVICES(Zw, KernelMode)
