// The website commands end to end: a repository made by `website init`, a deploy to a bare
// origin whose hook publishes into a folder a local server serves, and `website check --watch`.

#include "GitFixture.h"
#include "TestHttpServer.h"
#include "TestSupport.h"
#include "VeltraRun.h"
#include "core/profile/ProjectProfile.h"
#include "core/support/FileUtilities.h"
#include "core/support/JsonReader.h"
#include "core/support/StopToken.h"

#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;
using testing::TestHttpServer;

class WebsiteCommands : public ::testing::Test {
protected:
    WebsiteCommands() {
        testing::git(dir.path(),
                     {"init", "--quiet", "--bare", "--initial-branch=main", origin.string()});
        fs::create_directories(served);
        publishOnPush(true);
        auto profile =
            ProjectProfile::create("Acme", "com.example.acme", (dir / "Veltra" / "Acme").string());
        profile.webDeploy.siteURL = server.url("/");
        ReleaseManifest manifest;
        manifest.appName = "Acme";
        manifest.version = "1.2.3";
        manifest.buildNumber = "42";
        profile.recentReleases = std::vector{manifest};
        testing::writeFile(dir / "profiles.json", dumpJson(profilesToJson({profile})));
        testing::writeFile(dmg, std::string(3000, 'x'));
    }

    // origin publishes what is pushed, as a hosting service does; or keeps the old site.
    void publishOnPush(bool publish) {
        testing::writeScript(origin / "hooks" / "post-receive",
                             publish ? "git --work-tree='" + served.string() +
                                           "' checkout -f main -- . >/dev/null 2>&1\nexit 0"
                                     : std::string("exit 0"));
    }

    ProcessResult veltra(std::vector<std::string> arguments) {
        return testing::runVeltra(std::move(arguments),
                                  {{"VELTRA_PROFILES", (dir / "profiles.json").string()},
                                   {"HOME", dir.path().string()},
                                   {"GIT_CONFIG_NOSYSTEM", "1"},
                                   {"GIT_CONFIG_GLOBAL", "/dev/null"}});
    }

    // Creates the site, adds the release to its feed, deploys it.
    void deployRelease() {
        auto made = veltra({"website", "init", "Acme", site.string(), "--remote", origin.string()});
        ASSERT_EQ(made.exitCode, 0) << made.errorOutput;
        // Publishing there is committing and pushing there, and the command says so.
        EXPECT_NE(made.output.find("(webDeploy.gitCommitAndPush is on now: releases commit and "
                                   "push it)"),
                  std::string::npos)
            << made.output;
        const auto added =
            veltra({"appcast", "add", (site / "downloads" / "appcast.xml").string(), "--version",
                    "1.2.3", "--build", "42", "--url", server.url("/downloads/Acme.dmg"),
                    "--min-system", "13.0", "--notes-url", server.url("/downloads/Acme.md"),
                    "--signature", "SIG==", "--length", "3000"});
        ASSERT_EQ(added.exitCode, 0) << added.errorOutput;
        const auto deployed = veltra({"website", "deploy", "Acme", "--dmg", dmg.string(),
                                      "--version", "1.2.3", "--build", "42"});
        ASSERT_EQ(deployed.exitCode, 0) << deployed.errorOutput;
        EXPECT_NE(deployed.output.find("Success: Release pushed to origin/main"), std::string::npos)
            << deployed.output;
        EXPECT_TRUE(deployed.output.ends_with(
            "Info: Recorded the pending publication on release 1.2.3 (42)\n"))
            << deployed.output;
    }

    testing::TempDir dir;
    fs::path origin = dir / "origin.git";
    fs::path site = dir / "Veltra" / "website";
    fs::path served = dir / "served";
    fs::path dmg = dir / "Acme-1.2.3.dmg";
    TestHttpServer server{[this](const TestHttpServer::Request& request) {
        const auto file = served / request.target.substr(1);
        if (!fs::is_regular_file(file)) {
            return TestHttpServer::Response{404, {}, "missing"};
        }
        return TestHttpServer::Response{200, {}, readFile(file)};
    }};
};

