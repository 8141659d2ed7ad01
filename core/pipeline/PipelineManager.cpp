#include "PipelineManager.h"

#include "ReleaseRunRecord.h"
#include "core/feed/ReleaseFeedValidator.h"
#include "core/process/ProcessRunner.h"
#include "core/publishing/GitCommand.h"
#include "core/publishing/ReleaseNotificationEvent.h"
#include "core/publishing/ReleasePublishingPlan.h"
#include "core/records/ReleaseCompletion.h"
#include "core/support/FileDigest.h"
#include "core/support/FileLock.h"
#include "core/support/FileUtilities.h"
#include "core/support/PathRules.h"
#include "core/support/PropertyList.h"
#include "core/support/Text.h"
#include "core/support/Uuid.h"
#include "core/support/VeltraError.h"
#include "core/xcode/XcodeProjectDiscovery.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

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

// Ends a dry run once its summary is written: what follows a real release does not happen.
struct DryRunFinished {};

} // namespace

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
        const char* id;
        const char* title;
        bool always;
    };
    static constexpr Row rows[] = {
        {"version", "Sync Version", false},       {"archive", "Archive & Build App", false},
        {"inspect", "Inspect App", true},         {"notes", "Save Release Notes (.md)", true},
        {"dmg", "Build Styled Retina DMG", true}, {"notarize", "Apple Notarize", false},
        {"sparkle", "Sign Sparkle Feed", false},  {"deploy", "Deploy to Website", false},
    };
    std::vector<PipelineStep> steps;
    for (const auto& row : rows) {
        if (row.always || buildsFromProject) {
            steps.push_back(PipelineStep{row.id, row.title, StepStatus::pending, "", {}});
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
    post([this, id, status, message, logged = logStream_.inbox().appended()] {
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

    bool reuse(const char* step) const { return resumed && resumed->completed(step); }
};

void PipelineManager::execute(const ReleaseRequest& request, std::stop_token stop) {
    const auto& profile = request.profile;
    RunState run(request, stop);
    run.appName = profile.appName.empty() ? profile.name : profile.appName;
    run.fromProject = !request.appPath && buildsFromProject(profile);
    std::optional<BranchWorktree> worktree;
    // Posted only once the worktree and build folder are gone, so a finished run leaves nothing.
    std::function<void()> finish;
    std::optional<FileLock> releaseLock;
    try {
        // One release of a profile at a time, in any process: a second would take the same next
        // build, write the same files and break the first one's resume state.
        const auto lockPath = (releaseLockFolder.empty() ? homeDirectory() / ".veltra" / "locks"
                                                         : releaseLockFolder) /
                              (profile.id.string() + ".lock");
        releaseLock = FileLock::tryLock(lockPath);
        if (!releaseLock) {
            const auto holder = std::string(trimWhitespace(FileLock::holder(lockPath)));
            throw VeltraError("Veltra", 409,
                              run.appName + " is already being released (" +
                                  (holder.empty() ? std::string("by another process") : holder) +
                                  ").");
        }
        {
            const auto now = std::time(nullptr);
            std::tm local{};
            ::localtime_r(&now, &local);
            char started[16] = {};
            std::strftime(started, sizeof started, "%H:%M:%S", &local);
            releaseLock->describeHolder("process " + std::to_string(::getpid()) + ", started " +
                                        started);
        }
        // The app's name names every release file; a profile from an older version may hold one
        // that would write outside the folders it belongs in.
        if (const auto problem = fileNameProblem(run.appName)) {
            throw VeltraError("Veltra", 400,
                              "The app name '" + run.appName + "' cannot name release files: " +
                                  *problem + ". Change appName in the profile.");
        }
        if (const auto repository = ReleasePublishingPlan::resolveRepository(profile)) {
            if (const auto problem =
                    WebDeployer::containmentProblem(*repository, profile.webDeploy, run.appName)) {
                throw VeltraError("Veltra", 400, *problem);
            }
        }
        run.outputDirectory = expandTilde(standardizePath(profile.outputDirectory));
        if (run.fromProject) {
            run.project = expandTilde(standardizePath(*profile.sourceProjectPath));
            const auto suggested = versionManager.readVersionInfo(
                *run.project, profile.sparkle.appcastPath.empty()
                                  ? std::nullopt
                                  : std::optional<std::string>(profile.sparkle.appcastPath));
            run.version = request.version.value_or(suggested.currentVersion);
            run.build = request.build ? request.build : suggested.nextSuggestedBuild;
            if (request.resume) {
                run.resumed = ReleaseRunRecord::load(run.outputDirectory);
                if (!run.resumed || run.resumed->profileID != profile.id) {
                    throw VeltraError("Veltra", 404,
                                      "Nothing to resume for " + run.appName +
                                          ": no stopped release is kept in " +
                                          ReleaseRunRecord::folder(run.outputDirectory).string() +
                                          ".");
                }
                run.version = run.resumed->version;
                run.build = run.resumed->build;
            }
            log("Releasing " + run.appName + " (Build " + std::to_string(*run.build) + ")");
            log("Source: " + run.project->string());
            if (request.dryRun) {
                log("Dry run: nothing leaves this machine and the project is left as it is.");
            }
        } else if (request.resume) {
            throw VeltraError("Veltra", 400,
                              "Only a release built from the project can be resumed; ship the "
                              "app again instead.");
        } else if (request.appPath) {
            run.app = *request.appPath;
            log("Releasing " + run.appName + " (Build " + plistString(run.app, "CFBundleVersion") +
                ")");
            log("App source: " + run.app.string());
            if (!std::filesystem::is_directory(run.app)) {
                throw VeltraError("Veltra", 404, "No app at " + run.app.string() + ".");
            }
        } else {
            throw VeltraError("Veltra", 400,
                              "This profile has no Xcode project or app to release. Choose the "
                              "project in the profile, or give the built app.");
        }
        std::filesystem::create_directories(run.outputDirectory);
        run.filesDirectory = run.outputDirectory;
        if (request.dryRun) {
            // A dry run never touches the output folder, where published files are kept.
            auto pattern = ((temporaryDirectory.empty() ? std::filesystem::temp_directory_path()
                                                        : temporaryDirectory) /
                            "veltra-dryrun-files-XXXXXX")
                               .string();
            if (::mkdtemp(pattern.data()) == nullptr) {
                throw VeltraError("POSIX", errno,
                                  "Could not create a folder for the dry run's files in " +
                                      pattern + ".");
            }
            run.filesDirectory = pattern;
            log("Dry run: the image and notes go to " + pattern);
        }

        // Each stage counts as finished once it returns; a resumed run skips those its record
        // kept (reuseKeptSteps restores what they made, checked unchanged).
        const auto stage = [&run](const char* id, const std::function<void()>& work) {
            if (!run.reuse(id)) {
                work();
            }
            run.completed.emplace_back(id);
        };
        if (run.fromProject) {
            preflight(run);
            reuseKeptSteps(run);
            stage("version", [&] { versionStage(run); });
            stage("archive", [&] { archiveStage(run, worktree); });
        }
        // The kept app is inspected again: a read-only check that it is still what was signed.
        inspectStage(run);
        run.completed.emplace_back("inspect");
        stage("notes", [&] { notesStage(run); });
        stage("dmg", [&] { dmgStage(run); });
        if (run.fromProject) {
            stage("notarize", [&] { notarizeStage(run); });
            stage("sparkle", [&] { sparkleStage(run); });
            deployStage(run);
            run.completed.emplace_back("deploy");
            if (!request.dryRun) {
                std::error_code ignored;
                std::filesystem::remove_all(ReleaseRunRecord::folder(run.outputDirectory), ignored);
            }
        }
        ReleaseManifest manifest;
        manifest.appName = run.appName;
        manifest.version = run.info.version;
        manifest.buildNumber = run.info.build;
        manifest.releaseDate = Date::now();
        manifest.dmgURL = run.dmg.string();
        manifest.dmgFileSize = run.artifacts.dmgSize;
        manifest.sha256Checksum = sha256Hex(run.dmg);
        manifest.sparkleSignature = run.artifacts.sparkleSignature;
        manifest.releaseNotes = run.notes;
        if (run.delivery && !run.delivery->releaseNotesURLPattern.empty()) {
            manifest.notesURL = run.delivery->releaseNotesURL(run.appName);
        }
        manifest.websitePublication = run.artifacts.websitePublication;
        manifest.monitoringReleaseID = run.runID;
        manifest.wasNotarized = run.artifacts.wasNotarized;
        manifest.githubPublicationSucceeded = run.artifacts.githubPublicationSucceeded;

        const double elapsed = std::chrono::duration<double>(Clock::now() - run.started).count();
        if (request.dryRun) {
            manifest.websitePublication.reset();
            dryRunSummary(run, elapsed);
            finish = [this, manifest, id = profile.id] {
                finishOnMain(manifest, std::nullopt, false, id, false);
            };
            throw DryRunFinished();
        }
        log(separator);
        log(run.uploadSeconds
                ? fmt::format("Successfully packaged {} in {:.1f}s, uploaded in {:.1f}s. The "
                              "website should update in a few minutes.",
                              run.appName, elapsed - *run.uploadSeconds, *run.uploadSeconds)
                : fmt::format("Successfully packaged {} in {:.1f}s!", run.appName, elapsed));
        log("DMG:   " + run.dmg.string());
        log("Notes: " + run.notesPath.string());
        log(separator);
        runPostScript(run, manifest);
        finish = [this, manifest, id = profile.id,
                  watch = manifest.websitePublication.has_value()] {
            finishOnMain(manifest, std::nullopt, false, id);
            if (watch && watcher != nullptr) {
                // After the store has recorded the release (the notification went first).
                queue_.post([this, alive = std::weak_ptr<int>(lifetime_), id,
                             releaseID = *manifest.monitoringReleaseID] {
                    if (!alive.expired() && watcher != nullptr) {
                        watcher->watch(id, releaseID);
                    }
                });
            }
        };
    } catch (const DryRunFinished&) {
    } catch (const CancellationError&) {
        keepForResume(run);
        finish = [this, id = profile.id] { finishOnMain(std::nullopt, std::nullopt, true, id); };
    } catch (const std::exception& error) {
        keepForResume(run);
        finish = [this, message = std::string(error.what()), id = profile.id, runID = run.runID,
                  appName = run.appName,
                  version = run.info.version.empty() ? run.version : run.info.version] {
            finishOnMain(std::nullopt, message, false, id);
            notifications_.post(
                std::string(ReleaseNotificationEvent::notificationName),
                ReleaseNotificationEvent{id, runID, appName, version,
                                         ReleaseNotificationEvent::Outcome::failed});
        };
    }
    worktree.reset();
    std::error_code ignored;
    if (run.buildFolder) {
        std::filesystem::remove_all(*run.buildFolder, ignored);
    }
    if (run.websiteClone) {
        std::filesystem::remove_all(*run.websiteClone, ignored);
    }
    post(std::move(finish));
}

void PipelineManager::preflight(RunState& run) {
    const auto& profile = run.request.profile;
    log("Checking the publishing branch and live feed before building...");
    run.embedded = SparkleAutoResolver::fromProject(*run.project);
    // An app that carries a feed address expects its updates there.
    run.updatesConfigured = run.embedded.feedURL.has_value();
    const auto repository = ReleasePublishingPlan::resolveRepository(profile);
    if (run.updatesConfigured) {
        if (!profile.webDeploy.gitCommitAndPush) {
            throw VeltraError("Veltra", 400,
                              "Sparkle updates are configured, but automatic website publishing "
                              "is off. Enable Git commit and push so Veltra can publish and "
                              "verify the appcast, or distribute the release manually.");
        }
        if (!repository) {
            throw VeltraError("Veltra", 400,
                              "Sparkle updates are configured, but Veltra could not find the "
                              "website repository to publish the appcast and DMG.");
        }
        if (!run.build) {
            throw VeltraError("Veltra", 400,
                              "Choose a build number before releasing Sparkle updates.");
        }
        const auto expected = ReleasePublishingPlan::publicAddresses(profile).publicAppcastURL;
        if (*run.embedded.feedURL != expected) {
            throw VeltraError(
                "Veltra", 400,
                "The Sparkle feed URL embedded in this app (" + *run.embedded.feedURL +
                    ") does not match the appcast Veltra will deploy (" +
                    (expected.empty() ? std::string("no website URL set") : expected) +
                    "). Sync the website URL with the Sparkle URL pattern before releasing.");
        }
    }
    if (repository && profile.webDeploy.gitCommitAndPush) {
        const auto branch = WebDeployer::branch(profile.webDeploy);
        const auto status = webDeployer.repositoryInspector.inspect(*repository, branch, run.stop);
        if (status.blocker) {
            throw VeltraError("Veltra", 409, *status.blocker);
        }
        // Before anything is built: the release must not carry private commits or edits. A
        // resumed run's files at the release's paths are its own, from the attempt that stopped.
        if (const auto blocker = webDeployer.repositoryInspector.releaseBlocker(
                *repository, branch,
                run.resumed ? std::vector<std::string>()
                            : WebDeployer::releasePaths(profile.webDeploy, run.appName, true),
                WebDeployer::commitSubject(run.appName, run.version,
                                           std::to_string(run.build.value_or(0))),
                run.stop)) {
            throw VeltraError("Veltra", 409, *blocker);
        }
        const auto addresses = ReleasePublishingPlan::publicAddresses(profile);
        const auto feed = feedReader.committedFeedCheckedAgainstLive(
            *repository, branch, ReleasePublishingPlan::downloadsFolder(profile.webDeploy),
            addresses.publicAppcastURL, run.stop);
        if (run.build) {
            ReleaseFeedValidator::validateNextBuild(feed, *run.build);
        }
        log("   Success: Publishing branch '" + branch + "' is ready for build " +
            std::to_string(run.build.value_or(0)));
    }
}

void PipelineManager::versionStage(RunState& run) {
    updateStep("version", StepStatus::running, "Syncing version...");
    // The version reaches the project file or xcodebuild's overrides either way.
    if (const auto error = VersionManager::versionError(run.version)) {
        throw VeltraError("Veltra", 400, *error);
    }
    const auto label = "v" + run.version + " (" + std::to_string(run.build.value_or(0)) + ")";
    if (run.request.dryRun) {
        // The archiver gives xcodebuild the version and build as overrides either way.
        log("Info: Dry run: v" + run.version + " (build " + std::to_string(run.build.value_or(0)) +
            ") goes to xcodebuild as overrides; the project is not written");
        updateStep("version", StepStatus::succeeded, label + ", not written");
        return;
    }
    const auto applied = versionManager.apply(run.version, run.build, *run.project);
    for (const auto& notice : applied.notices) {
        log("Info: Version notice: " + notice);
    }
    log("Success: Info.plist synchronized (v" + run.version + ", build " +
        std::to_string(run.build.value_or(0)) + ")");
    updateStep("version", StepStatus::succeeded,
               "v" + run.version + " (" + std::to_string(run.build.value_or(0)) + ")");
}

void PipelineManager::chooseIdentity(RunState& run) {
    const auto& notarization = run.request.profile.notarization;
    std::optional<std::vector<SigningCertificate>> scanned;
    const auto certificates = [&]() -> const std::vector<SigningCertificate>& {
        if (!scanned) {
            scanned = certificateScanner.scanIdentities(run.stop);
        }
        return *scanned;
    };
    if (!notarization.signingIdentity.empty()) {
        run.identity = notarization.signingIdentity;
    } else if (notarization.enabled) {
        const auto* chosen = CertificateScanner::preferredIdentity(certificates());
        if (chosen == nullptr) {
            log("Warning: Notarization enabled but no signing certificate found. Build will "
                "likely fail at Apple.",
                true);
        } else if (chosen->isDeveloperID) {
            log("Success: Auto-detected Developer ID: " + chosen->name);
        } else {
            log("Success: Auto-detected development signing identity: " + chosen->name);
        }
        if (chosen != nullptr) {
            run.identity = chosen->name;
        }
    }
    if (!run.identity) {
        return;
    }
    run.developmentIdentity = SigningCertificate::classify("", *run.identity).isDevelopment;
    // codesign refuses a name that several certificates share; their SHA-1 is unique.
    std::vector<const SigningCertificate*> named;
    for (const auto& certificate : certificates()) {
        if (certificate.name == *run.identity) {
            named.push_back(&certificate);
        }
    }
    if (named.size() > 1) {
        log("   Warning: Ambiguous certificate '" + *run.identity +
            "' \xE2\x80\x94 pinning to SHA-1: " + named.front()->hash);
        run.identity = named.front()->hash;
    }
}

void PipelineManager::archiveStage(RunState& run, std::optional<BranchWorktree>& worktree) {
    const auto& profile = run.request.profile;
    log("\n[1/6] Building Xcode Archive");
    updateStep("archive", StepStatus::running, "Archiving with Xcode...");
    auto project = *run.project;
    if (run.request.branch) {
        worktree.emplace(project, *run.request.branch, temporaryDirectory, run.stop);
        project = worktree->project();
        log("   Building committed app branch '" + *run.request.branch +
            "' from a temporary worktree; local app edits excluded");
    } else {
        log("   Building current app working copy, including local project edits");
    }
    auto info = XcodeProjectDiscovery::discover(project);
    std::string scheme = profile.selectedScheme.value_or(
        info.defaultScheme.value_or(info.schemes.empty() ? run.appName : info.schemes.front()));
    if (!info.schemes.empty() &&
        std::find(info.schemes.begin(), info.schemes.end(), scheme) == info.schemes.end()) {
        if (run.request.branch) {
            throw VeltraError("Veltra", 404,
                              "The selected app branch does not contain the '" + scheme +
                                  "' Xcode scheme. Choose another branch or scheme before "
                                  "shipping.");
        }
        const auto other = info.defaultScheme.value_or(info.schemes.front());
        log("Info: Target scheme '" + scheme + "' is not in the project; falling back to '" +
            other + "'");
        scheme = other;
    }
    if (run.updatesConfigured) {
        log("   Ensuring Sparkle framework is integrated into Xcode project...");
    }
    chooseIdentity(run);
    log("   Compiling Release Build...");
    run.app = xcodeArchiver.archiveAndExport(
        info, scheme, run.identity, run.version, run.build,
        [this](const std::string& line) { log(line); }, run.stop);
    // <temp>/veltra_build_<UUID>/ExportedApp/<name>.app
    run.buildFolder = run.app.parent_path().parent_path();
    updateStep("archive", StepStatus::succeeded, "Built " + run.app.filename().string());
}

void PipelineManager::inspectStage(RunState& run) {
    log("\n[2/6] Codesigning & Verifying Application Bundle");
    updateStep("inspect", StepStatus::running, "Inspecting metadata & signatures...");
    run.info = inspector.inspect(run.app, run.stop);
    post([this, info = run.info] { appInfo_ = info; });
    const auto& info = run.info;
    log("   Success: Name: " + info.displayName);
    log("   Success: Bundle ID: " + info.bundleIdentifier);
    log("   Success: Version: v" + info.version + " (" + info.build + ")");
    std::string architectures;
    for (const auto& architecture : info.architectures) {
        architectures += (architectures.empty() ? "" : ", ") + architecture;
    }
    log("   Success: Architectures: " + architectures);
    std::string signing = "No";
    if (info.isCodesigned) {
        if (run.identity && !run.developmentIdentity &&
            SigningCertificate::classify("", *run.identity).isDeveloperID) {
            signing = "Yes (Developer ID)";
        } else if (run.developmentIdentity) {
            signing = "Yes (Apple Development)";
        } else {
            signing = info.signingTeam ? "Yes (Developer ID)" : "Yes (Ad-hoc)";
        }
    }
    log("   Success: Codesigned: " + signing);
    if (run.identity) {
        if (const auto problem = inspector.signatureProblem(run.app, run.stop)) {
            throw VeltraError("Veltra", 500,
                              "The re-signed app does not pass code signature verification: " +
                                  *problem);
        }
    }
    if (run.updatesConfigured) {
        const auto expected =
            ReleasePublishingPlan::publicAddresses(run.request.profile).publicAppcastURL;
        const auto found = SparkleAutoResolver::fromApp(run.app).feedURL;
        if (found != expected) {
            throw VeltraError("Veltra", 400,
                              "The built app's Sparkle feed URL does not match this app's "
                              "release profile. Expected " +
                                  expected + ", found " + found.value_or("none") +
                                  ". Update the Sparkle download URL pattern and try again.");
        }
    }
    run.iconPNG = appIconResolver.pngData(info.iconURL, run.stop);
    updateStep("inspect", StepStatus::succeeded, "v" + info.version + " (" + info.build + ")");
}

std::string PipelineManager::releaseFileStem(const RunState& run, bool warn) {
    const auto base = run.appName + "-" + run.info.version;
    const auto& releases = run.request.profile.recentReleases;
    if (!releases) {
        return base;
    }
    bool warned = !warn;
    std::string stem = base;
    for (const auto& earlier : *releases) { // newest first
        if (earlier.buildNumber == run.info.build) {
            continue;
        }
        if (!warned && earlier.version == run.info.version) {
            log("Warning: Version " + run.info.version + " was released before (build " +
                earlier.buildNumber + "); this release ships it again as build " + run.info.build +
                ".");
            warned = true;
        }
        // A file an earlier release names is never replaced: its build goes into the new name.
        if (earlier.dmgURL &&
            std::filesystem::path(*earlier.dmgURL) == run.filesDirectory / (base + ".dmg")) {
            stem = base + "-" + run.info.build;
        }
    }
    return stem;
}

void PipelineManager::notesStage(RunState& run) {
    updateStep("notes", StepStatus::running, "Exporting release notes...");
    run.notesPath = run.filesDirectory / (releaseFileStem(run, true) + ".md");
    run.notes = run.request.notes.value_or(defaultNotes(run.info.version));
    writeFileAtomically(run.notesPath, run.notes);
    log("   Success: Release notes saved to " + run.notesPath.string());
    updateStep("notes", StepStatus::succeeded, "Saved " + run.notesPath.filename().string());
}

void PipelineManager::dmgStage(RunState& run) {
    const auto& profile = run.request.profile;
    log("\n[3/6] Packaging Disk Image (DMG)");
    updateStep("dmg", StepStatus::running, "Packaging disk image...");
    DMGBuildOptions options;
    options.appPath = run.app;
    const auto finalPath = run.filesDirectory / (releaseFileStem(run, false) + ".dmg");
    // Built in a work folder beside it under its own name (codesign names a signed image after
    // its file), and moved into place only once built: a failed or cancelled build leaves the
    // image already there as it was.
    const auto work = run.filesDirectory / (".veltra-image-" + Uuid::random().string());
    struct RemoveWork {
        std::filesystem::path folder;
        ~RemoveWork() {
            std::error_code ignored;
            std::filesystem::remove_all(folder, ignored);
        }
    } removeWork{work};
    std::filesystem::create_directories(work);
    options.outputDMGPath = work / finalPath.filename();
    options.config = profile.dmgDesign;
    if (options.config.volumeName.empty()) {
        options.config.volumeName = run.appName + " " + run.info.version;
    }
    if (run.identity) {
        options.signingIdentity = run.identity;
    }
    auto builder = dmgBuilder;
    if (builder.temporaryDirectory.empty()) {
        builder.temporaryDirectory = temporaryDirectory;
    }
    builder.build(
        options, [this](const std::string& line) { log("   " + line); }, run.stop);
    if (run.stop.stop_requested()) {
        throw CancellationError();
    }
    std::filesystem::rename(options.outputDMGPath, finalPath);
    run.dmg = finalPath;
    run.artifacts.dmgSize = static_cast<std::int64_t>(std::filesystem::file_size(run.dmg));
    updateStep("dmg", StepStatus::succeeded, megabytes(run.artifacts.dmgSize));
}

void PipelineManager::notarizeStage(RunState& run) {
    const auto& notarization = run.request.profile.notarization;
    log("\n[4/6] Apple Gatekeeper Notarization");
    if (!notarization.enabled) {
        updateStep("notarize", StepStatus::skipped, "Notarization skipped (Local testing mode)");
        return;
    }
    if (run.developmentIdentity) {
        updateStep("notarize", StepStatus::skipped, "Notarization skipped (Development identity)");
        return;
    }
    if (run.request.dryRun) {
        log("   Dry run: would submit " + run.dmg.filename().string() +
            " to Apple's notary service with keychain profile '" +
            notarization.keychainProfileName + "', then staple the ticket");
        updateStep("notarize", StepStatus::skipped, "Not submitted (dry run)");
        return;
    }
    updateStep("notarize", StepStatus::running, "Submitting to Apple...");
    auto engine = notarizer;
    // Known before the wait, so a stopped run can look the submission up instead of sending it
    // again. Written on the tool's reader thread, read after the run has joined it.
    engine.onSubmissionID = [&run](const std::string& id) { run.notarySubmissionID = id; };
    if (run.resumed && run.resumed->notarySubmissionID) {
        run.notarySubmissionID = run.resumed->notarySubmissionID;
        engine.finishSubmission(
            run.dmg, notarization.keychainProfileName, *run.notarySubmissionID,
            [this](const std::string& line) { log(line); }, run.stop);
    } else {
        engine.notarize(
            run.dmg, notarization.keychainProfileName,
            [this](const std::string& line) { log(line); }, run.stop);
    }
    run.artifacts.wasNotarized = true;
    // Stapling changed the image.
    run.artifacts.dmgSize = static_cast<std::int64_t>(std::filesystem::file_size(run.dmg));
    updateStep("notarize", StepStatus::succeeded, "Notarized");
}

void PipelineManager::sparkleStage(RunState& run) {
    const auto& profile = run.request.profile;
    log("\n[5/6] Sparkle Distribution Feed");
    updateStep("sparkle", StepStatus::running, "Resolving website & feed...");
    run.delivery =
        ReleasePublishingPlan::resolve(profile, [this](const std::string& line) { log(line); });
    if (!run.delivery) {
        log("   \xE2\x86\xB7 Sparkle feed skipped (No website repository configured)");
        updateStep("sparkle", StepStatus::skipped, "No website repo found");
        return;
    }
    WebDeployer::checkFileName(run.appName);
    if (run.request.dryRun) {
        useWebsiteClone(run);
    }
    auto engine = sparkleEngine;
    engine.log = [this](const std::string& line) { log("   " + line); };
    if (profile.sparkle.signUpdatePath && !profile.sparkle.signUpdatePath->empty()) {
        engine.configuredTool = expandTilde(*profile.sparkle.signUpdatePath);
    }
    if (run.project) {
        engine.project = *run.project;
    }
    const auto signed_ =
        engine.sign(run.dmg, run.appName, profile.sparkle.privateKeyPath, run.stop);
    if (run.stop.stop_requested()) {
        throw CancellationError();
    }
    AppcastRelease release;
    release.shortVersion = run.info.version;
    release.build = run.info.build;
    // The website keeps one stable file name, which its download button links.
    release.downloadURL = run.delivery->downloadURL(run.appName + ".dmg");
    release.signature = signed_.signature;
    release.length = signed_.length;
    release.minimumSystemVersion = profile.sparkle.minimumSystemVersion;
    release.releaseNotesURL = run.delivery->releaseNotesURL(run.appName);
    // Written to a temporary file and renamed: a cancelled run never leaves half a feed.
    engine.updateFeed(run.delivery->appcastPath, release);
    run.artifacts.sparkleSignature = signed_.signature;
    log("Success: Sparkle appcast.xml updated for v" + run.info.version);
    updateStep("sparkle", StepStatus::succeeded,
               "Signed (v" + run.info.version + " (Build " + run.info.build + "))");
}

void PipelineManager::deployStage(RunState& run) {
    const auto& profile = run.request.profile;
    log("\n[6/6] Deploying Release");
    updateStep("deploy", StepStatus::running, "Syncing website & appcast...");
    if (!run.delivery) {
        log("   \xE2\x86\xB7 Website deployment skipped");
        updateStep("deploy", StepStatus::skipped, "No website repo found");
        publishToGitHub(run);
        return;
    }
    if (!profile.webDeploy.gitCommitAndPush) {
        updateStep("deploy", StepStatus::skipped, "Website not pushed");
        publishToGitHub(run);
        return;
    }
    const auto uploadStarted = Clock::now();
    if (!run.artifacts.sparkleSignature || run.artifacts.sparkleSignature->empty()) {
        throw VeltraError("Veltra", 400, "Missing Sparkle signature; upload stopped.");
    }
    ReleaseFeedValidator::verifyWrittenFeed(
        readFile(run.delivery->appcastPath),
        ExpectedFeedItem{run.info.version, run.info.build,
                         run.delivery->downloadURL(run.appName + ".dmg"),
                         *run.artifacts.sparkleSignature, std::to_string(run.artifacts.dmgSize)});
    WebDeployRelease release;
    release.dmgPath = run.dmg;
    release.appName = run.appName;
    release.version = run.info.version;
    release.build = run.info.build;
    release.notes = run.notes;
    release.iconPNG = run.iconPNG;
    release.signature = *run.artifacts.sparkleSignature;
    release.size = run.artifacts.dmgSize;
    auto deployer = webDeployer;
    auto config = profile.webDeploy;
    // The preflight checked, before building, that the commit carries only this release; the
    // feed and files this run wrote since are its own.
    deployer.checkRepositoryFirst = false;
    if (run.websiteClone) {
        deployer.commitOnly = true;
        config.websiteRepoPath = run.websiteClone->string();
    }
    run.artifacts.websitePublication = deployer.deploy(
        config, *run.delivery, release, [this](const std::string& line) { log(line); }, run.stop);
    if (run.websiteClone) {
        updateStep("deploy", StepStatus::succeeded, "Committed in a temporary clone; not pushed");
        publishToGitHub(run);
        return;
    }
    run.uploadSeconds = std::chrono::duration<double>(Clock::now() - uploadStarted).count();
    updateStep("deploy", StepStatus::succeeded, "Uploaded; website publishing");
    publishToGitHub(run);
}

void PipelineManager::useWebsiteClone(RunState& run) {
    const auto& repository = run.delivery->websiteRepoPath;
    const auto branch = WebDeployer::branch(run.request.profile.webDeploy);
    const auto base =
        temporaryDirectory.empty() ? std::filesystem::temp_directory_path() : temporaryDirectory;
    const auto clone = base / ("veltra_dryrun_" + Uuid::random().string());
    run.websiteClone = clone;
    const auto cloned = GitCommand::run(
        base, {"clone", "--quiet", "--branch=" + branch, "--", repository.string(), clone.string()},
        run.stop);
    if (cloned.exitCode != 0) {
        throw GitCommand::failure("Could not clone the website repository for the dry run", cloned);
    }
    // The feed and the deploy use the clone's files in the same places.
    std::error_code error;
    const auto relative =
        std::filesystem::weakly_canonical(run.delivery->appcastPath, error)
            .lexically_relative(std::filesystem::weakly_canonical(repository, error));
    run.delivery->appcastPath =
        relative.empty() || relative.begin()->string() == ".."
            ? clone / ReleasePublishingPlan::downloadsFolder(run.request.profile.webDeploy) /
                  "appcast.xml"
            : clone / relative;
    run.delivery->websiteRepoPath = clone;
    log("   Dry run: the feed is signed and written, and the deploy committed, in a temporary "
        "clone of the website repository that is never pushed: " +
        clone.string());
}

void PipelineManager::dryRunSummary(RunState& run, double elapsed) {
    log(separator);
    log(fmt::format("Dry run of {} finished in {:.1f}s. Nothing was published; a release would "
                    "publish:",
                    run.appName, elapsed));
    if (run.delivery) {
        const auto addresses = ReleasePublishingPlan::publicAddresses(run.request.profile);
        log("  Download: " + run.delivery->downloadURL(run.appName + ".dmg"));
        log("  Feed:     " + addresses.publicAppcastURL);
        if (!run.delivery->releaseNotesURLPattern.empty()) {
            log("  Notes:    " + run.delivery->releaseNotesURL(run.appName));
        }
        log("  Website:  " +
            ReleasePublishingPlan::resolveRepository(run.request.profile)
                .value_or(std::filesystem::path())
                .string() +
            " pushed to origin/" + WebDeployer::branch(run.request.profile.webDeploy));
    } else {
        log("  Website:  nothing (no website repository)");
    }
    const auto& notarization = run.request.profile.notarization;
    log(std::string("  Notarize: ") +
        (notarization.enabled && !run.developmentIdentity
             ? "yes, with keychain profile '" + notarization.keychainProfileName + "'"
             : "no"));
    log(std::string("  GitHub:   ") +
        (run.request.profile.githubRelease.enabled ? "a release v" + run.info.version : "no"));
    log("DMG:   " + run.dmg.string());
    log("Notes: " + run.notesPath.string());
    log(separator);
}

void PipelineManager::reuseKeptSteps(RunState& run) {
    if (!run.resumed) {
        return;
    }
    const auto& kept = *run.resumed;
    const auto steps = stepList(true);
    const auto first = std::find_if(steps.begin(), steps.end(), [&kept](const auto& step) {
        return !kept.completed(step.id) && step.id != "inspect";
    });
    log("Resuming the stopped release of " + run.appName + " v" + kept.version + " (Build " +
        std::to_string(kept.build) + ") from '" +
        (first == steps.end() ? std::string("the end") : first->title) + "'");
    const auto changed = [](const std::string& what) {
        return VeltraError("Veltra", 409,
                           what + " changed since the release stopped, so it cannot be reused. "
                                  "Start the release again without --resume.");
    };
    if (kept.completed("archive")) {
        if (!kept.app || !std::filesystem::is_directory(*kept.app) ||
            ReleaseRunRecord::signatureDigest(*kept.app) != kept.appSignature) {
            throw changed("The kept app");
        }
        run.app = *kept.app;
        run.identity = kept.identity;
        chooseIdentity(run);
        log("   Success: Reusing the signed app " + run.app.filename().string());
    }
    if (kept.completed("notes") && kept.notesPath) {
        run.notesPath = *kept.notesPath;
        run.notes = kept.notes;
    }
    if (kept.completed("dmg")) {
        if (!kept.dmg || !std::filesystem::is_regular_file(*kept.dmg) ||
            sha256Hex(*kept.dmg) != kept.dmgSHA256) {
            throw changed("The disk image");
        }
        run.dmg = *kept.dmg;
        run.artifacts.dmgSize = kept.dmgSize;
        log("   Success: Reusing " + run.dmg.filename().string() + " (SHA-256 unchanged)");
    }
    run.artifacts.wasNotarized = kept.wasNotarized;
    if (kept.completed("sparkle")) {
        run.delivery = ReleasePublishingPlan::resolve(run.request.profile);
        run.artifacts.sparkleSignature = kept.sparkleSignature;
    }
    for (const auto& id : kept.completedSteps) {
        if (id != "inspect" && id != "deploy") {
            updateStep(id, StepStatus::succeeded, "Kept from the stopped run");
        }
    }
}

void PipelineManager::keepForResume(RunState& run) {
    // Nothing finished, nothing to reuse (a refusal by preflight is not worth resuming).
    if (!run.fromProject || run.request.dryRun || !run.build || run.completed.empty()) {
        return;
    }
    try {
        const auto folder = ReleaseRunRecord::folder(run.outputDirectory);
        ReleaseRunRecord record;
        record.profileID = run.request.profile.id;
        record.version = run.version;
        record.build = *run.build;
        record.completedSteps = run.completed;
        const auto has = [&record](const char* step) { return record.completed(step); };
        if (has("archive") && !run.app.empty()) {
            auto kept = folder / run.app.filename();
            if (run.app != kept) {
                // Out of the build folder, which goes with this run.
                std::filesystem::create_directories(folder);
                std::filesystem::remove_all(kept);
                std::filesystem::rename(run.app, kept);
            }
            record.app = kept;
            record.appSignature = ReleaseRunRecord::signatureDigest(kept);
            record.identity = run.identity;
        }
        if (has("notes")) {
            record.notesPath = run.notesPath;
            record.notes = run.notes;
        }
        if (has("dmg")) {
            record.dmg = run.dmg;
            record.dmgSHA256 = sha256Hex(run.dmg);
            record.dmgSize = run.artifacts.dmgSize;
        }
        record.notarySubmissionID = run.notarySubmissionID;
        record.wasNotarized = run.artifacts.wasNotarized;
        record.sparkleSignature = run.artifacts.sparkleSignature;
        record.save(run.outputDirectory);
        log("Kept this run in " + folder.string() + "; 'veltra release " +
            run.request.profile.name + " --resume' continues it.");
    } catch (const std::exception& error) {
        log(std::string("Warning: This run could not be kept for resuming: ") + error.what());
    }
}

void PipelineManager::publishToGitHub(RunState& run) {
    const auto& config = run.request.profile.githubRelease;
    if (!config.enabled) {
        return;
    }
    if (run.request.dryRun) {
        // The notes file the run wrote holds the same text gh would be given.
        auto words = GitHubReleaseEngine::arguments(config, run.dmg, run.appName, run.info.version,
                                                    run.notesPath);
        words.insert(words.begin(), "gh");
        log("   Dry run: would run: " + shellCommandLine(words));
        return;
    }
    log("   Publishing to GitHub Releases...");
    try {
        githubEngine.publish(
            config, run.dmg, run.appName, run.info.version, run.notes,
            [this](const std::string& line) { log(line); }, run.stop);
        run.artifacts.githubPublicationSucceeded = true;
    } catch (const CancellationError&) {
        throw;
    } catch (const std::exception& error) {
        log(std::string("GitHub publication failed: ") + error.what(), true);
        run.artifacts.githubPublicationSucceeded = false;
    }
}

void PipelineManager::runPostScript(RunState& run, const ReleaseManifest& manifest) {
    const auto& profile = run.request.profile;
    // The user's own script, with the release's facts; it never fails the release.
    if (!profile.customPostScript || trimWhitespace(*profile.customPostScript).empty()) {
        return;
    }
    log("Running post-release script...");
    std::map<std::string, std::string> environment{
        {"VELTRA_APP_NAME", run.appName},
        {"VELTRA_VERSION", run.info.version},
        {"VELTRA_BUILD", run.info.build},
        {"VELTRA_DMG_PATH", run.dmg.string()},
        {"VELTRA_DMG_SHA256", manifest.sha256Checksum},
        {"VELTRA_DMG_SIZE", std::to_string(manifest.dmgFileSize)},
        {"VELTRA_NOTES_PATH", run.notesPath.string()}};
    if (manifest.sparkleSignature) {
        environment["VELTRA_SPARKLE_SIGNATURE"] = *manifest.sparkleSignature;
    }
    if (manifest.websitePublication) {
        environment["VELTRA_DOWNLOAD_URL"] = manifest.websitePublication->downloadURL;
        environment["VELTRA_FEED_URL"] = manifest.websitePublication->feedURL;
    }
    try {
        const auto result =
            ProcessRunner().run(ProcessRequest{.command = "/bin/sh",
                                               .arguments = {"-c", *profile.customPostScript},
                                               .currentDirectory = run.outputDirectory,
                                               .environment = std::move(environment),
                                               .onOutput = {}},
                                run.stop);
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
        log(std::string("   Warning: Post-release script could not run: ") + error.what(), true);
    }
}

void PipelineManager::finishOnMain(std::optional<ReleaseManifest> manifest,
                                   std::optional<std::string> error, bool cancelled,
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
        markRunning(StepStatus::failed, *error);
        logStream_.log("Error: " + *error, true);
        errorMessage_ = error;
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
