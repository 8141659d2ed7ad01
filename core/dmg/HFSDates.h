#pragma once

// Dates as HFS+ keeps them (TN1150): seconds since 1904; a volume's creation date in local
// time, every other date in UTC.

#include <cstdint>
#include <ctime>

namespace veltra {

// Seconds from 1904-01-01 (the HFS epoch) to 1970-01-01.
constexpr std::int64_t hfsEpochOffset = 2'082'844'800;

// This machine's offset from UTC at `when` (seconds east), as localtime gives it.
inline std::int32_t utcOffsetAt(std::int64_t when) {
    const auto time = static_cast<std::time_t>(when);
    std::tm local{};
    if (::localtime_r(&time, &local) == nullptr) {
        return 0;
    }
    return static_cast<std::int32_t>(local.tm_gmtoff);
}

// A volume header's creation date for `unixSeconds`: local time since 1904.
inline std::uint32_t hfsVolumeCreateDate(std::int64_t unixSeconds) {
    return static_cast<std::uint32_t>(unixSeconds + utcOffsetAt(unixSeconds) + hfsEpochOffset);
}

// The moment a volume header's (local) creation date names.
inline std::int64_t unixTimeOfVolumeCreateDate(std::uint32_t createDate) {
    const auto asUTC = static_cast<std::int64_t>(createDate) - hfsEpochOffset;
    return asUTC - utcOffsetAt(asUTC - utcOffsetAt(asUTC));
}

} // namespace veltra
