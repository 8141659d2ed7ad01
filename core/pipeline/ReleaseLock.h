#pragma once

#include "core/profile/ProjectProfile.h"
#include "core/support/FileLock.h"

#include <filesystem>
#include <string>

namespace veltra {

// One release, promote or withdraw of a profile at a time, in any process: a second would take
// the same next build or edit the same feed.
class ReleaseLock {
public:
    // The profile's lock in `folder` (~/.veltra/locks when empty), held by this process; throws
    // VeltraError (conflict) naming the holder when another has it.
    static FileLock acquire(const std::filesystem::path& folder, const ProjectProfile& profile,
                            const std::string& appName);
};

} // namespace veltra
