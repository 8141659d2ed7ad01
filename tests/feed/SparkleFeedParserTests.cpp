#include "core/feed/AppcastDocument.h"
#include "core/feed/FeedItemCheck.h"
#include "core/feed/SparkleFeedParser.h"
#include "core/support/FileUtilities.h"

#include <chrono>
#include <fstream>
#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace veltra {
namespace {

const std::filesystem::path fixtures = std::filesystem::path(VELTRA_FIXTURES_DIR) / "appcast";

std::vector<SparkleFeedItem> parseValid(std::string_view document) {
    const auto items = SparkleFeedParser::parse(document);
    EXPECT_TRUE(items.has_value()) << document;
    return items.value_or(std::vector<SparkleFeedItem>{});
}

std::string feedWith(std::string_view channelContent) {
    return "<?xml version=\"1.0\"?>\n<rss version=\"2.0\" "
           "xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\"><channel>" +
           std::string(channelContent) + "</channel></rss>";
}

TEST(SparkleFeedParser, RealFeedsParseToTheirExpectedItems) {
    int checked = 0;
    for (const auto& entry : std::filesystem::directory_iterator(fixtures)) {
        if (entry.path().extension() != ".xml") {
            continue;
        }
        SCOPED_TRACE(entry.path().filename().string());
        const auto expected = nlohmann::json::parse(
            readFile(fixtures / "expected" / entry.path().filename().replace_extension(".json")));
        const auto items = SparkleFeedParser::parse(readFile(entry.path()));
        ASSERT_EQ(items.has_value(), expected["valid"].get<bool>());
        ASSERT_EQ(items->size(), expected["items"].size());
        for (std::size_t index = 0; index < items->size(); ++index) {
            const auto& want = expected["items"][index];
            // The fixtures name the reading rules' fields; what the item states and its
            // controls are checked below.
            const SparkleFeedItem wanted{
                want["title"],          want["shortVersion"],         want["version"],
                want["pubDate"],        want["minimumSystemVersion"], want["releaseNotesURL"],
                want["enclosureURL"],   want["enclosureLength"],      want["edSignature"],
                want["rawDescription"], (*items)[index].controls,     (*items)[index].stated};
            EXPECT_EQ((*items)[index], wanted) << "item " << index;
        }
        ++checked;
    }
    EXPECT_EQ(checked, 6);
}

TEST(SparkleFeedParser, DocumentsThatAreNotFeeds) {
    const struct {
        const char* name;
        std::string document;
    } cases[] = {
        {"no rss", "<feed><channel><item><title>1</title></item></channel></feed>"},
        {"no channel", "<rss><item><title>1</title></item></rss>"},
        {"not well-formed", feedWith("<item><title>1</title>")},
        {"empty", ""},
        {"text", "appcast"},
        {"declares an entity", "<!DOCTYPE rss [<!ENTITY v \"1\">]><rss><channel><item>"
                               "<title>&v;</title></item></channel></rss>"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        EXPECT_FALSE(SparkleFeedParser::parse(row.document).has_value());
    }
    EXPECT_EQ(parseValid(feedWith("")).size(), 0u);
}

TEST(SparkleFeedParser, FallbacksForMissingFields) {
    auto items = parseValid(feedWith("<item><title> 2.0 </title></item>"
                                     "<item><sparkle:shortVersionString>3.1</sparkle:"
                                     "shortVersionString></item>"
                                     "<item><enclosure url=\" a \" sparkle:version=\" 9 \"/>"
                                     "<sparkle:version>10</sparkle:version></item>"));
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[0].shortVersion, "2.0");
    EXPECT_EQ(items[0].version, "2.0");
    EXPECT_EQ(items[0].minimumSystemVersion, "14.0");
    EXPECT_EQ(items[1].title, "3.1");
    EXPECT_EQ(items[1].version, "3.1");
    // The element wins over the enclosure attribute; attributes are taken as they stand.
    EXPECT_EQ(items[2].version, "10");
    EXPECT_EQ(items[2].enclosureURL, " a ");
    // What the items state themselves, for tools that show the feed as it is.
    EXPECT_EQ(items[0].stated.version, "");
    EXPECT_EQ(items[0].stated.minimumSystemVersion, "");
    EXPECT_EQ(items[1].stated.title, "");
    EXPECT_EQ(items[2].stated.version, "10");
}

TEST(SparkleFeedParser, ControlsWrittenAreReadBackAndEditedInPlace) {
    AppcastRelease release{"2.0", "20", "https://a.io/App-2.0.dmg", std::string(86, 'A') + "==",
                           "5",   "",   "https://a.io/App-2.0.md"};
    release.controls = {"beta", true, "15", 86400, "12"};
    auto document = *appcast::insertItem(appcast::stubFeed("App", "https://a.io"),
                                         appcast::itemText(release, "today"));
    auto older = release;
    older.build = "10";
    older.controls = {};
    // A hand-written neighbour: its critical marker the old way, inside <sparkle:tags>.
    document = *appcast::insertItem(
        document, "<item><title>0.9</title><sparkle:version>9</sparkle:version><sparkle:tags>"
                  "<sparkle:criticalUpdate/></sparkle:tags></item>\n");
    document = *appcast::insertItem(document, appcast::itemText(older, "before"));
    // Document order: 10, 9, 20.
    auto items = parseValid(document);
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[2].controls, release.controls);
    EXPECT_TRUE(items[0].controls.isDefault());
    EXPECT_TRUE(items[1].controls.critical);
    EXPECT_EQ(items[2].controls.summary(),
              "channel beta, critical below 15, phased rollout 1d, automatic from 12");

