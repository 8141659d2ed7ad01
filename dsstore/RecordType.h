#pragma once

#include "FourCC.h"

#include <cstdint>
#include <string_view>

namespace dsstore {

// What a record says about its file. Every code has a case; codes this module does not know are
// `custom` and are kept and written back unchanged.
class RecordType {
public:
    enum class Kind : std::uint8_t {
        iconViewOptionsFlag,
        iconLocation,
        listViewOptionsFlag,
        browserWindowSettings,
        textClipping,
        spotlightComment,
        desktopIconLocation,
        subdirectoryDisclosed,
        extensionHidden,
        finderWindowInfo,
        finderWindowSidebarWidth,
        finderWindowVerticalHeight,
        galleryViewProperties,
        group,
        iconViewGridOffset,
        iconViewScrollPosition,
        iconViewOptions,
        iconViewProperties,
        iconViewTextSize,
        info,
        logicalSize,
        logicalSizeLegacy,
        listViewScrollPosition,
        listViewOptions,
        listViewColumns,
        listViewProperties,
        listViewPropertiesAlternate,
        listViewTextSize,
        modificationDate,
        modificationDateAlternate,
        physicalSize,
        physicalSizeLegacy,
        trashPutBackLocation,
        trashPutBackName,
        viewSortVersion,
        viewStyle,
        custom
    };

    // A known case; `custom` needs a code and is made with fromCode.
    RecordType(Kind kind); // NOLINT(google-explicit-constructor): reads as the case name
    static RecordType fromCode(FourCC code);

    Kind kind() const noexcept { return kind_; }
    FourCC code() const noexcept { return code_; }
    // "Icon Location" and so on; "Custom" for codes this module does not know.
    std::string_view description() const noexcept;
    // Whether a "blob" under this code is a binary property list.
    bool holdsPropertyList() const noexcept;

    friend bool operator==(RecordType a, RecordType b) noexcept { return a.code_ == b.code_; }

private:
    RecordType(Kind kind, FourCC code) : kind_(kind), code_(code) {}

    Kind kind_;
    FourCC code_;
};

} // namespace dsstore
