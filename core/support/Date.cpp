#include "Date.h"

#include <cmath>
#include <ctime>

#include <fmt/format.h>

namespace veltra {

Date Date::now() {
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    return fromUnixTime(std::chrono::duration<double>(since).count());
}

std::string Date::iso8601() const {
    const auto seconds = static_cast<std::time_t>(std::floor(unixTime()));
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", utc.tm_year + 1900, utc.tm_mon + 1,
                       utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
}

} // namespace veltra
