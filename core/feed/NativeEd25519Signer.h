#pragma once

#include "SparklePrivateKey.h"
#include "core/support/StopToken.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>

namespace veltra {

struct FileSignature {
    // Pure Ed25519 (RFC 8032, no pre-hash) over the whole file.
    std::array<std::uint8_t, 64> signature{};
    std::uint64_t length = 0;
    // SHA-256 of the file, lower-case hex, from the same read.
    std::string sha256;

    std::string signatureBase64() const;
};

// Signs files the way Sparkle's sign_update does, without the tool. Memory stays flat whatever
// the file's size: the file is read twice in fixed-size chunks (Ed25519 hashes the message once
// for the nonce and once for the challenge), with the SHA-256 taken on the first pass.
class NativeEd25519Signer {
public:
    // Throws VeltraError when the file cannot be read or changes size between the passes, and
    // CancellationError when stop is requested.
    static FileSignature signFile(const SparklePrivateKey& key, const std::filesystem::path& file,
                                  StopToken stop = {});
};

} // namespace veltra
