#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace veltra {

// A binary or XML property list as JSON: dictionaries become objects, dates ISO 8601 strings,
// data base64 strings. Throws VeltraError (domain "Veltra", code 400) with the reason when the
// bytes are not a property list.
nlohmann::json parsePropertyList(std::string_view bytes);

// The same for a file whose root must be a dictionary. The reason is "The plist must contain a
// dictionary." for another root, and the file system's words when it cannot be read.
nlohmann::json readPropertyListDictionary(const std::filesystem::path& path);

// Sets string values in the dictionary of the property list at `path` (a new XML one when the
// file does not exist) and writes it back as XML, atomically. Other keys keep their values.
// Throws VeltraError when the file is not a dictionary property list or cannot be written.
void setPropertyListStrings(const std::filesystem::path& path,
                            const std::map<std::string, std::string>& values);

// Changes to a dictionary property list; keys not named keep their values and types.
struct PropertyListEdit {
    std::vector<std::string> remove{};
    std::map<std::string, bool> booleans{};
    std::map<std::string, std::string> strings{};
    // Strings appended to an array (made when missing), each unless the array holds it.
    std::map<std::string, std::vector<std::string>> arrayAdditions{};
};

// `bytes` (XML or binary; empty for a new dictionary) edited, as XML. Throws VeltraError when
// the bytes are not a dictionary property list, or a key to append to holds no array.
std::string editPropertyList(std::string_view bytes, const PropertyListEdit& edit);

} // namespace veltra
