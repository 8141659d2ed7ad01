#include "TestSupport.h"
#include "core/support/VeltraError.h"
#include "core/xcode/ProjectFileParser.h"
#include "core/xcode/XcodeProjectDiscovery.h"

#include <gtest/gtest.h>

namespace veltra {
namespace {

using testing::TempDir;
using testing::writeFile;
namespace fs = std::filesystem;

const fs::path fixtures = fs::path(VELTRA_FIXTURES_DIR) / "xcode";

struct Expected {
    const char* folder;
    const char* project;
    bool isWorkspace;
    std::vector<std::string> schemes;
    std::optional<std::string> defaultScheme;
    std::optional<std::string> bundleIdentifier;
    std::optional<std::string> developmentTeam;
    std::vector<std::string> configurations;
};

TEST(XcodeProjectDiscovery, EveryFixtureProject) {
    const std::vector<Expected> all{
        {"clipy",
         "Clipy.xcworkspace",
         true,
         {"Clipy"},
         "Clipy",
         "com.clipy-app.Clipy",
         "BBCHAJ584H",
         {"Debug", "Release"}},
        {"coteditor",
         "CotEditor.xcodeproj",
         false,
         {"CotEditor", "CotEditor-Sparkle", "UI Tests", "Update Help Index"},
         "CotEditor",
         "com.coteditor.CotEditor",
         std::nullopt,
         {"Debug", "Debug-Sparkle", "Release", "Release-Sparkle"}},
        {"ice",
         "Ice.xcodeproj",
         false,
         {"Ice"},
         "Ice",
         "com.jordanbaird.Ice",
         "K2ATHQPJDP",
         {"Debug", "Release"}},
        {"loop",
         "Loop.xcodeproj",
         false,
         {"Loop", "Loop (GH ACTIONS)"},
         "Loop",
         "com.MrKai77.Loop",
         "5F967GYF84",
         {"Debug", "Release"}},
        {"monitorcontrol",
         "MonitorControl.xcodeproj",
         false,
         {"MonitorControl"},
         "MonitorControl",
         "app.monitorcontrol.MonitorControl",
         "299YSU96J7",
         {"Debug", "Release"}},
        {"neobee",
         "neobee-session-player.xcworkspace",
         true,
         {"neobee-session-player"},
         "neobee-session-player",
         "club.theneobee.ktv-session-player",
         std::nullopt,
         {"Debug", "Release"}},
        // No shared schemes: Xcode makes one per target, named after it.
        {"osxspell",
         "VoikkoSpellService.xcodeproj",
         false,
         {},
         "VoikkoSpellService",
         "org.puimula.VoikkoSpellService",
         "8X9ZUVVBWA",
         {"Debug", "Release"}},
        {"qlview",
         "qlview.xcodeproj",
         false,
         {},
         "qlview",
         "org.rsmmr.qlview",
         std::nullopt,
         {"Debug", "Release"}},
    };
    for (const auto& expected : all) {
        SCOPED_TRACE(expected.folder);
        const auto info = XcodeProjectDiscovery::discover(fixtures / expected.folder);
        EXPECT_EQ(info.projectPath, fixtures / expected.folder / expected.project);
        EXPECT_EQ(info.isWorkspace, expected.isWorkspace);
        EXPECT_EQ(info.schemes, expected.schemes);
        EXPECT_EQ(info.defaultScheme, expected.defaultScheme);
        EXPECT_EQ(info.bundleIdentifier, expected.bundleIdentifier);
        EXPECT_EQ(info.developmentTeam, expected.developmentTeam);
        EXPECT_EQ(info.configurations, expected.configurations);
        // Naming the project itself gives the same answer as naming its folder.
        EXPECT_EQ(XcodeProjectDiscovery::discover(info.projectPath).schemes, info.schemes);
    }
}

TEST(XcodeProjectDiscovery, SchemesTellWhatTheyArchive) {
    const auto cot = XcodeProjectDiscovery::discover(fixtures / "coteditor");
    ASSERT_NE(cot.scheme("CotEditor-Sparkle"), nullptr);
    EXPECT_EQ(cot.scheme("CotEditor-Sparkle")->archiveConfiguration, "Release-Sparkle");
    EXPECT_EQ(cot.scheme("CotEditor-Sparkle")->appName, "CotEditor.app");
    EXPECT_FALSE(cot.scheme("Update Help Index")->appName.has_value());
    EXPECT_FALSE(cot.scheme("UI Tests")->appName.has_value());

    const auto loop = XcodeProjectDiscovery::discover(fixtures / "loop");
    EXPECT_EQ(loop.scheme("Loop (GH ACTIONS)")->archiveConfiguration, "Debug");
    EXPECT_EQ(loop.scheme("Loop")->appTarget, "Loop");

    // Character references in attributes are decoded.
    const auto neobee = XcodeProjectDiscovery::discover(fixtures / "neobee");
    EXPECT_EQ(neobee.schemeDetails.at(0).appName, "NeoBee KTV\u64ad\u653e\u5668.app");
    // The CocoaPods project is listed but not committed.
    EXPECT_EQ(neobee.missingProjects,
              std::vector<fs::path>{fixtures / "neobee" / "Pods" / "Pods.xcodeproj"});
}

TEST(XcodeProjectDiscovery, SchemeEntriesThatDoNotArchiveAreSkipped) {
    const auto scheme = XcodeProjectDiscovery::parseScheme(
        R"(<Scheme><BuildAction><BuildActionEntries>
  <BuildActionEntry buildForArchiving = "NO"><BuildableReference BuildableName = "Tool.app"
    BlueprintName = "Tool" BlueprintIdentifier = "A1"/></BuildActionEntry>
  <BuildActionEntry buildForArchiving = "YES"><BuildableReference BuildableName = "Acme &amp; Co.app"
    BlueprintName = "Acme" BlueprintIdentifier = "B2" ReferencedContainer = "container:Acme.xcodeproj"/></BuildActionEntry>
</BuildActionEntries></BuildAction>
<LaunchAction><BuildableProductRunnable><BuildableReference BuildableName = "Other.app"/></BuildableProductRunnable></LaunchAction>
<ArchiveAction buildConfiguration = ""/></Scheme>)",
        "Acme");
    EXPECT_EQ(scheme.appName, "Acme & Co.app");
    EXPECT_EQ(scheme.appTargetID, "B2");
    EXPECT_EQ(scheme.container, "container:Acme.xcodeproj");
    EXPECT_EQ(scheme.archiveConfiguration, "Release");
    EXPECT_THROW(XcodeProjectDiscovery::parseScheme("<Scheme>", "Broken"), VeltraError);
}

TEST(XcodeProjectDiscovery, WorkspaceLocationsResolve) {
    const auto projects = XcodeProjectDiscovery::workspaceProjects(
        R"(<Workspace version = "1.0">
   <FileRef location = "self:"></FileRef>
   <FileRef location = "group:App.xcodeproj"></FileRef>
   <Group location = "group:Libs" name = "Libs">
      <FileRef location = "group:Core/Core.xcodeproj"></FileRef>
   </Group>
   <FileRef location = "container:Tools/Tools.xcodeproj"></FileRef>
   <FileRef location = "absolute:/opt/Shared.xcodeproj"></FileRef>
   <FileRef location = "group:README.md"></FileRef>
</Workspace>)",
        "/src/app");
    EXPECT_EQ(projects,
              (std::vector<fs::path>{"/src/app/App.xcodeproj", "/src/app/Libs/Core/Core.xcodeproj",
                                     "/src/app/Tools/Tools.xcodeproj", "/opt/Shared.xcodeproj"}));
}

