#include "WebDeployer.h"

#include "DownloadPageTemplate.h"
#include "GitCommand.h"
#include "core/feed/AppcastDocument.h"
#include "core/feed/FeedItemCheck.h"
#include "core/feed/SparkleFeedParser.h"
#include "core/process/TransientRetry.h"
#include "core/support/FileCopy.h"
#include "core/support/FileUtilities.h"
#include "core/support/GitRefName.h"
#include "core/support/PathRules.h"
#include "core/support/Secrets.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <fstream>
#include <mutex>
#include <tuple>
#include <unistd.h>

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
                                                   const std::string& appName, bool withFeed,
                                                   const std::string& fileStem) {
    const auto downloads = ReleasePublishingPlan::downloadsFolder(config);
    std::vector<std::string> paths{downloads + "/" + appName + ".dmg",
                                   downloads + "/" + appName + ".md", downloads + "/icon.png"};
    if (!fileStem.empty() && fileStem != appName) {
        paths.push_back(downloads + "/" + fileStem + ".dmg");
        paths.push_back(downloads + "/" + fileStem + ".md");
    }
    if (!config.indexHtmlRelativePath.empty()) {
        paths.push_back(config.indexHtmlRelativePath);
    }
    if (withFeed) {
        paths.push_back(downloads + "/appcast.xml");
    }
    return paths;
}

std::optional<std::string> WebDeployer::siteFileOf(const ResolvedDeliveryConfig& delivery,
                                                   const WebDeployConfig& config,
                                                   std::string_view url) {
    url = url.substr(0, url.find_first_of("?#"));
    const auto& base = delivery.downloadBaseURL;
    if (base.empty() || !url.starts_with(base)) {
        return std::nullopt;
    }
    const auto name = percentDecoded(url.substr(base.size()));
    if (!name || fileNameProblem(*name)) {
        return std::nullopt;
    }
    return ReleasePublishingPlan::downloadsFolder(config) + "/" + *name;
}

