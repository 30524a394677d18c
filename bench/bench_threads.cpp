// Throughput of 1, 2 and 4 machine threads, each opening, reading and
// closing a file of its own over and over: through the machine without the
// driver, and redirected for a monitored process.
#include <sys/resource.h>

#include <atomic>
#include <fstream>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench.h"

namespace tervane::bench {

namespace {

void OpenReadClose(const std::u16string& path) {
    char buffer[files::kSmallFile];
    HANDLE handle = OpenFile(path);
    ReadAt(handle, buffer, sizeof buffer, 0);
    CloseFile(handle);
}

// CPU time the whole process has used, in seconds.
double ProcessCpuSeconds() {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Nanoseconds the calling thread has run, and has waited for a core while
// ready to run, from the kernel's scheduler statistics (zero where the host
// does not give them).
struct SchedTimes {
    double run = 0, waited = 0;
};
SchedTimes ThreadSchedTimes() {
    SchedTimes t;
    std::ifstream in("/proc/thread-self/schedstat");
    in >> t.run >> t.waited;
    return t;
}

void Throughput(Workspace& ws, benchmark::State& state, emu::Process* process, bool redirected, int threads,
                uint64_t perThread) {
    std::vector<std::u16string> paths;
    for (int k = 0; k < threads; k++) {
        const std::string file = Numbered("bench/t", k, ".dat");
        paths.push_back(redirected ? DrivePath('C', file) : DrivePath('D', std::string(files::kBase) + "/" + file));
    }
    uint64_t done = 0;
    double wall = 0, cpu = 0;
    std::atomic<uint64_t> readyNs{0};
    for (auto _ : state) {
        std::atomic<int> failed{0};
        std::vector<std::unique_ptr<emu::Machine::Thread>> running;
        auto start = std::chrono::steady_clock::now();
        const double cpuStart = ProcessCpuSeconds();
        for (int k = 0; k < threads; k++) {
            running.push_back(ws.machine().StartThread(process, [&, k] {
                const SchedTimes before = ThreadSchedTimes();
                try {
                    for (uint64_t i = 0; i < perThread; i++) OpenReadClose(paths[k]);
                } catch (const std::exception&) {
                    failed++;
                }
                const SchedTimes after = ThreadSchedTimes();
                readyNs += static_cast<uint64_t>(after.run - before.run + after.waited - before.waited);
            }));
        }
        for (auto& thread : running) thread->Join();
        auto elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        state.SetIterationTime(elapsed);
        wall += elapsed;
        cpu += ProcessCpuSeconds() - cpuStart;
        if (failed != 0) {
            state.SkipWithError("an open failed");
            break;
        }
        done += perThread * threads;
    }
    state.SetItemsProcessed(static_cast<int64_t>(done));
    // Cores kept busy: threads that wait on a lock use none, so with free
    // cores this shows how much of the work ran at once.
    state.counters["cores_busy"] = wall > 0 ? cpu / wall : 0;
    // Threads ready to run (running, or waiting only for a core): a thread
    // that waits on a lock is not ready. Other work on the host takes cores
    // but not readiness, so on a busy host this tells how many threads would
    // run at once on free cores.
    state.counters["threads_ready"] = wall > 0 ? static_cast<double>(readyNs.load()) / 1e9 / wall : 0;
}

}  // namespace

void RegisterThreadBenchmarks(Context& ctx) {
    Workspace& ws = *ctx.ws;
    const uint64_t perThread = ctx.iterations != 0 ? ctx.iterations : 2000;
    for (bool redirected : {false, true}) {
        for (int threads : {1, 2, 4}) {
            const std::string name =
                std::string("threads/") + (redirected ? "redirected/" : "machine/") + std::to_string(threads);
            Register(ctx, name, [&ws, redirected, threads, perThread](benchmark::State& state) {
                Throughput(ws, state, redirected ? ws.app() : ws.other(), redirected, threads, perThread);
            })->UseManualTime()->Unit(benchmark::kMillisecond);
        }
    }
}

}  // namespace tervane::bench
