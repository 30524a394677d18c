// Page-file-backed sections and their views in system space. A section's
// memory is an anonymous host memory file; every view is its own mapping of
// it, so two views of one section have different addresses and the same
// bytes, as on NT.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <vector>

#include "machine/machine_impl.h"
#include "machine/services.h"

namespace tervane::emu {

namespace {

struct SectionBody {
    int fd;
    ULONGLONG size;
};

struct View {
    char* base;
    SIZE_T mappedBytes;  // page-rounded length of the mapping
    SIZE_T size;         // what the caller was told
    PVOID section;       // referenced while mapped
    const void* owner;   // the driver image that mapped it, or null
};

POBJECT_TYPE g_sectionType = nullptr;
POBJECT_TYPE g_sectionTypeExport = nullptr;
std::mutex g_viewLock;
std::vector<View> g_views;

constexpr ULONGLONG kMaximumSectionSize = 0x80000000ULL;  // 2 GB

SIZE_T PageRound(ULONGLONG n) { return static_cast<SIZE_T>((n + PAGE_SIZE - 1) & ~ULONGLONG(PAGE_SIZE - 1)); }

void DeleteSection(PVOID object) {
    auto* body = static_cast<SectionBody*>(object);
    if (body->fd >= 0) close(body->fd);
    body->fd = -1;
}

bool ValidProtection(ULONG protection) {
    switch (protection) {
    case PAGE_NOACCESS: case PAGE_READONLY: case PAGE_READWRITE: case PAGE_WRITECOPY:
    case PAGE_EXECUTE: case 0x20 /* PAGE_EXECUTE_READ */: case 0x40 /* PAGE_EXECUTE_READWRITE */:
    case 0x80 /* PAGE_EXECUTE_WRITECOPY */:
        return true;
    default:
        return false;
    }
}

void EnsureType() {  // types live as long as the host process
    if (g_sectionType) return;
    ObjectTypeInit init{};
    init.name = "Section";
    init.mapping = {STANDARD_RIGHTS_READ | SECTION_QUERY | SECTION_MAP_READ,
                    STANDARD_RIGHTS_WRITE | SECTION_MAP_WRITE,
                    STANDARD_RIGHTS_EXECUTE | SECTION_MAP_EXECUTE, SECTION_ALL_ACCESS};
    init.validAccess = SECTION_ALL_ACCESS | SYNCHRONIZE;
    init.deleteProcedure = DeleteSection;
    g_sectionType = ObCreateObjectType(init);
}

}  // namespace

void MmStartup() {
    EnsureType();
    g_sectionTypeExport = g_sectionType;
}

std::vector<std::string> MmDescribeViews(const std::set<const void*>& skip) {
    std::lock_guard<std::mutex> guard(g_viewLock);
    std::vector<std::string> lines;
    for (const View& v : g_views) {
        if (skip.count(v.owner)) continue;
        char line[128];
        std::snprintf(line, sizeof(line), "view %p of section %p (%zu bytes)", static_cast<void*>(v.base), v.section,
                      static_cast<size_t>(v.size));
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> MmDescribeViewsOf(const void* owner) {
    std::set<const void*> others;
    {
        std::lock_guard<std::mutex> guard(g_viewLock);
        for (const View& v : g_views)
            if (v.owner != owner) others.insert(v.owner);
    }
    return MmDescribeViews(others);
}

void MmShutdown() {
    std::vector<View> views;
    {
        std::lock_guard<std::mutex> guard(g_viewLock);
        views.swap(g_views);
    }
    for (View& v : views) {
        munmap(v.base, v.mappedBytes);
        ObfDereferenceObject(v.section);
    }
}

}  // namespace tervane::emu

using namespace tervane::emu;

extern "C" {
POBJECT_TYPE* MmSectionObjectType = &tervane::emu::g_sectionTypeExport;
}


// Only page-file-backed sections (no file handle) exist on this machine.
extern "C" NTSTATUS ZwCreateSection(PHANDLE SectionHandle, ACCESS_MASK DesiredAccess,
                                    POBJECT_ATTRIBUTES ObjectAttributes, PLARGE_INTEGER MaximumSize,
                                    ULONG SectionPageProtection, ULONG AllocationAttributes, HANDLE FileHandle) {
    if (!g_sectionType) return STATUS_NOT_IMPLEMENTED;
    if (!SectionHandle) return STATUS_ACCESS_VIOLATION;
    if (FileHandle) return STATUS_NOT_SUPPORTED;
    if (!MaximumSize || MaximumSize->QuadPart <= 0) return STATUS_INVALID_PARAMETER_4;
    if (!ValidProtection(SectionPageProtection)) return STATUS_INVALID_PAGE_PROTECTION;
    if (!(AllocationAttributes & (SEC_COMMIT | SEC_RESERVE))) return STATUS_INVALID_PARAMETER_6;
    ULONGLONG size = static_cast<ULONGLONG>(MaximumSize->QuadPart);
    if (size > kMaximumSectionSize) return STATUS_SECTION_TOO_BIG;

    int fd = memfd_create("tervane-section", MFD_CLOEXEC);
    if (fd < 0) return STATUS_INSUFFICIENT_RESOURCES;
    if (ftruncate(fd, static_cast<off_t>(PageRound(size))) != 0) {
        close(fd);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PVOID object = nullptr;
    NTSTATUS status = ObCreateObject(g_sectionType, sizeof(SectionBody), &object);
    if (!NT_SUCCESS(status)) {
        close(fd);
        return status;
    }
    auto* body = static_cast<SectionBody*>(object);
    body->fd = fd;
    body->size = size;
    ACCESS_MASK access = DesiredAccess;
    GENERIC_MAPPING mapping = {STANDARD_RIGHTS_READ | SECTION_QUERY | SECTION_MAP_READ,
                               STANDARD_RIGHTS_WRITE | SECTION_MAP_WRITE,
                               STANDARD_RIGHTS_EXECUTE | SECTION_MAP_EXECUTE, SECTION_ALL_ACCESS};
    RtlMapGenericMask(&access, &mapping);
    status = ObInsertHandle(object, access, ObjectAttributes ? ObjectAttributes->Attributes : 0, SectionHandle);
    ObfDereferenceObject(object);
    return status;
}

// A view size of 0 maps the whole section and reports the section's size.
extern "C" NTSTATUS MmMapViewInSystemSpace(PVOID Section, PVOID* MappedBase, PSIZE_T ViewSize) {
    if (!Section || !MappedBase || !ViewSize) return STATUS_INVALID_PARAMETER;
    if (!g_sectionType || ObGetObjectType(Section) != g_sectionType) return STATUS_OBJECT_TYPE_MISMATCH;
    auto* body = static_cast<SectionBody*>(Section);
    SIZE_T size = *ViewSize == 0 ? static_cast<SIZE_T>(body->size) : *ViewSize;
    if (size > body->size) return STATUS_INVALID_VIEW_SIZE;
    SIZE_T mapped = PageRound(size);
    void* base = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_SHARED, body->fd, 0);
    if (base == MAP_FAILED) return STATUS_NO_MEMORY;
    ObfReferenceObject(Section);
    {
        std::lock_guard<std::mutex> guard(g_viewLock);
        g_views.push_back(View{static_cast<char*>(base), mapped, size, Section, LdrCurrentOwner()});
    }
    *MappedBase = base;
    *ViewSize = size;
    return STATUS_SUCCESS;
}


// Any address inside a view unmaps the whole view; an address in no view
// fails with STATUS_NOT_MAPPED_VIEW, as NtUnmapViewOfSection does.
extern "C" NTSTATUS MmUnmapViewInSystemSpace(PVOID MappedBase) {
    View found{};
    {
        std::lock_guard<std::mutex> guard(g_viewLock);
        auto* address = static_cast<char*>(MappedBase);
        auto it = g_views.begin();
        for (; it != g_views.end(); ++it)
            if (address >= it->base && address < it->base + it->mappedBytes) break;
        if (it == g_views.end()) return STATUS_NOT_MAPPED_VIEW;
        found = *it;
        g_views.erase(it);
    }
    munmap(found.base, found.mappedBytes);
    ObfDereferenceObject(found.section);
    return STATUS_SUCCESS;
}
