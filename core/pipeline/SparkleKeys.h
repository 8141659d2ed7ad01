#pragma once

#include "core/feed/SparklePrivateKey.h"
#include "core/records/SparkleConfig.h"
#include "core/support/StopToken.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace veltra {

// Where a Sparkle signing key is kept: in the login keychain the way Sparkle's own key tool
// keeps it (a generic password of service https://sparkle-project.org, its account naming the
// key, the base64 seed as its data), so that Sparkle's tools and Veltra find the same key; or
// in a key file readable by its owner only.
struct SparkleKeyLocation {
    std::string account{"ed25519"};
    // None: the keychain.
    std::optional<std::filesystem::path> file{};

    // "the login keychain (account ed25519)" or the file's path.
    std::string description() const;
};

class SparkleKeys {
public:
    static constexpr std::string_view keychainService = "https://sparkle-project.org";
    static constexpr std::string_view defaultAccount = "ed25519";
    static constexpr std::string_view keychainLabel = "Private key for signing Sparkle updates";

    // `file` when given; else the keychain, or where this machine has none the key file
    // ~/.sparkle/<account>_priv (~/.sparkle/ed25519_priv for the default account).
    static SparkleKeyLocation locate(std::string account = std::string(defaultAccount),
                                     std::optional<std::filesystem::path> file = std::nullopt);
    // The key a profile's releases are signed with: its key file, or when it names none the key
    // Sparkle's tools keep (as sign_update finds it).
    static SparkleKeyLocation ofProfile(const SparkleConfig& sparkle);
    // Makes a new key there and returns its public key. Never replaces a key (VeltraError).
    static std::string generate(const SparkleKeyLocation& location, StopToken stop = {});
    // The key kept there; VeltraError when there is none or it cannot be read.
    static SparklePrivateKey load(const SparkleKeyLocation& location, StopToken stop = {});
    // Writes the keychain's key of `account` to a new file (0600, never over an existing file).
    static void exportToFile(const std::string& account, const std::filesystem::path& file,
                             StopToken stop = {});
    // Stores a key file's key in the keychain under `account` and returns its public key.
    // Never replaces a keychain key (VeltraError).
    static std::string importFile(const std::filesystem::path& file, const std::string& account,
                                  StopToken stop = {});
};

} // namespace veltra
