#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace veltra {

// The update settings an app carries: the feed address (SUFeedURL) and the public key
// (SUPublicEDKey).
struct SparkleAppSettings {
    std::optional<std::string> feedURL;
    std::optional<std::string> publicKey;
    bool operator==(const SparkleAppSettings&) const = default;
};

class SparkleAutoResolver {
public:
    // What a built app's Info.plist says; empty when it cannot be read.
    static SparkleAppSettings fromApp(const std::filesystem::path& app);
    // What the app will carry once built, read before building: the project file's
    // INFOPLIST_KEY_ settings, else the first Info.plist beside the project (two folders deep)
    // that names a feed.
    static SparkleAppSettings fromProject(const std::filesystem::path& project);
};

} // namespace veltra
