#include "PipelineRunState.h"
#include "ProfileUpdatesSetup.h"
#include "core/process/ProcessRunner.h"
#include "core/publishing/GitCommand.h"
#include "core/publishing/ReleasePublishingPlan.h"
#include "core/support/FileUtilities.h"
#include "core/support/Text.h"
#include "core/support/Uuid.h"
#include "core/support/VeltraError.h"
#include "core/xcode/XcodeProjectDiscovery.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <tuple>
#include <unistd.h>

#include <fmt/format.h>

// The stages that make the app: version, identity, archive, inspection.
namespace veltra {

void PipelineManager::versionStage(RunState& run) {
    updateStep(StepID::version, StepStatus::running, "Syncing version...");
    // The version reaches the project file or xcodebuild's overrides either way.
    if (const auto error = VersionManager::versionError(run.version)) {
        throw VeltraError("Veltra", errorCode::invalidSetup, *error);
    }
    const auto label = "v" + run.version + " (" + std::to_string(run.build.value_or(0)) + ")";
    if (run.dryRun) {
        run.dryRun->versionNotWritten(run.version, run.build.value_or(0));
        updateStep(StepID::version, StepStatus::succeeded, label + ", not written");
        return;
    }
    const auto applied = run.engines.versionManager.apply(run.version, run.build, *run.project);
    for (const auto& notice : applied.notices) {
        log("Info: Version notice: " + notice);
    }
    log("Success: Info.plist synchronized (v" + run.version + ", build " +
        std::to_string(run.build.value_or(0)) + ")");
    updateStep(StepID::version, StepStatus::succeeded,
               "v" + run.version + " (" + std::to_string(run.build.value_or(0)) + ")");
}

void PipelineManager::chooseIdentity(RunState& run) {
    const auto& notarization = run.request.profile.notarization;
    std::optional<std::vector<SigningCertificate>> scanned;
    const auto certificates = [&]() -> const std::vector<SigningCertificate>& {
        if (!scanned) {
            auto all = run.engines.certificateScanner.scanIdentities(run.stop);
            if (!all) {
                throw all.error();
            }
            scanned = std::move(*all);
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
    updateStep(StepID::archive, StepStatus::running, "Archiving with Xcode...");
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
    info.configurationOverride = profile.archiveConfiguration;
    std::string scheme = profile.selectedScheme.value_or(
        info.defaultScheme.value_or(info.schemes.empty() ? run.appName : info.schemes.front()));
    if (!info.schemes.empty() &&
        std::find(info.schemes.begin(), info.schemes.end(), scheme) == info.schemes.end()) {
        if (run.request.branch) {
            throw VeltraError("Veltra", errorCode::notFound,
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
        ensureSparkle(run, project, scheme, worktree.has_value());
    }
    chooseIdentity(run);
    log("   Compiling Release Build...");
    run.app = run.engines.xcodeArchiver.archiveAndExport(
        info, scheme, run.identity, run.version, run.build,
        [this](const std::string& line) { log(line); }, run.stop);
    // <temp>/veltra_build_<UUID>/ExportedApp/<name>.app
    run.buildFolder = run.app.parent_path().parent_path();
    updateStep(StepID::archive, StepStatus::succeeded, "Built " + run.app.filename().string());
}

void PipelineManager::ensureSparkle(RunState& run, const std::filesystem::path& project,
                                    const std::string& scheme, bool inWorktree) {
    log("   Ensuring Sparkle framework is integrated into Xcode project...");
    const auto& profile = run.request.profile;
    auto request = ProfileUpdatesSetup::request(profile, run.stop, project);
    request.scheme = scheme;
    const auto plan = [&] {
        try {
            return SparkleProjectSetup::plan(request);
        } catch (const VeltraError& error) {
            throw VeltraError(error.domain(), error.code(),
                              "Veltra could not set the project up for Sparkle updates: " +
                                  error.message());
        }
    }();
    if (!plan.conflicts.empty()) {
        std::string conflicts;
        for (const auto& conflict : plan.conflicts) {
            conflicts += (conflicts.empty() ? "" : "; ") + conflict;
        }
        throw VeltraError(
            "Veltra", errorCode::invalidSetup,
            "The app would refuse this release's update: " + conflicts + ". Run '" +
                shellCommandLine({"veltra", "sparkle", "setup", profile.name, "--force"}) +
                "' to give the app this profile's feed and key, or sign with the key it has.");
    }
    if (plan.alreadySetUp()) {
        log("   Success: Sparkle already integrated");
        return;
    }
    if (run.dryRun) {
        run.dryRun->sparkleNotSetUp(plan.changes);
        run.sparkleSetupPending = true;
        return;
    }
    SparkleProjectSetup::apply(plan);
    for (const auto& done : plan.done) {
        log("   Success: " + done);
    }
    if (inWorktree) {
        log("Info: The Sparkle set-up is in this build's worktree only; commit it on the app "
            "branch to keep it");
    }
}

void PipelineManager::inspectStage(RunState& run) {
    log("\n[2/6] Codesigning & Verifying Application Bundle");
    updateStep(StepID::inspect, StepStatus::running, "Inspecting metadata & signatures...");
    run.info = run.engines.inspector.inspect(run.app, run.stop);
    post([this, info = run.info] { appInfo_ = info; });
    const auto& info = run.info;
    // Its files, the feed and the website are named after them.
    for (const auto& [value, key, what] :
         {std::tuple{info.version, "CFBundleShortVersionString", "version"},
          std::tuple{info.build, "CFBundleVersion", "build number"}}) {
        if (value.empty()) {
            throw VeltraError("Veltra", errorCode::invalidSetup,
                              "The app " + run.app.filename().string() + " has no " + key +
                                  " (its " + what + ") in its Info.plist.");
        }
    }
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
        if (const auto problem = run.engines.inspector.signatureProblem(run.app, run.stop)) {
            throw VeltraError("Veltra", errorCode::toolFailed,
                              "The re-signed app does not pass code signature verification: " +
                                  *problem);
        }
    }
    if (run.updatesConfigured) {
        const auto expected =
            ReleasePublishingPlan::publicAddresses(run.request.profile).publicAppcastURL;
        const auto found = SparkleAutoResolver::fromApp(run.app).feedURL;
        if (!found && run.sparkleSetupPending) {
            log("   Info: Dry run: the app has no SUFeedURL yet; a release adds " + expected);
        } else if (found != expected) {
            throw VeltraError("Veltra", errorCode::invalidSetup,
                              "The built app's Sparkle feed URL does not match this app's "
                              "release profile. Expected " +
                                  expected + ", found " + found.value_or("none") +
                                  ". Update the Sparkle download URL pattern and try again.");
        }
    }
    run.iconPNG = run.engines.appIconResolver.pngData(info.iconURL, run.stop);
    updateStep(StepID::inspect, StepStatus::succeeded,
               "v" + info.version + " (" + info.build + ")");
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

} // namespace veltra
