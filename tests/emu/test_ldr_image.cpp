// Loading driver image files: a small x86 image made here whose DriverEntry
// prints through an import and returns a status, and the same image spoiled
// in the ways a file on disk can be. A refused image names why and leaves
// the machine able to load the next one.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <unistd.h>

#include <emu/machine.h>

using namespace tervane::emu;

namespace {

// Where things sit in the image (RVAs) and in the file.
constexpr uint32_t kImageBase = 0x1000;  // below what the host maps: the image is always relocated
constexpr uint32_t kPe = 0x40;
constexpr uint32_t kOptional = kPe + 24;
constexpr uint32_t kSectionTable = kOptional + 224;
constexpr uint32_t kText = 0x1000, kIdata = 0x2000, kReloc = 0x3000, kSizeOfImage = 0x4000;
constexpr uint32_t kFileAlignment = 0x200;
constexpr uint32_t kLookup = kIdata + 0x40, kSlots = kIdata + 0x60, kDllName = kIdata + 0x80, kHintName = kIdata + 0xA0;

void Put16(std::vector<uint8_t>& f, size_t at, uint16_t v) {
    f[at] = uint8_t(v);
    f[at + 1] = uint8_t(v >> 8);
}
void Put32(std::vector<uint8_t>& f, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) f[at + i] = uint8_t(v >> (8 * i));
}
void PutText(std::vector<uint8_t>& f, size_t at, const std::string& s) { std::memcpy(&f[at], s.c_str(), s.size() + 1); }

// File offset of an RVA in one of the three sections (each a file-aligned
// block after the headers, in order).
size_t FileOffset(uint32_t rva) { return kFileAlignment * (rva / 0x1000); }

// The headers of the image: three sections, imports, relocations.
void WriteHeaders(std::vector<uint8_t>& f) {
    Put16(f, 0, 0x5A4D);
    Put32(f, 0x3C, kPe);
    Put32(f, kPe, 0x00004550);
    Put16(f, kPe + 4, 0x014C);            // i386
    Put16(f, kPe + 6, 3);                 // sections
    Put16(f, kPe + 20, 224);              // optional header
    Put16(f, kPe + 22, 0x2102);           // executable, 32-bit, DLL
    Put16(f, kOptional, 0x010B);          // PE32
    Put32(f, kOptional + 16, kText);      // entry point
    Put32(f, kOptional + 28, kImageBase);
    Put32(f, kOptional + 32, 0x1000);     // section alignment
    Put32(f, kOptional + 36, kFileAlignment);
    Put32(f, kOptional + 56, kSizeOfImage);
    Put32(f, kOptional + 60, kFileAlignment);  // headers
    Put16(f, kOptional + 68, 1);               // native
    Put32(f, kOptional + 92, 16);
    Put32(f, kOptional + 96 + 8, kIdata);      // import directory
    Put32(f, kOptional + 96 + 12, 40);
    Put32(f, kOptional + 96 + 40, kReloc);     // relocation directory (its size comes with the code)
    struct { const char* name; uint32_t rva, characteristics; } sections[] = {
        {".text", kText, 0x60000020}, {".idata", kIdata, 0xC0000040}, {".reloc", kReloc, 0x42000040}};
    for (int i = 0; i < 3; ++i) {
        size_t at = kSectionTable + 40 * i;
        std::memcpy(&f[at], sections[i].name, std::strlen(sections[i].name));
        Put32(f, at + 8, kFileAlignment);
        Put32(f, at + 12, sections[i].rva);
        Put32(f, at + 16, kFileAlignment);
        Put32(f, at + 20, FileOffset(sections[i].rva));
        Put32(f, at + 36, sections[i].characteristics);
    }
}

// x86 code for .text, with the RVAs of the absolute addresses in it (each
// needs a base relocation).
struct Code {
    std::vector<uint8_t> bytes;
    std::vector<uint32_t> fixups;
    void Emit(std::initializer_list<uint8_t> b) { bytes.insert(bytes.end(), b); }
    void Value(uint32_t v) { Emit({uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}); }
    void Address(uint32_t rva) {
        fixups.push_back(kText + static_cast<uint32_t>(bytes.size()));
        Value(kImageBase + rva);
    }
    void Print(uint32_t message) {  // DbgPrint(message), cdecl
        Emit({0x68});
        Address(message);
        Emit({0xFF, 0x15});
        Address(kSlots);
        Emit({0x83, 0xC4, 0x04});
    }
};

