#pragma once

#include "FourCC.h"

#include <optional>
#include <string_view>

namespace dsstore {

// How a Finder window shows its folder; its code is the text form in "bwsp" and "vstl".
enum class ViewStyle { icon, list, column, gallery };

constexpr FourCC viewStyleCode(ViewStyle style) noexcept {
    switch (style) {
    case ViewStyle::icon:
        return FourCC("icnv");
    case ViewStyle::list:
        return FourCC("Nlsv");
    case ViewStyle::column:
        return FourCC("clmv");
    case ViewStyle::gallery:
        return FourCC("Flwv");
    }
    return FourCC("icnv");
}

constexpr std::optional<ViewStyle> viewStyleFromCode(FourCC code) noexcept {
    for (const auto style :
         {ViewStyle::icon, ViewStyle::list, ViewStyle::column, ViewStyle::gallery}) {
        if (viewStyleCode(style) == code) {
            return style;
        }
    }
    return std::nullopt;
}

} // namespace dsstore
