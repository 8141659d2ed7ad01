#pragma once

#include "ProjectProfile.h"
#include "core/support/SerialQueue.h"

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace veltra {

// What loading the profile file found.
struct ProfileLoadResult {
    std::vector<ProjectProfile> profiles;
    // Set when the file exists but could not be used; says what was wrong and where the copy is.
    std::optional<std::string> problem;
    // False when saving would destroy a file that could not be kept aside.
    bool writable = true;
};

// Writes the profile file on its own serial queue, coalescing bursts: only the newest list
// waiting is written, so ten quick edits cost at most two writes.
class ProfilePersistence {
public:
    explicit ProfilePersistence(std::filesystem::path url);

    const std::filesystem::path& url() const { return url_; }
    // Reads and decodes the file on the queue. A file that exists but cannot be decoded is
    // copied aside ("<name>.unreadable-<timestamp>") before anything can replace it.
    ProfileLoadResult load();
    void schedule(std::vector<ProjectProfile> profiles);
    // Waits until every scheduled list has been written.
    void flush();
    // Saving stops for good (a file that could not be kept aside is protected this way).
    void disable();
    bool isDisabled() const;
    int writeCount() const;
    // The last write failure, if the last write failed.
    std::optional<std::string> lastError() const;

private:
    void writePending();

    std::filesystem::path url_;
    mutable std::mutex lock_;
    std::optional<std::vector<ProjectProfile>> pending_;
    bool scheduled_ = false;
    bool disabled_ = false;
    int writes_ = 0;
    std::optional<std::string> lastError_;
    SerialQueue queue_{"com.veltra.profile-persistence"};
};

} // namespace veltra
