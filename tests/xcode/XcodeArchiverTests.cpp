#include "AppleTools.h"
#include "core/support/FileUtilities.h"
#include "core/support/PropertyList.h"
#include "core/support/StopToken.h"
#include "core/support/VeltraError.h"
#include "core/xcode/XcodeArchiver.h"

#include <chrono>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

namespace veltra {
namespace {

using testing::writeFile;
namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// The milestones of output read in these chunks, assembled into lines as the runner does.
Lines milestonesOf(const std::vector<std::string>& chunks) {
    Lines lines;
    MilestoneTracker tracker([&lines](const std::string& line) { lines.push_back(line); });
    const std::function<void(std::string_view)> onLine = [&tracker](std::string_view line) {
        tracker.consume(line);
    };
    LineAssembler assembler(onLine);
    for (const auto& chunk : chunks) {
        assembler.consume(chunk);
    }
    assembler.finish();
    return lines;
}

TEST(MilestoneTracker, RealXcodeOutput) {
    const auto lines = milestonesOf(
        {"Command line invocation:\n    "
         "/Applications/Xcode.app/Contents/Developer/usr/bin/xcodebuild "
         "-project Acme.xcodeproj -scheme Acme archive\n\nResolve Package Graph\n\n",
         "SwiftCompile normal arm64 Compiling\\ AppDelegate.swift /src/Acme/AppDelegate.swift (in "
         "target 'Acme' from project 'Acme')\n    cd /src/Acme\n",
         "Ld /DerivedData/Acme normal arm64 (in target 'Acme' from project 'Acme')\n"
         "CodeSign /DerivedData/Applications/Acme.app (in target 'Acme' from project 'Acme')\n"
         "    Signing Identity:     \"Developer ID Application: Jane Doe (AB12CD34EF)\"\n"
         "/src/Acme/AppDelegate.swift:12:5: error: cannot find 'undefinedHelper' in scope\n"
         "** ARCHIVE SUCCEEDED **\n"});
    EXPECT_EQ(lines, (Lines{"   Resolving Swift Package dependencies...",
                            "   Compiling Swift sources for 'Acme'...",
                            "   Linking target 'Acme'...", "   Signing target 'Acme'...",
                            "   Error: /src/Acme/AppDelegate.swift:12:5: error: cannot find "
                            "'undefinedHelper' in scope"}));
}

TEST(MilestoneTracker, RepeatsCollapseUntilSomethingElseHappens) {
    std::vector<std::string> chunks;
    for (int i = 0; i < 10; ++i) {
        chunks.push_back("CompileSwift normal arm64 /src/F" + std::to_string(i) +
                         ".swift (in target 'Core' from project 'X')\n");
    }
    chunks.push_back("Ld /build/Core normal (in target 'Core' from project 'X')\n");
    chunks.push_back(
        "CompileSwift normal arm64 /src/G.swift (in target 'Core' from project 'X')\n");
    // Errors are never collapsed.
    chunks.push_back("ld: error: x\nld: error: x\n");
    EXPECT_EQ(milestonesOf(chunks),
              (Lines{"   Compiling Swift sources for 'Core'...", "   Linking target 'Core'...",
                     "   Compiling Swift sources for 'Core'...", "   Error: ld: error: x",
                     "   Error: ld: error: x"}));
}

TEST(MilestoneTracker, LinesWithoutATargetSayNothing) {
    EXPECT_EQ(milestonesOf({"CodeSign /path/App.app\n", "CompileSwiftSources normal arm64\n",
                            "Linking in target '' x\n", "=== BUILD TARGET  ===\n",
                            "=== BUILD TARGET Acme OF PROJECT Acme WITH CONFIGURATION Release ===",
                            "   \n\n",
                            "CodeSign /path/App.app (in target 'App' from project "
                            "'App')"}),
              (Lines{"   Building target 'Acme'...", "   Signing target 'App'..."}));
    // A line cut between two reads is read whole.
    EXPECT_EQ(milestonesOf({"Ld /x (in tar", "get 'A' from project 'B')\n"}),
              Lines{"   Linking target 'A'..."});
}

TEST(XcodeArchiverSummary, ErrorsAreCollectedCutAndCounted) {
    const std::string longLine = "/src/Long.swift:1:1: error: " + std::string(800, 'x');
    const auto summary = XcodeArchiver::failureSummary(
        "/src/A.swift:1:1: error: first\n" + longLine +
        "\r\n/src/A.swift:1:1: error: first\n  /src/B.swift:2:2: fatal error: third\n"
        "/src/C.swift:3:3: error: fourth\n/src/D.swift:4:4: error: fifth\n");
    EXPECT_EQ(summary, "Xcode archive failed:\n/src/A.swift:1:1: error: first\n" +
                           longLine.substr(0, 500) + "\n/src/B.swift:2:2: fatal error: third");
}

TEST(XcodeArchiverSummary, FallbacksInOrder) {
    EXPECT_EQ(XcodeArchiver::failureSummary(
                  "xcode-select: error: tool 'xcodebuild' requires Xcode, but active developer "
                  "directory '/Library/Developer/CommandLineTools' is a command line tools "
                  "instance\n/a.swift:1:1: error: x"),
              "Active developer directory is set to Command Line Tools instead of Xcode.app. Run "
              "in Terminal: sudo xcode-select -s /Applications/Xcode.app/Contents/Developer (or "
              "select Xcode in Xcode Settings ➔ Locations).");
    EXPECT_EQ(XcodeArchiver::failureSummary(
                  "noise\n  xcodebuild: error: The project named \"Acme\" does not contain a "
                  "scheme named \"Acmee\".\n"),
              "Xcode archive failed:\nxcodebuild: error: The project named \"Acme\" does not "
              "contain a scheme named \"Acmee\".");
    EXPECT_EQ(XcodeArchiver::failureSummary("error: No signing certificate found"),
              "Xcode archive failed. error: No signing certificate found");
    EXPECT_EQ(XcodeArchiver::failureSummary("Signing: CodeSign failed for Acme.app"),
              "Xcode archive failed. Signing: CodeSign failed for Acme.app");
    EXPECT_EQ(XcodeArchiver::failureSummary("** ARCHIVE FAILED **\n"),
              "Xcode archive failed. Open the build log for diagnostic details.");
    // Cutting counts characters, not bytes.
    const std::string wide = "error: " + std::string(300, 'x') + std::string(300, 'x');
    std::string accented = "error: ";
    for (int i = 0; i < 600; ++i) {
        accented += "\u00e9";
    }
    const auto cut = XcodeArchiver::failureSummary(accented);
    EXPECT_EQ(cut, "Xcode archive failed. error: " + accented.substr(7, 493 * 2));
}

TEST(XcodeArchiverArguments, OverridesOnlyWhenGiven) {
    XcodeProjectInfo project;
    project.projectPath = "/src/Acme.xcworkspace";
    project.isWorkspace = true;
    EXPECT_EQ(XcodeArchiver::archiveArguments(project, "Acme", "/tmp/b/Acme.xcarchive", "", 0),
              (Lines{"-workspace", "/src/Acme.xcworkspace", "-scheme", "Acme", "-configuration",
                     "Release", "-destination", "generic/platform=macOS", "-archivePath",
                     "/tmp/b/Acme.xcarchive", "archive", "CURRENT_PROJECT_VERSION=0",
                     "INFOPLIST_KEY_CFBundleVersion=0"}));
    // The scheme's own archive configuration, unless the profile chose another.
    project.schemeDetails.push_back(XcodeScheme{.name = "Acme", .archiveConfiguration = "Direct"});
    EXPECT_EQ(XcodeArchiver::archiveArguments(project, "Acme", "/a", "", std::nullopt)[5],
              "Direct");
    EXPECT_EQ(XcodeArchiver::archiveArguments(project, "Other", "/a", "", std::nullopt)[5],
              "Release");
    project.configurationOverride = "Release-AppStore";
    EXPECT_EQ(XcodeArchiver::archiveArguments(project, "Acme", "/a", "", std::nullopt)[5],
              "Release-AppStore");
    project.isWorkspace = false;
    const auto withVersion =
        XcodeArchiver::archiveArguments(project, "Acme", "/a", "1.2$1", std::nullopt);
    EXPECT_EQ(withVersion.front(), "-project");
    EXPECT_EQ(Lines(withVersion.end() - 2, withVersion.end()),
              (Lines{"MARKETING_VERSION=1.2$1", "INFOPLIST_KEY_CFBundleShortVersionString=1.2$1"}));
}

TEST(XcodeArchiverSigning, EveryBundleInsideOutItsExecutableWithIt) {
    testing::TempDir dir;
    const auto app = dir / "Acme.app";
    const std::string machO64("\xcf\xfa\xed\xfe\x0c\x00\x00\x01", 8);
    const auto bundle = [&](const fs::path& folder, const std::string& executable) {
        fs::create_directories(folder / "Contents/MacOS");
        writeFile(folder / "Contents/MacOS" / executable, machO64);
        writeFile(folder / "Contents/Info.plist",
                  "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>CFBundleExecutable"
                  "</key><string>" +
                      executable + "</string></dict></plist>");
    };
    bundle(app, "Acme");
    bundle(app / "Contents/PlugIns/Share.appex", "Share");
    bundle(app / "Contents/Library/LoginItems/Launcher.app", "Launcher");
    bundle(app / "Contents/XPCServices/Fetch.xpc", "Fetch");
    bundle(app / "Contents/Library/SystemExtensions/Net.systemextension", "Net");
    bundle(app / "Contents/PlugIns/Codec.plugin", "Codec");
    bundle(app / "Contents/Resources/Loader.bundle", "Loader");
    // A helper beside the main executable is loose code of its own.
    writeFile(app / "Contents/MacOS/helper", machO64);
    // A resource bundle holds no code.
    fs::create_directories(app / "Contents/Resources/Images.bundle");
    const auto frameworkBinary = app / "Contents/Frameworks/A.framework/Versions/A/A";
    fs::create_directories(frameworkBinary.parent_path());
    writeFile(frameworkBinary, machO64);
    writeFile(app / "Contents/Frameworks/libz.dylib", "not even a binary");
    writeFile(app / "Contents/Resources/short", "\xcf\xfa");
    fs::create_directory_symlink("A", app / "Contents/Frameworks/A.framework/Versions/Current");
    fs::create_symlink("Versions/Current/A", app / "Contents/Frameworks/A.framework/A");

    Lines relative;
    for (const auto& target : XcodeArchiver::signingTargets(app)) {
        relative.push_back(target == app ? "." : target.lexically_relative(app).string());
    }
    // Deepest first; at one depth loose files before bundles.
    EXPECT_EQ(relative,
              (Lines{"Contents/Library/SystemExtensions/Net.systemextension",
                     "Contents/Library/LoginItems/Launcher.app", "Contents/MacOS/helper",
                     "Contents/Frameworks/libz.dylib", "Contents/XPCServices/Fetch.xpc",
                     "Contents/Resources/Loader.bundle", "Contents/PlugIns/Share.appex",
                     "Contents/PlugIns/Codec.plugin", "Contents/Frameworks/A.framework", "."}));
}

class XcodeArchiverRun : public testing::AppleToolsTest {
protected:
    XcodeProjectInfo project() { return scratchProject(); }

