#include "SparkleAutoResolver.h"

#include "core/support/FileUtilities.h"
#include "core/support/PropertyList.h"
#include "core/xcode/VersionManager.h"

#include <regex>

namespace veltra {
namespace {

namespace fs = std::filesystem;

SparkleAppSettings fromPlist(const fs::path& file) {
    SparkleAppSettings settings;
    try {
        const auto plist = readPropertyListDictionary(file);
        const auto string = [&](const char* key) -> std::optional<std::string> {
            const auto it = plist.find(key);
            if (it != plist.end() && it->is_string() && !it->get<std::string>().empty()) {
                return it->get<std::string>();
            }
            return std::nullopt;
        };
        settings.feedURL = string("SUFeedURL");
        settings.publicKey = string("SUPublicEDKey");
    } catch (const std::exception&) {
    }
    return settings;
}

std::optional<std::string> buildSetting(const std::string& text, const std::string& key) {
    const std::regex pattern(key + R"re(\s*=\s*(?:"([^"]*)"|([^;\s]+));)re");
    std::smatch match;
    if (std::regex_search(text, match, pattern)) {
        return match[1].matched ? match[1].str() : match[2].str();
    }
    return std::nullopt;
}

} // namespace

SparkleAppSettings SparkleAutoResolver::fromApp(const fs::path& app) {
    return fromPlist(app / "Contents" / "Info.plist");
}

SparkleAppSettings SparkleAutoResolver::fromProject(const fs::path& project) {
    SparkleAppSettings settings;
    if (const auto file = VersionManager::projectFile(project)) {
        try {
            const auto text = readFile(*file);
            settings.feedURL = buildSetting(text, "INFOPLIST_KEY_SUFeedURL");
            settings.publicKey = buildSetting(text, "INFOPLIST_KEY_SUPublicEDKey");
        } catch (const std::exception&) {
        }
    }
    if (settings.feedURL) {
        return settings;
    }
    const auto folder =
        fs::is_directory(project) && project.extension().empty() ? project : project.parent_path();
    std::error_code error;
    fs::recursive_directory_iterator it(folder, fs::directory_options::skip_permission_denied,
                                        error);
    std::vector<fs::path> candidates;
    for (; !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        const auto& path = it->path();
        const auto name = path.filename().string();
        if (it->is_directory(error) &&
            (it.depth() >= 2 || name.starts_with('.') || name == "build" ||
             path.extension() == ".xcodeproj" || path.extension() == ".xcworkspace")) {
            it.disable_recursion_pending();
            continue;
        }
        if (name == "Info.plist") {
            candidates.push_back(path);
        }
    }
    std::sort(candidates.begin(), candidates.end());
    for (const auto& candidate : candidates) {
        if (auto found = fromPlist(candidate); found.feedURL) {
            return found;
        }
    }
    return settings;
}

} // namespace veltra
