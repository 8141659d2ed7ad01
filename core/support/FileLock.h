#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace veltra {

// An exclusive lock on a file, held through an open descriptor (flock): it ends when this goes
// or when the process dies, so a lock whose holder is gone is simply taken. Two FileLocks on one
// file exclude each other within a process too.
class FileLock {
public:
    // The lock, or nothing when someone else holds it. The file is made 0600 when missing.
    // Throws VeltraError ("POSIX") when the file cannot be opened.
    static std::optional<FileLock> tryLock(const std::filesystem::path& path);
    // Waits until the lock is free.
    static FileLock lock(const std::filesystem::path& path);

    FileLock(FileLock&& other) noexcept;
    FileLock& operator=(FileLock&& other) noexcept;
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    ~FileLock();

    // Replaces the file's text: who holds the lock, for whoever finds it taken.
    void describeHolder(std::string_view text) const;
    // What the holder wrote, or "" when the file cannot be read.
    static std::string holder(const std::filesystem::path& path);

private:
    explicit FileLock(int fd) : fd_(fd) {}
    int fd_ = -1;
};

} // namespace veltra
