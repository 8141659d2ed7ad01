// Building an installer image from a 1 GiB app through the tool stand-ins, and the parts of it
// that are Veltra's own work: copying the bundle into the staging folder (against `cp -a` of the
// same bundle), drawing the default artwork and writing the Finder layout. Without hdiutil: the
// whole image, and the UDZO container alone against single-threaded `gzip -6` of the same
// volume bytes, with the peak memory of each.

#include "BenchSupport.h"
#include "core/dmg/DMGBackgroundRenderer.h"
#include "core/dmg/DMGBuilder.h"
#include "core/dmg/DSStoreWriter.h"
#include "core/dmg/HFSPlusVolume.h"
#include "core/dmg/UDIFWriter.h"
#include "core/process/ProcessRunner.h"
#include "core/support/FileCopy.h"

#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>

#include <benchmark/benchmark.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;

// A bundle of 1 GiB: a few large binaries, many small resources, framework links.
const fs::path& benchRoot() {
    static const fs::path root =
        fs::temp_directory_path() / ("veltra-bench-dmg-" + std::to_string(getpid()));
    return root;
}

const fs::path& bigApp() {
    static const fs::path bundle = [] {
        const auto& root = benchRoot();
        const auto app = root / "Big.app" / "Contents";
        fs::create_directories(app / "MacOS");
        fs::create_directories(app / "Resources");
        fs::create_directories(app / "Frameworks" / "Kit.framework" / "Versions" / "A");
        // Half noise (as compressed resources and signatures are), half words (as code and
        // text are), so compressing it costs what a real app's bytes cost.
        std::string chunk;
        std::uint64_t state = 0x9e3779b97f4a7c15ull;
        const auto next = [&state] {
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
            return state;
        };
        while (chunk.size() < (1u << 19)) {
            chunk += static_cast<char>(next() & 0xff);
        }
        const char* const words[] = {"release ",       "window ",   "image ",  "volume ", "update ",
                                     "_objc_msgSend ", "NSString ", "0x0000 ", "\n",      "Info "};
        while (chunk.size() < (1u << 20)) {
            chunk += words[next() % 10];
        }
        chunk.resize(1u << 20);
        const auto write = [&chunk](const fs::path& path, int mebibytes) {
            std::ofstream out(path, std::ios::binary);
            for (int i = 0; i < mebibytes; ++i) {
                out.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
            }
        };
        for (int i = 0; i < 7; ++i) {
            write(app / "Resources" / ("data" + std::to_string(i) + ".bin"), 128);
        }
        write(app / "MacOS" / "Big", 64);
        write(app / "Frameworks" / "Kit.framework" / "Versions" / "A" / "Kit", 48);
        for (int i = 0; i < 2000; ++i) {
            std::ofstream(app / "Resources" / ("icon" + std::to_string(i) + ".png")) << i;
        }
        fs::create_directory_symlink("A",
                                     app / "Frameworks" / "Kit.framework" / "Versions" / "Current");
        std::atexit([] {
            std::error_code ignored;
            fs::remove_all(benchRoot(), ignored);
        });
        return root / "Big.app";
    }();
    return bundle;
}

void withStandIns() {
    static const bool done = [] {
        const std::string path = std::string(VELTRA_TOOLS_DIR) + ":" + std::getenv("PATH");
        ::setenv("PATH", path.c_str(), 1);
        return true;
    }();
    (void)done;
}

void BM_DMGBuildOneGiBApp(benchmark::State& state) {
    withStandIns();
    const auto& app = bigApp();
    DMGBuildOptions options;
    options.appPath = app;
    options.outputDMGPath = app.parent_path() / "Big.dmg";
    options.config.volumeName = "Big";
    for (auto _ : state) {
        DMGBuilder().build(options);
    }
    fs::remove(options.outputDMGPath);
}
BENCHMARK(BM_DMGBuildOneGiBApp)->Unit(benchmark::kSecond)->Iterations(2)->UseRealTime();

