#pragma once

#include "core/support/Date.h"

#include <filesystem>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace veltra::cli {

// Commands print JSON with the fields in the order the engines name them.
using Json = nlohmann::ordered_json;

template <typename T> Json orNull(const std::optional<T>& value) {
    return value ? Json(*value) : Json(nullptr);
}

inline Json orNull(const std::optional<std::filesystem::path>& path) {
    return path ? Json(path->string()) : Json(nullptr);
}

// What JSON output shows of the records: dates as ISO 8601 UTC (the stored files keep seconds
// from 2001, the form they have always had).
template <typename J> J withReadableDates(J json) {
    if (json.is_object()) {
        for (auto& [key, value] : json.items()) {
            if (value.is_number() && (key == "releaseDate" || key == "pushedAt" ||
                                      key == "lastCheckedAt" || key == "timestamp")) {
                value = Date{value.template get<double>()}.iso8601();
            } else {
                value = withReadableDates(std::move(value));
            }
        }
    } else if (json.is_array()) {
        for (auto& value : json) {
            value = withReadableDates(std::move(value));
        }
    }
    return json;
}

// Indented, with bytes that are not UTF-8 (outside input: feeds, project files) shown replaced
// rather than refused.
inline std::string jsonText(const Json& json) {
    return json.dump(2, ' ', false, Json::error_handler_t::replace);
}

} // namespace veltra::cli
