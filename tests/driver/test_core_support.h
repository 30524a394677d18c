// Shared fixture of the driver's core and control tests: a machine with a
// recording test volume, the driver loaded, and helpers for control calls.
#pragma once

#include <gtest/gtest.h>

#include <emu/machine.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include <unistd.h>

// Standard headers come first: the driver's platform include renames a few
// wide-character routines of the C library.

#include "control/control.h"
#include "control/filter_directory.h"
#include "core/tervane.h"
#include "test_harness.h"

namespace tervane::test {

// One request the test volume received.
struct SeenRequest {
    UCHAR major = 0;
    UCHAR minor = 0;
    std::u16string fileName;  // opens only
    ULONG createOptions = 0;  // opens only
    ULONG length = 0;         // reads
    LONGLONG offset = 0;      // reads
    PFILE_OBJECT fileObject = nullptr;
};

// A device that stands for a volume: it opens every name, answers reads with
// 'v' bytes and volume attribute queries with the file-system name "TESTFS",
// and records every request it receives.
class TestVolume {
public:
    static NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING);
    static std::vector<SeenRequest>& Seen();
    static PDEVICE_OBJECT Device();
    static bool failAttributeQuery;
};

// Control codes as the controller sends them.
struct ControlResult {
    NTSTATUS status = 0;          // the status block's status
    ULONG_PTR information = 0;
    std::vector<uint8_t> output;  // the whole output buffer after the call
};

class DriverTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Loads the driver; the test volume is on C: unless a test links more.
    NTSTATUS Load();
    // Runs FN in kernel mode on a thread of the System process.
    void Kernel(const std::function<void()>& fn);

    // Through NtDeviceIoControlFile of a controller process that holds the
    // control device open (the fast path).
    ControlResult Fast(ULONG code, const std::vector<uint8_t>& input, ULONG outputLength);
    // Through a request packet sent to the control device.
    ControlResult Packet(ULONG code, const std::vector<uint8_t>& input, ULONG outputLength);

    std::vector<std::string> LogMatching(const std::string& text) const;

    emu::Machine* machine = nullptr;
    emu::MachineOptions options;
    // When set, C: is a volume of the machine's file system over this host
    // directory instead of the test volume.
    std::string volumeDir;
    PDRIVER_OBJECT driver = nullptr;
    bool loaded = false;

private:
    emu::Process* controller_ = nullptr;
    HANDLE controlHandle_ = nullptr;
};

// The path in one slot of an output buffer.
std::u16string SlotPath(const std::vector<uint8_t>& buffer, size_t slot);

// Fill byte of output buffers: whatever keeps it was not written.
constexpr uint8_t kUntouched = 0xCD;

}  // namespace tervane::test
