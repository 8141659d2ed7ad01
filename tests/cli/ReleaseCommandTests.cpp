#include "GitFixture.h"
#include "TestSupport.h"
#include "VeltraRun.h"
#include "core/demo/DemoSandbox.h"
#include "core/dmg/HFSPlusVolume.h"
#include "core/dmg/UDIFImage.h"
#include "core/feed/SparkleFeedParser.h"
#include "core/profile/ProjectProfile.h"
#include "core/publishing/WebDeployer.h"
#include "core/support/FileUtilities.h"
#include "core/support/JsonReader.h"
#include "core/support/Text.h"

#include <map>
#include <set>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace veltra {
namespace {

namespace fs = std::filesystem;

class ReleaseCommandTest : public ::testing::Test {
protected:
    ReleaseCommandTest() {
        fs::create_directories(dir / "tmp");
        fs::create_directories(app / "Contents" / "MacOS");
        testing::writeFile(
            app / "Contents" / "Info.plist",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
            "<key>CFBundleIdentifier</key><string>com.example.acme</string>"
            "<key>CFBundleShortVersionString</key><string>2.0.1</string>"
            "<key>CFBundleVersion</key><string>57</string>"
            "</dict></plist>\n");
        testing::writeFile(app / "Contents" / "MacOS" / "Acme", "binary");
        EXPECT_EQ(veltra({"profile", "create", "Acme", "--bundle-id", "com.example.acme",
                          "--output", (dir / "out").string()})
                      .exitCode,
                  0);
    }

    ProcessResult veltra(std::vector<std::string> arguments) {
        return testing::runVeltra(
            std::move(arguments),
            {{"VELTRA_PROFILES", (dir / "profiles.json").string()},
             {"HOME", dir.path().string()},
             {"TMPDIR", (dir / "tmp").string()},
             {"VELTRA_TOOL_PATH", VELTRA_TOOLS_DIR},
             {"PATH", std::string(VELTRA_TOOLS_DIR) + ":" + std::getenv("PATH")}});
    }

