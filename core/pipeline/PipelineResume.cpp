#include "PipelineRunState.h"
#include "ReleaseRunRecord.h"
#include "core/process/ProcessRunner.h"
#include "core/publishing/GitCommand.h"
#include "core/publishing/ReleaseNotificationEvent.h"
#include "core/publishing/ReleasePublishingPlan.h"
#include "core/support/FileDigest.h"
#include "core/support/Uuid.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

#include <fmt/format.h>

// What a stopped run keeps, and how the next one picks it up.
namespace veltra {

void PipelineManager::reuseKeptSteps(RunState& run) {
    if (!run.resumed) {
        return;
    }
    const auto& kept = *run.resumed;
    const auto steps = stepList(true);
    const auto first = std::find_if(steps.begin(), steps.end(), [&kept](const auto& step) {
        return !kept.completed(step.id) && step.id != rawValue(StepID::inspect);
    });
    log("Resuming the stopped release of " + run.appName + " v" + kept.version + " (Build " +
        std::to_string(kept.build) + ") from '" +
        (first == steps.end() ? std::string("the end") : first->title) + "'");
    const auto changed = [](const std::string& what) {
        return VeltraError("Veltra", errorCode::conflict,
                           what + " changed since the release stopped, so it cannot be reused. "
                                  "Start the release again without --resume.");
    };
    if (kept.completed(StepID::archive)) {
        if (!kept.app || !std::filesystem::is_directory(*kept.app) ||
            ReleaseRunRecord::signatureDigest(*kept.app) != kept.appSignature) {
            throw changed("The kept app");
        }
        run.app = *kept.app;
        run.identity = kept.identity;
        chooseIdentity(run);
        log("   Success: Reusing the signed app " + run.app.filename().string());
    }
    if (kept.completed(StepID::notes) && kept.notesPath) {
        run.notesPath = *kept.notesPath;
        run.notes = kept.notes;
    }
    if (kept.completed(StepID::dmg)) {
        if (!kept.dmg || !std::filesystem::is_regular_file(*kept.dmg) ||
            sha256Hex(*kept.dmg) != kept.dmgSHA256) {
            throw changed("The disk image");
        }
        run.dmg = *kept.dmg;
        run.artifacts.dmgSize = kept.dmgSize;
        log("   Success: Reusing " + run.dmg.filename().string() + " (SHA-256 unchanged)");
    }
    run.artifacts.wasNotarized = kept.wasNotarized;
    run.artifacts.finalChecks = kept.finalChecks;
    if (kept.completed(StepID::sparkle)) {
        run.delivery = ReleasePublishingPlan::resolve(run.request.profile);
        run.artifacts.sparkleSignature = kept.sparkleSignature;
    }
    for (const auto& raw : kept.completedSteps) {
        // A record from a newer version may name a step this one does not have.
        const auto id = stepID(raw);
        if (id && *id != StepID::inspect && *id != StepID::deploy) {
            updateStep(*id, StepStatus::succeeded, "Kept from the stopped run");
        }
    }
}

void PipelineManager::keepForResume(RunState& run) {
    // Nothing finished, nothing to reuse (a refusal by preflight is not worth resuming).
    if (!run.fromProject || run.dryRun || !run.build || run.completed.empty()) {
        return;
    }
    try {
        const auto folder = ReleaseRunRecord::folder(run.outputDirectory);
        ReleaseRunRecord record;
        record.profileID = run.request.profile.id;
        record.version = run.version;
        record.build = *run.build;
        record.completedSteps = run.completed;
        const auto has = [&record](StepID step) { return record.completed(step); };
        if (has(StepID::archive) && !run.app.empty()) {
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
        if (has(StepID::notes)) {
            record.notesPath = run.notesPath;
            record.notes = run.notes;
        }
        if (has(StepID::dmg)) {
            record.dmg = run.dmg;
            record.dmgSHA256 = sha256Hex(run.dmg);
            record.dmgSize = run.artifacts.dmgSize;
        }
        record.notarySubmissionID = run.notarySubmissionID;
        record.wasNotarized = run.artifacts.wasNotarized;
        record.finalChecks = run.artifacts.finalChecks;
        record.sparkleSignature = run.artifacts.sparkleSignature;
        record.feedControls = run.feedControls;
        record.save(run.outputDirectory);
        log("Kept this run in " + folder.string() + "; 'veltra release " +
            run.request.profile.name + " --resume' continues it.");
    } catch (const std::exception& error) {
        log(std::string("Warning: This run could not be kept for resuming: ") + error.what());
    }
}

} // namespace veltra