TEST(XcodeProjectDiscovery, FindsAProjectOneFolderDownAndSaysWhenThereIsNone) {
    TempDir dir;
    fs::create_directories(dir / "empty");
    try {
        XcodeProjectDiscovery::discover(dir / "empty");
        FAIL() << "no project";
    } catch (const VeltraError& error) {
        EXPECT_EQ(error.code(), 404);
        EXPECT_EQ(error.message(),
                  "No Xcode project or workspace found at " + (dir / "empty").string());
    }
    fs::create_directories(dir / "repo" / "macosx");
    fs::copy(fixtures / "ice" / "Ice.xcodeproj", dir / "repo" / "macosx" / "Ice.xcodeproj",
             fs::copy_options::recursive);
    const auto info = XcodeProjectDiscovery::discover(dir / "repo");
    EXPECT_EQ(info.projectPath, dir / "repo" / "macosx" / "Ice.xcodeproj");
    EXPECT_EQ(info.bundleIdentifier, "com.jordanbaird.Ice");
}

TEST(XcodeProjectDiscovery, TeamFallsBackToTheSdkSettingAndTargetAttributes) {
    const auto project = parseProjectFile(R"pbx(// !$*UTF8*$!
{
	objects = {
		P = {isa = PBXProject; buildConfigurationList = PL; targets = (T, A, );
			attributes = { TargetAttributes = { A = { DevelopmentTeam = H7V7XYVQ7D; }; }; }; };
		PL = {isa = XCConfigurationList; buildConfigurations = (PD, PR, ); defaultConfigurationName = Release; };
		PD = {isa = XCBuildConfiguration; buildSettings = { }; name = Debug; };
		PR = {isa = XCBuildConfiguration; buildSettings = { "DEVELOPMENT_TEAM[sdk=macosx*]" = RP2S87B72W; }; name = Release; };
		T = {isa = PBXNativeTarget; name = Kit; productType = "com.apple.product-type.framework"; };
		A = {isa = PBXNativeTarget; name = "My App"; buildConfigurationList = AL; productType = "com.apple.product-type.application"; };
		AL = {isa = XCConfigurationList; buildConfigurations = (AR, ); };
		AR = {isa = XCBuildConfiguration; buildSettings = { PRODUCT_BUNDLE_IDENTIFIER = "com.example.$(PRODUCT_NAME:rfc1034identifier)"; DEVELOPMENT_TEAM = "";
};
name = Release;
};
};
rootObject = P /* Project object */;
})pbx");
    const auto settings = XcodeProjectDiscovery::projectSettings(project, "", "Release");
    EXPECT_EQ(settings.configurations, (std::vector<std::string>{"Debug", "Release"}));
    EXPECT_EQ(settings.appTarget, "My App");
    EXPECT_EQ(settings.bundleIdentifier, "com.example.$(PRODUCT_NAME:rfc1034identifier)");
    // The target's empty team gives way to the project's macOS-only one.
    EXPECT_EQ(settings.developmentTeam, "RP2S87B72W");
}

