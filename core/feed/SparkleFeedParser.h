#pragma once

#include "SparkleFeedItem.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltra {

// Reads an appcast document into its items. Element names are matched as written
// ("sparkle:version"), without namespace processing. External entities are never loaded, and
// expat's amplification guard stops entity bombs.
//
// Beyond the plain rules, two readings follow Sparkle's own: whatever sits inside
// <sparkle:deltas> or <sparkle:informationalUpdate> feeds nothing of the item, and the
// enclosure's sparkle:shortVersionString / sparkle:version attributes are used when the item
// has no such element, before the title.
class SparkleFeedParser {
public:
    // The items in document order, or nothing when the document is not well-formed XML or
    // lacks an "rss" or a "channel" element. A channel without items gives an empty list.
    static std::optional<std::vector<SparkleFeedItem>> parse(std::string_view data);

    // Why `parse` gives nothing for `data`: where the XML breaks ("line 6, column 1: no element
    // found"), an encoding that cannot be read, or the rss or channel element it lacks.
    static std::string problem(std::string_view data);

    // The encoding the document declares when it is one that cannot be read (neither expat's
    // own nor a single-byte one it can be taught), for messages that say why a feed is refused.
    static std::optional<std::string> unreadableEncoding(std::string_view data);

    // Reported for an item that names no minimum system version.
    static constexpr std::string_view defaultMinimumSystemVersion = "14.0";

    // Expat callbacks; public only so the C trampolines can reach them.
    void startElement(const char* name, const char** attributes);
    void endElement(const char* name);
    void characterData(std::string_view text);

private:
    // Reads `data` into this parser; why it is no feed, or nothing when it is one.
    std::optional<std::string> read(std::string_view data);
    void finishItem();

    std::vector<SparkleFeedItem> items_;
    std::map<std::string, std::string, std::less<>> fields_;
    std::map<std::string, std::string, std::less<>> enclosure_;
    // <sparkle:criticalUpdate> seen in the item (also inside <sparkle:tags>), and its version.
    std::optional<std::string> critical_;
    std::string element_;
    bool insideItem_ = false;
    bool hasRSS_ = false;
    bool hasChannel_ = false;
    // Depth inside <sparkle:deltas> or <sparkle:informationalUpdate> within the current item.
    int ignoredDepth_ = 0;
};

// Trims the white space and line breaks the feed rules trim: ASCII space, tab, LF, VT, FF, CR,
// NEL and the Unicode space and line/paragraph separators.
std::string trimFeedText(std::string_view text);

} // namespace veltra
