#include "PipelineManager.h"

#include "PipelineRunState.h"
#include "core/process/ProcessRunner.h"
#include "core/publishing/GitCommand.h"
#include "core/publishing/ReleaseNotificationEvent.h"
#include "core/publishing/ReleasePublishingPlan.h"
#include "core/records/ReleaseCompletion.h"
#include "core/support/FileUtilities.h"
#include "core/support/Uuid.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

#include <fmt/format.h>

namespace veltra {

PipelineManager::PipelineManager(MainQueue& queue, NotificationCenter& notifications,
                                 SystemSounds* sounds, const std::filesystem::path& logArchive)
    : queue_(queue), notifications_(notifications), sounds_(sounds),
      logStream_(logArchive.empty() ? PipelineLogStream(queue)
                                    : PipelineLogStream(queue, logArchive)) {
    logStream_.setPublishObserver([this](const std::vector<ReleaseLogEntry>& batch) {
        if (observer_ != nullptr) {
            observer_->logsPublished(batch);
        }
    });
}

PipelineManager::~PipelineManager() {
    activeTask_.request_stop();
    if (activeTask_.joinable()) {
        activeTask_.join();
    }
}

std::vector<PipelineStep> PipelineManager::stepList(bool buildsFromProject) {
    struct Row {
        StepID id;
        const char* title;
        bool always;
    };
    static constexpr Row rows[] = {
        {StepID::version, "Sync Version", false},
        {StepID::archive, "Archive & Build App", false},
        {StepID::inspect, "Inspect App", true},
        {StepID::notes, "Save Release Notes (.md)", true},
        {StepID::dmg, "Build Styled Retina DMG", true},
        {StepID::notarize, "Apple Notarize", false},
        {StepID::sparkle, "Sign Sparkle Feed", false},
        {StepID::deploy, "Deploy to Website", false},
    };
    std::vector<PipelineStep> steps;
    for (const auto& row : rows) {
        if (row.always || buildsFromProject) {
            steps.push_back(PipelineStep{
                std::string(rawValue(row.id)), row.title, StepStatus::pending, "", {}});
        }
    }
    return steps;
}

bool PipelineManager::buildsFromProject(const ProjectProfile& profile) {
    if (!profile.sourceProjectPath) {
        return false;
    }
    const auto extension =
        std::filesystem::path(standardizePath(*profile.sourceProjectPath)).extension();
    return extension == ".xcodeproj" || extension == ".xcworkspace";
}

std::string PipelineManager::defaultNotes(const std::string& version) {
    return "# What's New in " + version +
           "\n\n- Release build for macOS.\n- Performance and stability improvements.";
}

void PipelineManager::post(std::function<void()> work) {
    queue_.post([alive = std::weak_ptr<int>(lifetime_), work = std::move(work)] {
        if (!alive.expired()) {
            work();
        }
    });
}

void PipelineManager::log(std::string text, bool isError) {
    logStream_.inbox().append(std::move(text), isError);
}

void PipelineManager::updateStep(StepID which, StepStatus status, const std::string& message) {
    post([this, id = std::string(rawValue(which)), status, message,
          logged = logStream_.inbox().appended()] {
        for (std::size_t index = 0; index < steps_.size(); ++index) {
            auto& step = steps_[index];
            if (step.id != id) {
                continue;
            }
            step.status = status;
            step.message = message;
            if (status == StepStatus::running) {
                stepStarts_[index] = Clock::now();
                currentStepIndex_ = index;
                runningStepID_ = id;
            } else if (status != StepStatus::pending) {
                if (stepStarts_[index] != Clock::time_point{}) {
                    step.duration =
                        std::chrono::duration<double>(Clock::now() - stepStarts_[index]).count();
                }
                if (runningStepID_ == id) {
                    runningStepID_.reset();
                }
            }
            logStream_.catchUp(logged);
            if (observer_ != nullptr) {
                observer_->stepsChanged(*this);
            }
            return;
        }
    });
}

void PipelineManager::run(ReleaseRequest request) {
    if (isRunning_) {
        return;
    }
    const bool fromProject = !request.appPath && buildsFromProject(request.profile);
    steps_ = stepList(fromProject);
    stepStarts_.assign(steps_.size(), Clock::time_point{});
    error_.reset();
    completedManifest_.reset();
    failedStepID_.reset();
    runningStepID_.reset();
    appInfo_.reset();
    currentStepIndex_ = 0;
    isCancelling_ = false;
    isCancelled_ = false;
    isRunning_ = true;
    activeAppName_ =
        request.profile.appName.empty() ? request.profile.name : request.profile.appName;
    logStream_.clear();
    logStream_.startStreaming();
    if (observer_ != nullptr) {
        observer_->stepsChanged(*this);
    }
    if (activeTask_.joinable()) {
        activeTask_.join();
    }
    activeTask_ =
        JThread([this, request = std::move(request)](StopToken stop) { execute(request, stop); });
}

void PipelineManager::cancel() {
    if (!isRunning_ || isCancelling_) {
        return;
    }
    isCancelling_ = true;
    isCancelled_ = true;
    logStream_.log("Stopping release pipeline...", true);
    activeTask_.request_stop();
}

void PipelineManager::finishOnMain(std::optional<ReleaseManifest> manifest,
                                   std::optional<VeltraError> error, bool cancelled,
                                   std::optional<Uuid> profileID, bool record) {
    // Lines the worker logged come first.
    logStream_.stopStreaming();
    const auto markRunning = [this](StepStatus status, const std::string& message) {
        const auto id = runningStepID_.value_or("preflight");
        failedStepID_ = id;
        for (std::size_t index = 0; index < steps_.size(); ++index) {
            if (steps_[index].id == id) {
                steps_[index].status = status;
                steps_[index].message = message;
                if (stepStarts_[index] != Clock::time_point{}) {
                    steps_[index].duration =
                        std::chrono::duration<double>(Clock::now() - stepStarts_[index]).count();
                }
            }
        }
        runningStepID_.reset();
    };
    if (cancelled) {
        logStream_.log("Pipeline cancelled by user.", true);
        markRunning(StepStatus::failed, "Cancelled");
        isCancelled_ = true;
    } else if (error) {
        markRunning(StepStatus::failed, error->message());
        logStream_.log("Error: " + error->message(), true);
        error_ = error;
        if (sounds_ != nullptr && sounds_->applicationIsActive()) {
            sounds_->play("Basso");
        }
    } else if (manifest) {
        completedManifest_ = manifest;
        if (record) {
            notifications_.post(releaseCompletedNotification,
                                ReleaseCompletion{*manifest, profileID});
        }
        if (sounds_ != nullptr && sounds_->applicationIsActive()) {
            sounds_->play("Glass");
        }
    }
    logStream_.flush();
    isRunning_ = false;
    if (observer_ != nullptr) {
        observer_->stepsChanged(*this);
        observer_->runFinished(*this);
    }
}

} // namespace veltra
