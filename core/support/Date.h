#pragma once

#include <chrono>
#include <compare>
#include <string>

namespace veltra {

// A moment as seconds since 2001-01-01T00:00:00Z, the form profile files store, kept as the
// double that was read so that equality is exact.
struct Date {
    double secondsSinceReferenceDate = 0;

    // 2001-01-01 is this many seconds after the Unix epoch.
    static constexpr double referenceDateUnixTime = 978307200.0;

    static Date now();
    static Date fromUnixTime(double seconds) { return {seconds - referenceDateUnixTime}; }
    double unixTime() const { return secondsSinceReferenceDate + referenceDateUnixTime; }
    // "2026-11-21T12:39:00Z"
    std::string iso8601() const;

    auto operator<=>(const Date&) const = default;
};

} // namespace veltra
