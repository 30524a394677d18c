// Object types, object creation and reference counting. Every object body is
// preceded by an ObjectHeader in one non-paged pool block tagged with the
// first four characters of its type name, so leaked objects show in the pool
// report under their type.
#include <cstdio>

#include "machine/sharded_set.h"
#include "ob/ob_internal.h"

namespace tervane::emu {
namespace {

ShardedPointerSet<ObjectHeader>& LiveSet() {
    static auto* live = new ShardedPointerSet<ObjectHeader>();  // never freed
    return *live;
}

std::string Hex(const void* p) {
    char buf[32];
    snprintf(buf, sizeof buf, "%p", p);
    return buf;
}

void DeleteObject(ObjectHeader* header) {
    PVOID body = ObpBody(header);
    LiveSet().Erase(header);
    if (header->type->init.deleteProcedure) header->type->init.deleteProcedure(body);
    ULONG tag = header->type->poolTag;
    header->~ObjectHeader();
    ExFreePoolWithTag(header, tag);
}

}  // namespace

bool ObpIsLiveObject(PVOID object) {
    if (!object) return false;
    return LiveSet().Contains(ObpHeader(object));
}

POBJECT_TYPE ObCreateObjectType(const ObjectTypeInit& init) {
    auto* type = new _OBJECT_TYPE();
    type->init = init;
    type->name = init.name ? init.name : "";
    char tag[4] = {' ', ' ', ' ', ' '};
    for (size_t i = 0; i < 4 && i < type->name.size(); ++i) tag[i] = type->name[i];
    type->poolTag = ULONG(uint8_t(tag[0])) | ULONG(uint8_t(tag[1])) << 8 | ULONG(uint8_t(tag[2])) << 16 |
                    ULONG(uint8_t(tag[3])) << 24;
    return type;
}

const char* ObTypeName(POBJECT_TYPE type) { return type ? type->name.c_str() : "?"; }

NTSTATUS ObCreateObject(POBJECT_TYPE type, ULONG bodySize, PVOID* object) {
    *object = nullptr;
    if (!type) return STATUS_INVALID_PARAMETER;
    void* block = ExAllocatePoolWithTag(NonPagedPool, kObjectHeaderSize + bodySize, type->poolTag);
    if (!block) return STATUS_INSUFFICIENT_RESOURCES;
    auto* header = new (block) ObjectHeader();
    header->pointerCount.store(1);
    header->handleCount.store(0);
    header->type = type;
    header->bodySize = bodySize;
    header->directory = nullptr;
    memset(ObpBody(header), 0, bodySize);
    LiveSet().Insert(header);
    *object = ObpBody(header);
    return STATUS_SUCCESS;
}

LONG ObpDereferenceHeld(PVOID object) {
    ObjectHeader* header = ObpHeader(object);
    LONG count = header->pointerCount.fetch_sub(1) - 1;
    if (count == 0) DeleteObject(header);
    return count;
}

POBJECT_TYPE ObGetObjectType(PVOID object) { return object ? ObpHeader(object)->type : nullptr; }
LONG ObPointerCount(PVOID object) { return ObpHeader(object)->pointerCount.load(); }
LONG ObHandleCount(PVOID object) { return ObpHeader(object)->handleCount.load(); }

}  // namespace tervane::emu

using namespace tervane::emu;

LONG_PTR FASTCALL ObfReferenceObject(PVOID Object) {
    if (!ObpIsLiveObject(Object)) {
        VerifierViolation("ObReferenceObject on an object that is not alive (" + Hex(Object) + ")");
        return 0;
    }
    return ObpReferenceHeld(Object);
}

LONG_PTR FASTCALL ObfDereferenceObject(PVOID Object) {
    if (!ObpIsLiveObject(Object)) {
        VerifierViolation("ObDereferenceObject on an object that is not alive (" + Hex(Object) + ")");
        return 0;
    }
    return ObpDereferenceHeld(Object);
}

NTSTATUS ObReferenceObjectByPointer(PVOID Object, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                    KPROCESSOR_MODE AccessMode) {
    // NT checks only the type here; there is no handle whose access to test.
    if (ObjectType && ObGetObjectType(Object) != ObjectType) return STATUS_OBJECT_TYPE_MISMATCH;
    ObfReferenceObject(Object);
    return STATUS_SUCCESS;
}
