// The PE32 format as the loader reads it. Offsets come from the file, so
// each one is checked before it is followed; a check that fails refuses the
// image with what was wrong and where.
#include "ldr/pe_image.h"

#include <cstdio>
#include <cstring>

namespace tervane::emu::ldr {
namespace {

constexpr uint16_t kDosMagic = 0x5A4D;          // "MZ"
constexpr size_t kDosHeaderSize = 64;
constexpr size_t kNewHeaderOffset = 0x3C;       // e_lfanew
constexpr uint32_t kPeSignature = 0x00004550;   // "PE\0\0"
constexpr size_t kFileHeaderSize = 20;
constexpr uint16_t kMachineI386 = 0x014C;
constexpr uint16_t kMachineIa64 = 0x0200;
constexpr uint16_t kMachineAmd64 = 0x8664;
constexpr uint16_t kMachineArm64 = 0xAA64;
constexpr uint16_t kMagicPe32 = 0x010B;
constexpr uint16_t kMagicPe32Plus = 0x020B;
constexpr uint16_t kFileRelocsStripped = 0x0001;
constexpr uint16_t kFileExecutableImage = 0x0002;
constexpr size_t kOptionalHeaderFixed = 96;     // through NumberOfRvaAndSizes
constexpr size_t kSectionHeaderSize = 40;
constexpr uint16_t kMaximumSections = 96;
constexpr size_t kImportDirectoryIndex = 1;
constexpr size_t kRelocationDirectoryIndex = 5;
constexpr size_t kImportDescriptorSize = 20;
constexpr uint32_t kOrdinalFlag = 0x80000000;
constexpr size_t kMaximumNameLength = 256;
constexpr size_t kMaximumImports = 65536;
constexpr uint16_t kRelocationAbsolute = 0;
constexpr uint16_t kRelocationHighLow = 3;

uint16_t U16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
uint32_t U32(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }

// OFFSET and LENGTH lie within SIZE, without overflowing.
bool Within(uint64_t offset, uint64_t length, uint64_t size) { return offset <= size && length <= size - offset; }

std::string Hex(uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

bool Fail(LoadError* error, NTSTATUS status, std::string message) {
    error->status = status;
    error->message = std::move(message);
    return false;
}

bool Malformed(LoadError* error, std::string message) {
    return Fail(error, STATUS_INVALID_IMAGE_FORMAT, std::move(message));
}

// A NUL-terminated name at RVA inside the image.
bool ReadName(const uint8_t* image, uint32_t size, uint32_t rva, const char* what, std::string* name,
              LoadError* error) {
    if (rva >= size) return Malformed(error, std::string("the name of ") + what + " at RVA " + Hex(rva) +
                                                 " lies outside the image");
    const uint8_t* start = image + rva;
    size_t limit = std::min<size_t>(size - rva, kMaximumNameLength);
    const void* end = std::memchr(start, 0, limit);
    if (!end) return Malformed(error, std::string("the name of ") + what + " at RVA " + Hex(rva) +
                                          " is not terminated");
    name->assign(reinterpret_cast<const char*>(start), static_cast<const uint8_t*>(end) - start);
    return true;
}

}  // namespace

bool ParseImageHeaders(const std::vector<uint8_t>& file, ImageLayout* layout, LoadError* error) {
    const uint8_t* d = file.data();
    const size_t n = file.size();
    if (n > kMaximumImageBytes)
        return Malformed(error, "the file has " + std::to_string(n) + " bytes, more than a driver image may have");
    if (n < kDosHeaderSize || U16(d) != kDosMagic)
        return Fail(error, STATUS_INVALID_IMAGE_NOT_MZ, "not a PE image: it does not begin with an MZ header");
    const uint32_t pe = U32(d + kNewHeaderOffset);
    if (!Within(pe, 4 + kFileHeaderSize + 2, n) || U32(d + pe) != kPeSignature)
        return Malformed(error, "not a PE image: no PE signature where the MZ header points (" + Hex(pe) + ")");
    const uint8_t* fh = d + pe + 4;
    const uint16_t machine = U16(fh);
    const uint16_t sectionCount = U16(fh + 2);
    const uint16_t optionalSize = U16(fh + 16);
    const uint16_t characteristics = U16(fh + 18);
    const size_t optional = pe + 4 + kFileHeaderSize;
    const uint16_t magic = U16(d + optional);
    if (machine == kMachineAmd64 || machine == kMachineIa64 || machine == kMachineArm64 || magic == kMagicPe32Plus)
        return Fail(error, STATUS_INVALID_IMAGE_WIN_64,
                    "a 64-bit image (machine " + Hex(machine) + "); this machine runs 32-bit x86 images");
    if (machine != kMachineI386)
        return Malformed(error, "built for machine " + Hex(machine) + ", not for x86 (0x14c)");
    if (magic != kMagicPe32) return Malformed(error, "the optional header is not a PE32 header (magic " + Hex(magic) + ")");
    if (!(characteristics & kFileExecutableImage)) return Malformed(error, "the file is not marked as an executable image");
    if (optionalSize < kOptionalHeaderFixed || !Within(optional, optionalSize, n))
        return Malformed(error, "the optional header (" + std::to_string(optionalSize) + " bytes) is truncated");
    const uint8_t* oh = d + optional;
    layout->entryRva = U32(oh + 16);
    layout->imageBase = U32(oh + 28);
    layout->sectionAlignment = U32(oh + 32);
    layout->sizeOfImage = U32(oh + 56);
    layout->sizeOfHeaders = U32(oh + 60);
    layout->relocationsStripped = (characteristics & kFileRelocsStripped) != 0;
    const uint32_t alignment = layout->sectionAlignment;
    if (alignment == 0 || (alignment & (alignment - 1)) != 0)
        return Malformed(error, "the section alignment " + Hex(alignment) + " is not a power of two");
    if (layout->sizeOfImage == 0 || layout->sizeOfImage > kMaximumImageBytes)
        return Malformed(error, "the image size " + Hex(layout->sizeOfImage) + " is out of range");
    if (layout->sizeOfHeaders > layout->sizeOfImage || layout->sizeOfHeaders > n)
        return Malformed(error, "the headers (" + Hex(layout->sizeOfHeaders) + " bytes) exceed the file or the image");
    if (layout->entryRva == 0 || layout->entryRva >= layout->sizeOfImage)
        return Malformed(error, "the entry point at RVA " + Hex(layout->entryRva) + " lies outside the image");

    const size_t directories = std::min<size_t>(U32(oh + 92), (optionalSize - kOptionalHeaderFixed) / 8);
    auto directory = [&](size_t index) {
        DataDirectory dir;
        if (index < directories) {
            dir.rva = U32(oh + kOptionalHeaderFixed + 8 * index);
            dir.size = U32(oh + kOptionalHeaderFixed + 8 * index + 4);
        }
        return dir;
    };
    layout->imports = directory(kImportDirectoryIndex);
    layout->relocations = directory(kRelocationDirectoryIndex);
    for (const DataDirectory* dir : {&layout->imports, &layout->relocations}) {
        if (dir->size != 0 && !Within(dir->rva, dir->size, layout->sizeOfImage))
            return Malformed(error, std::string(dir == &layout->imports ? "the import" : "the relocation") +
                                        " directory at RVA " + Hex(dir->rva) + " lies outside the image");
    }

    const size_t table = optional + optionalSize;
    if (sectionCount == 0 || sectionCount > kMaximumSections)
        return Malformed(error, "the image has " + std::to_string(sectionCount) + " sections");
    if (!Within(table, size_t(sectionCount) * kSectionHeaderSize, std::min<size_t>(n, layout->sizeOfHeaders)))
        return Malformed(error, "the section table is truncated");
    layout->sections.clear();
    for (uint16_t i = 0; i < sectionCount; ++i) {
        const uint8_t* sh = d + table + i * kSectionHeaderSize;
        ImageSection s;
        s.name.assign(reinterpret_cast<const char*>(sh), strnlen(reinterpret_cast<const char*>(sh), 8));
        const uint32_t virtualSize = U32(sh + 8);
        s.rva = U32(sh + 12);
        const uint32_t rawSize = U32(sh + 16);
        s.rawOffset = U32(sh + 20);
        s.characteristics = U32(sh + 36);
        s.span = virtualSize != 0 ? virtualSize : rawSize;
        s.rawSize = virtualSize != 0 ? std::min(virtualSize, rawSize) : rawSize;
        if (s.rva < layout->sizeOfHeaders || !Within(s.rva, s.span, layout->sizeOfImage))
            return Malformed(error, "section " + s.name + " (RVA " + Hex(s.rva) + ", " + Hex(s.span) +
                                        " bytes) lies outside the image");
        if (s.rawSize != 0 && !Within(s.rawOffset, s.rawSize, n))
            return Malformed(error, "section " + s.name + " is truncated: its data ends at byte " +
                                        Hex(uint64_t(s.rawOffset) + s.rawSize) + ", the file has " + Hex(n));
        layout->sections.push_back(std::move(s));
    }
    return true;
}

void CopyImage(const std::vector<uint8_t>& file, const ImageLayout& layout, uint8_t* image) {
    std::memcpy(image, file.data(), layout.sizeOfHeaders);
    for (const ImageSection& s : layout.sections)
        if (s.rawSize != 0) std::memcpy(image + s.rva, file.data() + s.rawOffset, s.rawSize);
}

bool RelocateImage(uint8_t* image, const ImageLayout& layout, uint32_t base, bool apply, LoadError* error) {
    const uint32_t delta = base - layout.imageBase;
    const DataDirectory& dir = layout.relocations;
    if (dir.size == 0) {
        if (apply && delta != 0)
            return Fail(error, STATUS_CONFLICTING_ADDRESSES,
                        "the image has no base relocations and cannot be placed away from its base " +
                            Hex(layout.imageBase));
        return true;
    }
    uint32_t offset = 0;
    while (offset < dir.size) {
        if (dir.size - offset < 8) return Malformed(error, "the relocation directory ends inside a block header");
        const uint8_t* block = image + dir.rva + offset;
        const uint32_t page = U32(block);
        const uint32_t blockSize = U32(block + 4);
        if (blockSize < 8 || blockSize > dir.size - offset)
            return Malformed(error, "the relocation block at RVA " + Hex(dir.rva + offset) + " has a bad size (" +
                                        Hex(blockSize) + ")");
        for (uint32_t i = 0; i < (blockSize - 8) / 2; ++i) {
            const uint16_t entry = U16(block + 8 + 2 * i);
            const uint16_t type = entry >> 12;
            const uint64_t target = uint64_t(page) + (entry & 0x0FFF);
            if (type == kRelocationAbsolute) continue;
            if (type != kRelocationHighLow)
                return Malformed(error, "the relocation at RVA " + Hex(target) + " has type " +
                                            std::to_string(type) + ", which x86 images do not use");
            if (!Within(target, 4, layout.sizeOfImage))
                return Malformed(error, "a base relocation at RVA " + Hex(target) + " lies outside the image (" +
                                            Hex(layout.sizeOfImage) + " bytes)");
            if (apply) {
                uint8_t* p = image + target;
                const uint32_t value = U32(p) + delta;
                for (int b = 0; b < 4; ++b) p[b] = static_cast<uint8_t>(value >> (8 * b));
            }
        }
        offset += blockSize;
    }
    return true;
}

bool ReadImageImports(const uint8_t* image, const ImageLayout& layout, std::vector<ImageImport>* imports,
                      LoadError* error) {
    const uint32_t size = layout.sizeOfImage;
    const DataDirectory& dir = layout.imports;
    imports->clear();
    if (dir.size == 0) return true;
    for (uint64_t at = dir.rva;; at += kImportDescriptorSize) {
        if (!Within(at, kImportDescriptorSize, size))
            return Malformed(error, "the import descriptors run past the end of the image");
        const uint8_t* desc = image + at;
        const uint32_t lookup = U32(desc);
        const uint32_t nameRva = U32(desc + 12);
        const uint32_t slots = U32(desc + 16);
        if (nameRva == 0 && slots == 0) return true;
        std::string dll;
        if (!ReadName(image, size, nameRva, "an imported module", &dll, error)) return false;
        const uint32_t table = lookup != 0 ? lookup : slots;
        for (uint32_t i = 0;; ++i) {
            const uint64_t entryAt = uint64_t(table) + 4ull * i;
            const uint64_t slotAt = uint64_t(slots) + 4ull * i;
            if (!Within(entryAt, 4, size) || !Within(slotAt, 4, size))
                return Malformed(error, "the imports from " + dll + " run past the end of the image");
            const uint32_t entry = U32(image + entryAt);
            if (entry == 0) break;
            if (imports->size() >= kMaximumImports) return Malformed(error, "the image has too many imports");
            ImageImport import;
            import.dll = dll;
            import.slotRva = static_cast<uint32_t>(slotAt);
            if (entry & kOrdinalFlag) {
                import.ordinal = entry & 0xFFFF;
            } else if (!ReadName(image, size, entry + 2, ("an import from " + dll).c_str(), &import.name, error)) {
                return false;
            }
            imports->push_back(std::move(import));
        }
    }
}

}  // namespace tervane::emu::ldr
