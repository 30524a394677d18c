// Fixture of the request handler tests: a volume over a host directory on C:
// holding three filter directories (pack, mid and an indexed base), the
// driver loaded and configured through its control device with filtering on,
// a monitored process (1234, app.exe) and one that is not (77, other.exe).
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "driver_test.h"

namespace tervane::test {

// Host directories of the three filter directories below the volume root.
constexpr const char* kPack = "layers/pack";
constexpr const char* kMid = "layers/mid";
constexpr const char* kBase = "layers/base";

constexpr LONGLONG kEndOfFile = -2;

class DispatchTest : public TervaneTest {
protected:
    void SetUp() override;
    // Ends both processes first: handles a failed test left open are closed
    // while the driver still serves their redirected opens.
    void BeforeShutdown() override;

    // Builds the base's index from what is on disk now, sets the filter
    // directories, loads the index, adds app.exe and switches filtering on.
    void Configure();

    // Runs FN on a thread of the monitored (App) or the other process.
    void App(const std::function<void()>& fn) { machine->Run(app, fn); }
    void Other(const std::function<void()>& fn) { machine->Run(other, fn); }

    // NtCreateFile by PROCESS of a drive path ("C:\\dir\\x"), or of a name
    // relative to RELATED when that is given.
    OpenResult Open(emu::Process* process, const std::u16string& path,
                    ACCESS_MASK access = GENERIC_READ | SYNCHRONIZE,
                    ULONG disposition = FILE_OPEN, ULONG options = FILE_SYNCHRONOUS_IO_NONALERT,
                    ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, HANDLE related = nullptr);
    void Close(emu::Process* process, HANDLE handle);

    // Reads or writes through a handle of PROCESS; offset -1 passes none,
    // kEndOfFile asks to write at the end of the file.
    NTSTATUS Read(emu::Process* process, HANDLE handle, std::string* data, ULONG length, LONGLONG offset = -1);
    NTSTATUS Write(emu::Process* process, HANDLE handle, const std::string& data, LONGLONG offset = -1);

    // Whole content as PROCESS sees it, or "<status name>".
    std::string Cat(emu::Process* process, const std::u16string& path);

    // Names of a full listing of a directory, as PROCESS sees it, sorted.
    std::vector<std::string> List(emu::Process* process, const std::u16string& dir);

    // The filter entry flag the handle table holds for HANDLE, 0 when none.
    ULONG FilterFlagOf(HANDLE handle);

    emu::Process* app = nullptr;
    emu::Process* other = nullptr;
};

}  // namespace tervane::test
