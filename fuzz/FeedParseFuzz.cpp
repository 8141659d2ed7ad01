// Feeds come from web sites and other tools: any bytes must parse to items or to "not a feed",
// and the checks, the writer's anchor search and the promote/withdraw edits must answer without
// crashing; an item's edits keep the feed readable with as many items.
#include "core/feed/AppcastDocument.h"
#include "core/feed/FeedItemCheck.h"
#include "core/feed/ReleaseFeedValidator.h"
#include "core/feed/SparkleFeedParser.h"
#include "core/support/VeltraError.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto items = veltra::SparkleFeedParser::parse(text);
    // A refused feed always says why, the same way each time.
    if (!items &&
        veltra::SparkleFeedParser::problem(text) != veltra::SparkleFeedParser::problem(text)) {
        std::abort();
    }
    if (!items && veltra::SparkleFeedParser::problem(text).empty()) {
        std::abort();
    }
    if (items) {
        for (const auto& item : *items) {
            // The fallbacks guarantee these whatever the feed says.
            if (item.minimumSystemVersion.empty() ||
                (!item.shortVersion.empty() && item.title.empty())) {
                std::abort();
            }
        }
    }
    try {
        veltra::ReleaseFeedValidator::validateNextBuild(text, 7);
    } catch (const veltra::VeltraError&) {
    }
    const auto updated = veltra::appcast::insertItem(
        text, veltra::appcast::itemText({"1.0", "7", "u", "s", "1", "13.0", "n"}, "date"));
    if (updated && updated->size() <= size) {
        std::abort();
    }
    if (items) {
        const auto ranges = veltra::appcast::itemRanges(text);
        for (std::size_t index = 0; index < ranges.size() && index < 4; ++index) {
            const auto item =
                text.substr(ranges[index].begin, ranges[index].end - ranges[index].begin);
            (void)veltra::appcast::withControls(item, {"beta", true, "3", 60, "2"});
            (void)veltra::appcast::withEnclosureURL(item, "u", "https://a.io/x y");
        }
        const auto without =
            veltra::appcast::removeItems(text, [](std::size_t at) { return at % 2 == 0; });
        if (ranges.size() == items->size()) {
            const auto after = veltra::SparkleFeedParser::parse(without);
            if (!after || after->size() != items->size() / 2) {
                std::abort();
            }
        }
        for (const auto& item : *items) {
            (void)veltra::feedItemProblems(item);
        }
    }
    return 0;
}
