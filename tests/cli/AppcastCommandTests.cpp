#include "GitFixture.h"
#include "TestHttpServer.h"
#include "TestSupport.h"
#include "VeltraRun.h"
#include "core/feed/SparkleFeedParser.h"
#include "core/process/ProcessRunner.h"
#include "core/support/FileUtilities.h"

#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace veltra {
namespace {

// No sign_update on the way: "which" must not find one on the machine's PATH either.
ProcessResult veltra(std::vector<std::string> arguments) {
    return testing::runVeltra(std::move(arguments), {{"PATH", "/usr/bin:/bin"}});
}

const std::string fixtures = std::string(VELTRA_FIXTURES_DIR) + "/appcast/";

// The fields the fixtures' expected files name, from each item `appcast parse --json` printed.
nlohmann::json fixtureFields(const std::string& output) {
    auto json = nlohmann::json::parse(output);
    for (auto& item : json["items"]) {
        for (const auto* key : {"channel", "critical", "criticalBelow", "phasedRolloutInterval",
                                "minimumAutoupdateVersion", "valid", "problems"}) {
            item.erase(key);
        }
    }
    return json;
}

TEST(AppcastCommand, ParsePrintsTableOrJson) {
    const auto table = veltra({"appcast", "parse", fixtures + "dockdoor.xml"});
    EXPECT_EQ(table.exitCode, 0) << table.errorOutput << table.output;
    EXPECT_TRUE(table.output.starts_with("BUILD     VERSION        PUBLISHED"));
    EXPECT_NE(table.output.find("1.39.5    1.39.5         Fri, 31 Jul 2026 17:29:26 -0700  13.0 "),
              std::string::npos)
        << table.output;

    // Maccy's unsigned item is one no Mac with a public key installs (exit 3, with the reason).
    const auto json = veltra({"appcast", "parse", "--json", fixtures + "maccy.xml"});
    EXPECT_EQ(json.exitCode, 3);
    EXPECT_EQ(fixtureFields(json.output),
              nlohmann::json::parse(readFile(fixtures + "expected/maccy.json")));
    EXPECT_EQ(nlohmann::json::parse(json.output)["items"][0]["problems"],
              nlohmann::json::array({"it has no EdDSA signature"}));

    const auto empty = veltra({"appcast", "parse", fixtures + "transcripted.xml"});
    EXPECT_EQ(empty.output, "The feed lists no releases.\n");

    testing::TempDir dir;
    // Nothing invented for what an item leaves out; each fault named.
    testing::writeFile(
        dir / "odd.xml",
        "<rss xmlns:sparkle=\"x\"><channel><item><title>1.0</title>"
        "<sparkle:version>abc</sparkle:version><enclosure url=\"https://a.io/x.dmg\" "
        "length=\"-3\" sparkle:edSignature=\"AAAA\"/></item></channel></rss>");
    const auto odd = veltra({"appcast", "parse", "--json", (dir / "odd.xml").string()});
    EXPECT_EQ(odd.exitCode, 3);
    const auto item = nlohmann::json::parse(odd.output)["items"][0];
    EXPECT_EQ(item["shortVersion"], "");
    EXPECT_EQ(item["minimumSystemVersion"], "");
    EXPECT_EQ(item["problems"], nlohmann::json::array({"its build 'abc' is not a number",
                                                       "its length '-3' is not a byte count",
                                                       "its signature 'AAAA' is not 64 bytes of "
                                                       "base64"}));
    const auto oddTable = veltra({"appcast", "parse", (dir / "odd.xml").string()});
    EXPECT_EQ(oddTable.exitCode, 3);
    EXPECT_NE(oddTable.output.find("Invalid item 1 (build 'abc'): its length '-3' is not a byte "
                                   "count\n"),
              std::string::npos)
        << oddTable.output;

    testing::writeFile(dir / "broken.xml", "<rss><item></rss>");
    const auto brokenJson = veltra({"appcast", "parse", "--json", (dir / "broken.xml").string()});
    EXPECT_EQ(brokenJson.exitCode, 1);
    EXPECT_EQ(brokenJson.output, "{\n  \"valid\": false,\n  \"items\": []\n}\n");
    const auto broken = veltra({"appcast", "parse", (dir / "broken.xml").string()});
    EXPECT_EQ(broken.exitCode, 1);
    EXPECT_EQ(broken.errorOutput,
              "Error: " + (dir / "broken.xml").string() +
                  " is not a usable update feed (line 1, column 14: mismatched tag): it must be "
                  "well-formed XML "
                  "with an rss element and a channel.\n");
}

TEST(AppcastCommand, StubAddVerifyAndCheckBuild) {
    testing::TempDir dir;
    const auto feed = (dir / "appcast.xml").string();
    const auto stub = veltra({"appcast", "stub", feed, "--app", "Acme", "--site", "https://a.io"});
    EXPECT_EQ(stub.output, "Success: Created appcast.xml stub at " + feed + "\n");

    testing::writeFile(dir / "Acme.dmg", std::string(5000, 'd'));
    testing::writeFile(dir / "ed25519_priv", "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8=");
    const std::vector<std::string> release{"--version",    "1.4.2",
                                           "--build",      "42",
                                           "--url",        "https://a.io/Acme.dmg",
                                           "--min-system", "13.0",
                                           "--notes-url",  "https://a.io/notes.html"};
    auto add = std::vector<std::string>{"appcast", "add", feed};
    add.insert(add.end(), release.begin(), release.end());
    add.insert(add.end(), {"--dmg", (dir / "Acme.dmg").string(), "--ed-key-file",
                           (dir / "ed25519_priv").string()});
    const auto added = veltra(add);
    EXPECT_EQ(added.exitCode, 0) << added.errorOutput;
    const auto items = SparkleFeedParser::parse(readFile(feed));
    ASSERT_TRUE(items && items->size() == 1);
    const auto& item = items->front();
    EXPECT_EQ(item.enclosureLength, "5000");
    EXPECT_EQ(added.output, "Signing Sparkle update for Acme...\n"
                            "Using native CryptoKit Ed25519 signer with key at: " +
                                (dir / "ed25519_priv").string() +
                                "\nSuccess: Native CryptoKit signature: " + item.edSignature +
                                "\nSuccess: Successfully updated appcast.xml with v1.4.2 (build "
                                "42)\n");

    const auto verified =
        veltra({"appcast", "verify", feed, "--version", "1.4.2", "--build", "42", "--url",
                "https://a.io/Acme.dmg", "--signature", item.edSignature, "--length", "5000"});
    EXPECT_EQ(verified.exitCode, 0) << verified.errorOutput;
    const auto wrong =
        veltra({"appcast", "verify", feed, "--version", "1.4.2", "--build", "42", "--url",
                "https://a.io/Acme.dmg", "--signature", item.edSignature, "--length", "5001"});
    EXPECT_EQ(wrong.exitCode, 1);
    EXPECT_EQ(wrong.errorOutput,
              "Error: The update feed does not match the release version, build, download URL, "
              "signature, and size. Upload stopped.\n");

    EXPECT_EQ(veltra({"appcast", "check-build", feed, "43"}).exitCode, 0);
    const auto low = veltra({"appcast", "check-build", feed, "42"});
    EXPECT_EQ(low.exitCode, 1);
    EXPECT_EQ(low.errorOutput, "Error: Build 42 has already been published or is too low. Use "
                               "build 43 or higher. It is the item '1.4.2' (build '42').\n");
    EXPECT_EQ(veltra({"appcast", "check-build", feed, "4x"}).errorOutput,
              "Error: Invalid release build number.\n");

    // A second release given its signature directly lands above the first.
    auto second = std::vector<std::string>{"appcast",
                                           "add",
                                           feed,
                                           "--version",
                                           "1.5",
                                           "--build",
                                           "43",
                                           "--url",
                                           "https://a.io/b.dmg",
                                           "--min-system",
                                           "13.0",
                                           "--notes-url",
                                           "https://a.io/n",
                                           "--signature",
                                           "c2ln",
                                           "--length",
                                           "9"};
    // With the feed's controls, refused where the feed could not carry them.
    auto badChannel = second;
    badChannel.insert(badChannel.end(), {"--channel", "be ta"});
    const auto refused = veltra(badChannel);
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.errorOutput.find("--channel 'be ta' cannot be used"), std::string::npos)
        << refused.errorOutput;
    auto controls = second;
    controls.insert(controls.end(), {"--channel", "beta", "--critical-below", "40",
                                     "--phased-rollout", "2d", "--minimum-autoupdate", "41"});
    EXPECT_EQ(veltra(controls).exitCode, 0);
    const auto controlled = SparkleFeedParser::parse(readFile(feed))->front();
    EXPECT_EQ(controlled.version, "43");
    EXPECT_EQ(controlled.controls, (FeedControls{"beta", true, "40", 172800, "41"}));
    second.resize(second.size() - 2);
    const auto missingLength = veltra(second);
    EXPECT_EQ(missingLength.exitCode, 2);
}

