#include "TestSupport.h"
#include "core/support/FileUtilities.h"
#include "core/xcode/VersionManager.h"
#include "core/xcode/VersionValidation.h"

#include <openssl/evp.h>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace veltra {
namespace {

using testing::TempDir;
using testing::writeFile;

const std::filesystem::path fixtures = std::filesystem::path(VELTRA_FIXTURES_DIR) / "xcode";

std::string sha256(std::string_view text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr);
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) {
        hex += fmt::format("{:02x}", digest[i]);
    }
    return hex;
}

TEST(VersionManager, RealProjectsReadAndApplyAsExpected) {
    const VersionManager manager;
    int checked = 0;
    for (const auto& entry : std::filesystem::directory_iterator(fixtures)) {
        if (!entry.is_directory()) {
            continue;
        }
        SCOPED_TRACE(entry.path().filename().string());
        const auto expected = nlohmann::json::parse(readFile(entry.path() / "expected.json"));
        const auto file = entry.path() / expected["project"].get<std::string>();
        const auto info = manager.readVersionInfo(file.parent_path(), std::nullopt);
        EXPECT_EQ(info.currentVersion, expected["read"]["version"].get<std::string>());
        EXPECT_EQ(info.currentBuild, expected["read"]["build"].get<decltype(info.currentBuild)>());
        EXPECT_EQ(info.nextSuggestedBuild, info.currentBuild + 1);

        const std::string original = readFile(file);
        const struct {
            const char* key;
            std::optional<std::string> version;
            std::optional<std::int64_t> build;
        } cases[] = {{"apply_9.8.7_4242", "9.8.7", 4242},
                     {"apply_2.0_none", "2.0", std::nullopt},
                     {"apply_none_77", std::nullopt, 77}};
        for (const auto& row : cases) {
            SCOPED_TRACE(row.key);
            const auto& want = expected[row.key];
            auto text = original;
            const auto result = VersionManager::applyToText(text, row.version, row.build);
            EXPECT_EQ(want["sha256"], sha256(text));
            EXPECT_EQ(want["bytes"], text.size());
            EXPECT_EQ(want["versionChanged"], result.versionChanged);
            EXPECT_EQ(want["buildChanged"], result.buildChanged);
            EXPECT_EQ(want["insertions"], result.insertions);
            EXPECT_EQ(result.inserted,
                      want["inserted"].is_null() ? "" : want["inserted"].get<std::string>());
        }
        ++checked;
    }
    EXPECT_EQ(checked, 8);
}

TEST(VersionManager, ApplyWritesTheFileAndNamesWhatItLeft) {
    TempDir dir;
    std::filesystem::copy(fixtures / "coteditor/CotEditor.xcodeproj", dir / "CotEditor.xcodeproj",
                          std::filesystem::copy_options::recursive);
    const VersionManager manager;
    const auto result = manager.apply("9.8.7", 4242, dir.path());
    EXPECT_EQ(result.notices,
              std::vector<std::string>{
                  "the project declares its version as \"7.1.0-beta.5\", which is left as it is "
                  "(only plain numbers are rewritten); the archive is still built as version "
                  "9.8.7"});
    const auto info = manager.readVersionInfo(dir / "CotEditor.xcodeproj", std::nullopt);
    EXPECT_EQ(info.currentVersion, "7.1.0-beta.5");
    EXPECT_EQ(info.currentBuild, 4242);

    std::filesystem::create_directories(dir / "loop");
    std::filesystem::copy(fixtures / "loop/Loop.xcodeproj", dir / "loop/Loop.xcodeproj",
                          std::filesystem::copy_options::recursive);
    const auto loop = manager.apply("2.0", 5, dir / "loop/Loop.xcodeproj");
    EXPECT_EQ(loop.inserted, "");
    ASSERT_EQ(loop.notices.size(), 2u);
    EXPECT_EQ(loop.notices[1], "the project declares its build as \"$(BUILD_NUMBER)\", which is "
                               "left as it is (only plain numbers are rewritten); the archive is "
                               "still built as build 5");

    // Nothing found: nothing written, no error.
    EXPECT_EQ(manager.apply("1.0", 2, dir / "empty").insertions, 0);
}

