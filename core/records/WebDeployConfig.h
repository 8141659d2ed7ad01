#pragma once

#include "WebHostingProvider.h"

#include <optional>
#include <string>

namespace veltra {

// Every key is optional in a profile file; a missing one takes the default below.
struct WebDeployConfig {
    std::string websiteRepoPath;
    std::string downloadsRelativePath = "downloads";
    std::string indexHtmlRelativePath = "index.html";
    bool gitCommitAndPush = false;
    std::string gitBranch = "main";
    std::optional<std::string> websiteRepoRemoteURL;
    bool enableShortcuts = false;
    WebHostingProvider provider = WebHostingProvider::cloudflarePages;
    std::string siteURL;
    std::optional<std::string> deployHookURL;

    bool operator==(const WebDeployConfig&) const = default;
};

} // namespace veltra
