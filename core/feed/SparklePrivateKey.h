#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace veltra {

// An Ed25519 signing key in the expanded form signing needs, read from either file Sparkle's
// key tool writes: base64 of a 32-byte seed (Sparkle 2.6 and later) or of the older 96-byte
// secret (clamped scalar, nonce prefix, public key), which has no seed to recover.
struct SparklePrivateKey {
    std::array<std::uint8_t, 32> scalar{};
    std::array<std::uint8_t, 32> prefix{};
    std::array<std::uint8_t, 32> publicKey{};

    // Trims whitespace at both ends, decodes strict base64 and picks the form by length. Throws
    // VeltraError naming the file (never its contents) when it cannot be read or decoded, or
    // decodes to another length.
    static SparklePrivateKey readFile(const std::filesystem::path& path);
    // The same from the key's text kept elsewhere (a keychain item); `where` completes "The
    // Sparkle private key ..." in errors ("in the keychain (account ed25519)").
    static SparklePrivateKey fromText(std::string text, const std::string& where);
    static SparklePrivateKey fromSeed(const std::array<std::uint8_t, 32>& seed);
    // A new random seed as Sparkle's key tool keeps it: base64, no line break. Wipe it after use.
    static std::string newSeedText();
    // The public key as an app's SUPublicEDKey carries it (base64 of 32 bytes).
    std::string publicKeyBase64() const;
    // A new random key written as Sparkle 2.6's key tool writes it (base64 of the seed), readable
    // by its owner only; returns the public key in base64, as an app's SUPublicEDKey carries it.
    // Refuses to replace an existing file (VeltraError).
    static std::string createFile(const std::filesystem::path& path);

    ~SparklePrivateKey();
    SparklePrivateKey() = default;
    SparklePrivateKey(const SparklePrivateKey&) = default;
    SparklePrivateKey& operator=(const SparklePrivateKey&) = default;
};

} // namespace veltra
