#include "driver_test.h"

#include <algorithm>
#include <cstring>

#include "control/control.h"
#include "control/filter_directory.h"

namespace tervane::test {

std::u16string SlotPath(const std::vector<uint8_t>& buffer, size_t slot) {
    std::u16string path;
    for (size_t i = slot * PATH_SLOT_SIZE; i + 1 < (slot + 1) * PATH_SLOT_SIZE && i + 1 < buffer.size(); i += 2) {
        char16_t c = (char16_t)(buffer[i] | (buffer[i + 1] << 8));
        if (c == 0) break;
        path.push_back(c);
    }
    return path;
}

NTSTATUS TervaneTest::LoadTervane(PDRIVER_OBJECT* driver) {
    NTSTATUS status = machine->LoadDriver(u"Tervane", ::DriverEntry, driver);
    loaded = NT_SUCCESS(status);
    return status;
}

ControlResult TervaneTest::Control(ULONG code, const std::vector<uint8_t>& input, ULONG outputLength) {
    if (controlHandle_ == nullptr) {
        controller_ = machine->CreateProcess(900, "controller.exe");
        machine->Run(controller_, [&] { EXPECT_EQ(OpenControlDevice(&controlHandle_), STATUS_SUCCESS); });
    }
    ControlResult result;
    result.output.assign(outputLength, kUntouched);
    std::vector<uint8_t> in = input;
    machine->Run(controller_, [&] {
        IO_STATUS_BLOCK iosb = {};
        NTSTATUS status = NtDeviceIoControlFile(controlHandle_, nullptr, nullptr, nullptr, &iosb, code,
                                                in.empty() ? nullptr : in.data(), (ULONG)in.size(),
                                                outputLength ? result.output.data() : nullptr, outputLength);
        EXPECT_EQ(status, iosb.Status);
        result.status = iosb.Status;
        result.information = iosb.Information;
    });
    return result;
}

void TervaneTest::BeforeShutdown() {
    if (controlHandle_ != nullptr) {
        machine->Run(controller_, [&] { EXPECT_EQ(NtClose(controlHandle_), STATUS_SUCCESS); });
        controlHandle_ = nullptr;
    }
    if (loaded) Kernel([] { ReleaseDriverState(); });
}

}  // namespace tervane::test
