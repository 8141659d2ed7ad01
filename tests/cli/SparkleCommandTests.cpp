// Sparkle's signing key in the keychain (through the security stand-in, which records each item)
// and in key files: made once, never replaced, shown, exported, imported and signed with. And a
// profile's project set up for updates from the command line.

#include "AppleTools.h"
#include "TestSupport.h"
#include "VeltraRun.h"
#include "core/feed/SparklePrivateKey.h"
#include "core/process/ProcessRunner.h"
#include "core/support/FileUtilities.h"
#include "core/support/Text.h"

#include <algorithm>
#include <map>
#include <sys/stat.h>

#include <gtest/gtest.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;

fs::perms modeOf(const fs::path& path) {
    return fs::status(path).permissions();
}

class SparkleKeyCommands : public testing::AppleToolsTest {
protected:
    SparkleKeyCommands() {
        fake("VELTRA_FAKE_KEYCHAIN_DIR", (dir / "keychains").string());
        fake("VELTRA_TOOL_PROC_LOG", (dir / "proc.log").string());
        fake("HOME", (dir / "home").string());
    }

    ProcessResult veltra(std::vector<std::string> arguments) {
        return testing::runVeltra(std::move(arguments));
    }

    // The keychain items the stand-in holds, as their attribute lines.
    std::vector<std::string> items() const {
        std::vector<std::string> found;
        if (!fs::exists(dir / "keychains/items")) {
            return found;
        }
        for (const auto& entry : fs::directory_iterator(dir / "keychains/items")) {
            if (entry.path().extension() == ".attributes") {
                found.push_back(readFile(entry.path()));
            }
        }
        std::sort(found.begin(), found.end());
        return found;
    }
};

TEST_F(SparkleKeyCommands, TheKeychainKeepsOneKeyPerAccountAsSparklesToolKeepsIt) {
    const auto made = veltra({"sparkle", "keys", "generate"});
    ASSERT_EQ(made.exitCode, 0) << made.errorOutput;
    const auto shown = veltra({"sparkle", "keys", "show"});
    ASSERT_EQ(shown.exitCode, 0) << shown.errorOutput;
    const auto publicKey = std::string(trimWhitespace(shown.output));
    EXPECT_EQ(publicKey.size(), 44u);
    EXPECT_EQ(made.output, "A new Sparkle key is kept in the login keychain (account ed25519).\n"
                           "Add the SUPublicEDKey key to the Info.plist of each app that Sparkle "
                           "updates with this key:\n\n"
                           "    <key>SUPublicEDKey</key>\n"
                           "    <string>" +
                               publicKey + "</string>\n");
    EXPECT_EQ(items(), (std::vector<std::string>{
                           "service=https://sparkle-project.org\naccount=ed25519\n"
                           "label=Private key for signing Sparkle updates\n"
                           "comment=Public key (SUPublicEDKey value) for this key is: " +
                           publicKey + "\n"}));

    // Never replaced: the second key is refused and the first one stays.
    const auto again = veltra({"sparkle", "keys", "generate"});
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_EQ(again.errorOutput, "Error: A Sparkle key for account ed25519 is in the login "
                                 "keychain already; it is never replaced. 'veltra sparkle keys "
                                 "show' prints its public key.\n");
    EXPECT_EQ(trimWhitespace(veltra({"sparkle", "keys", "show"}).output), publicKey);

    // Exported as Sparkle's key tool writes a key file: the seed's base64, private, never over
    // a file that is there.
    const auto exported = veltra({"sparkle", "keys", "export", "--file", (dir / "key").string()});
    ASSERT_EQ(exported.exitCode, 0) << exported.errorOutput;
    EXPECT_EQ(modeOf(dir / "key"), fs::perms::owner_read | fs::perms::owner_write);
    const auto seed = readFile(dir / "key");
    EXPECT_EQ(seed.size(), 44u);
    EXPECT_EQ(SparklePrivateKey::readFile(dir / "key").publicKeyBase64(), publicKey);
    testing::writeFile(dir / "taken", "mine");
    EXPECT_EQ(veltra({"sparkle", "keys", "export", "--file", (dir / "taken").string()}).exitCode,
              1);
    EXPECT_EQ(readFile(dir / "taken"), "mine");

    // Imported under another account, it is the same key.
    const auto imported = veltra(
        {"sparkle", "keys", "import", "--file", (dir / "key").string(), "--account", "acme"});
    ASSERT_EQ(imported.exitCode, 0) << imported.errorOutput;
    EXPECT_EQ(trimWhitespace(veltra({"sparkle", "keys", "show", "--account", "acme"}).output),
              publicKey);
    EXPECT_EQ(items().size(), 2u);
    EXPECT_EQ(veltra({"sparkle", "keys", "import", "--file", (dir / "key").string()}).exitCode, 1);

    // sign finds the keychain's key without a key file, as sign_update does.
    testing::writeFile(dir / "App.dmg", "disk image");
    const auto withKeychain = veltra({"sign", (dir / "App.dmg").string()});
    const auto withFile =
        veltra({"sign", (dir / "App.dmg").string(), "--ed-key-file", (dir / "key").string()});
    ASSERT_EQ(withKeychain.exitCode, 0) << withKeychain.errorOutput;
    EXPECT_EQ(withKeychain.output, withFile.output);

    // The secret went over standard input only: no tool had it in its arguments or environment.
    const auto processes = readFile(dir / "proc.log");
    EXPECT_NE(processes.find("find-generic-password"), std::string::npos);
    EXPECT_EQ(processes.find(seed), std::string::npos);
    EXPECT_EQ(readFile(dir / "tools.log").find(seed), std::string::npos);
    EXPECT_EQ(interactiveRunsOf("security").size(), 2u);
}

