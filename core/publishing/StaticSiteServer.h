#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

namespace httplib {
class Server;
}

namespace veltra {

// A static web server on 127.0.0.1 for a folder, as a hosting service serves a published
// website: GET and HEAD, byte ranges, no caching. For the demo and for tests of the road to a
// live release.
class StaticSiteServer {
public:
    // Listens on `port` (0: a free one) at once; throws VeltraError when it cannot.
    explicit StaticSiteServer(const std::filesystem::path& folder, std::uint16_t port = 0);
    StaticSiteServer(const StaticSiteServer&) = delete;
    StaticSiteServer& operator=(const StaticSiteServer&) = delete;
    // Stops listening and waits for the server's thread.
    ~StaticSiteServer();

    // "http://127.0.0.1:<port>/"
    std::string url() const;
    std::uint16_t port() const { return port_; }

private:
    std::unique_ptr<httplib::Server> server_;
    std::uint16_t port_ = 0;
    std::thread thread_;
};

} // namespace veltra
