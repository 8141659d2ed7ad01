#include "WebDeployer.h"

#include "DownloadPageTemplate.h"
#include "GitCommand.h"
#include "core/feed/SparkleFeedParser.h"
#include "core/support/FileCopy.h"
#include "core/support/FileUtilities.h"
#include "core/support/GitRefName.h"
#include "core/support/PathRules.h"
#include "core/support/Secrets.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"

#include <mutex>
#include <tuple>

#include <fmt/format.h>

namespace veltra {
namespace {

template <typename Operation> void fileStep(Operation&& operation) {
    try {
        operation();
    } catch (const std::filesystem::filesystem_error& error) {
        throw VeltraError("POSIX", error.code().value(), error.what());
    }
}

} // namespace

std::string WebDeployer::branch(const WebDeployConfig& config) {
    const std::string name(trimWhitespace(config.gitBranch));
    return name.empty() ? "main" : name;
}

std::vector<std::string> WebDeployer::releasePaths(const WebDeployConfig& config,
                                                   const std::string& appName, bool withFeed) {
    const auto downloads = ReleasePublishingPlan::downloadsFolder(config);
    std::vector<std::string> paths{downloads + "/" + appName + ".dmg",
                                   downloads + "/" + appName + ".md", downloads + "/icon.png"};
    if (!config.indexHtmlRelativePath.empty()) {
        paths.push_back(config.indexHtmlRelativePath);
    }
    if (withFeed) {
        paths.push_back(downloads + "/appcast.xml");
    }
    return paths;
}

std::string WebDeployer::commitSubject(const std::string& appName, const std::string& version,
                                       const std::string& build) {
    return "Release " + appName + " v" + version + " (build " + build + ") DMG & update feed";
}

void WebDeployer::checkFileName(const std::string& appName) {
    if (const auto problem = fileNameProblem(appName)) {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          "The app name '" + std::string(appName.c_str()) +
                              "' cannot name files in the website's downloads folder: " + *problem +
                              ". Use a name without '/', '\\', '..', a leading '.' or control "
                              "characters, at most 200 bytes.");
    }
}

std::optional<std::string> WebDeployer::containmentProblem(const std::filesystem::path& repository,
                                                           const WebDeployConfig& config,
                                                           const std::string& appName) {
    for (const auto* relative : {&config.downloadsRelativePath, &config.indexHtmlRelativePath}) {
        if (const auto problem = relativePathProblem(*relative)) {
            return "The website path '" + *relative + "' cannot be used: " + *problem +
                   ". Set a path inside the website repository in the profile.";
        }
    }
    std::vector<std::filesystem::path> written{repository /
                                               ReleasePublishingPlan::downloadsFolder(config)};
    for (const auto& path : releasePaths(config, appName, true)) {
        written.push_back(repository / path);
    }
    for (const auto& path : written) {
        if (!resolvesInside(path, repository)) {
            return "The website file " + path.string() + " leads outside the website repository " +
                   repository.string() +
                   " (through a symbolic link). Veltra writes only inside the repository: "
                   "replace the link with a folder or file of the repository's own.";
        }
    }
    return std::nullopt;
}