TEST_F(SparkleKeyCommands, WithoutAKeychainTheKeyIsAPrivateFile) {
    // No security tool on the way: PATH without the stand-ins.
    fake("VELTRA_TOOL_PATH", (dir / "no-tools").string());
    fake("PATH", "/usr/bin:/bin");
    const auto made = veltra({"sparkle", "keys", "generate"});
    ASSERT_EQ(made.exitCode, 0) << made.errorOutput;
    const auto file = dir / "home/.sparkle/ed25519_priv";
    EXPECT_TRUE(made.output.starts_with("A new Sparkle key is kept in " + file.string() + ".\n"))
        << made.output;
    EXPECT_EQ(modeOf(file), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(modeOf(file.parent_path()), fs::perms::owner_all);
    const auto first = readFile(file);
    EXPECT_EQ(veltra({"sparkle", "keys", "generate"}).exitCode, 1);
    EXPECT_EQ(readFile(file), first);
    EXPECT_EQ(trimWhitespace(veltra({"sparkle", "keys", "show"}).output),
              SparklePrivateKey::readFile(file).publicKeyBase64());

    const auto named =
        veltra({"sparkle", "keys", "generate", "--file", (dir / "named_priv").string()});
    EXPECT_EQ(named.exitCode, 0) << named.errorOutput;
    EXPECT_EQ(modeOf(dir / "named_priv"), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(
        veltra({"sparkle", "keys", "import", "--file", (dir / "named_priv").string()}).errorOutput,
        "Error: This machine has no keychain; use the key file itself (--file, or "
        "sparkle.privateKeyPath in the profile).\n");

    // An account names a file here, so it stays a plain name.
    const auto escaping = veltra({"sparkle", "keys", "generate", "--account", "../../escape"});
    EXPECT_EQ(escaping.exitCode, 1);
    EXPECT_FALSE(fs::exists(dir / "escape_priv"));
}

// The demo's profile. Its release set the sample up; undone, the command does it, once.
TEST(SparkleSetupCommand, SetsUpAProfilesProjectOnceAndSaysWhatItDid) {
    testing::TempDir dir;
    const auto demo = testing::runVeltra({"demo", "--keep", (dir / "demo").string()});
    ASSERT_EQ(demo.exitCode, 0) << demo.output << demo.errorOutput;
    EXPECT_NE(demo.output.find("Success: Added the Sparkle package to Sample\n"), std::string::npos)
        << demo.output;
    const auto sample = dir / "demo/Sample";
    ASSERT_EQ(ProcessRunner::run("git", {"-C", sample.string(), "checkout", "--quiet", "--", "."})
                  .exitCode,
              0);
    const std::map<std::string, std::string> environment{
        {"VELTRA_PROFILES", (dir / "demo/profiles.json").string()}};
    const auto project = sample / "Sample.xcodeproj/project.pbxproj";
    const auto before = readFile(project);

    const auto dryRun =
        testing::runVeltra({"sparkle", "setup", "Sample", "--dry-run"}, environment);
    EXPECT_EQ(dryRun.exitCode, 0) << dryRun.errorOutput;
    EXPECT_EQ(dryRun.output, "Would: Add the Sparkle package "
                             "(https://github.com/sparkle-project/Sparkle, up to the next major "
                             "version from 2.0.0) to the project\n"
                             "Would: Add the Sparkle product to target Sample\n"
                             "Would: Link Sparkle in target Sample's Frameworks phase\n"
                             "Would: Set SUFeedURL in Sample/Info.plist\n"
                             "Would: Set SUPublicEDKey in Sample/Info.plist\n");
    EXPECT_EQ(readFile(project), before);

    const auto setUp = testing::runVeltra({"sparkle", "setup", "Sample"}, environment);
    EXPECT_EQ(setUp.exitCode, 0) << setUp.errorOutput;
    EXPECT_TRUE(setUp.output.starts_with("Add the Sparkle package")) << setUp.output;
    EXPECT_NE(setUp.output.find("Button(\"Check for Updates…\")"), std::string::npos);
    EXPECT_NE(readFile(project).find("productName = Sparkle;"), std::string::npos);

    const auto again = testing::runVeltra({"sparkle", "setup", "Sample"}, environment);
    EXPECT_EQ(again.output, "Sample is already set up for updates.\n");

    // A different key in the app is reported and kept.
    const auto other =
        testing::runVeltra({"sparkle", "setup", "Sample", "--public-key", "b3RoZXI="}, environment);
    EXPECT_EQ(other.exitCode, 1);
    EXPECT_TRUE(other.errorOutput.starts_with("Warning: SUPublicEDKey in Sample/Info.plist is "))
        << other.errorOutput;
}

} // namespace
} // namespace veltra
