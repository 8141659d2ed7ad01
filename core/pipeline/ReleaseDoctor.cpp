#include "ReleaseDoctor.h"

#include "DoctorChecks.h"
#include "PipelineManager.h"
#include "SparkleAutoResolver.h"
#include "core/feed/BuildNumber.h"
#include "core/feed/NewestBuild.h"
#include "core/feed/PublishedFeedReader.h"
#include "core/feed/SparkleFeedParser.h"
#include "core/feed/SparklePrivateKey.h"
#include "core/publishing/GitCommand.h"
#include "core/publishing/ReleasePublishingPlan.h"
#include "core/publishing/WebDeployer.h"
#include "core/publishing/WebsiteRepositoryInspector.h"
#include "core/signing/CertificateExpiry.h"
#include "core/signing/CertificateScanner.h"
#include "core/signing/GatekeeperChecks.h"
#include "core/signing/NotarizationEngine.h"
#include "core/support/Base64.h"
#include "core/support/FileUtilities.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"
#include "core/xcode/VersionManager.h"
#include "core/xcode/XcodeToolsVerdict.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <sys/statvfs.h>
#include <thread>

#include <fmt/format.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;
using namespace doctor;

std::string gibibytes(std::uint64_t bytes) {
    const auto mebibytes = static_cast<double>(bytes) / (1024.0 * 1024.0);
    return mebibytes < 1024 ? fmt::format("{:.0f} MiB", mebibytes)
                            : fmt::format("{:.1f} GiB", mebibytes / 1024.0);
}

const std::string selectXcode =
    "Install Xcode, open it once, then select it: sudo xcode-select --switch "
    "/Applications/Xcode.app";

} // namespace

std::string_view rawValue(DoctorVerdict verdict) {
    switch (verdict) {
    case DoctorVerdict::ok:
        return "ok";
    case DoctorVerdict::warning:
        return "warning";
    case DoctorVerdict::problem:
        return "problem";
    }
    return "problem";
}

Json DoctorFinding::toJson() const {
    return {{"check", check}, {"verdict", rawValue(verdict)}, {"found", found}, {"advice", advice}};
}

std::vector<DoctorFinding>
ReleaseDoctor::limited(const std::string& name,
                       const std::function<std::vector<DoctorFinding>(StopToken)>& check,
                       StopToken stop) const {
    StopSource source;
    StopCallback forward(stop, [&source] { source.request_stop(); });
    std::mutex lock;
    std::condition_variable_any finished;
    bool done = false;
    bool timedOut = false;
    JThread timer([&](StopToken) {
        std::unique_lock guard(lock);
        if (!finished.wait_for(guard, timeLimit, [&done] { return done; })) {
            timedOut = true;
            source.request_stop();
        }
    });
    const auto finish = [&] {
        const std::lock_guard guard(lock);
        done = true;
        finished.notify_all();
    };
    try {
        auto result = check(source.get_token());
        finish();
        return result;
    } catch (const CancellationError&) {
        finish();
        timer.join();
        if (stop.stop_requested() || !timedOut) {
            throw;
        }
        const auto seconds = std::chrono::duration<double>(timeLimit).count();
        return {finding(name, Verdict::problem, fmt::format("No answer within {:g} s", seconds),
                        "Run the check again; if it keeps hanging, run the tool it names by hand "
                        "to see what it waits for.")};
    } catch (const std::exception& error) {
        finish();
        return {finding(name, Verdict::problem, error.what())};
    }
}

std::vector<DoctorFinding> ReleaseDoctor::examine(const ProjectProfile* profile,
                                                  StopToken stop) const {
    std::vector<DoctorFinding> all;
    const auto add = [&all](std::vector<DoctorFinding> more) {
        all.insert(all.end(), std::make_move_iterator(more.begin()),
                   std::make_move_iterator(more.end()));
    };
    add(limited(
        "Xcode", [this](StopToken s) { return std::vector{xcode(s)}; }, stop));
    add(limited(
        "Signing", [this, profile](StopToken s) { return signing(profile, s); }, stop));
    if (profile != nullptr) {
        if (profile->notarization.enabled) {
            add(limited(
                "Notarization",
                [this, profile](StopToken s) { return std::vector{notarization(*profile, s)}; },
                stop));
            add(limited(
                "Gatekeeper", [this, profile](StopToken s) { return gatekeeper(*profile, s); },
                stop));
        }
        add(project(*profile));
        add(limited(
            "Sparkle", [this, profile](StopToken) { return sparkle(*profile); }, stop));
        add(limited(
            "Website", [this, profile](StopToken s) { return website(*profile, s); }, stop));
    }
    if (profile == nullptr || profile->githubRelease.enabled) {
        add(limited(
            "GitHub", [this, profile](StopToken s) { return std::vector{github(profile, s)}; },
            stop));
    }
    if (profile != nullptr) {
        add(limited(
            "Disk", [this, profile](StopToken) { return std::vector{disk(profile)}; }, stop));
    }
    return all;
}

