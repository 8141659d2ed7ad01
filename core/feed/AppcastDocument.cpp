#include "AppcastDocument.h"

#include "core/support/ExpatDocument.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include <fmt/format.h>

namespace veltra::appcast {

namespace {

std::string escaped(std::string_view text, bool attribute) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += attribute ? "&quot;" : "\"";
            break;
        default:
            out += c;
        }
    }
    return out;
}

struct AnchorSearch : ExpatContext {
    std::vector<std::string> open{};
    std::optional<std::size_t> afterTitle{};
    std::optional<std::size_t> afterChannelTag{};
    bool channelSeen = false;
    bool channelClosed = false;

    std::size_t endOfCurrentEvent() const {
        return static_cast<std::size_t>(XML_GetCurrentByteIndex(parser)) +
               static_cast<std::size_t>(XML_GetCurrentByteCount(parser));
    }
};

extern "C" void anchorStart(void* user, const XML_Char* name, const XML_Char**) {
    auto& search = expatContext<AnchorSearch>(user);
    if (std::string_view(name) == "channel" && !search.channelSeen) {
        search.channelSeen = true;
        search.afterChannelTag = search.endOfCurrentEvent();
    }
    search.open.emplace_back(name);
}

extern "C" void anchorEnd(void* user, const XML_Char* name) {
    auto& search = expatContext<AnchorSearch>(user);
    const std::string_view element(name);
    const bool channelTitle = element == "title" && search.open.size() >= 2 &&
                              search.open[search.open.size() - 2] == "channel";
    if (channelTitle && !search.afterTitle) {
        search.afterTitle = search.endOfCurrentEvent();
    }
    // An empty-element <channel/> ends with a zero-length event; nothing can go inside it.
    if (element == "channel" && !search.channelClosed) {
        search.channelClosed = true;
        if (XML_GetCurrentByteCount(search.parser) == 0) {
            search.afterChannelTag.reset();
        }
    }
    search.open.pop_back();
    if (search.afterTitle) {
        XML_StopParser(search.parser, XML_FALSE);
    }
}

// The parser lists an item for every <item> that is not inside another one.
struct ItemSearch : ExpatContext {
    std::vector<ItemRange> ranges{};
    int depth = 0;
    std::size_t begin = 0;
    // Where the outermost item's start tag ends: an empty-element <item/> ends there too (expat
    // reports its end as a zero-length event).
    std::size_t startTagEnd = 0;

    std::size_t eventStart() const {
        return static_cast<std::size_t>(XML_GetCurrentByteIndex(parser));
    }
    std::size_t eventEnd() const {
        return eventStart() + static_cast<std::size_t>(XML_GetCurrentByteCount(parser));
    }
};

extern "C" void itemStart(void* user, const XML_Char* name, const XML_Char**) {
    auto& search = expatContext<ItemSearch>(user);
    if (std::string_view(name) == "item" && search.depth++ == 0) {
        search.begin = search.eventStart();
        search.startTagEnd = search.eventEnd();
    }
}

extern "C" void itemEnd(void* user, const XML_Char* name) {
    auto& search = expatContext<ItemSearch>(user);
    if (std::string_view(name) == "item" && search.depth > 0 && --search.depth == 0) {
        search.ranges.push_back({search.begin, std::max(search.eventEnd(), search.startTagEnd)});
    }
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

// The controls' elements as Veltra writes them, each on a line of its own.
std::string controlLines(const FeedControls& controls, std::string_view indent) {
    const auto text = [](std::string_view value) { return escaped(value, false); };
    std::string out;
    if (!controls.channel.empty()) {
        out += fmt::format("{}<sparkle:channel>{}</sparkle:channel>\n", indent,
                           text(controls.channel));
    }
    if (controls.critical) {
        out += controls.criticalBelow.empty()
                   ? fmt::format("{}<sparkle:criticalUpdate/>\n", indent)
                   : fmt::format("{}<sparkle:criticalUpdate sparkle:version=\"{}\"/>\n", indent,
                                 escaped(controls.criticalBelow, true));
    }
    if (controls.phasedRolloutSeconds) {
        out += fmt::format("{}<sparkle:phasedRolloutInterval>{}</sparkle:phasedRolloutInterval>\n",
                           indent, *controls.phasedRolloutSeconds);
    }
    if (!controls.minimumAutoupdateVersion.empty()) {
        out += fmt::format(
            "{}<sparkle:minimumAutoupdateVersion>{}</sparkle:minimumAutoupdateVersion>\n", indent,
            text(controls.minimumAutoupdateVersion));
    }
    return out;
}

// [begin, end) of the first element `name` in `text` (its whole line when it stands alone on
// one), or nothing.
std::optional<std::pair<std::size_t, std::size_t>> elementSpan(std::string_view text,
                                                               std::string_view name) {
    // Built up piece by piece: g++ 12 at -O3 misreads "<" + std::string(name) (-Wrestrict).
    std::string open(1, '<');
    open.append(name);
    std::size_t begin = text.find(open);
    while (begin != std::string_view::npos) {
        const char after = begin + open.size() < text.size() ? text[begin + open.size()] : '\0';
        if (after == '>' || after == '/' || after == ' ' || after == '\t' || after == '\n' ||
            after == '\r') {
            break;
        }
        begin = text.find(open, begin + 1);
    }
    if (begin == std::string_view::npos) {
        return std::nullopt;
    }
    const auto tagEnd = text.find('>', begin);
    if (tagEnd == std::string_view::npos) {
        return std::nullopt;
    }
    std::size_t end = tagEnd + 1;
    if (text[tagEnd - 1] != '/') {
        std::string closing("</");
        closing.append(name).push_back('>');
        const auto close = text.find(closing, end);
        if (close == std::string_view::npos) {
            return std::nullopt;
        }
        end = close + name.size() + 3;
    }
    std::size_t lineBegin = begin;
    while (lineBegin > 0 && isBlank(text[lineBegin - 1])) {
        --lineBegin;
    }
    std::size_t lineEnd = end;
    while (lineEnd < text.size() && isBlank(text[lineEnd])) {
        ++lineEnd;
    }
    if ((lineBegin == 0 || text[lineBegin - 1] == '\n') && lineEnd < text.size() &&
        text[lineEnd] == '\n') {
        return std::pair{lineBegin, lineEnd + 1};
    }
    return std::pair{begin, end};
}

constexpr const char* weekdays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

} // namespace

