#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace veltra {

// What the project says now and what the update feed already offers.
struct VersionInfo {
    // "1.0.0" when the project declares none.
    std::string currentVersion = "1.0.0";
    // 1 when the project declares none.
    std::int64_t currentBuild = 1;
    // The short version of the feed's item with the highest build.
    std::optional<std::string> lastPublishedVersion{};
    // That item's build; absent when the feed is missing, unreadable, empty or below 1.
    std::optional<std::int64_t> lastPublishedBuild{};
    std::int64_t nextSuggestedBuild = 2;

    bool operator==(const VersionInfo&) const = default;
};

enum class BumpType { patch, minor, major };

// "Patch (+0.0.1)", "Minor (+0.1.0)", "Major (+1.0.0)".
const char* displayName(BumpType type);

} // namespace veltra
