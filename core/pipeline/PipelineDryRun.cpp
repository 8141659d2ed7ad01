#include "PipelineDryRun.h"

#include "PipelineRunState.h"
#include "core/publishing/GitCommand.h"
#include "core/publishing/GitHubReleaseEngine.h"
#include "core/publishing/ReleasePublishingPlan.h"
#include "core/support/FileUtilities.h"
#include "core/support/Text.h"
#include "core/support/Uuid.h"
#include "core/support/VeltraError.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>
#include <unistd.h>

#include <fmt/format.h>

namespace veltra {

DryRun::DryRun(const std::filesystem::path& temporaryBase, Log log)
    : base_(temporaryBase.empty() ? std::filesystem::temp_directory_path() : temporaryBase),
      log_(std::move(log)) {
    files_ = makeOwnedTemporaryFolder(base_, "veltra-dryrun-files-");
    log_("Dry run: the image and notes go to " + files_.string());
}

DryRun::~DryRun() {
    if (clone_) {
        std::error_code ignored;
        std::filesystem::remove_all(*clone_, ignored);
    }
}

void DryRun::useWebsiteClone(ResolvedDeliveryConfig& delivery, const WebDeployConfig& deploy,
                             StopToken stop) {
    const auto repository = delivery.websiteRepoPath;
    const auto branch = WebDeployer::branch(deploy);
    const auto clone = base_ / ("veltra_dryrun_" + Uuid::random().string());
    // Set first, so a clone that fails halfway is removed too.
    clone_ = clone;
    const auto cloned = GitCommand::run(
        base_,
        {"clone", "--quiet", "--branch=" + branch, "--", repository.string(), clone.string()},
        stop);
    if (cloned.exitCode != 0) {
        throw GitCommand::failure("Could not clone the website repository for the dry run", cloned);
    }
    // The feed and the deploy use the clone's files in the same places.
    std::error_code error;
    const auto relative =
        std::filesystem::weakly_canonical(delivery.appcastPath, error)
            .lexically_relative(std::filesystem::weakly_canonical(repository, error));
    delivery.appcastPath =
        relative.empty() || relative.begin()->string() == ".."
            ? clone / ReleasePublishingPlan::downloadsFolder(deploy) / "appcast.xml"
            : clone / relative;
    delivery.websiteRepoPath = clone;
    log_("   Dry run: the feed is signed and written, and the deploy committed, in a temporary "
         "clone of the website repository that is never pushed: " +
         clone.string());
}

void DryRun::versionNotWritten(const std::string& version, std::int64_t build) const {
    // The archiver gives xcodebuild the version and build as overrides either way.
    log_("Info: Dry run: v" + version + " (build " + std::to_string(build) +
         ") goes to xcodebuild as overrides; the project is not written");
}

void DryRun::sparkleNotSetUp(const std::vector<std::string>& changes) const {
    for (auto change : changes) {
        // "Add the Sparkle product …" reads on as "would add the Sparkle product …".
        change.front() =
            static_cast<char>(std::tolower(static_cast<unsigned char>(change.front())));
        log_("   Dry run: would " + change);
    }
    log_("Info: Dry run: the project is not written, so this build has no Sparkle settings yet");
}

void DryRun::notarizationNotSubmitted(const std::filesystem::path& dmg,
                                      const std::string& keychainProfile) const {
    log_("   Dry run: would submit " + dmg.filename().string() +
         " to Apple's notary service with keychain profile '" + keychainProfile +
         "', then staple the ticket");
}

void DryRun::gitHubNotPublished(const GitHubReleaseConfig& config, const std::filesystem::path& dmg,
                                const std::string& appName, const std::string& version,
                                const std::filesystem::path& notes) const {
    // The notes file the run wrote holds the same text gh would be given.
    auto words = GitHubReleaseEngine::arguments(config, dmg, appName, version, notes);
    words.insert(words.begin(), "gh");
    log_("   Dry run: would run: " + shellCommandLine(words));
}

// What a dry run says instead of releasing.
void PipelineManager::dryRunSummary(RunState& run, double elapsed) {
    log(runSeparator());
    log(fmt::format("Dry run of {} finished in {:.1f}s. Nothing was published; a release would "
                    "publish:",
                    run.appName, elapsed));
    if (run.delivery) {
        const auto addresses = ReleasePublishingPlan::publicAddresses(run.request.profile);
        log("  Download: " +
            run.delivery->downloadURL(percentEncoded(run.dmg.filename().string())) +
            " (and the download page's " + run.appName + ".dmg)");
        log("  Feed:     " + addresses.publicAppcastURL);
        log("  Offered:  " + (run.feedControls.isDefault() ? std::string("to everyone")
                                                           : run.feedControls.summary()));
        if (!run.delivery->releaseNotesURLPattern.empty()) {
            log("  Notes:    " +
                run.delivery->releaseNotesURL(percentEncoded(run.dmg.stem().string())));
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
    log(runSeparator());
}

} // namespace veltra
