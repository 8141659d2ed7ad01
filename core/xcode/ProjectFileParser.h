#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace veltra {

// project.pbxproj as JSON: the old-style text property list Xcode writes (comments dropped,
// every scalar a string), or the XML form some generators write. Throws VeltraError (domain
// "Veltra", code 400) naming the line of the first problem.
nlohmann::json parseProjectFile(std::string_view text);

// The first comment or quoted string of a text project file that runs over several lines, which
// Xcode never writes ("the comment that opens on line 109 runs on to line 116"); none when there
// is none. Such a file may still parse, with keys hidden inside.
std::optional<std::string> projectFileRunOn(std::string_view text);

} // namespace veltra
