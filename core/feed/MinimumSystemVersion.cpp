#include "MinimumSystemVersion.h"

#include "BuildNumber.h"

namespace veltra {

MinimumSystemVersion
MinimumSystemVersion::choose(const std::string& appRequires,
                             const std::optional<std::string>& profileSetting) {
    const auto setting = profileSetting.value_or("");
    if (setting.empty()) {
        return {appRequires};
    }
    if (appRequires.empty() || compareVersions(setting, appRequires) >= 0) {
        return {setting};
    }
    return {appRequires, "The profile's sparkle.minimumSystemVersion " + setting +
                             " is below the " + appRequires +
                             " the app requires (LSMinimumSystemVersion); the feed names " +
                             appRequires + "."};
}

} // namespace veltra
