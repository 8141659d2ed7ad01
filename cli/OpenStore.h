#pragma once

#include "CliContext.h"
#include "core/profile/ProfileStore.h"
#include "core/support/EventLoop.h"
#include "core/support/FileUtilities.h"
#include "core/support/NotificationCenter.h"
#include "core/support/Uuid.h"
#include "core/support/VeltraError.h"

#include <string>

#include <fmt/format.h>

namespace veltra::cli {

// A command's own failure (domain "Veltra", code 1).
inline VeltraError failure(const std::string& message) {
    return VeltraError("Veltra", 1, message);
}

// The store for one command, on the command's own main queue.
class OpenStore {
public:
    explicit OpenStore(CliContext& context)
        : notifications_(loop_),
          store_(loop_, notifications_,
                 context.profilesPath.empty()
                     ? ProfileStore::defaultPath()
                     : std::filesystem::path(expandTilde(context.profilesPath))) {
        // Listing a file that could not be read would show a wrong picture, and saving over
        // it would lose what it holds.
        if (store_.loadProblem()) {
            throw failure(*store_.loadProblem());
        }
    }

    ProfileStore& store() { return store_; }
    EventLoop& loop() { return loop_; }
    NotificationCenter& notifications() { return notifications_; }

    // The profile with this ID or this name; throws a message naming what to do otherwise.
    const ProjectProfile& find(const std::string& nameOrID) {
        if (const auto id = Uuid::parse(nameOrID)) {
            if (const auto* profile = store_.find(*id)) {
                return *profile;
            }
        }
        const ProjectProfile* match = nullptr;
        for (const auto& profile : store_.profiles()) {
            if (profile.name == nameOrID) {
                if (match != nullptr) {
                    throw failure(fmt::format("More than one profile is named '{}'; use its ID "
                                              "(see 'veltra profile list').",
                                              nameOrID));
                }
                match = &profile;
            }
        }
        if (match == nullptr) {
            throw failure(fmt::format(
                "No profile named '{}'. Run 'veltra profile list' to see the profiles.", nameOrID));
        }
        return *match;
    }

    // Waits for the write and reports it if it failed.
    void save() {
        store_.flush();
        if (const auto* persistence = store_.persistence()) {
            if (const auto error = persistence->lastError()) {
                throw failure(*error);
            }
        }
    }

private:
    EventLoop loop_;
    NotificationCenter notifications_;
    ProfileStore store_;
};

} // namespace veltra::cli
