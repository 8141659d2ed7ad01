// Reading and extending a feed of 10,000 releases in the form Veltra writes (about 5 MB).
#include "BenchSupport.h"
#include "core/feed/AppcastDocument.h"
#include "core/feed/ReleaseFeedValidator.h"
#include "core/feed/SparkleFeedParser.h"

#include <string>

#include <benchmark/benchmark.h>

namespace {

using veltra::AppcastRelease;

const std::string& largeFeed() {
    static const std::string feed = [] {
        std::string items;
        for (int build = 1; build <= 10'000; ++build) {
            const auto version = "1." + std::to_string(build / 100) + "." + std::to_string(build);
            items += veltra::appcast::itemText(
                AppcastRelease{version, std::to_string(build),
                               "https://downloads.example.com/Acme-" + version + ".dmg",
                               std::string(86, 'A') + "==", "48213504", "13.0",
                               "https://example.com/notes/" + version + ".html"},
                "Sat, 21 Nov 2026 14:05:09 +0100");
        }
        auto stub = veltra::appcast::stubFeed("Acme", "https://example.com");
        return *veltra::appcast::insertItem(stub, items);
    }();
    return feed;
}

void ParseTenThousandItems(benchmark::State& state) {
    const auto& feed = largeFeed();
    veltra::bench::resetPeakMemory();
    for (auto _ : state) {
        auto items = veltra::SparkleFeedParser::parse(feed);
        if (!items || items->size() != 10'000) {
            state.SkipWithError("the generated feed did not parse");
        }
        benchmark::DoNotOptimize(items);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(feed.size()));
    state.counters["feed_MB"] = static_cast<double>(feed.size()) / 1e6;
    state.counters["peak_MiB"] = veltra::bench::peakMemoryMiB();
}
BENCHMARK(ParseTenThousandItems)->Unit(benchmark::kMillisecond);

void CheckNextBuildOnTenThousandItems(benchmark::State& state) {
    const auto& feed = largeFeed();
    for (auto _ : state) {
        veltra::ReleaseFeedValidator::validateNextBuild(feed, 10'001);
    }
}
BENCHMARK(CheckNextBuildOnTenThousandItems)->Unit(benchmark::kMillisecond);

void InsertIntoTenThousandItems(benchmark::State& state) {
    const auto& feed = largeFeed();
    const auto item = veltra::appcast::itemText(
        AppcastRelease{"2.0", "10001", "https://x/A.dmg", "c2ln", "1", "13.0", "https://x/n"},
        "Sat, 21 Nov 2026 14:05:09 +0100");
    for (auto _ : state) {
        auto updated = veltra::appcast::insertItem(feed, item);
        benchmark::DoNotOptimize(updated);
    }
}
BENCHMARK(InsertIntoTenThousandItems)->Unit(benchmark::kMillisecond);

} // namespace
