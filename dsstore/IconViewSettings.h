#pragma once

#include "PlistValue.h"
#include "Record.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace dsstore {

struct DSStore;

// What an icon-view window shows behind its icons.
struct BackgroundType {
    enum class Kind { defaultBackground, color, picture };

    Kind kind = Kind::defaultBackground;
    // Colour components from 0 to 1, for `color`.
    double red = 1;
    double green = 1;
    double blue = 1;
    // An alias record of the picture, for `picture`.
    std::vector<std::uint8_t> aliasData;

    static BackgroundType color(double red, double green, double blue) {
        return {Kind::color, red, green, blue, {}};
    }
    static BackgroundType picture(std::vector<std::uint8_t> alias) {
        return {Kind::picture, 1, 1, 1, std::move(alias)};
    }

    friend bool operator==(const BackgroundType&, const BackgroundType&) = default;
};

// The icon view's options: the "icvp" record of ".". Absent fields are not written.
struct IconViewSettings {
    std::optional<bool> showIconPreview;
    std::optional<bool> showItemInfo;
    std::optional<bool> labelOnBottom;
    std::optional<double> scrollPositionX;
    std::optional<double> scrollPositionY;
    std::optional<double> gridOffsetX;
    std::optional<double> gridOffsetY;
    std::optional<std::int64_t> textSize;
    std::optional<std::int64_t> iconSize;
    std::optional<double> gridSpacing;
    std::optional<std::int64_t> viewOptionsVersion;
    std::optional<std::string> arrangeBy;
    // 0 default, 1 colour, 2 picture.
    std::optional<std::int64_t> backgroundType;
    std::optional<double> backgroundColorRed;
    std::optional<double> backgroundColorGreen;
    std::optional<double> backgroundColorBlue;
    std::optional<std::vector<std::uint8_t>> backgroundImageAlias;

    // The background the keys describe; a missing or unknown type reads as the default.
    BackgroundType background() const;
    // Sets "backgroundType" and the keys that go with it, removing those that do not.
    void setBackground(const BackgroundType& background);

    static IconViewSettings fromPropertyList(const PlistValue& plist);
    PlistValue propertyList() const;

    static std::optional<IconViewSettings> from(const DSStore& store);
    Record record() const;

    friend bool operator==(const IconViewSettings&, const IconViewSettings&) = default;
};

} // namespace dsstore
