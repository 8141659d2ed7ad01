#include "FileDigest.h"

#include "VeltraError.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <openssl/evp.h>
#include <vector>

namespace veltra {

std::string sha256Hex(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw VeltraError("POSIX", errno,
                          "Could not read " + file.string() + ": " + std::strerror(errno));
    }
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          &EVP_MD_CTX_free);
    EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr);
    std::vector<char> buffer(1 << 20);
    while (in) {
        in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        if (in.gcount() > 0) {
            EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(in.gcount()));
        }
    }
    if (in.bad()) {
        throw VeltraError("POSIX", EIO, "Could not read " + file.string());
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context.get(), digest, &length);
    static constexpr char hex[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        text += hex[digest[i] >> 4];
        text += hex[digest[i] & 0xF];
    }
    return text;
}

} // namespace veltra
