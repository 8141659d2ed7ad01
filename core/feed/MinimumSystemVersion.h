#pragma once

#include <optional>
#include <string>

namespace veltra {

// The macOS version a feed item requires, and why it is not the profile's when it is not.
struct MinimumSystemVersion {
    std::string version{};
    std::optional<std::string> warning{};

    // The built app's LSMinimumSystemVersion, raised by the profile's setting when that is
    // higher (a lower one would offer the update to Macs it cannot run on, and is ignored with
    // a warning naming both). Without either, empty: the item names no minimum.
    static MinimumSystemVersion choose(const std::string& appRequires,
                                       const std::optional<std::string>& profileSetting);
};

} // namespace veltra
