#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace veltra {

// The numbers of a dotted version ("14.2.1" -> 14, 2, 1); parts that are not numbers are left
// out.
std::vector<std::int64_t> versionNumbers(std::string_view version);

// Negative, zero or positive as dotted version `a` sorts before, with or after `b`, number by
// number ("14.10" after "14.2"; a missing part counts as 0).
int compareVersions(std::string_view a, std::string_view b);

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
