#pragma once

#include <string>

namespace veltra {

struct GitHubReleaseConfig {
    bool enabled = false;
    std::string repoOwnerAndName; // "owner/name"
    bool createDraft = false;
    bool generateNotesFromGit = true;

    bool operator==(const GitHubReleaseConfig&) const = default;
};

} // namespace veltra
