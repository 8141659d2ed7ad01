#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace veltra {

struct Point {
    double x = 0;
    double y = 0;
    bool operator==(const Point&) const = default;
};

enum class DMGBackgroundType { defaultTemplate, custom, plain };
std::string_view rawValue(DMGBackgroundType type); // "default", "custom", "plain"
std::optional<DMGBackgroundType> dmgBackgroundType(std::string_view raw);

// Window layouts offered in the Studio; not stored in the profile.
enum class DMGLayoutPreset { modernWide, classic, compact };
struct DMGLayoutDimensions {
    double width = 0;
    double height = 0;
    double iconSize = 0;
    Point appPos;
    Point linkPos;
    bool operator==(const DMGLayoutDimensions&) const = default;
};
std::string_view rawValue(DMGLayoutPreset preset); // "Classic (660×400)", ...

// The disk image's window and icon geometry, in points.
struct DMGDesignConfig {
    double windowWidth = 660;
    double windowHeight = 400;
    double iconSize = 120;
    Point appIconPosition{150, 260};
    Point dropLinkPosition{510, 260};
    std::optional<std::string> backgroundPath;
    std::optional<std::string> retinaBackgroundPath;
    std::string volumeName;
    std::string compressionFormat = "UDZO";
    // zlib's level for UDZO, 1 to 9; hdiutil's own default (1) when absent.
    std::optional<int> compressionLevel;
    // An .icns file the volume shows as its icon in Finder.
    std::optional<std::string> volumeIconPath;
    bool hideExtension = true;
    std::optional<std::string> backgroundColorHex;
    std::optional<DMGBackgroundType> backgroundType;

    bool operator==(const DMGDesignConfig&) const = default;
};

} // namespace veltra