std::vector<DoctorFinding> ReleaseDoctor::project(const ProjectProfile& profile) const {
    if (!profile.sourceProjectPath || profile.sourceProjectPath->empty()) {
        return {}; // a release of a built app
    }
    const auto& given = *profile.sourceProjectPath;
    const std::filesystem::path path = expandTilde(standardizePath(given));
    const auto setAgain =
        "Run '" +
        shellCommandLine({"veltra", "profile", "set", profile.name, "sourceProjectPath=" + given}) +
        "'";
    if (!std::filesystem::is_directory(path)) {
        return {finding("Project", Verdict::problem, "No Xcode project at " + given,
                        "Choose the project: " + setAgain + " with its path.")};
    }
    if (!PipelineManager::buildsFromProject(profile)) {
        return {finding("Project", Verdict::problem,
                        given + " is a folder, not an Xcode project (.xcodeproj or .xcworkspace)",
                        setAgain + " to store the project it holds.")};
    }
    return {finding("Project", Verdict::ok, given)};
}

DoctorFinding ReleaseDoctor::xcode(StopToken stop) const {
    const auto selected = ProcessRunner::run("xcode-select", {"-p"}, stop);
    if (selected.exitCode == 127) { // env found no such tool
        return finding("Xcode", Verdict::problem,
                       "Xcode's tools are not installed (no xcode-select)", selectXcode);
    }
    if (selected.exitCode != 0) {
        return finding("Xcode", Verdict::problem,
                       "No developer folder is selected: " + firstLine(selected.errorOutput),
                       selectXcode);
    }
    const std::string folder(trimWhitespace(selected.output));
    using Kind = XcodeToolsVerdict::Kind;
    const auto onlyCommandLineTools = finding("Xcode", Verdict::problem,
                                              "Only the command-line tools are selected (" +
                                                  folder + "); archiving needs the full Xcode",
                                              selectXcode);
    if (XcodeToolsVerdict::judge(folder).kind == Kind::commandLineToolsOnly) {
        return onlyCommandLineTools;
    }
    const auto version = ProcessRunner::run("xcodebuild", {"-version"}, stop);
    const auto verdict = XcodeToolsVerdict::judge(folder, &version);
    if (verdict.kind == Kind::commandLineToolsOnly) {
        return onlyCommandLineTools;
    }
    if (verdict.kind == Kind::xcodebuildFails) {
        const auto said = firstLine(verdict.said);
        return finding("Xcode", Verdict::problem,
                       "xcodebuild does not run" + (said.empty() ? std::string() : ": " + said),
                       contains(said, "license")
                           ? "Accept the license: sudo xcodebuild -license accept"
                           : "Open Xcode once so it can finish installing its components.");
    }
    std::string name = firstLine(version.output);
    const auto lines = version.output.find('\n');
    if (lines != std::string::npos) {
        const auto build = firstLine(std::string_view(version.output).substr(lines + 1));
        if (!build.empty()) {
            name += " (" + build + ")";
        }
    }
    return finding("Xcode", Verdict::ok, name + " at " + folder);
}

std::vector<DoctorFinding> ReleaseDoctor::signing(const ProjectProfile* profile,
                                                  StopToken stop) const {
    CertificateScanner scanner;
    const auto scanned = scanner.scanIdentities(stop);
    if (!scanned) {
        return {finding("Signing", Verdict::problem, scanned.error().message(),
                        "Run 'security find-identity -v -p codesigning' in Terminal and fix what "
                        "it reports (an unlocked login keychain is needed).")};
    }
    const auto& identities = *scanned;
    std::vector<const SigningCertificate*> developerID;
    std::map<std::string, int> names;
    for (const auto& identity : identities) {
        ++names[identity.name];
        if (identity.isDeveloperID) {
            developerID.push_back(&identity);
        }
    }
    std::vector<DoctorFinding> found;
    const bool needed = profile != nullptr && profile->notarization.enabled;
    if (developerID.empty()) {
        found.push_back(finding(
            "Signing", needed ? Verdict::problem : Verdict::warning,
            identities.empty() ? "No code-signing identity in the keychain"
                               : "No Developer ID Application identity in the keychain (" +
                                     std::to_string(identities.size()) + " other)",
            "Create a Developer ID Application certificate in Xcode (Settings > Accounts > "
            "Manage Certificates), or import its .p12 file; users can only open a notarized app "
            "signed with one."));
    } else {
        std::string list;
        for (const auto* identity : developerID) {
            list += (list.empty() ? "" : ", ") + identity->name;
        }
        found.push_back(finding("Signing", Verdict::ok,
                                std::to_string(developerID.size()) + " Developer ID identit" +
                                    (developerID.size() == 1 ? "y" : "ies") + ": " + list));
    }
    for (const auto& [name, count] : names) {
        if (count > 1) {
            found.push_back(finding(
                "Signing", Verdict::warning, fmt::format("'{}' names {} identities", name, count),
                "Releases pin the first one by its SHA-1; delete the older certificate in "
                "Keychain Access so the name chooses one again."));
        }
    }
    // Each Developer ID name once: its certificates' expiry.
    std::map<std::string, bool> checked;
    for (const auto* identity : developerID) {
        if (checked[identity->name]) {
            continue;
        }
        checked[identity->name] = true;
        const auto pem =
            ProcessRunner::run("security", {"find-certificate", "-c", identity->name, "-p"}, stop);
        const auto days = pem.exitCode == 0 ? certificateDaysUntilExpiry(pem.output)
                                            : std::vector<std::int64_t>{};
        if (days.empty()) {
            found.push_back(
                finding("Certificate", Verdict::warning,
                        "Could not read the certificate of '" + identity->name + "'" +
                            (pem.exitCode != 0 ? ": " + firstLine(pem.errorOutput) : std::string()),
                        "Check it in Keychain Access."));
            continue;
        }
        const auto soonest = *std::min_element(days.begin(), days.end());
        if (soonest < 0) {
            found.push_back(finding(
                "Certificate", Verdict::problem,
                fmt::format("'{}' expired {} day{} ago", identity->name, -soonest,
                            soonest == -1 ? "" : "s"),
                "Create a new Developer ID Application certificate in Xcode (Settings > Accounts "
                "> Manage Certificates) and delete the expired one."));
        } else if (soonest <= expiryWarningDays) {
            found.push_back(
                finding("Certificate", Verdict::warning,
                        fmt::format("'{}' expires in {} day{}", identity->name, soonest,
                                    soonest == 1 ? "" : "s"),
                        "Create its successor in Xcode now; apps signed before it expires keep "
                        "opening."));
        } else {
            found.push_back(
                finding("Certificate", Verdict::ok,
                        fmt::format("'{}' valid for {} more days", identity->name, soonest)));
        }
    }
    return found;
}

