#include "TestSupport.h"
#include "core/feed/NativeEd25519Signer.h"
#include "core/feed/ReleaseFeedValidator.h"
#include "core/feed/SparkleEngine.h"
#include "core/feed/SparkleFeedParser.h"
#include "core/support/Base64.h"
#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"

#include <cstdlib>
#include <ctime>
#include <vector>

#include <gtest/gtest.h>

namespace veltra {
namespace {

using testing::ScopedEnvironment;
using testing::TempDir;
using testing::writeFile;

const std::filesystem::path standIns = VELTRA_TOOLS_DIR;

AppcastRelease release(std::string version, std::string build) {
    return {version, build,  "https://example.com/Acme-" + version + ".dmg", "c2lnbmF0dXJl" + build,
            "1024",  "13.0", "https://example.com/notes/" + version};
}

std::string failureOf(const std::function<void()>& work) {
    try {
        work();
    } catch (const VeltraError& error) {
        return error.message();
    }
    return "passed";
}

struct EngineFixture : ::testing::Test {
    TempDir dir;
    std::vector<std::string> lines;
    SparkleEngine engine;

    EngineFixture() {
        engine.log = [this](const std::string& line) { lines.push_back(line); };
        engine.clock = [] { return std::time_t{1'795'000'000}; };
        engine.derivedDataFolder = dir / "home/Library/Developer/Xcode/DerivedData";
    }
};

TEST_F(EngineFixture, ItemTextAndDateAreExact) {
    ScopedEnvironment zone("TZ", "XYZ+05:30");
    const auto path = dir / "appcast.xml";
    writeFile(path, "<?xml version=\"1.0\"?>\n<rss><channel>\n    <title>Acme</title>\n"
                    "</channel></rss>\n");
    auto first = release("1.4.2", "42");
    first.downloadURL = "https://example.com/get?a=1&b=2";
    engine.updateFeed(path, first);
    EXPECT_EQ(readFile(path),
              "<?xml version=\"1.0\"?>\n<rss><channel>\n    <title>Acme</title>\n"
              "        <item>\n"
              "            <title>1.4.2</title>\n"
              "            <pubDate>Wed, 18 Nov 2026 05:36:40 -0530</pubDate>\n"
              "            <sparkle:version>42</sparkle:version>\n"
              "            <sparkle:shortVersionString>1.4.2</sparkle:shortVersionString>\n"
              "            <sparkle:minimumSystemVersion>13.0</sparkle:minimumSystemVersion>\n"
              "            <sparkle:releaseNotesLink>https://example.com/notes/1.4.2"
              "</sparkle:releaseNotesLink>\n"
              "            <enclosure url=\"https://example.com/get?a=1&amp;b=2\" length=\"1024\" "
              "type=\"application/octet-stream\" sparkle:edSignature=\"c2lnbmF0dXJl42\"/>\n"
              "        </item>\n"
              "</channel></rss>\n");
    EXPECT_EQ(lines, std::vector<std::string>{
                         "Success: Successfully updated appcast.xml with v1.4.2 (build 42)"});
    EXPECT_EQ(appcast::rfc822Date(0), "Wed, 31 Dec 1969 18:30:00 -0530");
    ScopedEnvironment east("TZ", "ABC-09");
    EXPECT_EQ(appcast::rfc822Date(0), "Thu, 01 Jan 1970 09:00:00 +0900");
}

TEST_F(EngineFixture, NewestReleaseGoesFirstAndReadsBack) {
    const auto path = dir / "appcast.xml";
    engine.createStubFeed(path, "Acme", "https://acme.example");
    engine.updateFeed(path, release("1.0", "10"));
    engine.updateFeed(path, release("1.1", "11"));
    const auto document = readFile(path);
    const auto items = SparkleFeedParser::parse(document);
    ASSERT_TRUE(items.has_value());
    ASSERT_EQ(items->size(), 2u);
    EXPECT_EQ((*items)[0].version, "11");
    EXPECT_EQ((*items)[1].version, "10");
    EXPECT_EQ((*items)[0].minimumSystemVersion, "13.0");
    EXPECT_NO_THROW(ReleaseFeedValidator::verifyWrittenFeed(
        document, {"1.1", "11", "https://example.com/Acme-1.1.dmg", "c2lnbmF0dXJl11", "1024"}));
    EXPECT_NO_THROW(ReleaseFeedValidator::validateNextBuild(document, 12));
    EXPECT_NE(document.find("<title>Acme</title>\n        <item>"), std::string::npos);
}

TEST_F(EngineFixture, AnchorIsTheChannelsOwnTitleElseItsOpeningTag) {
    const struct {
        const char* name;
        std::string document;
        std::string before; // the text the new item must directly follow
    } cases[] = {
        {"channel without a title, items with titles",
         "<rss><channel version=\"x\">\n<item><title>0.9</title></item></channel></rss>",
         "<channel version=\"x\">\n"},
        {"title after an item's",
         "<rss><channel><item><title>0.9</title></item><title>Acme</title></channel></rss>",
         "<title>Acme</title>\n"},
        {"title in a comment is not the anchor",
         "<rss><!-- <title>x</title> --><channel><image><title>logo</title></image></channel>"
         "</rss>",
         "<channel>\n"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        const auto updated = appcast::insertItem(row.document, "        <item>\n");
        ASSERT_TRUE(updated.has_value());
        EXPECT_NE(updated->find(row.before + "        <item>\n"), std::string::npos) << *updated;
    }
    EXPECT_FALSE(appcast::insertItem("<rss><channel/></rss>", "x").has_value());
    EXPECT_FALSE(appcast::insertItem("<rss></rss>", "x").has_value());
}

TEST_F(EngineFixture, FailuresLeaveTheFeedAlone) {
    const auto path = dir / "appcast.xml";
    EXPECT_EQ(failureOf([&] { engine.updateFeed(path, release("1.0", "12a")); }),
              "Invalid release build number.");
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(failureOf([&] { engine.updateFeed(path, release("1.0", "12")); }),
              "appcast.xml not found at " + path.string());

    const struct {
        const char* name;
        std::string document;
        AppcastRelease release;
        std::string message;
    } cases[] = {
        {"no anchor", "<rss><feed/></rss>", release("1.0", "+12"),
         "Could not find insertion anchor in appcast.xml. The feed at " + path.string() +
             " cannot be read: it has no channel element."},
        {"an earlier item would come first",
         "<rss><channel><item><sparkle:version>3</sparkle:version></item><title>A</title>"
         "</channel></rss>",
         release("1.0", "12"),
         "The update feed does not match the release version, build, download URL, signature, "
         "and size. Upload stopped."},
        {"broken after the anchor", "<rss><channel><title>A</title><item></channel>",
         release("1.0", "12"),
         "The update feed does not match the release version, build, download URL, signature, "
         "and size. Upload stopped. The feed at " +
             path.string() + " cannot be read: line 1, column 39: mismatched tag."},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        writeFile(path, row.document);
        EXPECT_EQ(failureOf([&] { engine.updateFeed(path, row.release); }), row.message);
        EXPECT_EQ(readFile(path), row.document);
    }
    EXPECT_TRUE(lines.empty());
}

TEST_F(EngineFixture, StubFeedsInBothForms) {
    engine.createStubFeed(dir / "a.xml", "Acme & Co", "https://acme.example");
    EXPECT_EQ(readFile(dir / "a.xml"),
              "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
              "<rss version=\"2.0\" "
              "xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\" "
              "xmlns:dc=\"http://purl.org/dc/elements/1.1/\">\n"
              "    <channel>\n"
              "        <title>Acme &amp; Co</title>\n"
              "        <link>https://acme.example</link>\n"
              "        <description>Updates feed for Acme &amp; Co</description>\n"
              "        <language>en</language>\n"
              "    </channel>\n"
              "</rss>\n");
    engine.createStubFeed(dir / "b.xml", "Acme");
    EXPECT_EQ(readFile(dir / "b.xml"),
              "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
              "<rss version=\"2.0\" "
              "xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\" "
              "xmlns:dc=\"http://purl.org/dc/elements/1.1/\">\n"
              "    <channel>\n"
              "        <title>Acme</title>\n"
              "    </channel>\n"
              "</rss>\n");
    const auto items = SparkleFeedParser::parse(readFile(dir / "b.xml"));
    ASSERT_TRUE(items.has_value());
    EXPECT_TRUE(items->empty());
    EXPECT_EQ(lines.back(), "Success: Created appcast.xml stub at " + (dir / "b.xml").string());
    EXPECT_EQ(failureOf([&] { engine.createStubFeed(dir / "b.xml", "Other"); }),
              "appcast.xml already exists at " + (dir / "b.xml").string());
}

TEST(SparkleSignatureOutput, FirstSignatureAttributeWins) {
    EXPECT_EQ(SparkleEngine::signatureFromToolOutput(
                  "length=\"5\" sparkle:edSignature=\"QUJD+/==\" length=\"9\"\n"
                  "sparkle:edSignature=\"second\""),
              "QUJD+/==");
    EXPECT_EQ(SparkleEngine::signatureFromToolOutput("sparkle:edSignature=\"\""), std::nullopt);
    EXPECT_EQ(SparkleEngine::signatureFromToolOutput("ERROR! Signing key not found"), std::nullopt);
}

struct SigningFixture : EngineFixture {
    std::filesystem::path dmg = dir / "Acme.dmg";
    std::filesystem::path key = dir / "ed25519_priv";
    std::filesystem::path toolLog = dir / "tool.log";

    SigningFixture() {
        std::string bytes(100'000, '\0');
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = static_cast<char>(i * 7919 % 251);
        }
        writeFile(dmg, bytes);
        std::vector<std::uint8_t> seed(32);
        for (std::size_t i = 0; i < seed.size(); ++i) {
            seed[i] = static_cast<std::uint8_t>(i * 3 + 1);
        }
        writeFile(key, base64::encode(seed));
    }

    std::string nativeSignature() const {
        return NativeEd25519Signer::signFile(SparklePrivateKey::readFile(key), dmg)
            .signatureBase64();
    }
};

TEST_F(SigningFixture, UsesTheToolTheProfileNames) {
    ScopedEnvironment record("VELTRA_TOOL_LOG", toolLog.string());
    std::filesystem::copy_file(standIns / "sign_update", dir / "my_sign_update");
    engine.configuredTool = dir / "my_sign_update";
    const auto result = engine.sign(dmg, "Acme", key.string());
    EXPECT_EQ(result, (SparkleSignResult{nativeSignature(), "100000"}));
    EXPECT_EQ(readFile(toolLog),
              "sign_update\n--ed-key-file\n" + key.string() + "\n" + dmg.string() + "\n");
    EXPECT_EQ(lines,
              (std::vector<std::string>{
                  "Signing Sparkle update for Acme...", "Success: Located Sparkle sign_update tool",
                  "Success: Generated Ed25519 signature: " + result.signature}));

    // A key Veltra read from the keychain is used by its own signer: sign_update would read the
    // keychain item itself, and macOS would ask whether it may, with nobody to answer in CI.
    std::filesystem::remove(toolLog);
    const auto fromKeychain = engine.sign(
        dmg, "Acme",
        KeychainSigningKey{"ed25519", [&] { return SparklePrivateKey::readFile(key); }});
    EXPECT_EQ(fromKeychain.signature, nativeSignature());
    EXPECT_FALSE(std::filesystem::exists(toolLog)) << "sign_update did not run";

    // A configured path that is no program is an error, not a quiet fallback.
    writeFile(dir / "not_a_program", "text");
    engine.configuredTool = dir / "not_a_program";
    EXPECT_EQ(failureOf([&] { engine.sign(dmg, "Acme", key.string()); }),
              "The sign_update set in the profile (" + (dir / "not_a_program").string() +
                  ") is not an executable file. Fix sparkle.signUpdatePath or clear it to sign "
                  "without it.");
}

// Only the Sparkle package Xcode resolved for this very project is used: a tool of that name
// anywhere else under DerivedData (any project's build product) never runs.
TEST_F(SigningFixture, UsesOnlyTheProjectsOwnResolvedSparklePackage) {
    ScopedEnvironment record("VELTRA_TOOL_LOG", toolLog.string());
    const auto derived = dir / "DerivedData";
    const auto project = dir / "src" / "Acme" / "Acme.xcodeproj";
    std::filesystem::create_directories(project);
    engine.derivedDataFolder = derived;
    const auto place = [&](const std::string& folder, const std::filesystem::path& workspace,
                           const std::string& relative) {
        std::filesystem::create_directories((derived / folder / relative).parent_path());
        std::filesystem::copy_file(standIns / "sign_update", derived / folder / relative);
        writeFile(derived / folder / "info.plist",
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                  "<key>WorkspacePath</key><string>" +
                      workspace.string() + "</string></dict></plist>\n");
        return derived / folder / relative;
    };
    // Another project's resolved package, and a build product of this project's own name.
    place("Other-xyz", dir / "src" / "Other" / "Other.xcodeproj",
          "SourcePackages/artifacts/sparkle/Sparkle/bin/sign_update");
    place("Acme-abc", project, "Build/Products/Release/sign_update");
    engine.project = project;
    EXPECT_EQ(engine.locateSignUpdate(), std::nullopt);
    EXPECT_EQ(engine.sign(dmg, "Acme", key.string()).signature, nativeSignature());
    EXPECT_FALSE(std::filesystem::exists(toolLog)) << "no sign_update ran";

    const auto own = derived / "Acme-abc/SourcePackages/artifacts/sparkle/Sparkle/bin/sign_update";
    std::filesystem::create_directories(own.parent_path());
    std::filesystem::copy_file(standIns / "sign_update", own);
    EXPECT_EQ(engine.locateSignUpdate(), own);
    // The project's folder stands for the project inside it.
    engine.project = project.parent_path();
    EXPECT_EQ(engine.locateSignUpdate(), own);
    EXPECT_EQ(SparkleEngine::resolvedPackageTool(dir / "src" / "Elsewhere", derived), std::nullopt);
}

TEST_F(SigningFixture, SignsNativelyWithoutTheToolAndFailsWithoutEither) {
    const auto result = engine.sign(dmg, "Acme", key.string());
    EXPECT_EQ(result, (SparkleSignResult{nativeSignature(), "100000"}));
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "Signing Sparkle update for Acme...",
                         "Using native CryptoKit Ed25519 signer with key at: " + key.string(),
                         "Success: Native CryptoKit signature: " + result.signature}));

    ScopedEnvironment home("HOME", dir.path().string());
    EXPECT_EQ(failureOf([&] { engine.sign(dmg, "Acme", "~/missing_key"); }),
              "Could not generate Sparkle signature: sign_update binary and private key at '" +
                  (dir / "missing_key").string() + "' not available.");
}

TEST_F(SigningFixture, ToolFailuresCarryItsOutput) {
    engine.configuredTool = standIns / "sign_update";
    writeFile(key, "c2hvcnQ=");
    EXPECT_EQ(failureOf([&] { engine.sign(dmg, "Acme", key.string()); }),
              "sign_update could not sign " + dmg.string() +
                  ": ERROR! Imported key must be 64 bytes or 96 bytes (for the older format) "
                  "decoded. Instead it is 5 bytes decoded.");
}

} // namespace
} // namespace veltra
