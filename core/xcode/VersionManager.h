#pragma once

#include "VersionInfo.h"
#include "core/process/ProcessRunner.h"

#include <filesystem>
#include <future>
#include <optional>
#include <string>
#include <vector>

namespace veltra {

// What apply did to the project file.
struct VersionApplyResult {
    bool versionChanged = false;
    bool buildChanged = false;
    // "version", "build", "version+build" when settings were added to every buildSettings block;
    // empty when nothing was added.
    std::string inserted{};
    int insertions = 0;
    // A given value that was declared in a form the writer does not rewrite, and why; the
    // pipeline logs each as "Info: Version notice: " + notice.
    std::vector<std::string> notices{};
};

// Reads and writes a project's version and build, and the feed's last release. The UI holds it
// through this interface so that another implementation can take its place.
class VersionManaging {
public:
    virtual ~VersionManaging() = default;
    // Never fails: every problem falls back to the defaults.
    virtual VersionInfo readVersionInfo(const std::filesystem::path& project,
                                        const std::optional<std::string>& appcastPath) const = 0;
    // The same read on another thread.
    virtual std::future<VersionInfo>
    readVersionInfoAsync(const std::filesystem::path& project,
                         const std::optional<std::string>& appcastPath) const = 0;
    virtual std::string bump(const std::string& current, BumpType type) const = 0;
    // Writes the values into project.pbxproj atomically; throws VeltraError when the file cannot
    // be read or written. Does nothing when no project file is found.
    virtual VersionApplyResult apply(const std::optional<std::string>& version,
                                     const std::optional<std::int64_t>& build,
                                     const std::filesystem::path& project) const = 0;
};

class VersionManager : public VersionManaging {
public:
    VersionInfo readVersionInfo(const std::filesystem::path& project,
                                const std::optional<std::string>& appcastPath) const override;
    std::future<VersionInfo>
    readVersionInfoAsync(const std::filesystem::path& project,
                         const std::optional<std::string>& appcastPath) const override;
    std::string bump(const std::string& current, BumpType type) const override;
    VersionApplyResult apply(const std::optional<std::string>& version,
                             const std::optional<std::int64_t>& build,
                             const std::filesystem::path& project) const override;

    // project.pbxproj of a .xcodeproj, of the first .xcodeproj beside a .xcworkspace, or of the
    // first .xcodeproj in a folder (by name).
    static std::optional<std::filesystem::path> projectFile(const std::filesystem::path& project);

    // The pure halves of reading and writing, on project.pbxproj text.
    static std::pair<std::string, std::int64_t> readProjectText(std::string_view text);
    static VersionApplyResult applyToText(std::string& text,
                                          const std::optional<std::string>& version,
                                          const std::optional<std::int64_t>& build);

    // -1, 0 or 1; numeric components compared over the longer length, missing ones as 0.
    static int compareVersions(const std::string& a, const std::string& b);

    // Why `version` cannot go into a project or Info.plist, or nothing: a version is digits,
    // letters, '.', '-' and '+', at most 64 bytes.
    static std::optional<std::string> versionError(std::string_view version);
};

} // namespace veltra
