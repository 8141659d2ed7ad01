// Signing and hashing a 2 GiB disk image natively, against OpenSSL's command-line tools on the
// same file. VELTRA_SIGN_BENCH_MIB changes the size. Peak memory: ours is this process's
// high-water mark; the tools' is the largest of the children's, which on Linux starts from this
// process's own size at the spawn, so run these alone (--benchmark_filter=Natively\|openssl).
#include "BenchSupport.h"
#include "core/feed/NativeEd25519Signer.h"
#include "core/process/ProcessRunner.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sys/resource.h>

#include <benchmark/benchmark.h>

namespace {

using veltra::bench::peakMemoryMiB;
using veltra::bench::resetPeakMemory;

std::uint64_t fileMiB() {
    const char* value = std::getenv("VELTRA_SIGN_BENCH_MIB");
    return value ? std::strtoull(value, nullptr, 10) : 2048;
}

const std::filesystem::path& benchFile() {
    static const std::filesystem::path path = [] {
        const auto file = std::filesystem::temp_directory_path() / "veltra-sign-bench.dmg";
        std::vector<char> chunk(1 << 20);
        std::mt19937_64 random(7);
        for (auto& byte : chunk) {
            byte = static_cast<char>(random());
        }
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        for (std::uint64_t i = 0; i < fileMiB(); ++i) {
            chunk[i % chunk.size()] = static_cast<char>(i);
            out.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        }
        return file;
    }();
    return path;
}

double childrenPeakMiB() {
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

void setRate(benchmark::State& state) {
    state.counters["MiB_per_s"] =
        benchmark::Counter(double(fileMiB()), benchmark::Counter::kIsIterationInvariantRate);
}

void signAndHashNatively(benchmark::State& state) {
    const auto& file = benchFile();
    const auto key = veltra::SparklePrivateKey::fromSeed({1, 2, 3});
    resetPeakMemory();
    for (auto _ : state) {
        benchmark::DoNotOptimize(veltra::NativeEd25519Signer::signFile(key, file));
    }
    setRate(state);
    state.counters["peak_MiB"] = peakMemoryMiB();
}
BENCHMARK(signAndHashNatively)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

void runTool(benchmark::State& state, std::vector<std::string> arguments) {
    veltra::ProcessRunner runner;
    for (auto _ : state) {
        const auto result = runner.run("openssl", arguments);
        if (result.exitCode != 0) {
            state.SkipWithError(result.errorOutput.c_str());
        }
    }
    setRate(state);
    state.counters["child_peak_MiB"] = childrenPeakMiB();
}

// Run before the signing tool: it needs little memory, and the children's peak only grows.
void opensslDgstSha256(benchmark::State& state) {
    runTool(state, {"dgst", "-sha256", benchFile().string()});
}
BENCHMARK(opensslDgstSha256)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

// OpenSSL 3.0's one-shot Ed25519 signing reads the whole file into memory and refuses files of
// 2 GiB or more ("unable to determine file size for oneshot operation"), so it signs the first
// GiB; compare rates, and its peak memory with the file's size.
void opensslPkeyutlSignRawin(benchmark::State& state) {
    const auto directory = std::filesystem::temp_directory_path();
    const auto key = directory / "veltra-sign-bench.pem";
    const auto part = directory / "veltra-sign-bench-part.dmg";
    const auto partMiB = std::min<std::uint64_t>(fileMiB(), 1024);
    {
        std::ifstream in(benchFile(), std::ios::binary);
        std::ofstream out(part, std::ios::binary | std::ios::trunc);
        std::vector<char> chunk(1 << 20);
        for (std::uint64_t i = 0; i < partMiB; ++i) {
            in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
            out.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        }
    }
    veltra::ProcessRunner::run("openssl",
                               {"genpkey", "-algorithm", "ed25519", "-out", key.string()});
    runTool(state, {"pkeyutl", "-sign", "-rawin", "-inkey", key.string(), "-in", part.string(),
                    "-out", "/dev/null"});
    state.counters["MiB_per_s"] =
        benchmark::Counter(double(partMiB), benchmark::Counter::kIsIterationInvariantRate);
    std::filesystem::remove(part);
}
BENCHMARK(opensslPkeyutlSignRawin)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

} // namespace
