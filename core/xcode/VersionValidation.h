#pragma once

#include "VersionInfo.h"

#include <cstdint>
#include <optional>
#include <string>

namespace veltra {

// How a proposed version and build compare with what the project and the feed already say.
struct VersionValidation {
    enum class Severity { none, warning, blocker };

    Severity severity = Severity::none;
    std::optional<std::string> title{};
    std::optional<std::string> message{};
    std::optional<std::int64_t> recommendedBuild{};
    std::optional<std::string> recommendedVersion{};

    // The first rule that applies decides: a build at or below the published one blocks (update
    // clients order by build); a lower marketing version or a lower build than the project's
    // only warns.
    static VersionValidation evaluate(const std::string& targetVersion, std::int64_t targetBuild,
                                      const VersionInfo& info);

    bool operator==(const VersionValidation&) const = default;
};

const char* severityName(VersionValidation::Severity severity);

} // namespace veltra