TEST(VersionManager, ReadingRules) {
    const struct {
        const char* name;
        std::string text;
        std::string version;
        std::int64_t build;
    } cases[] = {
        {"marketing version wins over the Info.plist key",
         "INFOPLIST_KEY_CFBundleShortVersionString = 1.0;\nMARKETING_VERSION = 2.1;", "2.1", 1},
        {"quotes are stripped", "MARKETING_VERSION = \"1.4.0-beta\";", "1.4.0-beta", 1},
        {"a later match counts when the first does not",
         "CURRENT_PROJECT_VERSION = \"$(X)\";\nCURRENT_PROJECT_VERSION=\n\t7 ;"
         "CURRENT_PROJECT_VERSION = 12;",
         "1.0.0", 12},
        {"Info.plist build key", "INFOPLIST_KEY_CFBundleVersion = \"31\";", "1.0.0", 31},
        {"a build too large for 64 bits", "CURRENT_PROJECT_VERSION = 99999999999999999999;",
         "1.0.0", 1},
        {"dotted builds are not builds", "CURRENT_PROJECT_VERSION = 4.5.1;", "1.0.0", 1},
        {"nothing", "", "1.0.0", 1},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(VersionManager::readProjectText(row.text),
                  (std::pair<std::string, std::int64_t>{row.version, row.build}));
    }
}

