// Writing and reading a .DS_Store of 100,000 records: half icon locations, half window-settings
// property lists, the two kinds a disk-image folder is made of.
#include "BenchSupport.h"
#include "dsstore/DSStore.h"
#include "dsstore/IconPlacement.h"
#include "dsstore/WindowSettings.h"

#include <benchmark/benchmark.h>
#include <fmt/format.h>

namespace {

using veltra::bench::peakMemoryMiB;
using veltra::bench::resetPeakMemory;

constexpr int recordCount = 100'000;

dsstore::DSStore largeStore() {
    dsstore::DSStore store;
    store.records.reserve(recordCount);
    for (int i = 0; i < recordCount / 2; ++i) {
        const auto name = fmt::format("Item {:06}.app", i);
        store.records.push_back(dsstore::IconPlacement{name, 100 + i % 640, 80 + i % 480}.record());
        dsstore::WindowSettings settings;
        settings.setFrame({double(i % 800), 120, 640, 400});
        settings.showSidebar = false;
        settings.showToolbar = i % 2 == 0;
        settings.viewStyle = "icnv";
        auto record = settings.record();
        record.filename = name;
        store.records.push_back(std::move(record));
    }
    return store;
}

void writeLargeStore(benchmark::State& state) {
    const auto store = largeStore();
    resetPeakMemory();
    std::size_t size = 0;
    for (auto _ : state) {
        const auto bytes = store.serialize();
        size = bytes.size();
        benchmark::DoNotOptimize(bytes.data());
    }
    state.counters["records_per_s"] =
        benchmark::Counter(double(recordCount), benchmark::Counter::kIsIterationInvariantRate);
    state.counters["file_MiB"] = double(size) / (1024.0 * 1024.0);
    state.counters["peak_MiB"] = peakMemoryMiB();
}
BENCHMARK(writeLargeStore)->Unit(benchmark::kMillisecond)->UseRealTime();

void readLargeStore(benchmark::State& state) {
    const auto bytes = largeStore().serialize();
    resetPeakMemory();
    for (auto _ : state) {
        const auto store = dsstore::DSStore::read(bytes);
        if (store.records.size() != recordCount) {
            state.SkipWithError("records lost");
        }
    }
    state.counters["records_per_s"] =
        benchmark::Counter(double(recordCount), benchmark::Counter::kIsIterationInvariantRate);
    state.counters["peak_MiB"] = peakMemoryMiB();
}
BENCHMARK(readLargeStore)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
