#include "TestSupport.h"
#include "VeltraRun.h"
#include "core/process/ProcessRunner.h"

#include <string>

#include <gtest/gtest.h>

namespace veltra {
namespace {

using testing::runVeltra;

std::string repeated(std::string_view text, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) {
        out += text;
    }
    return out;
}

// The expected line was made with the Python cryptography module from the same seed and bytes.
TEST(SignCommand, PrintsWhatSparklesToolPrints) {
    testing::TempDir dir;
    testing::writeFile(dir / "App.dmg", repeated("Veltra\n", 1000));
    testing::writeFile(dir / "ed25519_priv", "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8=");
    const auto signedFile = runVeltra(
        {"sign", (dir / "App.dmg").string(), "--ed-key-file", (dir / "ed25519_priv").string()});
    EXPECT_EQ(signedFile.exitCode, 0) << signedFile.errorOutput;
    EXPECT_EQ(
        signedFile.output,
        "sparkle:edSignature=\"ffL+fwu/scF3VeUXndmaqoepZKo4Vph/Hw2M6KRI/Lm+Eyziw5AAHcq3r3hoBEo9+"
        "kALPwgr/gwYjWST35UKAg==\" length=\"7000\"\n");

    // Without --ed-key-file the key comes from ~/.sparkle/ed25519_priv.
    std::filesystem::create_directories(dir / "home/.sparkle");
    std::filesystem::copy_file(dir / "ed25519_priv", dir / "home/.sparkle/ed25519_priv");
    const auto defaultKey =
        runVeltra({"sign", (dir / "App.dmg").string()}, {{"HOME", (dir / "home").string()}});
    EXPECT_EQ(defaultKey.output, signedFile.output);
}

TEST(SignCommand, SaysWhyItCannotSign) {
    testing::TempDir dir;
    testing::writeFile(dir / "App.dmg", "x");
    const auto noKey =
        runVeltra({"sign", (dir / "App.dmg").string()}, {{"HOME", dir.path().string()}});
    EXPECT_EQ(noKey.exitCode, 1);
    EXPECT_EQ(noKey.errorOutput, "Error: Could not read the Sparkle private key at '" +
                                     (dir / ".sparkle/ed25519_priv").string() + "'.\n");
}

} // namespace
} // namespace veltra
