#pragma once

#include <filesystem>

namespace veltra {

// Copies a file or a whole folder tree (an app bundle) to `to`, which must not exist: symbolic
// links are copied as links, and permissions and modification times are kept. The data moves
// the cheapest way the system offers: a clone of the whole tree on macOS, a reflink or an
// in-kernel copy per file elsewhere, a buffered copy as the last resort. Throws VeltraError
// (domain "POSIX") naming the file that failed; a partial copy is removed.
//
// A copy that is only ever read (a disk image's staging folder) may share its files with the
// original where the data would otherwise be copied: folders are new, files are hard links.
enum class CopyUse { independent, readOnly };
void copyItem(const std::filesystem::path& from, const std::filesystem::path& to,
              CopyUse use = CopyUse::independent);

} // namespace veltra
