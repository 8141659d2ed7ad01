#include "DoctorChecks.h"
#include "ReleaseDoctor.h"
#include "SparkleAutoResolver.h"
#include "SparkleKeys.h"
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
#include "core/signing/NotarizationEngine.h"
#include "core/support/Base64.h"
#include "core/support/FileUtilities.h"
#include "core/support/HttpClient.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"
#include "core/xcode/SparkleProjectSetup.h"
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

// The checks of what a release publishes: the update feed and key, the website, GitHub.
namespace veltra {
namespace {

namespace fs = std::filesystem;
using namespace doctor;

} // namespace

std::vector<DoctorFinding> ReleaseDoctor::sparkle(const ProjectProfile& profile) const {
    std::vector<DoctorFinding> found;
    const auto setUp =
        "Run '" + shellCommandLine({"veltra", "sparkle", "setup", profile.name}) + "'.";
    SparkleAppSettings app;
    if (profile.sourceProjectPath && !profile.sourceProjectPath->empty()) {
        const auto project = fs::path(expandTilde(standardizePath(*profile.sourceProjectPath)));
        app = SparkleAutoResolver::fromProject(project);
        // A project the setup cannot read is the archive's to report.
        try {
            SparkleSetupRequest request;
            request.project = project;
            request.scheme = profile.selectedScheme;
            const auto plan = SparkleProjectSetup::plan(request);
            if (plan.addsPackage) {
                found.push_back(
                    finding("Sparkle", Verdict::problem,
                            "Sparkle not in the project (target " + plan.targetName + ")", setUp));
            }
        } catch (const VeltraError&) {
        }
    }
    if (!app.feedURL && !app.publicKey) {
        found.push_back(finding("Sparkle", Verdict::problem,
                                "The app carries neither SUFeedURL nor SUPublicEDKey", setUp));
        return found;
    }

    // The key releases are signed with, and the key the app checks them against.
    const auto& keyPath = profile.sparkle.privateKeyPath;
    std::optional<std::string> ourKey;
    // No key file named: the key Sparkle's tools keep, which the release signs with then.
    const auto location = SparkleKeys::ofProfile(profile.sparkle);
    try {
        const auto key = SparkleKeys::load(location);
        ourKey = key.publicKeyBase64();
        found.push_back(finding("Sparkle key", Verdict::ok,
                                location.description() + " reads; public key " + *ourKey));
    } catch (const std::exception& error) {
        found.push_back(finding("Sparkle key", Verdict::problem, error.what(),
                                keyPath.empty()
                                    ? "Run 'veltra sparkle keys generate', or set "
                                      "sparkle.privateKeyPath to a key file."
                                    : "Export the key again ('veltra sparkle keys export --file "
                                      "FILE') and point sparkle.privateKeyPath at it."));
    }
    if (!app.publicKey) {
        found.push_back(finding("Sparkle key", Verdict::problem,
                                "The app carries no SUPublicEDKey, so it accepts no update",
                                setUp + " It adds SUPublicEDKey" +
                                    (ourKey ? " = " + *ourKey : std::string()) +
                                    " to the app's Info.plist."));
    } else if (ourKey && *app.publicKey != *ourKey) {
        found.push_back(finding(
            "Sparkle key", Verdict::problem,
            "The app's SUPublicEDKey (" + *app.publicKey + ") is not the key file's (" + *ourKey +
                "); users could never update",
            "Put the key file's public key into the app's SUPublicEDKey, or use the key file "
            "that belongs to the shipped key."));
    }

    const auto expected = ReleasePublishingPlan::publicAddresses(profile).publicAppcastURL;
    if (!app.feedURL) {
        found.push_back(finding("Sparkle feed", Verdict::problem, "The app carries no SUFeedURL",
                                setUp + " It adds SUFeedURL" +
                                    (expected.empty() ? std::string() : " = " + expected) +
                                    " to the app's Info.plist."));
    } else if (expected.empty()) {
        found.push_back(
            finding("Sparkle feed", Verdict::warning,
                    "The app reads " + *app.feedURL + ", but the profile sets no website address",
                    "Set webDeploy.siteURL so releases publish where the app reads."));
    } else if (*app.feedURL != expected) {
        found.push_back(
            finding("Sparkle feed", Verdict::problem,
                    "The app reads " + *app.feedURL + ", but releases publish " + expected,
                    "Make the app's SUFeedURL and the profile's website address "
                    "agree before releasing."));
    } else {
        found.push_back(finding("Sparkle feed", Verdict::ok, "The app reads " + expected));
    }
    return found;
}

// Every item's download answers with the item's length (HEAD, so nothing is downloaded): an item
// whose file went or was replaced fails every Mac it is offered to.
DoctorFinding ReleaseDoctor::liveDownloads(const ProjectProfile& profile,
                                           const std::vector<SparkleFeedItem>& items,
                                           StopToken stop) const {
    HttpClient client;
    std::vector<std::string> broken;
    std::string withdraw;
    for (const auto& item : items) {
        std::string why;
        try {
            HttpRequest head;
            head.method = HttpRequest::Method::head;
            head.url = item.enclosureURL;
            head.timeout = std::chrono::duration<double>(timeLimit).count();
            head.headers = {"Cache-Control: no-cache"};
            const auto answer = client.send(head, stop);
            if (answer.status < 200 || answer.status > 299) {
                why = "HTTP " + std::to_string(answer.status);
            } else if (answer.contentLength &&
                       std::to_string(*answer.contentLength) != item.enclosureLength) {
                why = std::to_string(*answer.contentLength) + " bytes, not " + item.enclosureLength;
            }
        } catch (const CancellationError&) {
            throw;
        } catch (const std::exception& error) {
            why = error.what();
        }
        if (!why.empty()) {
            broken.push_back("build " + item.version + " (" + why + ")");
            withdraw += (withdraw.empty() ? "" : "; ") + std::string("veltra website withdraw ") +
                        shellCommandLine({profile.name}) + " --build " + item.version;
        }
    }
    if (broken.empty()) {
        return finding(
            "Live downloads", Verdict::ok,
            fmt::format("All {} item(s) of the feed answer with their length", items.size()));
    }
    std::string list;
    for (const auto& entry : broken) {
        list += (list.empty() ? "" : ", ") + entry;
    }
    return finding("Live downloads", Verdict::problem, "Items no Mac can install: " + list,
                   "Stop offering them: " + withdraw + ".");
}

std::vector<DoctorFinding> ReleaseDoctor::website(const ProjectProfile& profile,
                                                  StopToken stop) const {
    std::vector<DoctorFinding> found;
    const auto repository = ReleasePublishingPlan::resolveRepository(profile);
    if (!repository) {
        found.push_back(finding("Website", Verdict::warning, "No website repository is found",
                                "Set webDeploy.websiteRepoPath, or make one with 'veltra "
                                "website init DIR --profile " +
                                    profile.name + "'."));
        return found;
    }
    const auto branch = WebDeployer::branch(profile.webDeploy);
    WebsiteRepositoryInspector inspector;
    const auto status = inspector.inspect(*repository, branch, stop);
    if (status.blocker) {
        found.push_back(finding("Website", Verdict::problem, *status.blocker));
        return found;
    }
    found.push_back(finding("Website", Verdict::ok,
                            repository->string() + " on '" + branch + "', origin " +
                                status.originURL.value_or("")));

    const auto remote =
        GitCommand::run(*repository, {"ls-remote", "--heads", "--end-of-options", "origin", branch},
                        stop, std::chrono::duration<double>(timeLimit).count());
    if (remote.exitCode != 0) {
        const auto error = GitCommand::failure("origin cannot be reached", remote);
        found.push_back(finding("Website origin", Verdict::problem, error.what(),
                                "Check the address and your credentials with 'git ls-remote "
                                "origin' in " +
                                    repository->string() + "."));
    } else {
        found.push_back(finding("Website origin", Verdict::ok, "origin answers"));
    }

    PublishedFeedReader reader;
    reader.httpTimeout = std::chrono::duration<double>(timeLimit).count();
    const auto url = ReleasePublishingPlan::publicAddresses(profile).publicAppcastURL;
    std::optional<std::int64_t> liveBuild;
    if (url.empty()) {
        found.push_back(finding("Live feed", Verdict::warning,
                                "The profile sets no website address",
                                "Set webDeploy.siteURL so releases can be checked on the live "
                                "site."));
    } else {
        try {
            const auto text = reader.liveFeed(url, stop);
            const auto items = SparkleFeedParser::parse(text);
            if (!items) {
                found.push_back(finding("Live feed", Verdict::problem,
                                        url + " is not a feed Sparkle can read (" +
                                            SparkleFeedParser::problem(text) + ")",
                                        "Publish a valid appcast.xml at that address."));
            } else {
                if (const auto newest = newestBuild(*items)) {
                    liveBuild = newest->build;
                }
                found.push_back(
                    finding("Live feed", Verdict::ok,
                            url + " reads" +
                                (liveBuild ? ", newest build " + std::to_string(*liveBuild)
                                           : std::string(", no release yet"))));
                found.push_back(liveDownloads(profile, *items, stop));
            }
        } catch (const CancellationError&) {
            throw;
        } catch (const std::exception& error) {
            found.push_back(finding("Live feed", Verdict::warning,
                                    url + " cannot be read: " + error.what(),
                                    "Expected before the first release; otherwise check that the "
                                    "site is published."));
        }
    }

    if (profile.sourceProjectPath && !profile.sourceProjectPath->empty()) {
        const auto appcast = repository.value() /
                             ReleasePublishingPlan::downloadsFolder(profile.webDeploy) /
                             "appcast.xml";
        const auto info = VersionManager().readVersionInfo(
            expandTilde(standardizePath(*profile.sourceProjectPath)),
            fs::exists(appcast) ? std::optional<std::string>(appcast.string()) : std::nullopt);
        auto next = info.nextSuggestedBuild;
        if (liveBuild && *liveBuild >= next) {
            next = *liveBuild + 1;
        }
        found.push_back(finding("Next build", Verdict::ok,
                                fmt::format("The next release must use build {} or above "
                                            "(the project has {})",
                                            next, info.currentBuild)));
    }
    return found;
}

DoctorFinding ReleaseDoctor::github(const ProjectProfile* profile, StopToken stop) const {
    const bool needed = profile != nullptr && profile->githubRelease.enabled;
    if (ProcessRunner::run(ProcessRequest{.command = "which", .arguments = {"gh"}}, stop)
            .exitCode != 0) {
        return finding("GitHub", needed ? Verdict::problem : Verdict::warning,
                       "GitHub's command-line tool 'gh' is not installed",
                       "Install it ('brew install gh'), then run 'gh auth login'.");
    }
    const auto status = ProcessRunner::run(
        ProcessRequest{.command = "gh", .arguments = {"auth", "status"}, .timeout = 30}, stop);
    if (status.exitCode != 0) {
        return finding("GitHub", needed ? Verdict::problem : Verdict::warning,
                       "gh is not logged in: " + firstLine(combinedOutput(status)),
                       "Run 'gh auth login'.");
    }
    return finding("GitHub", Verdict::ok, "gh is installed and logged in");
}

} // namespace veltra
