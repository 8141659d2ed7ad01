#include "core/feed/MinimumSystemVersion.h"
#include "core/feed/NewestBuild.h"

#include <gtest/gtest.h>

namespace veltra {
namespace {

std::vector<SparkleFeedItem> items(std::initializer_list<const char*> builds) {
    std::vector<SparkleFeedItem> list;
    for (const auto* build : builds) {
        SparkleFeedItem item;
        item.title = "item " + std::to_string(list.size());
        item.version = build;
        list.push_back(item);
    }
    return list;
}

TEST(NewestBuild, HighestNumericBuildFirstListedOnTies) {
    struct Row {
        const char* name;
        std::vector<SparkleFeedItem> feed;
        std::optional<std::int64_t> build;
        const char* title;
    };
    const std::vector<Row> rows{
        {"empty feed", {}, std::nullopt, ""},
        {"only builds that are not numbers", items({"", "1.0", "abc", " 7"}), std::nullopt, ""},
        {"newest anywhere in the list", items({"3", "12", "9"}), 12, "item 1"},
        {"numbers, not text, are compared", items({"9", "10"}), 10, "item 1"},
        {"other items passed over", items({"1.2", "4", "x"}), 4, "item 1"},
        {"equal builds: the first listed", items({"5", "+5", "005"}), 5, "item 0"},
        {"negative builds still order", items({"-3", "-1"}), -1, "item 1"},
        {"out of range passed over", items({"99999999999999999999", "2"}), 2, "item 1"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto newest = newestBuild(row.feed);
        ASSERT_EQ(newest.has_value(), row.build.has_value());
        if (newest) {
            EXPECT_EQ(newest->build, *row.build);
            EXPECT_EQ(newest->item->title, row.title);
        }
    }
}

} // namespace
} // namespace veltra

namespace veltra {
namespace {

TEST(MinimumSystemVersion, TheAppsOwnUnlessTheProfileRaisesIt) {
    struct Row {
        const char* app;
        std::optional<std::string> profile;
        const char* expected;
        bool warns;
    };
    for (const auto& row : {Row{"14.2", std::nullopt, "14.2", false},
                            Row{"14.2", "", "14.2", false}, Row{"14.2", "15.0", "15.0", false},
                            Row{"14.2", "14.10", "14.10", false}, // numbers, not text
                            Row{"14.2", "14.2.0", "14.2.0", false},
                            Row{"14.2", "13.0", "14.2", true}, Row{"10.15", "10.9", "10.15", true},
                            Row{"", "13.0", "13.0", false}, Row{"", std::nullopt, "", false}}) {
        SCOPED_TRACE(std::string(row.app) + " / " + row.profile.value_or("unset"));
        const auto chosen = MinimumSystemVersion::choose(row.app, row.profile);
        EXPECT_EQ(chosen.version, row.expected);
        EXPECT_EQ(chosen.warning.has_value(), row.warns);
    }
    EXPECT_EQ(*MinimumSystemVersion::choose("14.2", "13.0").warning,
              "The profile's sparkle.minimumSystemVersion 13.0 is below the 14.2 the app "
              "requires (LSMinimumSystemVersion); the feed names 14.2.");
}

} // namespace
} // namespace veltra