    fs::path archive(const std::optional<std::string>& identity,
                     const std::optional<std::string>& version = std::nullopt,
                     std::optional<std::int64_t> build = std::nullopt, StopToken stop = {}) {
        return XcodeArchiver().archiveAndExport(
            project(), "Acme", identity, version, build,
            [this](const std::string& line) {
                const std::lock_guard guard(lock);
                log.push_back(line);
            },
            stop);
    }

    VeltraError failure(const std::optional<std::string>& identity = std::nullopt) {
        try {
            archive(identity);
        } catch (const VeltraError& error) {
            return error;
        }
        return {"none", 0, "no error"};
    }

    static void removeBuildFolder(const fs::path& app) {
        fs::remove_all(app.parent_path().parent_path());
    }

    // The build folders in this test's own temporary folder.
    std::vector<std::string> buildFolders() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(dir / "tmp")) {
            if (entry.path().filename().string().starts_with("veltra_build_")) {
                names.push_back(entry.path().filename().string());
            }
        }
        std::ranges::sort(names);
        return names;
    }

    std::mutex lock;
    Lines log;
    bool madeFolders = fs::create_directories(dir / "tmp") && fs::create_directories(dir / "home");
    testing::ScopedEnvironment temporary{"TMPDIR", (dir / "tmp").string()};
    testing::ScopedEnvironment home{"HOME", (dir / "home").string()};
};

