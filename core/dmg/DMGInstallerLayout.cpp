#include "DMGInstallerLayout.h"

#include "dsstore/WindowSettings.h"

#include <algorithm>

namespace veltra {
namespace {

struct PresetRow {
    DMGLayoutPreset preset;
    std::string_view shortName;
    DMGLayoutDimensions dimensions;
    // Where the default artwork draws its arrow between the icons.
    Point artworkApp;
    Point artworkApplications;
};

constexpr std::array<PresetRow, 3> presetRows{{
    {DMGLayoutPreset::modernWide,
     "modernWide",
     {720, 440, 128, {180, 280}, {540, 280}},
     {180, 255},
     {540, 255}},
    {DMGLayoutPreset::classic,
     "classic",
     {660, 400, 120, {150, 260}, {510, 260}},
     {165, 235},
     {495, 235}},
    {DMGLayoutPreset::compact,
     "compact",
     {540, 360, 100, {140, 220}, {400, 220}},
     {135, 210},
     {405, 210}},
}};

const PresetRow& rowOf(DMGLayoutPreset preset) {
    for (const auto& row : presetRows) {
        if (row.preset == preset) {
            return row;
        }
    }
    return presetRows[1];
}

} // namespace

DMGLayoutDimensions dimensions(DMGLayoutPreset preset) {
    return rowOf(preset).dimensions;
}

std::string_view shortName(DMGLayoutPreset preset) {
    return rowOf(preset).shortName;
}

std::optional<DMGLayoutPreset> dmgLayoutPreset(std::string_view name) {
    for (const auto& row : presetRows) {
        if (row.shortName == name) {
            return row.preset;
        }
    }
    return std::nullopt;
}

DMGDesignConfig applying(DMGLayoutPreset preset, DMGDesignConfig config) {
    const auto& d = rowOf(preset).dimensions;
    config.windowWidth = d.width;
    config.windowHeight = d.height;
    config.iconSize = d.iconSize;
    config.appIconPosition = d.appPos;
    config.dropLinkPosition = d.linkPos;
    return config;
}

std::optional<DMGLayoutPreset> matchingPreset(const DMGDesignConfig& config) {
    const DMGLayoutDimensions mine{config.windowWidth, config.windowHeight, config.iconSize,
                                   config.appIconPosition, config.dropLinkPosition};
    for (const auto& row : presetRows) {
        if (row.dimensions == mine) {
            return row.preset;
        }
    }
    return std::nullopt;
}

DMGBackgroundType effectiveBackgroundType(const DMGDesignConfig& config) {
    if (config.backgroundType) {
        return *config.backgroundType;
    }
    return config.backgroundPath && !config.backgroundPath->empty()
               ? DMGBackgroundType::custom
               : DMGBackgroundType::defaultTemplate;
}

DMGInstallerLayout DMGInstallerLayout::from(const DMGDesignConfig& config) {
    DMGInstallerLayout layout;
    switch (effectiveBackgroundType(config)) {
    case DMGBackgroundType::plain:
        layout.appPosition = {64, 60};
        layout.applicationsPosition = {168, 60};
        layout.iconSize = 48;
        break;
    case DMGBackgroundType::custom:
        layout.appPosition = config.appIconPosition;
        layout.applicationsPosition = config.dropLinkPosition;
        layout.iconSize = config.iconSize;
        break;
    case DMGBackgroundType::defaultTemplate:
        layout.appPosition = config.appIconPosition;
        layout.applicationsPosition = config.dropLinkPosition;
        layout.iconSize = config.iconSize;
        if (const auto preset = matchingPreset(config)) {
            layout.appPosition = rowOf(*preset).artworkApp;
            layout.applicationsPosition = rowOf(*preset).artworkApplications;
        }
        break;
    }
    layout.titleTop = config.windowHeight * 0.145;
    layout.titleWidth = std::max(config.windowWidth - 96, 1.0);
    return layout;
}

std::string dmgWindowBounds(const DMGDesignConfig& config, double screenWidth,
                            double screenHeight) {
    const dsstore::WindowSettings::WindowFrame frame{(screenWidth - config.windowWidth) * 0.5,
                                                     (screenHeight - config.windowHeight) * 0.5,
                                                     config.windowWidth, config.windowHeight};
    return frame.text();
}

} // namespace veltra
