#pragma once

#include "ReleasePublishingPlan.h"
#include "WebsiteRepositoryInspector.h"
#include "core/feed/SparkleFeedItem.h"
#include "core/process/ProcessRunner.h"
#include "core/records/WebDeployConfig.h"
#include "core/records/WebsitePublication.h"
#include "core/support/FileLock.h"
#include "core/support/HttpClient.h"
#include "core/support/LogHandler.h"
#include "core/support/StopToken.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace veltra {

// One release as the website receives it.
struct WebDeployRelease {
    std::filesystem::path dmgPath;
    std::string appName;
    std::string version;
    std::string build;
    std::string notes; // Markdown
    std::optional<std::string> iconPNG;
    // What the feed says of the image, for the live check.
    std::string signature;
    std::int64_t size = 0;
    // The release's own file names on the site, "<app>-<version>" (".dmg", ".md"), which its
    // feed item names; "<app>.dmg" and "<app>.md" stay the download page's stable files.
    // Empty: only the stable files (a release that predates per-release downloads).
    std::string fileStem;
    // The app's public EdDSA key (base64). With it, feed items an older Veltra pointed at the
    // stable file get a copy of their own before it is replaced.
    std::string publicKey;
    // Site files (relative to the repository) whose items the feed dropped: removed in the
    // release's commit.
    std::vector<std::string> removedFiles;
};

// A change of the feed alone, already written to the website repository: a promote or a
// withdraw. The commit carries the feed and `removedFiles`, which are deleted first.
struct WebFeedChange {
    std::string commitSubject;
    std::vector<std::string> removedFiles;
};

// Puts a finished release on the developer's download website, a git repository on disk:
// copies the image, notes and icon into its downloads folder (beside the feed already written
// there), refreshes the download page, commits exactly those files, pushes to origin, pings the
// deploy hook, and hands back the publication to watch.
class WebDeployer {
public:
    WebsiteRepositoryInspector repositoryInspector;
    HttpClient session;
    // Commit the release and stop there: no origin check, push or hook (a dry run).
    bool commitOnly = false;
    // Where the website repositories' locks live (~/.veltra/locks when empty): one publishes at
    // a time, whichever profile it is for.
    std::filesystem::path lockFolder{};
    // How long a deploy waits for another one to finish with the same repository.
    std::chrono::milliseconds repositoryLockWait{std::chrono::minutes(10)};

    // Throws VeltraError: 404 for a missing repository, the inspector's blocker, git's exit
    // status with the shared git failure text, the file system's errors. The hook never fails.
    WebsitePublication deploy(const WebDeployConfig& config, const ResolvedDeliveryConfig& delivery,
                              const WebDeployRelease& release, const LogHandler& log = {},
                              StopToken stop = {}) const;

    // Commits and pushes a feed change the way a release is (same checks); the publication to
    // watch names the feed only.
    WebsitePublication publishFeedChange(const WebDeployConfig& config,
                                         const ResolvedDeliveryConfig& delivery,
                                         const WebFeedChange& change, const LogHandler& log = {},
                                         StopToken stop = {}) const;

    // The site file (relative to the repository: "<downloads>/<name>") a feed address names
    // when it is an address of the downloads folder, else nothing.
    static std::optional<std::string> siteFileOf(const ResolvedDeliveryConfig& delivery,
                                                 const WebDeployConfig& config,
                                                 std::string_view url);

    // The site files only `dropped` items name (their images and notes), never the stable
    // "<app>.dmg"/"<app>.md", the feed, the icon, nor a file a `kept` item names.
    static std::vector<std::string> filesOnlyNamedBy(const ResolvedDeliveryConfig& delivery,
                                                     const WebDeployConfig& config,
                                                     const std::string& appName,
                                                     const std::vector<SparkleFeedItem>& dropped,
                                                     const std::vector<SparkleFeedItem>& kept);