    testing::TempDir dir;
    fs::path app = dir / "Acme.app";
};

TEST_F(ReleaseCommandTest, ShipsABuiltAppAndRecordsTheRelease) {
    testing::writeFile(dir / "notes.md", "- Faster sync.");
    const auto run =
        veltra({"release", "Acme", "--app", app.string(), "--notes", (dir / "notes.md").string()});
    ASSERT_EQ(run.exitCode, 0) << run.output << run.errorOutput;
    // Piped output: one line per step change, then the log as it comes.
    EXPECT_NE(run.output.find("\xE2\x9C\x93 Build Styled Retina DMG: "), std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("Releasing Acme (Build 57)\n"), std::string::npos);
    const auto image = dir / "out" / "Acme-2.0.1.dmg";
    EXPECT_NE(run.output.find("DMG:   " + image.string() + "\n"), std::string::npos);
    EXPECT_TRUE(fs::is_regular_file(image));
    EXPECT_EQ(readFile(dir / "out" / "Acme-2.0.1.md"), "- Faster sync.");
    // The last line names the whole log: private, with Veltra's others.
    const auto named = run.output.rfind("Full log: ");
    ASSERT_NE(named, std::string::npos) << run.output;
    const fs::path logFile = run.output.substr(named + 10, run.output.size() - named - 11);
    EXPECT_EQ(logFile.parent_path(), dir / ".veltra" / "logs");
    EXPECT_NE(readFile(logFile).find("Releasing Acme (Build 57)\n"), std::string::npos);
    EXPECT_EQ(fs::status(logFile).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(fs::status(logFile.parent_path()).permissions(), fs::perms::owner_all);

    // The profile store heard of the release before the command ended.
    const auto shown = veltra({"profile", "show", "Acme", "--json"});
    ASSERT_EQ(shown.exitCode, 0) << shown.errorOutput;
    const auto profile = nlohmann::json::parse(shown.output);
    ASSERT_EQ(profile["recentReleases"].size(), 1u) << shown.output;
    EXPECT_EQ(profile["recentReleases"][0]["version"], "2.0.1");
}

// --quiet: the result and the log's path, and what went wrong, nothing else.
TEST_F(ReleaseCommandTest, QuietSaysTheResultAndTheErrorsOnly) {
    const auto run = veltra({"release", "Acme", "--app", app.string(), "--quiet"});
    ASSERT_EQ(run.exitCode, 0) << run.output << run.errorOutput;
    const auto image = dir / "out" / "Acme-2.0.1.dmg";
    EXPECT_TRUE(run.output.starts_with("Released Acme 2.0.1 (build 57): " + image.string() +
                                       "\nFull log: "))
        << run.output;
    EXPECT_EQ(std::count(run.output.begin(), run.output.end(), '\n'), 2);

    // An app that says nothing of itself fails: the error, and no other line of the run.
    testing::writeFile(app / "Contents" / "Info.plist",
                       "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist "
                       "version=\"1.0\"><dict></dict></plist>\n");
    const auto failed = veltra({"release", "Acme", "--app", app.string(), "--quiet"});
    EXPECT_EQ(failed.exitCode, 1);
    EXPECT_TRUE(failed.output.starts_with("Error: The app Acme.app has no "
                                          "CFBundleShortVersionString (its version) in its "
                                          "Info.plist.\nFull log: "))
        << failed.output;
    EXPECT_EQ(failed.output.find("Releasing"), std::string::npos) << failed.output;
    EXPECT_NE(failed.output.find("Full log: "), std::string::npos);
}

// --verbose: each tool's command line and what it printed, among the log lines.
TEST_F(ReleaseCommandTest, VerboseShowsEachToolAndWhatItPrinted) {
    const auto run = veltra({"release", "Acme", "--app", app.string(), "--verbose"});
    ASSERT_EQ(run.exitCode, 0) << run.output << run.errorOutput;
    EXPECT_NE(run.output.find("\n$ hdiutil create "), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("\n  | "), std::string::npos);
    const auto plain = veltra({"release", "Acme", "--app", app.string()});
    EXPECT_EQ(plain.output.find("\n$ hdiutil"), std::string::npos);
    EXPECT_EQ(veltra({"release", "Acme", "--quiet", "--verbose"}).exitCode, 2);
}

TEST_F(ReleaseCommandTest, JsonLinesEndWithTheManifestOrTheError) {
    const auto run = veltra({"release", "Acme", "--app", app.string(), "--json"});
    ASSERT_EQ(run.exitCode, 0) << run.errorOutput;
    std::vector<nlohmann::json> lines;
    std::istringstream stream(run.output);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(nlohmann::json::parse(line));
    }
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines.back()["type"], "manifest");
    EXPECT_EQ(lines[lines.size() - 2]["type"], "logFile");
    EXPECT_TRUE(fs::is_regular_file(lines[lines.size() - 2]["path"].get<std::string>()));
    EXPECT_EQ(lines.back()["manifest"]["buildNumber"], "57");
    EXPECT_EQ(lines.back()["manifest"]["sha256Checksum"].get<std::string>().size(), 64u);
    EXPECT_EQ(lines.back()["manifest"]["dryRun"], false);
    EXPECT_EQ(lines.back()["manifest"]["resumed"], false);
    // ISO 8601 UTC, as every date in JSON output.
    EXPECT_EQ(lines.back()["manifest"]["releaseDate"].get<std::string>().size(), 20u);
    EXPECT_TRUE(lines.back()["manifest"]["releaseDate"].get<std::string>().ends_with("Z"));
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const auto& line) {
        return line["type"] == "step" && line["id"] == "dmg" && line["status"] == "Succeeded";
    }));

    const auto broken = veltra({"release", "Acme", "--app", (dir / "Gone.app").string(), "--json"});
    EXPECT_EQ(broken.exitCode, 1);
    const auto last = broken.output.substr(broken.output.rfind('\n', broken.output.size() - 2) + 1);
    const auto error = nlohmann::json::parse(last);
    EXPECT_EQ(error["type"], "error");
    EXPECT_FALSE(error["message"].get<std::string>().empty());

    const auto resumed = veltra({"release", "Acme", "--resume", "--build", "58"});
    EXPECT_EQ(resumed.exitCode, 1);
    EXPECT_NE(resumed.errorOutput.find("--resume continues the stopped release as it was"),
              std::string::npos);
    const auto nothing = veltra({"release", "Acme", "--resume"});
    EXPECT_EQ(nothing.exitCode, 1);
    EXPECT_NE(nothing.output.find("Error: Only a release built from the project can be "
                                  "resumed; ship the app again instead.\n"),
              std::string::npos)
        << nothing.output;

    const auto mixed = veltra({"release", "Acme", "--app", app.string(), "--build", "58"});
    EXPECT_EQ(mixed.exitCode, 1);
    EXPECT_NE(mixed.errorOutput.find("an app given with --app is shipped as it is"),
              std::string::npos)
        << mixed.errorOutput;
}

