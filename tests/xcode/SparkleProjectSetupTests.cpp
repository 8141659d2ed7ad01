// A project set up for updates: the package, the two Info.plist keys (in the file the target
// names, or a new one for a target that generates its Info.plist), nothing done twice, a
// different value kept unless forced.

#include "TestSupport.h"
#include "core/support/FileUtilities.h"
#include "core/support/PropertyList.h"
#include "core/support/VeltraError.h"
#include "core/xcode/ProjectFileParser.h"
#include "core/xcode/SparkleProjectSetup.h"

#include <gtest/gtest.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

constexpr const char* feed = "https://acme.example.org/downloads/appcast.xml";
constexpr const char* key = "3qLr5pD0jX1tJ4nV2cW8sZ6yB9mK0aF7eH1gU5oR2iQ=";

SparkleSetupRequest requestFor(const fs::path& project) {
    SparkleSetupRequest request;
    request.project = project;
    request.feedURL = feed;
    request.publicKey = key;
    return request;
}

// Each of the target's configurations' value of `setting`.
std::vector<std::string> targetSettings(const fs::path& project, const std::string& targetName,
                                        const std::string& setting) {
    const auto parsed = parseProjectFile(readFile(project / "project.pbxproj"));
    const auto& objects = parsed.at("objects");
    std::vector<std::string> values;
    for (const auto& [id, object] : objects.items()) {
        if (object.value("isa", "") != "PBXNativeTarget" ||
            object.value("name", "") != targetName) {
            continue;
        }
        const auto& list = objects.at(object.at("buildConfigurationList").get<std::string>());
        for (const auto& configuration : list.at("buildConfigurations")) {
            values.push_back(objects.at(configuration.get<std::string>())
                                 .at("buildSettings")
                                 .value(setting, ""));
        }
    }
    return values;
}

TEST(SparkleProjectSetup, ATargetThatGeneratesItsInfoPlistGetsOneWithTheTwoKeys) {
    testing::TempDir dir;
    const auto fixture = fs::path(VELTRA_FIXTURES_DIR) / "xcode/neobee";
    fs::copy(fixture, dir.path(), fs::copy_options::recursive);
    const auto project = dir / "neobee-session-player.xcodeproj";

    const auto plan = SparkleProjectSetup::plan(requestFor(project));
    EXPECT_EQ(plan.targetName, "neobee-session-player");
    EXPECT_TRUE(plan.conflicts.empty());
    ASSERT_EQ(plan.changes.size(), 6u);
    EXPECT_EQ(plan.changes[3], "Set INFOPLIST_FILE = neobee-session-player/Info.plist in target "
                               "neobee-session-player's configurations (Xcode merges it with the "
                               "generated keys)");
    EXPECT_EQ(plan.changes[4], "Set SUFeedURL in neobee-session-player/Info.plist");
    EXPECT_EQ(plan.changes[5], "Set SUPublicEDKey in neobee-session-player/Info.plist");
    // Planning writes nothing.
    EXPECT_EQ(readFile(project / "project.pbxproj"),
              readFile(fixture / project.filename() / "project.pbxproj"));
    EXPECT_FALSE(fs::exists(dir / "neobee-session-player/Info.plist"));

    SparkleProjectSetup::apply(plan);
    const auto plist = readPropertyListDictionary(dir / "neobee-session-player/Info.plist");
    EXPECT_EQ(plist, (Json{{"SUFeedURL", feed}, {"SUPublicEDKey", key}}));
    EXPECT_EQ(targetSettings(project, "neobee-session-player", "INFOPLIST_FILE"),
              (std::vector<std::string>{"neobee-session-player/Info.plist",
                                        "neobee-session-player/Info.plist"}));
    // The test targets keep their own settings.
    EXPECT_EQ(targetSettings(project, "neobee-session-playerTests", "INFOPLIST_FILE"),
              (std::vector<std::string>{"", ""}));

    const auto again = SparkleProjectSetup::plan(requestFor(project));
    EXPECT_TRUE(again.alreadySetUp());
    EXPECT_FALSE(again.projectText);
}

TEST(SparkleProjectSetup, TheNamedInfoPlistKeepsADifferentValueUnlessForced) {
    testing::TempDir dir;
    fs::copy(fs::path(VELTRA_SOURCE_DIR) / "share/demo/Sample", dir.path(),
             fs::copy_options::recursive);
    const auto project = dir / "Sample.xcodeproj";
    const auto infoPlist = dir / "Sample/Info.plist";

    // The sample reads example.com's feed and has an empty key.
    auto plan = SparkleProjectSetup::plan(requestFor(project));
    EXPECT_EQ(plan.conflicts,
              (std::vector<std::string>{"SUFeedURL in Sample/Info.plist is "
                                        "https://www.example.com/downloads/appcast.xml, not " +
                                        std::string(feed) + "; --force replaces it"}));
    EXPECT_EQ(plan.changes.back(), "Set SUPublicEDKey in Sample/Info.plist");
    SparkleProjectSetup::apply(plan);
    auto values = readPropertyListDictionary(infoPlist);
    EXPECT_EQ(values["SUFeedURL"], "https://www.example.com/downloads/appcast.xml");
    EXPECT_EQ(values["SUPublicEDKey"], key);
    EXPECT_EQ(values["CFBundleExecutable"], "$(EXECUTABLE_NAME)");

    auto forced = requestFor(project);
    forced.force = true;
    plan = SparkleProjectSetup::plan(forced);
    EXPECT_EQ(plan.changes,
              (std::vector<std::string>{"Replace SUFeedURL in Sample/Info.plist (was "
                                        "https://www.example.com/downloads/appcast.xml)"}));
    SparkleProjectSetup::apply(plan);
    EXPECT_EQ(readPropertyListDictionary(infoPlist)["SUFeedURL"], feed);
    EXPECT_TRUE(SparkleProjectSetup::plan(requestFor(project)).alreadySetUp());
}

TEST(SparkleProjectSetup, SaysWhatItCannotSetUp) {
    testing::TempDir dir;
    const auto message = [](const SparkleSetupRequest& request) {
        try {
            SparkleProjectSetup::plan(request);
        } catch (const VeltraError& error) {
            return error.message();
        }
        return std::string("planned");
    };
    EXPECT_EQ(message(requestFor(dir / "Nope.xcodeproj")),
              "No Xcode project at " + (dir / "Nope.xcodeproj").string() + ".");
    EXPECT_EQ(message(requestFor(dir / "Acme.xcworkspace")),
              "Set up an Xcode project (.xcodeproj), not " + (dir / "Acme.xcworkspace").string() +
                  ".");
}

} // namespace
} // namespace veltra
