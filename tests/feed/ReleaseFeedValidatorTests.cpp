#include "core/feed/ReleaseFeedFailure.h"
#include "core/feed/ReleaseFeedValidator.h"

#include <string>

#include <gtest/gtest.h>

namespace veltra {
namespace {

std::string feedOfBuilds(std::initializer_list<std::string_view> builds) {
    std::string items;
    for (const auto build : builds) {
        items += "<item><title>t</title><sparkle:version>" + std::string(build) +
                 "</sparkle:version></item>";
    }
    return "<rss><channel>" + items + "</channel></rss>";
}

std::string failureOf(const std::function<void()>& check) {
    try {
        check();
    } catch (const VeltraError& error) {
        EXPECT_EQ(error.domain(), "Veltra.ReleaseFeed");
        EXPECT_EQ(error.code(), 400);
        return error.message();
    }
    return "passed";
}

TEST(ReleaseFeedValidator, NextBuild) {
    const struct {
        const char* name;
        std::string feed;
        std::int64_t build;
        std::string outcome;
    } cases[] = {
        {"above the highest", feedOfBuilds({"12", "+40", "7"}), 41, "passed"},
        {"equal to the highest", feedOfBuilds({"12", "40"}), 40,
         "Build 40 has already been published or is too low. Use build 41 or higher."},
        {"below", feedOfBuilds({"-3", "40"}), 2,
         "Build 2 has already been published or is too low. Use build 41 or higher."},
        {"negative builds", feedOfBuilds({"-3", "-9"}), -3,
         "Build -3 has already been published or is too low. Use build -2 or higher."},
        {"empty builds count for nothing",
         "<rss><channel><item><title></title></item>"
         "</channel></rss>",
         1, "passed"},
        {"no items", feedOfBuilds({}), -100, "passed"},
        {"not a number", feedOfBuilds({"12", "1.2"}), 50,
         "The update feed contains an invalid build number."},
        {"overflows", feedOfBuilds({"9223372036854775808"}), 1,
         "The feed build number is too large."},
        {"successor overflows", feedOfBuilds({"9223372036854775807"}), 1,
         "The feed build number is too large."},
        {"lowest 64-bit value", feedOfBuilds({"-9223372036854775808"}), 0, "passed"},
        {"not a feed", "<rss><item/></rss>", 1,
         "The update feed is invalid. Repair it before releasing. Reason: it has no channel "
         "element."},
        // Where it breaks, as the XML reader found it.
        {"no end", "<rss><channel>\n<item>\n</channel>", 1,
         "The update feed is invalid. Repair it before releasing. Reason: line 3, column 3: "
         "mismatched tag."},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(failureOf([&] { ReleaseFeedValidator::validateNextBuild(row.feed, row.build); }),
                  row.outcome);
    }
}

TEST(ReleaseFeedValidator, WrittenFeed) {
    const auto item = [](std::string_view build, std::string_view url) {
        return "<item><sparkle:shortVersionString>1.4</sparkle:shortVersionString>"
               "<sparkle:version>" +
               std::string(build) + "</sparkle:version><enclosure url=\"" + std::string(url) +
               "\" length=\"99\" sparkle:edSignature=\"c2ln\"/></item>";
    };
    const ExpectedFeedItem expected{"1.4", "7", "https://x/A.dmg", "c2ln", "99"};
    const std::string mismatch(ReleaseFeedValidator::mismatchMessage);
    const struct {
        const char* name;
        std::string feed;
        ExpectedFeedItem expected;
        std::string outcome;
    } cases[] = {
        {"matches",
         "<rss><channel>" + item("7", "https://x/A.dmg") + item("6", "o") + "</channel></rss>",
         expected, "passed"},
        {"build twice",
         "<rss><channel>" + item("7", "https://x/A.dmg") + item("7", "https://x/A.dmg") +
             "</channel></rss>",
         expected, mismatch},
        {"build missing", "<rss><channel>" + item("6", "https://x/A.dmg") + "</channel></rss>",
         expected, mismatch},
        {"other download", "<rss><channel>" + item("7", "https://x/B.dmg") + "</channel></rss>",
         expected, mismatch},
        {"other length",
         "<rss><channel>" + item("7", "https://x/A.dmg") + "</channel></rss>",
         {"1.4", "7", "https://x/A.dmg", "c2ln", "100"},
         mismatch},
        {"other signature",
         "<rss><channel>" + item("7", "https://x/A.dmg") + "</channel></rss>",
         {"1.4", "7", "https://x/A.dmg", "c2lo", "99"},
         mismatch},
        {"other version",
         "<rss><channel>" + item("7", "https://x/A.dmg") + "</channel></rss>",
         {"1.5", "7", "https://x/A.dmg", "c2ln", "99"},
         mismatch},
        {"not a feed", "<channel/>", expected, mismatch},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(
            failureOf([&] { ReleaseFeedValidator::verifyWrittenFeed(row.feed, row.expected); }),
            row.outcome);
    }
}

} // namespace
} // namespace veltra
