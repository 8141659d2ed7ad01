#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace veltra {

// What a release put into the feed, to be found there again.
struct ExpectedFeedItem {
    std::string shortVersion{};
    std::string build{};
    std::string downloadURL{};
    std::string signature{};
    std::string length{};
};

// Guards a release against a feed that is broken, would not offer the new build, or does not
// say what was just published. Each check throws VeltraError (domain "Veltra.ReleaseFeed",
// code 400) with the message the user reads, and changes nothing.
class ReleaseFeedValidator {
public:
    // Passes when `newBuild` is above every build the feed lists (items without a build count
    // for nothing).
    static void validateNextBuild(std::string_view feedData, std::int64_t newBuild);

    // Passes when exactly one item carries the expected build and it matches in every field.
    static void verifyWrittenFeed(std::string_view feedData, const ExpectedFeedItem& expected);

    static constexpr std::string_view mismatchMessage =
        "The update feed does not match the release version, build, download URL, signature, "
        "and size. Upload stopped.";
};

} // namespace veltra