DoctorFinding ReleaseDoctor::notarization(const ProjectProfile& profile, StopToken stop) const {
    const auto& name = profile.notarization.keychainProfileName;
    if (name.empty()) {
        return finding("Notarization", Verdict::problem, "No keychain profile is set",
                       "Store the notary credentials with 'veltra notary store-credentials' and "
                       "set notarization.keychainProfileName.");
    }
    NotarizationEngine engine;
    const auto answer =
        engine.checkCredentials(name, std::chrono::duration<double>(timeLimit).count(), stop);
    if (answer.exitCode != 0) {
        const auto said = firstLine(combinedOutput(answer));
        return finding("Notarization", Verdict::problem,
                       "Keychain profile '" + name + "' does not work" +
                           (said.empty() ? std::string() : ": " + said),
                       "Store it again with 'veltra notary store-credentials " + name + "'.");
    }
    return finding("Notarization", Verdict::ok, "Keychain profile '" + name + "' works");
}

std::vector<DoctorFinding> ReleaseDoctor::gatekeeper(const ProjectProfile& profile,
                                                     StopToken stop) const {
    if (!profile.recentReleases || profile.recentReleases->empty() ||
        !profile.recentReleases->front().dmgURL || !ProcessRunner::findTool("spctl")) {
        return {};
    }
    const std::filesystem::path image = *profile.recentReleases->front().dmgURL;
    std::error_code error;
    if (!std::filesystem::is_regular_file(image, error)) {
        return {};
    }
    std::vector<DoctorFinding> found;
    for (const auto& verdict : GatekeeperChecks::assess(image, std::nullopt, stop)) {
        if (!verdict.accepted) {
            found.push_back(
                finding("Gatekeeper", Verdict::problem,
                        image.filename().string() + ": " + GatekeeperChecks::explain(verdict),
                        "Release again once it is fixed; the next release is "
                        "checked before it is published."));
        }
    }
    if (found.empty()) {
        found.push_back(finding("Gatekeeper", Verdict::ok,
                                image.filename().string() + " opens on a Mac (stapled, accepted)"));
    }
    return found;
}

DoctorFinding ReleaseDoctor::disk(const ProjectProfile* profile) const {
    const auto folder = temporaryDirectory.empty() ? fs::temp_directory_path() : temporaryDirectory;
    struct statvfs space {};
    if (::statvfs(folder.c_str(), &space) != 0) {
        return finding("Disk", Verdict::warning,
                       "Cannot tell the free space in " + folder.string());
    }
    const auto free = static_cast<std::uint64_t>(space.f_bavail) * space.f_frsize;
    std::optional<std::uint64_t> lastImage;
    if (profile != nullptr && profile->recentReleases && !profile->recentReleases->empty() &&
        profile->recentReleases->front().dmgFileSize > 0) {
        lastImage = static_cast<std::uint64_t>(profile->recentReleases->front().dmgFileSize);
    }
    if (!lastImage) {
        return finding("Disk", Verdict::ok, gibibytes(free) + " free in " + folder.string());
    }
    const auto needed = 3 * *lastImage;
    const auto verdict = free < needed       ? Verdict::problem
                         : free < 2 * needed ? Verdict::warning
                                             : Verdict::ok;
    return finding("Disk", verdict,
                   gibibytes(free) + " free in " + folder.string() + "; a release needs " +
                       gibibytes(needed) + " (three times the last image)",
                   verdict == Verdict::problem   ? "Free some space there before releasing."
                   : verdict == Verdict::warning ? "Little to spare: free some space there soon."
                                                 : "");
}

} // namespace veltra
