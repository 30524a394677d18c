// Loading a driver image file into the machine: the file is read and its
// headers checked, the image is laid out in memory of its own, relocated to
// where it landed, its imports bound to the machine's exports, its sections
// given their protection, and its DriverEntry run in the System process.
// Images stay mapped until the machine goes: a driver without an unload
// routine is never unloaded, and even one whose DriverEntry failed may have
// left lists or resources behind that the machine still walks.
#include <sys/mman.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "kernel.h"
#include "ldr/exports.h"
#include "ldr/pe_image.h"
#include "machine/machine_impl.h"
#include "ob/ob_internal.h"
#include "ps/process.h"

namespace tervane::emu {
namespace {

struct LoadedImage {
    std::string path;
    uint8_t* base = nullptr;
    size_t mappedBytes = 0;
    PDRIVER_OBJECT driver = nullptr;  // set once DriverEntry succeeded; gone after IoShutdown
    std::string driverName;           // "\\Driver\\NAME", for the report
    bool unloaded = false;
};

std::mutex g_imagesLock;
std::vector<LoadedImage*> g_images;

// The call site in a driver image of the machine routine this thread runs,
// while an adapter runs one.
thread_local const void* tCallSite = nullptr;

size_t PageRound(size_t n) { return (n + PAGE_SIZE - 1) & ~size_t(PAGE_SIZE - 1); }

// Reserves SIZE bytes for an image that would like to sit at PREFERRED. A
// 32-bit machine offers that address first (a driver placed at its base
// needs no fixups); a 64-bit one maps below 2 GB so that the image's 32-bit
// addresses still describe it.
uint8_t* MapImageMemory(size_t size, uint32_t preferred) {
    int flags = MAP_PRIVATE | MAP_ANONYMOUS;
    void* hint = nullptr;
#if defined(__i386__)
    hint = reinterpret_cast<void*>(static_cast<uintptr_t>(preferred));
#else
    (void)preferred;
    flags |= MAP_32BIT;
#endif
    void* p = mmap(hint, size, PROT_READ | PROT_WRITE, flags, -1, 0);
    return p == MAP_FAILED ? nullptr : static_cast<uint8_t*>(p);
}

int Protection(uint32_t characteristics) {
    int protection = 0;
    if (characteristics & ldr::kSectionRead) protection |= PROT_READ;
    if (characteristics & ldr::kSectionWrite) protection |= PROT_READ | PROT_WRITE;
    if (characteristics & ldr::kSectionExecute) protection |= PROT_READ | PROT_EXEC;
    return protection;
}

// Headers read-only, each section as its characteristics say. Sections
// aligned to less than a page share pages; such an image stays writable and
// executable throughout.
[[maybe_unused]] void ProtectImage(uint8_t* base, size_t mapped, const ldr::ImageLayout& layout) {
    if (layout.sectionAlignment < PAGE_SIZE) {
        mprotect(base, mapped, PROT_READ | PROT_WRITE | PROT_EXEC);
        return;
    }
    mprotect(base, PageRound(layout.sizeOfHeaders), PROT_READ);
    for (const ldr::ImageSection& s : layout.sections)
        if (s.span != 0) mprotect(base + s.rva, PageRound(s.span), Protection(s.characteristics));
}

// Every import must name a module and a routine the machine provides; the
// refusal lists all that it does not.
bool ResolveImports(const std::vector<ldr::ImageImport>& imports, std::vector<const void*>* addresses,
                    ldr::LoadError* error) {
    std::string missing;
    size_t count = 0;
    for (const ldr::ImageImport& import : imports) {
        const ldr::MachineExport* e = nullptr;
        NTSTATUS status = STATUS_SUCCESS;
        std::string what = import.dll + "!" + (import.name.empty() ? "#" + std::to_string(import.ordinal) : import.name);
        if (!ldr::MachineProvidesModule(import.dll)) {
            status = STATUS_DLL_NOT_FOUND;
        } else if (import.name.empty()) {
            status = STATUS_DRIVER_ORDINAL_NOT_FOUND;
            what += " (the machine binds imports by name)";
        } else if (!(e = ldr::FindMachineExport(import.dll, import.name))) {
            status = STATUS_DRIVER_ENTRYPOINT_NOT_FOUND;
        }
        if (status != STATUS_SUCCESS) {
            if (count++ == 0) error->status = status;
            missing += (missing.empty() ? "" : ", ") + what;
            continue;
        }
        addresses->push_back(e->address);
    }
    if (count == 0) return true;
    error->message = (count == 1 ? "it imports " : "it imports " + std::to_string(count) + " routines ") + missing +
                     (count == 1 ? ", which the machine does not provide" : " that the machine does not provide");
    return false;
}

bool ReadFile(const std::string& path, std::vector<uint8_t>* bytes, ldr::LoadError* error) {
    std::error_code code;
    std::filesystem::file_status status = std::filesystem::status(path, code);
    if (!std::filesystem::is_regular_file(status)) {
        if (!std::filesystem::exists(status)) {
            error->status = STATUS_OBJECT_NAME_NOT_FOUND;
            error->message = "cannot read the file: " + std::string(std::strerror(ENOENT));
        } else {
            bool directory = std::filesystem::is_directory(status);
            error->status = directory ? STATUS_FILE_IS_A_DIRECTORY : STATUS_INVALID_IMAGE_FORMAT;
            error->message = directory ? "a directory, not a driver image" : "not a regular file, not a driver image";
        }
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error->status = STATUS_ACCESS_DENIED;
        error->message = "cannot read the file: " + std::string(std::strerror(errno ? errno : EACCES));
        return false;
    }
    in.seekg(0, std::ios::end);
    std::streamoff size = in.tellg();
    if (size < 0 || static_cast<uint64_t>(size) > ldr::kMaximumImageBytes) {
        error->status = STATUS_INVALID_IMAGE_FORMAT;
        error->message = "the file is larger than a driver image may be";
        return false;
    }
    in.seekg(0, std::ios::beg);
    bytes->resize(static_cast<size_t>(size));
    if (!in.read(reinterpret_cast<char*>(bytes->data()), size)) {
        error->status = STATUS_ACCESS_DENIED;
        error->message = "cannot read the file";
        return false;
    }
    return true;
}

// Maps, relocates and binds the image in FILE. On success the image is ready
// to run (and registered as an owner); on failure nothing is left.
LoadedImage* PrepareImage(const std::vector<uint8_t>& file, ldr::ImageLayout* layout, ldr::LoadError* error) {
    if (!ldr::ParseImageHeaders(file, layout, error)) return nullptr;
    const size_t mapped = PageRound(layout->sizeOfImage);
    uint8_t* base = MapImageMemory(mapped, layout->imageBase);
    if (!base) {
        error->status = STATUS_INSUFFICIENT_RESOURCES;
        error->message = "no memory for an image of " + std::to_string(layout->sizeOfImage) + " bytes";
        return nullptr;
    }
    auto fail = [&] {
        munmap(base, mapped);
        return nullptr;
    };
    ldr::CopyImage(file, *layout, base);
    const uintptr_t placed = reinterpret_cast<uintptr_t>(base);
    if (!ldr::RelocateImage(base, *layout, static_cast<uint32_t>(placed), placed <= UINT32_MAX, error)) return fail();
    std::vector<ldr::ImageImport> imports;
    std::vector<const void*> addresses;
    if (!ldr::ReadImageImports(base, *layout, &imports, error) || !ResolveImports(imports, &addresses, error))
        return fail();
#if !defined(__i386__)
    error->status = STATUS_NOT_SUPPORTED;
    error->message = "x86 driver images run on the 32-bit machine (scripts/build-32.sh); this one is 64-bit";
    return fail();
#else
    for (size_t i = 0; i < imports.size(); ++i) {
        const uint32_t address = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(addresses[i]));
        std::memcpy(base + imports[i].slotRva, &address, sizeof(address));
    }
    ProtectImage(base, mapped, *layout);
    auto* image = new LoadedImage{std::string(), base, mapped, nullptr, std::string(), false};
    std::lock_guard<std::mutex> guard(g_imagesLock);
    g_images.push_back(image);
    return image;
#endif
}

}  // namespace

