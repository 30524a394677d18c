// Open + read of 4 KiB + close: on the host, through the machine without the
// driver (D:), through the driver for a process it does not monitor, and
// redirected from each filter directory; next to each redirected open, the
// same opens made by hand from kernel mode that the driver must make by
// design (its existence probes and the real open), so the table shows what
// the driver adds over them.
#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>

#include "bench.h"

namespace tervane::bench {

namespace {

const char* const kLayers[] = {files::kPack, files::kMid, files::kBase};

std::string SmallFile(int layer) { return Numbered("bench/f", layer, ".dat"); }

void OpenReadClose(const std::u16string& path) {
    char buffer[files::kSmallFile];
    HANDLE handle = OpenFile(path);
    ReadAt(handle, buffer, sizeof buffer, 0);
    CloseFile(handle);
}

// A kernel-mode open of a real path with the bypass suffix, as the driver
// makes its own: GENERIC_READ probes that open files and directories alike,
// or the real open with the caller's parameters.
NTSTATUS KernelOpen(const std::u16string& realPath, bool probe, HANDLE* handle) {
    std::u16string name = u"\\??\\" + realPath + u"_??$";
    UNICODE_STRING us = emu::MakeUnicodeString(name);
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &us, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb = {};
    if (probe) {
        return ZwCreateFile(handle, GENERIC_READ, &oa, &iosb, nullptr, 0,
                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN, 0, nullptr, 0);
    }
    return ZwCreateFile(handle, GENERIC_READ | SYNCHRONIZE, &oa, &iosb, nullptr, FILE_ATTRIBUTE_NORMAL,
                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
                        FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
}

std::u16string RealPath(int layer, const std::string& relative) {
    std::u16string path = DrivePath('C', std::string(kLayers[layer]) + "/" + relative).substr(4);
    return path;
}

// What a redirected open of the file in filter directory LAYER costs by
// design: a probe of filter directory 0 and of mid (no index), a probe of
// the base only where its index lists the file, then the real open, the
// read on it and its close.
void InherentOpens(int layer) {
    const std::string file = SmallFile(layer);
    for (int probe = 0; probe < 3; probe++) {
        if (probe == 2 && layer != 2) continue;  // the base's index does not list it
        HANDLE handle = nullptr;
        NTSTATUS status = KernelOpen(RealPath(probe, file), true, &handle);
        if (NT_SUCCESS(status)) ZwClose(handle);
        if (NT_SUCCESS(status) != (probe == layer)) throw std::runtime_error("unexpected probe result");
    }
    HANDLE handle = nullptr;
    NTSTATUS status = KernelOpen(RealPath(layer, file), false, &handle);
    if (!NT_SUCCESS(status)) throw std::runtime_error("real open: " + emu::StatusName(status));
    char buffer[files::kSmallFile];
    IO_STATUS_BLOCK iosb = {};
    LARGE_INTEGER at;
    at.QuadPart = 0;
    ZwReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, &at, nullptr);
    ZwClose(handle);
}

}  // namespace

void RegisterOpenBenchmarks(Context& ctx) {
    Workspace& ws = *ctx.ws;
    Register(ctx, "open/host", [&ws](benchmark::State& state) {
        const std::string path = (ws.host() / files::kBase / SmallFile(2)).string();
        char buffer[files::kSmallFile];
        for (auto _ : state) {
            int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd < 0 || pread(fd, buffer, sizeof buffer, 0) != static_cast<ssize_t>(sizeof buffer)) {
                state.SkipWithError("host open or read failed");
                break;
            }
            close(fd);
        }
    });
    Register(ctx, "open/machine", [&ws](benchmark::State& state) {
        const std::u16string path = DrivePath('D', std::string(files::kBase) + "/" + SmallFile(2));
        LoopIn(ws, ws.other(), state, [&] { OpenReadClose(path); });
    });
    Register(ctx, "open/passthrough", [&ws](benchmark::State& state) {
        const std::u16string path = DrivePath('C', std::string(files::kBase) + "/" + SmallFile(2));
        LoopIn(ws, ws.other(), state, [&] { OpenReadClose(path); });
    });
    for (int layer = 0; layer < 3; layer++) {
        Register(ctx, Numbered("open/redirected/", layer), [&ws, layer](benchmark::State& state) {
            const std::u16string path = DrivePath('C', SmallFile(layer));
            ws.ResetFileSystemCreates();
            LoopIn(ws, ws.app(), state, [&] { OpenReadClose(path); });
            state.counters["lower_opens"] = benchmark::Counter(static_cast<double>(ws.FileSystemCreates()),
                                                               benchmark::Counter::kAvgIterations);
        });
        Register(ctx, Numbered("open/inherent/", layer), [&ws, layer](benchmark::State& state) {
            ws.ResetFileSystemCreates();
            LoopIn(ws, ws.machine().SystemProcess(), state, [&] { InherentOpens(layer); });
            state.counters["lower_opens"] = benchmark::Counter(static_cast<double>(ws.FileSystemCreates()),
                                                               benchmark::Counter::kAvgIterations);
        });
    }
}

}  // namespace tervane::bench