constexpr uint32_t kUnloadRoutine = kText + 0x80, kEntryMessage = kText + 0x100, kUnloadMessage = kText + 0x140;

// DriverEntry: [DriverObject->DriverUnload = Unload;] DbgPrint(message);
// return STATUS. Unload: DbgPrint(message). Both stdcall.
std::vector<uint8_t> MakeImage(NTSTATUS status, bool withUnload = false) {
    std::vector<uint8_t> f(4 * kFileAlignment, 0);
    WriteHeaders(f);
    Code code;
    if (withUnload) {
        code.Emit({0x8B, 0x44, 0x24, 0x04});  // mov eax, [esp+4]: the driver object
        code.Emit({0xC7, 0x40, 0x34});        // mov [eax+0x34] (DriverUnload on x86), Unload
        code.Address(kUnloadRoutine);
    }
    code.Print(kEntryMessage);
    code.Emit({0xB8});
    code.Value(static_cast<uint32_t>(status));  // mov eax, status
    code.Emit({0xC2, 0x08, 0x00});               // ret 8
    code.bytes.resize(kUnloadRoutine - kText);
    code.Print(kUnloadMessage);
    code.Emit({0xC2, 0x04, 0x00});  // ret 4
    size_t text = FileOffset(kText);
    std::memcpy(&f[text], code.bytes.data(), code.bytes.size());
    PutText(f, text + (kEntryMessage - kText), "image DriverEntry ran\n");
    PutText(f, text + (kUnloadMessage - kText), "image unloaded\n");
    size_t idata = FileOffset(kIdata);
    Put32(f, idata + 0, kLookup);
    Put32(f, idata + 12, kDllName);
    Put32(f, idata + 16, kSlots);
    Put32(f, idata + (kLookup - kIdata), kHintName);
    Put32(f, idata + (kSlots - kIdata), kHintName);
    PutText(f, idata + (kDllName - kIdata), "ntoskrnl.exe");
    PutText(f, idata + (kHintName - kIdata) + 2, "DbgPrint");
    const uint32_t relocBytes = 8 + 2 * static_cast<uint32_t>(code.fixups.size());
    size_t reloc = FileOffset(kReloc);
    Put32(f, reloc, kText);
    Put32(f, reloc + 4, relocBytes);
    for (size_t i = 0; i < code.fixups.size(); ++i) Put16(f, reloc + 8 + 2 * i, 0x3000 | (code.fixups[i] - kText));
    Put32(f, kOptional + 96 + 44, relocBytes);
    return f;
}

