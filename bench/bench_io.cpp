// Reads and writes of 4 KiB and 1 MiB on an open handle, pass-through and
// redirected; and the copy of a large file: copy-up on a redirected open's
// first write, a plain copy through the machine in 64 KiB chunks, and the
// host's cp.
#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>
#include <sys/wait.h>

#include <filesystem>
#include <stdexcept>
#include <vector>

#include "bench.h"

extern char** environ;

namespace tervane::bench {

namespace {

constexpr ULONG kChunk = 64 * 1024;

// Reads (or writes) LENGTH bytes at offset 0 on a handle held open for the
// whole benchmark.
void Transfer(Workspace& ws, benchmark::State& state, emu::Process* process, const std::u16string& path, bool read,
              ULONG length) {
    std::vector<char> buffer(length, 'x');
    ws.machine().Run(process, [&] {
        Guard(state, [&] {
            HANDLE handle = OpenFile(path, read ? GENERIC_READ | SYNCHRONIZE : GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE);
            for (auto _ : state) {
                ULONG done = read ? ReadAt(handle, buffer.data(), length, 0) : WriteAt(handle, buffer.data(), length, 0);
                if (done != length) {
                    state.SkipWithError("short transfer");
                    break;
                }
            }
            CloseFile(handle);
        });
    });
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * length);
}

// The host's own pread of LENGTH bytes at offset 0 on a descriptor held open:
// the floor under any read through the machine.
void HostRead(benchmark::State& state, const std::filesystem::path& path, ULONG length) {
    std::vector<char> buffer(length);
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        state.SkipWithError("host open failed");
        return;
    }
    for (auto _ : state) {
        if (pread(fd, buffer.data(), length, 0) != static_cast<ssize_t>(length)) {
            state.SkipWithError("short host read");
            break;
        }
    }
    close(fd);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * length);
}

void RemoveHost(const std::filesystem::path& path) {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
}

void HostCopy(const std::string& from, const std::string& to) {
    const char* argv[] = {"cp", from.c_str(), to.c_str(), nullptr};
    pid_t pid;
    if (posix_spawnp(&pid, "cp", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
        throw std::runtime_error("cannot run cp");
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error("cp failed");
}

}  // namespace

void RegisterIoBenchmarks(Context& ctx) {
    Workspace& ws = *ctx.ws;
    const std::u16string passRead = DrivePath('C', std::string(files::kBase) + "/bench/io.dat");
    const std::u16string redirRead = DrivePath('C', "bench/io.dat");
    const std::u16string passWrite = DrivePath('C', std::string(files::kPack) + "/bench/wio.dat");
    const std::u16string redirWrite = DrivePath('C', "bench/wio.dat");
    const std::filesystem::path hostRead = ws.host() / files::kBase / "bench" / "io.dat";
    for (ULONG length : {4096u, 1u << 20}) {
        const std::string size = length == 4096 ? "4k" : "1m";
        Register(ctx, "io/read/" + size + "/host",
                 [hostRead, length](benchmark::State& state) { HostRead(state, hostRead, length); });
        Register(ctx, "io/read/" + size + "/passthrough", [&ws, passRead, length](benchmark::State& state) {
            Transfer(ws, state, ws.other(), passRead, true, length);
        });
        Register(ctx, "io/read/" + size + "/redirected", [&ws, redirRead, length](benchmark::State& state) {
            Transfer(ws, state, ws.app(), redirRead, true, length);
        });
        Register(ctx, "io/write/" + size + "/passthrough", [&ws, passWrite, length](benchmark::State& state) {
            Transfer(ws, state, ws.other(), passWrite, false, length);
        });
        Register(ctx, "io/write/" + size + "/redirected", [&ws, redirWrite, length](benchmark::State& state) {
            Transfer(ws, state, ws.app(), redirWrite, false, length);
        });
    }

    // The large file lies in mid; every copy is removed again untimed.
    const std::filesystem::path source = ws.host() / files::kMid / "bench" / "big.dat";
    const std::filesystem::path packCopy = ws.host() / files::kPack / "bench" / "big.dat";
    const std::filesystem::path plainCopy = ws.host() / files::kPack / "bench" / "big.copy";
    const uint64_t bytes = ws.sizes().copyBytes;
    Register(ctx, "copy/host", [source, plainCopy, bytes](benchmark::State& state) {
        Guard(state, [&] {
            for (auto _ : state) {
                HostCopy(source.string(), plainCopy.string());
                state.PauseTiming();
                RemoveHost(plainCopy);
                state.ResumeTiming();
            }
        });
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
    })->Unit(benchmark::kMillisecond);
    Register(ctx, "copy/machine", [&ws, plainCopy, bytes](benchmark::State& state) {
        const std::u16string from = DrivePath('C', std::string(files::kMid) + "/bench/big.dat");
        const std::u16string to = DrivePath('C', std::string(files::kPack) + "/bench/big.copy");
        std::vector<char> buffer(kChunk);
        LoopIn(ws, ws.other(), state, [&] {
            HANDLE in = OpenFile(from, GENERIC_READ | SYNCHRONIZE, FILE_OPEN,
                                 FILE_SYNCHRONOUS_IO_NONALERT | FILE_SEQUENTIAL_ONLY);
            HANDLE out = OpenFile(to, GENERIC_WRITE | SYNCHRONIZE, FILE_OVERWRITE_IF,
                                  FILE_SYNCHRONOUS_IO_NONALERT | FILE_SEQUENTIAL_ONLY, 0);
            for (LONGLONG at = 0;; at += kChunk) {
                ULONG got = 0;
                IO_STATUS_BLOCK iosb = {};
                LARGE_INTEGER offset;
                offset.QuadPart = at;
                if (!NT_SUCCESS(NtReadFile(in, nullptr, nullptr, nullptr, &iosb, buffer.data(), kChunk, &offset,
                                           nullptr))) {
                    break;  // the end of the file
                }
                got = static_cast<ULONG>(iosb.Information);
                WriteAt(out, buffer.data(), got, at);
                if (got < kChunk) break;
            }
            CloseFile(out);
            CloseFile(in);
            state.PauseTiming();
            RemoveHost(plainCopy);
            state.ResumeTiming();
        });
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
    })->Unit(benchmark::kMillisecond);
    Register(ctx, "copy/copyup", [&ws, packCopy, bytes](benchmark::State& state) {
        const std::u16string path = DrivePath('C', "bench/big.dat");
        const char byte = 'c';
        LoopIn(ws, ws.app(), state, [&] {
            HANDLE handle = OpenFile(path, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE);
            WriteAt(handle, &byte, 1, 0);
            CloseFile(handle);
            state.PauseTiming();
            RemoveHost(packCopy);
            state.ResumeTiming();
        });
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
    })->Unit(benchmark::kMillisecond);
}

}  // namespace tervane::bench
