#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace veltra {

// Why `name` cannot be used as one file name inside a folder Veltra writes to (an app's name in
// "<app>-<version>.dmg"): empty, "." or "..", a '/', '\', NUL or control character, a leading
// '.', or over 200 bytes. Nothing when it can.
std::optional<std::string> fileNameProblem(std::string_view name);

// Why `path`, relative to a folder, could lead out of it: absolute, a NUL or control character,
// or a ".." that climbs above the folder. Nothing when it stays inside (symbolic links are a
// question for the files themselves: see resolvesInside).
std::optional<std::string> relativePathProblem(std::string_view path);

// Whether `path`, with every symbolic link it passes through resolved (the part that does not
// exist yet taken as written), lies inside `folder` (resolved the same way).
bool resolvesInside(const std::filesystem::path& path, const std::filesystem::path& folder);

} // namespace veltra