WebsitePublication WebDeployer::deploy(const WebDeployConfig& config,
                                       const ResolvedDeliveryConfig& delivery,
                                       const WebDeployRelease& release, const LogHandler& log,
                                       StopToken stop) const {
    const auto say = [&log](const std::string& line) {
        if (log) {
            // git repeats remote addresses as configured, tokens included.
            log(redactURLCredentials(line));
        }
    };
    checkFileName(release.appName);
    const auto repository = delivery.websiteRepoPath.empty() ? expandTilde(config.websiteRepoPath)
                                                             : delivery.websiteRepoPath;
    if (const auto problem = containmentProblem(repository, config, release.appName)) {
        throw VeltraError("Veltra", errorCode::invalidSetup, *problem);
    }
    const auto publishingBranch = branch(config);
    if (const auto problem = gitBranchNameError(publishingBranch)) {
        throw VeltraError("Veltra", errorCode::invalidSetup, "The publishing branch " + *problem);
    }
    const auto git = [&](std::vector<std::string> arguments,
                         std::function<void(std::string_view)> onLine = {}) {
        return GitCommand::run(repository, std::move(arguments), stop, GitCommand::defaultTimeout,
                               std::move(onLine));
    };

    // 1. The repository, cloned when it is missing and a remote is known.
    std::error_code error;
    if (!std::filesystem::exists(repository, error)) {
        const auto remote = config.websiteRepoRemoteURL.value_or("");
        if (remote.empty()) {
            throw VeltraError("Veltra", errorCode::notFound,
                              "Website repo not found at " + repository.string() +
                                  " and no remote URL provided.");
        }
        say("Website repo not found \xE2\x80\x93 attempting to clone from " + remote + "...");
        const auto cloned = ProcessRunner::run(
            ProcessRequest{.command = "git",
                           .arguments = {"clone", "--", remote, repository.string()},
                           .currentDirectory = homeDirectory(),
                           .environment = {{"GIT_TERMINAL_PROMPT", "0"}},
                           .timeout = GitCommand::defaultTimeout},
            stop);
        if (cloned.exitCode != 0) {
            throw VeltraError("Veltra", errorCode::notFound,
                              "Website repo not found at " + repository.string() +
                                  " and cloning failed.");
        }
        say("Success: Cloned website repo successfully.");
    }

    // Before any file is written: what the commit and push would carry besides the release.
    // The feed is this release's own (the Sparkle step or 'appcast add' wrote it).
    if (config.gitCommitAndPush && checkRepositoryFirst) {
        const auto status = repositoryInspector.inspect(repository, publishingBranch, stop);
        const auto blocker =
            status.blocker
                ? status.blocker
                : repositoryInspector.releaseBlocker(
                      repository, publishingBranch, releasePaths(config, release.appName, false),
                      commitSubject(release.appName, release.version, release.build), stop);
        if (blocker) {
            throw VeltraError("Veltra", errorCode::conflict, *blocker);
        }
    }

    // 2. The release files.
    say("Deploying " + release.appName + " release to website repo: " + repository.string());
    const auto downloadsPath = ReleasePublishingPlan::downloadsFolder(config);
    const auto downloads = repository / downloadsPath;
    const auto dmgName = release.appName + ".dmg";
    const auto notesName = release.appName + ".md";
    fileStep([&] {
        std::filesystem::create_directories(downloads);
        if (std::filesystem::exists(std::filesystem::symlink_status(downloads / dmgName))) {
            std::filesystem::remove(downloads / dmgName);
        }
        // A clone where the volume offers one (APFS): the image is the largest file here.
        copyItem(release.dmgPath, downloads / dmgName);
    });
    say("Success: Copied " + release.dmgPath.filename().string() + " to " + downloadsPath + "/" +
        dmgName);
    writeFileAtomically(downloads / notesName, release.notes);
    say("Success: Wrote release notes to " + downloadsPath + "/" + notesName);
    if (release.iconPNG) {
        writeFileAtomically(downloads / "icon.png", *release.iconPNG);
        say("Success: Exported app icon to " + downloadsPath + "/icon.png");
    }
    const auto pagePath = repository / config.indexHtmlRelativePath;
    const bool hasPage =
        !config.indexHtmlRelativePath.empty() && std::filesystem::is_regular_file(pagePath, error);
    if (hasPage) {
        auto page = readFile(pagePath);
        if (DownloadPageTemplate::needsUpgrade(page)) {
            page = DownloadPageTemplate::render(release.appName, downloadsPath, release.build);
            writeFileAtomically(pagePath, page);
            say("Success: Upgraded the generated download page with app and Veltra icons");
        }
        const auto rewritten =
            DownloadPageTemplate::withCacheBuster(page, release.appName, release.build);
        if (rewritten != page) {
            writeFileAtomically(pagePath, rewritten);
            say("Success: Updated download cache-buster links in " + config.indexHtmlRelativePath);
        }
    }

    WebsitePublication publication;
    publication.state = WebsitePublicationState::pending;
    publication.feedURL = delivery.publicAppcastURL;
    publication.downloadURL = delivery.downloadURL(dmgName);
    publication.expectedSignature = release.signature;
    publication.expectedSize = release.size;

    if (config.gitCommitAndPush) {
        // 3. Commit exactly the release files (those there; an unchanged one commits nothing).
        // A run that checked before building checks again now: the repository had time to change.
        if (!checkRepositoryFirst) {
            const auto status = repositoryInspector.inspect(repository, publishingBranch, stop);
            if (status.blocker) {
                throw VeltraError("Veltra", errorCode::conflict, *status.blocker);
            }
        }
        std::vector<std::string> paths;
        for (auto& path : releasePaths(config, release.appName, true)) {
            if (std::filesystem::is_regular_file(repository / path, error)) {
                paths.push_back(std::move(path));
            }
        }
        std::vector<std::string> add{"add", "--"};
        add.insert(add.end(), paths.begin(), paths.end());
        if (const auto added = git(add); added.exitCode != 0) {
            throw GitCommand::failure("Could not stage release files", added);
        }
        std::vector<std::string> commit{
            "commit", "--only", "-m",
            commitSubject(release.appName, release.version, release.build), "--"};
        commit.insert(commit.end(), paths.begin(), paths.end());
        const auto identity = GitCommand::identityFallback(repository, stop);
        commit.insert(commit.begin(), identity.begin(), identity.end());
        // With untracked files about, git words an empty commit "nothing added to commit".
        if (const auto committed = git(commit);
            committed.exitCode != 0 && !contains(combinedOutput(committed), "nothing to commit") &&
            !contains(combinedOutput(committed), "nothing added to commit")) {
            throw GitCommand::failure("Could not commit release files", committed);
        }

        if (commitOnly) {
            say("Committed the release files; not pushed (dry run).");
            return publication;
        }

        // 4. Push on top of what origin has.
        bool hasOrigin = false;
        forEachTrimmedLine(git({"remote"}).output, [&hasOrigin](std::string_view line) {
            hasOrigin = hasOrigin || line == "origin";
        });
        if (!hasOrigin) {
            throw VeltraError("Veltra", errorCode::notFound,
                              "Release files were committed locally, but the website repository "
                              "has no origin remote. Configure a remote to publish the appcast "
                              "and DMG.");
        }
        say("Deploying to remote repository (origin/" + publishingBranch + ")...");
        if (git({"fetch", "--end-of-options", "origin", publishingBranch}).exitCode == 0 &&
            git({"rebase", "--end-of-options", "origin/" + publishingBranch}).exitCode != 0) {
            // Leave the repository as it was; the push below reports the conflict.
            git({"rebase", "--abort"});
        }
        const auto pushed = git({"push", "--end-of-options", "origin", publishingBranch},
                                [&](std::string_view line) {
                                    if (const auto text = trimWhitespace(line); !text.empty()) {
                                        say("   " + std::string(text));
                                    }
                                });
        if (pushed.exitCode != 0) {
            throw GitCommand::failure("Could not publish release to origin/" + publishingBranch,
                                      pushed);
        }
        say("Success: Release pushed to origin/" + publishingBranch +
            "; waiting for the live appcast...");
        publication.pushedAt = Date::now();

        // 5. The hosting service's deploy hook, when one is set.
        const auto hook = std::string(trimWhitespace(config.deployHookURL.value_or("")));
        if (!hook.empty() && !HttpClient::isSecureOrLocalAddress(hook)) {
            // The address itself is a secret: anyone who has it can rebuild the site.
            say("Warning: Deploy webhook not called: its address must start with https:// "
                "(http:// only for this machine).");
        } else if (!hook.empty()) {
            say("Triggering deploy webhook...");
            try {
                HttpRequest request;
                request.method = HttpRequest::Method::post;
                request.url = hook;
                request.timeout = 10;
                const auto answer = session.send(request, stop);
                if (answer.status >= 200 && answer.status <= 299) {
                    say("Success: Deploy webhook acknowledged (HTTP " +
                        std::to_string(answer.status) + ").");
                } else {
                    say("Info: Deploy webhook dispatched.");
                }
            } catch (const HttpError&) {
                say("Info: Deploy webhook dispatched.");
            }
        }
    } else {
        publication.pushedAt = Date::now();
    }
    say("Release uploaded; publication unconfirmed until the live feed and download match.");
    return publication;
}