    const auto ranges = appcast::itemRanges(document);
    ASSERT_EQ(ranges.size(), 3u);
    const auto text = [&](std::size_t index) {
        return std::string_view(document).substr(ranges[index].begin,
                                                 ranges[index].end - ranges[index].begin);
    };
    // Promote build 20 to everyone: only its channel goes, the rest stays as written.
    auto everyone = release.controls;
    everyone.channel.clear();
    const auto promoted =
        appcast::replaceItem(document, ranges[2], appcast::withControls(text(2), everyone));
    items = parseValid(promoted);
    EXPECT_EQ(items[2].controls, everyone);
    EXPECT_EQ(items[2].edSignature, release.signature);
    EXPECT_EQ(promoted.find("<sparkle:channel>"), std::string::npos);
    // Clearing the old-style marker drops the emptied <sparkle:tags> too.
    const auto calm = appcast::withControls(text(1), {});
    EXPECT_EQ(calm.find("sparkle:tags"), std::string::npos) << calm;
    // Another address for one enclosure; a different old address changes nothing.
    const auto moved = appcast::withEnclosureURL(text(0), older.downloadURL, "https://a.io/x y");
    EXPECT_NE(moved.find("url=\"https://a.io/x y\""), std::string::npos);
    EXPECT_EQ(appcast::withEnclosureURL(text(0), "https://other", "z"), text(0));
    // Dropping the middle item leaves the others byte for byte.
    const auto without = appcast::removeItems(document, [](std::size_t at) { return at == 1; });
    items = parseValid(without);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(without.find("0.9"), std::string::npos);
    EXPECT_NE(without.find(std::string(text(0))), std::string::npos);
    EXPECT_NE(without.find(std::string(text(2))), std::string::npos);
    // An empty <item/> is an item too, and goes whole.
    const auto empty = feedWith("<item/><item><title>1</title></item>");
    EXPECT_EQ(
        parseValid(appcast::removeItems(empty, [](std::size_t at) { return at == 0; })).size(), 1u);
}

TEST(FeedItemCheck, NamesWhatKeepsAnItemFromInstalling) {
    const auto signature = std::string(86, 'A') + "==";
    SparkleFeedItem good;
    good.stated.version = "1.39.5";
    good.enclosureURL = "https://a.io/App.dmg";
    good.enclosureLength = "5000";
    good.edSignature = signature;
    EXPECT_TRUE(feedItemProblems(good).empty());
    const struct {
        std::function<void(SparkleFeedItem&)> change;
        const char* problem;
    } cases[] = {
        {[](auto& item) { item.stated.version = "abc"; }, "its build 'abc' is not a number"},
        {[](auto& item) { item.stated.version.clear(); }, "it names no build (sparkle:version)"},
        {[](auto& item) { item.enclosureLength = "-3"; }, "its length '-3' is not a byte count"},
        {[](auto& item) { item.edSignature = "AAAA"; },
         "its signature 'AAAA' is not 64 bytes of base64"},
        {[](auto& item) { item.edSignature.clear(); }, "it has no EdDSA signature"},
        {[](auto& item) { item.enclosureURL = "file:///etc/passwd"; },
         "its download 'file:///etc/passwd' is not an http(s) address"},
        {[](auto& item) { item.stated.phasedRolloutInterval = "soon"; },
         "its phased rollout interval 'soon' is not a number of seconds"},
    };
    for (const auto& row : cases) {
        auto item = good;
        row.change(item);
        EXPECT_EQ(feedItemProblems(item), std::vector<std::string>{row.problem});
    }
}

