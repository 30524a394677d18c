// The fixture of the driver tests: the machine fixture with the driver
// loaded on demand, a controller process that holds the control device open,
// the control protocol's input records, and counted strings over test text.
// Gives the driver's state back before the verifier counts what is left.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/controller.h"
#include "common/machine_test.h"

// Standard headers come first: the driver's platform include renames a few
// wide-character routines of the C library.
#include "core/tervane.h"

namespace tervane::test {

// A counted string that owns its text.
class Path {
public:
    Path(std::u16string text) : text_(std::move(text)) { Refresh(); }
    Path(const Path& other) : text_(other.text_) { Refresh(); }
    PUNICODE_STRING us() { return &us_; }
    const std::u16string& text() const { return text_; }

private:
    void Refresh() {
        us_.Length = us_.MaximumLength = USHORT(text_.size() * 2);
        us_.Buffer = reinterpret_cast<PWSTR>(text_.data());
    }
    std::u16string text_;
    UNICODE_STRING us_;
};

inline std::u16string U16(const UNICODE_STRING& s) {
    return std::u16string(reinterpret_cast<const char16_t*>(s.Buffer), s.Length / 2);
}

// The path in one slot of an output buffer.
std::u16string SlotPath(const std::vector<uint8_t>& buffer, size_t slot);

// Fill byte of output buffers: whatever keeps it was not written.
constexpr uint8_t kUntouched = 0xCD;

// The outcome of one control code.
struct ControlResult {
    NTSTATUS status = 0;          // the status block's status
    ULONG_PTR information = 0;
    std::vector<uint8_t> output;  // the whole output buffer after the call
};

class TervaneTest : public MachineTest {
protected:
    // Loads the driver in the System process.
    NTSTATUS LoadTervane(PDRIVER_OBJECT* driver = nullptr);

    // NtDeviceIoControlFile of a controller process (900, controller.exe)
    // that opens the control device on its first call (the fast path).
    ControlResult Control(ULONG code, const std::vector<uint8_t>& input, ULONG outputLength = 0);

    // Closes the controller's handle and releases the driver's state.
    void BeforeShutdown() override;

    bool loaded = false;
    // The controller and its handle of the control device (after the first
    // Control), for tests that send control codes from threads of their own.
    emu::Process* controller_ = nullptr;
    HANDLE controlHandle_ = nullptr;
};

}  // namespace tervane::test