bool WebDeployer::verifyLiveSite(const WebsitePublication& publication, const std::string& version,
                                 const std::string& build, StopToken stop) const {
    return !liveSiteProblem(publication, version, build, std::move(stop));
}

std::optional<std::string> WebDeployer::liveSiteProblem(const WebsitePublication& publication,
                                                        const std::string& version,
                                                        const std::string& build,
                                                        StopToken stop) const {
    const auto ok = [](long status) { return status >= 200 && status <= 299; };
    const auto status = [](const std::string& what, const std::string& url, long code) {
        return fmt::format("the {} at {} answered HTTP {}", what, url, code);
    };
    try {
        HttpRequest feed;
        feed.url = publication.feedURL;
        feed.timeout = 10;
        feed.headers = {"Cache-Control: no-cache", "Pragma: no-cache"};
        const auto answer = session.send(feed, stop);
        if (!ok(answer.status)) {
            return status("feed", feed.url, answer.status);
        }
        const auto items = SparkleFeedParser::parse(answer.body);
        if (!items) {
            return "the feed at " + feed.url +
                   " does not read as a feed: " + SparkleFeedParser::problem(answer.body);
        }
        const auto size = std::to_string(publication.expectedSize);
        const SparkleFeedItem* item = nullptr;
        for (const auto& candidate : *items) {
            if (candidate.version == build) {
                item = &candidate;
                if (candidate.shortVersion == version &&
                    candidate.enclosureURL == publication.downloadURL &&
                    candidate.edSignature == publication.expectedSignature &&
                    candidate.enclosureLength == size) {
                    break;
                }
            }
        }
        if (item == nullptr) {
            return "the feed at " + feed.url + " has no item for build " + build;
        }
        for (const auto& [what, found, wanted] :
             {std::tuple{"version", item->shortVersion, version},
              std::tuple{"download address", item->enclosureURL, publication.downloadURL},
              std::tuple{"signature", item->edSignature, publication.expectedSignature},
              std::tuple{"length", item->enclosureLength, size}}) {
            if (found != wanted) {
                return fmt::format("the feed's item for build {} has the {} '{}', not '{}'", build,
                                   what, found, wanted);
            }
        }

        HttpRequest head;
        head.method = HttpRequest::Method::head;
        head.url = publication.downloadURL;
        head.timeout = 10;
        head.headers = {"Cache-Control: no-cache", "Pragma: no-cache"};
        const auto headAnswer = session.send(head, stop);
        if (!ok(headAnswer.status)) {
            return status("download", head.url, headAnswer.status);
        }
        const auto sized = [&](std::uint64_t length) -> std::optional<std::string> {
            if (length == static_cast<std::uint64_t>(publication.expectedSize)) {
                return std::nullopt;
            }
            return fmt::format("the download at {} is {} bytes, not {}", head.url, length,
                               publication.expectedSize);
        };
        if (headAnswer.contentLength) {
            return sized(*headAnswer.contentLength);
        }
        // No usable length: stream the whole file and count it, in constant memory.
        std::uint64_t counted = 0;
        HttpRequest get;
        get.url = publication.downloadURL;
        get.timeout = 600;
        get.headers = {"Cache-Control: no-cache", "Pragma: no-cache"};
        get.range = std::pair{std::uint64_t{0}, std::optional<std::uint64_t>{}};
        get.onBody = [&counted](std::string_view chunk) { counted += chunk.size(); };
        const auto body = session.send(get, stop);
        if (!ok(body.status)) {
            return status("download", get.url, body.status);
        }
        return sized(body.contentLength.value_or(counted));
    } catch (const CancellationError&) {
        throw;
    } catch (const std::exception& error) {
        // The network's own words: "Couldn't connect to server", a timeout, a name not found.
        return std::string("it could not be reached: ") + error.what();
    }
}

} // namespace veltra
