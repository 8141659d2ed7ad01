#include "PublishedFeedReader.h"

#include "ReleaseFeedFailure.h"
#include "core/process/ProcessExecutionError.h"
#include "core/support/GitRefName.h"
#include "core/support/Text.h"

#include <system_error>

#include <fmt/format.h>

namespace veltra {

namespace {

constexpr const char* unreadableFeed =
    "The publishing branch update feed could not be read. Retry before releasing.";

std::string feedPath(std::string downloadsPath) {
    while (!downloadsPath.empty() && downloadsPath.back() == '/') {
        downloadsPath.pop_back();
    }
    while (!downloadsPath.empty() && downloadsPath.front() == '/') {
        downloadsPath.erase(0, 1);
    }
    return downloadsPath.empty() ? "appcast.xml" : downloadsPath + "/appcast.xml";
}

bool sameFolder(const std::filesystem::path& a, const std::filesystem::path& b) {
    std::error_code error;
    return std::filesystem::equivalent(a, b, error);
}

} // namespace

std::string PublishedFeedReader::feedURL(std::string pattern, const std::string& appName,
                                         const std::string& dmgName) {
    for (const auto& [placeholder, value] :
         {std::pair<std::string_view, const std::string&>{"{app}", appName}, {"{dmg}", dmgName}}) {
        for (auto at = pattern.find(placeholder); at != std::string::npos;
             at = pattern.find(placeholder, at + value.size())) {
            pattern.replace(at, placeholder.size(), value);
        }
    }
    return pattern;
}

std::string PublishedFeedReader::committedFeed(const std::filesystem::path& repository,
                                               const std::string& branch,
                                               const std::string& downloadsPath,
                                               StopToken stop) const {
    const auto git = [&](std::vector<std::string> arguments) {
        ProcessRequest request;
        request.command = "git";
        request.arguments = std::move(arguments);
        request.currentDirectory = repository;
        // A missing credential must fail, not wait for a prompt nobody sees.
        request.environment = {{"GIT_TERMINAL_PROMPT", "0"}};
        request.timeout = gitTimeout;
        return ProcessRunner::run(request, stop);
    };
    const auto notRoot = [] {
        return ReleaseFeedFailure::websiteRepository(
            "Choose the website repository’s root folder in Distribution. The selected folder "
            "does not match its Git root.");
    };
    std::error_code error;
    if (!std::filesystem::is_directory(repository, error)) {
        throw notRoot();
    }
    const auto root = git({"rev-parse", "--show-toplevel"});
    if (root.exitCode != 0 || !sameFolder(trimWhitespace(root.output), repository)) {
        throw notRoot();
    }

    if (const auto problem = gitBranchNameError(branch)) {
        throw ReleaseFeedFailure::websiteRepository(*problem);
    }
    try {
        const auto fetch =
            git({"fetch", "--no-tags", "--filter=blob:none", "--end-of-options", "origin", branch});
        if (fetch.exitCode != 0) {
            throw ReleaseFeedFailure::websiteRepository(
                "Could not check the website publishing branch: " +
                std::string(trimWhitespace(fetch.errorOutput)));
        }
    } catch (const ProcessExecutionError& failure) {
        throw ReleaseFeedFailure::websiteRepository(
            std::string("Could not check the website publishing branch: ") + failure.what());
    }

    const auto path = feedPath(downloadsPath);
    try {
        const auto listing =
            git({"ls-tree", "--name-only", "--end-of-options", "FETCH_HEAD", "--", path});
        if (listing.exitCode != 0) {
            throw ReleaseFeedFailure::websiteRepository(unreadableFeed);
        }
        if (trimWhitespace(listing.output).empty()) {
            throw ReleaseFeedFailure::missingCommittedFeed();
        }
        const auto shown = git({"show", "FETCH_HEAD:" + path});
        if (shown.exitCode != 0) {
            throw ReleaseFeedFailure::websiteRepository(unreadableFeed);
        }
        return shown.output;
    } catch (const ProcessExecutionError&) {
        throw ReleaseFeedFailure::websiteRepository(unreadableFeed);
    }
}

std::string PublishedFeedReader::liveFeed(const std::string& url, StopToken stop) const {
    if (!HttpClient::isWebAddress(url)) {
        throw releaseFeedError("Configure a valid public Sparkle feed URL before releasing.");
    }
    HttpRequest request;
    request.url = url;
    request.headers = {"Cache-Control: no-cache"};
    request.timeout = httpTimeout;
    HttpResponse response;
    try {
        response = http.send(request, stop);
    } catch (const HttpError&) {
        throw releaseFeedError(
            "The live update feed could not be checked. Retry before releasing.");
    }
    if (response.status == 404) {
        throw releaseFeedError(
            "The published update feed is unavailable (404). Restore it before releasing.");
    }
    if (response.status < 200 || response.status > 299) {
        throw releaseFeedError(
            "The live update feed could not be checked. Retry before releasing.");
    }
    return std::move(response.body);
}

std::string PublishedFeedReader::committedFeedCheckedAgainstLive(
    const std::filesystem::path& repository, const std::string& branch,
    const std::string& downloadsPath, const std::string& liveURL, StopToken stop) const {
    try {
        return committedFeed(repository, branch, downloadsPath, stop);
    } catch (const ReleaseFeedFailure& failure) {
        if (failure.kind() != ReleaseFeedFailure::Kind::missingCommittedFeed) {
            throw;
        }
    }
    bool liveFeedExists = false;
    try {
        liveFeed(liveURL, stop);
        liveFeedExists = true;
    } catch (const VeltraError&) {
    }
    throw ReleaseFeedFailure::missingCommittedFeed(liveFeedExists);
}

} // namespace veltra
