#include "AppcastDocument.h"

#include "core/support/ExpatDocument.h"

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
