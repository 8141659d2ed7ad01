#pragma once

#include "core/support/VeltraError.h"

#include <string>

namespace veltra {

// Why the website's committed feed could not be read. Like every feed check failure it is an
// error of the domain "Veltra.ReleaseFeed", code 400.
class ReleaseFeedFailure : public VeltraError {
public:
    enum class Kind { websiteRepository, missingCommittedFeed };

    static ReleaseFeedFailure websiteRepository(const std::string& message);
    // The message depends on whether the site still serves a feed, which only the caller knows.
    static ReleaseFeedFailure missingCommittedFeed(bool liveFeedExists = false);

    Kind kind() const noexcept { return kind_; }

private:
    ReleaseFeedFailure(Kind kind, const std::string& message);

    Kind kind_;
};

// A failed feed check that is not about the website repository.
VeltraError releaseFeedError(const std::string& message);

} // namespace veltra
