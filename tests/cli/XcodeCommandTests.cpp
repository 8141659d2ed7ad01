#include "TestSupport.h"
#include "cli/VeltraRun.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace veltra {
namespace {

using testing::runVeltra;
namespace fs = std::filesystem;

const fs::path fixtures = fs::path(VELTRA_FIXTURES_DIR) / "xcode";

std::map<std::string, std::string> standIns(std::map<std::string, std::string> more = {}) {
    more["PATH"] = std::string(VELTRA_TOOLS_DIR) + ":" + std::getenv("PATH");
    return more;
}

TEST(XcodeCommand, InfoAsJsonAndText) {
    const auto json = runVeltra({"xcode", "info", (fixtures / "clipy").string(), "--json"});
    ASSERT_EQ(json.exitCode, 0) << json.errorOutput;
    const auto info = nlohmann::json::parse(json.output);
    EXPECT_EQ(info["projectURL"], (fixtures / "clipy" / "Clipy.xcworkspace").string());
    EXPECT_EQ(info["isWorkspace"], true);
    EXPECT_EQ(info["defaultScheme"], "Clipy");
    EXPECT_EQ(info["bundleIdentifier"], "com.clipy-app.Clipy");
    EXPECT_EQ(info["developmentTeam"], "BBCHAJ584H");
    EXPECT_EQ(info["schemeDetails"][0]["appName"], "Clipy.app");

    const auto text = runVeltra({"xcode", "info", (fixtures / "coteditor").string()});
    EXPECT_NE(text.output.find("Default scheme: CotEditor\n"), std::string::npos);
    EXPECT_NE(text.output.find("  Update Help Index: archives no application in Release\n"),
              std::string::npos);

    const auto missing = runVeltra({"xcode", "info", "/nonexistent"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.errorOutput, "Error: No Xcode project or workspace found at /nonexistent\n");
}

TEST(XcodeCommand, CheckReportsTheProblem) {
    const auto path = (fixtures / "ice").string();
    const auto good = runVeltra({"xcode", "check", path, "--scheme", "Ice"}, standIns());
    EXPECT_EQ(good.exitCode, 0) << good.errorOutput;
    EXPECT_EQ(good.output, "Success: Xcode is the active developer directory\nSuccess: Release "
                           "Info.plist paths verified for 'Ice'\n");

    const auto tools =
        runVeltra({"xcode", "check", path},
                  standIns({{"VELTRA_FAKE_DEVELOPER_DIR", "/Library/Developer/CommandLineTools"}}));
    EXPECT_EQ(tools.exitCode, 1);
    EXPECT_TRUE(tools.errorOutput.starts_with(
        "Error: Xcode is not selected as the active developer directory.\n\nRun this command"));

    const auto plist = runVeltra({"xcode", "check", path},
                                 standIns({{"VELTRA_FAKE_INFOPLIST_FILE", "Ice/Missing.plist"}}));
    EXPECT_EQ(plist.exitCode, 1);
    EXPECT_EQ(plist.errorOutput, "Error: Release target 'Ice' references a missing Info.plist: '" +
                                     (fixtures / "ice" / "Ice/Missing.plist").string() +
                                     "'. Fix INFOPLIST_FILE or restore the file, then retry.\n");
}

TEST(XcodeCommand, ArchiveThenInspect) {
    testing::TempDir dir;
    fs::copy(fixtures / "ice", dir / "ice", fs::copy_options::recursive);
    const auto archived = runVeltra({"archive", (dir / "ice").string(), "--identity",
                                     "Developer ID Application: Jane Doe (AB12CD34EF)", "--version",
                                     "2.0", "--build", "7"},
                                    standIns());
    ASSERT_EQ(archived.exitCode, 0) << archived.errorOutput;
    EXPECT_TRUE(archived.output.starts_with("   Checking Release Info.plist paths...\n"));
    EXPECT_NE(archived.output.find("   Signing target 'Ice'...\n"), std::string::npos);
    const auto lastLine =
        archived.output.substr(archived.output.rfind('\n', archived.output.size() - 2) + 1);
    const fs::path app = lastLine.substr(0, lastLine.size() - 1);
    EXPECT_EQ(app.filename(), "Ice.app");

    const auto inspected = runVeltra({"inspect", app.string(), "--json"}, standIns());
    ASSERT_EQ(inspected.exitCode, 0) << inspected.errorOutput;
    const auto info = nlohmann::json::parse(inspected.output);
    EXPECT_EQ(info["version"], "2.0");
    EXPECT_EQ(info["build"], "7");
    EXPECT_EQ(info["signingTeam"], "AB12CD34EF");
    EXPECT_EQ(info["architectures"], (nlohmann::json{"x86_64", "arm64"}));
    const auto text = runVeltra({"inspect", app.string()}, standIns());
    EXPECT_NE(text.output.find("Signature:     team AB12CD34EF\n"), std::string::npos);
    fs::remove_all(app.parent_path().parent_path());

    const auto failed = runVeltra({"archive", (dir / "ice").string()},
                                  standIns({{"VELTRA_FAKE_ARCHIVE", "compile-error"}}));
    EXPECT_EQ(failed.exitCode, 1);
    EXPECT_TRUE(failed.errorOutput.starts_with("Error: Xcode archive failed:\n"));
    const auto logLine = failed.errorOutput.find("Full build log: ");
    ASSERT_NE(logLine, std::string::npos);
    fs::remove_all(
        fs::path(failed.errorOutput.substr(logLine + 16, failed.errorOutput.size() - logLine - 17))
            .parent_path());
}

} // namespace
} // namespace veltra
