// Reading a driver image file (PE32 for x86): its headers, sections, base
// relocations and imports, every offset checked against the file or the
// image before it is used.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <nt/ntifs.h>

namespace tervane::emu::ldr {

// Why an image was refused: the status a load returns and a message for
// people ("section .text is truncated: ...").
struct LoadError {
    NTSTATUS status = STATUS_SUCCESS;
    std::string message;
};

struct ImageSection {
    std::string name;
    uint32_t rva = 0;
    uint32_t span = 0;       // bytes the section occupies in the image
    uint32_t rawOffset = 0;  // its data in the file
    uint32_t rawSize = 0;    // bytes of data copied (the rest is zero)
    uint32_t characteristics = 0;
};

struct DataDirectory {
    uint32_t rva = 0;
    uint32_t size = 0;
};

// What the headers say, validated: every section lies inside the image and
// its data inside the file.
struct ImageLayout {
    uint32_t imageBase = 0;
    uint32_t sizeOfImage = 0;
    uint32_t sizeOfHeaders = 0;
    uint32_t sectionAlignment = 0;
    uint32_t entryRva = 0;
    bool relocationsStripped = false;
    DataDirectory imports;
    DataDirectory relocations;
    std::vector<ImageSection> sections;
};

struct ImageImport {
    std::string dll;
    std::string name;        // empty when imported by ordinal
    uint32_t ordinal = 0;
    uint32_t slotRva = 0;    // its entry of the import address table
};

// Section characteristics the loader honours.
constexpr uint32_t kSectionExecute = 0x20000000;
constexpr uint32_t kSectionRead = 0x40000000;
constexpr uint32_t kSectionWrite = 0x80000000;

// The largest file and image the machine loads; real drivers are far smaller.
constexpr size_t kMaximumImageBytes = 64u << 20;

bool ParseImageHeaders(const std::vector<uint8_t>& file, ImageLayout* layout, LoadError* error);
// Copies the headers and every section's data into IMAGE (sizeOfImage bytes,
// zero-filled by the caller). FILE and LAYOUT come from ParseImageHeaders.
void CopyImage(const std::vector<uint8_t>& file, const ImageLayout& layout, uint8_t* image);
// Applies the base relocations for an image placed at BASE. With APPLY false
// only checks them (every fixup inside the image, every type one x86 knows).
bool RelocateImage(uint8_t* image, const ImageLayout& layout, uint32_t base, bool apply, LoadError* error);
bool ReadImageImports(const uint8_t* image, const ImageLayout& layout, std::vector<ImageImport>* imports,
                      LoadError* error);

}  // namespace tervane::emu::ldr
