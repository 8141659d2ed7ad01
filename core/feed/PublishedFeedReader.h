#pragma once

#include "core/process/ProcessRunner.h"
#include "core/support/HttpClient.h"
#include "core/support/StopToken.h"

#include <filesystem>
#include <string>

namespace veltra {

// Reads the feed users already have: the one committed on the website's publishing branch
// (through git) and the one the site serves (over HTTP). Failures are errors of the domain
// "Veltra.ReleaseFeed", code 400, with the message the user reads; website repository problems
// are ReleaseFeedFailure.
class PublishedFeedReader {
public:
    HttpClient http{};
    // Seconds for each git command and for the live fetch.
    double gitTimeout = 120;
    double httpTimeout = 30;

    // The feed at <downloadsPath>/appcast.xml on origin's `branch`, fetched without tags or
    // blobs. `repository` must be the root of its git work tree.
    std::string committedFeed(const std::filesystem::path& repository,
                              const std::string& branch = "main",
                              const std::string& downloadsPath = {}, StopToken stop = {}) const;

    // The feed at `url`, asked for without caches.
    std::string liveFeed(const std::string& url, StopToken stop = {}) const;

    // The committed feed; when the branch has none, the live feed decides which
    // missingCommittedFeed message is thrown (a live feed that cannot be checked counts as absent).
    std::string committedFeedCheckedAgainstLive(const std::filesystem::path& repository,
                                                const std::string& branch,
                                                const std::string& downloadsPath,
                                                const std::string& liveURL,
                                                StopToken stop = {}) const;

    // The feed pattern with "{app}" and "{dmg}" filled in.
    static std::string feedURL(std::string pattern, const std::string& appName,
                               const std::string& dmgName);
};

} // namespace veltra