TEST_F(XcodeArchiverRun, ReSignsEveryItemWithItsEntitlementsLessGetTaskAllow) {
    const auto app = archive("Developer ID Application: Jane Doe (AB12CD34EF)", "2.0", 42);
    const auto buildFolder = app.parent_path().parent_path();
    EXPECT_EQ(app, buildFolder / "ExportedApp" / "Acme.app");
    EXPECT_TRUE(buildFolder.filename().string().starts_with("veltra_build_"));
    EXPECT_TRUE(buildFolder.filename().string().starts_with("veltra_build_" +
                                                            std::to_string(::getpid()) + "-"));
    EXPECT_EQ(fs::status(buildFolder).permissions() & fs::perms::all, fs::perms::owner_all);
    EXPECT_TRUE(fs::is_symlink(app / "Contents/Frameworks/Helper.framework/Versions/Current"));

    const auto archives = runsOf("xcodebuild");
    ASSERT_EQ(archives.size(), 2u);
    const Lines configuration{"-configuration", "Release", "-destination",
                              "generic/platform=macOS"};
    EXPECT_EQ(Lines(archives[0].begin() + 4, archives[0].begin() + 8), configuration)
        << "the settings query reads what the archive builds";
    EXPECT_EQ(archives[1],
              (Lines{"-project", (dir / "Acme.xcodeproj").string(), "-scheme", "Acme",
                     "-configuration", "Release", "-destination", "generic/platform=macOS",
                     "-archivePath", (buildFolder / "Acme.xcarchive").string(), "archive",
                     "MARKETING_VERSION=2.0", "INFOPLIST_KEY_CFBundleShortVersionString=2.0",
                     "CURRENT_PROJECT_VERSION=42", "INFOPLIST_KEY_CFBundleVersion=42"}));
    Lines signedPaths;
    for (const auto& run : runsOf("codesign")) {
        if (run.front() != "--force") {
            continue;
        }
        EXPECT_EQ(Lines(run.begin(), run.begin() + 6),
                  (Lines{"--force", "--sign", "Developer ID Application: Jane Doe (AB12CD34EF)",
                         "--options", "runtime", "--timestamp"}));
        signedPaths.push_back(fs::path(run.back()).lexically_relative(app).string());
    }
    EXPECT_EQ(signedPaths,
              (Lines{"Contents/Library/LoginItems/Launcher.app",
                     "Contents/Frameworks/libextra.dylib", "Contents/XPCServices/Fetcher.xpc",
                     "Contents/PlugIns/Share.appex", "Contents/Frameworks/Helper.framework", "."}));
    // What each item ships with, read back from the signatures themselves.
    const auto carried = [&](const std::string& item) {
        return parsePropertyList(XcodeArchiver::readEntitlements(app / item, {}));
    };
    using Json = nlohmann::json;
    EXPECT_EQ(carried("."), (Json{{"com.apple.security.cs.allow-jit", true}}));
    EXPECT_EQ(carried("Contents/PlugIns/Share.appex"),
              (Json{{"com.apple.security.app-sandbox", true},
                    {"com.apple.security.network.client", true}}));
    EXPECT_EQ(carried("Contents/Library/LoginItems/Launcher.app"),
              (Json{{"com.apple.security.app-sandbox", true}}));
    EXPECT_EQ(carried("Contents/XPCServices/Fetcher.xpc"),
              (Json{{"com.apple.security.network.client", true}}));
    EXPECT_TRUE(
        XcodeArchiver::readEntitlements(app / "Contents/Frameworks/Helper.framework", {}).empty());
    EXPECT_NE(std::ranges::find(log, "   Info: Removed the development entitlement "
                                     "com.apple.security.get-task-allow (the notary service "
                                     "refuses it)"),
              log.end());
    EXPECT_NE(std::ranges::find(log, "   Signed Acme.app/Contents/PlugIns/Share.appex (2 "
                                     "entitlements)"),
              log.end());
    EXPECT_EQ(log.back(), "   Success: Code signature applied successfully");
    // The entitlements files were private and are gone.
    for (const auto& entry : fs::directory_iterator(dir / "tmp")) {
        EXPECT_FALSE(entry.path().filename().string().starts_with("veltra_entitlements"));
    }
    removeBuildFolder(app);
}

