#include "RecordType.h"

#include <algorithm>
#include <array>

namespace dsstore {

namespace {

struct KnownType {
    RecordType::Kind kind;
    FourCC code;
    std::string_view description;
};

using K = RecordType::Kind;
constexpr std::array<KnownType, 36> knownTypes{{
    {K::iconViewOptionsFlag, FourCC("ICVO"), "Icon View Options Flag"},
    {K::iconLocation, FourCC("Iloc"), "Icon Location"},
    {K::listViewOptionsFlag, FourCC("LSVO"), "List View Options Flag"},
    {K::browserWindowSettings, FourCC("bwsp"), "Browser Window Settings"},
    {K::textClipping, FourCC("clip"), "Text Clipping"},
    {K::spotlightComment, FourCC("cmmt"), "Spotlight Comment"},
    {K::desktopIconLocation, FourCC("dilc"), "Desktop Icon Location"},
    {K::subdirectoryDisclosed, FourCC("dscl"), "Subdirectory Disclosed"},
    {K::extensionHidden, FourCC("extn"), "Extension Hidden"},
    {K::finderWindowInfo, FourCC("fwi0"), "Finder Window Info"},
    {K::finderWindowSidebarWidth, FourCC("fwsw"), "Finder Window Sidebar Width"},
    {K::finderWindowVerticalHeight, FourCC("fwvh"), "Finder Window Vertical Height"},
    {K::galleryViewProperties, FourCC("glvp"), "Gallery View Properties"},
    {K::group, FourCC("GRP0"), "Group"},
    {K::iconViewGridOffset, FourCC("icgo"), "Icon View Grid Offset"},
    {K::iconViewScrollPosition, FourCC("icsp"), "Icon View Scroll Position"},
    {K::iconViewOptions, FourCC("icvo"), "Icon View Options"},
    {K::iconViewProperties, FourCC("icvp"), "Icon View Properties"},
    {K::iconViewTextSize, FourCC("icvt"), "Icon View Text Size"},
    {K::info, FourCC("info"), "Info"},
    {K::logicalSize, FourCC("lg1S"), "Logical Size"},
    {K::logicalSizeLegacy, FourCC("logS"), "Logical Size (Legacy)"},
    {K::listViewScrollPosition, FourCC("lssp"), "List View Scroll Position"},
    {K::listViewOptions, FourCC("lsvo"), "List View Options"},
    {K::listViewColumns, FourCC("lsvC"), "List View Columns"},
    {K::listViewProperties, FourCC("lsvp"), "List View Properties"},
    {K::listViewPropertiesAlternate, FourCC("lsvP"), "List View Properties (Alternate)"},
    {K::listViewTextSize, FourCC("lsvt"), "List View Text Size"},
    {K::modificationDate, FourCC("modD"), "Modification Date"},
    {K::modificationDateAlternate, FourCC("moDD"), "Modification Date (Alternate)"},
    {K::physicalSize, FourCC("ph1S"), "Physical Size"},
    {K::physicalSizeLegacy, FourCC("phyS"), "Physical Size (Legacy)"},
    {K::trashPutBackLocation, FourCC("ptbL"), "Trash Put Back Location"},
    {K::trashPutBackName, FourCC("ptbN"), "Trash Put Back Name"},
    {K::viewSortVersion, FourCC("vSrn"), "View Sort Version"},
    {K::viewStyle, FourCC("vstl"), "View Style"},
}};

} // namespace

RecordType::RecordType(Kind kind)
    : kind_(kind),
      code_(kind == Kind::custom ? FourCC() : knownTypes[static_cast<std::size_t>(kind)].code) {}

RecordType RecordType::fromCode(FourCC code) {
    const auto* found = std::ranges::find(knownTypes, code, &KnownType::code);
    return found == knownTypes.end() ? RecordType(Kind::custom, code)
                                     : RecordType(found->kind, code);
}

std::string_view RecordType::description() const noexcept {
    return kind_ == Kind::custom ? "Custom"
                                 : knownTypes[static_cast<std::size_t>(kind_)].description;
}

bool RecordType::holdsPropertyList() const noexcept {
    switch (kind_) {
    case Kind::browserWindowSettings:
    case Kind::iconViewProperties:
    case Kind::listViewProperties:
    case Kind::listViewPropertiesAlternate:
    case Kind::galleryViewProperties:
        return true;
    default:
        return false;
    }
}

} // namespace dsstore
