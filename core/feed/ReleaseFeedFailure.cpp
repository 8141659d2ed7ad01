#include "ReleaseFeedFailure.h"

namespace veltra {

namespace {

constexpr const char* feedDomain = "Veltra.ReleaseFeed";
constexpr int feedCode = 400;

} // namespace

ReleaseFeedFailure::ReleaseFeedFailure(Kind kind, const std::string& message)
    : VeltraError(feedDomain, feedCode, message), kind_(kind) {}

ReleaseFeedFailure ReleaseFeedFailure::websiteRepository(const std::string& message) {
    return {Kind::websiteRepository, message};
}

ReleaseFeedFailure ReleaseFeedFailure::missingCommittedFeed(bool liveFeedExists) {
    return {Kind::missingCommittedFeed,
            liveFeedExists ? "The publishing branch is missing the existing live update feed. "
                             "Restore it before releasing."
                           : "The publishing branch does not contain an update feed."};
}

VeltraError releaseFeedError(const std::string& message) {
    return VeltraError(feedDomain, feedCode, message);
}

} // namespace veltra
