#include "Commands.h"
#include "JsonOutput.h"
#include "LinePrinter.h"
#include "OpenStore.h"
#include "core/feed/PublishedFeedReader.h"
#include "core/feed/SparkleFeedParser.h"
#include "core/pipeline/FeedChanges.h"
#include "core/pipeline/SparkleAutoResolver.h"
#include "core/pipeline/SparkleKeys.h"
#include "core/pipeline/WebsitePublicationWatcher.h"
#include "core/process/TransientRetry.h"
#include "core/publishing/ReleasePublishingPlan.h"
#include "core/publishing/WebDeployer.h"
#include "core/publishing/WebsiteCreator.h"
#include "core/support/Text.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <unistd.h>

namespace veltra::cli {
namespace {

void addDelivery(CLI::App& app, CliContext& context) {
    auto* command = app.add_subcommand(
        "delivery", "Show where a profile's next release goes: repository, feed and download");
    auto profile = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("NAME|ID", *profile, "The profile's name or ID")->required();
    command->add_flag("--json", *json, "Print the plan as JSON");
    command->callback([&context, profile, json] {
        OpenStore store(context);
        const auto& chosen = store.find(*profile);
        std::vector<std::string> lines;
        const auto plan = ReleasePublishingPlan::resolve(
            chosen, [&lines](const std::string& line) { lines.push_back(line); });
        const auto appName = chosen.appName.empty() ? chosen.name : chosen.appName;
        if (*json) {
            Json out{{"log", lines}, {"delivers", plan.has_value()}};
            if (plan) {
                out["websiteRepoURL"] = plan->websiteRepoPath.string();
                out["appcastURL"] = plan->appcastPath.string();
                out["publicAppcastURL"] = plan->publicAppcastURL;
                out["downloadBaseURL"] = plan->downloadBaseURL;
                out["downloadURLPattern"] = plan->downloadURLPattern;
                out["releaseNotesURLPattern"] = plan->releaseNotesURLPattern;
                out["downloadURL"] = plan->downloadURL(appName + ".dmg");
            }
            context.out << jsonText(out) << '\n';
            return;
        }
        for (const auto& line : lines) {
            context.out << line << '\n';
        }
        if (!plan) {
            return;
        }
        const auto orUnset = [](const std::string& text) {
            return text.empty() ? std::string("(no site address set)") : text;
        };
        context.out << "Repository:    " << plan->websiteRepoPath.string() << '\n'
                    << "Feed file:     " << plan->appcastPath.string() << '\n'
                    << "Feed address:  " << orUnset(plan->publicAppcastURL) << '\n'
                    << "Download:      " << orUnset(plan->downloadURL(appName + ".dmg")) << '\n'
                    << "Notes:         " << orUnset(plan->releaseNotesURL(appName)) << '\n';
    });
}

void addInit(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand(
        "init", "Create a website repository with Veltra's download page and an empty feed");
    auto folder = std::make_shared<std::string>();
    auto profile = std::make_shared<std::string>();
    auto remote = std::make_shared<std::string>();
    auto earlier = std::make_shared<std::string>();
    command->add_option("NAME|ID", *profile, "The profile's name or ID")->required();
    command->add_option("DIR", *folder, "The new repository's folder");
    command->add_option("--profile", *earlier)
        ->group(""); // the earlier spelling: --profile NAME DIR
    command->add_option("--remote", *remote, "origin's address");
    command->callback([&context, folder, profile, remote, earlier] {
        if (!earlier->empty() && folder->empty()) {
            *folder = *profile;
            *profile = *earlier;
        }
        if (folder->empty()) {
            throw CLI::RequiredError("DIR");
        }
        OpenStore store(context);
        auto chosen = store.find(*profile);
        const auto path = std::filesystem::absolute(expandTilde(standardizePath(*folder)));
        LinePrinter print(context.out);
        WebsiteCreator().create(path, chosen,
                                remote->empty() ? std::nullopt : std::optional(*remote),
                                std::ref(print), context.stop);
        chosen.webDeploy.websiteRepoPath = path.string();
        if (!remote->empty()) {
            chosen.webDeploy.websiteRepoRemoteURL = *remote;
        }
        // Publishing there means committing and pushing there.
        const bool turnedOn = !chosen.webDeploy.gitCommitAndPush;
        chosen.webDeploy.gitCommitAndPush = true;
        store.store().update(chosen);
        store.save();
        print("Success: Profile " + chosen.name + " now publishes to " + path.string() +
              (turnedOn ? " (webDeploy.gitCommitAndPush is on now: releases commit and push it)"
                        : ""));
    });
}

// The release a command is about: the newest, or the newest of that version.
template <typename Profile> auto* findRelease(Profile& profile, const std::string& which) {
    decltype(&profile.recentReleases->front()) found = nullptr;
    if (profile.recentReleases) {
        for (auto& manifest : *profile.recentReleases) {
            if (which.empty() || which == "latest" || manifest.version == which) {
                return &manifest;
            }
        }
    }
    return found;
}

void addDeploy(CLI::App& group, CliContext& context) {
    auto* command =
        group.add_subcommand("deploy", "Put a disk image on the website and push it to origin");
    auto profile = std::make_shared<std::string>();
    auto dmg = std::make_shared<std::string>();
    auto version = std::make_shared<std::string>();
    auto build = std::make_shared<std::string>();
    auto notesFile = std::make_shared<std::string>();
    auto signature = std::make_shared<std::string>();
    auto feedFile = std::make_shared<std::string>();
    command->add_option("NAME|ID", *profile, "The profile's name or ID")->required();
    command->add_option("--dmg", *dmg, "The signed disk image")->required();
    command->add_option("--version", *version, "The marketing version")->required();
    command->add_option("--build", *build, "The build number")->required();
    command->add_option("--notes", *notesFile, "A Markdown file with the release notes");
    command->add_option("--signature", *signature,
                        "The image's EdDSA signature (default: the feed's, for this build)");
    command->add_option("--feed", *feedFile,
                        "The appcast.xml to publish with the image (default: the website's)");
    command->callback([&context, profile, dmg, version, build, notesFile, signature, feedFile] {
        OpenStore store(context);
        auto chosen = store.find(*profile);
        LinePrinter print(context.out);
        const auto plan = ReleasePublishingPlan::resolve(chosen, std::ref(print));
        if (!plan) {
            throw failure("No website repository to deploy to. Set webDeploy.websiteRepoPath "
                          "or create one with 'veltra website init'.");
        }
        WebDeployRelease release;
        release.dmgPath = expandTilde(*dmg);
        release.appName = chosen.appName.empty() ? chosen.name : chosen.appName;
        release.version = *version;
        release.build = *build;
        release.notes = notesFile->empty() ? std::string() : readFile(expandTilde(*notesFile));
        release.size = static_cast<std::int64_t>(std::filesystem::file_size(release.dmgPath));
        release.signature = *signature;
        // The image replaces the one every update points to: the feed going out with it must
        // offer exactly this file, or every user's update fails its signature check.
        const auto feedPath = feedFile->empty() ? plan->appcastPath : expandTilde(*feedFile);
        std::error_code missing;
        const auto feedText =
            std::filesystem::exists(feedPath, missing) ? readFile(feedPath) : std::string();
        const auto items = SparkleFeedParser::parse(feedText);
        if (release.signature.empty() && items) {
            for (const auto& item : *items) {
                if (item.version == *build) {
                    release.signature = item.edSignature;
                }
            }
        }
        const auto length = std::to_string(release.size);
        const bool offered =
            items && !release.signature.empty() &&
            std::any_of(items->begin(), items->end(), [&](const SparkleFeedItem& item) {
                return item.enclosureLength == length && item.edSignature == release.signature;
            });
        if (!offered) {
            throw failure(
                "The feed " + feedPath.string() + " has no item for this image (length " + length +
                (release.signature.empty() ? std::string() : ", signature " + release.signature) +
                "). Deployed, it would replace the download every update points to and "
                "every update would fail its signature check. Add the release to the "
                "feed first ('veltra appcast add … --dmg'), or give the feed that "
                "offers it with --feed FILE.");
        }
        if (!feedFile->empty()) {
            writeFileAtomically(plan->appcastPath, feedText);
        }
        const auto publication =
            WebDeployer().deploy(chosen.webDeploy, *plan, release, std::ref(print), context.stop);
        if (chosen.recentReleases) {
            for (auto& manifest : *chosen.recentReleases) {
                if (manifest.version == *version && manifest.buildNumber == *build) {
                    manifest.websitePublication = publication;
                    if (!manifest.monitoringReleaseID) {
                        manifest.monitoringReleaseID = Uuid::random().string();
                    }
                    store.store().update(chosen);
                    store.save();
                    print("Info: Recorded the pending publication on release " + *version + " (" +
                          *build + ")");
                    break;
                }
            }
        }
    });
}

// The public key the app checks its updates with: its project's SUPublicEDKey, else the one of
// the key its releases are signed with. Empty when neither can be read.
std::string publicKeyOf(const ProjectProfile& profile, StopToken stop) {
    if (profile.sourceProjectPath) {
        if (auto key = SparkleAutoResolver::fromProject(expandTilde(*profile.sourceProjectPath))
                           .publicKey) {
            return *key;
        }
    }
    try {
        return SparkleKeys::load(SparkleKeys::ofProfile(profile.sparkle), std::move(stop))
            .publicKeyBase64();
    } catch (const VeltraError&) {
        return {};
    }
}

// Checks each item the live feed offers (or only the newest) as a Mac would install it.
int checkFeedItems(CliContext& context, const ProjectProfile& profile, bool all) {
    const auto addresses = ReleasePublishingPlan::publicAddresses(profile);
    if (addresses.publicAppcastURL.empty()) {
        throw failure("The profile sets no site address (webDeploy.siteURL): there is no live "
                      "feed to check.");
    }
    const auto key = publicKeyOf(profile, context.stop);
    if (key.empty()) {
        throw failure("The app's public EdDSA key could not be found (neither the project's "
                      "SUPublicEDKey nor the signing key): downloads cannot be verified.");
    }
    const auto items = SparkleFeedParser::parse(
        PublishedFeedReader().liveFeed(addresses.publicAppcastURL, context.stop));
    if (!items || items->empty()) {
        throw failure("The live feed at " + addresses.publicAppcastURL + " offers nothing.");
    }
    const auto appName = profile.appName.empty() ? profile.name : profile.appName;
    WebDeployer deployer;
    std::size_t broken = 0;
    for (std::size_t index = 0; index < (all ? items->size() : 1); ++index) {
        const auto& item = (*items)[index];
        if (const auto problem = deployer.itemProblem(item, key, context.stop)) {
            ++broken;
            context.out << "Broken: build " << item.version << " (" << item.shortVersion
                        << "): " << *problem << "\n   Stop offering it: veltra website withdraw "
                        << shellCommandLine({profile.name}) << " --build " << item.version << '\n';
        } else {
            context.out << "Verified: build " << item.version << " (" << item.shortVersion
                        << "): " << item.enclosureLength << " bytes, signature holds\n";
        }
    }
    context.out << (broken == 0 ? "Every checked item of " + appName + "'s live feed installs."
                                : std::to_string(broken) + " item(s) of " + appName +
                                      "'s live feed cannot be installed.")
                << '\n';
    return broken == 0 ? 0 : 1;
}

// Follows the live feed until it shows the change, at most `limit`.
bool followLiveFeed(CliContext& context, const ProjectProfile& profile, const std::string& build,
                    const std::optional<std::string>& channel, std::chrono::seconds limit) {
    const auto feedURL = ReleasePublishingPlan::publicAddresses(profile).publicAppcastURL;
    if (feedURL.empty()) {
        return false;
    }
    context.out << "Waiting for the live feed to show the change (at most " << limit.count()
                << " s)...\n"
                << std::flush;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        try {
            const auto items =
                SparkleFeedParser::parse(PublishedFeedReader().liveFeed(feedURL, context.stop));
            if (items) {
                const auto found =
                    std::find_if(items->begin(), items->end(), [&](const SparkleFeedItem& item) {
                        return item.stated.version == build;
                    });
                if (channel ? found != items->end() && found->controls.channel == *channel
                            : found == items->end()) {
                    return true;
                }
            }
        } catch (const CancellationError&) {
            throw;
        } catch (const std::exception&) {
            // Not served yet; the next look may be.
        }
        if (std::chrono::steady_clock::now() >= deadline ||
            !waitUnlessStopped(std::chrono::seconds(5), context.stop)) {
            return false;
        }
    }
}

void addFeedChange(CLI::App& group, CliContext& context, bool promote) {
    auto* command = group.add_subcommand(
        promote ? "promote" : "withdraw",
        promote ? "Offer a published release to everyone, or to another channel"
                : "Stop offering a published release in the feed");
    auto profile = std::make_shared<std::string>();
    auto build = std::make_shared<std::string>();
    auto channel = std::make_shared<std::string>();
    auto deleteFiles = std::make_shared<bool>(false);
    auto wait = std::make_shared<std::string>();
    auto noWait = std::make_shared<bool>(false);
    command->add_option("NAME|ID", *profile, "The profile's name or ID")->required();
    command->add_option("--build", *build, "The build the feed offers")->required();
    if (promote) {
        command->add_option("--channel", *channel,
                            "Offer it on this channel instead (default: to everyone)");
    } else {
        command->add_flag("--delete-files", *deleteFiles,
                          "Also remove its image and notes from the site (never the download "
                          "page's stable files or a file another release names)");
    }
    auto* waitOption = command->add_option(
        "--wait", *wait,
        "After the push, follow the live feed until it shows the change, at most this long "
        "(10m, 90s, 1h; default 10m on a terminal)");
    waitOption->type_name("DURATION");
    command->add_flag("--no-wait", *noWait, "Do not follow the live feed after the push")
        ->excludes(waitOption);
    command->callback([&context, promote, profile, build, channel, deleteFiles, wait, noWait] {
        if (!channel->empty()) {
            if (const auto problem = feedControls::channelProblem(*channel)) {
                throw failure("--channel '" + *channel + "' cannot be used: " + *problem + ".");
            }
        }
        const auto follow = followDuration(*wait, !*noWait);
        OpenStore store(context);
        auto chosen = store.find(*profile);
        LinePrinter print(context.out);
        const FeedChanges changes;
        const auto outcome =
            promote ? changes.promote(chosen, *build, *channel, std::ref(print), context.stop)
                    : changes.withdraw(chosen, *build, *deleteFiles, std::ref(print), context.stop);
        outcome.record(chosen);
        store.store().update(chosen);
        store.save();
        print("Success: " + outcome.summary + "; pushed.");
        if (!follow) {
            print("Check the live feed with 'veltra website check " +
                  shellCommandLine({chosen.name}) + " --all'.");
            return;
        }
        if (followLiveFeed(context, chosen, *build,
                           promote ? std::optional<std::string>(*channel) : std::nullopt,
                           *follow)) {
            print("Success: The live feed shows the change.");
        } else {
            if (context.stop.stop_requested()) {
                throw CancellationError();
            }
            print("Warning: The live feed does not show the change yet; check it with 'veltra "
                  "website check " +
                  shellCommandLine({chosen.name}) + " --all'.");
            context.exitStatus = 1;
        }
    });
}

void addCheck(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand(
        "check", "Check that the live site serves a release's feed and download");
    auto profile = std::make_shared<std::string>();
    auto which = std::make_shared<std::string>("latest");
    auto watch = std::make_shared<bool>(false);
    auto interval = std::make_shared<double>(20);
    auto timeout = std::make_shared<double>(900);
    auto all = std::make_shared<bool>(false);
    command->add_option("NAME|ID", *profile, "The profile's name or ID")->required();
    command->add_flag("--all", *all,
                      "Download every item the live feed offers and check its length, its "
                      "signature and its notes");
    command->add_option("--release", *which, "VERSION or latest (default)");
    command->add_flag("--watch", *watch, "Keep checking until live or the time limit");
    command->add_option("--interval", *interval, "Seconds between checks (default 20)")
        ->check(CLI::PositiveNumber);
    command->add_option("--timeout", *timeout, "Seconds before giving up (default 900)")
        ->check(CLI::NonNegativeNumber);
    command->callback([&context, profile, which, watch, interval, timeout, all] {
        OpenStore store(context);
        const auto& chosen = store.find(*profile);
        if (*all) {
            context.exitStatus = checkFeedItems(context, chosen, true);
            return;
        }
        const auto* manifest = findRelease(chosen, *which);
        if (manifest == nullptr) {
            throw failure("No release " + (*which == "latest" ? std::string() : *which + " ") +
                          "recorded for " + chosen.name + ".");
        }
        if (!manifest->websitePublication) {
            context.out << websiteStatusText(std::nullopt) << '\n';
            context.exitStatus = 1;
            return;
        }
        auto edited = chosen;
        auto& release = *findRelease(edited, *which);
        if (!release.monitoringReleaseID) {
            release.monitoringReleaseID = Uuid::random().string();
            store.store().update(edited);
        }
        const auto releaseID = *release.monitoringReleaseID;
        const auto toMilliseconds = [](double seconds) {
            return std::chrono::milliseconds(static_cast<long long>(seconds * 1000));
        };
        EventLoop& loop = store.loop();
        // Without --watch: one check, then give up.
        WebsitePublicationWatcher watcher(
            loop, store.store(), store.notifications(), WebsitePublicationProbe::shared(),
            {toMilliseconds(*interval),
             *watch ? toMilliseconds(*timeout) : std::chrono::milliseconds(0),
             std::chrono::milliseconds(500)});
        std::optional<WebsitePublicationState> finished;
        watcher.onCheck = [&](const std::string&, WebsitePublicationState state) {
            if (*watch && state == WebsitePublicationState::pending) {
                context.out << "Info: Not live yet; checking again in " << *interval << " s\n"
                            << std::flush;
            }
        };
        watcher.onFinish = [&](const std::string&, WebsitePublicationState state) {
            finished = state;
            loop.quit();
        };
        // Why the live site does not serve it, for the user to act on.
        const auto why = [&](const ReleaseManifest& shown) {
            if (const auto problem = WebDeployer().liveSiteProblem(
                    *shown.websitePublication, shown.version, shown.buildNumber, context.stop)) {
                context.out << "Why: " << *problem << '\n';
            }
        };
        if (!*watch) {
            // One look: a miss leaves the release as it was (pending stays pending). The image
            // is downloaded and its signature checked when the app's key is known.
            WebDeployer deployer;
            deployer.publicKey = publicKeyOf(chosen, context.stop);
            const auto problem = deployer.liveSiteProblem(
                *release.websitePublication, release.version, release.buildNumber, context.stop);
            auto& publication = *release.websitePublication;
            publication.lastCheckedAt = Date::now();
            if (!problem) {
                publication.state = WebsitePublicationState::live;
            }
            store.store().update(edited);
            store.save();
            context.out << websiteStatusText(publication) << '\n';
            if (problem) {
                context.out << "Why: " << *problem << '\n';
            }
            context.exitStatus = problem ? 1 : 0;
            return;
        }
        watcher.watch(chosen.id, releaseID);
        StopCallback cancelled(context.stop, [&loop] { loop.quit(); });
        loop.run();
        store.save();
        if (context.stop.stop_requested()) {
            throw CancellationError();
        }
        const auto* after = findRelease(*store.store().find(chosen.id), *which);
        context.out << websiteStatusText(after->websitePublication) << '\n';
        if (finished != WebsitePublicationState::live) {
            why(*after);
        }
        context.exitStatus = finished == WebsitePublicationState::live ? 0 : 1;
    });
}

} // namespace

void addWebsiteCommands(CLI::App& app, CliContext& context) {
    addDelivery(app, context);
    auto* group = app.add_subcommand("website", "Create, deploy and check the download website");
    group->require_subcommand(1);
    addInit(*group, context);
    addDeploy(*group, context);
    addCheck(*group, context);
    addFeedChange(*group, context, true);
    addFeedChange(*group, context, false);
}

} // namespace veltra::cli