TEST(VersionManager, WritingRules) {
    const struct {
        const char* name;
        std::string text;
        std::optional<std::string> version;
        std::optional<std::int64_t> build;
        std::string after;
    } cases[] = {
        {"a '+' is quoted as the format needs", "MARKETING_VERSION = 1.0;", "1.0+2", std::nullopt,
         "MARKETING_VERSION = \"1.0+2\";"},
        {"odd spacing is read but not rewritten", "MARKETING_VERSION=1.0;", "2.0", 3,
         "MARKETING_VERSION=1.0;"},
        {"version declared, build not: build inserted",
         "buildSettings = {\nMARKETING_VERSION = 1.0;\n};", "2.0", 3,
         "buildSettings = {\n\t\t\t\tCURRENT_PROJECT_VERSION = 3;\nMARKETING_VERSION = 2.0;\n};"},
        {"build declared, version not: only the version inserted",
         "buildSettings = {\nCURRENT_PROJECT_VERSION = \"$(B)\";\n};", "2.0", 3,
         "buildSettings = {\n\t\t\t\tMARKETING_VERSION = 2.0;\nCURRENT_PROJECT_VERSION = "
         "\"$(B)\";\n};"},
        {"a suffix of another key is not a declaration",
         "buildSettings = {\nMY_MARKETING_VERSION = x;\n};", "2.0", 3,
         "buildSettings = {\n\t\t\t\tMARKETING_VERSION = 2.0;\n\t\t\t\tCURRENT_PROJECT_VERSION = "
         "3;\nMY_MARKETING_VERSION = x;\n};"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        auto text = row.text;
        VersionManager::applyToText(text, row.version, row.build);
        EXPECT_EQ(text, row.after);
    }
}

TEST(VersionManager, LocatesTheProjectAndReadsTheFeed) {
    TempDir dir;
    std::filesystem::create_directories(dir / "b.xcodeproj");
    std::filesystem::create_directories(dir / "a.xcodeproj");
    writeFile(dir / "b.xcodeproj/project.pbxproj", "CURRENT_PROJECT_VERSION = 3;");
    writeFile(dir / "a.xcodeproj/project.pbxproj", "CURRENT_PROJECT_VERSION = 2;");
    EXPECT_EQ(VersionManager::projectFile(dir / "App.xcworkspace"),
              dir / "a.xcodeproj/project.pbxproj");
    EXPECT_EQ(VersionManager::projectFile(dir.path()), dir / "a.xcodeproj/project.pbxproj");
    EXPECT_EQ(VersionManager::projectFile(dir / "b.xcodeproj"),
              dir / "b.xcodeproj/project.pbxproj");
    EXPECT_EQ(VersionManager::projectFile(dir / "none"), std::nullopt);

    const auto item = [](std::string_view version, std::string_view build) {
        return "<item><sparkle:shortVersionString>" + std::string(version) +
               "</sparkle:shortVersionString><sparkle:version>" + std::string(build) +
               "</sparkle:version></item>";
    };
    writeFile(dir / "appcast.xml", "<rss><channel>" + item("1.5", "5") + item("1.9", "9") +
                                       item("x", "beta") + item("1.7", "7") + "</channel></rss>");
    const VersionManager manager;
    const auto info = manager.readVersionInfo(dir / "b.xcodeproj", (dir / "appcast.xml").string());
    EXPECT_EQ(info, (VersionInfo{"1.0.0", 3, "1.9", 9, 10}));
    EXPECT_EQ(
        manager.readVersionInfoAsync(dir / "b.xcodeproj", (dir / "appcast.xml").string()).get(),
        info);
    const auto noFeed = manager.readVersionInfo(dir / "b.xcodeproj", (dir / "no.xml").string());
    EXPECT_EQ(noFeed, (VersionInfo{"1.0.0", 3, std::nullopt, std::nullopt, 4}));
    writeFile(dir / "zero.xml", "<rss><channel>" + item("0.1", "0") + "</channel></rss>");
    const auto zero = manager.readVersionInfo(dir / "none", (dir / "zero.xml").string());
    EXPECT_EQ(zero.lastPublishedBuild, std::nullopt);
    EXPECT_EQ(zero.nextSuggestedBuild, 2);
}

TEST(VersionManager, BumpAndCompare) {
    const VersionManager manager;
    const struct {
        const char* current;
        BumpType type;
        const char* bumped;
    } bumps[] = {
        {"1.2.3", BumpType::patch, "1.2.4"},  {"1.2.3", BumpType::minor, "1.3.0"},
        {"1.2.3", BumpType::major, "2.0.0"},  {"1", BumpType::patch, "1.0.1"},
        {"2.0", BumpType::minor, "2.1.0"},    {"1.2.3.4", BumpType::major, "2.0.0.4"},
        {"1.2b.3", BumpType::patch, "1.3.1"}, {"", BumpType::major, "1.0.0"},
        {"1..2", BumpType::patch, "1.2.1"},
    };
    for (const auto& row : bumps) {
        EXPECT_EQ(manager.bump(row.current, row.type), row.bumped) << row.current;
    }
    EXPECT_EQ(VersionManager::compareVersions("1.0", "1.0.0"), 0);
    EXPECT_EQ(VersionManager::compareVersions("1.10", "1.9"), 1);
    EXPECT_EQ(VersionManager::compareVersions("1.9", "1.10"), -1);
    EXPECT_STREQ(displayName(BumpType::minor), "Minor (+0.1.0)");
}

TEST(VersionValidation, RulesInOrder) {
    const VersionInfo published{"1.0", 12, "2.0", 9, 13};
    using Severity = VersionValidation::Severity;
    EXPECT_EQ(VersionValidation::evaluate("2.1", 9, published),
              (VersionValidation{Severity::blocker, "Sparkle Update Will Be Ignored",
                                 "Build 9 is ≤ highest known published build (9 (v2.0)). Sparkle "
                                 "clients already on build 9 will ignore this release. Set build "
                                 "to at least 10.",
                                 10, std::nullopt}));
    EXPECT_EQ(VersionValidation::evaluate("2.1", 3, {"1.0", 1, std::nullopt, 4, 5}).message,
              "Build 3 is ≤ highest known published build (4). Sparkle clients already on build "
              "4 will ignore this release. Set build to at least 5.");
    EXPECT_EQ(VersionValidation::evaluate("1.5", 10, published),
              (VersionValidation{Severity::warning, "Build Number Decreased",
                                 "Build 10 is lower than current Xcode project build (12). "
                                 "Recommended build: 12.",
                                 12, std::nullopt}));
    EXPECT_EQ(VersionValidation::evaluate("1.5", 12, published),
              (VersionValidation{Severity::warning, "Marketing Version Regression",
                                 "Target version v1.5 is lower than published v2.0. Sparkle will "
                                 "deliver it via Build 12, but users will see an older version "
                                 "string.",
                                 std::nullopt, std::nullopt}));
    EXPECT_EQ(VersionValidation::evaluate("", 12, published), VersionValidation{});
    EXPECT_EQ(VersionValidation::evaluate("2.0.0", 13, published), VersionValidation{});
}

} // namespace
} // namespace veltra
