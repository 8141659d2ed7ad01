#pragma once

#include <string_view>

#include <nlohmann/json.hpp>

namespace veltra {

// project.pbxproj as JSON: the old-style text property list Xcode writes (comments dropped,
// every scalar a string), or the XML form some generators write. Throws VeltraError (domain
// "Veltra", code 400) naming the line of the first problem.
nlohmann::json parseProjectFile(std::string_view text);

} // namespace veltra
