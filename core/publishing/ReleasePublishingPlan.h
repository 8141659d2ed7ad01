#pragma once

#include "core/profile/ProjectProfile.h"
#include "core/support/LogHandler.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace veltra {

// Where one release is delivered: the local website repository and the public addresses of
// its feed, disk image and notes. The feed file lives in the downloads folder, so the file that
// is pushed is the file the live check fetches.
struct ResolvedDeliveryConfig {
    std::filesystem::path websiteRepoPath;
    // <repository>/<downloads>/appcast.xml
    std::filesystem::path appcastPath;
    // The downloads folder's address + "appcast.xml"; empty when no site address is set.
    std::string publicAppcastURL;
    // Ends in "/"; empty when no site address is set.
    std::string downloadBaseURL;
    // With "{dmg}"; and with "{app}" for the notes file "{app}.md".
    std::string downloadURLPattern;
    std::string releaseNotesURLPattern;

    std::string downloadURL(std::string_view dmgFileName) const;
    std::string releaseNotesURL(std::string_view releaseBaseName) const;
    bool operator==(const ResolvedDeliveryConfig&) const = default;
};

// Decides where a release is delivered; no state of its own.
class ReleasePublishingPlan {
public:
    // The host of the profile's default URL patterns: a site address or pattern that still
    // holds it counts as not configured.
    static constexpr std::string_view exampleHost = "www.example.com";

    // The delivery, or nothing when no website repository is found (the caller skips the feed
    // and deploy steps). Logs which repository is used, or why none is, word for word.
    static std::optional<ResolvedDeliveryConfig> resolve(const ProjectProfile& profile,
                                                         const LogHandler& log = {});

    // The website repository alone, with the same log lines. A configured repository that is
    // missing is replaced only by this app's own site beside the releases; another app's site
    // there throws VeltraError naming both.
    static std::optional<std::filesystem::path> resolveRepository(const ProjectProfile& profile,
                                                                  const LogHandler& log = {});

    // The public addresses alone (empty strings where the site address is not set).
    static ResolvedDeliveryConfig publicAddresses(const ProjectProfile& profile);

    // Every "{dmg}" and "{app}" replaced.
    static std::string expand(std::string_view pattern, std::string_view dmgFileName,
                              std::string_view appBaseName);
    // `base` and `part` with exactly one "/" between them.
    static std::string join(std::string_view base, std::string_view part);
    // The downloads folder below the repository root ("downloads" when none is set).
    static std::string downloadsFolder(const WebDeployConfig& config);
};

} // namespace veltra