    // Why a Mac offered `item` could not install it from the live site, or nothing when it can:
    // the download streamed (flat memory) must have the item's length and carry its EdDSA
    // signature under `publicKey`, and the notes link (when there is one) must answer.
    std::optional<std::string> itemProblem(const SparkleFeedItem& item,
                                           const std::string& publicKey, StopToken stop = {}) const;

    // The app's public EdDSA key (base64): with it, the live check downloads the image and
    // checks its signature, not only its length.
    std::string publicKey;

    // Whether the live site serves the release: a feed item with this version, build, download
    // address, signature and size, and a download of exactly that size. Never throws for
    // network trouble (false); only cancellation.
    bool verifyLiveSite(const WebsitePublication& publication, const std::string& version,
                        const std::string& build, StopToken stop = {}) const;
    // Why the live site does not serve the release yet, or nothing when it does: the address
    // that could not be reached and why, an HTTP status, a feed that does not read, the value
    // of the feed's item that differs, or the download's size.
    std::optional<std::string> liveSiteProblem(const WebsitePublication& publication,
                                               const std::string& version, const std::string& build,
                                               StopToken stop = {}) const;

    // Refuses an app name that cannot name a file in the downloads folder ("/", "..", a leading
    // ".", a NUL): VeltraError ("Veltra", 400).
    static void checkFileName(const std::string& appName);
    // Why a release of `appName` would write outside `repository`: a relative path that climbs
    // out, or a folder or file that is a symbolic link leading out. Nothing when all stays in.
    static std::optional<std::string> containmentProblem(const std::filesystem::path& repository,
                                                         const WebDeployConfig& config,
                                                         const std::string& appName);
    // The publishing branch: the configured one, or "main".
    static std::string branch(const WebDeployConfig& config);
    // Whether deploy() checks, before writing anything, that the commit would carry only the
    // release (a release run checks that in its preflight, before building).
    bool checkRepositoryFirst = true;
    // The files a release of `appName` commits, relative to the website repository: the image,
    // the notes, the icon, the download page when one is set, and with `withFeed` the feed.
    // With a `fileStem`, the release's own image and notes too.
    static std::vector<std::string> releasePaths(const WebDeployConfig& config,
                                                 const std::string& appName, bool withFeed,
                                                 const std::string& fileStem = {});
    // The subject of a release's commit in the website repository.
    static std::string commitSubject(const std::string& appName, const std::string& version,
                                     const std::string& build);

    // Holds the repository's lock, waiting at most `repositoryLockWait` for its holder (saying
    // so); VeltraError (conflict) naming the holder when it does not let go.
    FileLock lockRepository(const std::filesystem::path& repository, const std::string& holder,
                            const LogHandler& say, StopToken stop) const;

private:
    // The repository a deploy writes to, cloned when missing and a remote is known.
    std::filesystem::path checkedRepository(const WebDeployConfig& config,
                                            const ResolvedDeliveryConfig& delivery,
                                            const std::string& appName, const LogHandler& say,
                                            StopToken stop) const;
    // Gives each feed item that names the stable file, and whose signature that file carries,
    // a copy of its own and its address rewritten; names items no file serves. The new files.
    std::vector<std::string> keepOlderDownloads(const std::filesystem::path& repository,
                                                const WebDeployConfig& config,
                                                const ResolvedDeliveryConfig& delivery,
                                                const WebDeployRelease& release,
                                                const LogHandler& say) const;
    // After a push origin refused for conflicting changes: the branch as origin has it, with the
    // release's files back as uncommitted changes. Only when the top commit is the release's.
    void leaveAsOriginHasIt(const std::filesystem::path& repository, const std::string& tracking,
                            const std::vector<std::string>& paths, const std::string& subject,
                            StopToken stop) const;
    // Commits exactly `paths` (deleted ones as deletions), pushes on top of origin and calls
    // the deploy hook; fills in `publication.pushedAt`.
    void commitAndPush(const std::filesystem::path& repository, const WebDeployConfig& config,
                       std::vector<std::string> paths, const std::string& subject,
                       WebsitePublication& publication, const LogHandler& say,
                       StopToken stop) const;
};

} // namespace veltra
