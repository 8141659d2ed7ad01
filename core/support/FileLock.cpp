#include "FileLock.h"

#include "FileUtilities.h"
#include "VeltraError.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace veltra {
namespace {

int openLockFile(const std::filesystem::path& path) {
    createPrivateDirectories(path.parent_path());
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        throw VeltraError(
            "POSIX", errno,
            fmt::format("Could not open the lock {}: {}", path.string(), std::strerror(errno)));
    }
    return fd;
}

} // namespace

std::optional<FileLock> FileLock::tryLock(const std::filesystem::path& path) {
    const int fd = openLockFile(path);
    int result = 0;
    while ((result = ::flock(fd, LOCK_EX | LOCK_NB)) != 0 && errno == EINTR) {
    }
    if (result != 0) {
        ::close(fd);
        return std::nullopt;
    }
    return FileLock(fd);
}

FileLock FileLock::lock(const std::filesystem::path& path) {
    const int fd = openLockFile(path);
    while (::flock(fd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            const int error = errno;
            ::close(fd);
            throw VeltraError(
                "POSIX", error,
                fmt::format("Could not lock {}: {}", path.string(), std::strerror(error)));
        }
    }
    return FileLock(fd);
}

FileLock::FileLock(FileLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

FileLock& FileLock::operator=(FileLock&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

FileLock::~FileLock() {
    if (fd_ >= 0) {
        ::close(fd_); // closing the descriptor ends the lock
    }
}

void FileLock::describeHolder(std::string_view text) const {
    if (::ftruncate(fd_, 0) != 0) {
        return;
    }
    if (::pwrite(fd_, text.data(), text.size(), 0) < 0) {
        return; // only a description: the lock holds without it
    }
}

std::string FileLock::holder(const std::filesystem::path& path) {
    try {
        return readFile(path);
    } catch (const std::exception&) {
        return {};
    }
}

} // namespace veltra
