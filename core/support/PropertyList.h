#pragma once

#include <filesystem>
#include <string_view>

#include <nlohmann/json.hpp>

namespace veltra {

// A binary or XML property list as JSON: dictionaries become objects, dates ISO 8601 strings,
// data base64 strings. Throws VeltraError (domain "Veltra", code 400) with the reason when the
// bytes are not a property list.
nlohmann::json parsePropertyList(std::string_view bytes);

// The same for a file whose root must be a dictionary. The reason is "The plist must contain a
// dictionary." for another root, and the file system's words when it cannot be read.
nlohmann::json readPropertyListDictionary(const std::filesystem::path& path);

} // namespace veltra
