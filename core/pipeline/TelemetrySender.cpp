#include "TelemetrySender.h"

#include "TelemetryEvents.h"
#include "core/support/Date.h"
#include "core/support/FileUtilities.h"
#include "core/support/HttpClient.h"
#include "core/support/JsonReader.h"

#include <algorithm>
#include <cmath>
#include <zlib.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;

std::optional<std::string> gzip(const std::string& text) {
    z_stream stream{};
    // 15 + 16: a gzip header and trailer around the deflate stream.
    if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) !=
        Z_OK) {
        return std::nullopt;
    }
    std::string packed(deflateBound(&stream, static_cast<uLong>(text.size())), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(packed.data());
    stream.avail_out = static_cast<uInt>(packed.size());
    const auto finished = deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    if (finished != Z_STREAM_END) {
        return std::nullopt;
    }
    return packed;
}

double secondsOf(std::chrono::system_clock::time_point time) {
    return std::chrono::duration<double>(time.time_since_epoch()).count();
}

} // namespace

TelemetrySender::TelemetrySender(const TelemetrySettings& settings, Clock clock)
    : settings_(settings),
      clock_(clock ? std::move(clock) : Clock([] { return std::chrono::system_clock::now(); })) {}

TelemetrySendResult TelemetrySender::send(std::chrono::milliseconds budget, bool now,
                                          StopToken stop) const {
    TelemetrySendResult result;
    const auto endpoint = settings_.endpoint();
    if (!settings_.active() || !endpoint) {
        return result;
    }
    try {
        if (!HttpClient::isSecureOrLocalAddress(*endpoint)) {
            result.problem = "the endpoint " + *endpoint + " is not an https:// address";
            return result;
        }
        const auto state = settings_.queueFile().parent_path() / "backoff.json";
        Json backoff = Json::object();
        if (fs::is_regular_file(state)) {
            backoff = Json::parse(readFile(state), nullptr, false);
        }
        const auto failures = backoff.is_object() ? backoff.value("failures", 0) : 0;
        const auto next = backoff.is_object() ? backoff.value("nextAttempt", 0.0) : 0.0;
        if (!now && secondsOf(clock_()) < next) {
            result.problem =
                "backing off until " + Date::fromUnixTime(next).iso8601() + " after a failure";
            return result;
        }
        const auto started = std::chrono::steady_clock::now();
        TelemetryQueue queue(settings_.queueFile());
        const HttpClient client;
        while (!stop.stop_requested()) {
            const auto events = queue.events();
            if (events.empty()) {
                break;
            }
            const auto batch = TelemetryEvents::batches(events, settings_.installID(),
                                                        settings_.apiKey(), queue.dropped())
                                   .front();
            const auto count = batch["batch"].size();
            const auto packed = gzip(dumpJson(batch));
            const auto left = budget - std::chrono::duration_cast<std::chrono::milliseconds>(
                                           std::chrono::steady_clock::now() - started);
            if (!packed || left <= std::chrono::milliseconds(0)) {
                break;
            }
            HttpRequest request;
            request.method = HttpRequest::Method::post;
            request.url = *endpoint;
            request.headers = {"Content-Type: application/json", "Content-Encoding: gzip"};
            request.body = *packed;
            request.timeout = std::chrono::duration<double>(left).count();
            request.followRedirects = false;
            long status = 0;
            try {
                status = client.send(request, stop).status;
            } catch (const CancellationError&) {
                break;
            } catch (const std::exception& error) {
                result.problem = error.what();
            }
            if (status >= 200 && status <= 299) {
                queue.removeFirst(count);
                result.sent += count;
                std::error_code ignored;
                fs::remove(state, ignored);
                continue;
            }
            if (status >= 400 && status <= 499 && status != 429) {
                queue.removeFirst(count);
                result.refused += count;
                continue;
            }
            if (!result.problem) {
                result.problem = "the endpoint answered HTTP " + std::to_string(status);
            }
            // One minute, doubling with each failure in a row, at most a day.
            const double wait = std::min(60.0 * std::exp2(failures), 24.0 * 3600.0);
            writeFileAtomically(state,
                                dumpJson(Json{{"failures", failures + 1},
                                              {"nextAttempt", secondsOf(clock_()) + wait}}),
                                fs::perms::owner_read | fs::perms::owner_write);
            break;
        }
    } catch (const std::exception& error) {
        result.problem = error.what();
    }
    return result;
}

} // namespace veltra
