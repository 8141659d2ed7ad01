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
    ASSERT_EQ(plan.changes.size(), 7u);
    EXPECT_EQ(plan.changes[3], "Set INFOPLIST_FILE = neobee-session-player/Info.plist in target "
                               "neobee-session-player's configurations (Xcode merges it with the "
                               "generated keys)");
    // The folder Xcode keeps in sync with the target would copy the new file into the app too.
    EXPECT_EQ(plan.changes[4], "Leave Info.plist out of the files target neobee-session-player "
                               "takes from its synchronized folder neobee-session-player");
    EXPECT_EQ(plan.changes[5], "Set SUFeedURL in neobee-session-player/Info.plist");
    EXPECT_EQ(plan.changes[6], "Set SUPublicEDKey in neobee-session-player/Info.plist");
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
    const auto parsed = parseProjectFile(readFile(project / "project.pbxproj"));
    const auto& objects = parsed.at("objects");
    const auto& group = objects.at("6A1539052E71A500005BDA9D");
    ASSERT_EQ(group.at("exceptions").size(), 1u);
    const auto& exceptions = objects.at(group.at("exceptions")[0].get<std::string>());
    EXPECT_EQ(exceptions.at("isa"), "PBXFileSystemSynchronizedBuildFileExceptionSet");
    EXPECT_EQ(exceptions.at("membershipExceptions"), Json::array({"Info.plist"}));
    EXPECT_EQ(objects.at(exceptions.at("target").get<std::string>()).at("name"),
              "neobee-session-player");
    EXPECT_NE(readFile(project / "project.pbxproj")
                  .find(" /* Exceptions for \"neobee-session-player\" folder in "
                        "\"neobee-session-player\" target */ = {\n"),
              std::string::npos);
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

    // The app reads another feed already, and has an empty key.
    setPropertyListStrings(
        infoPlist,
        {{"SUFeedURL", "https://www.example.com/downloads/appcast.xml"}, {"SUPublicEDKey", ""}});
    auto plan = SparkleProjectSetup::plan(requestFor(project));
    EXPECT_EQ(plan.conflicts,
              (std::vector<std::string>{"SUFeedURL in Sample/Info.plist is "
                                        "https://www.example.com/downloads/appcast.xml, not " +
                                        std::string(feed)}));
    EXPECT_EQ(plan.changes.back(), "Set SUPublicEDKey in Sample/Info.plist");
    EXPECT_EQ(plan.done, (std::vector<std::string>{"Added the Sparkle package to Sample",
                                                   "Set SUPublicEDKey in Sample/Info.plist"}));
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

TEST(SparkleProjectSetup, ASandboxedAppGetsWhatSparklesInstallerNeeds) {
    testing::TempDir dir;
    fs::copy(fs::path(VELTRA_SOURCE_DIR) / "share/demo/Sample", dir.path(),
             fs::copy_options::recursive);
    const auto project = dir / "Sample.xcodeproj";
    auto text = readFile(project / "project.pbxproj");
    for (auto at = text.find("\t\t\t\tINFOPLIST_FILE"); at != std::string::npos;
         at = text.find("\t\t\t\tINFOPLIST_FILE", at + 60)) {
        text.insert(at, "\t\t\t\tCODE_SIGN_ENTITLEMENTS = Sample/Sample.entitlements;\n");
    }
    testing::writeFile(project / "project.pbxproj", text);
    const auto entitlements = dir / "Sample/Sample.entitlements";
    testing::writeFile(entitlements,
                       "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
                       "<key>com.apple.security.app-sandbox</key><true/>"
                       "<key>com.apple.security.files.user-selected.read-only</key><true/>"
                       "</dict></plist>");

    auto plan = SparkleProjectSetup::plan(requestFor(project));
    EXPECT_EQ(std::vector<std::string>(plan.changes.end() - 3, plan.changes.end()),
              (std::vector<std::string>{
                  "Set SUEnableInstallerLauncherService in Sample/Info.plist (the app is "
                  "sandboxed)",
                  "Set SUEnableDownloaderService in Sample/Info.plist (the app is sandboxed)",
                  "Let the sandboxed app reach Sparkle's installer (Sample/Sample.entitlements: "
                  "mach-lookup $(PRODUCT_BUNDLE_IDENTIFIER)-spks, "
                  "$(PRODUCT_BUNDLE_IDENTIFIER)-spki)"}));
    SparkleProjectSetup::apply(plan);
    const auto info = readPropertyListDictionary(dir / "Sample/Info.plist");
    EXPECT_EQ(info["SUEnableInstallerLauncherService"], true);
    EXPECT_EQ(info["SUEnableDownloaderService"], true);
    EXPECT_EQ(info["SUFeedURL"], feed);
    EXPECT_EQ(readPropertyListDictionary(entitlements),
              (Json{{"com.apple.security.app-sandbox", true},
                    {"com.apple.security.files.user-selected.read-only", true},
                    {"com.apple.security.temporary-exception.mach-lookup.global-name",
                     {"$(PRODUCT_BUNDLE_IDENTIFIER)-spks", "$(PRODUCT_BUNDLE_IDENTIFIER)-spki"}}}));
    EXPECT_TRUE(SparkleProjectSetup::plan(requestFor(project)).alreadySetUp());

    // An app that reaches the network itself downloads updates itself.
    testing::writeFile(entitlements,
                       "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
                       "<key>com.apple.security.app-sandbox</key><true/>"
                       "<key>com.apple.security.network.client</key><true/></dict></plist>");
    testing::writeFile(dir / "Sample/Info.plist",
                       "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict/></plist>");
    plan = SparkleProjectSetup::plan(requestFor(project));
    EXPECT_TRUE(plan.plistBooleans.contains("SUEnableInstallerLauncherService"));
    EXPECT_FALSE(plan.plistBooleans.contains("SUEnableDownloaderService"));
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
              "No Xcode project or workspace at " + (dir / "Acme.xcworkspace").string() + ".");

    // The project names the Info.plist it changes; it stays inside the project's folder.
    fs::copy(fs::path(VELTRA_SOURCE_DIR) / "share/demo/Sample", dir / "App",
             fs::copy_options::recursive);
    const auto projectFile = dir / "App/Sample.xcodeproj/project.pbxproj";
    auto text = readFile(projectFile);
    const std::string named = "INFOPLIST_FILE = Sample/Info.plist;";
    for (auto at = text.find(named); at != std::string::npos; at = text.find(named)) {
        text.replace(at, named.size(), "INFOPLIST_FILE = \"../outside.plist\";");
    }
    writeFileAtomically(projectFile, text);
    EXPECT_EQ(message(requestFor(dir / "App/Sample.xcodeproj")),
              "Target Sample's Info.plist (../outside.plist) is outside the project's folder.");
    EXPECT_FALSE(fs::exists(dir / "outside.plist"));
}

