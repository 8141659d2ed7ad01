// Verifying a 2 GiB download on a local server, through HEAD (the length alone) and through the
// ranged GET a server that gives HEAD no length forces (every byte streamed and counted). The
// process's memory must stay flat: the body is never held.

#include "BenchSupport.h"
#include "TestHttpServer.h"
#include "core/feed/AppcastDocument.h"
#include "core/publishing/WebDeployer.h"

#include <benchmark/benchmark.h>

namespace veltra {
namespace {

constexpr std::int64_t twoGiB = std::int64_t{2} << 30;

void verify(benchmark::State& state, bool headHasLength) {
    const std::string chunk(1 << 20, 'x');
    std::string feed;
    testing::TestHttpServer server([&](const testing::TestHttpServer::Request& request) {
        testing::TestHttpServer::Response response;
        if (request.target == "/appcast.xml") {
            response.body = feed;
            return response;
        }
        if (request.method == "HEAD") {
            response.omitContentLength = true;
            if (headHasLength) {
                response.headers = {{"Content-Length", std::to_string(twoGiB)}};
            }
            return response;
        }
        response.headers = {{"Content-Length", std::to_string(twoGiB)}};
        response.streamBody = [&chunk](const std::function<bool(std::string_view)>& send) {
            for (std::int64_t sent = 0; sent < twoGiB;
                 sent += static_cast<std::int64_t>(chunk.size())) {
                if (!send(chunk)) {
                    return;
                }
            }
        };
        return response;
    });
    WebsitePublication publication;
    publication.feedURL = server.url("/appcast.xml");
    publication.downloadURL = server.url("/Acme.dmg");
    publication.expectedSignature = "SIG==";
    publication.expectedSize = twoGiB;
    const AppcastRelease item{"1.0",  "1", publication.downloadURL, "SIG==", std::to_string(twoGiB),
                              "13.0", ""};
    feed = *appcast::insertItem(appcast::stubFeed("Acme", ""),
                                appcast::itemText(item, appcast::rfc822Date(0)));
    bench::resetPeakMemory();
    const WebDeployer deployer;
    for (auto _ : state) {
        if (!deployer.verifyLiveSite(publication, "1.0", "1")) {
            state.SkipWithError("not verified");
        }
    }
    state.counters["peak_MiB"] = bench::peakMemoryMiB();
}

void BM_VerifyTwoGiBDownloadByHead(benchmark::State& state) {
    verify(state, true);
}
void BM_VerifyTwoGiBDownloadByRangedGet(benchmark::State& state) {
    verify(state, false);
}
BENCHMARK(BM_VerifyTwoGiBDownloadByHead)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_VerifyTwoGiBDownloadByRangedGet)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2)
    ->UseRealTime();

} // namespace
} // namespace veltra
