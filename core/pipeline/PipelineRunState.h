#pragma once

// What the stages of one run share on the worker thread; private to the pipeline.

#include "DeploymentArtifacts.h"
#include "PipelineDryRun.h"
#include "PipelineManager.h"
#include "ReleaseRunRecord.h"
#include "SparkleAutoResolver.h"
#include "core/dmg/AppIconResolver.h"
#include "core/dmg/DMGBuilder.h"
#include "core/feed/PublishedFeedReader.h"
#include "core/feed/SparkleEngine.h"
#include "core/publishing/BranchWorktree.h"
#include "core/publishing/GitHubReleaseEngine.h"
#include "core/publishing/WebDeployer.h"
#include "core/signing/CertificateScanner.h"
#include "core/signing/NotarizationEngine.h"
#include "core/support/PropertyList.h"
#include "core/support/Uuid.h"
#include "core/xcode/VersionManager.h"
#include "core/xcode/XcodeArchiver.h"

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

// The engines of one run: made with it and gone with it, so a stage can set one up (a log
// sink, a callback) without reaching the next run.
struct RunEngines {
    VersionManager versionManager;
    XcodeArchiver xcodeArchiver;
    CertificateScanner certificateScanner;
    AppInspector inspector;
    AppIconResolver appIconResolver;
    DMGBuilder dmgBuilder;
    NotarizationEngine notarizer;
    SparkleEngine sparkleEngine;
    PublishedFeedReader feedReader;
    WebDeployer webDeployer;
    GitHubReleaseEngine githubEngine;
};

// One run's facts, shared by its stages on the worker thread.
struct PipelineManager::RunState {
    RunState(const ReleaseRequest& r, StopToken s)
        : request(r), stop(std::move(s)), feedControls(r.feedControls) {}
    const ReleaseRequest& request;
    StopToken stop;
    RunEngines engines;
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
    // A dry run's app lacks the update settings a release would first add to the project.
    bool sparkleSetupPending = false;
    std::optional<ResolvedDeliveryConfig> delivery;
    // Produced along the way.
    std::filesystem::path app;
    std::optional<std::filesystem::path> buildFolder;
    // What a dry run does instead of what leaves the machine; none in a real run.
    std::optional<DryRun> dryRun;
    AppInfo info;
    std::filesystem::path notesPath;
    // Where the image and notes go: the output folder, or a dry run's own temporary folder.
    std::filesystem::path filesDirectory;
    std::string notes;
    std::filesystem::path dmg;
    DeploymentArtifacts artifacts;
    std::optional<std::string> iconPNG;
    // The request's, or the stopped run's when resuming.
    FeedControls feedControls;
    // Site files whose items the feed's retention dropped: the deploy removes them.
    std::vector<std::string> droppedSiteFiles;
    std::optional<double> uploadSeconds;
    // Resuming: the stopped run's record. Either way: the steps finished so far, and the
    // notarization submission once the tool names it.
    std::optional<ReleaseRunRecord> resumed;
    std::vector<std::string> completed;
    std::optional<std::string> notarySubmissionID;

    bool reuse(StepID step) const { return resumed && resumed->completed(step); }
};

} // namespace veltra