std::vector<std::string> WebDeployer::filesOnlyNamedBy(const ResolvedDeliveryConfig& delivery,
                                                       const WebDeployConfig& config,
                                                       const std::string& appName,
                                                       const std::vector<SparkleFeedItem>& dropped,
                                                       const std::vector<SparkleFeedItem>& kept) {
    const auto downloads = ReleasePublishingPlan::downloadsFolder(config);
    // The site's own files stay whatever an item names: the stable download and notes, the
    // feed itself, the icon.
    std::vector<std::string> keep{downloads + "/" + appName + ".dmg",
                                  downloads + "/" + appName + ".md", downloads + "/appcast.xml",
                                  downloads + "/icon.png"};
    for (const auto& item : kept) {
        for (const auto* url : {&item.enclosureURL, &item.releaseNotesURL}) {
            if (auto file = siteFileOf(delivery, config, *url)) {
                keep.push_back(std::move(*file));
            }
        }
    }
    std::vector<std::string> files;
    for (const auto& item : dropped) {
        for (const auto* url : {&item.enclosureURL, &item.releaseNotesURL}) {
            auto file = siteFileOf(delivery, config, *url);
            if (file && std::find(keep.begin(), keep.end(), *file) == keep.end() &&
                std::find(files.begin(), files.end(), *file) == files.end()) {
                files.push_back(std::move(*file));
            }
        }
    }
    return files;
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

FileLock WebDeployer::lockRepository(const std::filesystem::path& repository,
                                     const std::string& holder, const LogHandler& say,
                                     StopToken stop) const {
    std::error_code error;
    auto canonical = std::filesystem::weakly_canonical(repository, error).string();
    const auto folder = lockFolder.empty() ? homeDirectory() / ".veltra" / "locks" : lockFolder;
    createPrivateDirectories(folder);
    const auto path =
        folder / fmt::format("website-{:016x}.lock", std::hash<std::string>{}(canonical));
    const auto deadline = std::chrono::steady_clock::now() + repositoryLockWait;
    bool told = false;
    for (;;) {
        if (auto lock = FileLock::tryLock(path)) {
            lock->describeHolder(holder);
            return std::move(*lock);
        }
        const auto other = std::string(trimWhitespace(FileLock::holder(path)));
        const auto who = other.empty() ? std::string("another release") : other;
        if (std::chrono::steady_clock::now() >= deadline) {
            throw VeltraError("Veltra", errorCode::conflict,
                              "The website repository " + repository.string() + " is in use by " +
                                  who + ". Try again once it has finished publishing.");
        }
        if (!told) {
            say("Waiting for " + who + " to finish with the website repository " +
                repository.string() + "...");
            told = true;
        }
        if (!waitUnlessStopped(std::chrono::milliseconds(200), stop)) {
            throw CancellationError();
        }
    }
}

std::filesystem::path WebDeployer::checkedRepository(const WebDeployConfig& config,
                                                     const ResolvedDeliveryConfig& delivery,
                                                     const std::string& appName,
                                                     const LogHandler& say, StopToken stop) const {
    checkFileName(appName);
    const auto repository = delivery.websiteRepoPath.empty() ? expandTilde(config.websiteRepoPath)
                                                             : delivery.websiteRepoPath;
    if (const auto problem = containmentProblem(repository, config, appName)) {
        throw VeltraError("Veltra", errorCode::invalidSetup, *problem);
    }
    if (const auto problem = gitBranchNameError(branch(config))) {
        throw VeltraError("Veltra", errorCode::invalidSetup, "The publishing branch " + *problem);
    }
    std::error_code error;
    if (std::filesystem::exists(repository, error)) {
        return repository;
    }
    const auto remote = config.websiteRepoRemoteURL.value_or("");
    if (remote.empty()) {
        throw VeltraError("Veltra", errorCode::notFound,
                          "Website repo not found at " + repository.string() +
                              " and no remote URL provided.");
    }
    say("Website repo not found \xE2\x80\x93 attempting to clone from " + remote + "...");
    const auto cloned =
        GitCommand::run(homeDirectory(), {"clone", "--", remote, repository.string()}, stop,
                        GitCommand::defaultTimeout);
    if (cloned.exitCode != 0) {
        throw VeltraError("Veltra", errorCode::notFound,
                          "Website repo not found at " + repository.string() +
                              " and cloning failed.");
    }
    say("Success: Cloned website repo successfully.");
    return repository;
}

std::vector<std::string> WebDeployer::keepOlderDownloads(const std::filesystem::path& repository,
                                                         const WebDeployConfig& config,
                                                         const ResolvedDeliveryConfig& delivery,
                                                         const WebDeployRelease& release,
                                                         const LogHandler& say) const {
    const auto downloadsPath = ReleasePublishingPlan::downloadsFolder(config);
    const auto stablePath = downloadsPath + "/" + release.appName + ".dmg";
    const auto feedPath = repository / downloadsPath / "appcast.xml";
    std::error_code error;
    if (release.fileStem.empty() || !std::filesystem::is_regular_file(feedPath, error)) {
        return {};
    }
    auto document = readFile(feedPath);
    const auto items = SparkleFeedParser::parse(document);
    const auto ranges = appcast::itemRanges(document);
    if (!items || ranges.size() != items->size()) {
        return {};
    }
    const bool haveStable = std::filesystem::is_regular_file(repository / stablePath, error);
    const auto stableSize =
        haveStable ? std::filesystem::file_size(repository / stablePath, error) : std::uintmax_t{0};
    std::vector<std::string> added;
    // Back to front, so the ranges still ahead stay where they are.
    for (std::size_t index = items->size(); index-- > 0;) {
        const auto& item = (*items)[index];
        if (siteFileOf(delivery, config, item.enclosureURL) != stablePath) {
            continue;
        }
        bool carries = haveStable && item.enclosureLength == std::to_string(stableSize);
        if (carries) {
            Ed25519StreamVerifier verifier(release.publicKey, item.edSignature);
            std::ifstream in(repository / stablePath, std::ios::binary);
            std::vector<char> buffer(1 << 16);
            while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) ||
                   in.gcount() > 0) {
                verifier.update(
                    std::string_view(buffer.data(), static_cast<std::size_t>(in.gcount())));
            }
            carries = verifier.finish();
        }
        if (!carries) {
            say("Warning: The feed's item for build " + item.version + " offers " +
                item.enclosureURL +
                ", which no file on the site carries (it was replaced by a "
                "later release): Macs offered it fail the update. Stop offering it with "
                "'veltra website withdraw " +
                release.appName + " --build " + item.version + "'.");
            continue;
        }
        auto name = release.appName + "-" + item.shortVersion;
        if (fileNameProblem(name + ".dmg") ||
            std::filesystem::exists(repository / downloadsPath / (name + ".dmg"), error)) {
            name = release.appName + "-" + item.version;
        }
        if (fileNameProblem(name + ".dmg")) {
            continue;
        }
        fileStep([&] {
            copyItem(repository / stablePath, repository / downloadsPath / (name + ".dmg"));
        });
        const auto url = delivery.downloadURL(percentEncoded(name + ".dmg"));
        const auto itemText = std::string_view(document).substr(
            ranges[index].begin, ranges[index].end - ranges[index].begin);
        document = appcast::replaceItem(
            document, ranges[index], appcast::withEnclosureURL(itemText, item.enclosureURL, url));
        added.push_back(downloadsPath + "/" + name + ".dmg");
        say("Success: Gave build " + item.version + " its own download, " + downloadsPath + "/" +
            name + ".dmg, before the stable file is replaced");
    }
    if (!added.empty()) {
        writeFileAtomically(feedPath, document);
    }
    return added;
}

