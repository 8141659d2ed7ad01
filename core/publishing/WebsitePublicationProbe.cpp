#include "WebsitePublicationProbe.h"

#include "WebDeployer.h"

namespace veltra {

WebsitePublicationProbe::WebsitePublicationProbe(Checker checker, int limit)
    : checker_(std::move(checker)), limit_(limit) {}

WebsitePublicationProbe& WebsitePublicationProbe::shared() {
    static WebsitePublicationProbe probe(
        [](const WebsitePublicationCheck& request, StopToken stop) {
            return WebDeployer().verifyLiveSite(request.publication, request.version, request.build,
                                                stop);
        });
    return probe;
}

int WebsitePublicationProbe::active() const {
    const std::lock_guard guard(lock_);
    return active_;
}

bool WebsitePublicationProbe::check(const WebsitePublicationCheck& request,
                                    std::chrono::milliseconds backoff, StopToken stop) {
    {
        std::unique_lock guard(lock_);
        while (active_ >= limit_) {
            if (stop.stop_requested()) {
                return false;
            }
            waitFor(freed_, guard, stop, backoff, [this] { return active_ < limit_; });
        }
        if (stop.stop_requested()) {
            return false;
        }
        ++active_;
    }
    struct Release {
        WebsitePublicationProbe& probe;
        ~Release() {
            {
                const std::lock_guard guard(probe.lock_);
                --probe.active_;
            }
            probe.freed_.notify_one();
        }
    } release{*this};
    return checker_(request, stop);
}

} // namespace veltra
