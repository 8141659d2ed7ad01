#include "MinimumSystemVersion.h"

#include <cstdint>

namespace veltra {

int compareDottedVersions(const std::string& a, const std::string& b) {
    std::size_t i = 0;
    std::size_t j = 0;
    const auto part = [](const std::string& text, std::size_t& at) {
        std::uint64_t value = 0;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
            value = value * 10 + static_cast<std::uint64_t>(text[at] - '0');
            ++at;
        }
        while (at < text.size() && text[at] != '.') {
            ++at;
        }
        if (at < text.size()) {
            ++at;
        }
        return value;
    };
    while (i < a.size() || j < b.size()) {
        const auto left = part(a, i);
        const auto right = part(b, j);
        if (left != right) {
            return left < right ? -1 : 1;
        }
    }
    return 0;
}

MinimumSystemVersion
MinimumSystemVersion::choose(const std::string& appRequires,
                             const std::optional<std::string>& profileSetting) {
    const auto setting = profileSetting.value_or("");
    if (setting.empty()) {
        return {appRequires};
    }
    if (appRequires.empty() || compareDottedVersions(setting, appRequires) >= 0) {
        return {setting};
    }
    return {appRequires, "The profile's sparkle.minimumSystemVersion " + setting +
                             " is below the " + appRequires +
                             " the app requires (LSMinimumSystemVersion); the feed names " +
                             appRequires + "."};
}

} // namespace veltra
