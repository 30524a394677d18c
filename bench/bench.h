// What the benchmark groups share: the workspace, the run's settings, and
// the helpers that run a benchmark's loop on a thread of the machine.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

#include "workspace.h"

namespace tervane::bench {

struct Context {
    Workspace* ws = nullptr;
    uint64_t iterations = 0;  // 0: as many as Google Benchmark chooses
    // Run after every benchmark, in order (closing what a group held open).
    std::vector<std::function<void()>> cleanups;
};

// Registers NAME; FN runs once per measurement with the state. Applies the
// run's fixed iteration count when there is one.
benchmark::internal::Benchmark* Register(Context& ctx, const std::string& name,
                                         std::function<void(benchmark::State&)> fn);

// Runs the benchmark loop on a thread of PROCESS: BODY once per iteration.
void LoopIn(Workspace& ws, emu::Process* process, benchmark::State& state, const std::function<void()>& body);

// Reports a failure of the loop (a thrown error) through the state.
void Guard(benchmark::State& state, const std::function<void()>& fn);

// The groups; each registers its benchmarks.
void RegisterOpenBenchmarks(Context& ctx);     // open + read + close, lower opens
void RegisterIoBenchmarks(Context& ctx);       // reads and writes on an open handle, copy-up
void RegisterIndexBenchmarks(Context& ctx);    // index lookups
void RegisterListBenchmarks(Context& ctx);     // merged listing
void RegisterPoolBenchmarks(Context& ctx);     // pool per open
void RegisterScaleBenchmarks(Context& ctx);    // open files and hidden names
void RegisterThreadBenchmarks(Context& ctx);   // throughput by thread count
void RegisterLogBenchmarks(Context& ctx);      // the debug log

}  // namespace tervane::bench
