#pragma once

#include "core/process/ProcessRunner.h"
#include "core/support/StopToken.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace veltra {

// The app's icon as PNG bytes, for the download page.
class AppIconResolver {
public:
    // The icon file's largest PNG entry; on macOS `sips` converts an .icns without one. Nothing
    // when there is no icon or it cannot be read.
    std::optional<std::string> pngData(const std::optional<std::filesystem::path>& iconURL,
                                       StopToken stop = {}) const;

    // The largest PNG entry of .icns data (by the width in its header); nothing when the data
    // is not an icon family or holds no PNG.
    static std::optional<std::string> largestPNG(std::string_view icns);
};

} // namespace veltra
