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

// What a dry run says instead of releasing.
namespace veltra {

void PipelineManager::dryRunSummary(RunState& run, double elapsed) {
    log(runSeparator());
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
    log(runSeparator());
}

} // namespace veltra