void BM_NativeDMGBuildOneGiBApp(benchmark::State& state) {
    const auto& app = bigApp();
    DMGBuildOptions options;
    options.appPath = app;
    options.outputDMGPath = app.parent_path() / "Native.dmg";
    options.config.volumeName = "Big";
    options.config.compressionLevel = 6;
    options.config.backgroundType = DMGBackgroundType::plain;
    options.engine = DMGEngine::native;
    bench::resetPeakMemory();
    for (auto _ : state) {
        DMGBuilder().build(options);
        state.PauseTiming();
        state.counters["image_MiB"] =
            static_cast<double>(fs::file_size(options.outputDMGPath)) / (1024.0 * 1024.0);
        fs::remove(options.outputDMGPath);
        state.ResumeTiming();
    }
    state.counters["peak_MiB"] = bench::peakMemoryMiB();
}
BENCHMARK(BM_NativeDMGBuildOneGiBApp)->Unit(benchmark::kSecond)->Iterations(2)->UseRealTime();

// The app's volume, written once: the bytes both compressors below are given.
const fs::path& rawVolume() {
    static const fs::path file = [] {
        const auto& app = bigApp();
        const auto path = benchRoot() / "volume.raw";
        std::ofstream out(path, std::ios::binary);
        writeHFSPlusVolume(app, {"Big"}, [&](std::span<const char> bytes) {
            out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        });
        return path;
    }();
    return file;
}

void BM_UDZOLevel6OfTheVolume(benchmark::State& state) {
    const auto& volume = rawVolume();
    const auto image = volume.parent_path() / "volume.dmg";
    bench::resetPeakMemory();
    for (auto _ : state) {
        {
            UDIFWriter writer(image, {UDIFFormat::udzo, 6, 0});
            std::ifstream in(volume, std::ios::binary);
            std::string buffer(1 << 20, '\0');
            while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) ||
                   in.gcount() > 0) {
                writer.write(std::span(buffer.data(), static_cast<std::size_t>(in.gcount())));
            }
            writer.finish();
        }
        state.PauseTiming();
        fs::remove(image);
        state.ResumeTiming();
    }
    state.counters["peak_MiB"] = bench::peakMemoryMiB();
}
BENCHMARK(BM_UDZOLevel6OfTheVolume)->Unit(benchmark::kSecond)->Iterations(2)->UseRealTime();

void BM_Gzip6OfTheVolume(benchmark::State& state) {
    const auto& volume = rawVolume();
    for (auto _ : state) {
        ProcessRunner::run("gzip", {"-6", "-k", "-f", volume.string()});
        state.PauseTiming();
        fs::remove(volume.string() + ".gz");
        state.ResumeTiming();
    }
    // The largest child's high-water mark: gzip's own when this benchmark runs alone.
    rusage children{};
    getrusage(RUSAGE_CHILDREN, &children);
    state.counters["child_peak_MiB"] = static_cast<double>(children.ru_maxrss) / 1024.0;
}
BENCHMARK(BM_Gzip6OfTheVolume)->Unit(benchmark::kSecond)->Iterations(2)->UseRealTime();

void BM_CopyOneGiBApp(benchmark::State& state) {
    const auto& app = bigApp();
    const auto copy = app.parent_path() / "Copy.app";
    for (auto _ : state) {
        copyItem(app, copy);
        state.PauseTiming();
        fs::remove_all(copy);
        state.ResumeTiming();
    }
}
BENCHMARK(BM_CopyOneGiBApp)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_CpDashAOneGiBApp(benchmark::State& state) {
    const auto& app = bigApp();
    const auto copy = app.parent_path() / "Copy.app";
    for (auto _ : state) {
        ProcessRunner::run("cp", {"-a", app.string(), copy.string()});
        state.PauseTiming();
        fs::remove_all(copy);
        state.ResumeTiming();
    }
}
BENCHMARK(BM_CpDashAOneGiBApp)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_DefaultArtworkAndLayout(benchmark::State& state) {
    const auto folder =
        fs::temp_directory_path() / ("veltra-bench-art-" + std::to_string(getpid()));
    fs::create_directories(folder / ".background");
    DMGDesignConfig config;
    config.volumeName = "Acme";
    const auto layout = DMGInstallerLayout::from(config);
    for (auto _ : state) {
        DMGBackgroundRenderer::saveDefaultBackground(
            folder / ".background" / "background.png", "Acme", config.windowWidth,
            config.windowHeight, layout.appPosition.y, layout);
        DSStoreWriter().write(folder, config, "Acme.app", ".background/background.png");
    }
    fs::remove_all(folder);
}
BENCHMARK(BM_DefaultArtworkAndLayout)->Unit(benchmark::kMillisecond);

} // namespace
} // namespace veltra