WebsitePublication WebDeployer::deploy(const WebDeployConfig& config,
                                       const ResolvedDeliveryConfig& delivery,
                                       const WebDeployRelease& release, const LogHandler& log,
                                       StopToken stop) const {
    const LogHandler say = [&log](const std::string& line) {
        if (log) {
            // git repeats remote addresses as configured, tokens included.
            log(redactURLCredentials(line));
        }
    };
    const auto repository = checkedRepository(config, delivery, release.appName, say, stop);
    // One deploy per repository at a time, whichever app it is for: git's index is shared.
    const auto lock = lockRepository(repository,
                                     "the release of " + release.appName + " " + release.version +
                                         " (process " + std::to_string(::getpid()) + ")",
                                     say, stop);
    const auto publishingBranch = branch(config);
    const auto paths = releasePaths(config, release.appName, true, release.fileStem);

    // Before any file is written: what the commit and push would carry besides the release.
    // The feed is this release's own (the Sparkle step or 'appcast add' wrote it).
    if (config.gitCommitAndPush && checkRepositoryFirst) {
        const auto status = repositoryInspector.inspect(repository, publishingBranch, stop);
        const auto blocker =
            status.blocker
                ? status.blocker
                : repositoryInspector.releaseBlocker(
                      repository, publishingBranch,
                      releasePaths(config, release.appName, false, release.fileStem),
                      commitSubject(release.appName, release.version, release.build), stop);
        if (blocker) {
            throw VeltraError("Veltra", errorCode::conflict, *blocker);
        }
    }

    say("Deploying " + release.appName + " release to website repo: " + repository.string());
    const auto downloadsPath = ReleasePublishingPlan::downloadsFolder(config);
    const auto downloads = repository / downloadsPath;
    const auto kept = keepOlderDownloads(repository, config, delivery, release, say);
    const auto stem = release.fileStem.empty() ? release.appName : release.fileStem;
    const auto dmgName = stem + ".dmg";
    const auto stableName = release.appName + ".dmg";
    fileStep([&] {
        std::filesystem::create_directories(downloads);
        for (const auto& name : {dmgName, stableName}) {
            if (std::filesystem::exists(std::filesystem::symlink_status(downloads / name))) {
                std::filesystem::remove(downloads / name);
            }
            // A clone where the volume offers one (APFS): the image is the largest file here.
            copyItem(release.dmgPath, downloads / name);
        }
    });
    say("Success: Copied " + release.dmgPath.filename().string() + " to " + downloadsPath + "/" +
        dmgName + (dmgName == stableName ? "" : " and " + stableName));
    for (const auto& name : {stem + ".md", release.appName + ".md"}) {
        writeFileAtomically(downloads / name, release.notes);
    }
    say("Success: Wrote release notes to " + downloadsPath + "/" + stem + ".md");
    if (release.iconPNG) {
        writeFileAtomically(downloads / "icon.png", *release.iconPNG);
        say("Success: Exported app icon to " + downloadsPath + "/icon.png");
    }
    std::error_code error;
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
    auto committed = paths;
    committed.insert(committed.end(), kept.begin(), kept.end());
    for (const auto& removed : release.removedFiles) {
        if (std::find(paths.begin(), paths.end(), removed) == paths.end() &&
            resolvesInside(repository / removed, downloads)) {
            fileStep([&] { std::filesystem::remove(repository / removed); });
            committed.push_back(removed);
            say("Success: Removed " + removed + " (its item left the feed)");
        }
    }

    WebsitePublication publication;
    publication.state = WebsitePublicationState::pending;
    publication.feedURL = delivery.publicAppcastURL;
    publication.downloadURL = delivery.downloadURL(percentEncoded(dmgName));
    publication.expectedSignature = release.signature;
    publication.expectedSize = release.size;
    if (!config.gitCommitAndPush) {
        publication.pushedAt = Date::now();
        say("Release uploaded; publication unconfirmed until the live feed and download match.");
        return publication;
    }
    // A run that checked before building checks again now: the repository had time to change.
    if (!checkRepositoryFirst) {
        const auto status = repositoryInspector.inspect(repository, publishingBranch, stop);
        if (status.blocker) {
            throw VeltraError("Veltra", errorCode::conflict, *status.blocker);
        }
    }
    commitAndPush(repository, config, committed,
                  commitSubject(release.appName, release.version, release.build), publication, say,
                  stop);
    if (!commitOnly) {
        say("Release uploaded; publication unconfirmed until the live feed and download match.");
    }
    return publication;
}

