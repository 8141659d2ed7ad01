// Building an installer image from a 1 GiB app through the tool stand-ins, and the parts of it
// that are Veltra's own work: copying the bundle into the staging folder (against `cp -a` of the
// same bundle), drawing the default artwork and writing the Finder layout.

#include "core/dmg/DMGBackgroundRenderer.h"
#include "core/dmg/DMGBuilder.h"
#include "core/dmg/DSStoreWriter.h"
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
        std::string chunk(1 << 20, '\0');
        for (std::size_t i = 0; i < chunk.size(); ++i) {
            chunk[i] = static_cast<char>((i * 2654435761u) >> 13);
        }
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
