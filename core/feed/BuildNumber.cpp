#include "BuildNumber.h"

#include <charconv>

namespace veltra {

BuildNumber BuildNumber::parse(std::string_view text) noexcept {
    // from_chars accepts "-" but not "+"; a "+" followed by a sign must still be refused.
    if (text.starts_with('+')) {
        text.remove_prefix(1);
        if (text.starts_with('-')) {
            return {};
        }
    }
    std::int64_t value = 0;
    const auto* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, 10);
    if (text.empty() || stop != end) {
        return {};
    }
    if (error == std::errc::result_out_of_range) {
        return {Status::outOfRange, 0};
    }
    if (error != std::errc()) {
        return {};
    }
    return {Status::valid, value};
}

} // namespace veltra