WebsitePublication WebDeployer::publishFeedChange(const WebDeployConfig& config,
                                                  const ResolvedDeliveryConfig& delivery,
                                                  const WebFeedChange& change,
                                                  const LogHandler& log, StopToken stop) const {
    const LogHandler say = [&log](const std::string& line) {
        if (log) {
            log(redactURLCredentials(line));
        }
    };
    const auto repository = delivery.websiteRepoPath;
    const auto lock = lockRepository(
        repository, "'" + change.commitSubject + "' (process " + std::to_string(::getpid()) + ")",
        say, stop);
    const auto downloadsPath = ReleasePublishingPlan::downloadsFolder(config);
    std::vector<std::string> paths{downloadsPath + "/appcast.xml"};
    for (const auto& removed : change.removedFiles) {
        if (resolvesInside(repository / removed, repository / downloadsPath)) {
            fileStep([&] { std::filesystem::remove(repository / removed); });
            paths.push_back(removed);
            say("Success: Removed " + removed);
        }
    }
    WebsitePublication publication;
    publication.state = WebsitePublicationState::pending;
    publication.feedURL = delivery.publicAppcastURL;
    if (!config.gitCommitAndPush) {
        publication.pushedAt = Date::now();
        return publication;
    }
    commitAndPush(repository, config, paths, change.commitSubject, publication, say, stop);
    return publication;
}

