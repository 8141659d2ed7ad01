#pragma once

#include "core/process/ProcessRunner.h"
#include "core/records/GitHubReleaseConfig.h"
#include "core/support/LogHandler.h"
#include "core/support/StopToken.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace veltra {

// Publishes a finished release as a GitHub release with the disk image attached, through `gh`.
class GitHubReleaseEngine {
public:
    // Where gh runs: the app's repository, whose origin names the GitHub repository when the
    // profile names none. Veltra's own working folder otherwise (from Finder, "/").
    std::optional<std::filesystem::path> repositoryFolder{};

    // Does nothing when the configuration is off. Throws VeltraError ("Veltra", 404) when `gh`
    // is not installed and ("Veltra", 500, "GitHub release failed: " + gh's error output) when
    // the release cannot be created; the runner's own errors pass through.
    void publish(const GitHubReleaseConfig& config, const std::filesystem::path& dmgPath,
                 const std::string& appName, const std::string& version, const std::string& notes,
                 const LogHandler& log = {}, StopToken stop = {}) const;

    // `gh`'s arguments for that release, in the order the tool is given them; the notes are
    // read from `notesFile`.
    static std::vector<std::string> arguments(const GitHubReleaseConfig& config,
                                              const std::filesystem::path& dmgPath,
                                              const std::string& appName,
                                              const std::string& version,
                                              const std::filesystem::path& notesFile);
};

} // namespace veltra
