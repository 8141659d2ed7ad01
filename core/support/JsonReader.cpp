#include "JsonReader.h"

#include <cmath>
#include <limits>

namespace veltra {

JsonDecodingError::JsonDecodingError(const std::string& path, const std::string& problem)
    : std::runtime_error(path + ": " + problem), path_(path) {}

JsonReader::JsonReader(const Json& value, std::string path)
    : object_(value), path_(std::move(path)) {
    if (!object_.is_object()) {
        throw JsonDecodingError(path_, "expected an object");
    }
}

std::string JsonReader::pathOf(std::string_view key) const {
    return path_.empty() ? std::string(key) : path_ + "." + std::string(key);
}

const Json* JsonReader::find(std::string_view key) const {
    const auto found = object_.find(key);
    if (found == object_.end() || found->is_null()) {
        return nullptr;
    }
    return &*found;
}

const Json& JsonReader::require(std::string_view key) const {
    const Json* value = find(key);
    if (value == nullptr) {
        throw JsonDecodingError(pathOf(key), "missing");
    }
    return *value;
}

std::string JsonReader::asString(const Json& value, const std::string& path) {
    if (!value.is_string()) {
        throw JsonDecodingError(path, "expected a string");
    }
    return value.get<std::string>();
}

bool JsonReader::asBoolean(const Json& value, const std::string& path) {
    if (!value.is_boolean()) {
        throw JsonDecodingError(path, "expected true or false");
    }
    return value.get<bool>();
}

double JsonReader::asNumber(const Json& value, const std::string& path) {
    // A value that is not finite could not be written back as JSON.
    if (!value.is_number() || !std::isfinite(value.get<double>())) {
        throw JsonDecodingError(path, "expected a number");
    }
    return value.get<double>();
}

std::int64_t JsonReader::asInteger(const Json& value, const std::string& path) {
    if (value.is_number_integer()) {
        if (value.is_number_unsigned() &&
            value.get<std::uint64_t>() >
                static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            throw JsonDecodingError(path, "number too large");
        }
        return value.get<std::int64_t>();
    }
    if (value.is_number_float()) {
        const double number = value.get<double>();
        // 2^63 itself is out of range; every smaller integral double fits.
        if (std::trunc(number) == number && std::abs(number) < 9.2233720368547758e18) {
            return static_cast<std::int64_t>(number);
        }
    }
    throw JsonDecodingError(path, "expected a whole number");
}

std::string JsonReader::string(std::string_view key) const {
    return asString(require(key), pathOf(key));
}

std::optional<std::string> JsonReader::optionalString(std::string_view key) const {
    const Json* value = find(key);
    return value ? std::optional(asString(*value, pathOf(key))) : std::nullopt;
}

bool JsonReader::boolean(std::string_view key) const {
    return asBoolean(require(key), pathOf(key));
}

std::optional<bool> JsonReader::optionalBoolean(std::string_view key) const {
    const Json* value = find(key);
    return value ? std::optional(asBoolean(*value, pathOf(key))) : std::nullopt;
}

double JsonReader::number(std::string_view key) const {
    return asNumber(require(key), pathOf(key));
}

std::int64_t JsonReader::integer(std::string_view key) const {
    return asInteger(require(key), pathOf(key));
}

Uuid JsonReader::uuid(std::string_view key) const {
    const auto text = string(key);
    const auto parsed = Uuid::parse(text);
    if (!parsed) {
        throw JsonDecodingError(pathOf(key), "not a UUID: \"" + text + "\"");
    }
    return *parsed;
}

Date JsonReader::date(std::string_view key) const {
    return Date{number(key)};
}

std::optional<Date> JsonReader::optionalDate(std::string_view key) const {
    return find(key) ? std::optional(date(key)) : std::nullopt;
}

Json parseJson(std::string_view text, const std::string& path) {
    try {
        return Json::parse(text);
    } catch (const Json::exception& error) {
        // Not only syntax: a number too large for a double is an out_of_range error.
        // nlohmann's message starts with "[json.exception.parse_error.101] "; keep what follows.
        std::string message = error.what();
        if (const auto bracket = message.find("] "); bracket != std::string::npos) {
            message.erase(0, bracket + 2);
        }
        throw JsonDecodingError(path, "not valid JSON (" + message + ")");
    }
}

std::string dumpJson(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace veltra
