#include "TestHttpServer.h"
#include "core/support/HttpClient.h"
#include "core/support/StopToken.h"
#include "core/support/Uuid.h"

#include <chrono>
#include <set>
#include <thread>

#include <gtest/gtest.h>

namespace veltra {
namespace {

using testing::TestHttpServer;
using Response = TestHttpServer::Response;

TEST(HttpClient, AnswersOfEveryStatusAreResponses) {
    TestHttpServer server([](const TestHttpServer::Request& request) {
        if (request.target == "/feed.xml") {
            return Response{200, {{"Content-Type", "application/xml"}}, "<rss/>"};
        }
        if (request.target == "/broken") {
            return Response{500, {}, "oops"};
        }
        return Response{404, {}, "not here"};
    });
    HttpClient client;
    const auto found = client.get(server.url("/feed.xml"), {"Cache-Control: no-cache"});
    EXPECT_EQ(found.status, 200);
    EXPECT_EQ(found.body, "<rss/>");
    EXPECT_EQ(found.header("content-type"), "application/xml");
    EXPECT_EQ(found.contentLength, 6u);
    EXPECT_EQ(server.requests().at(0).headers.at("cache-control"), "no-cache");
    EXPECT_EQ(client.get(server.url("/missing")).status, 404);
    const auto broken = client.get(server.url("/broken"));
    EXPECT_EQ(broken.status, 500);
    EXPECT_EQ(broken.body, "oops");
}

TEST(HttpClient, FollowsRedirectsAndReportsTheFinalAnswer) {
    TestHttpServer server([](const TestHttpServer::Request& request) {
        if (request.target == "/old") {
            return Response{301, {{"Location", "/middle"}, {"X-Hop", "1"}}, ""};
        }
        if (request.target == "/middle") {
            return Response{302, {{"Location", "/new"}}, ""};
        }
        return Response{200, {}, "arrived"};
    });
    HttpClient client;
    const auto response = client.get(server.url("/old"));
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, "arrived");
    EXPECT_EQ(response.url, server.url("/new"));
    EXPECT_EQ(response.header("X-Hop"), std::nullopt);

    HttpRequest stay;
    stay.url = server.url("/old");
    stay.followRedirects = false;
    EXPECT_EQ(client.send(stay).status, 301);
}

TEST(HttpClient, HeadPostAndRanges) {
    TestHttpServer server([](const TestHttpServer::Request& request) {
        if (request.target == "/no-length") {
            return Response{200, {}, "", {}, true};
        }
        if (request.target == "/chatty") {
            // Answers HEAD with a body anyway.
            return Response{200, {}, "0123456789", {}, false, true};
        }
        if (request.headers.contains("range")) {
            return Response{206, {{"Content-Range", "bytes 2-4/10"}}, "234"};
        }
        return Response{200, {}, request.method == "POST" ? "posted" : "0123456789"};
    });
    HttpClient client;
    const auto head = client.head(server.url("/file.dmg"));
    EXPECT_EQ(head.status, 200);
    EXPECT_EQ(head.contentLength, 10u);
    EXPECT_TRUE(head.body.empty());
    EXPECT_EQ(client.head(server.url("/no-length")).contentLength, std::nullopt);
    EXPECT_EQ(client.head(server.url("/chatty")).contentLength, 10u);

    EXPECT_EQ(client.post(server.url("/hook")).body, "posted");
    const auto post = server.requests().back();
    EXPECT_EQ(post.method, "POST");
    EXPECT_EQ(post.headers.at("content-length"), "0");

    HttpRequest ranged;
    ranged.url = server.url("/file.dmg");
    ranged.range = {{2, 4}};
    std::string streamed;
    ranged.onBody = [&](std::string_view chunk) { streamed += chunk; };
    const auto partial = client.send(ranged);
    EXPECT_EQ(partial.status, 206);
    EXPECT_EQ(streamed, "234");
    EXPECT_TRUE(partial.body.empty());
    EXPECT_EQ(server.requests().back().headers.at("range"), "bytes=2-4");
}

TEST(HttpClient, LargeBodiesStreamWithoutBeingKept) {
    constexpr std::size_t chunk = 1 << 20;
    constexpr std::size_t chunks = 256;
    TestHttpServer server([](const TestHttpServer::Request&) {
        Response response;
        response.headers = {{"Content-Length", std::to_string(chunk * chunks)}};
        response.streamBody = [](const std::function<bool(std::string_view)>& send) {
            const std::string block(chunk, 'x');
            for (std::size_t i = 0; i < chunks && send(block); ++i) {
            }
        };
        return response;
    });
    HttpClient client;
    HttpRequest request;
    request.url = server.url("/big.dmg");
    std::size_t received = 0;
    request.onBody = [&](std::string_view data) { received += data.size(); };
    const auto response = client.send(request);
    EXPECT_EQ(received, chunk * chunks);
    EXPECT_TRUE(response.body.empty());

    HttpRequest kept;
    kept.url = server.url("/big.dmg");
    kept.maxBodyBytes = 4 * chunk;
    try {
        client.send(kept);
        FAIL() << "a kept body over the limit must fail";
    } catch (const HttpError& error) {
        EXPECT_EQ(error.kind(), HttpError::Kind::bodyTooLarge);
    }
}

TEST(HttpClient, TimeLimitsCancellationAndUnreachableHosts) {
    TestHttpServer server([](const TestHttpServer::Request&) {
        return Response{200, {}, "late", std::chrono::milliseconds(60000)};
    });
    HttpClient client;
    HttpRequest slow;
    slow.url = server.url("/slow");
    slow.timeout = 0.3;
    try {
        client.send(slow);
        FAIL() << "the answer came after the time limit";
    } catch (const HttpError& error) {
        EXPECT_EQ(error.kind(), HttpError::Kind::timedOut);
        EXPECT_EQ(error.domain(), "Veltra.HTTP");
    }

    StopSource stop;
    JThread canceller([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        stop.request_stop();
    });
    slow.timeout = 30;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(client.send(slow, stop.get_token()), CancellationError);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));

    // A port nobody listens on: bind one, then close it.
    std::string closedPort;
    {
        TestHttpServer gone([](const TestHttpServer::Request&) { return Response{}; });
        closedPort = gone.url("/");
    }
    try {
        client.get(closedPort);
        FAIL() << "nothing listens there";
    } catch (const HttpError& error) {
        EXPECT_EQ(error.kind(), HttpError::Kind::couldNotConnect);
    }
    try {
        client.get("ftp://127.0.0.1/feed.xml");
        FAIL() << "only http and https are spoken";
    } catch (const HttpError& error) {
        EXPECT_EQ(error.kind(), HttpError::Kind::invalidURL);
    }
}

