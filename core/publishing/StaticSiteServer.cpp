#include "StaticSiteServer.h"

#include "core/support/VeltraError.h"

#include <chrono>

#ifdef VELTRA_NO_SITE_SERVER

namespace httplib {
class Server {};
} // namespace httplib

namespace veltra {

StaticSiteServer::StaticSiteServer(const std::filesystem::path&, std::uint16_t) {
    throw VeltraError("Veltra", errorCode::notFound,
                      "This build of Veltra has no local web server (built without cpp-httplib).");
}

StaticSiteServer::~StaticSiteServer() = default;

std::string StaticSiteServer::url() const {
    return {};
}

} // namespace veltra

#else

#include <httplib.h>

namespace veltra {

StaticSiteServer::StaticSiteServer(const std::filesystem::path& folder, std::uint16_t port)
    : server_(std::make_unique<httplib::Server>()) {
    if (!server_->set_mount_point("/", folder.string(), {{"Cache-Control", "no-cache"}})) {
        throw VeltraError("Veltra", errorCode::notFound,
                          "No folder to serve at " + folder.string() + ".");
    }
    // "/" serves the download page, as a hosting service does.
    server_->set_file_extension_and_mimetype_mapping("xml", "application/xml");
    server_->set_file_extension_and_mimetype_mapping("md", "text/markdown");
    server_->set_file_extension_and_mimetype_mapping("dmg", "application/x-apple-diskimage");
    int bound = 0;
    if (port == 0) {
        bound = server_->bind_to_any_port("127.0.0.1");
    } else {
        bound = server_->bind_to_port("127.0.0.1", port) ? port : -1;
    }
    if (bound <= 0) {
        throw VeltraError("Veltra", errorCode::toolFailed,
                          "The local web server could not listen on 127.0.0.1" +
                              (port == 0 ? std::string() : ":" + std::to_string(port)) + ".");
    }
    port_ = static_cast<std::uint16_t>(bound);
    thread_ = std::thread([server = server_.get()] { server->listen_after_bind(); });
    // stop() is ignored until the accept loop runs; wait for it so a quick destruction stops.
    while (!server_->is_running()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

StaticSiteServer::~StaticSiteServer() {
    server_->stop();
    if (thread_.joinable()) {
        thread_.join();
    }
}

std::string StaticSiteServer::url() const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/";
}

} // namespace veltra

#endif