TEST_F(XcodeArchiverRun, ProjectEntitlementsAndTheSchemesConfiguration) {
    fs::create_directories(dir / "Acme");
    writeFile(dir / "Acme/Acme.entitlements",
              "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
              "<key>com.apple.security.app-sandbox</key><true/>"
              "<key>com.apple.security.application-groups</key><array><string>AB12CD34EF.acme"
              "</string></array></dict></plist>");
    auto project = scratchProject();
    project.schemeDetails.push_back(
        XcodeScheme{.name = "Acme", .archiveConfiguration = "Release-Direct"});
    const auto app = XcodeArchiver().archiveAndExport(
        project, "Acme", "Developer ID Application: Jane Doe (AB12CD34EF)", std::nullopt,
        std::nullopt, nullptr, {});
    EXPECT_EQ(parsePropertyList(XcodeArchiver::readEntitlements(app, {})),
              (nlohmann::json{{"com.apple.security.app-sandbox", true},
                              {"com.apple.security.application-groups", {"AB12CD34EF.acme"}}}));
    for (const auto& run : runsOf("xcodebuild")) {
        ASSERT_GE(run.size(), 6u);
        EXPECT_EQ(run[4], "-configuration");
        EXPECT_EQ(run[5], "Release-Direct");
    }
    removeBuildFolder(app);
}

