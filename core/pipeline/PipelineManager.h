#pragma once

#include "PipelineLogStream.h"
#include "WebsitePublicationWatcher.h"
#include "core/profile/ProjectProfile.h"
#include "core/records/FeedControls.h"
#include "core/records/PipelineStep.h"
#include "core/records/ReleaseLogEntry.h"
#include "core/records/ReleaseManifest.h"
#include "core/support/MainQueue.h"
#include "core/support/NotificationCenter.h"
#include "core/support/StopToken.h"
#include "core/support/VeltraError.h"
#include "core/xcode/AppInspector.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace veltra {

class BranchWorktree;
class PipelineManager;

// Told of the pipeline's published state as it changes, on the main queue.
class PipelineObserver {
public:
    virtual ~PipelineObserver() = default;
    virtual void stepsChanged(const PipelineManager&) {}
    virtual void logsPublished(const std::vector<ReleaseLogEntry>& /*batch*/) {}
    virtual void runFinished(const PipelineManager&) {}
};

// The named system sounds a finished run rings, where there is an application to ring them.
class SystemSounds {
public:
    virtual ~SystemSounds() = default;
    virtual bool applicationIsActive() const = 0;
    virtual void play(std::string_view name) = 0; // "Glass", "Basso"
};

// What one run releases.
struct ReleaseRequest {
    ProjectProfile profile{};
    // Ship this already built app instead of building the profile's project.
    std::optional<std::filesystem::path> appPath{};
    // Release notes in Markdown; the default text when absent.
    std::optional<std::string> notes{};
    // The project's version and build for this release; the project's next suggestion when
    // absent.
    std::optional<std::string> version{};
    std::optional<std::int64_t> build{};
    // Build this committed branch from a temporary worktree instead of the working copy.
    std::optional<std::string> branch{};
    // Everything but what leaves the machine: the project is not written, nothing is notarized,
    // the feed and the deploy go to a temporary clone of the website repository that is never
    // pushed, GitHub is only described, and no release is recorded.
    bool dryRun = false;
    // The feed item's channel, critical flag, phased rollout and automatic-update floor.
    FeedControls feedControls{};
    // Continue the profile's last failed or cancelled release from the first step that did not
    // finish, reusing what the finished ones made once it is checked unchanged.
    bool resume = false;
};

// Runs one release of one profile, step by step, on a worker thread; its state lives on the
// main queue. Engines do the work; this owns the order, the step list, the log, cancellation,
// failures and the finished manifest.
class PipelineManager {
public:
    // The run's log is archived at `logArchive`, or in PipelineLogArchive's folder when empty.
    PipelineManager(MainQueue& queue, NotificationCenter& notifications,
                    SystemSounds* sounds = nullptr, const std::filesystem::path& logArchive = {});
    PipelineManager(const PipelineManager&) = delete;
    // Where each profile's release lock lives; ~/.veltra/locks when empty.
    std::filesystem::path releaseLockFolder{};
    PipelineManager& operator=(const PipelineManager&) = delete;
    // Cancels a run still going and waits for it.
    ~PipelineManager();

    // Starts the run and returns at once (main queue). Ignored while a run is going.
    void run(ReleaseRequest request);
    // Stops the running release once: the running tool is killed.
    void cancel();

    bool isRunning() const { return isRunning_; }
    bool isCancelling() const { return isCancelling_; }
    bool isCancelled() const { return isCancelled_; }
    std::size_t currentStepIndex() const { return currentStepIndex_; }
    const std::vector<PipelineStep>& steps() const { return steps_; }
    const std::vector<ReleaseLogEntry>& logs() const { return logStream_.logs(); }
    const std::optional<AppInfo>& appInfo() const { return appInfo_; }
    const std::optional<ReleaseManifest>& completedManifest() const { return completedManifest_; }
    const std::optional<std::string>& activeReleaseAppName() const { return activeAppName_; }
    std::optional<std::string> errorMessage() const {
        return error_ ? std::optional(error_->message()) : std::nullopt;
    }
    // The failure with its domain and code ("Veltra", 500 for anything that was not a
    // VeltraError).
    const std::optional<VeltraError>& error() const { return error_; }
    std::optional<std::string> failedStepID() const { return failedStepID_; }
    PipelineLogStream& logStream() { return logStream_; }

    void setObserver(PipelineObserver* observer) { observer_ = observer; }

    // The steps of a run that builds from the project (true) or ships a built app (false).
    static std::vector<PipelineStep> stepList(bool buildsFromProject);
    // A source path ending in .xcodeproj or .xcworkspace.
    static bool buildsFromProject(const ProjectProfile& profile);
    static std::string defaultNotes(const std::string& version);

    // Told to follow a pushed release until the live site serves it; none: nobody follows.
    WebsitePublicationWatcher* watcher = nullptr;
    // Where work folders go (the system's temporary folder when empty).
    std::filesystem::path temporaryDirectory;

private:
    struct RunState;
    void execute(const ReleaseRequest& request, StopToken stop);
    void preflight(RunState& run);
    void versionStage(RunState& run);
    void chooseIdentity(RunState& run);
    void archiveStage(RunState& run, std::optional<BranchWorktree>& worktree);
    void ensureSparkle(RunState& run, const std::filesystem::path& project,
                       const std::string& scheme, bool inWorktree);
    // The image's and notes' name without extension; with `warn`, says so when the version was
    // released before under another build.
    std::string releaseFileStem(const RunState& run, bool warn);
    void inspectStage(RunState& run);
    void notesStage(RunState& run);
    void dmgStage(RunState& run);
    void notarizeStage(RunState& run);
    void sparkleStage(RunState& run);
    void deployStage(RunState& run);
    void publishToGitHub(RunState& run);
    void runPostScript(RunState& run, const ReleaseManifest& manifest);
    void finishOnMain(std::optional<ReleaseManifest> manifest, std::optional<VeltraError> error,
                      bool cancelled, std::optional<Uuid> profileID, bool record = true);
    void dryRunSummary(RunState& run, double elapsed);
    void keepForResume(RunState& run);
    void reuseKeptSteps(RunState& run);
    void updateStep(StepID id, StepStatus status, const std::string& message);
    void log(std::string text, bool isError = false);
    void post(std::function<void()> work);

    MainQueue& queue_;
    NotificationCenter& notifications_;
    SystemSounds* sounds_;
    PipelineObserver* observer_ = nullptr;
    PipelineLogStream logStream_;

    bool isRunning_ = false;
    bool isCancelling_ = false;
    bool isCancelled_ = false;
    std::size_t currentStepIndex_ = 0;
    std::vector<PipelineStep> steps_;
    std::vector<std::chrono::steady_clock::time_point> stepStarts_;
    std::optional<AppInfo> appInfo_;
    std::optional<ReleaseManifest> completedManifest_;
    std::optional<std::string> activeAppName_;
    std::optional<VeltraError> error_;
    std::optional<std::string> failedStepID_;
    std::optional<std::string> runningStepID_; // main queue's view
    std::shared_ptr<int> lifetime_ = std::make_shared<int>(0);
    JThread activeTask_;
};

} // namespace veltra
