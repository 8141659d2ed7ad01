#pragma once

#include "core/process/ProcessRunner.h"

#include <filesystem>
#include <optional>
#include <stop_token>
#include <string>

namespace veltra {

// What the website repository looks like before anything is committed to it.
struct WebsiteRepositoryStatus {
    // Why a release cannot be committed and pushed here, and what to do; nothing when it can.
    std::optional<std::string> blocker;
    std::string branch; // the checked-out branch; empty when detached
    // origin's address to show (credentials as ***), when there is an origin
    std::optional<std::string> originURL;
};

// Looks at the website repository with git before a deploy commits: the folder exists, is the
// root of its repository, has no rebase or merge in progress, is on the publishing branch and
// has an origin remote.
class WebsiteRepositoryInspector {
public:
    ProcessRunner runner;
    // Each git query's limit.
    double timeout = 30;

    WebsiteRepositoryStatus inspect(const std::filesystem::path& repository,
                                    const std::string& publishingBranch,
                                    std::stop_token stop = {}) const;
};

} // namespace veltra
