#include "AppleTools.h"
#include "core/support/VeltraError.h"
#include "core/xcode/XcodeBuildSettings.h"
#include "core/xcode/XcodeEnvironment.h"
#include "core/xcode/XcodeToolsVerdict.h"

#include <gtest/gtest.h>

namespace veltra {
namespace {

using testing::writeFile;
namespace fs = std::filesystem;

const std::string instruction =
    "Run this command in Terminal to point to Xcode:\nsudo xcode-select -s "
    "/Applications/Xcode.app/Contents/Developer\n(or select Xcode in Xcode ➔ Settings ➔ "
    "Locations ➔ Command Line Tools).";

// What the release's check and the doctor both conclude from the two tools' answers.
TEST(XcodeToolsVerdict, FullXcodeCommandLineToolsOrAFailingXcodebuild) {
    using Kind = XcodeToolsVerdict::Kind;
    struct Row {
        const char* name;
        const char* folder;
        std::optional<ProcessResult> version;
        Kind kind;
        const char* said;
    };
    const auto answered = [](int status, std::string output, std::string errors) {
        ProcessResult result;
        result.exitCode = status;
        result.output = std::move(output);
        result.errorOutput = std::move(errors);
        return result;
    };
    const char* xcode = "/Applications/Xcode.app/Contents/Developer";
    const std::vector<Row> rows{
        {"folder of the command-line tools, before xcodebuild runs",
         "/Library/Developer/CommandLineTools", std::nullopt, Kind::commandLineToolsOnly, ""},
        {"a folder alone says nothing more", xcode, std::nullopt, Kind::fullXcode, ""},
        {"full Xcode", xcode, answered(0, "Xcode 16.2\nBuild version 16C5032a\n", ""),
         Kind::fullXcode, ""},
        {"xcodebuild of the command-line tools", "/usr/local/dev",
         answered(1, "",
                  "xcode-select: error: tool 'xcodebuild' requires Xcode, but active developer "
                  "directory '/Library/Developer/CommandLineTools' is a command line tools "
                  "instance\n"),
         Kind::commandLineToolsOnly, ""},
        {"license not accepted", xcode,
         answered(69, "", "  You have not agreed to the Xcode license agreements.\n"),
         Kind::xcodebuildFails, "You have not agreed to the Xcode license agreements."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto verdict =
            XcodeToolsVerdict::judge(row.folder, row.version ? &*row.version : nullptr);
        EXPECT_EQ(verdict.kind, row.kind);
        EXPECT_EQ(verdict.said, row.said);
    }
}

class XcodeEnvironmentTest : public testing::AppleToolsTest {
protected:
    std::pair<int, std::string> failure() {
        try {
            XcodeEnvironmentValidator().validate();
        } catch (const VeltraError& error) {
            return {error.code(), error.message()};
        }
        return {0, ""};
    }
};

TEST_F(XcodeEnvironmentTest, FullXcodePasses) {
    EXPECT_EQ(failure(), std::make_pair(0, std::string()));
    EXPECT_EQ(runsOf("xcode-select"), (std::vector<std::vector<std::string>>{{"-p"}}));
    EXPECT_EQ(runsOf("xcodebuild"), (std::vector<std::vector<std::string>>{{"-version"}}));
}

TEST_F(XcodeEnvironmentTest, CommandLineToolsAreCaughtBeforeXcodebuildRuns) {
    fake("VELTRA_FAKE_DEVELOPER_DIR", "/Library/Developer/CommandLineTools");
    EXPECT_EQ(failure(),
              std::make_pair(412, "Xcode is not selected as the active developer directory.\n\n" +
                                      instruction));
    EXPECT_TRUE(runsOf("xcodebuild").empty());
}

TEST_F(XcodeEnvironmentTest, VersionReportNamingTheToolsIsTheSameProblem) {
    fake("VELTRA_FAKE_XCODE", "clt");
    EXPECT_EQ(failure().first, 412);
}

TEST_F(XcodeEnvironmentTest, OtherVersionFailuresQuoteTheTool) {
    fake("VELTRA_FAKE_XCODE", "license");
    EXPECT_EQ(failure(),
              std::make_pair(500, "Xcode configuration issue: You have not agreed to the Xcode "
                                  "license agreements, please run 'sudo xcodebuild -license' "
                                  "from within a Terminal window to review and agree to the "
                                  "Xcode license agreements.\n\n" +
                                      instruction));
}

TEST_F(XcodeEnvironmentTest, SilentVersionFailure) {
    fake("VELTRA_FAKE_XCODE", "silent-failure");
    EXPECT_EQ(failure(), std::make_pair(500, "Xcode configuration issue: xcodebuild could not be "
                                             "executed.\n\n" +
                                                 instruction));
}

TEST_F(XcodeEnvironmentTest, MissingDeveloperTools) {
    fake("VELTRA_FAKE_XCODE_SELECT", "fail");
    EXPECT_EQ(failure(), std::make_pair(404, std::string("Xcode Command Line Tools are missing. "
                                                         "Run 'xcode-select --install' in "
                                                         "Terminal or install Xcode.")));
    // And when there is no such tool at all.
    testing::ScopedEnvironment path("PATH", dir.path().string());
    EXPECT_EQ(failure().first, 404);
}

TEST(XcodeBuildSettingsReader, DecodesTheArrayBetweenNoise) {
    const auto targets = XcodeBuildSettingsReader::decode(
        "note: Run script build phase 'Lint' will be run during every build\n"
        "[\n  {\n    \"action\" : \"build\",\n    \"buildSettings\" : {\n"
        "      \"NOTE\" : \"a ] and a [ in a string\",\n      \"WRAPPER_EXTENSION\" : \"app\"\n"
        "    },\n    \"target\" : \"Acme\"\n  }\n]\n"
        "build session not created after 15 seconds - still waiting\n");
    ASSERT_TRUE(targets.has_value());
    ASSERT_EQ(targets->size(), 1u);
    EXPECT_EQ(targets->front().target, "Acme");
    EXPECT_EQ(targets->front().buildSettings.at("NOTE"), "a ] and a [ in a string");

    EXPECT_TRUE(XcodeBuildSettingsReader::decode("[]").has_value());
    for (const auto* bad : {"", "nothing here", "[\n{\"target\": 1, \"buildSettings\": {}}\n]",
                            "[\n{\"target\": \"A\", \"buildSettings\": {\"X\": true}}\n]",
                            "[\n{\"target\": \"A\"}\n]", "[\n  {\n", "{\"target\": \"A\"}"}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(XcodeBuildSettingsReader::decode(bad).has_value());
    }
}

TargetSettings app(std::string name, std::map<std::string, std::string> settings) {
    settings.emplace("WRAPPER_EXTENSION", "app");
    return {std::move(name), std::move(settings)};
}

TEST(XcodePlistValidator, EveryMessage) {
    testing::TempDir dir;
    writeFile(dir / "Good.plist", "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
                                  "<key>CFBundleName</key><string>A</string></dict></plist>");
    writeFile(dir / "Array.plist",
              "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>");
    writeFile(dir / "Junk.plist", "not a plist");
    const auto root = dir.path().string();
    const auto check = [](std::vector<TargetSettings> targets) {
        return XcodePlistValidator::check(targets, "Acme").value_or("ok");
    };

    EXPECT_EQ(check({app("A", {{"GENERATE_INFOPLIST_FILE", "yes"}})}), "ok");
    EXPECT_EQ(check({app("A", {{"INFOPLIST_FILE", " Good.plist "}, {"SRCROOT", root}})}), "ok");
    EXPECT_EQ(check({app("A", {{"INFOPLIST_FILE", "Good.plist"}, {"PROJECT_DIR", root}})}), "ok");
    EXPECT_EQ(check({app("A", {{"INFOPLIST_FILE", (dir / "Good.plist").string()}})}), "ok");

    EXPECT_EQ(check({app("A", {})}), "Release target 'A' has no Info.plist. Set INFOPLIST_FILE or "
                                     "enable GENERATE_INFOPLIST_FILE in Xcode, then retry.");
    EXPECT_EQ(check({app("A", {{"INFOPLIST_FILE", "$(SRCROOT)/App/Info.plist"}})}),
              "Release target 'A' has an unresolved INFOPLIST_FILE: '$(SRCROOT)/App/Info.plist'. "
              "Fix its build-setting variables, then retry.");
    EXPECT_TRUE(check({app("A", {{"INFOPLIST_FILE", "${X}/Info.plist"}})})
                    .starts_with("Release target 'A' has an unresolved INFOPLIST_FILE"));
    EXPECT_EQ(check({app("A", {{"INFOPLIST_FILE", "App/Info.plist"}})}),
              "Release target 'A' has no source directory for INFOPLIST_FILE 'App/Info.plist'. "
              "Check its Xcode build settings, then retry.");
    EXPECT_EQ(check({app("A", {{"INFOPLIST_FILE", "Gone.plist"}, {"SRCROOT", root}})}),
              "Release target 'A' references a missing Info.plist: '" + root +
                  "/Gone.plist'. Fix INFOPLIST_FILE or restore the file, then retry.");
    EXPECT_EQ(check({app("A", {{"INFOPLIST_FILE", "Array.plist"}, {"SRCROOT", root}})}),
              "Release target 'A' cannot read Info.plist at '" + root +
                  "/Array.plist'. Fix the plist contents or permissions, then retry.\nThe plist "
                  "must contain a dictionary.");
    EXPECT_EQ(check({app("A", {{"INFOPLIST_FILE", "Junk.plist"}, {"SRCROOT", root}})})
                  .starts_with("Release target 'A' cannot read Info.plist at '" + root +
                               "/Junk.plist'. Fix the plist contents or permissions, then "
                               "retry.\n"),
              true);

    // Only application targets count, and the first problem in xcodebuild's order wins.
    const TargetSettings framework{"Kit", {{"WRAPPER_EXTENSION", "framework"}}};
    EXPECT_EQ(
        check({framework}),
        "Xcode returned no Release targets for 'Acme'. Check the selected scheme, then retry.");
    EXPECT_EQ(check({framework, app("B", {}), app("C", {{"INFOPLIST_FILE", "$(X)"}})})
                  .starts_with("Release target 'B' has no Info.plist."),
              true);
}

class XcodePlistValidatorRun : public testing::AppleToolsTest {
protected:
    XcodeProjectInfo project() { return scratchProject(); }
};

TEST_F(XcodePlistValidatorRun, ReadsSettingsThroughXcodebuild) {
    EXPECT_EQ(XcodePlistValidator().validate(project(), "Acme"), std::nullopt);
    const auto runs = runsOf("xcodebuild");
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0],
              (std::vector<std::string>{"-project", (dir / "Acme.xcodeproj").string(), "-scheme",
                                        "Acme", "-configuration", "Release", "-destination",
                                        "generic/platform=macOS", "-showBuildSettings", "-json"}));

