#include "ReleaseFeedValidator.h"

#include "BuildNumber.h"
#include "NewestBuild.h"
#include "ReleaseFeedFailure.h"
#include "SparkleFeedParser.h"

#include <algorithm>
#include <limits>
#include <optional>

#include <fmt/format.h>

namespace veltra {

void ReleaseFeedValidator::validateNextBuild(std::string_view feedData, std::int64_t newBuild) {
    const auto items = SparkleFeedParser::parse(feedData);
    if (!items) {
        if (const auto encoding = SparkleFeedParser::unreadableEncoding(feedData)) {
            throw releaseFeedError("The update feed declares the encoding '" + *encoding +
                                   "', which cannot be read. Save it as UTF-8 before releasing.");
        }
        throw releaseFeedError("The update feed is invalid. Repair it before releasing. Reason: " +
                               SparkleFeedParser::problem(feedData) + ".");
    }
    // Unlike a reader, the writer refuses a feed it could not order the new item into.
    for (const auto& item : *items) {
        if (item.version.empty()) {
            continue;
        }
        const auto build = BuildNumber::parse(item.version);
        if (build.status == BuildNumber::Status::notAnInteger) {
            throw releaseFeedError("The update feed contains an invalid build number.");
        }
        if (build.status == BuildNumber::Status::outOfRange ||
            build.value == std::numeric_limits<std::int64_t>::max()) {
            throw releaseFeedError("The feed build number is too large.");
        }
    }
    if (const auto newest = newestBuild(*items); newest && newBuild <= newest->build) {
        throw releaseFeedError(fmt::format(
            "Build {} has already been published or is too low. Use build {} or higher.", newBuild,
            newest->build + 1));
    }
}

void ReleaseFeedValidator::verifyWrittenFeed(std::string_view feedData,
                                             const ExpectedFeedItem& expected) {
    const auto items = SparkleFeedParser::parse(feedData);
    if (!items) {
        throw releaseFeedError(std::string(mismatchMessage));
    }
    const auto carriesBuild = [&](const SparkleFeedItem& item) {
        return item.version == expected.build;
    };
    const auto item = std::ranges::find_if(*items, carriesBuild);
    if (std::ranges::count_if(*items, carriesBuild) != 1 ||
        item->shortVersion != expected.shortVersion || item->enclosureURL != expected.downloadURL ||
        item->edSignature != expected.signature || item->enclosureLength != expected.length) {
        throw releaseFeedError(std::string(mismatchMessage));
    }
}

} // namespace veltra
