#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace veltra {

// One <item> of an update feed as the parser reads it. Every field is text as the feed has it
// (after trimming where the parser trims), so a feed that says something odd still lists.
struct SparkleFeedItem {
    std::string title{};
    std::string shortVersion{};
    // The build number, as text.
    std::string version{};
    std::string pubDate{};
    std::string minimumSystemVersion{};
    std::string releaseNotesURL{};
    std::string enclosureURL{};
    std::string enclosureLength{};
    std::string edSignature{};
    std::string rawDescription{};

    bool operator==(const SparkleFeedItem&) const = default;
};

} // namespace veltra

template <> struct std::hash<veltra::SparkleFeedItem> {
    std::size_t operator()(const veltra::SparkleFeedItem& item) const noexcept;
};
