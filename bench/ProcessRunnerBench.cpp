// Runner throughput and idle cost. Peak memory is the process's resident high-water mark,
// reset before each measured run where the platform allows it.
#include "BenchSupport.h"
#include "core/process/ProcessRunner.h"

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <sys/resource.h>

#include <benchmark/benchmark.h>

namespace {

using veltra::bench::peakMemoryMiB;
using veltra::bench::resetPeakMemory;

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// 256 MiB through standard output with streaming on: the caller's memory must stay near the
// 1 MiB capture limit whatever the output size.
void streamLargeOutput(benchmark::State& state) {
    constexpr long long size = 256LL << 20;
    const veltra::ProcessRunner runner;
    std::atomic<long long> streamed = 0;
    veltra::ProcessRequest request{.command = "head",
                                   .arguments = {"-c", std::to_string(size), "/dev/zero"}};
    request.onOutput = [&](std::string_view chunk) {
        streamed += static_cast<long long>(chunk.size());
    };
    const double before = peakMemoryMiB();
    const bool reset = resetPeakMemory();
    for (auto _ : state) {
        streamed = 0;
        const auto result = runner.run(request);
        benchmark::DoNotOptimize(result.output.size());
        if (streamed != size || result.output.size() != (1u << 20)) {
            state.SkipWithError("output was lost");
        }
    }
    state.SetBytesProcessed(state.iterations() * size);
    state.counters["peak_MiB"] = peakMemoryMiB();
    state.counters["baseline_MiB"] = before;
    state.counters["peak_reset"] = reset ? 1 : 0;
}
BENCHMARK(streamLargeOutput)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

// CPU the runner burns while a tool says nothing for 5 s (two 10 ms polls and a waiter).
void waitOnSilentTool(benchmark::State& state) {
    const veltra::ProcessRunner runner;
    veltra::ProcessRequest request{.command = "sleep", .arguments = {"5"}};
    request.onOutput = [](std::string_view) {};
    double cpu = 0;
    double wall = 0;
    for (auto _ : state) {
        const double cpuStart = cpuSeconds();
        const auto wallStart = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(runner.run(request));
        cpu += cpuSeconds() - cpuStart;
        wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
    }
    state.counters["cpu_ms"] = cpu * 1000.0;
    state.counters["cpu_percent_of_core"] = 100.0 * cpu / wall;
}
BENCHMARK(waitOnSilentTool)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

} // namespace

BENCHMARK_MAIN();