TEST_F(XcodeArchiverRun, ACodesignFailureOrLostEntitlementsStopTheArchive) {
    const auto foldersBefore = buildFolders();
    fake("VELTRA_FAKE_CODESIGN_FAIL", "Share.appex");
    auto error = failure("Developer ID Application: Jane Doe (AB12CD34EF)");
    EXPECT_TRUE(error.message().starts_with(
        "Code signing failed for Acme.app/Contents/PlugIns/Share.appex: "))
        << error.message();
    EXPECT_TRUE(error.message().ends_with("Share.appex: errSecInternalComponent"))
        << error.message();
    fake("VELTRA_FAKE_CODESIGN_FAIL", "");

    // A codesign that signs but keeps nothing of what it was given.
    fake("VELTRA_FAKE_CODESIGN", "drop-entitlements");
    error = failure("Developer ID Application: Jane Doe (AB12CD34EF)");
    EXPECT_EQ(error.message(),
              "The re-signed Acme.app/Contents/Library/LoginItems/Launcher.app does not carry "
              "the entitlements it was signed with (com.apple.security.app-sandbox).");
    EXPECT_EQ(buildFolders(), foldersBefore) << "a failed signing leaves no build folder";
}

TEST_F(XcodeArchiverRun, WithoutAnIdentityXcodesSignatureStays) {
    const auto app = archive(std::string());
    EXPECT_TRUE(runsOf("codesign").empty());
    EXPECT_EQ(log.back(), "   Success: Extracted Acme.app...");
    // No overrides were asked for.
    EXPECT_EQ(runsOf("xcodebuild")[1].back(), "archive");
    removeBuildFolder(app);
}

// xcodebuild's lines reach the tracker whole wherever the reads split them.
TEST_F(XcodeArchiverRun, EveryLineSplitAtEveryByteReadsTheSame) {
    for (const auto* scenario : {"", "compile-error"}) {
        SCOPED_TRACE(scenario);
        fake("VELTRA_FAKE_ARCHIVE", scenario);
        const auto output =
            ProcessRunner::run("xcodebuild",
                               XcodeArchiver::archiveArguments(project(), "Acme",
                                                               dir / "split.xcarchive", "2.0", 7))
                .output;
        const auto whole = milestonesOf({output});
        ASSERT_GE(whole.size(), 3u);
        for (std::size_t at = 0; at <= output.size(); ++at) {
            ASSERT_EQ(milestonesOf({output.substr(0, at), output.substr(at)}), whole) << at;
        }
    }
}

