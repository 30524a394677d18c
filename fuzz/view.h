// The emulated machine the fuzzers drive: a volume over a temporary host
// directory holding three filter directories (pack, mid and an indexed
// base) and a few files, the driver loaded and configured through its
// control device, filtering on, and a monitored process (1234, app.exe).
#pragma once

#include <emu/machine.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "common/controller.h"

namespace tervane::fuzz {

// Reads the fuzzer's input front to back; past the end it yields zeros.
class Input {
public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    bool Empty() const { return at_ >= size_; }
    uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }
    uint16_t Word() { return uint16_t(Byte() | Byte() << 8); }
    std::vector<uint8_t> Bytes(size_t n);
    std::u16string Name(size_t maxChars);  // UTF-16 units, taken two bytes each

private:
    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
};

// Control protocol records: one path slot per path; a process record.
using test::ProcessRecord;
using test::Slots;

class View {
public:
    // CONFIGURE: filter list, index, app.exe and filtering on; without it
    // only the driver is loaded and the files are written.
    explicit View(bool configure = true);
    // Gives back what the driver holds, shuts the machine down and aborts
    // when anything is left outstanding.
    ~View();

    // The view's process lifetime one: made at the first call.
    static View& Shared();

    NTSTATUS Control(ULONG code, const std::vector<uint8_t>& input, std::vector<uint8_t>* output = nullptr);
    // NtCreateFile of an NT name ("\??\C:\...") by the monitored process.
    NTSTATUS Open(const std::u16string& name, ACCESS_MASK access, ULONG disposition, ULONG options, HANDLE* handle,
                  HANDLE related = nullptr);

    // Every host file of the lower filter directories with its content.
    std::string LowerLayers() const;

    std::filesystem::path host;
    std::unique_ptr<emu::Machine> machine;
    emu::Process* app = nullptr;
    emu::Process* controller = nullptr;
    HANDLE control = nullptr;
};

}  // namespace tervane::fuzz
