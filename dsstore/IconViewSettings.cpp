#include "IconViewSettings.h"

#include "DSStore.h"
#include "PlistFields.h"

namespace dsstore {

BackgroundType IconViewSettings::background() const {
    switch (backgroundType.value_or(0)) {
    case 1:
        return BackgroundType::color(backgroundColorRed.value_or(1),
                                     backgroundColorGreen.value_or(1),
                                     backgroundColorBlue.value_or(1));
    case 2:
        return BackgroundType::picture(backgroundImageAlias.value_or(std::vector<std::uint8_t>()));
    default:
        return BackgroundType();
    }
}

void IconViewSettings::setBackground(const BackgroundType& background) {
    backgroundColorRed.reset();
    backgroundColorGreen.reset();
    backgroundColorBlue.reset();
    backgroundImageAlias.reset();
    switch (background.kind) {
    case BackgroundType::Kind::defaultBackground:
        backgroundType = 0;
        break;
    case BackgroundType::Kind::color:
        backgroundType = 1;
        backgroundColorRed = background.red;
        backgroundColorGreen = background.green;
        backgroundColorBlue = background.blue;
        break;
    case BackgroundType::Kind::picture:
        backgroundType = 2;
        backgroundImageAlias = background.aliasData;
        break;
    }
}

IconViewSettings IconViewSettings::fromPropertyList(const PlistValue& plist) {
    IconViewSettings settings;
    settings.showIconPreview = fields::boolean(plist, "showIconPreview");
    settings.showItemInfo = fields::boolean(plist, "showItemInfo");
    settings.labelOnBottom = fields::boolean(plist, "labelOnBottom");
    settings.scrollPositionX = fields::real(plist, "scrollPositionX");
    settings.scrollPositionY = fields::real(plist, "scrollPositionY");
    settings.gridOffsetX = fields::real(plist, "gridOffsetX");
    settings.gridOffsetY = fields::real(plist, "gridOffsetY");
    settings.textSize = fields::integer(plist, "textSize");
    settings.iconSize = fields::integer(plist, "iconSize");
    settings.gridSpacing = fields::real(plist, "gridSpacing");
    settings.viewOptionsVersion = fields::integer(plist, "viewOptionsVersion");
    settings.arrangeBy = fields::string(plist, "arrangeBy");
    settings.backgroundType = fields::integer(plist, "backgroundType");
    settings.backgroundColorRed = fields::real(plist, "backgroundColorRed");
    settings.backgroundColorGreen = fields::real(plist, "backgroundColorGreen");
    settings.backgroundColorBlue = fields::real(plist, "backgroundColorBlue");
    settings.backgroundImageAlias = fields::data(plist, "backgroundImageAlias");
    return settings;
}

PlistValue IconViewSettings::propertyList() const {
    PlistDictionary out;
    fields::put(out, "showIconPreview", showIconPreview);
    fields::put(out, "showItemInfo", showItemInfo);
    fields::put(out, "labelOnBottom", labelOnBottom);
    fields::put(out, "scrollPositionX", scrollPositionX);
    fields::put(out, "scrollPositionY", scrollPositionY);
    fields::put(out, "gridOffsetX", gridOffsetX);
    fields::put(out, "gridOffsetY", gridOffsetY);
    fields::put(out, "textSize", textSize);
    fields::put(out, "iconSize", iconSize);
    fields::put(out, "gridSpacing", gridSpacing);
    fields::put(out, "viewOptionsVersion", viewOptionsVersion);
    fields::put(out, "arrangeBy", arrangeBy);
    fields::put(out, "backgroundType", backgroundType);
    fields::put(out, "backgroundColorRed", backgroundColorRed);
    fields::put(out, "backgroundColorGreen", backgroundColorGreen);
    fields::put(out, "backgroundColorBlue", backgroundColorBlue);
    fields::put(out, "backgroundImageAlias", backgroundImageAlias);
    return PlistValue::dictionary(std::move(out));
}

std::optional<IconViewSettings> IconViewSettings::from(const DSStore& store) {
    const auto* record = store.find(".", RecordType::Kind::iconViewProperties);
    if (!record || record->value.kind() != Value::Kind::propertyList) {
        return std::nullopt;
    }
    return fromPropertyList(record->value.asPropertyList());
}

Record IconViewSettings::record() const {
    return Record{".", RecordType::Kind::iconViewProperties, Value::propertyList(propertyList())};
}

} // namespace dsstore
