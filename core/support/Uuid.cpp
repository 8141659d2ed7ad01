#include "Uuid.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/random.h>
#include <unistd.h>

namespace veltra {

Uuid Uuid::random() {
    // The system's random source, every call: names made from these must not be guessable.
    Uuid uuid;
    if (::getentropy(uuid.bytes_.data(), uuid.bytes_.size()) != 0) {
        throw std::runtime_error(std::string("The system's random source failed: ") +
                                 std::strerror(errno));
    }
    uuid.bytes_[6] = static_cast<std::uint8_t>((uuid.bytes_[6] & 0x0F) | 0x40);
    uuid.bytes_[8] = static_cast<std::uint8_t>((uuid.bytes_[8] & 0x3F) | 0x80);
    return uuid;
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
    if (text.size() != 36) {
        return std::nullopt;
    }
    Uuid uuid;
    std::size_t byte = 0;
    for (std::size_t i = 0; i < text.size();) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (text[i] != '-') {
                return std::nullopt;
            }
            ++i;
            continue;
        }
        int value = 0;
        for (int half = 0; half < 2; ++half, ++i) {
            const char c = text[i];
            int digit = 0;
            if (c >= '0' && c <= '9') {
                digit = c - '0';
            } else if (c >= 'a' && c <= 'f') {
                digit = c - 'a' + 10;
            } else if (c >= 'A' && c <= 'F') {
                digit = c - 'A' + 10;
            } else {
                return std::nullopt;
            }
            value = value * 16 + digit;
        }
        uuid.bytes_[byte++] = static_cast<std::uint8_t>(value);
    }
    return uuid;
}

std::string Uuid::string() const {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(36);
    for (std::size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            out += '-';
        }
        out += digits[bytes_[i] >> 4];
        out += digits[bytes_[i] & 0x0F];
    }
    return out;
}

} // namespace veltra