std::string rfc822Date(std::time_t when) {
    std::tm local{};
    localtime_r(&when, &local);
    const long offsetMinutes = local.tm_gmtoff / 60;
    const long magnitude = std::labs(offsetMinutes);
    return fmt::format("{}, {:02} {} {} {:02}:{:02}:{:02} {}{:02}{:02}", weekdays[local.tm_wday],
                       local.tm_mday, months[local.tm_mon], local.tm_year + 1900, local.tm_hour,
                       local.tm_min, local.tm_sec, offsetMinutes < 0 ? '-' : '+', magnitude / 60,
                       magnitude % 60);
}

std::string itemText(const AppcastRelease& release, std::string_view pubDate) {
    const auto text = [](std::string_view value) { return escaped(value, false); };
    const auto attribute = [](std::string_view value) { return escaped(value, true); };
    std::string out;
    out += "        <item>\n";
    out += fmt::format("            <title>{}</title>\n", text(release.shortVersion));
    out += fmt::format("            <pubDate>{}</pubDate>\n", text(pubDate));
    out += fmt::format("            <sparkle:version>{}</sparkle:version>\n", text(release.build));
    out += fmt::format("            <sparkle:shortVersionString>{}</sparkle:shortVersionString>\n",
                       text(release.shortVersion));
    // An item without one is offered to every Mac the app's older versions run on.
    if (!release.minimumSystemVersion.empty()) {
        out += fmt::format(
            "            <sparkle:minimumSystemVersion>{}</sparkle:minimumSystemVersion>\n",
            text(release.minimumSystemVersion));
    }
    out += controlLines(release.controls, "            ");
    out += fmt::format("            <sparkle:releaseNotesLink>{}</sparkle:releaseNotesLink>\n",
                       text(release.releaseNotesURL));
    out += fmt::format("            <enclosure url=\"{}\" length=\"{}\" "
                       "type=\"application/octet-stream\" sparkle:edSignature=\"{}\"/>\n",
                       attribute(release.downloadURL), attribute(release.length),
                       attribute(release.signature));
    out += "        </item>\n";
    return out;
}

std::optional<std::size_t> insertionAnchor(std::string_view document) {
    AnchorSearch search;
    ExpatDocument parser(search);
    XML_SetElementHandler(parser.parser(), anchorStart, anchorEnd);
    // A document that breaks off later (or that the search stops early) still has good anchors
    // before the break, so the outcome of the parse does not matter.
    parser.parse(document);
    return search.afterTitle ? search.afterTitle : search.afterChannelTag;
}

std::optional<std::string> insertItem(std::string_view document, std::string_view item) {
    auto anchor = insertionAnchor(document);
    if (!anchor) {
        return std::nullopt;
    }
    // Keep the item on lines of its own: step over the rest of the anchor's line when it is
    // blank, else start a new line.
    std::size_t at = *anchor;
    while (at < document.size() &&
           (document[at] == ' ' || document[at] == '\t' || document[at] == '\r')) {
        ++at;
    }
    std::string out;
    out.reserve(document.size() + item.size() + 1);
    if (at < document.size() && document[at] == '\n') {
        out.append(document.substr(0, at + 1));
        out.append(item);
        out.append(document.substr(at + 1));
    } else {
        out.append(document.substr(0, *anchor));
        out += '\n';
        out.append(item);
        out.append(document.substr(*anchor));
    }
    return out;
}