    fake("VELTRA_FAKE_INFOPLIST_FILE", "Acme/Info.plist");
    EXPECT_EQ(XcodePlistValidator().validate(project(), "Acme"),
              "Release target 'Acme' references a missing Info.plist: '" +
                  (dir / "Acme/Info.plist").string() +
                  "'. Fix INFOPLIST_FILE or restore the file, then retry.");
}

TEST_F(XcodePlistValidatorRun, ToolFailures) {
    fake("VELTRA_FAKE_ARCHIVE", "no-scheme");
    EXPECT_EQ(XcodePlistValidator().validate(project(), "Acmee"),
              "Could not read Release build settings for 'Acmee'. Fix the Xcode configuration, "
              "then retry.\nxcodebuild: error: The project named \"Acme\" does not contain a "
              "scheme named \"Acmee\". The \"-list\" option can be used to find the names of the "
              "schemes in the project.");
}

TEST_F(XcodePlistValidatorRun, CommandLineToolsAndInvalidResponses) {
    {
        fake("VELTRA_FAKE_XCODE", "clt");
        EXPECT_EQ(XcodePlistValidator().validate(project(), "Acme"),
                  XcodeEnvironmentValidator::commandLineToolsMessage);
    }
    writeFile(dir / "settings.txt", "Build settings for action build and target Acme:\n"
                                    "    WRAPPER_EXTENSION = app\n");
    fake("VELTRA_FAKE_XCODE", "");
    fake("VELTRA_FAKE_BUILD_SETTINGS", (dir / "settings.txt").string());
    EXPECT_EQ(XcodePlistValidator().validate(project(), "Acme"),
              "Could not read Release build settings for 'Acme': Xcode returned an invalid "
              "response.");
}

} // namespace
} // namespace veltra
