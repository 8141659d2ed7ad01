#include "HttpClient.h"

#include "Text.h"
#include "core/support/StopToken.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <curl/curl.h>
#include <exception>
#include <memory>
#include <mutex>

#include <fmt/format.h>

namespace veltra {

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return std::ranges::equal(a, b, [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) ==
               std::tolower(static_cast<unsigned char>(y));
    });
}

struct Exchange {
    const HttpRequest* request = nullptr;
    HttpResponse response{};
    bool tooLarge = false;
    std::exception_ptr callbackFailure{};
};

extern "C" std::size_t onBodyData(char* data, std::size_t size, std::size_t count, void* user) {
    auto& exchange = *static_cast<Exchange*>(user);
    const std::size_t length = size * count;
    try {
        if (exchange.request->onBody) {
            exchange.request->onBody(std::string_view(data, length));
            return length;
        }
        if (exchange.response.body.size() + length > exchange.request->maxBodyBytes) {
            exchange.tooLarge = true;
            return 0;
        }
        exchange.response.body.append(data, length);
        return length;
    } catch (...) {
        exchange.callbackFailure = std::current_exception();
        return 0;
    }
}

extern "C" std::size_t onHeaderLine(char* data, std::size_t size, std::size_t count, void* user) {
    auto& response = static_cast<Exchange*>(user)->response;
    const std::string_view line(data, size * count);
    // Each answer in a redirect chain starts with its status line; only the last one counts.
    if (line.starts_with("HTTP/")) {
        response.headers.clear();
        response.contentLength.reset();
        return line.size();
    }
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) {
        return line.size();
    }
    const auto name = trimWhitespace(line.substr(0, colon));
    const auto value = trimWhitespace(line.substr(colon + 1));
    response.headers.emplace_back(std::string(name), std::string(value));
    if (equalsIgnoringCase(name, "Content-Length")) {
        std::uint64_t length = 0;
        const auto [end, error] =
            std::from_chars(value.data(), value.data() + value.size(), length);
        if (error == std::errc() && end == value.data() + value.size()) {
            response.contentLength = length;
        }
    }
    return line.size();
}

struct EasyDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct MultiDeleter {
    void operator()(CURLM* handle) const { curl_multi_cleanup(handle); }
};
struct ListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

HttpError::Kind kindOf(CURLcode code) {
    switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
        return HttpError::Kind::timedOut;
    case CURLE_COULDNT_CONNECT:
    case CURLE_COULDNT_RESOLVE_HOST:
        return HttpError::Kind::couldNotConnect;
    case CURLE_URL_MALFORMAT:
    case CURLE_UNSUPPORTED_PROTOCOL:
        return HttpError::Kind::invalidURL;
    default:
        return HttpError::Kind::transport;
    }
}

} // namespace

HttpError::HttpError(Kind kind, int curlCode, const std::string& message)
    : VeltraError("Veltra.HTTP", curlCode, message), kind_(kind) {}

std::optional<std::string> HttpResponse::header(std::string_view name) const {
    for (const auto& [key, value] : headers) {
        if (equalsIgnoringCase(key, name)) {
            return value;
        }
    }
    return std::nullopt;
}

HttpClient::HttpClient() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

bool HttpClient::isWebAddress(const std::string& url) {
    // libcurl reads "https:///feed.xml" as the host "feed.xml"; an address needs its host.
    const auto separator = url.find("://");
    if (separator == std::string::npos || separator + 3 >= url.size() ||
        url[separator + 3] == '/') {
        return false;
    }
    std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), curl_url_cleanup);
    if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
        return false;
    }
    char* scheme = nullptr;
    char* host = nullptr;
    const bool hasParts = curl_url_get(parsed.get(), CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK &&
                          curl_url_get(parsed.get(), CURLUPART_HOST, &host, 0) == CURLUE_OK;
    const bool web = hasParts &&
                     (std::string_view(scheme) == "http" || std::string_view(scheme) == "https") &&
                     *host != '\0';
    curl_free(scheme);
    curl_free(host);
    return web;
}

bool HttpClient::isSecureOrLocalAddress(const std::string& url) {
    if (!isWebAddress(url)) {
        return false;
    }
    std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), curl_url_cleanup);
    char* scheme = nullptr;
    char* host = nullptr;
    if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK ||
        curl_url_get(parsed.get(), CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK ||
        curl_url_get(parsed.get(), CURLUPART_HOST, &host, 0) != CURLUE_OK) {
        curl_free(scheme);
        return false;
    }
    const std::string_view hostName(host);
    const bool secure = std::string_view(scheme) == "https";
    const bool local = hostName == "localhost" || hostName == "[::1]" ||
                       (hostName.starts_with("127.") &&
                        hostName.find_first_not_of("0123456789.") == std::string_view::npos);
    curl_free(scheme);
    curl_free(host);
    return secure || local;
}

