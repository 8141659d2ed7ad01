#include "FileCopy.h"

#include "VeltraError.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#ifdef __APPLE__
#include <copyfile.h>
#include <sys/clonefile.h>
#endif
#ifdef __linux__
#include <linux/fs.h>
#include <sys/ioctl.h>
#endif

namespace veltra {
namespace {

[[noreturn]] void fail(const std::string& what, const std::filesystem::path& path, int error) {
    throw VeltraError("POSIX", error,
                      "Could not copy " + path.string() + " (" + what +
                          "): " + std::strerror(error));
}

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

void copyData(int in, int out, off_t size, const std::filesystem::path& from) {
#ifdef __linux__
    if (::ioctl(out, FICLONE, in) == 0) {
        return;
    }
    off_t copied = 0;
    while (copied < size) {
        const auto moved = ::copy_file_range(in, nullptr, out, nullptr,
                                             static_cast<std::size_t>(size - copied), 0);
        if (moved < 0 &&
            (errno == EXDEV || errno == ENOSYS || errno == EOPNOTSUPP || errno == EINVAL) &&
            copied == 0) {
            break; // fall back to the buffered copy
        }
        if (moved < 0) {
            fail("copy", from, errno);
        }
        if (moved == 0) {
            return; // the file shrank while it was copied
        }
        copied += moved;
    }
    if (copied >= size) {
        return;
    }
#else
    (void)size;
#endif
    std::vector<char> buffer(1 << 20);
    while (true) {
        const auto got = ::read(in, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            fail("read", from, errno);
        }
        if (got == 0) {
            return;
        }
        for (ssize_t written = 0; written < got;) {
            const auto put =
                ::write(out, buffer.data() + written, static_cast<std::size_t>(got - written));
            if (put < 0 && errno == EINTR) {
                continue;
            }
            if (put < 0) {
                fail("write", from, errno);
            }
            written += put;
        }
    }
}

void keepTimes(const std::filesystem::path& to, const struct stat& info) {
#ifdef __APPLE__
    const struct timespec times[2] = {info.st_atimespec, info.st_mtimespec};
#else
    const struct timespec times[2] = {info.st_atim, info.st_mtim};
#endif
    ::utimensat(AT_FDCWD, to.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

void copyEntry(const std::filesystem::path& from, const std::filesystem::path& to, CopyUse use) {
    struct stat info {};
    if (::lstat(from.c_str(), &info) != 0) {
        fail("stat", from, errno);
    }
    const auto mode = static_cast<mode_t>(info.st_mode & 07777);
    if (S_ISLNK(info.st_mode)) {
        std::vector<char> target(static_cast<std::size_t>(info.st_size) + 1);
        const auto length = ::readlink(from.c_str(), target.data(), target.size());
        if (length < 0) {
            fail("readlink", from, errno);
        }
        if (::symlink(std::string(target.data(), static_cast<std::size_t>(length)).c_str(),
                      to.c_str()) != 0) {
            fail("symlink", to, errno);
        }
        keepTimes(to, info);
    } else if (S_ISDIR(info.st_mode)) {
        if (::mkdir(to.c_str(), 0700) != 0) {
            fail("mkdir", to, errno);
        }
        std::error_code error;
        for (std::filesystem::directory_iterator it(from, error), end; !error && it != end;
             it.increment(error)) {
            copyEntry(it->path(), to / it->path().filename(), use);
        }
        if (error) {
            fail("list", from, error.value());
        }
        // Last, so a read-only folder can still be filled.
        ::chmod(to.c_str(), mode);
        keepTimes(to, info);
    } else if (S_ISREG(info.st_mode)) {
        // Another volume, or a system that refuses the link: the file is copied instead.
        if (use == CopyUse::readOnly && ::link(from.c_str(), to.c_str()) == 0) {
            return;
        }
        const FileDescriptor in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
        if (in.get() < 0) {
            fail("open", from, errno);
        }
        const FileDescriptor out(
            ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
        if (out.get() < 0) {
            fail("create", to, errno);
        }
        copyData(in.get(), out.get(), info.st_size, from);
        if (::fchmod(out.get(), mode) != 0) {
            fail("chmod", to, errno);
        }
        keepTimes(to, info);
    } else {
        fail("not a file, folder or link", from, ENOTSUP);
    }
}

// A read-only folder already copied would keep its files from remove_all.
void removePartialCopy(const std::filesystem::path& to) {
    std::error_code ignored;
    if (std::filesystem::is_directory(std::filesystem::symlink_status(to, ignored))) {
        ::chmod(to.c_str(), S_IRWXU);
        for (std::filesystem::recursive_directory_iterator it(to, ignored), end; it != end;
             it.increment(ignored)) {
            if (it->is_directory(ignored) && !it->is_symlink(ignored)) {
                ::chmod(it->path().c_str(), S_IRWXU);
            }
        }
    }
    std::filesystem::remove_all(to, ignored);
}

} // namespace

void copyItem(const std::filesystem::path& from, const std::filesystem::path& to, CopyUse use) {
#ifdef __APPLE__
    // One clone of the whole bundle on APFS; copyfile keeps everything on other volumes.
    if (::clonefile(from.c_str(), to.c_str(), CLONE_NOFOLLOW) == 0) {
        return;
    }
    if (::copyfile(from.c_str(), to.c_str(), nullptr,
                   COPYFILE_ALL | COPYFILE_RECURSIVE | COPYFILE_NOFOLLOW_SRC) == 0) {
        return;
    }
#endif
    try {
        copyEntry(from, to, use);
    } catch (...) {
        removePartialCopy(to);
        throw;
    }
}

} // namespace veltra