void WebDeployer::leaveAsOriginHasIt(const std::filesystem::path& repository,
                                     const std::string& tracking,
                                     const std::vector<std::string>& paths,
                                     const std::string& subject, StopToken stop) const {
    const auto git = [&](std::vector<std::string> arguments) {
        return GitCommand::run(repository, std::move(arguments), stop);
    };
    // Only this release's own commit is taken back, never anyone else's.
    const auto head = git({"log", "-1", "--format=%s"});
    if (head.exitCode != 0 || trimWhitespace(head.output) != subject ||
        git({"merge-base", "--is-ancestor", "--end-of-options", "HEAD~1", tracking}).exitCode !=
            0) {
        return;
    }
    // The release's files step aside while the branch becomes origin's, then come back as
    // changes: nothing of either side is lost.
    const auto held = repository / ".git" / "veltra-held";
    std::error_code error;
    std::filesystem::remove_all(held, error);
    std::vector<std::string> moved;
    for (const auto& path : paths) {
        if (std::filesystem::is_regular_file(repository / path, error)) {
            std::filesystem::create_directories((held / path).parent_path(), error);
            std::filesystem::rename(repository / path, held / path, error);
            if (!error) {
                moved.push_back(path);
            }
        }
    }
    git({"reset", "--hard", "--quiet", tracking});
    for (const auto& path : moved) {
        std::filesystem::create_directories((repository / path).parent_path(), error);
        std::filesystem::rename(held / path, repository / path, error);
    }
    std::filesystem::remove_all(held, error);
}

void WebDeployer::commitAndPush(const std::filesystem::path& repository,
                                const WebDeployConfig& config, std::vector<std::string> paths,
                                const std::string& subject, WebsitePublication& publication,
                                const LogHandler& say, StopToken stop) const {
    const auto publishingBranch = branch(config);
    const auto git = [&](std::vector<std::string> arguments,
                         std::function<void(std::string_view)> onLine = {}) {
        return GitCommand::run(repository, std::move(arguments), stop, GitCommand::defaultTimeout,
                               std::move(onLine));
    };
    // Exactly these files: those there, and those gone that git knew (an unchanged one commits
    // nothing).
    std::vector<std::string> listed{"ls-files", "-z", "--"};
    listed.insert(listed.end(), paths.begin(), paths.end());
    const auto known = git(listed).output;
    std::error_code error;
    std::erase_if(paths, [&](const std::string& path) {
        return !std::filesystem::is_regular_file(repository / path, error) &&
               !contains(known, path + '\0');
    });
    std::vector<std::string> add{"add", "--all", "--"};
    add.insert(add.end(), paths.begin(), paths.end());
    if (const auto added = git(add); added.exitCode != 0) {
        throw GitCommand::failure("Could not stage release files", added);
    }
    std::vector<std::string> commit{"commit", "--only", "-m", subject, "--"};
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
        return;
    }

    // Push on top of what origin has.
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
    const auto tracking = "origin/" + publishingBranch;
    const auto showLine = [&](std::string_view line) {
        if (const auto text = trimWhitespace(line); !text.empty()) {
            say("   " + std::string(text));
        }
    };
    // On top of what origin has; when origin moves meanwhile (an edit on the hosting service),
    // once more on top of that.
    ProcessResult pushed;
    bool conflict = false;
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (git({"fetch", "--end-of-options", "origin", publishingBranch}).exitCode == 0 &&
            git({"rebase", "--end-of-options", tracking}).exitCode != 0) {
            // A rebase that stopped on the release's own files conflicts with origin; one that
            // could not start (the developer's staged work) leaves the push to say what is wrong.
            std::error_code missing;
            conflict = std::filesystem::exists(repository / ".git" / "rebase-merge", missing) ||
                       std::filesystem::exists(repository / ".git" / "rebase-apply", missing);
            git({"rebase", "--abort"});
            if (conflict) {
                break;
            }
        }
        pushed = git({"push", "--end-of-options", "origin", publishingBranch}, showLine);
        const auto said = combinedOutput(pushed);
        if (pushed.exitCode == 0 ||
            !(contains(said, "[rejected]") || contains(said, "non-fast-forward") ||
              contains(said, "fetch first"))) {
            break;
        }
    }
    if (conflict) {
        leaveAsOriginHasIt(repository, tracking, paths, subject, stop);
        throw VeltraError(
            "Veltra", errorCode::conflict,
            "origin/" + publishingBranch +
                " changed files this release writes, so the release cannot be replayed on it. "
                "The website repository " +
                repository.string() +
                " is left as origin has it, with this release's files as "
                "uncommitted changes: keep what each should hold, then "
                "finish with 'veltra release NAME --resume'.");
    }
    if (pushed.exitCode != 0) {
        throw GitCommand::failure("Could not publish release to origin/" + publishingBranch,
                                  pushed);
    }
    say("Success: Release pushed to origin/" + publishingBranch +
        "; waiting for the live appcast...");
    publication.pushedAt = Date::now();

    // The hosting service's deploy hook, when one is set.
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
                say("Success: Deploy webhook acknowledged (HTTP " + std::to_string(answer.status) +
                    ").");
            } else {
                say("Info: Deploy webhook dispatched.");
            }
        } catch (const HttpError&) {
            say("Info: Deploy webhook dispatched.");
        }
    }
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
        // A release recorded before each item had its own download names the stable file;
        // its item now names the copy it was given, which carries the same signature.
        const auto downloadURL =
            item->edSignature == publication.expectedSignature && item->enclosureLength == size
                ? item->enclosureURL
                : publication.downloadURL;
        for (const auto& [what, found, wanted] :
             {std::tuple{"version", item->shortVersion, version},
              std::tuple{"download address", item->enclosureURL, downloadURL},
              std::tuple{"signature", item->edSignature, publication.expectedSignature},
              std::tuple{"length", item->enclosureLength, size}}) {
            if (found != wanted) {
                return fmt::format("the feed's item for build {} has the {} '{}', not '{}'", build,
                                   what, found, wanted);
            }
        }

        if (!publicKey.empty()) {
            return itemProblem(*item, publicKey, stop);
        }
        HttpRequest head;
        head.method = HttpRequest::Method::head;
        head.url = downloadURL;
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
        get.url = downloadURL;
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

