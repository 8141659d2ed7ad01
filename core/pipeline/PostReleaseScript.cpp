#include "PostReleaseScript.h"

#include "PipelineRunState.h"
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

// The user's own script after a release.
namespace veltra {

std::map<std::string, std::string> postReleaseEnvironment(const ReleaseManifest& manifest,
                                                          const std::filesystem::path& dmg,
                                                          const std::filesystem::path& notes) {
    std::map<std::string, std::string> environment{
        {"VELTRA_APP_NAME", manifest.appName},
        {"VELTRA_VERSION", manifest.version},
        {"VELTRA_BUILD", manifest.buildNumber},
        {"VELTRA_DMG_PATH", dmg.string()},
        {"VELTRA_DMG_SHA256", manifest.sha256Checksum},
        {"VELTRA_DMG_SIZE", std::to_string(manifest.dmgFileSize)},
        {"VELTRA_NOTES_PATH", notes.string()}};
    if (manifest.sparkleSignature) {
        environment["VELTRA_SPARKLE_SIGNATURE"] = *manifest.sparkleSignature;
    }
    if (manifest.websitePublication) {
        environment["VELTRA_DOWNLOAD_URL"] = manifest.websitePublication->downloadURL;
        environment["VELTRA_FEED_URL"] = manifest.websitePublication->feedURL;
    }
    return environment;
}

void PipelineManager::runPostScript(RunState& run, const ReleaseManifest& manifest) {
    const auto& profile = run.request.profile;
    // The user's own script, with the release's facts; it never fails the release.
    if (!profile.customPostScript || trimWhitespace(*profile.customPostScript).empty()) {
        return;
    }
    log("Running post-release script...");
    auto environment = postReleaseEnvironment(manifest, run.dmg, run.notesPath);
    try {
        const auto result =
            ProcessRunner::run(ProcessRequest{.command = "/bin/sh",
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
        // The release is published: a stop ends the script, never the release.
        log("   Warning: Post-release script stopped (cancelled)", true);
    } catch (const std::exception& error) {
        log(std::string("   Warning: Post-release script could not run: ") + error.what(), true);
    }
}

} // namespace veltra