TEST(FeedControls, DurationsAndNamesAsTheyEnter) {
    EXPECT_EQ(feedControls::parseDuration("3600"), 3600);
    EXPECT_EQ(feedControls::parseDuration("90m"), 5400);
    EXPECT_EQ(feedControls::parseDuration("2d"), 172800);
    EXPECT_EQ(feedControls::parseDuration("1w"), 604800);
    for (const auto* bad : {"", "d", "0", "-5", "5x", "1.5h", "99999999999999999w"}) {
        EXPECT_EQ(feedControls::parseDuration(bad), std::nullopt) << bad;
    }
    EXPECT_EQ(feedControls::durationText(5400), "90m");
    EXPECT_EQ(feedControls::channelProblem("beta-2"), std::nullopt);
    EXPECT_NE(feedControls::channelProblem("be ta"), std::nullopt);
    EXPECT_NE(feedControls::channelProblem("</sparkle:channel>"), std::nullopt);
    EXPECT_EQ(feedControls::buildProblem("1.2.0"), std::nullopt);
    for (const auto* bad : {"", "1..2", ".1", "1.", "v1", "--x"}) {
        EXPECT_NE(feedControls::buildProblem(bad), std::nullopt) << bad;
    }
}

TEST(SparkleFeedParser, SplitTextAndCDATAAreJoinedBeforeTrimming) {
    const auto items =
        parseValid(feedWith("<item><title>\n  1.&#50;<![CDATA[.3]]>\u2028</title>"
                            "<description><![CDATA[<p>New</p>]]> <![CDATA[things]]>\n</description>"
                            "<sparkle:version>\u00a0\u3000 7 \u0085</sparkle:version></item>"));
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0].title, "1.2.3");
    EXPECT_EQ(items[0].rawDescription, "<p>New</p> things");
    EXPECT_EQ(items[0].version, "7");
}

TEST(SparkleFeedParser, DeltasAndInformationalUpdatesFeedNothingOfTheItem) {
    const auto items = parseValid(feedWith(
        "<item><title>5</title><enclosure url=\"full.dmg\" length=\"10\"/>"
        "<sparkle:informationalUpdate><sparkle:version>4</sparkle:version>"
        "</sparkle:informationalUpdate>"
        "<sparkle:deltas><enclosure url=\"delta.patch\" length=\"1\"/><item><title>x</title>"
        "</item></sparkle:deltas><pubDate>today</pubDate></item>"));
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0].version, "5");
    EXPECT_EQ(items[0].enclosureURL, "full.dmg");
    EXPECT_EQ(items[0].enclosureLength, "10");
    EXPECT_EQ(items[0].pubDate, "today");
}

TEST(SparkleFeedParser, ExternalEntitiesAreNeverRead) {
    const auto secret = std::filesystem::temp_directory_path() / "veltra-feed-secret.txt";
    { std::ofstream(secret) << "SECRET"; }
    const auto document = "<?xml version=\"1.0\"?><!DOCTYPE rss [<!ENTITY x SYSTEM \"file://" +
                          secret.string() +
                          "\">]><rss><channel><item><title>&x;</title></item></channel></rss>";
    EXPECT_FALSE(SparkleFeedParser::parse(document).has_value());
    // A DTD that lives elsewhere is not fetched either; its entities stay unknown.
    const auto external =
        "<?xml version=\"1.0\" standalone=\"no\"?><!DOCTYPE rss SYSTEM \"file://" +
        secret.string() + "\"><rss><channel><item><title>a&x;</title></item></channel></rss>";
    const auto items = SparkleFeedParser::parse(external);
    if (items) {
        ASSERT_EQ(items->size(), 1u);
        EXPECT_EQ((*items)[0].title.find("SECRET"), std::string::npos);
    }
    std::filesystem::remove(secret);
}

TEST(SparkleFeedParser, EntityBombsAreRefusedQuickly) {
    std::string bomb = "<?xml version=\"1.0\"?><!DOCTYPE rss [<!ENTITY a0 \"lol\">";
    for (int level = 1; level <= 12; ++level) {
        bomb += "<!ENTITY a" + std::to_string(level) + " \"";
        for (int copy = 0; copy < 10; ++copy) {
            bomb += "&a" + std::to_string(level - 1) + ";";
        }
        bomb += "\">";
    }
    bomb += "]><rss><channel><item><title>&a12;</title></item></channel></rss>";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(SparkleFeedParser::parse(bomb).has_value());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(SparkleFeedParser, TrimsTheUnicodeSpaceSet) {
    EXPECT_EQ(trimFeedText(" \t\r\n\v\f\u0085\u00a0\u2003\u2029x y\u202f\u205f\u1680"), "x y");
    EXPECT_EQ(trimFeedText("\u200bx"), "\u200bx"); // zero-width space is not white space
    EXPECT_EQ(trimFeedText("\xe2\x80"), "\xe2\x80");
    EXPECT_EQ(trimFeedText(""), "");
}

} // namespace
} // namespace veltra