std::optional<std::string> WebDeployer::itemProblem(const SparkleFeedItem& item,
                                                    const std::string& key, StopToken stop) const {
    const auto ok = [](long status) { return status >= 200 && status <= 299; };
    try {
        Ed25519StreamVerifier verifier(key, item.edSignature);
        if (!verifier.problem().empty()) {
            return "build " + item.version + " cannot be checked: " + verifier.problem();
        }
        std::uint64_t counted = 0;
        HttpRequest get;
        get.url = item.enclosureURL;
        get.timeout = 600;
        get.headers = {"Cache-Control: no-cache", "Pragma: no-cache"};
        get.onBody = [&](std::string_view chunk) {
            counted += chunk.size();
            verifier.update(chunk);
        };
        const auto body = session.send(get, stop);
        if (!ok(body.status)) {
            return fmt::format("the download of build {} at {} answered HTTP {}", item.version,
                               item.enclosureURL, body.status);
        }
        if (std::to_string(counted) != item.enclosureLength) {
            return fmt::format("the download of build {} at {} is {} bytes, not {}", item.version,
                               item.enclosureURL, counted, item.enclosureLength);
        }
        if (!verifier.finish()) {
            return fmt::format("the download of build {} at {} does not carry the feed's "
                               "signature under the app's public key (other bytes)",
                               item.version, item.enclosureURL);
        }
        if (!item.releaseNotesURL.empty()) {
            HttpRequest notes;
            notes.method = HttpRequest::Method::head;
            notes.url = item.releaseNotesURL;
            notes.timeout = 30;
            if (const auto answer = session.send(notes, stop); !ok(answer.status)) {
                return fmt::format("the notes of build {} at {} answered HTTP {}", item.version,
                                   item.releaseNotesURL, answer.status);
            }
        }
        return std::nullopt;
    } catch (const CancellationError&) {
        throw;
    } catch (const std::exception& error) {
        return "build " + item.version + "'s files could not be reached: " + error.what();
    }
}

} // namespace veltra
