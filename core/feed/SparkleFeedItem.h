#pragma once

#include "core/records/FeedControls.h"

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
    FeedControls controls{};
    // What the item itself says, before the reading rules fill its gaps (the title standing in
    // for versions, "14.0" for the minimum system): empty where the item says nothing.
    struct Stated {
        std::string title{};
        std::string shortVersion{};
        std::string version{};
        std::string minimumSystemVersion{};
        std::string phasedRolloutInterval{};
        bool operator==(const Stated&) const = default;
    } stated{};

    bool operator==(const SparkleFeedItem&) const = default;
};

} // namespace veltra

template <> struct std::hash<veltra::SparkleFeedItem> {
    std::size_t operator()(const veltra::SparkleFeedItem& item) const noexcept;
};
