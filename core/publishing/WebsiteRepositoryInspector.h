#pragma once

#include "core/process/ProcessRunner.h"
#include "core/support/StopToken.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

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
    // Each git query's limit.
    double timeout = 30;

    WebsiteRepositoryStatus inspect(const std::filesystem::path& repository,
                                    const std::string& publishingBranch, StopToken stop = {}) const;

    // Why a release commit and push from here would publish more than the release: commits on
    // the branch that origin does not have (up to five named), or changes (staged, unstaged or
    // untracked) at `releasePaths` (relative to the repository). Commits whose subject is
    // `ownCommitSubject` are the release's own (left by a push that failed) and go out with it.
    // Nothing when only the release's files would go out. Assumes inspect() found no blocker.
    std::optional<std::string> releaseBlocker(const std::filesystem::path& repository,
                                              const std::string& publishingBranch,
                                              const std::vector<std::string>& releasePaths,
                                              const std::string& ownCommitSubject,
                                              StopToken stop = {}) const;
};

} // namespace veltra
