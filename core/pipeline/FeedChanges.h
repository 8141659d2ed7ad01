#pragma once

#include "core/profile/ProjectProfile.h"
#include "core/records/WebsitePublication.h"
#include "core/support/LogHandler.h"
#include "core/support/StopToken.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace veltra {

// What a promote or withdraw did, for the user and the release's record.
struct FeedChangeOutcome {
    std::string build;
    // A promote's channel ("" for everyone); none for a withdraw.
    std::optional<std::string> channel;
    std::string summary;
    WebsitePublication publication;
    // Builds that left the feed (the withdrawn one and those retention dropped).
    std::vector<std::string> removedBuilds;
    std::vector<std::string> removedFiles;

    // The profile's release records say what the feed offers now.
    void record(ProjectProfile& profile) const;
};

// Changes what the published feed offers without a new release: moves an item to everyone or
// another channel (promote), or stops offering it (withdraw). Each edits only the feed (and the
// files asked for), commits only those, and pushes, under the profile's lock and the same
// repository checks as a release. Failures throw VeltraError with the message the user reads.
class FeedChanges {
public:
    // Where the profile locks live; ~/.veltra/locks when empty.
    std::filesystem::path lockFolder{};

    // `channel` empty: everyone.
    FeedChangeOutcome promote(const ProjectProfile& profile, const std::string& build,
                              const std::string& channel, const LogHandler& log,
                              StopToken stop) const;
    FeedChangeOutcome withdraw(const ProjectProfile& profile, const std::string& build,
                               bool deleteFiles, const LogHandler& log, StopToken stop) const;

private:
    enum class Kind { promote, withdraw };
    FeedChangeOutcome change(Kind kind, const ProjectProfile& profile, const std::string& build,
                             const std::string& channel, bool deleteFiles, const LogHandler& log,
                             StopToken stop) const;
};

} // namespace veltra
