#include "AppleTools.h"
#include "core/support/VeltraError.h"
#include "core/xcode/AppInspector.h"
#include "core/xcode/XcodeArchiver.h"
#include "dsstore/PlistValue.h"

#include <gtest/gtest.h>

namespace veltra {
namespace {

using testing::writeFile;
namespace fs = std::filesystem;

class AppInspectorTest : public testing::AppleToolsTest {
protected:
    // A real archived app from the xcodebuild stand-in.
    fs::path builtApp() {
        const auto app = XcodeArchiver().archiveAndExport(scratchProject(), "Acme", std::nullopt,
                                                          "1.4.2", 42, {});
        const auto copy = dir / "Acme.app";
        fs::copy(app, copy, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        fs::remove_all(app.parent_path().parent_path());
        return copy;
    }

    int failureCode(const fs::path& app, std::string& message) {
        try {
            AppInspector().inspect(app);
        } catch (const VeltraError& error) {
            message = error.message();
            return error.code();
        }
        return 0;
    }
};

TEST_F(AppInspectorTest, ReadsABuiltApp) {
    fake("VELTRA_FAKE_FEED_URL", "https://acme.example.com/appcast.xml");
    const auto app = builtApp();
    const auto info = AppInspector().inspect(app);
    EXPECT_EQ(info.appPath, app);
    EXPECT_EQ(info.bundleIdentifier, "com.example.acme");
    EXPECT_EQ(info.displayName, "Acme");
    EXPECT_EQ(info.version, "1.4.2");
    EXPECT_EQ(info.build, "42");
    EXPECT_EQ(info.minimumOSVersion, "13.0");
    EXPECT_TRUE(info.isCodesigned);
    EXPECT_EQ(info.signingTeam, "AB12CD34EF");
    EXPECT_EQ(info.architectures, (std::vector<std::string>{"x86_64", "arm64"}));
    EXPECT_EQ(info.executableURL, app / "Contents/MacOS/Acme");
    EXPECT_EQ(info.iconURL, app / "Contents/Resources/AppIcon.icns");
    EXPECT_EQ(info.sparkleFeedURL, "https://acme.example.com/appcast.xml");
    EXPECT_EQ(runsOf("codesign"), (std::vector<std::vector<std::string>>{{"-dvvv", app.string()}}));
    EXPECT_EQ(runsOf("lipo"), (std::vector<std::vector<std::string>>{
                                  {"-archs", (app / "Contents/MacOS/Acme").string()}}));
}

TEST_F(AppInspectorTest, SignatureVerification) {
    const auto app = builtApp();
    EXPECT_EQ(AppInspector().signatureProblem(app), std::nullopt);
    EXPECT_EQ(runsOf("codesign").back(),
              (std::vector<std::string>{"--verify", "--deep", "--strict", app.string()}));
    fake("VELTRA_FAKE_CODESIGN_VERIFY", "broken");
    EXPECT_EQ(AppInspector().signatureProblem(app),
              app.string() + ": a sealed resource is missing or invalid\nfile modified: " +
                  app.string() + "/Contents/Resources/Base.lproj/Main.storyboardc");
    fs::remove_all(app / "Contents/_CodeSignature");
    EXPECT_EQ(AppInspector().signatureProblem(app),
              app.string() + ": code object is not signed at all");
}

TEST_F(AppInspectorTest, UnsignedAdHocAndThin) {
    const auto app = builtApp();
    fs::remove_all(app / "Contents/_CodeSignature");
    auto info = AppInspector().inspect(app);
    EXPECT_FALSE(info.isCodesigned);
    EXPECT_FALSE(info.signingTeam.has_value());

    fs::create_directories(app / "Contents/_CodeSignature");
    writeFile(app / "Contents/_CodeSignature/CodeResources", "-\n");
    fs::copy_file(app / "Contents/Frameworks/Helper.framework/Versions/A/Helper",
                  app / "Contents/MacOS/Acme", fs::copy_options::overwrite_existing);
    info = AppInspector().inspect(app);
    EXPECT_TRUE(info.isCodesigned);
    EXPECT_FALSE(info.signingTeam.has_value()) << "ad-hoc: TeamIdentifier=not set";
    EXPECT_EQ(info.architectures, std::vector<std::string>{"arm64"});
}

TEST_F(AppInspectorTest, BinaryPlistAndFallbacks) {
    const auto app = dir / "Bare Bones.app";
    fs::create_directories(app / "Contents/Resources");
    dsstore::PlistDictionary entries{
        {"CFBundleName", dsstore::PlistValue::string("Bones")},
        {"CFBundleIconFile", dsstore::PlistValue::string("Missing")},
        {"LSUIElement", dsstore::PlistValue::boolean(true)},
    };
    const auto bytes = dsstore::PlistValue::dictionary(entries).encodeBinary();
    writeFile(app / "Contents/Info.plist", std::string(bytes.begin(), bytes.end()));
    auto info = AppInspector().inspect(app);
    EXPECT_EQ(info.bundleIdentifier, "unknown.bundle.id");
    EXPECT_EQ(info.displayName, "Bones");
    EXPECT_EQ(info.version, "");
    EXPECT_FALSE(info.iconURL.has_value()) << "Missing.icns is not there";
    EXPECT_FALSE(info.executableURL.has_value());
    EXPECT_TRUE(info.architectures.empty());
    EXPECT_TRUE(runsOf("lipo").empty());

    writeFile(app / "Contents/Info.plist",
              "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>CFBundleIconFile</key>"
              "<string>Bones.icns</string></dict></plist>");
    writeFile(app / "Contents/Resources/Bones.icns", "icns");
    info = AppInspector().inspect(app);
    EXPECT_EQ(info.displayName, "Bare Bones");
    EXPECT_EQ(info.iconURL, app / "Contents/Resources/Bones.icns");
}

TEST_F(AppInspectorTest, Failures) {
    std::string message;
    EXPECT_EQ(failureCode(dir / "Gone.app", message), 404);
    EXPECT_EQ(message, "App bundle not found at " + (dir / "Gone.app").string());

    const auto app = dir / "Broken.app";
    fs::create_directories(app / "Contents");
    EXPECT_EQ(failureCode(app, message), 400);
    EXPECT_EQ(message, "Invalid Info.plist inside Broken.app");
    writeFile(app / "Contents/Info.plist",
              "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>");
    EXPECT_EQ(failureCode(app, message), 400);
    writeFile(app / "Contents/Info.plist", "bplist00 truncated");
    EXPECT_EQ(failureCode(app, message), 400);
}

TEST(AppInspectorParsing, ToolReports) {
    EXPECT_EQ(AppInspector::teamIdentifier("Identifier=com.example.acme\r\nTeamIdentifier= "
                                           "AB12CD34EF \nTeamIdentifier=OTHER"),
              "AB12CD34EF");
    EXPECT_EQ(AppInspector::teamIdentifier("TeamIdentifier=not set"), std::nullopt);
    EXPECT_EQ(AppInspector::teamIdentifier("Signature=adhoc"), std::nullopt);
    EXPECT_EQ(AppInspector::architectureNames("x86_64 arm64 \n"),
              (std::vector<std::string>{"x86_64", "arm64"}));
    EXPECT_TRUE(AppInspector::architectureNames("  \n").empty());
}

} // namespace
} // namespace veltra
