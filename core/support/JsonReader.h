#pragma once

#include "Date.h"
#include "Uuid.h"

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace veltra {

// Records keep their keys in declaration order when written.
using Json = nlohmann::ordered_json;

// A record that could not be decoded; what() is "<path>: <problem>", for example
// "profiles[1].notarization.signingIdentity: missing".
class JsonDecodingError : public std::runtime_error {
public:
    JsonDecodingError(const std::string& path, const std::string& problem);
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// Reads the fields of one JSON object, naming the path of whatever is missing or wrong.
// A key holding null counts as absent.
class JsonReader {
public:
    JsonReader(const Json& value, std::string path);

    const std::string& path() const { return path_; }
    std::string pathOf(std::string_view key) const;
    const Json* find(std::string_view key) const;
    const Json& require(std::string_view key) const;

    std::string string(std::string_view key) const;
    std::optional<std::string> optionalString(std::string_view key) const;
    bool boolean(std::string_view key) const;
    std::optional<bool> optionalBoolean(std::string_view key) const;
    double number(std::string_view key) const;
    std::int64_t integer(std::string_view key) const;
    Uuid uuid(std::string_view key) const;
    Date date(std::string_view key) const;
    std::optional<Date> optionalDate(std::string_view key) const;

    // Type checks for one value at `path`.
    static std::string asString(const Json& value, const std::string& path);
    static bool asBoolean(const Json& value, const std::string& path);
    static double asNumber(const Json& value, const std::string& path);
    static std::int64_t asInteger(const Json& value, const std::string& path);

private:
    const Json& object_;
    std::string path_;
};

// Writes `key` only when `value` is present: absent optionals are left out of records.
template <typename T> void putOptional(Json& json, const char* key, const std::optional<T>& value) {
    if (value) {
        json[key] = *value;
    }
}

// Parses JSON text; bad syntax is reported as a JsonDecodingError at `path`.
Json parseJson(std::string_view text, const std::string& path = "file");
// Compact text; invalid UTF-8 in strings is replaced rather than refused.
std::string dumpJson(const Json& value);

} // namespace veltra
