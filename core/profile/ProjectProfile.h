#pragma once

#include "core/records/DMGDesignConfig.h"
#include "core/records/GitHubReleaseConfig.h"
#include "core/records/NotarizationConfig.h"
#include "core/records/ReleaseManifest.h"
#include "core/records/SparkleConfig.h"
#include "core/records/WebDeployConfig.h"
#include "core/support/JsonReader.h"
#include "core/support/Uuid.h"

#include <optional>
#include <string>
#include <vector>

namespace veltra {

// One application's whole release configuration.
struct ProjectProfile {
    Uuid id;
    std::string name;
    std::string appName;
    std::string bundleIdentifier;
    std::string outputDirectory;
    std::optional<std::string> sourceProjectPath;
    std::optional<std::string> selectedScheme;
    // The build configuration to archive; unset: the scheme's own archive configuration.
    std::optional<std::string> archiveConfiguration;
    std::optional<std::vector<ReleaseManifest>> recentReleases; // newest first
    DMGDesignConfig dmgDesign;
    NotarizationConfig notarization;
    SparkleConfig sparkle;
    GitHubReleaseConfig githubRelease;
    WebDeployConfig webDeploy;
    std::optional<std::string> customPostScript;
    bool hasCompletedInitialSetup = false;

    // A new profile with the creation defaults; the output directory defaults to
    // "~/Desktop/Veltra/" + appName.
    static ProjectProfile create(const std::string& appName, const std::string& bundleIdentifier,
                                 const std::optional<std::string>& outputDirectory = std::nullopt);

    bool operator==(const ProjectProfile&) const = default;

    Json toJson() const;
    // Throws JsonDecodingError naming the first missing or wrong key under `path`.
    static ProjectProfile fromJson(const Json& json, const std::string& path);
};

// A profile file: a JSON array of profiles.
Json profilesToJson(const std::vector<ProjectProfile>& profiles);
std::vector<ProjectProfile> profilesFromJson(const Json& json,
                                             const std::string& path = "profiles");

} // namespace veltra
