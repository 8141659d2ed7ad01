#pragma once

#include "ProfilePersistence.h"
#include "ProjectProfile.h"
#include "core/support/MainQueue.h"
#include "core/support/NotificationCenter.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

struct ReleaseManifest;

// Owns the profiles and the current selection. Lives on the main queue: every member is called
// there, and observers are told of each change there. Edits are saved in the background, and a
// save keeps what other processes changed in the file meanwhile (see ProfilePersistence).
class ProfileStore {
public:
    // The path "/dev/null" makes a store that never reads or writes a file.
    ProfileStore(MainQueue& queue, NotificationCenter& notifications,
                 std::filesystem::path storePath = defaultPath());
    ProfileStore(const ProfileStore&) = delete;
    ProfileStore& operator=(const ProfileStore&) = delete;
    // Writes what is still pending.
    ~ProfileStore();

    // ~/.veltra/profiles.json
    static std::filesystem::path defaultPath();

    const std::filesystem::path& storePath() const { return storePath_; }
    bool isMemoryOnly() const { return !persistence_; }
    const std::vector<ProjectProfile>& profiles() const { return profiles_; }
    std::optional<Uuid> selectedProfileID() const { return selectedProfileID_; }
    const ProjectProfile* selectedProfile() const;
    const ProjectProfile* find(const Uuid& id) const;
    // Set when the file on disk could not be used at start: what was wrong, where the copy is.
    // Nothing is saved then.
    const std::optional<std::string>& loadProblem() const { return loadProblem_; }

    // Why `name` cannot name a profile (other than `except`): empty, or taken. Commands name
    // profiles by name, so names are unique.
    std::optional<std::string> nameProblem(std::string_view name,
                                           const std::optional<Uuid>& except = std::nullopt) const;
    // `base`, or "base 2", "base 3"…, whichever no profile has.
    std::string unusedName(const std::string& base) const;

    void add(ProjectProfile profile);
    // Replaces the profile with the same id; false when there is none.
    bool update(const ProjectProfile& profile);
    bool remove(const Uuid& id);
    void select(std::optional<Uuid> id);
    // Adds the release, newest first, to its profile (by id, else by app name, the selected
    // profile first) and saves. False when no profile matches.
    bool recordRelease(const ReleaseManifest& manifest, const std::optional<Uuid>& profileID);

    // Called after every change of profiles or selection.
    void setChangeObserver(std::function<void()> observer) { observer_ = std::move(observer); }
    // Blocks until pending writes are on disk.
    void flush();
    ProfilePersistence* persistence() { return persistence_.get(); }

    // Releases whose live-website check is running.
    const std::set<std::string>& activeCheckingReleaseIDs() const { return activeChecks_; }
    void setWebsiteCheckActive(const std::string& releaseID, bool active);

private:
    void changed();
    void notify();
    ProjectProfile* profileWithID(const Uuid& id);

    [[maybe_unused]] MainQueue& queue_; // checked in debug builds
    std::filesystem::path storePath_;
    std::unique_ptr<ProfilePersistence> persistence_;
    std::vector<ProjectProfile> profiles_;
    std::optional<Uuid> selectedProfileID_;
    std::optional<std::string> loadProblem_;
    std::set<std::string> activeChecks_;
    std::function<void()> observer_;
    NotificationCenter::Registration releaseCompleted_;
};

// Whether a profile's project and website folders exist, and its update feed address.
struct ProfileFileStatus {
    bool projectExists = false;
    bool websiteExists = false;
    std::optional<std::string> updaterURL;
};

struct ProfileFileInspector {
    ProfileFileStatus inspect(const ProjectProfile& profile) const;
};

} // namespace veltra
