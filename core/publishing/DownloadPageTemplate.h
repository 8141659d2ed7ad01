#pragma once

#include <string>
#include <string_view>

namespace veltra {

// Veltra's own download page: the app's name and icon, a download button for the latest disk
// image (with the build as cache-buster) and a link to the notes. Its markers let a later deploy
// tell the page is Veltra's and whether it is the current version of the template.
class DownloadPageTemplate {
public:
    static constexpr std::string_view generatorMarker = "<!-- veltra:download-page -->";
    static constexpr std::string_view iconMarker = "<!-- veltra:icon -->";

    static std::string render(const std::string& appName, const std::string& downloadsFolder,
                              const std::string& build);

    // A page Veltra generated with an older template that lacks the icon markup.
    static bool needsUpgrade(std::string_view page);
    // Every "<app>.dmg?v=<digits>" link (name as written or percent-encoded) now carries
    // `stamp`; unchanged text when there is no such link.
    static std::string withCacheBuster(std::string_view page, const std::string& appName,
                                       const std::string& stamp);
    // `text` safe inside HTML text and attribute values.
    static std::string escapeHTML(std::string_view text);
};

} // namespace veltra
