#include "DMGDesignConfig.h"

#include "core/support/EnumNames.h"

namespace veltra {
namespace {

constexpr EnumNames<DMGBackgroundType, 3> backgroundTypeNames{{
    {DMGBackgroundType::defaultTemplate, "default"},
    {DMGBackgroundType::custom, "custom"},
    {DMGBackgroundType::plain, "plain"},
}};

constexpr EnumNames<DMGLayoutPreset, 3> layoutPresetNames{{
    {DMGLayoutPreset::modernWide, "Modern Wide (720×440)"},
    {DMGLayoutPreset::classic, "Classic (660×400)"},
    {DMGLayoutPreset::compact, "Compact (540×360)"},
}};

} // namespace

std::string_view rawValue(DMGBackgroundType type) {
    return nameOf(backgroundTypeNames, type);
}

std::optional<DMGBackgroundType> dmgBackgroundType(std::string_view raw) {
    return valueOf(backgroundTypeNames, raw);
}

std::string_view rawValue(DMGLayoutPreset preset) {
    return nameOf(layoutPresetNames, preset);
}

} // namespace veltra
