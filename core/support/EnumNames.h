#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

namespace veltra {

// An enumeration's stored (raw) names, one row per case.
template <typename Enum, std::size_t N>
using EnumNames = std::array<std::pair<Enum, std::string_view>, N>;

template <typename Enum, std::size_t N>
constexpr std::string_view nameOf(const EnumNames<Enum, N>& names, Enum value) {
    for (const auto& [candidate, name] : names) {
        if (candidate == value) {
            return name;
        }
    }
    return names.front().second;
}

// The case whose name is `raw` exactly; none for an unknown name.
template <typename Enum, std::size_t N>
constexpr std::optional<Enum> valueOf(const EnumNames<Enum, N>& names, std::string_view raw) {
    for (const auto& [value, name] : names) {
        if (name == raw) {
            return value;
        }
    }
    return std::nullopt;
}

} // namespace veltra
