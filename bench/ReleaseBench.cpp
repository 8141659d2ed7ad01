// A whole release of the sample project with a 200 MiB app, through the tool stand-ins, real git
// and a local web server: how long Veltra itself works in each step, outside the tools it runs.
// Every tool (the stand-ins, git and the rest) runs through a wrapper that records when it ran; a
// step's own time is its duration less the union of the tool runs inside it.

#include "core/demo/DemoSandbox.h"
#include "core/pipeline/PipelineManager.h"
#include "core/process/ProcessRunner.h"
#include "core/support/EventLoop.h"
#include "core/support/FileDigest.h"
#include "core/support/FileUtilities.h"
#include "core/support/NotificationCenter.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <stdexcept>
#include <unistd.h>

#include <benchmark/benchmark.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::system_clock;
using Interval = std::pair<Clock::time_point, Clock::time_point>;

constexpr int appMebibytes = 200;

// A small compiled wrapper per tool, ahead of the stand-ins on PATH: it notes when the tool
// started and ended, so that only the tool's own run is counted as the tool's (a shell wrapper
// would add its own start-up to Veltra's side).
constexpr const char* wrapperSource = R"c(
#include <stdio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
static long long now(void) {
    struct timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    return t.tv_sec * 1000000000LL + t.tv_nsec;
}
int main(int argc, char** argv) {
    (void)argc;
    long long start = now();
    pid_t child = fork();
    if (child == 0) {
        argv[0] = REAL;
        execv(REAL, argv);
        _exit(127);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
    }
    long long end = now();
    FILE* out = fopen(TIMES, "a");
    if (out) {
        fprintf(out, "%lld %lld\n", start, end);
        fclose(out);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
)c";

fs::path makeTimingWrappers(const fs::path& folder, const fs::path& times) {
    fs::create_directories(folder);
    const auto source = folder / "wrapper.c";
    std::ofstream(source) << wrapperSource;
    const std::map<std::string, std::string> tools{{"xcodebuild", VELTRA_TOOLS_DIR "/xcodebuild"},
                                                   {"xcrun", VELTRA_TOOLS_DIR "/xcrun"},
                                                   {"codesign", VELTRA_TOOLS_DIR "/codesign"},
                                                   {"hdiutil", VELTRA_TOOLS_DIR "/hdiutil"},
                                                   {"sips", VELTRA_TOOLS_DIR "/sips"},
                                                   {"security", VELTRA_TOOLS_DIR "/security"},
                                                   {"lipo", VELTRA_TOOLS_DIR "/lipo"},
                                                   {"sign_update", VELTRA_TOOLS_DIR "/sign_update"},
                                                   {"gh", VELTRA_TOOLS_DIR "/gh"},
                                                   {"git", "/usr/bin/git"},
                                                   {"ln", "/bin/ln"},
                                                   {"which", "/usr/bin/which"}};
    for (const auto& [name, real] : tools) {
        const auto built = ProcessRunner::run(
            "cc", {"-O2", "-o", (folder / name).string(), "-DREAL=\"" + real + "\"",
                   "-DTIMES=\"" + times.string() + "\"", source.string()});
        if (built.exitCode != 0) {
            throw std::runtime_error("cc: " + built.errorOutput);
        }
    }
    return folder;
}

std::vector<Interval> readToolRuns(const fs::path& times) {
    std::vector<Interval> runs;
    std::ifstream in(times);
    long long start = 0;
    long long end = 0;
    while (in >> start >> end) {
        runs.emplace_back(Clock::time_point(std::chrono::nanoseconds(start)),
                          Clock::time_point(std::chrono::nanoseconds(end)));
    }
    return runs;
}

// How much of [from, to) the tool runs cover.
double toolSeconds(std::vector<Interval> runs, Clock::time_point from, Clock::time_point to) {
    std::sort(runs.begin(), runs.end());
    double covered = 0;
    Clock::time_point reached = from;
    for (const auto& [start, end] : runs) {
        const auto begin = std::max({start, from, reached});
        const auto finish = std::min(end, to);
        if (finish > begin) {
            covered += std::chrono::duration<double>(finish - begin).count();
            reached = finish;
        }
    }
    return covered;
}

// Records when each step started and ended, on the main queue.
struct StepClock : PipelineObserver {
    std::map<std::string, Clock::time_point> started;
    std::map<std::string, Clock::time_point> ended;
    void stepsChanged(const PipelineManager& pipeline) override {
        const auto now = Clock::now();
        for (const auto& step : pipeline.steps()) {
            if (step.status == StepStatus::running) {
                started.try_emplace(step.id, now);
            } else if (step.status != StepStatus::pending) {
                started.try_emplace(step.id, now);
                ended.try_emplace(step.id, now);
            }
        }
    }
};

void BM_ReleaseOfA200MiBApp(benchmark::State& state) {
    const auto root =
        fs::temp_directory_path() / ("veltra-bench-release-" + std::to_string(getpid()));
    const auto times = root / "tool-times";
    const auto wrappers = makeTimingWrappers(root / "wrappers", times);
    ::setenv("VELTRA_TOOL_PATH", (wrappers.string() + ":" VELTRA_TOOLS_DIR).c_str(), 1);
    ::setenv("VELTRA_FAKE_APP_PAYLOAD", std::to_string(appMebibytes).c_str(), 1);
    ::unsetenv("VELTRA_TOOL_LOG");
    std::map<std::string, double> own;
    double total = 0;
    double hashing = 0;
    {
        DemoSandbox sandbox(root / "sandbox", fs::path(VELTRA_SOURCE_DIR) / "share/demo/Sample");
        EventLoop loop;
        NotificationCenter notifications(loop);
        PipelineManager pipeline(loop, notifications);
        for (auto _ : state) {
            fs::remove(times);
            StepClock clock;
            pipeline.setObserver(&clock);
            ReleaseRequest request;
            request.profile = sandbox.profile();
            const auto began = Clock::now();
            pipeline.run(request);
            if (!loop.runUntil([&] { return !pipeline.isRunning(); }, std::chrono::minutes(10)) ||
                !pipeline.completedManifest()) {
                state.SkipWithError(pipeline.errorMessage().value_or("timed out").c_str());
                break;
            }
            const auto finished = Clock::now();
            pipeline.setObserver(nullptr);
            const auto runs = readToolRuns(times);
            auto previous = began;
            // Before the first step: preflight; after the last: the summary and the manifest's
            // SHA-256 of the image.
            std::vector<std::tuple<std::string, Clock::time_point, Clock::time_point>> windows;
            for (const auto& step : pipeline.steps()) {
                if (!clock.started.contains(step.id)) {
                    continue;
                }
                windows.emplace_back(step.id == pipeline.steps().front().id ? "preflight" : "",
                                     previous, clock.started[step.id]);
                windows.emplace_back(step.id, clock.started[step.id], clock.ended[step.id]);
                previous = clock.ended[step.id];
            }
            windows.emplace_back("finish", previous, finished);
            for (const auto& [name, from, to] : windows) {
                if (name.empty()) {
                    continue; // the gap between two steps is the queue's, a few microseconds
                }
                const auto seconds = std::chrono::duration<double>(to - from).count();
                own[name] += seconds - toolSeconds(runs, from, to);
            }
            total += std::chrono::duration<double>(finished - began).count();
            // The manifest's SHA-256 of the image, timed again on its own: with the feed's
            // signature (the sparkle step) it is work that grows with the image.
            const auto hashStarted = Clock::now();
            benchmark::DoNotOptimize(sha256Hex(*pipeline.completedManifest()->dmgURL));
            hashing += std::chrono::duration<double>(Clock::now() - hashStarted).count();
        }
    }
    for (const auto& [name, seconds] : own) {
        state.counters[name + "_ms"] =
            benchmark::Counter(seconds * 1000, benchmark::Counter::kAvgIterations);
    }
    double sum = 0;
    for (const auto& [name, seconds] : own) {
        sum += seconds;
    }
    state.counters["veltra_ms"] =
        benchmark::Counter(sum * 1000, benchmark::Counter::kAvgIterations);
    state.counters["beyond_hashing_and_signing_ms"] = benchmark::Counter(
        (sum - own["sparkle"] - hashing) * 1000, benchmark::Counter::kAvgIterations);
    state.counters["release_ms"] =
        benchmark::Counter(total * 1000, benchmark::Counter::kAvgIterations);
    std::error_code ignored;
    fs::remove_all(root, ignored);
}
BENCHMARK(BM_ReleaseOfA200MiBApp)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace
} // namespace veltra
