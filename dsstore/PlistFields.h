#pragma once

// Typed reads and writes of property-list dictionary entries, shared by the settings views.

#include "PlistValue.h"

#include <cmath>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace dsstore::fields {

inline std::optional<bool> boolean(const PlistValue& dictionary, std::string_view key) {
    const auto* value = dictionary.find(key);
    if (value && value->kind() == PlistValue::Kind::boolean) {
        return value->asBoolean();
    }
    return std::nullopt;
}

// Finder writes some numbers as integers in one version and reals in another; both are read.
inline std::optional<double> real(const PlistValue& dictionary, std::string_view key) {
    const auto* value = dictionary.find(key);
    if (value && value->kind() == PlistValue::Kind::real) {
        return value->asReal();
    }
    if (value && value->kind() == PlistValue::Kind::integer) {
        return static_cast<double>(value->asInteger());
    }
    return std::nullopt;
}

inline std::optional<std::int64_t> integer(const PlistValue& dictionary, std::string_view key) {
    const auto* value = dictionary.find(key);
    if (value && value->kind() == PlistValue::Kind::integer) {
        return value->asInteger();
    }
    if (value && value->kind() == PlistValue::Kind::real) {
        const double real = value->asReal();
        if (std::isfinite(real) && std::trunc(real) == real && std::fabs(real) < 9.0e15) {
            return static_cast<std::int64_t>(real);
        }
    }
    return std::nullopt;
}

inline std::optional<std::string> string(const PlistValue& dictionary, std::string_view key) {
    const auto* value = dictionary.find(key);
    if (value && value->kind() == PlistValue::Kind::string) {
        return value->asString();
    }
    return std::nullopt;
}

inline std::optional<std::vector<std::uint8_t>> data(const PlistValue& dictionary,
                                                     std::string_view key) {
    const auto* value = dictionary.find(key);
    if (value && value->kind() == PlistValue::Kind::data) {
        return value->asData();
    }
    return std::nullopt;
}

inline void put(PlistDictionary& out, std::string_view key, const std::optional<bool>& value) {
    if (value) {
        out.emplace_back(std::string(key), PlistValue::boolean(*value));
    }
}
inline void put(PlistDictionary& out, std::string_view key, const std::optional<double>& value) {
    if (value) {
        out.emplace_back(std::string(key), PlistValue::real(*value));
    }
}
inline void put(PlistDictionary& out, std::string_view key,
                const std::optional<std::int64_t>& value) {
    if (value) {
        out.emplace_back(std::string(key), PlistValue::integer(*value));
    }
}
inline void put(PlistDictionary& out, std::string_view key,
                const std::optional<std::string>& value) {
    if (value) {
        out.emplace_back(std::string(key), PlistValue::string(*value));
    }
}
inline void put(PlistDictionary& out, std::string_view key,
                const std::optional<std::vector<std::uint8_t>>& value) {
    if (value) {
        out.emplace_back(std::string(key), PlistValue::data(*value));
    }
}

} // namespace dsstore::fields
