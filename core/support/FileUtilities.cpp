#include "FileUtilities.h"

#include "Uuid.h"
#include "VeltraError.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

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

void writeFileAtomically(const std::filesystem::path& path, std::string_view contents) {
    const auto directory = path.parent_path();
    const auto temporary = directory / (atomicWriteTemporaryPrefix(path) + Uuid::random().string());
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        throw fileError(errno, "Could not write", path);
    }
    const auto fail = [&](int error) {
        ::close(fd);
        ::unlink(temporary.c_str());
        return fileError(error, "Could not write", path);
    };
    // Keep the permissions of the file being replaced.
    struct stat existing {};
    if (::stat(path.c_str(), &existing) == 0) {
        ::fchmod(fd, existing.st_mode & 07777);
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
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        throw fileError(error, "Could not write", path);
    }
    syncDirectory(directory);
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
