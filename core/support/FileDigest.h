#pragma once

#include <filesystem>
#include <string>

namespace veltra {

// The SHA-256 of a file in lower-case hexadecimal, read in 1 MiB pieces. Throws VeltraError
// (domain "POSIX") when the file cannot be read.
std::string sha256Hex(const std::filesystem::path& file);

} // namespace veltra