Machine::ImageLoad Machine::LoadDriverImage(const std::string& path, const std::u16string& name) {
    ImageLoad result;
    std::vector<uint8_t> file;
    ldr::ImageLayout layout;
    ldr::LoadError error;
    LoadedImage* image = nullptr;
    if (ReadFile(path, &file, &error)) image = PrepareImage(file, &layout, &error);
    if (!image) {
        result.status = error.status;
        result.refusal = error.message;
        return result;
    }
    image->path = path;
    // The entry point is a stdcall routine of the image, as PDRIVER_INITIALIZE
    // is on x86.
    auto entry = reinterpret_cast<PDRIVER_INITIALIZE>(image->base + layout.entryRva);
    PDRIVER_OBJECT driver = nullptr;
    impl_->system->Run([&] {
        result.status = IoLoadDriver(name, entry, &driver, image->base, layout.sizeOfImage);
    });
    std::lock_guard<std::mutex> guard(g_imagesLock);
    image->driver = driver;
    if (driver) image->driverName = Utf16ToUtf8(driver->DriverName);
    result.driverObject = driver;
    return result;
}

LdrCallScope::LdrCallScope(const void* site) : previous_(tCallSite) { tCallSite = site; }

LdrCallScope::~LdrCallScope() { tCallSite = previous_; }

