#include "ResourceLocator.h"

#include <string_view>
#include <system_error>

#ifdef __APPLE__
#include <cstdint>
#include <mach-o/dyld.h>
#include <vector>
#endif

namespace veltra {
namespace {

struct Place {
    std::string_view installed; // below <prefix>/share/veltra
    std::string_view source;    // below the source tree
};

Place placeOf(ResourceLocator::Resource resource) {
    switch (resource) {
    case ResourceLocator::Resource::toolStandIns:
        return {"tools", "tests/tools"};
    case ResourceLocator::Resource::demo:
        return {"demo", "share/demo"};
    }
    return {};
}

bool isDirectory(const std::filesystem::path& path) {
    std::error_code error;
    return std::filesystem::is_directory(path, error);
}

} // namespace

std::filesystem::path ResourceLocator::executablePath() {
    std::error_code error;
#ifdef __APPLE__
    std::uint32_t size = 0;
    _NSGetExecutablePath(nullptr, &size);
    std::vector<char> buffer(size + 1, '\0');
    if (_NSGetExecutablePath(buffer.data(), &size) != 0) {
        return {};
    }
    auto path = std::filesystem::canonical(buffer.data(), error);
#else
    auto path = std::filesystem::canonical("/proc/self/exe", error);
#endif
    return error ? std::filesystem::path() : path;
}

std::optional<std::filesystem::path>
ResourceLocator::locate(Resource resource, const std::filesystem::path& executable) {
    const auto place = placeOf(resource);
    if (!executable.empty()) {
        const auto folder = executable.parent_path();
        auto prefix = folder.parent_path(); // <prefix>/bin/<tool>
        // An app bundle installed at the prefix: <prefix>/<App>.app/Contents/MacOS/<tool>.
        if (folder.filename() == "MacOS" && prefix.filename() == "Contents") {
            prefix = prefix.parent_path().parent_path();
        }
        const auto installed = prefix / "share" / "veltra" / place.installed;
        if (isDirectory(installed)) {
            return installed;
        }
    }
#ifdef VELTRA_SOURCE_DIR
    const auto source = std::filesystem::path(VELTRA_SOURCE_DIR) / place.source;
    if (isDirectory(source)) {
        return source;
    }
#endif
    return std::nullopt;
}

} // namespace veltra
