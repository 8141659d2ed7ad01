#include "PipelineRunState.h"
#include "SparkleAutoResolver.h"
#include "SparkleKeys.h"
#include "core/feed/MinimumSystemVersion.h"
#include "core/feed/ReleaseFeedValidator.h"
#include "core/feed/SparkleFeedParser.h"
#include "core/process/ProcessRunner.h"
#include "core/publishing/GitCommand.h"
#include "core/publishing/ReleasePublishingPlan.h"
#include "core/support/FileUtilities.h"
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

// The stages that publish it: the signed feed, the website, GitHub.
namespace veltra {

void PipelineManager::sparkleStage(RunState& run) {
    const auto& profile = run.request.profile;
    log("\n[5/6] Sparkle Distribution Feed");
    updateStep(StepID::sparkle, StepStatus::running, "Resolving website & feed...");
    run.delivery =
        ReleasePublishingPlan::resolve(profile, [this](const std::string& line) { log(line); });
    if (!run.delivery) {
        log("   \xE2\x86\xB7 Sparkle feed skipped (No website repository configured)");
        updateStep(StepID::sparkle, StepStatus::skipped, "No website repo found");
        return;
    }
    WebDeployer::checkFileName(run.appName);
    if (run.dryRun) {
        run.dryRun->useWebsiteClone(*run.delivery, profile.webDeploy, run.stop);
    }
    auto& engine = run.engines.sparkleEngine;
    engine.log = [this](const std::string& line) { log("   " + line); };
    if (profile.sparkle.signUpdatePath && !profile.sparkle.signUpdatePath->empty()) {
        engine.configuredTool = expandTilde(*profile.sparkle.signUpdatePath);
    }
    if (run.project) {
        engine.project = *run.project;
    }
    const auto signed_ = [&] {
        const auto location = SparkleKeys::ofProfile(profile.sparkle);
        if (location.file) {
            return engine.sign(run.dmg, run.appName, location.file->string(), run.stop);
        }
        return engine.sign(
            run.dmg, run.appName,
            KeychainSigningKey{location.account,
                               [&] { return SparkleKeys::load(location, run.stop); }},
            run.stop);
    }();
    if (run.stop.stop_requested()) {
        throw CancellationError();
    }
    AppcastRelease release;
    release.shortVersion = run.info.version;
    release.build = run.info.build;
    // Each item its own file: a Mac offered an older item must get the bytes it signs.
    release.downloadURL = run.delivery->downloadURL(percentEncoded(run.dmg.filename().string()));
    release.signature = signed_.signature;
    release.length = signed_.length;
    const auto minimum = MinimumSystemVersion::choose(run.info.minimumOSVersion,
                                                      profile.sparkle.minimumSystemVersion);
    if (minimum.warning) {
        log("Warning: " + *minimum.warning, true);
    }
    release.minimumSystemVersion = minimum.version;
    release.releaseNotesURL =
        run.delivery->releaseNotesURL(percentEncoded(run.dmg.stem().string()));
    release.controls = run.feedControls;
    // Written to a temporary file and renamed: a cancelled run never leaves half a feed.
    engine.updateFeed(run.delivery->appcastPath, release);
    if (const auto keep = profile.sparkle.keepReleases) {
        const auto dropped = engine.keepNewest(run.delivery->appcastPath, *keep);
        run.droppedSiteFiles = WebDeployer::filesOnlyNamedBy(
            *run.delivery, profile.webDeploy, run.appName, dropped,
            SparkleFeedParser::parse(readFile(run.delivery->appcastPath))
                .value_or(std::vector<SparkleFeedItem>{}));
        for (const auto& item : dropped) {
            log("Info: Feed keeps " + std::to_string(*keep) + " releases; build " + item.version +
                " (" + item.shortVersion + ") leaves it");
        }
    }
    run.artifacts.sparkleSignature = signed_.signature;
    log("Success: Sparkle appcast.xml updated for v" + run.info.version);
    updateStep(StepID::sparkle, StepStatus::succeeded,
               "Signed (v" + run.info.version + " (Build " + run.info.build + "))");
}

void PipelineManager::deployStage(RunState& run) {
    const auto& profile = run.request.profile;
    log("\n[6/6] Deploying Release");
    updateStep(StepID::deploy, StepStatus::running, "Syncing website & appcast...");
    if (!run.delivery) {
        log("   \xE2\x86\xB7 Website deployment skipped");
        updateStep(StepID::deploy, StepStatus::skipped, "No website repo found");
        publishToGitHub(run);
        return;
    }
    if (!profile.webDeploy.gitCommitAndPush) {
        updateStep(StepID::deploy, StepStatus::skipped, "Website not pushed");
        publishToGitHub(run);
        return;
    }
    const auto uploadStarted = Clock::now();
    if (!run.artifacts.sparkleSignature || run.artifacts.sparkleSignature->empty()) {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          "Missing Sparkle signature; upload stopped.");
    }
    ReleaseFeedValidator::verifyWrittenFeed(
        readFile(run.delivery->appcastPath),
        ExpectedFeedItem{run.info.version, run.info.build,
                         run.delivery->downloadURL(percentEncoded(run.dmg.filename().string())),
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
    release.fileStem = run.dmg.stem().string();
    // The key the built app checks updates with.
    release.publicKey = SparkleAutoResolver::fromApp(run.app).publicKey.value_or(
        run.embedded.publicKey.value_or(""));
    release.removedFiles = run.droppedSiteFiles;
    auto& deployer = run.engines.webDeployer;
    deployer.lockFolder = releaseLockFolder;
    auto config = profile.webDeploy;
    // The preflight checked, before building, that the commit carries only this release; the
    // feed and files this run wrote since are its own.
    deployer.checkRepositoryFirst = false;
    if (run.dryRun) {
        deployer.commitOnly = true;
        config.websiteRepoPath = run.dryRun->websiteClone()->string();
    }
    run.artifacts.websitePublication = deployer.deploy(
        config, *run.delivery, release, [this](const std::string& line) { log(line); }, run.stop);
    if (run.dryRun) {
        updateStep(StepID::deploy, StepStatus::succeeded,
                   "Committed in a temporary clone; not pushed");
        publishToGitHub(run);
        return;
    }
    run.uploadSeconds = std::chrono::duration<double>(Clock::now() - uploadStarted).count();
    updateStep(StepID::deploy, StepStatus::succeeded, "Uploaded; website publishing");
    publishToGitHub(run);
}

void PipelineManager::publishToGitHub(RunState& run) {
    const auto& config = run.request.profile.githubRelease;
    if (!config.enabled) {
        return;
    }
    if (run.dryRun) {
        run.dryRun->gitHubNotPublished(config, run.dmg, run.appName, run.info.version,
                                       run.notesPath);
        return;
    }
    log("   Publishing to GitHub Releases...");
    if (run.project) {
        run.engines.githubEngine.repositoryFolder = run.project->parent_path();
    }
    try {
        run.engines.githubEngine.publish(
            config, run.dmg, run.appName, run.info.version, run.notes,
            [this](const std::string& line) { log(line); }, run.stop);
        run.artifacts.githubPublicationSucceeded = true;
    } catch (const CancellationError&) {
        if (!run.artifacts.websitePublication) {
            throw;
        }
        // The website is pushed: the release is out, and a stop ends only this extra.
        log("GitHub publication stopped (cancelled); publish it with 'veltra github release'.",
            true);
        run.artifacts.githubPublicationSucceeded = false;
    } catch (const std::exception& error) {
        log(std::string("GitHub publication failed: ") + error.what(), true);
        run.artifacts.githubPublicationSucceeded = false;
    }
}

} // namespace veltra
