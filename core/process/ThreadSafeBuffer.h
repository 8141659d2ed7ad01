#pragma once

#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace veltra {

// Captured output of one stream. With a limit it keeps only the most recent `limit` bytes (the
// tail, which is what error reports need), in a ring so a chatty tool costs no copying.
class ThreadSafeBuffer {
public:
    explicit ThreadSafeBuffer(std::optional<std::size_t> limit = std::nullopt);

    void append(std::string_view bytes);
    // The retained bytes decoded as UTF-8, invalid sequences replaced by U+FFFD.
    std::string string() const;
    // The retained bytes as they are.
    std::string bytes() const;

private:
    std::string linearLocked() const;

    mutable std::mutex lock_;
    std::optional<std::size_t> limit_;
    std::string data_;
    // With a limit, once data_ has reached it, data_ is a ring and start_ its oldest byte.
    std::size_t start_ = 0;
};

} // namespace veltra
