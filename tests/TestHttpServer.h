#pragma once

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace veltra::testing {

// A real HTTP/1.1 server on 127.0.0.1 and a free port, one thread per connection, answering
// every request through the test's handler and closing the connection after each answer.
class TestHttpServer {
public:
    struct Request {
        std::string method;
        std::string target;
        // Header names in lower case.
        std::map<std::string, std::string> headers;
        // What a request with a Content-Length sent.
        std::string body{};
    };
    struct Response {
        int status = 200;
        std::vector<std::pair<std::string, std::string>> headers{};
        std::string body{};
        // Waited before anything is sent.
        std::chrono::milliseconds delay{0};
        // Leave out Content-Length (the body then ends when the connection closes).
        bool omitContentLength = false;
        // Send the body even to HEAD, as some servers do.
        bool bodyForHead = false;
        // Writes the body itself, for bodies too large to hold; gets a send function.
        std::function<void(const std::function<bool(std::string_view)>&)> streamBody{};
    };
    using Handler = std::function<Response(const Request&)>;

    explicit TestHttpServer(Handler handler) : handler_(std::move(handler)) {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        int yes = 1;
        ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = 0;
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, 16) != 0) {
            throw std::runtime_error("test server could not listen");
        }
        socklen_t length = sizeof address;
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        acceptor_ = std::thread([this] { acceptLoop(); });
    }
    TestHttpServer(const TestHttpServer&) = delete;
    TestHttpServer& operator=(const TestHttpServer&) = delete;

    ~TestHttpServer() {
        stopping_ = true;
        acceptor_.join();
        std::vector<std::thread> connections;
        {
            std::lock_guard lock(mutex_);
            connections.swap(connections_);
        }
        for (auto& connection : connections) {
            connection.join();
        }
        ::close(listener_);
    }

    std::string url(std::string_view path = "/") const {
        return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
    }

    std::vector<Request> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }

private:
    void acceptLoop() {
        while (!stopping_) {
            pollfd poller{listener_, POLLIN, 0};
            if (::poll(&poller, 1, 50) <= 0) {
                continue;
            }
            const int connection = ::accept(listener_, nullptr, nullptr);
            if (connection < 0) {
                continue;
            }
            std::lock_guard lock(mutex_);
            connections_.emplace_back([this, connection] { serve(connection); });
        }
    }

    bool sendAll(int connection, std::string_view data) const {
        while (!data.empty()) {
            const auto sent = ::send(connection, data.data(), data.size(), MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            data.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }

    void serve(int connection) {
        std::string received;
        char buffer[4096];
        while (received.find("\r\n\r\n") == std::string::npos) {
            pollfd poller{connection, POLLIN, 0};
            if (stopping_ || ::poll(&poller, 1, 50) < 0) {
                ::close(connection);
                return;
            }
            if ((poller.revents & POLLIN) == 0) {
                continue;
            }
            const auto got = ::recv(connection, buffer, sizeof buffer, 0);
            if (got <= 0) {
                ::close(connection);
                return;
            }
            received.append(buffer, static_cast<std::size_t>(got));
        }
        Request request;
        const auto lineEnd = received.find("\r\n");
        const auto requestLine = received.substr(0, lineEnd);
        const auto firstSpace = requestLine.find(' ');
        request.method = requestLine.substr(0, firstSpace);
        request.target =
            requestLine.substr(firstSpace + 1, requestLine.rfind(' ') - firstSpace - 1);
        std::size_t at = lineEnd + 2;
        while (true) {
            const auto end = received.find("\r\n", at);
            if (end == at || end == std::string::npos) {
                break;
            }
            const auto line = received.substr(at, end - at);
            const auto colon = line.find(':');
            std::string name = line.substr(0, colon);
            for (auto& c : name) {
                c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            }
            request.headers[name] = line.substr(line.find_first_not_of(' ', colon + 1));
            at = end + 2;
        }
        if (const auto length = request.headers.find("content-length");
            length != request.headers.end()) {
            const auto wanted = std::stoul(length->second);
            auto body = received.substr(received.find("\r\n\r\n") + 4);
            while (body.size() < wanted && !stopping_) {
                pollfd poller{connection, POLLIN, 0};
                if (::poll(&poller, 1, 50) < 0) {
                    break;
                }
                if ((poller.revents & POLLIN) == 0) {
                    continue;
                }
                const auto got = ::recv(connection, buffer, sizeof buffer, 0);
                if (got <= 0) {
                    break;
                }
                body.append(buffer, static_cast<std::size_t>(got));
            }
            request.body = std::move(body);
        }
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(request);
        }
        const auto response = handler_(request);
        const auto deadline = std::chrono::steady_clock::now() + response.delay;
        while (!stopping_ && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        std::string head = "HTTP/1.1 " + std::to_string(response.status) + " Status\r\n";
        for (const auto& [name, value] : response.headers) {
            head += name + ": " + value + "\r\n";
        }
        if (!response.omitContentLength && !response.streamBody) {
            head += "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
        }
        head += "Connection: close\r\n\r\n";
        if (sendAll(connection, head) && (request.method != "HEAD" || response.bodyForHead)) {
            if (response.streamBody) {
                response.streamBody([&](std::string_view chunk) {
                    return !stopping_ && sendAll(connection, chunk);
                });
            } else {
                sendAll(connection, response.body);
            }
        }
        ::shutdown(connection, SHUT_WR);
        ::close(connection);
    }

    Handler handler_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread acceptor_;
    mutable std::mutex mutex_;
    std::vector<std::thread> connections_;
    std::vector<Request> requests_;
};

} // namespace veltra::testing