#include "core/feed/ReleaseFeedValidator.h"
#include "core/support/VeltraError.h"
#include "core/support/XMLEncoding.h"

#include <iconv.h>

namespace veltra {
namespace {

// The feed text re-encoded from UTF-8 into `encoding` with iconv.
std::string encoded(const std::string& utf8, const char* encoding) {
    const iconv_t converter = iconv_open(encoding, "UTF-8");
    EXPECT_NE(converter, reinterpret_cast<iconv_t>(-1)) << encoding;
    std::string input = utf8;
    std::string output(utf8.size() * 2, '\0');
    char* in = input.data();
    char* out = output.data();
    std::size_t inLeft = input.size();
    std::size_t outLeft = output.size();
    EXPECT_NE(iconv(converter, &in, &inLeft, &out, &outLeft), static_cast<std::size_t>(-1));
    iconv_close(converter);
    output.resize(output.size() - outLeft);
    return output;
}

std::string feedDeclaring(const std::string& encoding, const std::string& title) {
    return "<?xml version=\"1.0\" encoding='" + encoding +
           "'?>\n<rss version=\"2.0\" xmlns:sparkle=\"http://www.andymatuschak.org/"
           "xml-namespaces/sparkle\"><channel><title>Acme</title><item><title>" +
           title +
           "</title><sparkle:version>42</sparkle:version><sparkle:shortVersionString>1.2"
           "</sparkle:shortVersionString></item></channel></rss>\n";
}

TEST(SparkleFeedParser, ReadsTheSingleByteEncodingsSparkleReads) {
    struct Row {
        const char* declared;
        const char* iconvName;
        std::string title; // UTF-8
    };
    for (const auto& row : {
             Row{"ASCII", "ASCII", "Acme 1.2 &#233;"},
             Row{"us-ascii", "ASCII", "Acme 1.2"},
             Row{"windows-1252", "CP1252", "Café “1.2” – €"},
             Row{"cp1252", "CP1252", "Café"},
             Row{"ISO-8859-15", "ISO-8859-15", "Café 1.2 €"},
             Row{"iso-8859-2", "ISO-8859-2", "Zażółć"},
             Row{"ISO-8859-1", "ISO-8859-1", "Café ÿ"},
             Row{"MacRoman", "MACINTOSH", "Café ™"},
             Row{"macintosh", "MACINTOSH", "Ünïcödé"},
         }) {
        SCOPED_TRACE(row.declared);
        const auto bytes = encoded(feedDeclaring(row.declared, row.title), row.iconvName);
        const auto items = SparkleFeedParser::parse(bytes);
        ASSERT_TRUE(items);
        ASSERT_EQ(items->size(), 1u);
        const auto expected =
            std::string(row.title) == "Acme 1.2 &#233;" ? std::string("Acme 1.2 é") : row.title;
        EXPECT_EQ(items->front().title, expected);
        EXPECT_EQ(items->front().version, "42");
        EXPECT_EQ(SparkleFeedParser::unreadableEncoding(bytes), std::nullopt);
        EXPECT_NO_THROW(ReleaseFeedValidator::validateNextBuild(bytes, 43));
    }
    // A byte ASCII does not have is not silently read.
    EXPECT_FALSE(SparkleFeedParser::parse(feedDeclaring("ASCII", "Caf\xE9")));
}

TEST(SparkleFeedParser, UnreadableEncodingsAreRefusedByName) {
    for (const std::string name : {"Shift_JIS", "EBCDIC-US", "x-unknown", "iso-8859-12"}) {
        SCOPED_TRACE(name);
        const auto feed = feedDeclaring(name, "Acme");
        EXPECT_FALSE(SparkleFeedParser::parse(feed));
        EXPECT_EQ(SparkleFeedParser::unreadableEncoding(feed), name);
        try {
            ReleaseFeedValidator::validateNextBuild(feed, 43);
            FAIL() << "accepted";
        } catch (const VeltraError& error) {
            EXPECT_EQ(error.message(), "The update feed declares the encoding '" + name +
                                           "', which cannot be read. Save it as UTF-8 before "
                                           "releasing.");
        }
    }
    EXPECT_EQ(XMLEncoding::declared("\xEF\xBB\xBF<?xml version='1.0' encoding=\"UTF-8\"?><a/>"),
              "UTF-8");
    EXPECT_EQ(XMLEncoding::declared("<rss/>"), std::nullopt);
}

} // namespace
} // namespace veltra
