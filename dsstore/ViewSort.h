#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace dsstore {

// What icons are arranged by ("arrangeBy") or a list is sorted on ("sortColumn").
enum class ViewSort { none, name, kind, dateModified, dateCreated, size, label };

constexpr std::array<std::string_view, 7> viewSortNames{
    "none", "name", "kind", "dateModified", "dateCreated", "size", "label"};

constexpr std::string_view viewSortName(ViewSort sort) noexcept {
    return viewSortNames[static_cast<std::size_t>(sort)];
}

constexpr std::optional<ViewSort> viewSortFromName(std::string_view name) noexcept {
    for (std::size_t i = 0; i < viewSortNames.size(); ++i) {
        if (viewSortNames[i] == name) {
            return static_cast<ViewSort>(i);
        }
    }
    return std::nullopt;
}

} // namespace dsstore
