#include "ProfileStore.h"

#include "core/records/ReleaseCompletion.h"
#include "core/support/FileUtilities.h"

#include <algorithm>
#include <any>
#include <cassert>

namespace veltra {
namespace {

void standardizeIn(std::string& path) {
    path = standardizePath(path);
}
void standardizeIn(std::optional<std::string>& path) {
    if (path) {
        *path = standardizePath(*path);
    }
}

// Paths are kept in one standard form so that comparing them is meaningful.
ProjectProfile normalized(ProjectProfile profile) {
    standardizeIn(profile.outputDirectory);
    standardizeIn(profile.sourceProjectPath);
    standardizeIn(profile.dmgDesign.backgroundPath);
    standardizeIn(profile.dmgDesign.retinaBackgroundPath);
    standardizeIn(profile.sparkle.appcastPath);
    standardizeIn(profile.sparkle.privateKeyPath);
    standardizeIn(profile.webDeploy.websiteRepoPath);
    return profile;
}

} // namespace

std::filesystem::path ProfileStore::defaultPath() {
    return homeDirectory() / ".veltra" / "profiles.json";
}

ProfileStore::ProfileStore(MainQueue& queue, NotificationCenter& notifications,
                           std::filesystem::path storePath)
    : queue_(queue), storePath_(std::move(storePath)) {
    if (storePath_ != "/dev/null") {
        try {
            createPrivateDirectories(storePath_.parent_path());
            // Veltra's own folder is kept private even when an older version made it 0755; a
            // folder the user named for the file is theirs to set.
            if (storePath_.parent_path() == defaultPath().parent_path()) {
                std::filesystem::permissions(storePath_.parent_path(),
                                             std::filesystem::perms::owner_all);
            }
        } catch (const std::exception&) {
            // a folder that cannot be made shows up as a write error later
        }
        persistence_ = std::make_unique<ProfilePersistence>(storePath_);
        auto loaded = persistence_->load();
        loadProblem_ = std::move(loaded.problem);
        for (auto& profile : loaded.profiles) {
            profiles_.push_back(normalized(std::move(profile)));
        }
        persistence_->setBase(profiles_);
    }
    if (!profiles_.empty()) {
        selectedProfileID_ = profiles_.front().id;
    }
    releaseCompleted_ =
        notifications.addObserver(releaseCompletedNotification, [this](const Notification& note) {
            if (const auto* completion = std::any_cast<ReleaseCompletion>(&note.payload)) {
                recordRelease(completion->manifest, completion->profileID);
            }
        });
}

ProfileStore::~ProfileStore() {
    flush();
}

ProjectProfile* ProfileStore::profileWithID(const Uuid& id) {
    const auto found = std::ranges::find(profiles_, id, &ProjectProfile::id);
    return found == profiles_.end() ? nullptr : &*found;
}

const ProjectProfile* ProfileStore::find(const Uuid& id) const {
    return const_cast<ProfileStore*>(this)->profileWithID(id);
}

const ProjectProfile* ProfileStore::selectedProfile() const {
    return selectedProfileID_ ? find(*selectedProfileID_) : nullptr;
}

std::optional<std::string> ProfileStore::nameProblem(std::string_view name,
                                                     const std::optional<Uuid>& except) const {
    if (name.find_first_not_of(" \t") == std::string_view::npos) {
        return "A profile needs a name.";
    }
    for (const auto& profile : profiles_) {
        if (profile.name == name && profile.id != except) {
            return "Another profile is named '" + std::string(name) +
                   "'; commands name profiles by name, so each has its own.";
        }
    }
    return std::nullopt;
}

std::string ProfileStore::unusedName(const std::string& base) const {
    auto name = base;
    for (int n = 2; nameProblem(name); ++n) {
        name = base + " " + std::to_string(n);
    }
    return name;
}

void ProfileStore::add(ProjectProfile profile) {
    profiles_.push_back(std::move(profile));
    if (!selectedProfileID_) {
        selectedProfileID_ = profiles_.back().id;
    }
    changed();
}

bool ProfileStore::update(const ProjectProfile& profile) {
    ProjectProfile* existing = profileWithID(profile.id);
    if (existing == nullptr) {
        return false;
    }
    *existing = profile;
    changed();
    return true;
}

bool ProfileStore::remove(const Uuid& id) {
    const auto removed = std::erase_if(profiles_, [&](const auto& p) { return p.id == id; });
    if (removed == 0) {
        return false;
    }
    if (selectedProfileID_ == id) {
        selectedProfileID_ = profiles_.empty() ? std::nullopt : std::optional(profiles_.front().id);
    }
    changed();
    return true;
}

void ProfileStore::select(std::optional<Uuid> id) {
    assert(queue_.isMainThread() && "the selection changes on the main queue only");
    selectedProfileID_ = id;
    notify();
}

bool ProfileStore::recordRelease(const ReleaseManifest& manifest,
                                 const std::optional<Uuid>& profileID) {
    ProjectProfile* target = profileID ? profileWithID(*profileID) : nullptr;
    if (target == nullptr) {
        // The profile that ran is normally the selected one; else the first with that app.
        target = selectedProfileID_ ? profileWithID(*selectedProfileID_) : nullptr;
        if (target == nullptr || target->appName != manifest.appName) {
            const auto found =
                std::ranges::find(profiles_, manifest.appName, &ProjectProfile::appName);
            target = found == profiles_.end() ? nullptr : &*found;
        }
    }
    if (target == nullptr) {
        return false;
    }
    if (!target->recentReleases) {
        target->recentReleases.emplace();
    }
    auto& releases = *target->recentReleases;
    releases.insert(releases.begin(), manifest);
    target->hasCompletedInitialSetup = true;
    changed();
    return true;
}

void ProfileStore::setWebsiteCheckActive(const std::string& releaseID, bool active) {
    if (active) {
        activeChecks_.insert(releaseID);
    } else {
        activeChecks_.erase(releaseID);
    }
    notify();
}

void ProfileStore::flush() {
    if (persistence_) {
        persistence_->flush();
    }
}

void ProfileStore::changed() {
    assert(queue_.isMainThread() && "profiles change on the main queue only");
    if (persistence_) {
        persistence_->schedule(profiles_);
    }
    notify();
}

void ProfileStore::notify() {
    if (observer_) {
        observer_();
    }
}

ProfileFileStatus ProfileFileInspector::inspect(const ProjectProfile& profile) const {
    ProfileFileStatus status;
    std::error_code ignored;
    status.projectExists =
        profile.sourceProjectPath && !profile.sourceProjectPath->empty() &&
        std::filesystem::exists(expandTilde(*profile.sourceProjectPath), ignored);
    status.websiteExists =
        !profile.webDeploy.websiteRepoPath.empty() &&
        std::filesystem::is_directory(expandTilde(profile.webDeploy.websiteRepoPath), ignored);
    if (!profile.webDeploy.siteURL.empty()) {
        std::string url = profile.webDeploy.siteURL;
        while (url.ends_with('/')) {
            url.pop_back();
        }
        std::string downloads = profile.webDeploy.downloadsRelativePath;
        while (downloads.starts_with('/')) {
            downloads.erase(0, 1);
        }
        while (downloads.ends_with('/')) {
            downloads.pop_back();
        }
        status.updaterURL = url + "/" + (downloads.empty() ? "" : downloads + "/") + "appcast.xml";
    }
    return status;
}

} // namespace veltra
