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
