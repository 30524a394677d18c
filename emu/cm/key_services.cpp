// Key objects and the key services: ZwOpenKey, ZwCreateKey, ZwSetValueKey,
// ZwQueryValueKey (and their Nt forms for user-mode callers).
#include <cstring>

#include "cm/registry.h"
#include "machine/machine_impl.h"
#include "machine/services.h"
#include "ps/process.h"

namespace tervane::emu {

namespace {

POBJECT_TYPE g_keyType = nullptr;

struct KeyBody {
    CmKey* key;
};

constexpr GENERIC_MAPPING kKeyMapping = {KEY_READ, KEY_WRITE, KEY_READ, KEY_ALL_ACCESS};
constexpr ULONG kRegCreatedNewKey = 1;
constexpr ULONG kRegOpenedExistingKey = 2;

// Runs a service as a system call from MODE would.
class ModeScope {
public:
    explicit ModeScope(KPROCESSOR_MODE mode) : thread_(CurrentThread()) {
        if (thread_) {
            saved_ = thread_->Tcb.PreviousMode;
            thread_->Tcb.PreviousMode = mode;
        }
    }
    ~ModeScope() {
        if (thread_) thread_->Tcb.PreviousMode = saved_;
    }

private:
    _ETHREAD* thread_;
    KPROCESSOR_MODE saved_ = KernelMode;
};

KPROCESSOR_MODE PreviousMode() {
    _ETHREAD* thread = CurrentThread();
    return thread ? thread->Tcb.PreviousMode : KernelMode;
}

bool StartsWithRegistry(const std::u16string& upcased) {
    static const std::u16string kRoot = u"\\REGISTRY";
    return upcased.compare(0, kRoot.size(), kRoot) == 0 &&
           (upcased.size() == kRoot.size() || upcased[kRoot.size()] == u'\\');
}

// Finds (or with CREATE makes the last component of) the key that ATTRIBUTES
// names. *CREATED tells whether it was made.
NTSTATUS ResolveKey(POBJECT_ATTRIBUTES attributes, bool create, CmKey** result, bool* created) {
    if (!attributes || !attributes->ObjectName) return STATUS_INVALID_PARAMETER;
    const UNICODE_STRING* name = attributes->ObjectName;
    if ((name->Length & 1) || name->Length > name->MaximumLength || (name->Length && !name->Buffer))
        return STATUS_OBJECT_NAME_INVALID;
    std::u16string path(reinterpret_cast<const char16_t*>(name->Buffer), name->Length / 2);
    Registry& registry = CmRegistry();
    CmKey* start = &registry.root;
    PVOID rootObject = nullptr;
    if (attributes->RootDirectory) {
        NTSTATUS status = ObReferenceObjectByHandle(attributes->RootDirectory, 0, g_keyType, PreviousMode(),
                                                    &rootObject, nullptr);
        if (!NT_SUCCESS(status)) return status;
        start = static_cast<KeyBody*>(rootObject)->key;
        ObfDereferenceObject(rootObject);
        if (!path.empty() && path[0] == u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
    } else {
        if (path.empty() || path[0] != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
        std::u16string upcased = CmUpcase(path);
        if (!StartsWithRegistry(upcased)) {
            // Not a registry name: whatever the namespace holds there is not a key.
            PVOID object = nullptr;
            std::u16string remaining;
            UNICODE_STRING full = MakeUnicodeString(path);
            NTSTATUS status = ObLookupName(&full, TRUE, &object, &remaining);
            if (!NT_SUCCESS(status)) return status;
            ObfDereferenceObject(object);
            return STATUS_OBJECT_TYPE_MISMATCH;
        }
        path = path.substr(std::u16string(u"\\REGISTRY").size());
        if (!path.empty()) path = path.substr(1);
    }
    std::vector<std::u16string> components;
    if (!CmSplitPath(path, &components)) return STATUS_OBJECT_NAME_INVALID;
    std::lock_guard<std::mutex> guard(registry.lock);
    size_t missingAt = 0;
    CmKey* key = registry.Walk(start, components, false, &missingAt);
    *created = false;
    if (!key) {
        // Only the last component is ever made; a missing parent fails.
        if (!create || missingAt + 1 != components.size()) return STATUS_OBJECT_NAME_NOT_FOUND;
        key = registry.Walk(start, components, true, &missingAt);
        *created = true;
    }
    *result = key;
    return STATUS_SUCCESS;
}

NTSTATUS OpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes, bool create,
                 PULONG Disposition) {
    if (!g_keyType) return STATUS_NOT_IMPLEMENTED;
    if (!KeyHandle) return STATUS_ACCESS_VIOLATION;
    CmKey* key = nullptr;
    bool created = false;
    NTSTATUS status = ResolveKey(ObjectAttributes, create, &key, &created);
    if (!NT_SUCCESS(status)) return status;
    PVOID object = nullptr;
    status = ObCreateObject(g_keyType, sizeof(KeyBody), &object);
    if (!NT_SUCCESS(status)) return status;
    static_cast<KeyBody*>(object)->key = key;
    ACCESS_MASK access = DesiredAccess & MAXIMUM_ALLOWED ? KEY_ALL_ACCESS : DesiredAccess;
    GENERIC_MAPPING mapping = kKeyMapping;
    RtlMapGenericMask(&access, &mapping);
    status = ObInsertHandle(object, access, ObjectAttributes->Attributes, KeyHandle);
    ObfDereferenceObject(object);
    if (NT_SUCCESS(status) && Disposition) *Disposition = created ? kRegCreatedNewKey : kRegOpenedExistingKey;
    return status;
}

NTSTATUS ReferenceKey(HANDLE handle, ACCESS_MASK access, CmKey** key, PVOID* object) {
    if (!g_keyType) return STATUS_NOT_IMPLEMENTED;
    NTSTATUS status = ObReferenceObjectByHandle(handle, access, g_keyType, PreviousMode(), object, nullptr);
    if (NT_SUCCESS(status)) *key = static_cast<KeyBody*>(*object)->key;
    return status;
}

std::u16string ValueNameOf(PUNICODE_STRING name) {
    if (!name || !name->Buffer) return {};
    return std::u16string(reinterpret_cast<const char16_t*>(name->Buffer), name->Length / 2);
}

// Lays out one value in the record of CLASS. The fixed part must fit
// (STATUS_BUFFER_TOO_SMALL otherwise, nothing written); name and data are
// then copied as far as they fit (STATUS_BUFFER_OVERFLOW when cut).
// *RESULTLENGTH is the size of the complete record in every case.
NTSTATUS FillValueRecord(const CmValue& value, KEY_VALUE_INFORMATION_CLASS infoClass, PVOID buffer, ULONG length,
                         PULONG resultLength) {
    const ULONG nameBytes = static_cast<ULONG>(value.name.size() * sizeof(WCHAR));
    const ULONG dataBytes = static_cast<ULONG>(value.data.size());
    ULONG fixed, nameOffset = 0, dataOffset = 0;
    bool hasName, hasData, hasTitle = true;
    switch (infoClass) {
    case KeyValueBasicInformation:
        fixed = FIELD_OFFSET(KEY_VALUE_BASIC_INFORMATION, Name);
        nameOffset = fixed;
        hasName = true;
        hasData = false;
        break;
    case KeyValueFullInformation:
    case KeyValueFullInformationAlign64:
        fixed = FIELD_OFFSET(KEY_VALUE_FULL_INFORMATION, Name);
        nameOffset = fixed;
        // The data follows the name, aligned to 4 bytes (8 for the Align64 class).
        dataOffset = static_cast<ULONG>(
            ALIGN_UP_BY(fixed + nameBytes, infoClass == KeyValueFullInformation ? sizeof(ULONG) : sizeof(ULONGLONG)));
        hasName = hasData = true;
        break;
    case KeyValuePartialInformation:
        fixed = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);
        dataOffset = fixed;
        hasName = false;
        hasData = true;
        break;
    case KeyValuePartialInformationAlign64:
        fixed = 2 * sizeof(ULONG);  // Type, DataLength, then the data
        dataOffset = fixed;
        hasName = false;
        hasData = true;
        hasTitle = false;
        break;
    default:
        return STATUS_INVALID_PARAMETER;
    }
    ULONG full = hasData ? dataOffset + dataBytes : nameOffset + nameBytes;
    *resultLength = full;
    if (length < fixed) return STATUS_BUFFER_TOO_SMALL;
    auto* out = static_cast<unsigned char*>(buffer);
    std::memset(out, 0, fixed);
    ULONG* fields = reinterpret_cast<ULONG*>(out);
    if (infoClass == KeyValueBasicInformation) {
        fields[0] = value.titleIndex;
        fields[1] = value.type;
        fields[2] = nameBytes;
    } else if (infoClass == KeyValuePartialInformation) {
        fields[0] = value.titleIndex;
        fields[1] = value.type;
        fields[2] = dataBytes;
    } else if (!hasTitle) {
        fields[0] = value.type;
        fields[1] = dataBytes;
    } else {
        fields[0] = value.titleIndex;
        fields[1] = value.type;
        fields[2] = dataOffset;
        fields[3] = dataBytes;
        fields[4] = nameBytes;
    }
    if (hasName && length > nameOffset)
        std::memcpy(out + nameOffset, value.name.data(), std::min(nameBytes, length - nameOffset));
    if (hasData && length > dataOffset && dataBytes)
        std::memcpy(out + dataOffset, value.data.data(), std::min(dataBytes, length - dataOffset));
    return length < full ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

NTSTATUS QueryValue(HANDLE KeyHandle, PUNICODE_STRING ValueName, KEY_VALUE_INFORMATION_CLASS infoClass,
                    PVOID KeyValueInformation, ULONG Length, PULONG ResultLength) {
    if (!ResultLength || (Length && !KeyValueInformation)) return STATUS_ACCESS_VIOLATION;
    CmKey* key;
    PVOID object;
    NTSTATUS status = ReferenceKey(KeyHandle, KEY_QUERY_VALUE, &key, &object);
    if (!NT_SUCCESS(status)) return status;
    {
        Registry& registry = CmRegistry();
        std::lock_guard<std::mutex> guard(registry.lock);
        CmValue* value = key->FindValue(ValueNameOf(ValueName));
        if (!value) status = STATUS_OBJECT_NAME_NOT_FOUND;
        else status = FillValueRecord(*value, infoClass, KeyValueInformation, Length, ResultLength);
    }
    ObfDereferenceObject(object);
    return status;
}

}  // namespace

void CmStartupObjects() {
    if (!g_keyType) {
        ObjectTypeInit init{};
        init.name = "Key";
        init.mapping = kKeyMapping;
        init.validAccess = KEY_ALL_ACCESS | STANDARD_RIGHTS_ALL;
        g_keyType = ObCreateObjectType(init);
    }
}

void CmShutdownObjects() {}

}  // namespace tervane::emu

using namespace tervane::emu;

extern "C" NTSTATUS ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes) {
    ModeScope mode(KernelMode);
    return OpenKey(KeyHandle, DesiredAccess, ObjectAttributes, false, nullptr);
}

