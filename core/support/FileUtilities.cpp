#include "FileUtilities.h"

#include "Uuid.h"
#include "VeltraError.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <fmt/format.h>

namespace veltra {
namespace {

VeltraError fileError(int error, const std::string& what, const std::filesystem::path& path) {
    return VeltraError("POSIX", error,
                       fmt::format("{} {}: {}", what, path.string(), std::strerror(error)));
}

void syncDirectory(const std::filesystem::path& directory) {
    const int fd =
        ::open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd); // some file systems refuse; the rename itself is still atomic
        ::close(fd);
    }
}

} // namespace

std::string atomicWriteTemporaryPrefix(const std::filesystem::path& path) {
    return "." + path.filename().string() + ".tmp-";
}

namespace {

// A new file beside `path` with `contents`, flushed to disk; returns its name. O_EXCL and
// O_NOFOLLOW: a name someone else made, or a link planted under it, is never written through.
std::filesystem::path writeTemporaryBeside(const std::filesystem::path& path,
                                           std::string_view contents, mode_t mode,
                                           bool keepExistingMode) {
    const auto temporary =
        path.parent_path() / (atomicWriteTemporaryPrefix(path) + Uuid::random().string());
    const int fd =
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0) {
        throw fileError(errno, "Could not write", path);
    }
    const auto fail = [&](int error) {
        ::close(fd);
        ::unlink(temporary.c_str());
        return fileError(error, "Could not write", path);
    };
    struct stat existing {};
    if (keepExistingMode && ::stat(path.c_str(), &existing) == 0) {
        ::fchmod(fd, existing.st_mode & 07777);
    } else if (::fchmod(fd, mode) != 0) { // the umask may have taken bits off; never added any
        throw fail(errno);
    }
    while (!contents.empty()) {
        const ssize_t written = ::write(fd, contents.data(), contents.size());
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw fail(errno);
        }
        contents.remove_prefix(static_cast<std::size_t>(written));
    }
    if (::fsync(fd) != 0) {
        throw fail(errno);
    }
    if (::close(fd) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        throw fileError(error, "Could not write", path);
    }
    return temporary;
}

} // namespace

void writeFileAtomically(const std::filesystem::path& path, std::string_view contents,
                         std::optional<std::filesystem::perms> mode) {
    const auto temporary = writeTemporaryBeside(
        path, contents, mode ? static_cast<mode_t>(*mode) : 0644, !mode.has_value());
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        throw fileError(error, "Could not write", path);
    }
    syncDirectory(path.parent_path());
}

void createPrivateDirectories(const std::filesystem::path& path) {
    if (path.empty() || std::filesystem::is_directory(path)) {
        return;
    }
    createPrivateDirectories(path.parent_path());
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        throw fileError(errno, "Could not create the folder", path);
    }
}

void writeSecretFile(const std::filesystem::path& path, std::string_view contents) {
    createPrivateDirectories(path.parent_path());
    if (std::filesystem::exists(std::filesystem::symlink_status(path))) {
        throw fileError(EEXIST, "Will not replace", path);
    }
    const auto temporary = writeTemporaryBeside(path, contents, 0600, false);
    // A hard link fails rather than replace what appeared meanwhile; where the file system has
    // none, a rename that refuses to replace does the same.
    int result = ::link(temporary.c_str(), path.c_str());
    int error = result == 0 ? 0 : errno;
#if defined(__linux__)
    if (result != 0 && error != EEXIST) {
        result = ::renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE);
        error = result == 0 ? 0 : errno;
    }
#elif defined(__APPLE__)
    if (result != 0 && error != EEXIST) {
        result = ::renamex_np(temporary.c_str(), path.c_str(), RENAME_EXCL);
        error = result == 0 ? 0 : errno;
    }
#endif
    ::unlink(temporary.c_str());
    if (result != 0) {
        throw fileError(error, error == EEXIST ? "Will not replace" : "Could not write", path);
    }
    syncDirectory(path.parent_path());
}

std::filesystem::path makeOwnedTemporaryFolder(const std::filesystem::path& parent,
                                               std::string_view prefix) {
    auto pattern =
        (parent / (std::string(prefix) + std::to_string(::getpid()) + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw fileError(errno, "Could not create a temporary folder", pattern);
    }
    return pattern;
}

std::size_t removeAbandonedTemporaryFolders(const std::filesystem::path& parent,
                                            std::string_view prefix, bool onlyEmpty) {
    std::error_code error;
    std::size_t removed = 0;
    for (const auto& entry : std::filesystem::directory_iterator(parent, error)) {
        const auto name = entry.path().filename().string();
        if (!name.starts_with(prefix)) {
            continue;
        }
        // "<pid>-XXXXXX" after the prefix, nothing else.
        const auto rest = std::string_view(name).substr(prefix.size());
        const auto dash = rest.find('-');
        if (dash == 0 || dash == std::string_view::npos || dash > 9 || rest.size() != dash + 7 ||
            rest.substr(0, dash).find_first_not_of("0123456789") != std::string_view::npos) {
            continue;
        }
        const auto pid = static_cast<pid_t>(std::stol(std::string(rest.substr(0, dash))));
        struct stat info {};
        if (::lstat(entry.path().c_str(), &info) != 0 || !S_ISDIR(info.st_mode) ||
            info.st_uid != ::getuid() || pid == ::getpid() ||
            (::kill(pid, 0) == 0 || errno != ESRCH)) {
            continue;
        }
        std::error_code ignored;
        if (onlyEmpty ? std::filesystem::remove(entry.path(), ignored)
                      : std::filesystem::remove_all(entry.path(), ignored) > 0) {
            ++removed;
        }
    }
    return removed;
}

PrivateTemporaryFolder::PrivateTemporaryFolder(const std::string& prefix) {
    auto pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw fileError(errno, "Could not create a temporary folder", pattern);
    }
    path_ = pattern;
}

PrivateTemporaryFolder::~PrivateTemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw fileError(errno != 0 ? errno : EIO, "Could not read", path);
    }
    std::string contents{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (in.bad()) {
        throw fileError(EIO, "Could not read", path);
    }
    return contents;
}

std::filesystem::path veltraLogFolder() {
    return homeDirectory() / ".veltra" / "logs";
}

void makeRoomForNewest(const std::filesystem::path& folder, std::string_view prefix,
                       std::size_t keep) {
    std::vector<std::filesystem::path> found;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        if (entry.path().filename().string().starts_with(prefix)) {
            found.push_back(entry.path());
        }
    }
    std::sort(found.begin(), found.end());
    // keep - 1 stay, so that the one about to be added makes `keep`.
    const auto stay = keep == 0 ? 0 : keep - 1;
    for (std::size_t i = 0; i + stay < found.size(); ++i) {
        std::filesystem::remove(found[i], error);
    }
}

std::filesystem::path homeDirectory() {
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
        return home;
    }
    if (const passwd* entry = ::getpwuid(::getuid());
        entry != nullptr && entry->pw_dir != nullptr) {
        return entry->pw_dir;
    }
    return "/";
}

std::filesystem::path expandTilde(const std::string& path) {
    if (path == "~") {
        return homeDirectory();
    }
    if (path.starts_with("~/")) {
        return homeDirectory() / path.substr(2);
    }
    return path;
}

std::string standardizePath(const std::string& path) {
    if (path.empty()) {
        return path;
    }
    std::string normal = std::filesystem::path(path).lexically_normal().string();
    while (normal.size() > 1 && normal.back() == '/') {
        normal.pop_back();
    }
    return normal.empty() ? path : normal;
}

} // namespace veltra
