#include "GitFixture.h"
#include "TestHttpServer.h"
#include "core/feed/PublishedFeedReader.h"
#include "core/feed/ReleaseFeedFailure.h"
#include "core/support/FileUtilities.h"

#include <gtest/gtest.h>

namespace veltra {
namespace {

using testing::TestHttpServer;
using testing::WebsiteRepository;

const std::string feed = "<rss><channel><title>Acme</title></channel></rss>\n";

std::string failureOf(const std::function<void()>& work) {
    try {
        work();
    } catch (const VeltraError& error) {
        EXPECT_EQ(error.domain(), "Veltra.ReleaseFeed");
        EXPECT_EQ(error.code(), 400);
        return error.message();
    }
    return "passed";
}

TEST(CommittedFeed, ReadsWhatOriginHoldsNotTheLocalCheckout) {
    WebsiteRepository website;
    website.commit("downloads/appcast.xml", feed);
    // Someone else pushes a newer feed; the selected clone is left behind.
    const auto other = website.dir / "other";
    testing::git(website.dir.path(), {"clone", "--quiet", website.origin.string(), other.string()});
    testing::writeFile(other / "downloads/appcast.xml", "<rss><channel/></rss>\n");
    testing::git(other, {"commit", "--quiet", "-am", "Newer feed"});
    testing::git(other, {"push", "--quiet", "origin", "main"});

    PublishedFeedReader reader;
    EXPECT_EQ(reader.committedFeed(website.site, "main", "/downloads/"), "<rss><channel/></rss>\n");
    EXPECT_EQ(readFile(website.site / "downloads/appcast.xml"), feed);
}

TEST(CommittedFeed, Failures) {
    WebsiteRepository website;
    website.commit("appcast.xml", feed);
    testing::git(website.site, {"checkout", "--quiet", "-b", "empty"});
    testing::git(website.site, {"rm", "--quiet", "appcast.xml"});
    testing::git(website.site, {"commit", "--quiet", "-m", "No feed"});
    testing::git(website.site, {"push", "--quiet", "origin", "empty"});
    std::filesystem::create_directories(website.site / "sub");
    std::filesystem::create_directories(website.dir / "plain");
    const std::string notRoot = "Choose the website repository’s root folder in Distribution. The "
                                "selected folder does not match its Git root.";
    PublishedFeedReader reader;
    const struct {
        const char* name;
        std::filesystem::path repository;
        std::string branch;
        std::string downloads;
        std::string message;
        std::optional<ReleaseFeedFailure::Kind> kind;
    } cases[] = {
        {"the root of the repository", website.site, "main", "", "passed", std::nullopt},
        {"a branch without a feed", website.site, "empty", "",
         "The publishing branch does not contain an update feed.",
         ReleaseFeedFailure::Kind::missingCommittedFeed},
        {"a feed in another folder", website.site, "main", "downloads",
         "The publishing branch does not contain an update feed.",
         ReleaseFeedFailure::Kind::missingCommittedFeed},
        {"a branch origin does not have", website.site, "gh-pages", "",
         "Could not check the website publishing branch: fatal: couldn't find remote ref "
         "gh-pages",
         ReleaseFeedFailure::Kind::websiteRepository},
        {"a folder inside the repository", website.site / "sub", "main", "", notRoot,
         ReleaseFeedFailure::Kind::websiteRepository},
        {"a folder outside any repository", website.dir / "plain", "main", "", notRoot,
         ReleaseFeedFailure::Kind::websiteRepository},
        {"a folder that does not exist", website.dir / "missing", "main", "", notRoot,
         ReleaseFeedFailure::Kind::websiteRepository},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        std::optional<ReleaseFeedFailure::Kind> kind;
        EXPECT_EQ(failureOf([&] {
                      try {
                          reader.committedFeed(row.repository, row.branch, row.downloads);
                      } catch (const ReleaseFeedFailure& failure) {
                          kind = failure.kind();
                          throw;
                      }
                  }),
                  row.message);
        EXPECT_EQ(kind, row.kind);
    }

    // An origin that cannot be reached.
    testing::git(website.site,
                 {"remote", "set-url", "origin", (website.dir / "gone.git").string()});
    const auto message = failureOf([&] { reader.committedFeed(website.site); });
    EXPECT_TRUE(message.starts_with("Could not check the website publishing branch: fatal: "))
        << message;
}

TEST(LiveFeed, AnswersAndFailures) {
    TestHttpServer server([](const TestHttpServer::Request& request) {
        if (request.target == "/Acme/appcast.xml") {
            return TestHttpServer::Response{200, {}, feed};
        }
        if (request.target == "/down/appcast.xml") {
            return TestHttpServer::Response{503, {}, "busy"};
        }
        if (request.target == "/slow/appcast.xml") {
            return TestHttpServer::Response{200, {}, feed, std::chrono::milliseconds(60000)};
        }
        return TestHttpServer::Response{404, {}, "missing"};
    });
    PublishedFeedReader reader;
    reader.httpTimeout = 0.3;
    const auto url = PublishedFeedReader::feedURL(server.url("/{app}/appcast.xml"), "Acme", "x");
    EXPECT_EQ(reader.liveFeed(url), feed);
    EXPECT_EQ(server.requests().back().headers.at("cache-control"), "no-cache");

    const std::string retry = "The live update feed could not be checked. Retry before releasing.";
    const std::string configure = "Configure a valid public Sparkle feed URL before releasing.";
    const struct {
        const char* name;
        std::string url;
        std::string message;
    } cases[] = {
        {"404", server.url("/gone/appcast.xml"),
         "The published update feed is unavailable (404). Restore it before releasing."},
        {"server error", server.url("/down/appcast.xml"), retry},
        {"too slow", server.url("/slow/appcast.xml"), retry},
        {"nobody listening", "http://127.0.0.1:1/appcast.xml", retry},
        {"no scheme", "example.com/appcast.xml", configure},
        {"other scheme", "ftp://example.com/appcast.xml", configure},
        {"no host", "https:///appcast.xml", configure},
        {"empty", "", configure},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(failureOf([&] { reader.liveFeed(row.url); }), row.message);
    }
}

TEST(CommittedFeed, MissingFeedMessageDependsOnTheLiveSite) {
    WebsiteRepository website;
    TestHttpServer server([](const TestHttpServer::Request& request) {
        return request.target == "/appcast.xml" ? TestHttpServer::Response{200, {}, feed}
                                                : TestHttpServer::Response{404, {}, ""};
    });
    PublishedFeedReader reader;
    EXPECT_EQ(failureOf([&] {
                  reader.committedFeedCheckedAgainstLive(website.site, "main", "",
                                                         server.url("/appcast.xml"));
              }),
              "The publishing branch is missing the existing live update feed. Restore it "
              "before releasing.");
    EXPECT_EQ(failureOf([&] {
                  reader.committedFeedCheckedAgainstLive(website.site, "main", "",
                                                         server.url("/none.xml"));
              }),
              "The publishing branch does not contain an update feed.");
    website.commit("appcast.xml", feed);
    EXPECT_EQ(
        reader.committedFeedCheckedAgainstLive(website.site, "main", "", server.url("/none.xml")),
        feed);
}

} // namespace
} // namespace veltra
