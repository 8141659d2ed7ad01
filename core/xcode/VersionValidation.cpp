#include "VersionValidation.h"

#include "VersionManager.h"

#include <algorithm>

#include <fmt/format.h>

namespace veltra {

const char* severityName(VersionValidation::Severity severity) {
    switch (severity) {
    case VersionValidation::Severity::none:
        return "none";
    case VersionValidation::Severity::warning:
        return "warning";
    case VersionValidation::Severity::blocker:
        return "blocker";
    }
    return "";
}

VersionValidation VersionValidation::evaluate(const std::string& targetVersion,
                                              std::int64_t targetBuild, const VersionInfo& info) {
    if (info.lastPublishedBuild && targetBuild <= *info.lastPublishedBuild) {
        const auto published = *info.lastPublishedBuild;
        const auto suffix =
            info.lastPublishedVersion ? fmt::format(" (v{})", *info.lastPublishedVersion) : "";
        return {Severity::blocker, "Sparkle Update Will Be Ignored",
                fmt::format("Build {} is ≤ highest known published build ({}{}). Sparkle clients "
                            "already on build {} will ignore this release. Set build to at least "
                            "{}.",
                            targetBuild, published, suffix, published, published + 1),
                published + 1, std::nullopt};
    }
    if (targetBuild >= info.currentBuild) {
        const auto& last = info.lastPublishedVersion;
        if (last && !last->empty() && !targetVersion.empty() &&
            VersionManager::compareVersions(targetVersion, *last) < 0) {
            return {Severity::warning, "Marketing Version Regression",
                    fmt::format("Target version v{} is lower than published v{}. Sparkle will "
                                "deliver it via Build {}, but users will see an older version "
                                "string.",
                                targetVersion, *last, targetBuild),
                    std::nullopt, std::nullopt};
        }
        return {};
    }
    const auto recommended = std::max(info.lastPublishedBuild.value_or(0) + 1, info.currentBuild);
    return {Severity::warning, "Build Number Decreased",
            fmt::format("Build {} is lower than current Xcode project build ({}). Recommended "
                        "build: {}.",
                        targetBuild, info.currentBuild, recommended),
            recommended, std::nullopt};
}

} // namespace veltra
