#pragma once

#include "core/records/DMGDesignConfig.h"

#include <array>
#include <optional>
#include <string>

namespace veltra {

// The three presets, in the order the Studio offers them.
inline constexpr std::array<DMGLayoutPreset, 3> allDMGLayoutPresets{
    DMGLayoutPreset::modernWide, DMGLayoutPreset::classic, DMGLayoutPreset::compact};

// The exact configuration values a preset stands for.
DMGLayoutDimensions dimensions(DMGLayoutPreset preset);
// The preset named by its short name ("modernWide", "classic", "compact").
std::optional<DMGLayoutPreset> dmgLayoutPreset(std::string_view shortName);
std::string_view shortName(DMGLayoutPreset preset);
// `config` with the preset's window, icon size and positions.
DMGDesignConfig applying(DMGLayoutPreset preset, DMGDesignConfig config);
// The preset `config` equals in all five values, if any.
std::optional<DMGLayoutPreset> matchingPreset(const DMGDesignConfig& config);

// The background a configuration really gets: an absent type is the default artwork unless a
// picture path is set.
DMGBackgroundType effectiveBackgroundType(const DMGDesignConfig& config);

// Where the installer window's icons and title go, in window points from the top left.
struct DMGInstallerLayout {
    Point appPosition;
    Point applicationsPosition;
    double iconSize = 0;
    double titleTop = 0;
    double titleWidth = 1;

    static DMGInstallerLayout from(const DMGDesignConfig& config);
    bool operator==(const DMGInstallerLayout&) const = default;
};

// The Finder window's frame text "{{x, y}, {w, h}}": centred on a screen of the given size
// (1440 × 900 points when no main screen is known).
std::string dmgWindowBounds(const DMGDesignConfig& config, double screenWidth = 1440,
                            double screenHeight = 900);

} // namespace veltra
