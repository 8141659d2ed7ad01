#include "FeedChanges.h"

#include "ReleaseLock.h"
#include "core/feed/AppcastDocument.h"
#include "core/feed/SparkleFeedParser.h"
#include "core/publishing/ReleasePublishingPlan.h"
#include "core/publishing/WebDeployer.h"
#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"

#include <algorithm>

namespace veltra {

void FeedChangeOutcome::record(ProjectProfile& profile) const {
    if (!profile.recentReleases) {
        return;
    }
    for (auto& manifest : *profile.recentReleases) {
        if (channel && manifest.buildNumber == build) {
            manifest.feedControls.channel = *channel;
        }
        if (std::find(removedBuilds.begin(), removedBuilds.end(), manifest.buildNumber) !=
            removedBuilds.end()) {
            manifest.withdrawnAt = Date::now();
        }
    }
}

FeedChangeOutcome FeedChanges::promote(const ProjectProfile& profile, const std::string& build,
                                       const std::string& channel, const LogHandler& log,
                                       StopToken stop) const {
    return change(Kind::promote, profile, build, channel, false, log, std::move(stop));
}

FeedChangeOutcome FeedChanges::withdraw(const ProjectProfile& profile, const std::string& build,
                                        bool deleteFiles, const LogHandler& log,
                                        StopToken stop) const {
    return change(Kind::withdraw, profile, build, {}, deleteFiles, log, std::move(stop));
}

FeedChangeOutcome FeedChanges::change(Kind kind, const ProjectProfile& profile,
                                      const std::string& build, const std::string& channel,
                                      bool deleteFiles, const LogHandler& log,
                                      StopToken stop) const {
    const auto say = [&log](const std::string& line) {
        if (log) {
            log(line);
        }
    };
    const auto appName = profile.appName.empty() ? profile.name : profile.appName;
    const auto lock = ReleaseLock::acquire(lockFolder, profile, appName);
    const auto delivery = ReleasePublishingPlan::resolve(profile, say);
    if (!delivery) {
        throw VeltraError("Veltra", errorCode::notFound,
                          "No website repository holds " + appName +
                              "'s feed. Set webDeploy.websiteRepoPath first.");
    }
    WebDeployer deployer;
    deployer.lockFolder = lockFolder;
    const auto branch = WebDeployer::branch(profile.webDeploy);
    const auto feedPath =
        ReleasePublishingPlan::downloadsFolder(profile.webDeploy) + "/appcast.xml";
    const auto subject =
        (kind == Kind::promote ? "Promote " : "Withdraw ") + appName + " build " + build +
        (kind == Kind::promote ? (channel.empty() ? " to everyone" : " to channel " + channel)
                               : std::string());
    // The same checks as a release: nothing private rides along, and the feed is origin's.
    if (profile.webDeploy.gitCommitAndPush) {
        const auto status =
            deployer.repositoryInspector.inspect(delivery->websiteRepoPath, branch, stop);
        const auto blocker =
            status.blocker ? status.blocker
                           : deployer.repositoryInspector.releaseBlocker(
                                 delivery->websiteRepoPath, branch, {feedPath}, subject, stop);
        if (blocker) {
            throw VeltraError("Veltra", errorCode::conflict, *blocker);
        }
    }
    const auto document = readFile(delivery->appcastPath);
    const auto items = SparkleFeedParser::parse(document);
    const auto ranges = appcast::itemRanges(document);
    if (!items || ranges.size() != items->size()) {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          "The feed at " + delivery->appcastPath.string() +
                              " cannot be read: " + SparkleFeedParser::problem(document) + ".");
    }
    const auto found = std::find_if(items->begin(), items->end(), [&](const SparkleFeedItem& item) {
        return item.stated.version == build;
    });
    if (found == items->end()) {
        throw VeltraError("Veltra", errorCode::notFound,
                          "The feed of " + appName + " offers no build " + build +
                              ". 'veltra appcast parse " + delivery->appcastPath.string() +
                              "' lists what it offers.");
    }
    const auto index = static_cast<std::size_t>(found - items->begin());

    FeedChangeOutcome outcome;
    outcome.build = build;
    std::string updated;
    std::vector<SparkleFeedItem> dropped;
    std::vector<SparkleFeedItem> kept;
    if (kind == Kind::promote) {
        if (found->controls.channel == channel) {
            throw VeltraError("Veltra", errorCode::invalidSetup,
                              "Build " + build + " is offered to " +
                                  (channel.empty() ? "everyone" : "channel " + channel) +
                                  " already.");
        }
        auto controls = found->controls;
        controls.channel = channel;
        const auto range = ranges[index];
        updated = appcast::replaceItem(
            document, range,
            appcast::withControls(
                std::string_view(document).substr(range.begin, range.end - range.begin), controls));
        outcome.channel = channel;
        outcome.summary = "Build " + build + " (" + found->shortVersion + ") is offered to " +
                          (channel.empty() ? "everyone" : "channel " + channel) + " now";
    } else {
        // The withdrawn item goes, and with it whatever retention no longer keeps.
        const auto keep = profile.sparkle.keepReleases.value_or(0);
        std::size_t remaining = 0;
        std::vector<bool> drop(items->size(), false);
        for (std::size_t at = 0; at < items->size(); ++at) {
            drop[at] = at == index || (keep > 0 && remaining >= static_cast<std::size_t>(keep));
            remaining += drop[at] ? 0U : 1U;
            (drop[at] ? dropped : kept).push_back((*items)[at]);
        }
        updated = appcast::removeItems(document, [&drop](std::size_t at) { return drop[at]; });
        for (const auto& item : dropped) {
            outcome.removedBuilds.push_back(item.version);
        }
        outcome.summary = "Build " + build + " (" + found->shortVersion + ") is withdrawn";
        if (deleteFiles) {
            outcome.removedFiles =
                WebDeployer::filesOnlyNamedBy(*delivery, profile.webDeploy, appName, dropped, kept);
        } else if (dropped.size() > 1) {
            // Retention's own drops take their files, as a release's do.
            std::vector<SparkleFeedItem> retired(dropped.begin(), dropped.end());
            std::erase_if(
                retired, [&](const SparkleFeedItem& item) { return item.stated.version == build; });
            kept.push_back(*found);
            outcome.removedFiles =
                WebDeployer::filesOnlyNamedBy(*delivery, profile.webDeploy, appName, retired, kept);
        }
    }
    // Never leave a feed that reads differently from what was meant.
    const auto after = SparkleFeedParser::parse(updated);
    const auto expectedCount = items->size() - (kind == Kind::withdraw ? dropped.size() : 0);
    if (!after || after->size() != expectedCount) {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          "The feed could not be changed safely; it was left as it was.");
    }
    writeFileAtomically(delivery->appcastPath, updated);
    say("Success: " + outcome.summary + " in " + delivery->appcastPath.string());
    outcome.publication = deployer.publishFeedChange(
        profile.webDeploy, *delivery, WebFeedChange{subject, outcome.removedFiles}, say, stop);
    return outcome;
}

} // namespace veltra
