#include "ListViewSettings.h"

#include "DSStore.h"
#include "PlistFields.h"

namespace dsstore {

ListViewSettings ListViewSettings::fromPropertyList(const PlistValue& plist) {
    ListViewSettings settings;
    settings.showIconPreview = fields::boolean(plist, "showIconPreview");
    settings.useRelativeDates = fields::boolean(plist, "useRelativeDates");
    settings.calculateAllSizes = fields::boolean(plist, "calculateAllSizes");
    settings.scrollPositionX = fields::real(plist, "scrollPositionX");
    settings.scrollPositionY = fields::real(plist, "scrollPositionY");
    settings.textSize = fields::integer(plist, "textSize");
    settings.iconSize = fields::integer(plist, "iconSize");
    settings.viewOptionsVersion = fields::integer(plist, "viewOptionsVersion");
    settings.sortColumn = fields::string(plist, "sortColumn");
    if (const auto* columns = plist.find("columns")) {
        settings.columns = *columns;
    }
    return settings;
}

PlistValue ListViewSettings::propertyList() const {
    PlistDictionary out;
    fields::put(out, "showIconPreview", showIconPreview);
    fields::put(out, "useRelativeDates", useRelativeDates);
    fields::put(out, "calculateAllSizes", calculateAllSizes);
    fields::put(out, "scrollPositionX", scrollPositionX);
    fields::put(out, "scrollPositionY", scrollPositionY);
    fields::put(out, "textSize", textSize);
    fields::put(out, "iconSize", iconSize);
    fields::put(out, "viewOptionsVersion", viewOptionsVersion);
    fields::put(out, "sortColumn", sortColumn);
    if (columns) {
        out.emplace_back("columns", *columns);
    }
    return PlistValue::dictionary(std::move(out));
}

std::optional<ListViewSettings> ListViewSettings::from(const DSStore& store) {
    for (const auto kind :
         {RecordType::Kind::listViewProperties, RecordType::Kind::listViewPropertiesAlternate}) {
        const auto* record = store.find(".", kind);
        if (record && record->value.kind() == Value::Kind::propertyList) {
            return fromPropertyList(record->value.asPropertyList());
        }
    }
    return std::nullopt;
}

Record ListViewSettings::record() const {
    return Record{".", RecordType::Kind::listViewProperties, Value::propertyList(propertyList())};
}

} // namespace dsstore
