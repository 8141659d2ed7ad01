#pragma once

#include "AppcastDocument.h"
#include "SparkleFeedItem.h"
#include "SparklePrivateKey.h"
#include "core/process/ProcessRunner.h"
#include "core/support/StopToken.h"

#include <ctime>
#include <filesystem>
#include <functional>
#include <optional>
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

// A key kept in a keychain: sign_update reads it there itself (--account), the native signer
// gets it through `load`, called only when it signs.
struct KeychainSigningKey {
    std::string account{};
    std::function<SparklePrivateKey()> load{};
};

// Signs a release's disk image for Sparkle and announces it in the app's appcast.xml. Signs with
// Sparkle's sign_update when one is installed, and natively with the same key file otherwise.
// Failures throw VeltraError (domain "Veltra.Sparkle") with the message the user reads.
class SparkleEngine {
public:
    static constexpr std::string_view defaultPrivateKeyPath = "~/.sparkle/ed25519_priv";
    static constexpr std::string_view keyFolder = "~/.sparkle";

    // Receives each progress line.
    std::function<void(const std::string&)> log{};
    // The sign_update the profile names ("~" expanded); used when set, an error when it is not
    // an executable file.
    std::optional<std::filesystem::path> configuredTool{};
    // The app's Xcode project (.xcodeproj, .xcworkspace or its folder): the sign_update of the
    // Sparkle package Xcode resolved for it is used next. Never a tool merely named sign_update
    // elsewhere: a build product of any project could carry that name.
    std::filesystem::path project{};
    // Where Xcode keeps each project's derived data; ~/Library/Developer/Xcode/DerivedData
    // when empty.
    std::filesystem::path derivedDataFolder{};
    // The moment written as the item's pubDate; now when unset.
    std::function<std::time_t()> clock{};

    // The configured sign_update, else the project's resolved package's, else nothing (the
    // native signer signs). Throws VeltraError when the configured one is no executable file.
    std::optional<std::filesystem::path> locateSignUpdate(StopToken stop = {}) const;

    // The sign_update of the Sparkle package resolved for `project`: in the DerivedData folder
    // whose info.plist names the project as its WorkspacePath,
    // SourcePackages/artifacts/sparkle/Sparkle/bin/sign_update.
    static std::optional<std::filesystem::path>
    resolvedPackageTool(const std::filesystem::path& project,
                        const std::filesystem::path& derivedDataFolder);

    // Signs the disk image with the key at `privateKeyPath` ("~" expanded).
    SparkleSignResult sign(const std::filesystem::path& dmg, const std::string& appName,
                           const std::string& privateKeyPath, StopToken stop = {}) const;
    // Signs it with a keychain's key.
    SparkleSignResult sign(const std::filesystem::path& dmg, const std::string& appName,
                           const KeychainSigningKey& key, StopToken stop = {}) const;

    // Puts the release first in the feed at `appcastPath` and rewrites it atomically, after
    // checking that the new text reads back with the release's values. The build number is
    // checked before the file is read.
    void updateFeed(const std::filesystem::path& appcastPath, const AppcastRelease& release) const;

    // Leaves the first `keep` items (Veltra puts the newest first) and rewrites the feed
    // atomically when any go; the items that left, in document order.
    std::vector<SparkleFeedItem> keepNewest(const std::filesystem::path& appcastPath,
                                            int keep) const;

    // Writes an empty feed; refuses to replace an existing file.
    void createStubFeed(const std::filesystem::path& appcastPath, const std::string& appName,
                        const std::string& siteURL = {}) const;

    // The first sparkle:edSignature="…" value in sign_update's output.
    static std::optional<std::string> signatureFromToolOutput(std::string_view output);

private:
    // sign_update with `toolKey` (its options naming the key) when one is found, else the native
    // signer with the key `load` gives, described as `keyDescription`.
    SparkleSignResult signNatively(const std::filesystem::path& dmg, const SparklePrivateKey& key,
                                   const std::string& keyDescription, StopToken stop) const;
    SparkleSignResult signWith(const std::filesystem::path& dmg, const std::string& appName,
                               const std::vector<std::string>& toolKey,
                               const std::function<SparklePrivateKey()>& load,
                               const std::string& keyDescription, StopToken stop) const;

private:
    void emit(const std::string& line) const;
    std::filesystem::path derivedData() const;
};

} // namespace veltra
