// The native signer against one-shot Ed25519 from OpenSSL, for both of Sparkle's key files, and
// the streaming verifier against the same signatures (a wrong key, byte or signature fails).

#include "TestSupport.h"
#include "core/feed/FeedItemCheck.h"
#include "core/feed/NativeEd25519Signer.h"
#include "core/support/Base64.h"
#include "core/support/StopToken.h"
#include "core/support/VeltraError.h"

#include <openssl/evp.h>
#include <openssl/sha.h>
#include <random>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace veltra {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes fromHex(std::string_view hex) {
    Bytes bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        bytes.push_back(
            static_cast<std::uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
    }
    return bytes;
}

Bytes oneShotSignature(const std::array<std::uint8_t, 32>& seed, const Bytes& message) {
    EVP_PKEY* key =
        EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed.data(), seed.size());
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    Bytes signature(64);
    std::size_t length = signature.size();
    EXPECT_EQ(EVP_DigestSignInit(context, nullptr, nullptr, nullptr, key), 1);
    EXPECT_EQ(EVP_DigestSign(context, signature.data(), &length, message.data(), message.size()),
              1);
    EVP_MD_CTX_free(context);
    EVP_PKEY_free(key);
    return signature;
}

std::string sha256Hex(const Bytes& message) {
    std::array<std::uint8_t, 32> digest{};
    SHA256(message.data(), message.size(), digest.data());
    std::string text;
    for (const auto byte : digest) {
        text += fmt::format("{:02x}", byte);
    }
    return text;
}

