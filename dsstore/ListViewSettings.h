#pragma once

#include "PlistValue.h"
#include "Record.h"

#include <cstdint>
#include <optional>
#include <string>

namespace dsstore {

struct DSStore;

// The list view's options: the "lsvp" record of "." (or "lsvP", which newer Finders also write).
struct ListViewSettings {
    std::optional<bool> showIconPreview;
    std::optional<bool> useRelativeDates;
    std::optional<bool> calculateAllSizes;
    std::optional<double> scrollPositionX;
    std::optional<double> scrollPositionY;
    std::optional<std::int64_t> textSize;
    std::optional<std::int64_t> iconSize;
    std::optional<std::int64_t> viewOptionsVersion;
    std::optional<std::string> sortColumn;
    // A dictionary by column name in "lsvp", an array in "lsvP"; kept as Finder wrote it.
    std::optional<PlistValue> columns;

    static ListViewSettings fromPropertyList(const PlistValue& plist);
    PlistValue propertyList() const;

    // Prefers "lsvp" and falls back to "lsvP".
    static std::optional<ListViewSettings> from(const DSStore& store);
    Record record() const;

    friend bool operator==(const ListViewSettings&, const ListViewSettings&) = default;
};

} // namespace dsstore
