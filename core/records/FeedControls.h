#pragma once

#include "core/support/JsonReader.h"

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

namespace veltra {

// The update feed's own controls for one item, as Sparkle reads them. Versions here are the
// app's build numbers (CFBundleVersion), which is what Sparkle compares them with.
struct FeedControls {
    // <sparkle:channel>: only apps that ask for this channel see the item; empty for everyone.
    std::string channel{};
    // <sparkle:criticalUpdate/>: installed without asking.
    bool critical = false;
    // sparkle:version of the critical marker: critical only for builds below this one.
    std::string criticalBelow{};
    // <sparkle:phasedRolloutInterval>: seconds between the rollout's groups.
    std::optional<std::int64_t> phasedRolloutSeconds{};
    // <sparkle:minimumAutoupdateVersion>: builds below it are offered the item but not given it
    // silently.
    std::string minimumAutoupdateVersion{};

    bool isDefault() const { return *this == FeedControls{}; }
    // "channel beta, critical below 120, phased rollout 1d, automatic from 100"; empty when
    // every control is at its default.
    std::string summary() const;

    // Only the set controls are written.
    Json toJson() const;
    static FeedControls fromJson(const Json& json, const std::string& path);

    bool operator==(const FeedControls&) const = default;
};

namespace feedControls {

// The controls as a person types them (command-line options, the Studio's release sheet).
struct Typed {
    std::string channel{};
    bool critical = false;
    std::string criticalBelow{};
    std::string phasedRollout{};
    std::string minimumAutoupdate{};
};
// The controls, or why not, naming the option ("--channel 'be ta' cannot be used: …").
std::expected<FeedControls, std::string> fromTyped(const Typed& typed);

// Why `name` cannot name a channel (letters, digits, '.', '_' and '-', at most 64 bytes).
std::optional<std::string> channelProblem(std::string_view name);
// Why `build` cannot be a build that a control names (digits and dots, at most 32 bytes).
std::optional<std::string> buildProblem(std::string_view build);
// "3600", "90m", "36h", "2d" or "1w" as seconds (a bare number is seconds), or nothing.
std::optional<std::int64_t> parseDuration(std::string_view text);
// 86400 as "1d", 5400 as "90m": the largest unit that divides it.
std::string durationText(std::int64_t seconds);

} // namespace feedControls

} // namespace veltra