std::vector<ItemRange> itemRanges(std::string_view document) {
    ItemSearch search;
    ExpatDocument parser(search);
    XML_SetElementHandler(parser.parser(), itemStart, itemEnd);
    if (!parser.parse(document)) {
        return {};
    }
    return search.ranges;
}

std::string removeItems(std::string_view document, const std::function<bool(std::size_t)>& drop) {
    std::string out;
    out.reserve(document.size());
    std::size_t kept = 0;
    const auto ranges = itemRanges(document);
    for (std::size_t index = 0; index < ranges.size(); ++index) {
        if (!drop(index)) {
            continue;
        }
        auto [begin, end] = ranges[index];
        while (begin > kept && isBlank(document[begin - 1])) {
            --begin;
        }
        while (end < document.size() && isBlank(document[end])) {
            ++end;
        }
        if ((begin == 0 || document[begin - 1] == '\n') && end < document.size() &&
            document[end] == '\n') {
            ++end;
        }
        out.append(document.substr(kept, begin - kept));
        kept = end;
    }
    out.append(document.substr(kept));
    return out;
}

std::string withControls(std::string_view item, const FeedControls& controls) {
    std::string text(item);
    for (const auto* name : {"sparkle:channel", "sparkle:criticalUpdate",
                             "sparkle:phasedRolloutInterval", "sparkle:minimumAutoupdateVersion"}) {
        while (const auto span = elementSpan(text, name)) {
            text.erase(span->first, span->second - span->first);
        }
    }
    // Old feeds keep the critical marker inside <sparkle:tags>; an emptied one goes too.
    if (const auto tags = elementSpan(text, "sparkle:tags")) {
        const auto inside = text.substr(tags->first, tags->second - tags->first);
        if (inside.find('<', inside.find('>') + 1) == inside.rfind("</")) {
            text.erase(tags->first, tags->second - tags->first);
        }
    }
    const auto close = text.rfind("</item>");
    if (close == std::string::npos) {
        return text;
    }
    // Indented like the item's first child, on lines of their own before </item>.
    std::string indent = "            ";
    if (const auto firstLine = text.find('\n'); firstLine != std::string::npos) {
        const auto start = firstLine + 1;
        auto stop = start;
        while (stop < text.size() && isBlank(text[stop])) {
            ++stop;
        }
        if (stop < close) {
            indent = text.substr(start, stop - start);
        }
    }
    auto lineStart = close;
    while (lineStart > 0 && isBlank(text[lineStart - 1])) {
        --lineStart;
    }
    const bool ownLine = lineStart > 0 && text[lineStart - 1] == '\n';
    const auto lines = controlLines(controls, indent);
    text.insert(ownLine ? lineStart : close, ownLine ? lines : "\n" + lines);
    return text;
}

std::string withEnclosureURL(std::string_view item, std::string_view from, std::string_view to) {
    std::string text(item);
    const auto enclosure = elementSpan(text, "enclosure");
    if (!enclosure) {
        return text;
    }
    for (const char quote : {'"', '\''}) {
        const auto wanted = "url=" + std::string(1, quote) + escaped(from, true) + quote;
        const auto at = text.find(wanted, enclosure->first);
        if (at != std::string::npos && at < enclosure->second) {
            text.replace(at, wanted.size(), "url=\"" + escaped(to, true) + "\"");
            return text;
        }
    }
    return text;
}

std::string replaceItem(std::string_view document, ItemRange range, std::string_view item) {
    std::string out(document.substr(0, range.begin));
    out.append(item);
    out.append(document.substr(range.end));
    return out;
}

std::string stubFeed(std::string_view appName, std::string_view siteURL) {
    const auto text = [](std::string_view value) { return escaped(value, false); };
    std::string out = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";
    out += fmt::format("<rss version=\"2.0\" xmlns:sparkle=\"{}\" xmlns:dc=\"{}\">\n",
                       sparkleNamespace, dublinCoreNamespace);
    out += "    <channel>\n";
    out += fmt::format("        <title>{}</title>\n", text(appName));
    if (!siteURL.empty()) {
        out += fmt::format("        <link>{}</link>\n", text(siteURL));
        out +=
            fmt::format("        <description>Updates feed for {}</description>\n", text(appName));
        out += "        <language>en</language>\n";
    }
    out += "    </channel>\n";
    out += "</rss>\n";
    return out;
}

} // namespace veltra::appcast