const void* LdrCurrentOwner() { return tCallSite ? LdrImageContaining(tCallSite) : nullptr; }

const void* LdrImageContaining(const void* address) {
    auto* p = static_cast<const uint8_t*>(address);
    std::lock_guard<std::mutex> guard(g_imagesLock);
    for (const LoadedImage* image : g_images)
        if (p >= image->base && p < image->base + image->mappedBytes) return image->base;
    return nullptr;
}

void LdrUnloadDrivers() {
    std::vector<LoadedImage*> images;
    {
        std::lock_guard<std::mutex> guard(g_imagesLock);
        images = g_images;
    }
    for (LoadedImage* image : images) {
        if (!image->driver || image->unloaded || !image->driver->DriverUnload) continue;
        image->unloaded = true;
        image->driver->DriverUnload(image->driver);
    }
}

std::set<const void*> LdrKeptOwners() {
    std::lock_guard<std::mutex> guard(g_imagesLock);
    std::set<const void*> owners;
    for (const LoadedImage* image : g_images)
        if (image->driver && !image->unloaded) owners.insert(image->base);
    return owners;
}

std::string LdrOwnerName(const void* owner) {
    std::lock_guard<std::mutex> guard(g_imagesLock);
    for (const LoadedImage* image : g_images)
        if (image->base == owner) return image->driverName + " (no unload routine)";
    return "an image no longer loaded";
}

std::vector<std::string> LdrKeptDevices() {
    std::vector<std::string> lines;
    for (const void* owner : LdrKeptOwners()) {
        PDRIVER_OBJECT driver = nullptr;
        {
            std::lock_guard<std::mutex> guard(g_imagesLock);
            for (const LoadedImage* image : g_images)
                if (image->base == owner) driver = image->driver;
        }
        for (PDEVICE_OBJECT device = driver ? driver->DeviceObject : nullptr; device; device = device->NextDevice) {
            std::u16string deviceName = ObpFullName(device);
            char type[32];
            std::snprintf(type, sizeof(type), " (type 0x%lx)", static_cast<unsigned long>(device->DeviceType));
            lines.push_back(LdrOwnerName(owner) + ": device " +
                            (deviceName.empty() ? std::string("(unnamed)") : Utf16ToUtf8(deviceName)) + type);
        }
    }
    return lines;
}

void LdrUnmapImages() {
    std::vector<LoadedImage*> images;
    {
        std::lock_guard<std::mutex> guard(g_imagesLock);
        images.swap(g_images);
    }
    for (LoadedImage* image : images) {
        munmap(image->base, image->mappedBytes);
        delete image;
    }
}

}  // namespace tervane::emu
