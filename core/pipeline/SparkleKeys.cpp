#include "SparkleKeys.h"

#include "core/signing/KeychainItems.h"
#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"

#include <cerrno>
#include <openssl/crypto.h>

namespace veltra {
namespace {

VeltraError keyError(int code, const std::string& message) {
    return VeltraError("Veltra.Sparkle", code, message);
}

// Wiped when it goes out of scope.
struct SecretText {
    std::string text;
    ~SecretText() { OPENSSL_cleanse(text.data(), text.capacity()); }
};

std::string keychainComment(const std::string& publicKey) {
    return "Public key (SUPublicEDKey value) for this key is: " + publicKey;
}

SecretText keychainText(const std::string& account, StopToken stop) {
    auto found =
        KeychainItems::find(std::string(SparkleKeys::keychainService), account, std::move(stop));
    if (!found) {
        throw keyError(errorCode::notFound,
                       "No Sparkle key for account " + account +
                           " in the login keychain. Make one with 'veltra sparkle keys generate" +
                           (account == SparkleKeys::defaultAccount ? "" : " --account " + account) +
                           "'.");
    }
    return {std::move(*found)};
}

} // namespace

std::string SparkleKeyLocation::description() const {
    return file ? file->string() : "the login keychain (account " + account + ")";
}

SparkleKeyLocation SparkleKeys::locate(std::string account,
                                       std::optional<std::filesystem::path> file) {
    if (account.empty()) {
        account = defaultAccount;
    }
    // It names a key file too, so it stays a plain name.
    const bool plain =
        account.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                  "0123456789._@-") == std::string::npos;
    if (!plain || account.starts_with('.') || account.starts_with('-')) {
        throw keyError(errorCode::invalidSetup,
                       "A key's account is a plain name of letters, digits and . _ @ - (not '" +
                           account + "').");
    }
    if (!file && !KeychainItems::available()) {
        file = homeDirectory() / ".sparkle" / (account + "_priv");
    }
    return {std::move(account), std::move(file)};
}

SparkleKeyLocation SparkleKeys::ofProfile(const SparkleConfig& sparkle) {
    if (sparkle.privateKeyPath.empty()) {
        return locate();
    }
    return {std::string(defaultAccount), expandTilde(standardizePath(sparkle.privateKeyPath))};
}

std::string SparkleKeys::generate(const SparkleKeyLocation& location, StopToken stop) {
    if (location.file) {
        return SparklePrivateKey::createFile(*location.file);
    }
    const SecretText seed{SparklePrivateKey::newSeedText()};
    const auto publicKey = SparklePrivateKey::fromText(seed.text, "just made").publicKeyBase64();
    try {
        KeychainItems::add(std::string(keychainService), location.account,
                           std::string(keychainLabel), keychainComment(publicKey), seed.text,
                           std::move(stop));
    } catch (const VeltraError& error) {
        if (error.code() == KeychainItems::itemExists) {
            throw keyError(errorCode::conflict,
                           "A Sparkle key for account " + location.account +
                               " is in the login keychain already; it is never replaced. "
                               "'veltra sparkle keys show' prints its public key.");
        }
        throw;
    }
    return publicKey;
}

SparklePrivateKey SparkleKeys::load(const SparkleKeyLocation& location, StopToken stop) {
    if (location.file) {
        return SparklePrivateKey::readFile(*location.file);
    }
    auto text = keychainText(location.account, std::move(stop));
    return SparklePrivateKey::fromText(text.text,
                                       "in the login keychain (account " + location.account + ")");
}

void SparkleKeys::exportToFile(const std::string& account, const std::filesystem::path& file,
                               StopToken stop) {
    if (std::filesystem::exists(std::filesystem::symlink_status(file))) {
        throw keyError(errorCode::conflict, "A file is at " + file.string() +
                                                " already; the key is never written over one.");
    }
    auto text = keychainText(account, std::move(stop));
    // Checked before it leaves the keychain: a file that no tool can read helps nobody.
    SparklePrivateKey::fromText(text.text, "in the login keychain (account " + account + ")");
    try {
        writeSecretFile(file, text.text);
    } catch (const VeltraError& error) {
        if (error.code() == EEXIST) {
            throw keyError(errorCode::conflict, "A file is at " + file.string() +
                                                    " already; the key is never written over one.");
        }
        throw;
    }
}

std::string SparkleKeys::importFile(const std::filesystem::path& file, const std::string& account,
                                    StopToken stop) {
    const auto key = SparklePrivateKey::readFile(file);
    SecretText text{readFile(file)};
    const auto trimmedEnd = text.text.find_last_not_of(" \t\r\n");
    text.text.erase(trimmedEnd == std::string::npos ? 0 : trimmedEnd + 1);
    const auto trimmedBegin = text.text.find_first_not_of(" \t\r\n");
    text.text.erase(0, trimmedBegin == std::string::npos ? text.text.size() : trimmedBegin);
    const auto publicKey = key.publicKeyBase64();
    try {
        KeychainItems::add(std::string(keychainService), account, std::string(keychainLabel),
                           keychainComment(publicKey), text.text, std::move(stop));
    } catch (const VeltraError& error) {
        if (error.code() == KeychainItems::itemExists) {
            throw keyError(errorCode::conflict,
                           "A Sparkle key for account " + account +
                               " is in the login keychain already; it is never replaced.");
        }
        throw;
    }
    return publicKey;
}

} // namespace veltra
