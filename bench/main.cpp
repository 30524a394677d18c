// tervane_bench: the benchmark suite. Makes a workspace, runs the chosen
// groups of benchmarks in one process, one after the other, and prints one
// table of figures and ratios (or JSON). Exit codes: 0 all ran, 1 a
// benchmark failed or the machine did not shut down clean, 2 bad arguments
// or no workspace could be made.
#include <CLI/CLI.hpp>

#include <sys/statvfs.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <set>
#include <stdexcept>

#include "bench.h"
#include "table.h"

namespace tervane::bench {

benchmark::internal::Benchmark* Register(Context& ctx, const std::string& name,
                                         std::function<void(benchmark::State&)> fn) {
    auto* b = benchmark::RegisterBenchmark(name.c_str(), [fn](benchmark::State& state) { fn(state); });
    b->Unit(benchmark::kMicrosecond);
    if (ctx.iterations != 0) b->Iterations(static_cast<benchmark::IterationCount>(ctx.iterations));
    return b;
}

void Guard(benchmark::State& state, const std::function<void()>& fn) {
    try {
        fn();
    } catch (const std::exception& e) {
        state.SkipWithError(e.what());
    }
}

void LoopIn(Workspace& ws, emu::Process* process, benchmark::State& state, const std::function<void()>& body) {
    ws.machine().Run(process, [&] {
        Guard(state, [&] {
            for (auto _ : state) body();
        });
    });
}

namespace {

const char* const kGroups[] = {"open", "io", "copy", "index", "list", "pool", "scale", "threads", "log"};

// Keeps every run; shows progress on stderr.
class Collector : public benchmark::ConsoleReporter {
public:
    Collector() : benchmark::ConsoleReporter(OO_None) { SetOutputStream(&std::cerr); SetErrorStream(&std::cerr); }
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            const std::string name = run.run_name.function_name;
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
            Result& result = results_[name];
            if (run.run_type == Run::RT_Iteration && seenMedian_.count(name)) continue;
            if (run.run_type == Run::RT_Aggregate) seenMedian_.insert(name);
            if (run.error_occurred) {
                result.error = run.error_message.empty() ? "failed" : run.error_message;
                continue;
            }
            result.ns = run.GetAdjustedRealTime() * NsPerUnit(run.time_unit);
            result.cpuNs = run.GetAdjustedCPUTime() * NsPerUnit(run.time_unit);
            result.counters.clear();
            for (const auto& [counter, value] : run.counters) result.counters[counter] = value.value;
        }
    }
    const Results& results() const { return results_; }

private:
    static double NsPerUnit(benchmark::TimeUnit unit) {
        switch (unit) {
            case benchmark::kNanosecond: return 1;
            case benchmark::kMicrosecond: return 1e3;
            case benchmark::kMillisecond: return 1e6;
            default: return 1e9;
        }
    }
    Results results_;
    std::set<std::string> seenMedian_;
};

int Main(int argc, char** argv) {
    CLI::App app{"Tervane's benchmarks: figures and ratios measured side by side in one run."};
    bool json = false, smoke = false;
    uint64_t iterations = 0;
    int repetitions = 3;
    double minTime = 0.3;
    std::string dir;
    std::vector<std::string> groups;
    app.add_flag("--json", json, "print the table and every benchmark's figures as JSON");
    app.add_flag("--smoke", smoke, "small trees: checks that every benchmark runs, figures mean nothing");
    app.add_option("--iterations", iterations, "a fixed number of iterations per benchmark");
    app.add_option("--repetitions", repetitions, "repetitions of each benchmark; the median is reported")
        ->check(CLI::Range(1, 100));
    app.add_option("--min-time", minTime, "seconds each measurement runs at least")->check(CLI::PositiveNumber);
    app.add_option("--dir", dir, "where the temporary trees go (default: $TMPDIR or /tmp)");
    app.add_option("groups", groups, "groups to run (default: all): open io copy index list pool scale threads log");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    for (const std::string& group : groups) {
        if (std::find(std::begin(kGroups), std::end(kGroups), group) == std::end(kGroups)) {
            std::cerr << "tervane_bench: unknown benchmark group '" << group
                      << "' (known: open io copy index list pool scale threads log)\n";
            return 2;
        }
    }
    if (groups.empty()) groups.assign(std::begin(kGroups), std::end(kGroups));

    namespace fs = std::filesystem;
    fs::path parent = !dir.empty() ? fs::path(dir) : getenv("TMPDIR") ? fs::path(getenv("TMPDIR")) : "/tmp";
    const Sizes sizes = smoke ? SmokeSizes() : FullSizes();
    struct statvfs space;
    if (statvfs(parent.c_str(), &space) != 0) {
        std::cerr << "tervane_bench: cannot use " << parent << " for the temporary trees\n";
        return 2;
    }
    const uint64_t available = static_cast<uint64_t>(space.f_bavail) * space.f_frsize;
    if (available < NeededBytes(sizes)) {
        std::cerr << "tervane_bench: " << parent << " has " << (available >> 20) << " MiB free; the trees need "
                  << (NeededBytes(sizes) >> 20) << " MiB\n";
        return 2;
    }

    std::unique_ptr<Workspace> ws;
    try {
        ws = std::make_unique<Workspace>(parent, sizes);
    } catch (const std::exception& e) {
        std::cerr << "tervane_bench: cannot make the workspace: " << e.what() << "\n";
        return 2;
    }

    std::string repetitionsFlag = "--benchmark_repetitions=" + std::to_string(repetitions);
    std::string minTimeFlag = "--benchmark_min_time=" + std::to_string(minTime);
    char program[] = "tervane_bench";
    char* benchArgv[] = {program, repetitionsFlag.data(), minTimeFlag.data(), nullptr};
    int benchArgc = 3;
    benchmark::Initialize(&benchArgc, benchArgv);

    Context ctx;
    ctx.ws = ws.get();
    ctx.iterations = iterations;
    RegisterOpenBenchmarks(ctx);
    RegisterIoBenchmarks(ctx);
    RegisterIndexBenchmarks(ctx);
    RegisterListBenchmarks(ctx);
    RegisterPoolBenchmarks(ctx);
    RegisterScaleBenchmarks(ctx);
    RegisterThreadBenchmarks(ctx);
    RegisterLogBenchmarks(ctx);

    std::string filter = "^(";
    for (size_t i = 0; i < groups.size(); i++) filter += (i ? "|" : "") + groups[i];
    filter += ")/";
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector, filter);
    benchmark::Shutdown();
    for (auto& cleanup : ctx.cleanups) cleanup();

    int exitCode = 0;
    for (const auto& [name, result] : collector.results()) {
        if (!result.error.empty()) {
            std::cerr << "tervane_bench: " << name << " failed: " << result.error << "\n";
            exitCode = 1;
        }
    }
    std::string verifier = ws->Finish();
    ws.reset();
    if (!verifier.empty()) {
        std::cerr << "tervane_bench: the machine did not shut down clean:\n" << verifier;
        exitCode = 1;
    }
    const std::vector<Row> rows = BuildTable(collector.results());
    if (json) {
        PrintJson(std::cout, rows, collector.results());
    } else {
        PrintTable(std::cout, rows);
    }
    return exitCode;
}

}  // namespace

}  // namespace tervane::bench

int main(int argc, char** argv) {
    try {
        return tervane::bench::Main(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << "tervane_bench: " << e.what() << "\n";
        return 2;
    }
}
