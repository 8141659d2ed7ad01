#include "PipelineManager.h"

#include "ReleaseCompletion.h"
#include "core/process/ProcessRunner.h"
#include "core/publishing/ReleaseNotificationEvent.h"
#include "core/support/FileDigest.h"
#include "core/support/FileUtilities.h"
#include "core/support/PropertyList.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"

#include <fmt/format.h>

namespace veltra {
namespace {

using Clock = std::chrono::steady_clock;

const std::string separator = "\n" + [] {
    std::string line;
    for (int i = 0; i < 53; ++i) {
        line += "\xE2\x94\x81"; // U+2501
    }
    return line;
}();

std::string plistString(const std::filesystem::path& app, const char* key) {
    try {
        const auto plist = readPropertyListDictionary(app / "Contents" / "Info.plist");
        if (const auto it = plist.find(key); it != plist.end() && it->is_string()) {
            return it->get<std::string>();
        }
    } catch (const std::exception&) {
    }
    return {};
}

std::string megabytes(std::int64_t bytes) {
    return fmt::format("{:.1f} MB", static_cast<double>(bytes) / 1e6);
}

} // namespace

PipelineManager::PipelineManager(MainQueue& queue, NotificationCenter& notifications,
                                 SystemSounds* sounds)
    : queue_(queue), notifications_(notifications), sounds_(sounds), logStream_(queue) {
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
        const char* id;
        const char* title;
        const char* icon;
        bool always;
    };
    static constexpr Row rows[] = {
        {"version", "Sync Version", "arrow.triangle.2.circlepath", false},
        {"archive", "Archive & Build App", "hammer.fill", false},
        {"inspect", "Inspect App", "magnifyingglass", true},
        {"notes", "Save Release Notes (.md)", "doc.text.fill", true},
        {"dmg", "Build Styled Retina DMG", "shippingbox.fill", true},
        {"notarize", "Apple Notarize", "lock.shield.fill", false},
        {"sparkle", "Sign Sparkle Feed", "sparkles", false},
        {"deploy", "Deploy to Website", "globe", false},
    };
    std::vector<PipelineStep> steps;
    for (const auto& row : rows) {
        if (row.always || buildsFromProject) {
            steps.push_back(PipelineStep{row.id, row.title, row.icon, StepStatus::pending, "", {}});
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

void PipelineManager::updateStep(const std::string& id, StepStatus status,
                                 const std::string& message) {
    post([this, id, status, message] {
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
    const bool fromProject = !request.appURL && buildsFromProject(request.profile);
    steps_ = stepList(fromProject);
    stepStarts_.assign(steps_.size(), Clock::time_point{});
    errorMessage_.reset();
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
    activeTask_ = std::jthread(
        [this, request = std::move(request)](std::stop_token stop) { execute(request, stop); });
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

void PipelineManager::execute(const ReleaseRequest& request, std::stop_token stop) {
    const auto& profile = request.profile;
    const auto appName = profile.appName.empty() ? profile.name : profile.appName;
    const auto started = Clock::now();
    const auto runID = Uuid::random().string();
    try {
        if (!request.appURL) {
            throw VeltraError("Veltra", 501,
                              "Building from the Xcode project is not available in this build "
                              "yet. Give the built app to ship.");
        }
        const auto app = *request.appURL;
        log("Releasing " + appName + " (Build " + plistString(app, "CFBundleVersion") + ")");
        log("App source: " + app.string());
        if (!std::filesystem::is_directory(app)) {
            throw VeltraError("Veltra", 404, "No app at " + app.string() + ".");
        }
        const auto output = expandTilde(standardizePath(profile.outputDirectory));
        std::filesystem::create_directories(output);

        // Inspect.
        log("\n[2/6] Codesigning & Verifying Application Bundle");
        updateStep("inspect", StepStatus::running, "Inspecting metadata & signatures...");
        const auto info = inspector.inspect(app, stop);
        post([this, info] { appInfo_ = info; });
        log("   Success: Name: " + info.displayName);
        log("   Success: Bundle ID: " + info.bundleIdentifier);
        log("   Success: Version: v" + info.version + " (" + info.build + ")");
        std::string architectures;
        for (const auto& architecture : info.architectures) {
            architectures += (architectures.empty() ? "" : ", ") + architecture;
        }
        log("   Success: Architectures: " + architectures);
        log(std::string("   Success: Codesigned: ") +
            (!info.isCodesigned ? "No"
                                : (info.signingTeam ? "Yes (Developer ID)" : "Yes (Ad-hoc)")));
        updateStep("inspect", StepStatus::succeeded, "v" + info.version + " (" + info.build + ")");

        // Notes.
        updateStep("notes", StepStatus::running, "Exporting release notes...");
        const auto base = appName + "-" + info.version;
        const auto notesPath = output / (base + ".md");
        const auto notes = request.notes.value_or(defaultNotes(info.version));
        writeFileAtomically(notesPath, notes);
        log("   Success: Release notes saved to " + notesPath.string());
        updateStep("notes", StepStatus::succeeded, "Saved " + notesPath.filename().string());

        // Disk image.
        log("\n[3/6] Packaging Disk Image (DMG)");
        updateStep("dmg", StepStatus::running, "Packaging disk image...");
        DMGBuildOptions options;
        options.appURL = app;
        options.outputDMGURL = output / (base + ".dmg");
        options.config = profile.dmgDesign;
        if (options.config.volumeName.empty()) {
            options.config.volumeName = appName + " " + info.version;
        }
        auto builder = dmgBuilder;
        if (builder.temporaryDirectory.empty()) {
            builder.temporaryDirectory = temporaryDirectory;
        }
        builder.build(
            options, [this](const std::string& line) { log("   " + line); }, stop);
        DeploymentArtifacts artifacts;
        artifacts.dmgSize =
            static_cast<std::int64_t>(std::filesystem::file_size(options.outputDMGURL));
        updateStep("dmg", StepStatus::succeeded, megabytes(artifacts.dmgSize));

        ReleaseManifest manifest;
        manifest.appName = appName;
        manifest.version = info.version;
        manifest.buildNumber = info.build;
        manifest.releaseDate = Date::now();
        manifest.dmgURL = options.outputDMGURL.string();
        manifest.dmgFileSize = artifacts.dmgSize;
        manifest.sha256Checksum = sha256Hex(options.outputDMGURL);
        manifest.sparkleSignature = artifacts.sparkleSignature;
        manifest.releaseNotes = notes;
        manifest.websitePublication = artifacts.websitePublication;
        manifest.monitoringReleaseID = runID;
        manifest.wasNotarized = artifacts.wasNotarized;
        manifest.githubPublicationSucceeded = artifacts.githubPublicationSucceeded;

        const double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
        log(separator);
        log(fmt::format("Successfully packaged {} in {:.1f}s!", appName, elapsed));
        log("DMG:   " + options.outputDMGURL.string());
        log("Notes: " + notesPath.string());
        log(separator);

        // The user's own script, with the release's facts; it never fails the release.
        if (profile.customPostScript && !trimWhitespace(*profile.customPostScript).empty()) {
            log("Running post-release script...");
            try {
                const auto result = ProcessRunner().run(
                    ProcessRequest{
                        .command = "/bin/sh",
                        .arguments = {"-c", *profile.customPostScript},
                        .currentDirectory = output,
                        .environment = {{"VELTRA_APP_NAME", appName},
                                        {"VELTRA_VERSION", info.version},
                                        {"VELTRA_BUILD", info.build},
                                        {"VELTRA_DMG_PATH", *manifest.dmgURL},
                                        {"VELTRA_DMG_SHA256", manifest.sha256Checksum},
                                        {"VELTRA_DMG_SIZE", std::to_string(manifest.dmgFileSize)},
                                        {"VELTRA_NOTES_PATH", notesPath.string()}},
                        .onOutput = {}},
                    stop);
                const std::string said(trimWhitespace(combinedOutput(result)));
                if (result.exitCode == 0) {
                    log("   Success: Post-release script finished" +
                        (said.empty() ? std::string() : ": " + said));
                } else {
                    log("   Warning: Post-release script failed (exit status " +
                            std::to_string(result.exitCode) + ")" +
                            (said.empty() ? std::string() : ": " + said),
                        true);
                }
            } catch (const CancellationError&) {
                throw;
            } catch (const std::exception& error) {
                log(std::string("   Warning: Post-release script could not run: ") + error.what(),
                    true);
            }
        }
        post(
            [this, manifest, id = profile.id] { finishOnMain(manifest, std::nullopt, false, id); });
    } catch (const CancellationError&) {
        post([this, id = profile.id] { finishOnMain(std::nullopt, std::nullopt, true, id); });
    } catch (const std::exception& error) {
        post([this, message = std::string(error.what()), id = profile.id, runID, appName] {
            finishOnMain(std::nullopt, message, false, id);
            notifications_.post(
                std::string(ReleaseNotificationEvent::notificationName),
                ReleaseNotificationEvent{id, runID, appName, appInfo_ ? appInfo_->version : "",
                                         ReleaseNotificationEvent::Outcome::failed});
        });
    }
}

void PipelineManager::finishOnMain(std::optional<ReleaseManifest> manifest,
                                   std::optional<std::string> error, bool cancelled,
                                   std::optional<Uuid> profileID) {
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
        markRunning(StepStatus::failed, *error);
        logStream_.log("Error: " + *error, true);
        errorMessage_ = error;
        if (sounds_ != nullptr && sounds_->applicationIsActive()) {
            sounds_->play("Basso");
        }
    } else if (manifest) {
        completedManifest_ = manifest;
        notifications_.post(releaseCompletedNotification, ReleaseCompletion{*manifest, profileID});
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
