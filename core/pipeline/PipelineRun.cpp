#include "PipelineRunState.h"
#include "ProfileUpdatesSetup.h"
#include "ReleaseLock.h"
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
#include "core/support/Text.h"
#include "core/support/Uuid.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

#include <fmt/format.h>

// The worker's run: the checks before anything is built, then the stages in order.
namespace veltra {

void PipelineManager::execute(const ReleaseRequest& request, StopToken stop) {
    const auto& profile = request.profile;
    RunState run(request, stop);
    run.appName = profile.appName.empty() ? profile.name : profile.appName;
    run.fromProject = !request.appPath && buildsFromProject(profile);
    std::optional<BranchWorktree> worktree;
    // Posted only once the worktree and build folder are gone, so a finished run leaves nothing.
    std::function<void()> finish;
    std::optional<FileLock> releaseLock;
    try {
        releaseLock = ReleaseLock::acquire(releaseLockFolder, profile, run.appName);
        // What killed runs left in the temporary folders (their process is gone) goes first.
        for (const auto& folder : {std::filesystem::temp_directory_path(), temporaryDirectory}) {
            if (folder.empty()) {
                continue;
            }
            for (const auto* prefix : {"veltra_build_", "veltra_dmg_", "veltra-dryrun-files-"}) {
                removeAbandonedTemporaryFolders(folder, prefix);
            }
            removeAbandonedTemporaryFolders(folder, "veltra_volume_", true);
        }
        // The app's name names every release file; a profile from an older version may hold one
        // that would write outside the folders it belongs in.
        if (const auto problem = fileNameProblem(run.appName)) {
            throw VeltraError("Veltra", errorCode::invalidSetup,
                              "The app name '" + run.appName + "' cannot name release files: " +
                                  *problem + ". Change appName in the profile.");
        }
        if (const auto repository = ReleasePublishingPlan::resolveRepository(profile)) {
            if (const auto problem =
                    WebDeployer::containmentProblem(*repository, profile.webDeploy, run.appName)) {
                throw VeltraError("Veltra", errorCode::invalidSetup, *problem);
            }
        }
        run.outputDirectory = expandTilde(standardizePath(profile.outputDirectory));
        if (run.fromProject) {
            run.project = expandTilde(standardizePath(*profile.sourceProjectPath));
            if (!std::filesystem::is_directory(*run.project)) {
                throw VeltraError("Veltra", errorCode::notFound,
                                  "No Xcode project at " + run.project->string() +
                                      ". Choose the project in the profile.");
            }
            const auto suggested = run.engines.versionManager.readVersionInfo(
                *run.project, profile.sparkle.appcastPath.empty()
                                  ? std::nullopt
                                  : std::optional<std::string>(profile.sparkle.appcastPath));
            run.version = request.version.value_or(suggested.currentVersion);
            run.build = request.build ? request.build : suggested.nextSuggestedBuild;
            if (request.resume && request.dryRun) {
                // The kept steps skip the feed, and with it the clone a dry run deploys to.
                throw VeltraError("Veltra", errorCode::invalidSetup,
                                  "A stopped release resumes as it was, never as a dry run.");
            }
            if (request.resume) {
                run.resumed = ReleaseRunRecord::load(run.outputDirectory);
                if (!run.resumed || run.resumed->profileID != profile.id) {
                    throw VeltraError("Veltra", errorCode::notFound,
                                      "Nothing to resume for " + run.appName +
                                          ": no stopped release is kept in " +
                                          ReleaseRunRecord::folder(run.outputDirectory).string() +
                                          ".");
                }
                run.version = run.resumed->version;
                run.build = run.resumed->build;
                run.feedControls = run.resumed->feedControls;
            } else if (!request.dryRun) {
                if (const auto stopped = ReleaseRunRecord::load(run.outputDirectory);
                    stopped && stopped->profileID == profile.id) {
                    // The stopped run never published (its record goes once it has): its
                    // build is free again, so builds are not used up by stopped runs.
                    const bool reuse = !request.build && stopped->version == run.version &&
                                       run.build && stopped->build < *run.build;
                    if (reuse) {
                        run.build = stopped->build;
                    }
                    log("Info: Discarding the stopped release of v" + stopped->version +
                        " (build " + std::to_string(stopped->build) + ")" +
                        (reuse ? "; this release takes its build" : std::string()) +
                        ". 'veltra release --resume' continues a stopped release instead.");
                }
            }
            log("Releasing " + run.appName + " (Build " + std::to_string(*run.build) + ")");
            log("Source: " + run.project->string());
            if (request.dryRun) {
                log("Dry run: nothing leaves this machine and the project is left as it is.");
            }
        } else if (request.resume) {
            throw VeltraError("Veltra", errorCode::invalidSetup,
                              "Only a release built from the project can be resumed; ship the "
                              "app again instead.");
        } else if (request.appPath) {
            run.app = *request.appPath;
            log("Releasing " + run.appName + " (Build " + plistString(run.app, "CFBundleVersion") +
                ")");
            log("App source: " + run.app.string());
            if (!std::filesystem::is_directory(run.app)) {
                throw VeltraError("Veltra", errorCode::notFound,
                                  "No app at " + run.app.string() + ".");
            }
        } else if (profile.sourceProjectPath && !profile.sourceProjectPath->empty()) {
            // A folder or file where the project should be: say which.
            throw VeltraError("Veltra", errorCode::invalidSetup,
                              "The profile's source " + *profile.sourceProjectPath +
                                  " is not an Xcode project (.xcodeproj or .xcworkspace). Choose "
                                  "the project in the profile, or give the built app.");
        } else {
            throw VeltraError("Veltra", errorCode::invalidSetup,
                              "This profile has no Xcode project or app to release. Choose the "
                              "project in the profile, or give the built app.");
        }
        std::filesystem::create_directories(run.outputDirectory);
        run.filesDirectory = run.outputDirectory;
        if (request.dryRun) {
            run.dryRun.emplace(temporaryDirectory, [this](const std::string& line) { log(line); });
            run.filesDirectory = run.dryRun->filesDirectory();
        }

        // Each stage counts as finished once it returns; a resumed run skips those its record
        // kept (reuseKeptSteps restores what they made, checked unchanged).
        const auto stage = [&run](StepID id, const std::function<void()>& work) {
            if (!run.reuse(id)) {
                work();
            }
            run.completed.emplace_back(rawValue(id));
        };
        if (run.fromProject) {
            preflight(run);
            reuseKeptSteps(run);
            stage(StepID::version, [&] { versionStage(run); });
            stage(StepID::archive, [&] { archiveStage(run, worktree); });
        }
        // The kept app is inspected again: a read-only check that it is still what was signed.
        inspectStage(run);
        run.completed.emplace_back(rawValue(StepID::inspect));
        stage(StepID::notes, [&] { notesStage(run); });
        stage(StepID::dmg, [&] { dmgStage(run); });
        if (run.fromProject) {
            stage(StepID::notarize, [&] { notarizeStage(run); });
            stage(StepID::sparkle, [&] { sparkleStage(run); });
            deployStage(run);
            run.completed.emplace_back(rawValue(StepID::deploy));
            if (!run.dryRun) {
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
            manifest.notesURL =
                run.delivery->releaseNotesURL(percentEncoded(run.dmg.stem().string()));
        }
        manifest.feedControls = run.feedControls;
        manifest.websitePublication = run.artifacts.websitePublication;
        manifest.monitoringReleaseID = run.runID;
        manifest.wasNotarized = run.artifacts.wasNotarized;
        if (!run.artifacts.finalChecks.empty()) {
            manifest.finalChecks = run.artifacts.finalChecks;
        }
        manifest.githubPublicationSucceeded = run.artifacts.githubPublicationSucceeded;

        const double elapsed = std::chrono::duration<double>(Clock::now() - run.started).count();
        if (run.dryRun) {
            manifest.websitePublication.reset();
            dryRunSummary(run, elapsed);
            // What follows a real release does not happen.
            finish = [this, manifest, id = profile.id] {
                finishOnMain(manifest, std::nullopt, false, id, false);
            };
        } else {
            log(runSeparator());
            log(run.uploadSeconds
                    ? fmt::format("Successfully packaged {} in {:.1f}s, uploaded in {:.1f}s. The "
                                  "website should update in a few minutes.",
                                  run.appName, elapsed - *run.uploadSeconds, *run.uploadSeconds)
                    : fmt::format("Successfully packaged {} in {:.1f}s!", run.appName, elapsed));
            log("DMG:   " + run.dmg.string());
            log("Notes: " + run.notesPath.string());
            log(runSeparator());
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
        }
    } catch (const CancellationError&) {
        keepForResume(run);
        finish = [this, id = profile.id] { finishOnMain(std::nullopt, std::nullopt, true, id); };
    } catch (const std::exception& error) {
        keepForResume(run);
        const auto* known = dynamic_cast<const VeltraError*>(&error);
        auto failure =
            known != nullptr ? *known : VeltraError("Veltra", errorCode::toolFailed, error.what());
        finish = [this, failure = std::move(failure), id = profile.id, runID = run.runID,
                  appName = run.appName,
                  version = run.info.version.empty() ? run.version : run.info.version] {
            finishOnMain(std::nullopt, failure, false, id);
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
    run.dryRun.reset();
    post(std::move(finish));
}

void PipelineManager::preflight(RunState& run) {
    const auto& profile = run.request.profile;
    log("Checking the publishing branch and live feed before building...");
    run.embedded = SparkleAutoResolver::fromProject(*run.project);
    // An app that carries a feed address expects its updates there; a profile that keeps an
    // appcast sets the app up for it.
    run.updatesConfigured = ProfileUpdatesSetup::wanted(profile, run.embedded);
    const auto repository = ReleasePublishingPlan::resolveRepository(profile);
    if (run.updatesConfigured) {
        if (!profile.webDeploy.gitCommitAndPush) {
            throw VeltraError("Veltra", errorCode::invalidSetup,
                              "Sparkle updates are configured, but automatic website publishing "
                              "is off. Enable Git commit and push so Veltra can publish and "
                              "verify the appcast, or distribute the release manually.");
        }
        if (!repository) {
            throw VeltraError("Veltra", errorCode::invalidSetup,
                              "Sparkle updates are configured, but Veltra could not find the "
                              "website repository to publish the appcast and DMG.");
        }
        if (!run.build) {
            throw VeltraError("Veltra", errorCode::invalidSetup,
                              "Choose a build number before releasing Sparkle updates.");
        }
        const auto expected = ReleasePublishingPlan::publicAddresses(profile).publicAppcastURL;
        if (run.embedded.feedURL && *run.embedded.feedURL != expected) {
            throw VeltraError(
                "Veltra", errorCode::invalidSetup,
                "The Sparkle feed URL embedded in this app (" + *run.embedded.feedURL +
                    ") does not match the appcast Veltra will deploy (" +
                    (expected.empty() ? std::string("no website URL set") : expected) +
                    "). Sync the website URL with the Sparkle URL pattern before releasing.");
        }
    }
    if (repository && profile.webDeploy.gitCommitAndPush) {
        const auto branch = WebDeployer::branch(profile.webDeploy);
        const auto status =
            run.engines.webDeployer.repositoryInspector.inspect(*repository, branch, run.stop);
        if (status.blocker) {
            throw VeltraError("Veltra", errorCode::conflict, *status.blocker);
        }
        // Before anything is built: the release must not carry private commits or edits. A
        // resumed run's files at the release's paths are its own, from the attempt that stopped.
        if (const auto blocker = run.engines.webDeployer.repositoryInspector.releaseBlocker(
                *repository, branch,
                run.resumed ? std::vector<std::string>()
                            : WebDeployer::releasePaths(profile.webDeploy, run.appName, true),
                WebDeployer::commitSubject(run.appName, run.version,
                                           std::to_string(run.build.value_or(0))),
                run.stop)) {
            throw VeltraError("Veltra", errorCode::conflict, *blocker);
        }
        const auto addresses = ReleasePublishingPlan::publicAddresses(profile);
        const auto feed = run.engines.feedReader.committedFeedCheckedAgainstLive(
            *repository, branch, ReleasePublishingPlan::downloadsFolder(profile.webDeploy),
            addresses.publicAppcastURL, run.stop);
        if (run.build) {
            ReleaseFeedValidator::validateNextBuild(feed, *run.build);
        }
        log("   Success: Publishing branch '" + branch + "' is ready for build " +
            std::to_string(run.build.value_or(0)));
    }
}

} // namespace veltra
