#pragma once

#include "core/records/WebsitePublication.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace veltra {

// What one run gathers for its manifest.
struct DeploymentArtifacts {
    std::optional<std::string> sparkleSignature; // absent when update signing was skipped
    std::int64_t dmgSize = 0;
    std::optional<WebsitePublication> websitePublication;
    bool wasNotarized = false;
    // The verdicts of the checks a downloaded release meets (stapler, Gatekeeper), in order.
    std::vector<std::string> finalChecks{};
    std::optional<bool> githubPublicationSucceeded; // absent when no GitHub release was tried

    bool operator==(const DeploymentArtifacts&) const = default;
};

} // namespace veltra