TEST(HttpClient, WebAddresses) {
    EXPECT_TRUE(HttpClient::isWebAddress("https://example.com/appcast.xml"));
    EXPECT_TRUE(HttpClient::isWebAddress("http://127.0.0.1:8080/a"));
    EXPECT_FALSE(HttpClient::isWebAddress("ftp://example.com/appcast.xml"));
    EXPECT_FALSE(HttpClient::isWebAddress("file:///tmp/appcast.xml"));
    EXPECT_FALSE(HttpClient::isWebAddress("https://"));
    EXPECT_FALSE(HttpClient::isWebAddress("https:///appcast.xml"));
    EXPECT_FALSE(HttpClient::isWebAddress("example.com/appcast.xml"));
    EXPECT_FALSE(HttpClient::isWebAddress(""));
}

// Where a secret may go (a deploy hook's address is one), and where a redirect may lead.
TEST(HttpClient, SecureAddressesAndRedirects) {
    for (const auto* url : {"https://api.example.com/hook", "http://127.0.0.1:8080/hook",
                            "http://localhost/hook", "http://[::1]:9/hook", "http://127.9.9.9/"}) {
        EXPECT_TRUE(HttpClient::isSecureOrLocalAddress(url)) << url;
    }
    for (const auto* url : {"http://api.example.com/hook", "http://127.0.0.1.example.com/",
                            "http://10.0.0.1/hook", "ftp://example.com/", "not a url", ""}) {
        EXPECT_FALSE(HttpClient::isSecureOrLocalAddress(url)) << url;
    }
    EXPECT_STREQ(HttpClient::redirectProtocols("https://example.com/appcast.xml"), "https");
    EXPECT_STREQ(HttpClient::redirectProtocols("HTTPS://example.com/"), "https");
    EXPECT_STREQ(HttpClient::redirectProtocols("http://example.com/"), "http,https");
}

TEST(Uuid, ComeFromTheSystemsRandomSource) {
    std::set<std::string> seen;
    for (int i = 0; i < 10000; ++i) {
        const auto text = Uuid::random().string();
        EXPECT_EQ(text[14], '4');
        EXPECT_NE(std::string_view("89abAB").find(text[19]), std::string_view::npos);
        seen.insert(text);
    }
    EXPECT_EQ(seen.size(), 10000U);
}

} // namespace
} // namespace veltra
