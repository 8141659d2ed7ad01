// The Xcode side on inputs the size of the largest real ones: reading and applying versions on
// and parsing a 2.7 MB project file, and boiling down a long build log.
#include "core/xcode/ProjectFileParser.h"
#include "core/xcode/VersionManager.h"
#include "core/xcode/XcodeArchiver.h"
#include "core/xcode/XcodeProjectDiscovery.h"

#include <string>

#include <benchmark/benchmark.h>

namespace {

const std::string& largeProject() {
    static const std::string text = [] {
        std::string out = "// !$*UTF8*$!\n{\n\tobjects = {\n";
        for (int block = 0; out.size() < 2'700'000; ++block) {
            out += "\t\t" + std::to_string(block) +
                   " /* Release */ = {\n\t\t\tisa = XCBuildConfiguration;\n"
                   "\t\t\tbuildSettings = {\n\t\t\t\tCODE_SIGN_STYLE = Automatic;\n"
                   "\t\t\t\tINFOPLIST_FILE = \"App/Info.plist\";\n"
                   "\t\t\t\tLD_RUNPATH_SEARCH_PATHS = \"$(inherited) "
                   "@executable_path/../Frameworks\";\n"
                   "\t\t\t\tPRODUCT_BUNDLE_IDENTIFIER = com.example.app;\n"
                   "\t\t\t\tSWIFT_VERSION = 5.0;\n\t\t\t};\n\t\t\tname = Release;\n\t\t};\n";
        }
        // The only declarations sit at the very end, so every search walks the whole file.
        out += "\t\tlast = {\n\t\t\tbuildSettings = {\n\t\t\t\tCURRENT_PROJECT_VERSION = 41;\n"
               "\t\t\t\tMARKETING_VERSION = 1.4.1;\n\t\t\t};\n\t\t};\n\t};\n}\n";
        return out;
    }();
    return text;
}

void ReadLargeProject(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(veltra::VersionManager::readProjectText(largeProject()));
    }
    state.counters["project_MB"] = static_cast<double>(largeProject().size()) / 1e6;
}
BENCHMARK(ReadLargeProject)->Unit(benchmark::kMillisecond);

void ApplyToLargeProject(benchmark::State& state) {
    for (auto _ : state) {
        auto text = largeProject();
        benchmark::DoNotOptimize(veltra::VersionManager::applyToText(text, "1.5.0", 42));
    }
}
BENCHMARK(ApplyToLargeProject)->Unit(benchmark::kMillisecond);

void ApplyInsertingIntoLargeProject(benchmark::State& state) {
    const auto undeclared = largeProject().substr(0, largeProject().rfind("\t\tlast"));
    for (auto _ : state) {
        auto text = undeclared;
        benchmark::DoNotOptimize(veltra::VersionManager::applyToText(text, "1.5.0", 42));
    }
}
BENCHMARK(ApplyInsertingIntoLargeProject)->Unit(benchmark::kMillisecond);

void ParseLargeProject(benchmark::State& state) {
    for (auto _ : state) {
        const auto project = veltra::parseProjectFile(largeProject());
        benchmark::DoNotOptimize(
            veltra::XcodeProjectDiscovery::projectSettings(project, "", "Release"));
    }
}
BENCHMARK(ParseLargeProject)->Unit(benchmark::kMillisecond);

// 200,000 lines of task output for 20 targets, about what a large app's archive prints.
void MilestonesOfALongBuildLog(benchmark::State& state) {
    std::string log;
    for (int line = 0; line < 200'000; ++line) {
        const auto target = std::to_string(line / 10'000);
        log += line % 7 == 0 ? "    cd /Users/jane/src/App\n"
                             : "SwiftCompile normal arm64 Compiling\\ File" + std::to_string(line) +
                                   ".swift /Users/jane/src/App/File.swift (in target 'T" + target +
                                   "' from project 'App')\n";
    }
    std::size_t emitted = 0;
    for (auto _ : state) {
        veltra::MilestoneTracker tracker([&emitted](const std::string&) { ++emitted; });
        // The runner hands output over in pipe-sized chunks.
        for (std::size_t offset = 0; offset < log.size(); offset += 65536) {
            tracker.consume(std::string_view(log).substr(offset, 65536));
        }
        benchmark::DoNotOptimize(veltra::XcodeArchiver::failureSummary(log));
    }
    state.counters["log_MB"] = static_cast<double>(log.size()) / 1e6;
}
BENCHMARK(MilestonesOfALongBuildLog)->Unit(benchmark::kMillisecond);

} // namespace