// The demo finds its sample and the stand-ins by itself and ends only once the local site
// serves the release; the user's own profiles are never touched.
TEST(DemoCommand, ReleasesTheSampleUntilTheLocalSiteServesIt) {
    testing::TempDir dir;
    fs::create_directories(dir / "tmp");
    const std::map<std::string, std::string> environment{{"HOME", dir.path().string()},
                                                         {"TMPDIR", (dir / "tmp").string()},
                                                         {"VELTRA_TOOL_PATH", ""}};
    const auto sandbox = dir / "sandbox";
    const auto run = testing::runVeltra({"demo", "--keep", sandbox.string()}, environment);
    ASSERT_EQ(run.exitCode, 0) << run.output << run.errorOutput;
    EXPECT_TRUE(run.output.starts_with("Demo: this machine has no Xcode, so Apple's tools are "
                                       "Veltra's stand-ins from "))
        << run.output;
    EXPECT_NE(run.output.find("\nSuccess: Live appcast.xml and DMG verified\n"), std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("  DMG:      " + (sandbox / "releases" / "Sample-1.0.dmg").string()),
              std::string::npos);
    EXPECT_EQ(readFile(sandbox / "live-site" / "downloads" / "Sample.dmg"),
              readFile(sandbox / "releases" / "Sample-1.0.dmg"));
    // A real image, made without hdiutil, said once.
    const auto said = std::string("Veltra writes the HFS+ volume and the UDZO image itself.");
    const auto first = run.output.find(said);
    EXPECT_NE(first, std::string::npos) << run.output;
    EXPECT_EQ(run.output.find(said, first + 1), std::string::npos);
    const UDIFImage image(sandbox / "releases" / "Sample-1.0.dmg");
    image.verify();
    const HFSPlusVolume volume([&](std::uint64_t offset, std::size_t length) {
        return image.read(image.partitions().front(), offset, length);
    });
    std::vector<std::string> top;
    for (const auto& entry : volume.list()) {
        top.push_back(entry.name);
    }
    EXPECT_EQ(top,
              (std::vector<std::string>{".background", ".DS_Store", "Applications", "Sample.app"}));
    const auto profiles = nlohmann::json::parse(readFile(sandbox / "profiles.json"));
    const auto& releases = profiles[0]["recentReleases"];
    ASSERT_EQ(releases.size(), 1u) << profiles.dump(2);
    EXPECT_EQ(releases[0]["websitePublication"]["state"], "live");
    EXPECT_FALSE(fs::exists(dir / ".veltra"));

    const auto again = testing::runVeltra({"demo", "--keep", sandbox.string()}, environment);
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_NE(again.errorOutput.find("is not empty. Choose a new or empty folder."),
              std::string::npos)
        << again.errorOutput;

    // The kept sandbox lives on: its site served again on its address, one command releases.
    EXPECT_NE(run.output.find("  Serve its site again: veltra demo --serve " + sandbox.string()),
              std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("  Then release it again: " + (sandbox / "veltra").string() +
                              " release Sample"),
              std::string::npos);
    {
        const auto server = DemoSandbox::serveAgain(sandbox);
        ProcessRequest release;
        release.command = (sandbox / "veltra").string();
        release.arguments = {"release", "Sample", "--build", "3"};
        release.environment = {{"HOME", dir.path().string()}, {"TMPDIR", (dir / "tmp").string()}};
        const auto second = ProcessRunner::run(release);
        ASSERT_EQ(second.exitCode, 0) << second.output << second.errorOutput;
        EXPECT_EQ(
            SparkleFeedParser::parse(readFile(sandbox / "live-site" / "downloads" / "appcast.xml"))
                ->front()
                .version,
            "3");
    }
    // The command serves until stopped; the address is the profile's.
    const auto serving = testing::runVeltraStoppedAt({"demo", "--serve", sandbox.string()},
                                                     environment, "stop with Ctrl-C", SIGINT);
    EXPECT_EQ(serving.exitCode, 0) << serving.output;
    EXPECT_NE(
        serving.output.find(nlohmann::json(profiles[0]["webDeploy"]["siteURL"]).get<std::string>()),
        std::string::npos)
        << serving.output;
}

} // namespace
} // namespace veltra

