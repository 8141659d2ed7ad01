#pragma once

#include "ProjectProfile.h"
#include "core/support/JsonReader.h"
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
    // Set when the file exists but could not be used: what was wrong and where its copy is.
    // Saving is then off until the file is fixed or moved away.
    std::optional<std::string> problem;
};

// Writes the profile file on its own serial queue, coalescing bursts: only the newest list
// waiting is written, so ten quick edits cost at most two writes. Several processes share the
// file: a save locks it ("<name>.lock"), reads it again, applies only what this process changed
// since its last read or save, and replaces it atomically.
class ProfilePersistence {
public:
    explicit ProfilePersistence(std::filesystem::path file);

    const std::filesystem::path& file() const { return file_; }
    // Reads and decodes the file on the queue. A file that exists but cannot be used is copied
    // aside ("<name>.unreadable-<timestamp>", once per distinct content) and never written over.
    ProfileLoadResult load();
    // The list this process starts from, when it differs from what load() returned (paths in
    // standard form): saves write only what differs from it.
    void setBase(const std::vector<ProjectProfile>& profiles);
    void schedule(std::vector<ProjectProfile> profiles);
    // Waits until every scheduled list has been written.
    void flush();
    int writeCount() const;
    // The last write failure, if the last write failed.
    std::optional<std::string> lastError() const;

private:
    // Saving stops for good (how a file that could not be read is protected).
    void disable();
    void writePending();
    void save(const std::vector<ProjectProfile>& profiles);

    std::filesystem::path file_;
    mutable std::mutex lock_;
    std::optional<std::vector<ProjectProfile>> pending_;
    bool scheduled_ = false;
    bool disabled_ = false;
    int writes_ = 0;
    std::optional<std::string> lastError_;
    Json base_ = Json::array(); // used on queue_ only
    SerialQueue queue_{"com.veltra.profile-persistence"};
};

} // namespace veltra
