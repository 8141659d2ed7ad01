#include "PipelineRunState.h"
#include "ReleaseRunRecord.h"
#include "core/process/ProcessRunner.h"
#include "core/publishing/GitCommand.h"
#include "core/signing/GatekeeperChecks.h"
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

// The stages that package it: notes, disk image, notarization.
namespace veltra {

void PipelineManager::notesStage(RunState& run) {
    updateStep(StepID::notes, StepStatus::running, "Exporting release notes...");
    run.notesPath = run.filesDirectory / (releaseFileStem(run, true) + ".md");
    run.notes = run.request.notes.value_or(defaultNotes(run.info.version));
    writeFileAtomically(run.notesPath, run.notes);
    log("   Success: Release notes saved to " + run.notesPath.string());
    updateStep(StepID::notes, StepStatus::succeeded, "Saved " + run.notesPath.filename().string());
}

void PipelineManager::dmgStage(RunState& run) {
    const auto& profile = run.request.profile;
    log("\n[3/6] Packaging Disk Image (DMG)");
    updateStep(StepID::dmg, StepStatus::running, "Packaging disk image...");
    DMGBuildOptions options;
    options.appPath = run.app;
    const auto finalPath = run.filesDirectory / (releaseFileStem(run, false) + ".dmg");
    // Built in a work folder beside it under its own name (codesign names a signed image after
    // its file), and moved into place only once built: a failed or cancelled build leaves the
    // image already there as it was.
    std::filesystem::create_directories(run.filesDirectory);
    removeAbandonedTemporaryFolders(run.filesDirectory, ".veltra-image-");
    const auto work = makeOwnedTemporaryFolder(run.filesDirectory, ".veltra-image-");
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
    auto& builder = run.engines.dmgBuilder;
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
    updateStep(StepID::dmg, StepStatus::succeeded, megabytes(run.artifacts.dmgSize));
}

void PipelineManager::notarizeStage(RunState& run) {
    const auto& notarization = run.request.profile.notarization;
    log("\n[4/6] Apple Gatekeeper Notarization");
    if (!notarization.enabled) {
        updateStep(StepID::notarize, StepStatus::skipped,
                   "Notarization skipped (Local testing mode)");
        return;
    }
    if (run.developmentIdentity) {
        updateStep(StepID::notarize, StepStatus::skipped,
                   "Notarization skipped (Development identity)");
        return;
    }
    if (run.dryRun) {
        run.dryRun->notarizationNotSubmitted(run.dmg, notarization.keychainProfileName);
        updateStep(StepID::notarize, StepStatus::skipped, "Not submitted (dry run)");
        return;
    }
    updateStep(StepID::notarize, StepStatus::running, "Submitting to Apple...");
    auto& engine = run.engines.notarizer;
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
    // What a Mac that downloads the image will check, asked before anything is published.
    // The app is judged where it still lies (a resumed run may have only the image).
    std::error_code missing;
    const auto verdicts = GatekeeperChecks::assess(
        run.dmg,
        std::filesystem::is_directory(run.app, missing) ? std::optional(run.app) : std::nullopt,
        run.stop);
    run.artifacts.finalChecks.clear();
    for (const auto& verdict : verdicts) {
        run.artifacts.finalChecks.push_back(verdict.text());
        log(std::string(verdict.accepted ? "   Success: " : "   Error: ") + verdict.text(),
            !verdict.accepted);
    }
    if (const auto rejected = std::ranges::find(verdicts, false, &GatekeeperVerdict::accepted);
        rejected != verdicts.end()) {
        throw VeltraError("Veltra", errorCode::badAnswer,
                          "The notarized release would not open on a Mac: " +
                              GatekeeperChecks::explain(*rejected));
    }
    updateStep(StepID::notarize, StepStatus::succeeded,
               verdicts.empty() ? "Notarized" : "Notarized; Gatekeeper accepts it");
}

} // namespace veltra
