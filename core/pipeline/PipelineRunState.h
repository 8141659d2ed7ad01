#pragma once

// What the stages of one run share on the worker thread; private to the pipeline.

#include "PipelineManager.h"
#include "ReleaseRunRecord.h"
#include "core/support/PropertyList.h"
#include "core/support/Uuid.h"

#include <chrono>
#include <string>

#include <fmt/format.h>

namespace veltra {

using Clock = std::chrono::steady_clock;

// The rule that frames a run's summary.
inline const std::string& runSeparator() {
    static const std::string rule = [] {
        std::string line(1, '\n');
        for (int i = 0; i < 53; ++i) {
            line += "\xE2\x94\x81"; // U+2501
        }
        return line;
    }();
    return rule;
}

// A string value of the app's Info.plist, "" when absent.
inline std::string plistString(const std::filesystem::path& app, const char* key) {
    try {
        const auto plist = readPropertyListDictionary(app / "Contents" / "Info.plist");
        if (const auto it = plist.find(key); it != plist.end() && it->is_string()) {
            return it->get<std::string>();
        }
    } catch (const std::exception&) {
    }
    return {};
}

inline std::string megabytes(std::int64_t bytes) {
    return fmt::format("{:.1f} MB", static_cast<double>(bytes) / 1e6);
}

// One run's facts, shared by its stages on the worker thread.
struct PipelineManager::RunState {
    RunState(const ReleaseRequest& r, std::stop_token s) : request(r), stop(std::move(s)) {}
    const ReleaseRequest& request;
    std::stop_token stop;
    std::string appName;
    std::string runID = Uuid::random().string();
    Clock::time_point started = Clock::now();
    bool fromProject = false;
    std::filesystem::path outputDirectory;
    // Building from the project.
    std::optional<std::filesystem::path> project;
    std::string version;
    std::optional<std::int64_t> build;
    std::optional<std::string> identity;
    bool developmentIdentity = false;
    SparkleAppSettings embedded;
    bool updatesConfigured = false;
    std::optional<ResolvedDeliveryConfig> delivery;
    // Produced along the way.
    std::filesystem::path app;
    std::optional<std::filesystem::path> buildFolder;
    // A dry run's clone of the website repository.
    std::optional<std::filesystem::path> websiteClone;
    AppInfo info;
    std::filesystem::path notesPath;
    // Where the image and notes go: the output folder, or a dry run's own temporary folder.
    std::filesystem::path filesDirectory;
    std::string notes;
    std::filesystem::path dmg;
    DeploymentArtifacts artifacts;
    std::optional<std::string> iconPNG;
    std::optional<double> uploadSeconds;
    // Resuming: the stopped run's record. Either way: the steps finished so far, and the
    // notarization submission once the tool names it.
    std::optional<ReleaseRunRecord> resumed;
    std::vector<std::string> completed;
    std::optional<std::string> notarySubmissionID;

    bool reuse(StepID step) const { return resumed && resumed->completed(step); }
};

} // namespace veltra