TEST_F(XcodeArchiverRun, CompileErrorWritesTheLogAndSummarises) {
    fake("VELTRA_FAKE_ARCHIVE", "compile-error");
    const auto error = failure();
    EXPECT_EQ(error.code(), 500);
    const std::string message = error.message();
    const std::string summary = "Xcode archive failed:\n/Users/jane/src/Acme/Acme/"
                                "AppDelegate.swift:12:5: error: cannot find 'undefinedHelper' in "
                                "scope\nFull build log: ";
    ASSERT_TRUE(message.starts_with(summary)) << message;
    const fs::path logFile = message.substr(summary.size());
    // Kept privately with Veltra's logs; the build folder itself is gone.
    EXPECT_EQ(logFile.parent_path(), dir / "home" / ".veltra" / "logs");
    EXPECT_TRUE(logFile.filename().string().starts_with("xcodebuild-error-")) << logFile;
    EXPECT_EQ(fs::status(logFile).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    const auto full = readFile(logFile);
    EXPECT_NE(full.find("** ARCHIVE FAILED **"), std::string::npos);
    EXPECT_TRUE(full.ends_with("(1 failure)\n\n")) << "stdout, a line break, then stderr";
    EXPECT_NE(std::find(log.begin(), log.end(),
                        "   Error: /Users/jane/src/Acme/Acme/AppDelegate.swift:12:5: error: cannot "
                        "find 'undefinedHelper' in scope"),
              log.end());
}

TEST_F(XcodeArchiverRun, OtherArchiveFailures) {
    const auto foldersBefore = buildFolders();
    {
        fake("VELTRA_FAKE_ARCHIVE", "codesign-error");
        const auto error = failure();
        EXPECT_TRUE(std::string(error.message())
                        .starts_with("Xcode archive failed. Command CodeSign failed with a "
                                     "nonzero exit code\nFull build log: "))
            << error.message();
    }
    {
        fake("VELTRA_FAKE_ARCHIVE", "no-archive");
        const auto error = failure();
        EXPECT_EQ(error.code(), 500);
    }
    {
        fake("VELTRA_FAKE_ARCHIVE", "no-app");
        const auto error = failure();
        EXPECT_EQ(error.code(), 404);
        EXPECT_TRUE(
            std::string(error.message()).starts_with("Could not find built .app in archive at "));
        EXPECT_TRUE(
            std::string(error.message()).ends_with("/Acme.xcarchive/Products/Applications"));
    }
    EXPECT_EQ(buildFolders(), foldersBefore) << "failed archives leave no build folder";
}

TEST_F(XcodeArchiverRun, InfoPlistProblemStopsBeforeAnyBuild) {
    fake("VELTRA_FAKE_INFOPLIST_FILE", "$(SRCROOT)/Acme/Info.plist");
    const auto error = failure();
    EXPECT_EQ(error.message(), "Release target 'Acme' has an unresolved INFOPLIST_FILE: "
                               "'$(SRCROOT)/Acme/Info.plist'. Fix its build-setting variables, "
                               "then retry.");
    EXPECT_EQ(runsOf("xcodebuild").size(), 1u) << "only the settings query";
    EXPECT_EQ(log, Lines{"   Checking Release Info.plist paths..."});
}

TEST_F(XcodeArchiverRun, CancellingKillsXcodebuild) {
    fake("VELTRA_FAKE_ARCHIVE_DELAY", "60");
    StopSource stop;
    JThread canceller([&stop] {
        std::this_thread::sleep_for(std::chrono::milliseconds(700));
        stop.request_stop();
    });
    const auto started = std::chrono::steady_clock::now();
    EXPECT_THROW(archive(std::nullopt, std::nullopt, std::nullopt, stop.get_token()),
                 CancellationError);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
    EXPECT_TRUE(buildFolders().empty()) << "a cancelled archive leaves no build folder";

    StopSource already;
    already.request_stop();
    log.clear();
    EXPECT_THROW(archive(std::nullopt, std::nullopt, std::nullopt, already.get_token()),
                 CancellationError);
    EXPECT_TRUE(log.empty());
}

} // namespace
} // namespace veltra
