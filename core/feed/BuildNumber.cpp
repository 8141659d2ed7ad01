#include "BuildNumber.h"

#include <algorithm>
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

std::vector<std::int64_t> versionNumbers(std::string_view version) {
    std::vector<std::int64_t> numbers;
    std::size_t start = 0;
    while (start <= version.size()) {
        auto end = version.find('.', start);
        if (end == std::string_view::npos) {
            end = version.size();
        }
        if (const auto number = BuildNumber::parse(version.substr(start, end - start));
            number.isValid()) {
            numbers.push_back(number.value);
        }
        start = end + 1;
    }
    return numbers;
}

int compareVersions(std::string_view a, std::string_view b) {
    const auto left = versionNumbers(a);
    const auto right = versionNumbers(b);
    for (std::size_t index = 0; index < std::max(left.size(), right.size()); ++index) {
        const auto x = index < left.size() ? left[index] : 0;
        const auto y = index < right.size() ? right[index] : 0;
        if (x != y) {
            return x < y ? -1 : 1;
        }
    }
    return 0;
}

} // namespace veltra
