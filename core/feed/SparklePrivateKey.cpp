#include "SparklePrivateKey.h"

#include "core/support/Base64.h"
#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <openssl/crypto.h>
#include <openssl/sha.h>
#include <sodium.h>

#include <fmt/format.h>

namespace veltra {

namespace {

VeltraError keyError(const std::string& message) {
    return VeltraError("Veltra.Sparkle", 1, message);
}

} // namespace

SparklePrivateKey::~SparklePrivateKey() {
    OPENSSL_cleanse(scalar.data(), scalar.size());
    OPENSSL_cleanse(prefix.data(), prefix.size());
}

std::string SparklePrivateKey::newSeedText() {
    std::array<std::uint8_t, 32> seed{};
    if (sodium_init() < 0) {
        throw keyError("The Ed25519 library could not start.");
    }
    randombytes_buf(seed.data(), seed.size());
    auto text = base64::encode(seed);
    OPENSSL_cleanse(seed.data(), seed.size());
    return text;
}

std::string SparklePrivateKey::publicKeyBase64() const {
    return base64::encode(publicKey);
}

std::string SparklePrivateKey::createFile(const std::filesystem::path& path) {
    if (std::filesystem::exists(path)) {
        throw keyError("A Sparkle key already exists at " + path.string() + ".");
    }
    auto text = newSeedText();
    const auto key = fromText(text, "just made");
    text += '\n';
    try {
        writeSecretFile(path, text);
    } catch (const VeltraError& error) {
        OPENSSL_cleanse(text.data(), text.size());
        if (error.code() == EEXIST) {
            throw keyError("A Sparkle key already exists at " + path.string() + ".");
        }
        throw;
    }
    OPENSSL_cleanse(text.data(), text.size());
    return key.publicKeyBase64();
}

SparklePrivateKey SparklePrivateKey::fromSeed(const std::array<std::uint8_t, 32>& seed) {
    std::array<std::uint8_t, 64> hash{};
    SHA512(seed.data(), seed.size(), hash.data());
    SparklePrivateKey key;
    std::copy_n(hash.begin(), 32, key.scalar.begin());
    std::copy_n(hash.begin() + 32, 32, key.prefix.begin());
    OPENSSL_cleanse(hash.data(), hash.size());
    key.scalar[0] &= 248;
    key.scalar[31] &= 63;
    key.scalar[31] |= 64;
    if (sodium_init() < 0 ||
        crypto_scalarmult_ed25519_base_noclamp(key.publicKey.data(), key.scalar.data()) != 0) {
        throw keyError("The Ed25519 library could not derive the public key.");
    }
    return key;
}

SparklePrivateKey SparklePrivateKey::readFile(const std::filesystem::path& path) {
    std::string text;
    try {
        text = veltra::readFile(path);
    } catch (const VeltraError&) {
        throw keyError(
            fmt::format("Could not read the Sparkle private key at '{}'.", path.string()));
    }
    return fromText(std::move(text), fmt::format("at '{}'", path.string()));
}

SparklePrivateKey SparklePrivateKey::fromText(std::string text, const std::string& where) {
    const auto isSpace = [](unsigned char c) { return std::isspace(c) != 0; };
    const auto begin = std::ranges::find_if_not(text, isSpace);
    const auto end =
        std::find_if_not(text.rbegin(), std::make_reverse_iterator(begin), isSpace).base();
    auto decoded = base64::decode(std::string_view(begin, end));
    OPENSSL_cleanse(text.data(), text.size());
    if (!decoded) {
        throw keyError(fmt::format("The Sparkle private key {} is not base64 text.", where));
    }
    const auto size = decoded->size();
    SparklePrivateKey key;
    if (size == 32) {
        std::array<std::uint8_t, 32> seed{};
        std::copy_n(decoded->begin(), 32, seed.begin());
        key = fromSeed(seed);
        OPENSSL_cleanse(seed.data(), seed.size());
    } else if (size == 96) {
        std::copy_n(decoded->begin(), 32, key.scalar.begin());
        std::copy_n(decoded->begin() + 32, 32, key.prefix.begin());
        std::copy_n(decoded->begin() + 64, 32, key.publicKey.begin());
    }
    OPENSSL_cleanse(decoded->data(), decoded->size());
    if (size != 32 && size != 96) {
        throw keyError(fmt::format("The Sparkle private key {} must decode to 32 bytes (a "
                                   "seed) or 96 bytes (the older expanded key), not {} bytes.",
                                   where, size));
    }
    return key;
}

} // namespace veltra
