#pragma once

#include "core/records/FeedControls.h"

#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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
    FeedControls controls{};
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

// Where each item the parser lists sits in the document: [begin, end) byte offsets of its
// <item> element, in document order. Empty when the document is not well-formed.
struct ItemRange {
    std::size_t begin = 0;
    std::size_t end = 0;
};
std::vector<ItemRange> itemRanges(std::string_view document);

// The document without the items `drop` chooses (by index, in document order), each with the
// blank rest of its lines; the rest byte for byte.
std::string removeItems(std::string_view document, const std::function<bool(std::size_t)>& drop);

// The item's text with its controls replaced by `controls` (other elements kept as written).
std::string withControls(std::string_view item, const FeedControls& controls);

// The item's text with its enclosure's url attribute `from` replaced by `to`; unchanged text when
// the enclosure names another address.
std::string withEnclosureURL(std::string_view item, std::string_view from, std::string_view to);

// The document with the item at `range` replaced by `item`.
std::string replaceItem(std::string_view document, ItemRange range, std::string_view item);

// A feed without items. Without a site URL the channel holds only its title.
std::string stubFeed(std::string_view appName, std::string_view siteURL);

} // namespace appcast

} // namespace veltra
