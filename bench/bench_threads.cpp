// Throughput of 1, 2 and 4 threads, each opening, reading and closing a file
// of its own over and over: with the host's own calls (what the cores give),
// through the machine without the driver, and redirected for a monitored
// process.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
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

// The same work with the host's own calls on the same files.
bool HostOpenReadClose(const std::string& path) {
    char buffer[files::kSmallFile];
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool read = pread(fd, buffer, sizeof buffer, 0) == static_cast<ssize_t>(sizeof buffer);
    close(fd);
    return read;
}

enum class Through { kHost, kMachine, kRedirected };

void Throughput(Workspace& ws, benchmark::State& state, emu::Process* process, Through through, int threads,
                uint64_t perThread) {
    std::vector<std::u16string> paths;
    std::vector<std::string> hostPaths;
    for (int k = 0; k < threads; k++) {
        const std::string file = Numbered("bench/t", k, ".dat");
        paths.push_back(through == Through::kRedirected ? DrivePath('C', file)
                                                        : DrivePath('D', std::string(files::kBase) + "/" + file));
        hostPaths.push_back((ws.host() / files::kBase / file).string());
    }
    // The host writes back and discards what earlier groups left (the copy
    // group's large files) before the clock starts, not on a core the
    // threads want.
    sync();
    uint64_t done = 0;
    double wall = 0, cpu = 0;
    std::atomic<uint64_t> readyNs{0};
    for (auto _ : state) {
        std::atomic<int> failed{0};
        std::vector<std::unique_ptr<emu::Machine::Thread>> running;
        std::vector<std::thread> hostRunning;
        auto start = std::chrono::steady_clock::now();
        const double cpuStart = ProcessCpuSeconds();
        for (int k = 0; k < threads; k++) {
            auto work = [&, k] {
                const SchedTimes before = ThreadSchedTimes();
                try {
                    for (uint64_t i = 0; i < perThread; i++) {
                        if (through != Through::kHost) OpenReadClose(paths[k]);
                        else if (!HostOpenReadClose(hostPaths[k])) throw std::runtime_error("host open or read failed");
                    }
                } catch (const std::exception&) {
                    failed++;
                }
                const SchedTimes after = ThreadSchedTimes();
                readyNs += static_cast<uint64_t>(after.run - before.run + after.waited - before.waited);
            };
            if (through == Through::kHost) hostRunning.emplace_back(work);
            else running.push_back(ws.machine().StartThread(process, work));
        }
        for (auto& thread : running) thread->Join();
        for (auto& thread : hostRunning) thread.join();
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
    // The host's calls are several times faster: more of them per round, so
    // that starting and joining the threads weighs as little as for the machine.
    const uint64_t perThread = ctx.iterations != 0 ? ctx.iterations : 2000;
    const uint64_t perHostThread = ctx.iterations != 0 ? ctx.iterations : 10000;
    const std::pair<Through, const char*> kinds[] = {
        {Through::kHost, "host/"}, {Through::kMachine, "machine/"}, {Through::kRedirected, "redirected/"}};
    for (const auto& [through, kind] : kinds) {
        for (int threads : {1, 2, 4}) {
            const std::string name = std::string("threads/") + kind + std::to_string(threads);
            const uint64_t count = through == Through::kHost ? perHostThread : perThread;
            Register(ctx, name, [&ws, through = through, threads, count](benchmark::State& state) {
                Throughput(ws, state, through == Through::kRedirected ? ws.app() : ws.other(), through, threads,
                           count);
            })->UseManualTime()->Unit(benchmark::kMillisecond);
        }
    }
}

}  // namespace tervane::bench