extern "C" NTSTATUS NtOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes) {
    ModeScope mode(UserMode);
    return OpenKey(KeyHandle, DesiredAccess, ObjectAttributes, false, nullptr);
}

extern "C" NTSTATUS ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                                ULONG TitleIndex, PUNICODE_STRING Class, ULONG CreateOptions, PULONG Disposition) {
    ModeScope mode(KernelMode);
    return OpenKey(KeyHandle, DesiredAccess, ObjectAttributes, true, Disposition);
}

extern "C" NTSTATUS ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type,
                                  PVOID Data, ULONG DataSize) {
    ModeScope mode(KernelMode);
    if (DataSize && !Data) return STATUS_ACCESS_VIOLATION;
    CmKey* key;
    PVOID object;
    NTSTATUS status = ReferenceKey(KeyHandle, KEY_SET_VALUE, &key, &object);
    if (!NT_SUCCESS(status)) return status;
    {
        Registry& registry = CmRegistry();
        std::lock_guard<std::mutex> guard(registry.lock);
        // TitleIndex is ignored, as NT ignores it.
        registry.SetValue(key, ValueNameOf(ValueName), Type, Data, DataSize);
    }
    ObfDereferenceObject(object);
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                                    KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass, PVOID KeyValueInformation,
                                    ULONG Length, PULONG ResultLength) {
    ModeScope mode(KernelMode);
    return QueryValue(KeyHandle, ValueName, KeyValueInformationClass, KeyValueInformation, Length, ResultLength);
}

extern "C" NTSTATUS NtQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                                    KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass, PVOID KeyValueInformation,
                                    ULONG Length, PULONG ResultLength) {
    ModeScope mode(UserMode);
    return QueryValue(KeyHandle, ValueName, KeyValueInformationClass, KeyValueInformation, Length, ResultLength);
}
