#include "NativeEd25519Signer.h"

#include "core/support/Base64.h"
#include "core/support/VeltraError.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <sodium.h>
#include <span>
#include <unistd.h>
#include <vector>

#include <fmt/format.h>

namespace veltra {

namespace {

constexpr std::size_t chunkSize = 1 << 20;

VeltraError signingError(const std::string& message) {
    return VeltraError("Veltra.Sparkle", 2, message);
}

class Digest {
public:
    explicit Digest(const EVP_MD* algorithm) : context_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
        if (!context_ || EVP_DigestInit_ex(context_.get(), algorithm, nullptr) != 1) {
            throw signingError("OpenSSL could not start a hash.");
        }
    }

    void update(std::span<const std::uint8_t> bytes) {
        if (EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) != 1) {
            throw signingError("OpenSSL could not hash the file.");
        }
    }

    std::vector<std::uint8_t> finish() {
        std::vector<std::uint8_t> out(EVP_MAX_MD_SIZE);
        unsigned int length = 0;
        if (EVP_DigestFinal_ex(context_.get(), out.data(), &length) != 1) {
            throw signingError("OpenSSL could not finish a hash.");
        }
        out.resize(length);
        return out;
    }

private:
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context_{nullptr, &EVP_MD_CTX_free};
};

class OpenFile {
public:
    explicit OpenFile(const std::filesystem::path& path) : path_(path) {
        descriptor_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (descriptor_ < 0) {
            throw signingError(fmt::format("Could not read {} to sign it: {}", path.string(),
                                           std::strerror(errno)));
        }
    }
    ~OpenFile() { ::close(descriptor_); }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    // Feeds the whole file to each consumer in chunks; returns its length.
    std::uint64_t readAll(std::vector<std::uint8_t>& buffer, StopToken& stop,
                          const std::function<void(std::span<const std::uint8_t>)>& consume) {
        if (::lseek(descriptor_, 0, SEEK_SET) != 0) {
            throw signingError(fmt::format("Could not read {} to sign it: {}", path_.string(),
                                           std::strerror(errno)));
        }
        std::uint64_t total = 0;
        for (;;) {
            if (stop.stop_requested()) {
                throw CancellationError();
            }
            const auto got = ::read(descriptor_, buffer.data(), buffer.size());
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got < 0) {
                throw signingError(fmt::format("Could not read {} to sign it: {}", path_.string(),
                                               std::strerror(errno)));
            }
            if (got == 0) {
                return total;
            }
            consume(std::span(buffer.data(), static_cast<std::size_t>(got)));
            total += static_cast<std::uint64_t>(got);
        }
    }

private:
    std::filesystem::path path_;
    int descriptor_ = -1;
};

std::array<std::uint8_t, 32> reduce(const std::vector<std::uint8_t>& wide) {
    std::array<std::uint8_t, 32> scalar{};
    crypto_core_ed25519_scalar_reduce(scalar.data(), wide.data());
    return scalar;
}

std::string hex(std::span<const std::uint8_t> bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const auto byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0xF];
    }
    return text;
}

} // namespace

std::string FileSignature::signatureBase64() const {
    return base64::encode(signature);
}

// The expanded-key form of Ed25519 signing (RFC 8032 section 5.1.6 from step 2), which works for
// both key files: r = H(prefix || M), R = rB, k = H(R || A || M), S = r + k a (mod L).
FileSignature NativeEd25519Signer::signFile(const SparklePrivateKey& key,
                                            const std::filesystem::path& file, StopToken stop) {
    if (sodium_init() < 0) {
        throw signingError("The Ed25519 library could not start.");
    }
    OpenFile input(file);
    std::vector<std::uint8_t> buffer(chunkSize);

    Digest nonceHash(EVP_sha512());
    Digest fileHash(EVP_sha256());
    nonceHash.update(key.prefix);
    const auto length = input.readAll(buffer, stop, [&](std::span<const std::uint8_t> chunk) {
        nonceHash.update(chunk);
        fileHash.update(chunk);
    });
    auto nonceWide = nonceHash.finish();
    auto r = reduce(nonceWide);
    OPENSSL_cleanse(nonceWide.data(), nonceWide.size());

    FileSignature result;
    result.length = length;
    result.sha256 = hex(fileHash.finish());
    auto* bigR = result.signature.data();
    auto* s = result.signature.data() + 32;
    if (crypto_scalarmult_ed25519_base_noclamp(bigR, r.data()) != 0) {
        throw signingError("The Ed25519 library could not sign the file.");
    }

    Digest challengeHash(EVP_sha512());
    challengeHash.update(std::span(bigR, 32));
    challengeHash.update(key.publicKey);
    const auto again = input.readAll(
        buffer, stop, [&](std::span<const std::uint8_t> chunk) { challengeHash.update(chunk); });
    if (again != length) {
        throw signingError(fmt::format("{} changed while it was being signed.", file.string()));
    }
    const auto k = reduce(challengeHash.finish());

    std::vector<std::uint8_t> scalarWide(64, 0);
    std::copy(key.scalar.begin(), key.scalar.end(), scalarWide.begin());
    auto a = reduce(scalarWide);
    std::array<std::uint8_t, 32> ka{};
    crypto_core_ed25519_scalar_mul(ka.data(), k.data(), a.data());
    crypto_core_ed25519_scalar_add(s, r.data(), ka.data());
    OPENSSL_cleanse(a.data(), a.size());
    OPENSSL_cleanse(r.data(), r.size());
    OPENSSL_cleanse(ka.data(), ka.size());
    OPENSSL_cleanse(scalarWide.data(), scalarWide.size());
    return result;
}

} // namespace veltra
