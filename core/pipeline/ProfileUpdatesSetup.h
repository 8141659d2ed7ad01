#pragma once

#include "SparkleAutoResolver.h"
#include "core/profile/ProjectProfile.h"
#include "core/support/StopToken.h"
#include "core/xcode/SparkleProjectSetup.h"

#include <filesystem>
#include <optional>

namespace veltra {

// Setting a profile's project up for updates, as `veltra sparkle setup NAME`, a release and the
// Studio do it.
class ProfileUpdatesSetup {
public:
    // Whether a release sets the project up: the app reads a feed already, or the profile keeps
    // an appcast.
    static bool wanted(const ProjectProfile& profile, const SparkleAppSettings& embedded);
    // The profile's project (or `project`, a release's worktree) and scheme, its public feed
    // address, and the public key of the key its releases are signed with (or `publicKey`).
    // Throws VeltraError saying what is missing: the project, the website address, or the key.
    static SparkleSetupRequest
    request(const ProjectProfile& profile, StopToken stop,
            const std::optional<std::filesystem::path>& project = std::nullopt,
            const std::optional<std::string>& publicKey = std::nullopt);
};

} // namespace veltra
