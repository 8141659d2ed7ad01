#pragma once

#include "VeltraError.h"
#include "core/support/StopToken.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace veltra {

struct HttpRequest {
    enum class Method { get, head, post };

    Method method = Method::get;
    // http or https only; redirects to anything else are refused.
    std::string url{};
    // "Name: value" lines sent as they are.
    std::vector<std::string> headers{};
    // Seconds for the whole exchange, redirects included.
    double timeout = 30;
    // Bytes first..last (inclusive); an absent last means to the end.
    std::optional<std::pair<std::uint64_t, std::optional<std::uint64_t>>> range{};
    bool followRedirects = true;
    // When set, the body is passed here as it arrives and not kept in the response.
    std::function<void(std::string_view)> onBody{};
    // A kept body larger than this fails the request.
    std::size_t maxBodyBytes = 64u << 20;
    // What a POST sends (its Content-Type and Content-Encoding go in `headers`).
    std::string body{};
};

struct HttpResponse {
    // The final answer's status (after redirects).
    long status = 0;
    std::string body{};
    // The final answer's headers, names as the server sent them.
    std::vector<std::pair<std::string, std::string>> headers{};
    // Content-Length of the final answer, when it gave one.
    std::optional<std::uint64_t> contentLength{};
    // Where the final answer came from.
    std::string url{};

    // First header of that name, compared without regard to case.
    std::optional<std::string> header(std::string_view name) const;
};

// A request that got no HTTP answer. An answer with any status, 404 and 500 included, is a
// response, not an error. Domain "Veltra.HTTP"; the code is libcurl's.
class HttpError : public VeltraError {
public:
    enum class Kind { invalidURL, couldNotConnect, timedOut, bodyTooLarge, transport };

    HttpError(Kind kind, int curlCode, const std::string& message);
    Kind kind() const noexcept { return kind_; }

private:
    Kind kind_;
};

// Plain HTTP over libcurl, one blocking exchange per call, safe to use from many threads.
// Cancelling through `stop` ends the exchange at once and throws CancellationError.
class HttpClient {
public:
    HttpClient();

    HttpResponse send(const HttpRequest& request, StopToken stop = {}) const;

    HttpResponse get(const std::string& url, std::vector<std::string> headers = {},
                     StopToken stop = {}) const;
    HttpResponse head(const std::string& url, StopToken stop = {}) const;
    // POST with an empty body, as deploy hooks expect.
    HttpResponse post(const std::string& url, StopToken stop = {}) const;

    // True for an http or https address with a host.
    static bool isWebAddress(const std::string& url);
    // True for an https address, or an http one on this machine (localhost, 127.0.0.0/8, ::1):
    // where something secret may be sent.
    static bool isSecureOrLocalAddress(const std::string& url);
    // The schemes a redirect from `url` may go to: an https address never continues over
    // plain http, where what it sends and receives could be read and changed.
    static const char* redirectProtocols(const std::string& url);
};

} // namespace veltra
