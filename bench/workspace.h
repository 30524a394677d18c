// The benchmark workspace: one emulated machine over a temporary host
// directory, drive C: hooked by the driver with three filter directories
// (pack, mid, and an indexed base) and drive D: over the same directory
// without the driver, a monitored process and one that is not, and the
// files every benchmark reads. Made once per run, removed at the end.
#pragma once

#include <emu/machine.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace tervane::bench {

// How large the trees are: full figures, or a smoke run that only checks
// that every benchmark still runs.
struct Sizes {
    uint64_t copyBytes;       // the file copied up
    uint32_t listEntries;     // entries of each filter directory's copy of the listed folder
    uint32_t heldOpens;       // largest number of other files held open
    uint32_t hiddenNames;     // largest number of hidden names beside the opened file
    std::vector<uint32_t> indexEntries;  // index sizes of the lookup benchmark
};
Sizes FullSizes();
Sizes SmokeSizes();

// Host bytes the workspace needs for SIZES (checked before it is made).
uint64_t NeededBytes(const Sizes& sizes);

class Workspace {
public:
    // Makes the trees below PARENT (a new directory in it) and the machine.
    // Throws std::runtime_error with a message on failure.
    Workspace(const std::filesystem::path& parent, const Sizes& sizes);
    ~Workspace();  // shuts the machine down and removes the trees
    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;

    // Shuts the machine down; the verifier's findings, empty when clean.
    std::string Finish();

    emu::Machine& machine() { return *machine_; }
    emu::Process* app() { return app_; }      // monitored
    emu::Process* other() { return other_; }  // not monitored
    const std::filesystem::path& host() const { return host_; }
    const Sizes& sizes() const { return sizes_; }

    // Creates that reached the file system since the last reset.
    uint64_t FileSystemCreates() const;
    void ResetFileSystemCreates();

private:
    void MakeTrees();
    void Configure();

    Sizes sizes_;
    std::filesystem::path host_;
    std::unique_ptr<emu::Machine> machine_;
    emu::Process* app_ = nullptr;
    emu::Process* other_ = nullptr;
    emu::Process* controller_ = nullptr;
    void* controlHandle_ = nullptr;
    bool finished_ = false;
};

// Small synchronous Nt calls for the benchmarks, on the calling machine
// thread. A failure throws std::runtime_error naming the call and path.
HANDLE OpenFile(const std::u16string& ntPath, ACCESS_MASK access = GENERIC_READ | SYNCHRONIZE,
                ULONG disposition = FILE_OPEN, ULONG options = FILE_SYNCHRONOUS_IO_NONALERT,
                ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
NTSTATUS TryOpenFile(const std::u16string& ntPath, HANDLE* handle, ACCESS_MASK access = GENERIC_READ | SYNCHRONIZE,
                     ULONG disposition = FILE_OPEN, ULONG options = FILE_SYNCHRONOUS_IO_NONALERT,
                     ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
ULONG ReadAt(HANDLE handle, void* buffer, ULONG length, LONGLONG offset);
ULONG WriteAt(HANDLE handle, const void* buffer, ULONG length, LONGLONG offset);
void CloseFile(HANDLE handle);

// PREFIX, the decimal number N, SUFFIX ("bench/f" 2 ".dat").
std::string Numbered(const std::string& prefix, uint64_t n, const std::string& suffix = "");

// The file's drive path on C: ("\??\C:\bench\f2.dat") from a host-relative path.
std::u16string DrivePath(char drive, const std::string& relative);

// Host paths (below the workspace root) of the files the benchmarks use.
namespace files {
inline constexpr const char* kPack = "layers/pack";
inline constexpr const char* kMid = "layers/mid";
inline constexpr const char* kBase = "layers/base";
// bench/f<i>.dat lies in filter directory i only; bench/t<k>.dat (k < 4) in
// the base; bench/big.dat (the copy-up source) in mid; list/ holds the
// listing entries in each filter directory; hidden/ the opened file and the
// names hidden beside it.
inline constexpr uint32_t kSmallFile = 4096;
}  // namespace files

}  // namespace tervane::bench