void writeBytes(const std::filesystem::path& path, const Bytes& bytes) {
    testing::writeFile(path,
                       std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

// The two files Sparkle's key tool writes for one seed: the seed itself (no newline, as the tool
// writes it) and the older expanded secret (with the newline a hand-made file often has).
struct KeyFiles {
    std::filesystem::path seedFile;
    std::filesystem::path legacyFile;
};

KeyFiles writeKeyFiles(const testing::TempDir& dir, const std::array<std::uint8_t, 32>& seed) {
    const auto expanded = SparklePrivateKey::fromSeed(seed);
    Bytes legacy(expanded.scalar.begin(), expanded.scalar.end());
    legacy.insert(legacy.end(), expanded.prefix.begin(), expanded.prefix.end());
    legacy.insert(legacy.end(), expanded.publicKey.begin(), expanded.publicKey.end());
    KeyFiles files{dir / "seed_priv", dir / "legacy_priv"};
    testing::writeFile(files.seedFile, base64::encode(seed));
    testing::writeFile(files.legacyFile, base64::encode(legacy) + "\n");
    return files;
}

TEST(NativeEd25519Signer, MatchesTheRfc8032Vectors) {
    testing::TempDir dir;
    struct Vector {
        const char* seed;
        const char* message;
        const char* signature;
    };
    const Vector vectors[] = {
        {"9d61b19deffd5a60ba844af492ec2cc44449c5697b326919703bac031cae7f60", "",
         "e5564300c360ac729086e2cc806e828a84877f1eb8e5d974d873e065224901555fb8821590a33bacc61e39701"
         "cf9b46bd25bf5f0595bbe24655141438e7a100b"},
        {"4ccd089b28ff96da9db6c346ec114e0f5b8a319f35aba624da8cf6ed4fb8a6fb", "72",
         "92a009a9f0d4cab8720e820b5f642540a2b27b5416503f8fb3762223ebdb69da085ac1e43e15996e458f3613d"
         "0f11d8c387b2eaeb4302aeeb00d291612bb0c00"},
        {"c5aa8df43f9f837bedb7442f31dcb7b166d38535076f094b85ce3a2e0b4458f7", "af82",
         "6291d657deec24024827e69c3abe01a30ce548a284743a445e3680d7db5ac3ac18ff9b538d16f290ae67f7609"
         "84dc6594a7c15e9716ed28dc027beceea1ec40a"},
    };
    for (const auto& vector : vectors) {
        SCOPED_TRACE(vector.seed);
        std::array<std::uint8_t, 32> seed{};
        const auto seedBytes = fromHex(vector.seed);
        std::copy(seedBytes.begin(), seedBytes.end(), seed.begin());
        const auto files = writeKeyFiles(dir, seed);
        writeBytes(dir / "message", fromHex(vector.message));
        for (const auto& keyFile : {files.seedFile, files.legacyFile}) {
            const auto result = NativeEd25519Signer::signFile(SparklePrivateKey::readFile(keyFile),
                                                              dir / "message");
            EXPECT_EQ(Bytes(result.signature.begin(), result.signature.end()),
                      fromHex(vector.signature));
        }
    }
}

TEST(NativeEd25519Signer, IsByteIdenticalToOneShotSigningForAnySize) {
    testing::TempDir dir;
    std::mt19937_64 random(20261121);
    std::vector<std::size_t> sizes{0, 1, 63, 64, 65, (1U << 20) + 1, (1U << 20) - 1, 2U << 20};
    for (int i = 0; i < 300; ++i) {
        sizes.push_back(random() % 9000);
    }
    for (const auto size : sizes) {
        SCOPED_TRACE(size);
        std::array<std::uint8_t, 32> seed{};
        for (auto& byte : seed) {
            byte = static_cast<std::uint8_t>(random());
        }
        Bytes message(size);
        for (auto& byte : message) {
            byte = static_cast<std::uint8_t>(random());
        }
        writeBytes(dir / "file", message);
        const auto files = writeKeyFiles(dir, seed);
        const auto expected = oneShotSignature(seed, message);
        for (const auto& keyFile : {files.seedFile, files.legacyFile}) {
            const auto result =
                NativeEd25519Signer::signFile(SparklePrivateKey::readFile(keyFile), dir / "file");
            ASSERT_EQ(Bytes(result.signature.begin(), result.signature.end()), expected);
            EXPECT_EQ(result.length, size);
            EXPECT_EQ(result.sha256, sha256Hex(message));
            EXPECT_EQ(result.signatureBase64(), base64::encode(expected));
        }
    }
}

TEST(SparklePrivateKey, RefusesFilesItCannotUseAndSaysWhy) {
    testing::TempDir dir;
    const auto refusal = [&dir](std::string_view contents) {
        testing::writeFile(dir / "key", contents);
        try {
            SparklePrivateKey::readFile(dir / "key");
        } catch (const VeltraError& error) {
            return std::string(error.what());
        }
        return std::string("accepted");
    };
    const auto path = (dir / "key").string();
    EXPECT_EQ(refusal(base64::encode(Bytes(64, 7))),
              "The Sparkle private key at '" + path +
                  "' must decode to 32 bytes (a seed) or 96 bytes (the older expanded key), not 64 "
                  "bytes.");
    EXPECT_EQ(refusal("not base64 at all!"),
              "The Sparkle private key at '" + path + "' is not base64 text.");
    // Unpadded base64 is refused, as Sparkle's tools refuse it.
    EXPECT_EQ(refusal(base64::encode(Bytes(32, 1)).substr(0, 43)),
              "The Sparkle private key at '" + path + "' is not base64 text.");
    EXPECT_EQ(refusal("  \n" + base64::encode(Bytes(32, 1)) + " \r\n"), "accepted");
    std::filesystem::remove(dir / "key");
    EXPECT_EQ(refusal(""), "The Sparkle private key at '" + path +
                               "' must decode to 32 bytes (a "
                               "seed) or 96 bytes (the older "
                               "expanded key), not 0 bytes.");
    try {
        SparklePrivateKey::readFile(dir / "missing");
        FAIL();
    } catch (const VeltraError& error) {
        EXPECT_EQ(std::string(error.what()), "Could not read the Sparkle private key at '" +
                                                 (dir / "missing").string() + "'.");
    }
}

TEST(NativeEd25519Signer, StopsWhenAskedAndReportsUnreadableFiles) {
    testing::TempDir dir;
    writeBytes(dir / "file", Bytes(3 << 20, 1));
    const auto key = SparklePrivateKey::fromSeed({});
    StopSource stop;
    stop.request_stop();
    EXPECT_THROW(NativeEd25519Signer::signFile(key, dir / "file", stop.get_token()),
                 CancellationError);
    try {
        NativeEd25519Signer::signFile(key, dir / "absent.dmg");
        FAIL();
    } catch (const VeltraError& error) {
        EXPECT_EQ(std::string(error.what()), "Could not read " + (dir / "absent.dmg").string() +
                                                 " to sign it: No such file or directory");
    }
}

TEST(Ed25519StreamVerifier, AcceptsExactlyTheSignedBytesInAnyPieces) {
    std::mt19937_64 random(20261125);
    for (const std::size_t size : {0U, 1U, 200U, 70000U}) {
        SCOPED_TRACE(size);
        std::array<std::uint8_t, 32> seed{};
        for (auto& byte : seed) {
            byte = static_cast<std::uint8_t>(random());
        }
        Bytes message(size);
        for (auto& byte : message) {
            byte = static_cast<std::uint8_t>(random());
        }
        const auto key = base64::encode(SparklePrivateKey::fromSeed(seed).publicKey);
        const auto signature = base64::encode(oneShotSignature(seed, message));
        const auto verify = [&](const std::string& publicKey, const std::string& signed_,
                                const Bytes& bytes, std::size_t piece) {
            Ed25519StreamVerifier verifier(publicKey, signed_);
            for (std::size_t at = 0; at < bytes.size(); at += piece) {
                verifier.update(std::span(bytes).subspan(at, std::min(piece, bytes.size() - at)));
            }
            return verifier.finish();
        };
        EXPECT_TRUE(verify(key, signature, message, 1));
        EXPECT_TRUE(verify(key, signature, message, 4096));
        if (size > 0) {
            auto changed = message;
            changed[size / 2] ^= 1;
            EXPECT_FALSE(verify(key, signature, changed, 4096)) << "same length, other bytes";
        }
        auto otherSeed = seed;
        otherSeed[0] ^= 1;
        EXPECT_FALSE(verify(base64::encode(SparklePrivateKey::fromSeed(otherSeed).publicKey),
                            signature, message, 4096));
        auto bent = oneShotSignature(seed, message);
        bent[40] ^= 1;
        EXPECT_FALSE(verify(key, base64::encode(bent), message, 4096));
    }
    Ed25519StreamVerifier shortKey("AAAA", base64::encode(Bytes(64)));
    EXPECT_EQ(shortKey.problem(), "the public key is not 32 bytes of base64");
    EXPECT_FALSE(shortKey.finish());
}

} // namespace
} // namespace veltra
