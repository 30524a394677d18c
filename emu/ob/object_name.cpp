// Names as services receive them: capturing a caller's counted string,
// resolving OBJECT_ATTRIBUTES, opening and inserting objects by name, and
// ObQueryNameString.
#include "ob/ob_internal.h"

namespace tervane::emu {

NTSTATUS ObpNameView(PCUNICODE_STRING name, std::u16string_view* out) {
    *out = {};
    if (!name) return STATUS_SUCCESS;
    if ((name->Length & 1) || name->Length > name->MaximumLength || (name->Length && !name->Buffer))
        return STATUS_OBJECT_NAME_INVALID;
    *out = std::u16string_view(reinterpret_cast<const char16_t*>(name->Buffer), name->Length / 2);
    return STATUS_SUCCESS;
}

NTSTATUS ObpCaptureName(PCUNICODE_STRING name, std::u16string* out) {
    std::u16string_view view;
    NTSTATUS status = ObpNameView(name, &view);
    out->assign(view);
    return status;
}

namespace {

NTSTATUS CheckAttributes(POBJECT_ATTRIBUTES attributes) {
    if (!attributes) return STATUS_INVALID_PARAMETER;
    if (attributes->Length != sizeof(OBJECT_ATTRIBUTES)) return STATUS_INVALID_PARAMETER;
    if (attributes->Attributes & ~OBJ_VALID_ATTRIBUTES) return STATUS_INVALID_PARAMETER;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS ObpLookupByAttributes(POBJECT_ATTRIBUTES attributes, KPROCESSOR_MODE mode, bool openLink,
                               PVOID* object, std::u16string* remaining) {
    *object = nullptr;
    NTSTATUS status = CheckAttributes(attributes);
    if (!NT_SUCCESS(status)) return status;
    // Read in place: the lookup copies what it keeps.
    std::u16string_view name;
    status = ObpNameView(attributes->ObjectName, &name);
    if (!NT_SUCCESS(status)) return status;
    PVOID root = nullptr;
    if (attributes->RootDirectory) {
        status = ObpReferenceByHandle(attributes->RootDirectory, 0, nullptr, mode, &root, nullptr);
        if (!NT_SUCCESS(status)) return status;
    }
    status = ObpLookup(root, name, (attributes->Attributes & OBJ_CASE_INSENSITIVE) != 0,
                       openLink || (attributes->Attributes & OBJ_OPENLINK), object, remaining);
    if (root) ObfDereferenceObject(root);
    return status;
}

NTSTATUS ObpOpenObjectByName(POBJECT_ATTRIBUTES attributes, POBJECT_TYPE type, KPROCESSOR_MODE mode,
                             ACCESS_MASK desiredAccess, PHANDLE handle) {
    NTSTATUS status = CheckAttributes(attributes);
    if (!NT_SUCCESS(status)) return status;
    // The object manager's own types compare names without case, whatever
    // the caller asked, as NT does for case-insensitive object types.
    OBJECT_ATTRIBUTES local = *attributes;
    local.Attributes |= OBJ_CASE_INSENSITIVE;
    if (!local.ObjectName || !local.ObjectName->Length) {
        if (!local.RootDirectory) return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    PVOID object;
    std::u16string remaining;
    status = ObpLookupByAttributes(&local, mode, type == ObpSymbolicLinkType, &object, &remaining);
    if (!NT_SUCCESS(status)) return status;
    if (!remaining.empty() || (type && ObGetObjectType(object) != type)) {
        ObfDereferenceObject(object);
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    status = ObInsertHandle(object, desiredAccess, attributes->Attributes, handle);
    ObfDereferenceObject(object);
    return status;
}

NTSTATUS ObpInsertObject(PVOID object, POBJECT_ATTRIBUTES attributes, KPROCESSOR_MODE mode,
                         ACCESS_MASK desiredAccess, PHANDLE handle) {
    NTSTATUS status = STATUS_SUCCESS;
    ULONG flags = 0;
    if (attributes) {
        status = CheckAttributes(attributes);
        flags = attributes->Attributes;
    }
    std::u16string name;
    if (NT_SUCCESS(status) && attributes) status = ObpCaptureName(attributes->ObjectName, &name);
    if (NT_SUCCESS(status) && !name.empty()) {
        if (attributes->RootDirectory) {
            PVOID root;
            status = ObpReferenceByHandle(attributes->RootDirectory, 0, ObpDirectoryType, mode, &root, nullptr);
            if (NT_SUCCESS(status)) {
                if (name[0] == u'\\') status = STATUS_OBJECT_PATH_SYNTAX_BAD;
                name = ObpFullName(root) + u"\\" + name;
                ObfDereferenceObject(root);
            }
        } else if (name[0] != u'\\') {
            status = STATUS_OBJECT_PATH_SYNTAX_BAD;
        }
        if (NT_SUCCESS(status)) status = ObpInsertName(object, name);
        if (status == STATUS_OBJECT_NAME_COLLISION && (flags & OBJ_OPENIF)) {
            // Open the object already there, if it is of the same type.
            PVOID existing;
            std::u16string rest;
            POBJECT_TYPE type = ObGetObjectType(object);
            NTSTATUS lookup = ObpLookup(nullptr, name, true, true, &existing, &rest);
            ObfDereferenceObject(object);
            if (!NT_SUCCESS(lookup)) return lookup;
            if (!rest.empty() || ObGetObjectType(existing) != type) {
                ObfDereferenceObject(existing);
                return STATUS_OBJECT_TYPE_MISMATCH;
            }
            status = ObInsertHandle(existing, desiredAccess, flags, handle);
            ObfDereferenceObject(existing);
            return NT_SUCCESS(status) ? STATUS_OBJECT_NAME_EXISTS : status;
        }
        if (NT_SUCCESS(status)) ObpHeader(object)->temporaryName = !(flags & OBJ_PERMANENT);
    }
    if (NT_SUCCESS(status)) status = ObInsertHandle(object, desiredAccess, flags, handle);
    if (!NT_SUCCESS(status) && ObpHeader(object)->directory) ObpRemoveName(object);
    ObfDereferenceObject(object);
    return status;
}

}  // namespace tervane::emu

using namespace tervane::emu;

// OBJECT_NAME_INFORMATION: a UNICODE_STRING followed by its characters and a
// terminator. A buffer too small gets STATUS_INFO_LENGTH_MISMATCH and the
// length needed, as NT answers.
NTSTATUS ObQueryNameString(PVOID Object, PVOID ObjectNameInfo, ULONG Length, PULONG ReturnLength) {
    if (!ObpIsLiveObject(Object)) return STATUS_INVALID_PARAMETER;
    std::u16string name;
    if (ObGetObjectType(Object) == *IoFileObjectType) {
        NTSTATUS status = IopQueryFileObjectName(Object, &name);
        if (!NT_SUCCESS(status)) return status;
    } else {
        name = ObpFullName(Object);
    }
    ULONG needed = ULONG(sizeof(UNICODE_STRING) + (name.empty() ? 0 : (name.size() + 1) * 2));
    if (ReturnLength) *ReturnLength = needed;
    if (Length < needed) return STATUS_INFO_LENGTH_MISMATCH;
    auto* info = static_cast<PUNICODE_STRING>(ObjectNameInfo);
    if (name.empty()) {
        info->Length = info->MaximumLength = 0;
        info->Buffer = nullptr;
        return STATUS_SUCCESS;
    }
    auto* chars = reinterpret_cast<char16_t*>(info + 1);
    memcpy(chars, name.data(), name.size() * 2);
    chars[name.size()] = 0;
    info->Length = USHORT(name.size() * 2);
    info->MaximumLength = USHORT(info->Length + 2);
    info->Buffer = reinterpret_cast<PWSTR>(chars);
    return STATUS_SUCCESS;
}