TEST(ProjectFileParser, ReadsTheTextFormatAndSaysWhereItBreaks) {
    const auto value = parseProjectFile("// !$*UTF8*$!\n{ a = \"tab\\there \\\"q\\\" "
                                        "\\U00e9\\101\"; /* note */ b = ( x, \"y z\", ); "
                                        "c = <0fbd7>; d = {}; }");
    EXPECT_EQ(value["a"], "tab\there \"q\" \u00e9A");
    EXPECT_EQ(value["b"], (nlohmann::json{"x", "y z"}));
    EXPECT_EQ(value["c"], "<0fbd7>");
    EXPECT_TRUE(value["d"].is_object());

    for (const auto* broken : {"{ a = b; ", "{ a = \"open; }", "{ a b; }", "{ a = b; } extra",
                               "/* never closed", "{ a = (b, c; }"}) {
        SCOPED_TRACE(broken);
        EXPECT_THROW(parseProjectFile(broken), VeltraError);
    }
    try {
        parseProjectFile("{\n a = b;\n c = ;\n}");
        FAIL();
    } catch (const VeltraError& error) {
        EXPECT_EQ(error.message(), "The project file is not readable: unexpected ';' on line 3.");
    }
    // Deep nesting is refused, not recursed into until the stack runs out.
    EXPECT_THROW(parseProjectFile(std::string(100000, '(')), VeltraError);
}

TEST(ProjectFileParser, ReadsTheXmlFormOldGeneratorsWrite) {
    const auto value = parseProjectFile(R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict><key>objects</key><dict><key>X</key><dict><key>isa</key><string>PBXProject</string></dict></dict>
<key>rootObject</key><string>X</string></dict></plist>)");
    EXPECT_EQ(value["rootObject"], "X");
    EXPECT_EQ(value["objects"]["X"]["isa"], "PBXProject");
}

} // namespace
} // namespace veltra