// A workspace: the scheme names the member project and its app target.
TEST(SparkleProjectSetup, AWorkspaceSetsUpTheProjectAndTargetOfItsScheme) {
    testing::TempDir dir;
    fs::copy(fs::path(VELTRA_SOURCE_DIR) / "share/demo/Sample", dir / "App",
             fs::copy_options::recursive);
    fs::create_directories(dir / "Acme.xcworkspace");
    // A CocoaPods workspace before `pod install`: its Pods project is not on disk yet.
    writeFileAtomically(dir / "Acme.xcworkspace/contents.xcworkspacedata",
                        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                        "<Workspace version = \"1.0\">\n"
                        "   <FileRef location = \"group:App/Sample.xcodeproj\"></FileRef>\n"
                        "   <FileRef location = \"group:Pods/Pods.xcodeproj\"></FileRef>\n"
                        "</Workspace>\n");
    auto request = requestFor(dir / "Acme.xcworkspace");
    request.scheme = "Sample";
    auto plan = SparkleProjectSetup::plan(request);
    EXPECT_EQ(plan.targetName, "Sample");
    EXPECT_EQ(plan.projectFile, dir / "App/Sample.xcodeproj/project.pbxproj");
    EXPECT_EQ(plan.infoPlist, dir / "App/Sample/Info.plist");
    // Without a scheme, the workspace's own choice; the folder holding it says the same.
    request.scheme.reset();
    EXPECT_EQ(SparkleProjectSetup::plan(request).projectFile, plan.projectFile);
    request.project = dir.path();
    EXPECT_EQ(SparkleProjectSetup::plan(request).projectFile, plan.projectFile);

    request.scheme = "Nightly";
    try {
        SparkleProjectSetup::plan(request);
        ADD_FAILURE() << "planned for a scheme the workspace does not have";
    } catch (const VeltraError& error) {
        EXPECT_EQ(error.message(), "The workspace Acme has no shared scheme named Nightly.");
    }
}

// A project with no app target is refused by name.
TEST(SparkleProjectSetup, AProjectWithoutAnAppIsRefusedByName) {
    testing::TempDir dir;
    fs::copy(fs::path(VELTRA_SOURCE_DIR) / "share/demo/Sample", dir.path(),
             fs::copy_options::recursive);
    const auto projectFile = dir / "Sample.xcodeproj/project.pbxproj";
    auto text = readFile(projectFile);
    const auto type = std::string("\"com.apple.product-type.application\"");
    text.replace(text.find(type), type.size(), "\"com.apple.product-type.framework\"");
    writeFileAtomically(projectFile, text);
    try {
        SparkleProjectSetup::plan(requestFor(dir / "Sample.xcodeproj"));
        ADD_FAILURE() << "planned for a project without an app";
    } catch (const VeltraError& error) {
        EXPECT_EQ(error.message(),
                  "Sample.xcodeproj: The project has no application target to set up for "
                  "updates.");
    }
}

} // namespace
} // namespace veltra
