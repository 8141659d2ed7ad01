#pragma once

#include "ReleasePublishingPlan.h"
#include "WebsiteRepositoryInspector.h"
#include "core/process/ProcessRunner.h"
#include "core/records/WebDeployConfig.h"
#include "core/records/WebsitePublication.h"
#include "core/support/HttpClient.h"
#include "core/support/LogHandler.h"
#include "core/support/StopToken.h"

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

    // Throws VeltraError: 404 for a missing repository, the inspector's blocker, git's exit
    // status with the shared git failure text, the file system's errors. The hook never fails.
    WebsitePublication deploy(const WebDeployConfig& config, const ResolvedDeliveryConfig& delivery,
                              const WebDeployRelease& release, const LogHandler& log = {},
                              StopToken stop = {}) const;

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
    static std::vector<std::string> releasePaths(const WebDeployConfig& config,
                                                 const std::string& appName, bool withFeed);
    // The subject of a release's commit in the website repository.
    static std::string commitSubject(const std::string& appName, const std::string& version,
                                     const std::string& build);
};

} // namespace veltra
