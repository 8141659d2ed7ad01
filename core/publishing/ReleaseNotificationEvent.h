#pragma once

#include "core/support/Uuid.h"

#include <optional>
#include <string>
#include <string_view>

namespace veltra {

// One outcome of one release, announced to whoever shows notifications. Posted in-process as
// "VeltraReleaseNotificationEvent" with the event as payload.
struct ReleaseNotificationEvent {
    enum class Outcome { live, needsAttention, failed };

    static constexpr std::string_view notificationName = "VeltraReleaseNotificationEvent";

    Uuid profileID;
    std::string releaseID;
    std::string appName;
    std::string version; // may be empty
    Outcome outcome = Outcome::live;

    // "<profile UUID>-<release ID>-<outcome>": the request identifier and the de-duplication key.
    std::string identifier() const;
    bool operator==(const ReleaseNotificationEvent&) const = default;
};

std::string_view rawValue(ReleaseNotificationEvent::Outcome outcome);
std::optional<ReleaseNotificationEvent::Outcome> releaseNotificationOutcome(std::string_view raw);

} // namespace veltra
