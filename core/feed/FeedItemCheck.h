#pragma once

#include "SparkleFeedItem.h"

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

// Why an item cannot be installed as it stands, each reason a phrase: "build 'abc' is not a
// number", "length '-3' is not a byte count". Empty for a good item. Only what the item says
// counts (no value filled in by the reading rules).
std::vector<std::string> feedItemProblems(const SparkleFeedItem& item);

// Checks an Ed25519 signature over bytes that arrive in pieces (a download), in flat memory:
// verifying needs one pass over the message, unlike signing.
class Ed25519StreamVerifier {
public:
    // Empty `problem()` when the key is 32 bytes of base64 and the signature 64.
    Ed25519StreamVerifier(std::string_view publicKeyBase64, std::string_view signatureBase64);
    ~Ed25519StreamVerifier();
    Ed25519StreamVerifier(const Ed25519StreamVerifier&) = delete;
    Ed25519StreamVerifier& operator=(const Ed25519StreamVerifier&) = delete;

    const std::string& problem() const { return problem_; }
    void update(std::span<const std::uint8_t> bytes);
    void update(std::string_view bytes);
    // Whether the signature holds for everything given.
    bool finish();

private:
    struct Hash;
    std::unique_ptr<Hash> hash_;
    std::array<std::uint8_t, 32> key_{};
    std::array<std::uint8_t, 64> signature_{};
    std::string problem_;
};

} // namespace veltra
