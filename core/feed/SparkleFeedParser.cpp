#include "SparkleFeedParser.h"

#include "core/support/ExpatDocument.h"
#include "core/support/XMLEncoding.h"

#include <string>

namespace veltra {

namespace {

constexpr std::string_view itemName = "item";
constexpr std::string_view enclosureName = "enclosure";

bool isIgnoredContainer(std::string_view name) {
    return name == "sparkle:deltas" || name == "sparkle:informationalUpdate";
}

bool isFeedSpace(char32_t c) {
    return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
           (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F ||
           c == 0x205F || c == 0x3000;
}

// Length of the space character starting at `at`, or 0. Input is expat's UTF-8.
std::size_t spaceAt(std::string_view text, std::size_t at) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(at);
    if (lead < 0x80) {
        return isFeedSpace(lead) ? 1 : 0;
    }
    std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 0;
    if (length == 0 || at + length > text.size()) {
        return 0;
    }
    char32_t c = lead & (0x7F >> length);
    for (std::size_t i = 1; i < length; ++i) {
        c = (c << 6) | (byte(at + i) & 0x3Fu);
    }
    return isFeedSpace(c) ? length : 0;
}

// Length of the space character ending just before `end`, or 0.
std::size_t spaceBefore(std::string_view text, std::size_t end) {
    std::size_t start = end;
    while (start > 0 && end - start < 4) {
        --start;
        if ((static_cast<unsigned char>(text[start]) & 0xC0) != 0x80) {
            return spaceAt(text, start) == end - start ? end - start : 0;
        }
    }
    return 0;
}

std::string textOf(const std::map<std::string, std::string, std::less<>>& map,
                   std::string_view key) {
    const auto found = map.find(key);
    return found == map.end() ? std::string() : found->second;
}

struct Session : ExpatContext {
    SparkleFeedParser* delegate = nullptr;
};

extern "C" void onStart(void* user, const XML_Char* name, const XML_Char** attributes) {
    expatContext<Session>(user).delegate->startElement(name, attributes);
}

extern "C" void onEnd(void* user, const XML_Char* name) {
    expatContext<Session>(user).delegate->endElement(name);
}

extern "C" void onText(void* user, const XML_Char* text, int length) {
    expatContext<Session>(user).delegate->characterData(
        std::string_view(text, static_cast<std::size_t>(length)));
}

} // namespace

std::string trimFeedText(std::string_view text) {
    std::size_t begin = 0;
    while (begin < text.size()) {
        const auto length = spaceAt(text, begin);
        if (length == 0) {
            break;
        }
        begin += length;
    }
    std::size_t end = text.size();
    while (end > begin) {
        const auto length = spaceBefore(text, end);
        if (length == 0) {
            break;
        }
        end -= length;
    }
    return std::string(text.substr(begin, end - begin));
}

void SparkleFeedParser::startElement(const char* name, const char** attributes) {
    const std::string_view element(name);
    if (element == "rss") {
        hasRSS_ = true;
    } else if (element == "channel") {
        hasChannel_ = true;
    }
    if (insideItem_ && (ignoredDepth_ > 0 || isIgnoredContainer(element))) {
        ++ignoredDepth_;
        element_.clear();
        return;
    }
    if (element == itemName) {
        insideItem_ = true;
        fields_.clear();
        enclosure_.clear();
        critical_.reset();
    }
    if (!insideItem_) {
        return;
    }
    element_ = element;
    if (element == "sparkle:criticalUpdate") {
        critical_.emplace();
        for (auto attribute = attributes; attribute[0] != nullptr; attribute += 2) {
            if (std::string_view(attribute[0]) == "sparkle:version") {
                critical_ = trimFeedText(attribute[1]);
            }
        }
    }
    if (element == enclosureName) {
        enclosure_.clear();
        for (auto attribute = attributes; attribute[0] != nullptr; attribute += 2) {
            enclosure_.insert_or_assign(attribute[0], attribute[1]);
        }
    }
}

void SparkleFeedParser::endElement(const char* name) {
    if (insideItem_ && ignoredDepth_ > 0) {
        --ignoredDepth_;
        element_.clear();
        return;
    }
    if (std::string_view(name) == itemName) {
        if (insideItem_) {
            finishItem();
        }
        insideItem_ = false;
        return;
    }
    element_.clear();
}

void SparkleFeedParser::characterData(std::string_view text) {
    if (insideItem_ && ignoredDepth_ == 0) {
        fields_[element_].append(text);
    }
}

void SparkleFeedParser::finishItem() {
    const auto field = [&](std::string_view name) { return trimFeedText(textOf(fields_, name)); };
    const auto firstNonEmpty = [](std::string first, std::string second, std::string third) {
        return !first.empty() ? first : !second.empty() ? second : third;
    };
    SparkleFeedItem item;
    item.stated.title = field("title");
    item.stated.shortVersion =
        firstNonEmpty(field("sparkle:shortVersionString"),
                      trimFeedText(textOf(enclosure_, "sparkle:shortVersionString")), "");
    item.stated.version = firstNonEmpty(field("sparkle:version"),
                                        trimFeedText(textOf(enclosure_, "sparkle:version")), "");
    item.stated.minimumSystemVersion = field("sparkle:minimumSystemVersion");
    item.stated.phasedRolloutInterval = field("sparkle:phasedRolloutInterval");
    item.controls.channel = field("sparkle:channel");
    item.controls.critical = critical_.has_value();
    item.controls.criticalBelow = critical_.value_or("");
    item.controls.minimumAutoupdateVersion = field("sparkle:minimumAutoupdateVersion");
    if (const auto& interval = item.stated.phasedRolloutInterval;
        !interval.empty() && interval.find_first_not_of("0123456789") == std::string::npos &&
        interval.size() < 18) {
        item.controls.phasedRolloutSeconds = std::stoll(interval);
    }
    item.title = item.stated.title;
    item.shortVersion = firstNonEmpty(item.stated.shortVersion, item.title, "");
    item.version = firstNonEmpty(item.stated.version, item.shortVersion, "");
    if (item.title.empty()) {
        item.title = item.shortVersion;
    }
    item.pubDate = field("pubDate");
    item.minimumSystemVersion = item.stated.minimumSystemVersion;
    if (item.minimumSystemVersion.empty()) {
        item.minimumSystemVersion = defaultMinimumSystemVersion;
    }
    item.releaseNotesURL = field("sparkle:releaseNotesLink");
    item.enclosureURL = textOf(enclosure_, "url");
    item.enclosureLength = textOf(enclosure_, "length");
    item.edSignature = textOf(enclosure_, "sparkle:edSignature");
    item.rawDescription = field("description");
    items_.push_back(std::move(item));
}

std::optional<std::string> SparkleFeedParser::unreadableEncoding(std::string_view data) {
    const auto name = XMLEncoding::declared(data);
    if (name && !XMLEncoding::isReadable(*name)) {
        return name;
    }
    return std::nullopt;
}

std::optional<std::string> SparkleFeedParser::read(std::string_view data) {
    Session session;
    session.delegate = this;
    ExpatDocument document(session);
    XML_SetElementHandler(document.parser(), onStart, onEnd);
    XML_SetCharacterDataHandler(document.parser(), onText);
    if (!document.parse(data)) {
        return document.errorText();
    }
    if (!hasRSS_) {
        return "it has no rss element";
    }
    if (!hasChannel_) {
        return "it has no channel element";
    }
    return std::nullopt;
}

std::string SparkleFeedParser::problem(std::string_view data) {
    if (const auto encoding = unreadableEncoding(data)) {
        return "it declares the encoding '" + *encoding + "', which cannot be read";
    }
    SparkleFeedParser delegate;
    return delegate.read(data).value_or("it reads as a feed");
}

std::optional<std::vector<SparkleFeedItem>> SparkleFeedParser::parse(std::string_view data) {
    SparkleFeedParser delegate;
    if (delegate.read(data)) {
        return std::nullopt;
    }
    return std::move(delegate.items_);
}

} // namespace veltra

std::size_t
std::hash<veltra::SparkleFeedItem>::operator()(const veltra::SparkleFeedItem& item) const noexcept {
    std::size_t seed = 0;
    for (const auto* field : {&item.title, &item.shortVersion, &item.version, &item.pubDate,
                              &item.minimumSystemVersion, &item.releaseNotesURL, &item.enclosureURL,
                              &item.enclosureLength, &item.edSignature, &item.rawDescription}) {
        seed ^=
            std::hash<std::string>{}(*field) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
    }
    return seed;
}
