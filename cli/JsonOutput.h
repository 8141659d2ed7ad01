#pragma once

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

// Indented, with bytes that are not UTF-8 (outside input: feeds, project files) shown replaced
// rather than refused.
inline std::string jsonText(const Json& json) {
    return json.dump(2, ' ', false, Json::error_handler_t::replace);
}

} // namespace veltra::cli
