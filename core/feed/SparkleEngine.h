#pragma once

#include "AppcastDocument.h"
#include "core/process/ProcessRunner.h"

#include <ctime>
#include <filesystem>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

struct SparkleSignResult {
    // Base64 of the 64-byte Ed25519 signature.
    std::string signature{};
    // The signed file's size in bytes, in decimal.
    std::string length{};

    bool operator==(const SparkleSignResult&) const = default;
};

// Signs a release's disk image for Sparkle and announces it in the app's appcast.xml. Signs with
// Sparkle's sign_update when one is installed, and natively with the same key file otherwise.
// Failures throw VeltraError (domain "Veltra.Sparkle") with the message the user reads.
class SparkleEngine {
public:
    static constexpr std::string_view defaultPrivateKeyPath = "~/.sparkle/ed25519_priv";
    static constexpr std::string_view keyFolder = "~/.sparkle";

    ProcessRunner runner{};
    // Receives each progress line.
    std::function<void(const std::string&)> log{};
    // Where sign_update is looked for first, in order.
    std::vector<std::filesystem::path> fixedToolPaths{"/opt/homebrew/bin/sign_update",
                                                      "/usr/local/bin/sign_update",
                                                      "/opt/homebrew/opt/sparkle/bin/sign_update"};
    // The folder whose Library/Developer/Xcode/DerivedData is searched next.
    std::filesystem::path homeFolder{};
    // The moment written as the item's pubDate; now when unset.
    std::function<std::time_t()> clock{};

    // The first sign_update found: the fixed paths, then DerivedData, then `which`.
    std::optional<std::filesystem::path> locateSignUpdate(std::stop_token stop = {}) const;

    // Signs the disk image with the key at `privateKeyPath` ("~" expanded).
    SparkleSignResult sign(const std::filesystem::path& dmg, const std::string& appName,
                           const std::string& privateKeyPath, std::stop_token stop = {}) const;

    // Puts the release first in the feed at `appcastPath` and rewrites it atomically, after
    // checking that the new text reads back with the release's values. The build number is
    // checked before the file is read.
    void updateFeed(const std::filesystem::path& appcastPath, const AppcastRelease& release) const;

    // Writes an empty feed; refuses to replace an existing file.
    void createStubFeed(const std::filesystem::path& appcastPath, const std::string& appName,
                        const std::string& siteURL = {}) const;

    // The first sparkle:edSignature="…" value in sign_update's output.
    static std::optional<std::string> signatureFromToolOutput(std::string_view output);

private:
    void emit(const std::string& line) const;
    std::filesystem::path home() const;
};

} // namespace veltra
