#pragma once

#include <filesystem>

namespace veltra {

// Copies a file or a whole folder tree (an app bundle) to `to`, which must not exist: symbolic
// links are copied as links, and permissions and modification times are kept. The data moves
// the cheapest way the system offers: a clone of the whole tree on macOS, a reflink or an
// in-kernel copy per file elsewhere, a buffered copy as the last resort. Throws VeltraError
// (domain "POSIX") naming the file that failed; a partial copy is removed.
void copyItem(const std::filesystem::path& from, const std::filesystem::path& to);

} // namespace veltra