// An image goes out only with a feed that offers exactly it: a served image no item vouches
// for breaks every user's update.
TEST_F(WebsiteCommands, DeployRefusesAnImageTheFeedDoesNotOffer) {
    deployRelease();
    const auto originBefore = testing::git(origin, {"rev-parse", "main"});
    const auto servedImage = readFile(site / "downloads" / "Acme.dmg");
    testing::writeFile(dmg, std::string(4000, 'y'));
    const auto feed = site / "downloads" / "appcast.xml";
    const auto refused = veltra({"website", "deploy", "Acme", "--dmg", dmg.string(), "--version",
                                 "1.2.4", "--build", "43"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.errorOutput,
              "Error: The feed " + feed.string() +
                  " has no item for this image (length 4000). Deployed, it would replace the "
                  "download every update points to and every update would fail its signature "
                  "check. Add the release to the feed first ('veltra appcast add … --dmg'), or "
                  "give the feed that offers it with --feed FILE.\n");
    // A signature the feed has, for another file length, is no better.
    const auto stale = veltra({"website", "deploy", "Acme", "--dmg", dmg.string(), "--version",
                               "1.2.3", "--build", "42"});
    EXPECT_EQ(stale.exitCode, 1);
    EXPECT_NE(stale.errorOutput.find("(length 4000, signature SIG==)"), std::string::npos)
        << stale.errorOutput;
    EXPECT_EQ(readFile(site / "downloads" / "Acme.dmg"), servedImage);
    EXPECT_EQ(testing::git(origin, {"rev-parse", "main"}), originBefore);

    // A feed given with --feed that offers it goes out with the image.
    const auto given = dir / "new-appcast.xml";
    fs::copy_file(feed, given);
    ASSERT_EQ(
        veltra({"appcast", "add", given.string(), "--version", "1.2.4", "--build", "43", "--url",
                server.url("/downloads/Acme.dmg"), "--min-system", "13.0", "--notes-url",
                server.url("/downloads/Acme.md"), "--signature", "NEW==", "--length", "4000"})
            .exitCode,
        0);
    const auto deployed = veltra({"website", "deploy", "Acme", "--dmg", dmg.string(), "--version",
                                  "1.2.4", "--build", "43", "--feed", given.string()});
    ASSERT_EQ(deployed.exitCode, 0) << deployed.errorOutput;
    EXPECT_EQ(readFile(feed), readFile(given));
    EXPECT_NE(testing::git(origin, {"show", "main:downloads/appcast.xml"}).find("NEW=="),
              std::string::npos);
}

TEST_F(WebsiteCommands, InitDeliveryDeployAndWatchUntilLive) {
    deployRelease();
    const auto page = readFile(site / "index.html");
    EXPECT_NE(page.find("href=\"downloads/Acme.dmg?v=42\""), std::string::npos);
    EXPECT_EQ(testing::git(origin, {"log", "--format=%s", "main"}),
              "Release Acme v1.2.3 (build 42) DMG & update feed\nCreate the download website for "
              "Acme\n");

    const auto plan = veltra({"delivery", "Acme"});
    EXPECT_EQ(plan.output, "Success: Using configured website repo: " + site.string() + "\n" +
                               "Repository:    " + site.string() + "\n" +
                               "Feed file:     " + (site / "downloads" / "appcast.xml").string() +
                               "\n" + "Feed address:  " + server.url("/downloads/appcast.xml") +
                               "\n" + "Download:      " + server.url("/downloads/Acme.dmg") + "\n" +
                               "Notes:         " + server.url("/downloads/Acme.md") + "\n");

    const auto watched =
        veltra({"website", "check", "Acme", "--watch", "--interval", "0.1", "--timeout", "120"});
    EXPECT_EQ(watched.exitCode, 0) << watched.errorOutput;
    EXPECT_TRUE(watched.output.ends_with("Live appcast.xml and DMG verified\n")) << watched.output;
    const auto releases = veltra({"releases", "Acme"});
    EXPECT_NE(releases.output.find("Live appcast.xml and DMG verified"), std::string::npos);
}

TEST_F(WebsiteCommands, SiteThatNeverUpdatesNeedsAttention) {
    publishOnPush(false);
    deployRelease();
    const auto once = veltra({"website", "check", "Acme"});
    EXPECT_EQ(once.exitCode, 1);
    // Nothing was published to the served folder: the reason says what the site answered.
    EXPECT_EQ(once.output, "Publishing; live files not confirmed\nWhy: the feed at " +
                               server.url("/downloads/appcast.xml") + " answered HTTP 404\n");
    const auto watched =
        veltra({"website", "check", "Acme", "--watch", "--interval", "0.1", "--timeout", "0.5"});
    EXPECT_EQ(watched.exitCode, 1);
    EXPECT_NE(watched.output.find("Uploaded; live website needs checking\nWhy: "),
              std::string::npos)
        << watched.output;
    EXPECT_NE(veltra({"releases", "Acme"}).output.find("Uploaded; live website needs checking"),
              std::string::npos);
}

// A watcher saving every check and a `profile set` from another process: the file keeps both.
TEST_F(WebsiteCommands, WatcherAndProfileSetKeepEachOthersChanges) {
    publishOnPush(false);
    deployRelease();
    const auto profiles = dir / "profiles.json";
    const auto publication = [&] {
        return dumpJson(
            parseJson(readFile(profiles))[0]["recentReleases"][0]["websitePublication"]);
    };
    std::atomic<bool> done = false;
    ProcessResult watched;
    JThread watcher([&] {
        watched = veltra(
            {"website", "check", "Acme", "--watch", "--interval", "0.1", "--timeout", "300"});
        done = true;
    });
    // Waits for the watcher's next save, however slow the machine.
    const auto nextSave = [&](const std::string& before) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
        while (!done && publication() == before && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return publication();
    };
    const auto checked = nextSave(publication());
    const auto set = veltra({"profile", "set", "Acme", "sparkle.minimumSystemVersion=14.2"});
    ASSERT_EQ(set.exitCode, 0) << set.errorOutput;
    nextSave(checked);
    ASSERT_FALSE(done) << watched.output << watched.errorOutput;
    // The site goes live: the watcher records it and stops.
    testing::git(origin, {"--work-tree=" + served.string(), "checkout", "-f", "main", "--", "."});
    watcher.join();
    EXPECT_EQ(watched.exitCode, 0) << watched.output << watched.errorOutput;
    const auto profile = profilesFromJson(parseJson(readFile(profiles))).at(0);
    EXPECT_EQ(profile.sparkle.minimumSystemVersion, "14.2");
    EXPECT_EQ(profile.recentReleases->at(0).websitePublication->state,
              WebsitePublicationState::live);
}

} // namespace
} // namespace veltra
