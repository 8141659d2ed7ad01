#include "FeedItemCheck.h"

#include "core/support/Base64.h"

#include <memory>
#include <openssl/evp.h>
#include <sodium.h>

namespace veltra {
namespace {

bool isDecimal(std::string_view text) {
    return !text.empty() && text.size() <= 18 &&
           text.find_first_not_of("0123456789") == std::string_view::npos;
}

bool isWebAddress(std::string_view url) {
    for (const std::string_view scheme : {"https://", "http://"}) {
        if (url.starts_with(scheme) && url.size() > scheme.size() && url[scheme.size()] != '/' &&
            url.find_first_of(" \t\r\n\"<>") == std::string_view::npos) {
            return true;
        }
    }
    return false;
}

} // namespace

std::vector<std::string> feedItemProblems(const SparkleFeedItem& item) {
    std::vector<std::string> problems;
    const auto quoted = [](const std::string& text) { return "'" + text + "'"; };
    if (item.stated.version.empty()) {
        problems.emplace_back("it names no build (sparkle:version)");
    } else if (feedControls::buildProblem(item.stated.version)) {
        // Sparkle compares builds as dotted numbers (1.39.5.1); letters it cannot order.
        problems.push_back("its build " + quoted(item.stated.version) + " is not a number");
    }
    if (item.enclosureURL.empty()) {
        problems.emplace_back("it has no download (enclosure url)");
    } else if (!isWebAddress(item.enclosureURL)) {
        problems.push_back("its download " + quoted(item.enclosureURL) +
                           " is not an http(s) address");
    }
    if (!isDecimal(item.enclosureLength)) {
        problems.push_back("its length " + quoted(item.enclosureLength) + " is not a byte count");
    }
    const auto signature = base64::decode(item.edSignature);
    if (item.edSignature.empty()) {
        problems.emplace_back("it has no EdDSA signature");
    } else if (!signature || signature->size() != 64) {
        problems.push_back("its signature " + quoted(item.edSignature) +
                           " is not 64 bytes of base64");
    }
    if (!item.stated.phasedRolloutInterval.empty() && !item.controls.phasedRolloutSeconds) {
        problems.push_back("its phased rollout interval " +
                           quoted(item.stated.phasedRolloutInterval) +
                           " is not a number of seconds");
    }
    return problems;
}

struct Ed25519StreamVerifier::Hash {
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context{EVP_MD_CTX_new(),
                                                                    &EVP_MD_CTX_free};
};

Ed25519StreamVerifier::Ed25519StreamVerifier(std::string_view publicKeyBase64,
                                             std::string_view signatureBase64)
    : hash_(std::make_unique<Hash>()) {
    const auto key = base64::decode(publicKeyBase64);
    const auto signature = base64::decode(signatureBase64);
    if (!key || key->size() != key_.size()) {
        problem_ = "the public key is not 32 bytes of base64";
    } else if (!signature || signature->size() != signature_.size()) {
        problem_ = "the signature is not 64 bytes of base64";
    } else if (sodium_init() < 0 || !hash_->context ||
               EVP_DigestInit_ex(hash_->context.get(), EVP_sha512(), nullptr) != 1) {
        problem_ = "the Ed25519 library could not start";
    } else {
        std::copy(key->begin(), key->end(), key_.begin());
        std::copy(signature->begin(), signature->end(), signature_.begin());
        // k = SHA-512(R || A || M)
        EVP_DigestUpdate(hash_->context.get(), signature_.data(), 32);
        EVP_DigestUpdate(hash_->context.get(), key_.data(), key_.size());
    }
}

Ed25519StreamVerifier::~Ed25519StreamVerifier() = default;

void Ed25519StreamVerifier::update(std::span<const std::uint8_t> bytes) {
    if (problem_.empty()) {
        EVP_DigestUpdate(hash_->context.get(), bytes.data(), bytes.size());
    }
}

void Ed25519StreamVerifier::update(std::string_view bytes) {
    update(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

// RFC 8032 section 5.1.7: S below L, then [S]B = R + [k]A, compared as encodings.
bool Ed25519StreamVerifier::finish() {
    if (!problem_.empty()) {
        return false;
    }
    std::array<std::uint8_t, 64> wide{};
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(hash_->context.get(), wide.data(), &length) != 1 ||
        length != wide.size()) {
        return false;
    }
    const std::uint8_t* r = signature_.data();
    const std::uint8_t* s = signature_.data() + 32;
    // S must be canonical: reducing it changes nothing.
    std::array<std::uint8_t, 64> sWide{};
    std::copy(s, s + 32, sWide.begin());
    std::array<std::uint8_t, 32> sReduced{};
    crypto_core_ed25519_scalar_reduce(sReduced.data(), sWide.data());
    if (sodium_memcmp(sReduced.data(), s, 32) != 0 ||
        crypto_core_ed25519_is_valid_point(key_.data()) != 1 ||
        crypto_core_ed25519_is_valid_point(r) != 1) {
        return false;
    }
    std::array<std::uint8_t, 32> k{};
    crypto_core_ed25519_scalar_reduce(k.data(), wide.data());
    std::array<std::uint8_t, 32> sB{};
    std::array<std::uint8_t, 32> kA{};
    std::array<std::uint8_t, 32> sum{};
    if (crypto_scalarmult_ed25519_base_noclamp(sB.data(), s) != 0 ||
        crypto_scalarmult_ed25519_noclamp(kA.data(), k.data(), key_.data()) != 0 ||
        crypto_core_ed25519_add(sum.data(), r, kA.data()) != 0) {
        return false;
    }
    return sodium_memcmp(sB.data(), sum.data(), 32) == 0;
}

} // namespace veltra
