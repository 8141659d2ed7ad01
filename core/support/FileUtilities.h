#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace veltra {

// Replaces `path` with `contents` so that a crash at any moment leaves either the old file or the
// new one: a temporary file beside it is written, flushed to disk, then renamed over it.
// Throws VeltraError (domain "POSIX") on failure; the old file is then untouched.
void writeFileAtomically(const std::filesystem::path& path, std::string_view contents);

// Name prefix of the temporary files writeFileAtomically leaves behind only when killed.
std::string atomicWriteTemporaryPrefix(const std::filesystem::path& path);

// Reads a whole file; throws VeltraError (domain "POSIX") when it cannot.
std::string readFile(const std::filesystem::path& path);

// "~" or "~/..." becomes the home directory; anything else is returned as it is.
std::filesystem::path expandTilde(const std::string& path);

// Redundant separators, "." and ".." removed, no trailing separator; a leading "~" is kept.
std::string standardizePath(const std::string& path);

// $HOME, or the password database's entry when HOME is unset.
std::filesystem::path homeDirectory();

} // namespace veltra
