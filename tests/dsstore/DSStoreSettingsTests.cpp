// The typed views over settings records, read from real Finder files and written back.

#include "dsstore/DSStore.h"
#include "dsstore/IconPlacement.h"
#include "dsstore/IconViewSettings.h"
#include "dsstore/ListViewSettings.h"
#include "dsstore/ViewSort.h"
#include "dsstore/ViewStyle.h"
#include "dsstore/WindowBounds.h"
#include "dsstore/WindowSettings.h"

#include <filesystem>

#include <gtest/gtest.h>

namespace {

using namespace dsstore;
using Frame = WindowSettings::WindowFrame;

DSStore fixture(const std::string& name) {
    return DSStore::readFile(std::filesystem::path(VELTRA_FIXTURES_DIR) / "dsstore" /
                             (name + ".DS_Store"));
}

TEST(WindowFrame, ParsesAndFormatsFindersRectangleText) {
    EXPECT_EQ(Frame::parse("{{-0, 115}, {1280, 663}}"), (Frame{-0.0, 115, 1280, 663}));
    EXPECT_EQ(Frame::parse("{{10.5,20},{640, 480}}"), (Frame{10.5, 20, 640, 480}));
    EXPECT_EQ((Frame{100, 120, 640, 400}).text(), "{{100, 120}, {640, 400}}");
    for (const auto* bad :
         {"", "{{1, 2}, {3}}", "{{1, 2}, {3, 4}} x", "{1, 2, 3, 4}", "{{a, 2}, {3, 4}}"}) {
        EXPECT_EQ(Frame::parse(bad), std::nullopt) << bad;
    }
}

TEST(WindowSettingsView, ReadsFindersRecordAndWritesItBack) {
    const auto store = fixture("dmg-osxspell");
    const auto settings = WindowSettings::from(store).value();
    EXPECT_EQ(settings.frame(), (Frame{0, 115, 1280, 663}));
    EXPECT_EQ(settings.sidebarWidth, 213.0); // an integer in Finder's file
    EXPECT_EQ(settings.showPathBar, true);
    EXPECT_EQ(settings.showTabView, false);
    EXPECT_EQ(settings.viewStyle, std::nullopt);

    WindowSettings mine;
    mine.setFrame({200, 120, 660, 400});
    mine.showToolbar = false;
    mine.showSidebar = false;
    mine.viewStyle = viewStyleCode(ViewStyle::icon).text();
    mine.targetPath = std::vector<std::string>{"Volumes", "App"};
    DSStore written;
    written.set(mine.record());
    const auto reread = DSStore::read(written.serialize());
    EXPECT_EQ(WindowSettings::from(reread), mine);
    // Only what was set is written, under Finder's keys.
    const auto& keys = reread.records[0].value.asPropertyList().asDictionary();
    std::vector<std::string> names;
    for (const auto& entry : keys) {
        names.push_back(entry.first);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"WindowBounds", "ShowSidebar", "ShowToolbar",
                                               "ViewStyle", "TargetPath"}));
}

TEST(IconViewSettingsView, KeepsThePictureBackgroundAndSwitchesToAColour) {
    const auto store = fixture("dmg-osxspell");
    auto settings = IconViewSettings::from(store).value();
    EXPECT_EQ(settings.iconSize, 48); // a real in Finder's file
    EXPECT_EQ(settings.arrangeBy, "none");
    EXPECT_EQ(viewSortFromName(*settings.arrangeBy), ViewSort::none);
    const auto background = settings.background();
    EXPECT_EQ(background.kind, BackgroundType::Kind::picture);
    EXPECT_EQ(background.aliasData.size(), 798U);

    settings.setBackground(BackgroundType::color(0.25, 0.5, 1));
    EXPECT_EQ(settings.backgroundType, 1);
    EXPECT_EQ(settings.backgroundImageAlias, std::nullopt);
    DSStore written;
    written.set(settings.record());
    const auto reread = IconViewSettings::from(DSStore::read(written.serialize()));
    EXPECT_EQ(reread, settings);
    EXPECT_EQ(reread.value().background(), BackgroundType::color(0.25, 0.5, 1));
    EXPECT_EQ(IconViewSettings().background().kind, BackgroundType::Kind::defaultBackground);
}

TEST(ListViewSettingsView, ReadsEitherRecordAndKeepsColumnsAsTheyAre) {
    const auto store = fixture("home-jblanton-manytypes");
    const auto settings = ListViewSettings::from(store).value();
    EXPECT_EQ(settings.sortColumn, "name");
    EXPECT_EQ(viewSortFromName(*settings.sortColumn), ViewSort::name);
    EXPECT_EQ(settings.textSize, 12);
    ASSERT_TRUE(settings.columns);
    EXPECT_EQ(settings.columns->kind(), PlistValue::Kind::dictionary);
    EXPECT_EQ(ListViewSettings::fromPropertyList(settings.propertyList()), settings);

    // Newer Finders keep the columns of "lsvP" as an array.
    const auto home = fixture("home-litzomatic-lsvP");
    const auto* record = home.find("Downloads", RecordType::Kind::listViewPropertiesAlternate);
    ASSERT_NE(record, nullptr);
    const auto alternate = ListViewSettings::fromPropertyList(record->value.asPropertyList());
    ASSERT_TRUE(alternate.columns);
    EXPECT_EQ(alternate.columns->kind(), PlistValue::Kind::array);
    EXPECT_EQ(alternate.useRelativeDates, true);
}

TEST(IconPlacementView, IsTheIlocBlob) {
    const auto store = fixture("dmg-legacy-saldomat");
    const auto* record = store.find("Applications", RecordType::Kind::iconLocation);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(IconPlacement::fromRecord(*record), (IconPlacement{"Applications", 406, 154}));

    const auto mine = IconPlacement{"Veltra.app", 160, -20}.record();
    EXPECT_EQ(mine.value.asBytes(),
              (std::vector<std::uint8_t>{0, 0, 0, 160, 0xFF, 0xFF, 0xFF, 0xEC, 0xFF, 0xFF, 0xFF,
                                         0xFF, 0xFF, 0xFF, 0, 0}));
    EXPECT_EQ(
        IconPlacement::fromRecord(Record{"x", RecordType::Kind::iconLocation, Value::data({1})}),
        std::nullopt);
}

TEST(WindowBoundsView, DecodesTheOlderWindowRecord) {
    const auto store = fixture("dmg-legacy-saldomat");
    const auto& blob = store.find(".", RecordType::Kind::finderWindowInfo)->value.asBytes();
    const auto bounds = WindowBounds::decode(blob).value();
    EXPECT_EQ(bounds.top, 194);
    EXPECT_EQ(bounds.left, 404);
    EXPECT_EQ(bounds.bottom, 508);
    EXPECT_EQ(bounds.right, 897);
    EXPECT_EQ(viewStyleFromCode(bounds.viewStyle), ViewStyle::icon);
    EXPECT_EQ(bounds.encode(), blob);
    EXPECT_EQ(WindowBounds::decode(std::vector<std::uint8_t>(15)), std::nullopt);
}

} // namespace
