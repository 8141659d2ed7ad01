#pragma once

#include <cstdint>
#include <string_view>

namespace veltra {

// A build number as feeds and the writer read it: base-10 digits with an optional leading "+"
// or "-", nothing else (no spaces), within a signed 64-bit integer.
struct BuildNumber {
    enum class Status { valid, notAnInteger, outOfRange };

    Status status = Status::notAnInteger;
    std::int64_t value = 0;

    static BuildNumber parse(std::string_view text) noexcept;
    bool isValid() const noexcept { return status == Status::valid; }
};

} // namespace veltra
