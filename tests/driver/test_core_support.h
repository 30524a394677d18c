// Shared fixture of the driver's core and control tests: a machine with a
// recording test volume, the driver loaded, and helpers for control calls.
#pragma once

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "driver_test.h"

#include "control/control.h"
#include "control/filter_directory.h"

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

class DriverTest : public TervaneTest {
protected:
    void SetUp() override;

    // Loads the driver; the test volume is on C: unless a test links more.
    NTSTATUS Load() { return LoadTervane(&driver); }

    // Through a request packet sent to the control device.
    ControlResult Packet(ULONG code, const std::vector<uint8_t>& input, ULONG outputLength);

    std::vector<std::string> LogMatching(const std::string& text) const;

    // When set, C: is a volume of the machine's file system over the host
    // tree instead of the test volume.
    bool mountHost = false;
    PDRIVER_OBJECT driver = nullptr;
};

}  // namespace tervane::test
