#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace veltra {

// Replaces `path` with `contents` so that a crash at any moment leaves either the old file or the
// new one: a temporary file beside it is written, flushed to disk, then renamed over it.
// Throws VeltraError (domain "POSIX") on failure; the old file is then untouched.
// With `mode`, the file has that mode from its first byte (however loose the old one was);
// without, it keeps the mode of the file it replaces.
void writeFileAtomically(const std::filesystem::path& path, std::string_view contents,
                         std::optional<std::filesystem::perms> mode = std::nullopt);

// Writes a file that holds a secret: missing folders are made 0700, the file is 0600 from its
// first byte (a temporary file made with O_EXCL, flushed to disk) and never replaces an existing
// file. Throws VeltraError ("POSIX", EEXIST) when `path` exists, ("POSIX", errno) otherwise.
void writeSecretFile(const std::filesystem::path& path, std::string_view contents);

// Makes the missing folders of `path` (itself included) with mode 0700. Existing folders keep
// their mode: they may be shared ones the user named.
void createPrivateDirectories(const std::filesystem::path& path);

// Name prefix of the temporary files writeFileAtomically leaves behind only when killed.
std::string atomicWriteTemporaryPrefix(const std::filesystem::path& path);

// A new folder of mode 0700 in `parent` named "<prefix><pid>-XXXXXX": the owning process is in
// the name, so a later run can tell a stopped run's folder from a running one's. Throws
// VeltraError ("POSIX") when it cannot be made.
std::filesystem::path makeOwnedTemporaryFolder(const std::filesystem::path& parent,
                                               std::string_view prefix);
// Removes what makeOwnedTemporaryFolder made in `parent` with `prefix` for processes that are
// gone (this user's only; never a living process's). With `onlyEmpty`, only empty folders (a
// mount point may still hold a volume). Returns how many went.
std::size_t removeAbandonedTemporaryFolders(const std::filesystem::path& parent,
                                            std::string_view prefix, bool onlyEmpty = false);

// A new folder of mode 0700 in the temporary folder ("<prefix>-XXXXXX", a name mkdtemp picks),
// removed with all it holds when this goes. Throws VeltraError ("POSIX") when it cannot be made.
class PrivateTemporaryFolder {
public:
    explicit PrivateTemporaryFolder(const std::string& prefix);
    ~PrivateTemporaryFolder();
    PrivateTemporaryFolder(const PrivateTemporaryFolder&) = delete;
    PrivateTemporaryFolder& operator=(const PrivateTemporaryFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

// Reads a whole file; throws VeltraError (domain "POSIX") when it cannot.
std::string readFile(const std::filesystem::path& path);

// "~" or "~/..." becomes the home directory; anything else is returned as it is.
std::filesystem::path expandTilde(const std::string& path);

// Redundant separators, "." and ".." removed, no trailing separator; a leading "~" is kept.
std::string standardizePath(const std::string& path);

// ~/.veltra/logs: the run logs and tool logs Veltra keeps for the user (made 0700 by whoever
// writes there first).
std::filesystem::path veltraLogFolder();

// Removes the oldest files in `folder` whose names start with `prefix` (names that sort by age,
// a timestamp after the prefix), so that `keep` of them remain once one more is added.
void makeRoomForNewest(const std::filesystem::path& folder, std::string_view prefix,
                       std::size_t keep);

// $HOME, or the password database's entry when HOME is unset.
std::filesystem::path homeDirectory();

} // namespace veltra