namespace veltra {
namespace {

TEST(DoctorCommand, OneLinePerCheckAndExitStatusThreeOnAProblem) {
    testing::TempDir dir;
    std::map<std::string, std::string> environment{{"HOME", dir.path().string()},
                                                   {"VELTRA_TOOL_PATH", VELTRA_TOOLS_DIR},
                                                   {"VELTRA_TOOL_LOG", ""}};
    const auto fine = testing::runVeltra({"doctor", "--json"}, environment);
    ASSERT_EQ(fine.exitCode, 0) << fine.output << fine.errorOutput;
    const auto report = nlohmann::json::parse(fine.output);
    EXPECT_EQ(report["problems"], 0);
    std::vector<std::string> checks;
    for (const auto& check : report["checks"]) {
        checks.push_back(check["check"].get<std::string>() + ":" +
                         check["verdict"].get<std::string>());
    }
    EXPECT_EQ(checks,
              (std::vector<std::string>{"Xcode:ok", "Signing:ok", "Certificate:ok", "GitHub:ok"}));

    environment["VELTRA_FAKE_XCODE"] = "license";
    const auto broken = testing::runVeltra({"doctor"}, environment);
    EXPECT_EQ(broken.exitCode, 3) << "a check said no";
    EXPECT_TRUE(broken.output.starts_with("problem  Xcode          xcodebuild does not run: You "
                                          "have not agreed to the Xcode license agreements"))
        << broken.output;
    EXPECT_NE(broken.output.find("\n                        \xE2\x86\x92 Accept the license: "
                                 "sudo xcodebuild -license accept\n"),
              std::string::npos)
        << broken.output;
    EXPECT_TRUE(broken.output.ends_with("\n1 problem found.\n"));
}

// After the push, the command follows the live site as the demo does: the outcome is in its
// output and in the profile.
TEST(ReleaseCommandWait, FollowsTheLiveSiteUntilItServesTheRelease) {
    testing::TempDir dir;
    // The sandbox's site is served by this process while the command runs.
    DemoSandbox sandbox(dir / "sandbox", fs::path(VELTRA_SOURCE_DIR) / "share/demo/Sample");
    const auto profiles = dir / "profiles.json";
    testing::writeFile(profiles, dumpJson(profilesToJson({sandbox.profile()})));
    fs::create_directories(dir / "tmp");
    const std::map<std::string, std::string> environment{
        {"VELTRA_PROFILES", profiles.string()},
        {"HOME", dir.path().string()},
        {"TMPDIR", (dir / "tmp").string()},
        {"PATH", std::string(VELTRA_TOOLS_DIR) + ":" + std::getenv("PATH")}};

    const auto run = testing::runVeltra(
        {"release", "Sample", "--build", "2", "--wait", "2m", "--json"}, environment);
    ASSERT_EQ(run.exitCode, 0) << run.output << run.errorOutput;
    EXPECT_NE(run.output.find("Success: Live appcast.xml and DMG verified"), std::string::npos);
    const auto last = nlohmann::json::parse(run.output.substr(run.output.rfind("\n{") + 1));
    EXPECT_EQ(last["type"], "manifest");
    EXPECT_EQ(last["manifest"]["websitePublication"]["state"], "live");
    const auto stored = nlohmann::json::parse(readFile(profiles));
    EXPECT_EQ(stored[0]["recentReleases"][0]["websitePublication"]["state"], "live");

    // Off a terminal it does not wait unless asked.
    const auto unwatched = testing::runVeltra({"release", "Sample", "--build", "3"}, environment);
    ASSERT_EQ(unwatched.exitCode, 0) << unwatched.output << unwatched.errorOutput;
    EXPECT_EQ(unwatched.output.find("Checking that the live site serves"), std::string::npos);

    const auto bad = testing::runVeltra({"release", "Sample", "--wait", "soon"}, environment);
    EXPECT_EQ(bad.exitCode, 2);
    EXPECT_NE(bad.errorOutput.find("'soon' is not a duration such as 10m, 90s or 1h"),
              std::string::npos)
        << bad.errorOutput;
}

// Over releases that mix the feed's controls, a promote, a withdraw and retention, every item
// the live feed offers stays installable: its own download with its length and signature, its
// own notes; and a feed an older layout wrote (items naming the stable file) migrates.
TEST(FeedLifecycle, EveryOfferedItemStaysInstallable) {
    testing::TempDir dir;
    DemoSandbox sandbox(dir / "sandbox", fs::path(VELTRA_SOURCE_DIR) / "share/demo/Sample");
    const auto profiles = dir / "profiles.json";
    auto profile = sandbox.profile();
    profile.sparkle.keepReleases = 4;
    testing::writeFile(profiles, dumpJson(profilesToJson({profile})));
    fs::create_directories(dir / "tmp");
    const std::map<std::string, std::string> environment{
        {"VELTRA_PROFILES", profiles.string()},
        {"HOME", dir.path().string()},
        {"TMPDIR", (dir / "tmp").string()},
        {"PATH", std::string(VELTRA_TOOLS_DIR) + ":" + std::getenv("PATH")}};
    const auto veltra = [&](std::vector<std::string> arguments) {
        auto result = testing::runVeltra(std::move(arguments), environment);
        EXPECT_EQ(result.exitCode, 0) << result.output << result.errorOutput;
        return result;
    };
    const auto served = sandbox.served() / "downloads";
    const auto liveItems = [&] {
        return SparkleFeedParser::parse(readFile(served / "appcast.xml")).value();
    };
    // What a Mac offered any item would get, checked over HTTP against the app's key.
    const auto everyItemInstalls = [&](const std::vector<std::string>& builds) {
        const auto items = liveItems();
        std::vector<std::string> listed;
        for (const auto& item : items) {
            listed.push_back(item.version);
            EXPECT_EQ(WebDeployer().itemProblem(item, sandbox.publicKey()), std::nullopt);
            const auto notes =
                WebDeployer::siteFileOf(ReleasePublishingPlan::publicAddresses(profile),
                                        profile.webDeploy, item.releaseNotesURL);
            ASSERT_TRUE(notes) << item.releaseNotesURL;
            EXPECT_NE(readFile(sandbox.served() / *notes).find(item.shortVersion),
                      std::string::npos);
        }
        EXPECT_EQ(listed, builds);
        // The download page's stable file is the newest release's image.
        const auto newest = WebDeployer::siteFileOf(ReleasePublishingPlan::publicAddresses(profile),
                                                    profile.webDeploy, items.front().enclosureURL);
        EXPECT_EQ(readFile(served / "Sample.dmg"), readFile(sandbox.served() / *newest));
        // Nothing left behind in the website repository, nothing unpushed.
        EXPECT_EQ(testing::git(sandbox.website(), {"status", "--porcelain"}), "");
        EXPECT_EQ(testing::git(sandbox.website(), {"rev-list", "origin/main..main"}), "");
    };

    veltra({"release", "Sample", "--build", "2", "--version", "1.0"});
    everyItemInstalls({"2"});
    // The layout an older Veltra wrote: the item names the stable file, and only that exists.
    {
        const auto feed = sandbox.website() / "downloads" / "appcast.xml";
        auto text = readFile(feed);
        const auto own = sandbox.siteURL() + "downloads/Sample-1.0.dmg";
        text.replace(text.find(own), own.size(), sandbox.siteURL() + "downloads/Sample.dmg");
        writeFileAtomically(feed, text);
        fs::remove(sandbox.website() / "downloads" / "Sample-1.0.dmg");
        testing::git(sandbox.website(), {"commit", "--quiet", "-am", "Older layout"});
        testing::git(sandbox.website(), {"push", "--quiet", "origin", "main"});
    }
    const auto beta =
        veltra({"release", "Sample", "--build", "3", "--version", "1.1", "--channel", "beta"});
    EXPECT_NE(beta.output.find("Gave build 2 its own download"), std::string::npos) << beta.output;
    everyItemInstalls({"3", "2"});
    EXPECT_EQ(liveItems()[0].controls.channel, "beta");

    veltra({"release", "Sample", "--build", "4", "--version", "1.2", "--critical"});
    veltra({"release", "Sample", "--build", "5", "--version", "1.3", "--phased-rollout", "1d",
            "--minimum-autoupdate", "3"});
    everyItemInstalls({"5", "4", "3", "2"});
    EXPECT_TRUE(liveItems()[1].controls.critical);
    EXPECT_EQ(liveItems()[0].controls.phasedRolloutSeconds, 86400);
    EXPECT_EQ(liveItems()[0].controls.minimumAutoupdateVersion, "3");

    const auto promoted = veltra({"website", "promote", "Sample", "--build", "3", "--wait", "2m"});
    EXPECT_NE(promoted.output.find("Success: The live feed shows the change."), std::string::npos)
        << promoted.output;
    EXPECT_NE(promoted.output.find("Build 3 (1.1) is offered to everyone now"), std::string::npos)
        << promoted.output;
    EXPECT_EQ(liveItems()[2].controls.channel, "");
    // Retention (4): build 2 leaves the feed, and its own image and notes the site.
    veltra({"release", "Sample", "--build", "6", "--version", "1.4"});
    everyItemInstalls({"6", "5", "4", "3"});
    EXPECT_FALSE(fs::exists(served / "Sample-1.0.dmg"));
    EXPECT_FALSE(fs::exists(served / "Sample-1.0.md"));

    veltra({"website", "withdraw", "Sample", "--build", "6", "--delete-files", "--no-wait"});
    EXPECT_FALSE(fs::exists(served / "Sample-1.4.dmg"));
    // The stable file stays for the download page even when its release is withdrawn.
    EXPECT_TRUE(fs::exists(served / "Sample.dmg"));
    const auto releases = veltra({"releases", "Sample"});
    EXPECT_NE(releases.output.find("withdrawn"), std::string::npos) << releases.output;
    EXPECT_NE(releases.output.find("phased rollout 1d"), std::string::npos) << releases.output;

    veltra({"release", "Sample", "--build", "7", "--version", "1.5"});
    everyItemInstalls({"7", "5", "4", "3"});
    const auto checked = veltra({"website", "check", "Sample", "--all"});
    EXPECT_NE(checked.output.find("Every checked item of Sample's live feed installs."),
              std::string::npos)
        << checked.output;

    // Same length, other bytes: the check downloads and verifies, so it is caught.
    const auto older = served / "Sample-1.2.dmg";
    auto bytes = readFile(older);
    bytes[bytes.size() / 2] = static_cast<char>(bytes[bytes.size() / 2] ^ 1);
    writeFileAtomically(older, bytes);
    const auto tampered = testing::runVeltra({"website", "check", "Sample", "--all"}, environment);
    EXPECT_EQ(tampered.exitCode, 1);
    EXPECT_NE(tampered.output.find("Broken: build 4 (1.2): the download of build 4"),
              std::string::npos)
        << tampered.output;
    EXPECT_NE(tampered.output.find("veltra website withdraw Sample --build 4"), std::string::npos);
    // Without --all the newest release is checked the same way: its length alone is not enough.
    const auto newest = served / "Sample-1.5.dmg";
    bytes = readFile(newest);
    bytes[bytes.size() / 3] = static_cast<char>(bytes[bytes.size() / 3] ^ 1);
    writeFileAtomically(newest, bytes);
    const auto single = testing::runVeltra({"website", "check", "Sample"}, environment);
    EXPECT_EQ(single.exitCode, 1);
    EXPECT_NE(single.output.find("does not carry the feed's signature"), std::string::npos)
        << single.output;
    // The doctor asks each item's download for its length and names the ones gone.
    fs::remove(served / "Sample-1.1.dmg");
    const auto doctor = testing::runVeltra({"doctor", "Sample"}, environment);
    EXPECT_NE(doctor.output.find("Items no Mac can install: build 3 (HTTP 404)"), std::string::npos)
        << doctor.output;
    EXPECT_NE(doctor.output.find("veltra website withdraw Sample --build 3"), std::string::npos);
}

// A stop takes one orderly path, whenever it comes: before the push the run is kept for
// --resume (exit 130, "cancelled", the full log); after the push the release is out and recorded
// and only the live wait ends (exit 0).
TEST(ReleaseCommandStop, BeforeThePushItResumesAfterItTheReleaseStands) {
    testing::TempDir dir;
    DemoSandbox sandbox(dir / "sandbox", fs::path(VELTRA_SOURCE_DIR) / "share/demo/Sample");
    const auto profiles = dir / "profiles.json";
    testing::writeFile(profiles, dumpJson(profilesToJson({sandbox.profile()})));
    fs::create_directories(dir / "tmp");
    std::map<std::string, std::string> environment{
        {"VELTRA_PROFILES", profiles.string()},
        {"HOME", dir.path().string()},
        {"TMPDIR", (dir / "tmp").string()},
        {"VELTRA_FAKE_ARCHIVE_DELAY", "5"},
        {"PATH", std::string(VELTRA_TOOLS_DIR) + ":" + std::getenv("PATH")}};

    // A stopped run's build is not used up: the next release of the version takes it.
    const auto first = testing::runVeltraStoppedAt({"release", "Sample", "--no-wait"}, environment,
                                                   "Compiling", SIGINT);
    ASSERT_EQ(first.exitCode, 130) << first.output;
    const auto at = first.output.find("(Build ") + 7;
    const auto taken = first.output.substr(at, first.output.find(')', at) - at);
    environment.erase("VELTRA_FAKE_ARCHIVE_DELAY");
    const auto next = testing::runVeltra({"release", "Sample", "--no-wait"}, environment);
    ASSERT_EQ(next.exitCode, 0) << next.output << next.errorOutput;
    EXPECT_NE(next.output.find("Releasing Sample (Build " + taken + ")"), std::string::npos)
        << next.output;
    EXPECT_NE(next.output.find("Info: Discarding the stopped release of v1.0 (build " + taken +
                               "); this release takes its build."),
              std::string::npos)
        << next.output;
    environment["VELTRA_FAKE_ARCHIVE_DELAY"] = "5";

    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        SCOPED_TRACE(signal);
        const auto stopped = testing::runVeltraStoppedAt(
            {"release", "Sample", "--build", "5", "--no-wait"}, environment, "Compiling", signal);
        EXPECT_EQ(stopped.exitCode, 130) << stopped.output;
        EXPECT_NE(stopped.output.find("cancelled"), std::string::npos) << stopped.output;
        EXPECT_NE(stopped.output.find("Full log: "), std::string::npos) << stopped.output;
        EXPECT_TRUE(fs::exists(sandbox.releases() / ".veltra-run")) << stopped.output;
    }
    environment.erase("VELTRA_FAKE_ARCHIVE_DELAY");
    const auto resumed = testing::runVeltra({"release", "Sample", "--resume"}, environment);
    ASSERT_EQ(resumed.exitCode, 0) << resumed.output << resumed.errorOutput;
    EXPECT_NE(resumed.output.find("(Build 5)"), std::string::npos) << resumed.output;

    // The hook no longer publishes: the live wait would run to its limit.
    testing::git(sandbox.origin(), {"config", "--unset", "veltra.servedFolder"});
    const auto waiting =
        testing::runVeltraStoppedAt({"release", "Sample", "--build", "6", "--wait", "10m"},
                                    environment, "waiting for the live appcast", SIGINT);
    EXPECT_EQ(waiting.exitCode, 0) << waiting.output;
    EXPECT_NE(waiting.output.find("is published and recorded; check the site with 'veltra website "
                                  "check Sample'"),
              std::string::npos)
        << waiting.output;
    const auto stored = nlohmann::json::parse(readFile(profiles));
    EXPECT_EQ(stored[0]["recentReleases"][0]["buildNumber"], "6");
}

} // namespace
} // namespace veltra