const char* HttpClient::redirectProtocols(const std::string& url) {
    return asciiLowercase(url).starts_with("https:") ? "https" : "http,https";
}

HttpResponse HttpClient::send(const HttpRequest& request, StopToken stop) const {
    if (stop.stop_requested()) {
        throw CancellationError();
    }
    std::unique_ptr<CURL, EasyDeleter> easy(curl_easy_init());
    std::unique_ptr<CURLM, MultiDeleter> multi(curl_multi_init());
    if (!easy || !multi) {
        throw HttpError(HttpError::Kind::transport, CURLE_FAILED_INIT,
                        "The HTTP library could not start a request.");
    }
    Exchange exchange;
    exchange.request = &request;
    CURL* handle = easy.get();
    curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, redirectProtocols(request.url));
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, request.followRedirects ? 1L : 0L);
    curl_easy_setopt(handle, CURLOPT_MAXREDIRS, 10L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeout * 1000));
    curl_easy_setopt(handle, CURLOPT_USERAGENT, "Veltra");
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, onBodyData);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &exchange);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, onHeaderLine);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &exchange);
    switch (request.method) {
    case HttpRequest::Method::get:
        break;
    case HttpRequest::Method::head:
        curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
        break;
    case HttpRequest::Method::post:
        curl_easy_setopt(handle, CURLOPT_POST, 1L);
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.body.data());
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(request.body.size()));
        break;
    }
    std::string range;
    if (request.range) {
        range = request.range->second
                    ? fmt::format("{}-{}", request.range->first, *request.range->second)
                    : fmt::format("{}-", request.range->first);
        curl_easy_setopt(handle, CURLOPT_RANGE, range.c_str());
    }
    std::unique_ptr<curl_slist, ListDeleter> headers;
    for (const auto& line : request.headers) {
        headers.reset(curl_slist_append(headers.release(), line.c_str()));
    }
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());

    // The multi interface lets a stop request wake the wait at once.
    curl_multi_add_handle(multi.get(), handle);
    StopCallback wake(stop, [&multi] { curl_multi_wakeup(multi.get()); });
    int running = 1;
    CURLcode result = CURLE_OK;
    while (running > 0) {
        if (const auto code = curl_multi_perform(multi.get(), &running); code != CURLM_OK) {
            result = CURLE_FAILED_INIT;
            break;
        }
        if (stop.stop_requested()) {
            curl_multi_remove_handle(multi.get(), handle);
            throw CancellationError();
        }
        if (running > 0) {
            curl_multi_poll(multi.get(), nullptr, 0, 1000, nullptr);
        }
    }
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi.get(), &queued)) {
        if (message->msg == CURLMSG_DONE) {
            result = message->data.result;
        }
    }
    curl_multi_remove_handle(multi.get(), handle);

    if (exchange.callbackFailure) {
        std::rethrow_exception(exchange.callbackFailure);
    }
    if (exchange.tooLarge) {
        throw HttpError(HttpError::Kind::bodyTooLarge, CURLE_WRITE_ERROR,
                        fmt::format("The answer from {} is larger than {} bytes.", request.url,
                                    request.maxBodyBytes));
    }
    if (result != CURLE_OK) {
        throw HttpError(kindOf(result), static_cast<int>(result),
                        fmt::format("{}: {}", request.url, curl_easy_strerror(result)));
    }
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &exchange.response.status);
    char* effective = nullptr;
    if (curl_easy_getinfo(handle, CURLINFO_EFFECTIVE_URL, &effective) == CURLE_OK &&
        effective != nullptr) {
        exchange.response.url = effective;
    }
    return std::move(exchange.response);
}

HttpResponse HttpClient::get(const std::string& url, std::vector<std::string> headers,
                             StopToken stop) const {
    HttpRequest request;
    request.url = url;
    request.headers = std::move(headers);
    return send(request, stop);
}

HttpResponse HttpClient::head(const std::string& url, StopToken stop) const {
    HttpRequest request;
    request.method = HttpRequest::Method::head;
    request.url = url;
    return send(request, stop);
}

HttpResponse HttpClient::post(const std::string& url, StopToken stop) const {
    HttpRequest request;
    request.method = HttpRequest::Method::post;
    request.url = url;
    return send(request, stop);
}

} // namespace veltra