class ImageFile {
public:
    explicit ImageFile(const std::vector<uint8_t>& bytes) {
        path_ = std::filesystem::temp_directory_path() /
                ("tervane-image-" + std::to_string(::getpid()) + "-" + std::to_string(counter_++) + ".sys");
        std::ofstream(path_, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    ~ImageFile() { std::filesystem::remove(path_); }
    std::string path() const { return path_.string(); }

private:
    static inline int counter_ = 0;
    std::filesystem::path path_;
};

struct BadImage {
    const char* what;
    std::function<void(std::vector<uint8_t>&)> spoil;
    NTSTATUS status;
    const char* reason;  // part of the refusal
};

const BadImage kBadImages[] = {
    {"a text file", [](auto& f) { f.assign({'h', 'e', 'l', 'l', 'o', '\n'}); }, STATUS_INVALID_IMAGE_NOT_MZ,
     "not a PE image"},
    {"an MZ header pointing at no PE header", [](auto& f) { Put32(f, 0x3C, 0x7FFFFFF0); },
     STATUS_INVALID_IMAGE_FORMAT, "no PE signature"},
    {"a 64-bit image", [](auto& f) { Put16(f, kPe + 4, 0x8664); }, STATUS_INVALID_IMAGE_WIN_64, "64-bit image"},
    {"an import the machine lacks", [](auto& f) { PutText(f, FileOffset(kIdata) + (kHintName - kIdata) + 2, "DbgPrintEx3"); },
     STATUS_DRIVER_ENTRYPOINT_NOT_FOUND, "ntoskrnl.exe!DbgPrintEx3, which the machine does not provide"},
    {"a module the machine lacks", [](auto& f) { PutText(f, FileOffset(kIdata) + (kDllName - kIdata), "video.sys"); },
     STATUS_DLL_NOT_FOUND, "video.sys!DbgPrint"},
    {"a truncated section", [](auto& f) { f.resize(3 * kFileAlignment + 16); }, STATUS_INVALID_IMAGE_FORMAT,
     "section .reloc is truncated"},
    {"a relocation outside the image",
     [](auto& f) { Put32(f, FileOffset(kReloc), kSizeOfImage - 0x1000); Put16(f, FileOffset(kReloc) + 10, 0x3FFE); },
     STATUS_INVALID_IMAGE_FORMAT, "base relocation at RVA 0x3ffe lies outside the image"},
    {"a section beyond the image", [](auto& f) { Put32(f, kSectionTable + 80 + 12, kSizeOfImage); },
     STATUS_INVALID_IMAGE_FORMAT, "section .reloc (RVA 0x4000"},
    {"an import table running off the image", [](auto& f) { Put32(f, FileOffset(kIdata) + 16, kSizeOfImage - 2); },
     STATUS_INVALID_IMAGE_FORMAT, "the imports from ntoskrnl.exe run past the end of the image"},
};

}  // namespace

TEST(DriverImage, RefusesABadImageSayingWhyAndLoadsTheNextOne) {
    Machine machine;
    for (const BadImage& bad : kBadImages) {
        std::vector<uint8_t> bytes = MakeImage(STATUS_SUCCESS);
        bad.spoil(bytes);
        ImageFile file(bytes);
        Machine::ImageLoad load = machine.LoadDriverImage(file.path(), u"Refused");
        EXPECT_EQ(load.status, bad.status) << bad.what << ": " << load.refusal;
        EXPECT_NE(load.refusal.find(bad.reason), std::string::npos) << bad.what << ": " << load.refusal;
        EXPECT_EQ(load.driverObject, nullptr) << bad.what;
    }
    Machine::ImageLoad missing = machine.LoadDriverImage("/nonexistent/tervane.sys", u"Refused");
    EXPECT_EQ(missing.status, STATUS_OBJECT_NAME_NOT_FOUND) << missing.refusal;
    Machine::ImageLoad directory = machine.LoadDriverImage(std::filesystem::temp_directory_path(), u"Refused");
    EXPECT_EQ(directory.status, STATUS_FILE_IS_A_DIRECTORY) << directory.refusal;

    ImageFile good(MakeImage(STATUS_SUCCESS));
    Machine::ImageLoad load = machine.LoadDriverImage(good.path(), u"Sample");
#if defined(__i386__)
    EXPECT_EQ(load.status, STATUS_SUCCESS) << load.refusal;
    ASSERT_NE(load.driverObject, nullptr);
    EXPECT_EQ(load.driverObject->DriverSize, kSizeOfImage);
    EXPECT_NE(machine.TakeNewLog().find("image DriverEntry ran\n"), std::string::npos)
        << "the entry point ran, its relocated pointers and its bound import worked";
#else
    EXPECT_EQ(load.status, STATUS_NOT_SUPPORTED) << "a 64-bit machine checks images but runs none";
#endif
    VerifierReport report = machine.Shutdown();
    EXPECT_TRUE(report.Clean()) << report.ToString();
}

#if defined(__i386__)
TEST(DriverImage, ADriverEntryThatFailsLeavesNoDriver) {
    Machine machine;
    ImageFile file(MakeImage(STATUS_INSUFFICIENT_RESOURCES));
    Machine::ImageLoad load = machine.LoadDriverImage(file.path(), u"Failing");
    EXPECT_EQ(load.status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(load.refusal.empty()) << "the image loaded; its DriverEntry failed";
    EXPECT_EQ(load.driverObject, nullptr);
    ImageFile again(MakeImage(STATUS_SUCCESS));
    EXPECT_EQ(machine.LoadDriverImage(again.path(), u"Failing").status, STATUS_SUCCESS)
        << "the name of the failed driver is free again";
    EXPECT_TRUE(machine.Shutdown().Clean());
}

TEST(DriverImage, ADriverWithAnUnloadRoutineIsUnloadedAtShutdown) {
    Machine machine;
    ImageFile file(MakeImage(STATUS_SUCCESS, true));
    ASSERT_EQ(machine.LoadDriverImage(file.path(), u"Unloading").status, STATUS_SUCCESS);
    machine.TakeNewLog();
    VerifierReport report = machine.Shutdown();
    EXPECT_EQ(machine.TakeNewLog(), "image unloaded\n");
    EXPECT_TRUE(report.Clean()) << report.ToString();
}
#endif
