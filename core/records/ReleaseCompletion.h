#pragma once

#include "ReleaseManifest.h"
#include "core/support/Uuid.h"

#include <optional>

namespace veltra {

// Name of the notification a finished release posts; its payload is a ReleaseCompletion.
inline constexpr const char* releaseCompletedNotification = "VeltraReleaseCompleted";

struct ReleaseCompletion {
    ReleaseManifest manifest;
    // The profile that ran; when absent, the release is matched by its app name.
    std::optional<Uuid> profileID;
};

} // namespace veltra
