#include "ReleaseNotificationEvent.h"

#include "core/support/EnumNames.h"

namespace veltra {
namespace {

constexpr EnumNames<ReleaseNotificationEvent::Outcome, 3> outcomeNames{{
    {ReleaseNotificationEvent::Outcome::live, "live"},
    {ReleaseNotificationEvent::Outcome::needsAttention, "needsAttention"},
    {ReleaseNotificationEvent::Outcome::failed, "failed"},
}};

} // namespace

std::string_view rawValue(ReleaseNotificationEvent::Outcome outcome) {
    return nameOf(outcomeNames, outcome);
}

std::optional<ReleaseNotificationEvent::Outcome> releaseNotificationOutcome(std::string_view raw) {
    return valueOf(outcomeNames, raw);
}

std::string ReleaseNotificationEvent::identifier() const {
    return profileID.string() + "-" + releaseID + "-" + std::string(rawValue(outcome));
}

} // namespace veltra