TEST(AppcastCommand, LiveAndCommittedFeeds) {
    const std::string feed = readFile(fixtures + "dockdoor.xml");
    testing::TestHttpServer server([&](const testing::TestHttpServer::Request& request) {
        return request.target == "/appcast.xml" ? testing::TestHttpServer::Response{200, {}, feed}
                                                : testing::TestHttpServer::Response{404, {}, ""};
    });
    const auto live = veltra({"appcast", "live", "--json", server.url("/appcast.xml")});
    EXPECT_EQ(live.exitCode, 0);
    EXPECT_EQ(fixtureFields(live.output),
              nlohmann::json::parse(readFile(fixtures + "expected/dockdoor.json")));
    EXPECT_EQ(nlohmann::json::parse(live.output)["items"][0]["channel"], "beta");
    const auto gone = veltra({"appcast", "live", server.url("/old.xml")});
    EXPECT_EQ(gone.exitCode, 1);
    EXPECT_EQ(gone.errorOutput, "Error: The published update feed is unavailable (404). Restore "
                                "it before releasing.\n");

    testing::WebsiteRepository website;
    const auto missing = veltra(
        {"appcast", "committed", website.site.string(), "--live", server.url("/appcast.xml")});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.errorOutput, "Error: The publishing branch is missing the existing live "
                                   "update feed. Restore it before releasing.\n");
    website.commit("downloads/appcast.xml", feed);
    const auto committed = veltra(
        {"appcast", "committed", website.site.string(), "--downloads", "downloads", "--json"});
    EXPECT_EQ(committed.exitCode, 0) << committed.errorOutput;
    EXPECT_EQ(fixtureFields(committed.output),
              nlohmann::json::parse(readFile(fixtures + "expected/dockdoor.json")));

    // A branch value is data: it never reaches git as an option that runs a command.
    const auto planted = website.dir / "PWNED";
    const auto injected = veltra({"appcast", "committed", website.site.string(), "--branch",
                                  "--upload-pack=touch " + planted.string()});
    EXPECT_EQ(injected.exitCode, 1);
    EXPECT_EQ(injected.errorOutput, "Error: '--upload-pack=touch " + planted.string() +
                                        "' is not a valid branch name: it starts with '-'.\n");
    EXPECT_FALSE(std::filesystem::exists(planted));
}

} // namespace
} // namespace veltra
