// Handle tables. Each process has one; the System process's table is the
// kernel handle table, whose handles carry the high bit when they are given
// out with OBJ_KERNEL_HANDLE (as on x86 NT). Handle values are multiples of
// four starting at 4; freed values are reused most recent first, and the low
// two bits of a value are ignored on lookup as NT ignores them.
#include <cstdio>
#include <vector>

#include "machine/adaptive_mutex.h"
#include "ob/ob_internal.h"

namespace tervane::emu {

class HandleTable {
public:
    struct Entry {
        PVOID object = nullptr;
        ACCESS_MASK granted = 0;
        ULONG attributes = 0;
        const void* owner = nullptr;  // the driver image that opened it, or null
    };
    AdaptiveMutex lock;
    std::vector<Entry> entries;   // slot i holds handle value (i + 1) * 4
    std::vector<size_t> freeSlots;
    uint32_t pid = 0;
};

namespace {

constexpr uintptr_t kKernelHandleBit = 0x80000000u;

std::mutex g_tablesLock;
std::vector<HandleTable*> g_tables;

HandleTable* KernelTable() {
    _EPROCESS* system = PsSystemProcess();
    return system ? system->Handles : nullptr;
}

// Which table a handle value names for a caller in MODE; null when none.
HandleTable* TableFor(HANDLE handle, KPROCESSOR_MODE mode, size_t* slot) {
    uintptr_t value = reinterpret_cast<uintptr_t>(handle);
    HandleTable* table;
    if (value & kKernelHandleBit) {
        if (mode != KernelMode || value > 0xFFFFFFFFu) return nullptr;
        table = KernelTable();
        value &= ~kKernelHandleBit;
    } else {
        _EPROCESS* process = CurrentProcess();
        table = process ? process->Handles : KernelTable();
    }
    if ((value >> 2) == 0) return nullptr;
    *slot = (value >> 2) - 1;
    return table;
}

std::string DisplayName(PVOID object) {
    std::u16string name;
    if (ObGetObjectType(object) == *IoFileObjectType) {
        auto* file = static_cast<PFILE_OBJECT>(object);
        if (file->DeviceObject) name = ObpFullName(file->DeviceObject);
        name.append(reinterpret_cast<const char16_t*>(file->FileName.Buffer), file->FileName.Length / 2);
    } else {
        name = ObpFullName(object);
    }
    return Utf16ToUtf8(name);
}

// Closes the entry's handle: the type's close procedure, then the reference.
void CloseEntry(const HandleTable::Entry& entry, _EPROCESS* process) {
    ObjectHeader* header = ObpHeader(entry.object);
    LONG left = header->handleCount.fetch_sub(1) - 1;
    if (header->type->init.closeProcedure)
        header->type->init.closeProcedure(process, entry.object, entry.granted, ULONG(left));
    if (left == 0 && header->temporaryName) ObpRemoveName(entry.object);
    ObpDereferenceHeld(entry.object);
}

}  // namespace

HandleTable* ObCreateHandleTable() {
    auto* table = new HandleTable();
    std::lock_guard<std::mutex> guard(g_tablesLock);
    g_tables.push_back(table);
    return table;
}

void ObDestroyHandleTable(HandleTable* table) {
    if (!table) return;
    {
        std::lock_guard<std::mutex> guard(g_tablesLock);
        std::erase(g_tables, table);
    }
    delete table;
}

NTSTATUS ObInsertHandle(PVOID object, ACCESS_MASK grantedAccess, ULONG attributes, PHANDLE handle) {
    *handle = nullptr;
    _EPROCESS* process = CurrentProcess();
    bool kernel = (attributes & OBJ_KERNEL_HANDLE) && ObpPreviousMode() == KernelMode;
    HandleTable* table = (kernel || !process) ? KernelTable() : process->Handles;
    if (!table) return STATUS_INSUFFICIENT_RESOURCES;
    POBJECT_TYPE type = ObGetObjectType(object);
    RtlMapGenericMask(&grantedAccess, &type->init.mapping);
    if (grantedAccess & MAXIMUM_ALLOWED) grantedAccess = (grantedAccess & ~MAXIMUM_ALLOWED) | type->init.validAccess;
    ObpReferenceHeld(object);
    ObpHeader(object)->handleCount.fetch_add(1);
    size_t slot;
    {
        std::lock_guard<AdaptiveMutex> guard(table->lock);
        if (!table->freeSlots.empty()) {
            slot = table->freeSlots.back();
            table->freeSlots.pop_back();
        } else {
            slot = table->entries.size();
            table->entries.emplace_back();
        }
        table->entries[slot] = {object, grantedAccess, ULONG(attributes & (OBJ_INHERIT | OBJ_PERMANENT)),
                                LdrCurrentOwner()};
        if (kernel || !process) table->pid = 4;  // the kernel's table
        else table->pid = process->UniqueProcessId;
    }
    uintptr_t value = (slot + 1) * 4;
    if (kernel) value |= kKernelHandleBit;
    *handle = reinterpret_cast<HANDLE>(value);
    return STATUS_SUCCESS;
}

NTSTATUS ObpReferenceByHandle(HANDLE handle, ACCESS_MASK desiredAccess, POBJECT_TYPE type, KPROCESSOR_MODE mode,
                              PVOID* object, POBJECT_HANDLE_INFORMATION info) {
    *object = nullptr;
    size_t slot;
    HandleTable* table = TableFor(handle, mode, &slot);
    if (!table) return STATUS_INVALID_HANDLE;
    std::lock_guard<AdaptiveMutex> guard(table->lock);
    if (slot >= table->entries.size() || !table->entries[slot].object) return STATUS_INVALID_HANDLE;
    const HandleTable::Entry& entry = table->entries[slot];
    if (type && ObGetObjectType(entry.object) != type) return STATUS_OBJECT_TYPE_MISMATCH;
    // Kernel-mode callers are trusted with any handle, as in NT.
    if (mode != KernelMode && (desiredAccess & ~entry.granted)) return STATUS_ACCESS_DENIED;
    ObpReferenceHeld(entry.object);
    *object = entry.object;
    if (info) {
        info->HandleAttributes = entry.attributes;
        info->GrantedAccess = entry.granted;
    }
    return STATUS_SUCCESS;
}

NTSTATUS ObpCloseHandle(HANDLE handle, KPROCESSOR_MODE mode) {
    size_t slot;
    HandleTable* table = TableFor(handle, mode, &slot);
    if (!table) return STATUS_INVALID_HANDLE;
    HandleTable::Entry entry;
    {
        std::lock_guard<AdaptiveMutex> guard(table->lock);
        if (slot >= table->entries.size() || !table->entries[slot].object) return STATUS_INVALID_HANDLE;
        entry = table->entries[slot];
        table->entries[slot] = {};
        table->freeSlots.push_back(slot);
    }
    CloseEntry(entry, CurrentProcess());
    return STATUS_SUCCESS;
}

void ObCloseAllHandles(_EPROCESS* process) {
    if (!process || !process->Handles) return;
    HandleTable* table = process->Handles;
    for (;;) {
        std::vector<HandleTable::Entry> open;
        {
            std::lock_guard<AdaptiveMutex> guard(table->lock);
            for (size_t i = 0; i < table->entries.size(); ++i) {
                if (!table->entries[i].object) continue;
                open.push_back(table->entries[i]);
                table->entries[i] = {};
                table->freeSlots.push_back(i);
            }
        }
        if (open.empty()) return;  // closing may have opened more (cleanup handlers)
        for (const auto& entry : open) CloseEntry(entry, process);
    }
}

std::vector<std::string> ObDescribeHandles(uint32_t pid, const std::set<const void*>& skip, const void* onlyOwner) {
    std::vector<std::string> lines;
    std::lock_guard<std::mutex> tablesGuard(g_tablesLock);
    for (HandleTable* table : g_tables) {
        std::lock_guard<AdaptiveMutex> guard(table->lock);
        if (pid && table->pid != pid) continue;
        for (size_t i = 0; i < table->entries.size(); ++i) {
            PVOID object = table->entries[i].object;
            if (!object || skip.count(table->entries[i].owner)) continue;
            if (onlyOwner && table->entries[i].owner != onlyOwner) continue;
            char head[64];
            snprintf(head, sizeof head, "%u 0x%zx ", table->pid, (i + 1) * 4);
            lines.push_back(head + std::string(ObTypeName(ObGetObjectType(object))) + " " + DisplayName(object));
        }
    }
    return lines;
}

}  // namespace tervane::emu

using namespace tervane::emu;

NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                   KPROCESSOR_MODE AccessMode, PVOID* Object,
                                   POBJECT_HANDLE_INFORMATION HandleInformation) {
    return ObpReferenceByHandle(Handle, DesiredAccess, ObjectType, AccessMode, Object, HandleInformation);
}

NTSTATUS NtClose(HANDLE Handle) {
    PreviousModeScope scope(UserMode);
    return ObpCloseHandle(Handle, UserMode);
}

NTSTATUS ZwClose(HANDLE Handle) {
    PreviousModeScope scope(KernelMode);
    return ObpCloseHandle(Handle, KernelMode);
}
