#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace veltra {

// One release as the feed announces it.
struct AppcastRelease {
    std::string shortVersion{};
    std::string build{};
    std::string downloadURL{};
    std::string signature{};
    std::string length{};
    std::string minimumSystemVersion{};
    std::string releaseNotesURL{};
};

// The text of appcast.xml documents: what Veltra writes and where it goes. Pure functions; the
// engine does the reading and writing.
namespace appcast {

inline constexpr std::string_view sparkleNamespace =
    "http://www.andymatuschak.org/xml-namespaces/sparkle";
inline constexpr std::string_view dublinCoreNamespace = "http://purl.org/dc/elements/1.1/";

// "Sat, 21 Nov 2026 14:05:09 +0100" for `when` in the machine's time zone, with English names
// whatever the process locale.
std::string rfc822Date(std::time_t when);

// The nine lines of one <item>, each ending in a line feed, values escaped for XML.
std::string itemText(const AppcastRelease& release, std::string_view pubDate);

// Byte offset just after the channel's own </title>, else just after the <channel ...> tag;
// nothing when the document has neither.
std::optional<std::size_t> insertionAnchor(std::string_view document);

// The document with the item placed at the anchor on lines of its own, or nothing without an
// anchor.
std::optional<std::string> insertItem(std::string_view document, std::string_view item);

// A feed without items. Without a site URL the channel holds only its title.
std::string stubFeed(std::string_view appName, std::string_view siteURL);

} // namespace appcast

} // namespace veltra
