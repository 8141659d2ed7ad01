#pragma once

#include "core/records/WebsitePublication.h"
#include "core/support/StopToken.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

namespace veltra {

// What a live check needs besides the publication: the release's version and build.
struct WebsitePublicationCheck {
    WebsitePublication publication;
    std::string version;
    std::string build;
};

// Runs live-site checks, at most `limit` at once across the whole application; callers over
// the limit wait, backing off, until a slot is free.
class WebsitePublicationProbe {
public:
    using Checker = std::function<bool(const WebsitePublicationCheck&, StopToken)>;

    explicit WebsitePublicationProbe(Checker checker, int limit = 3);
    // The application's one probe, checking with WebDeployer's live-site verification.
    static WebsitePublicationProbe& shared();

    // Whether the site serves the release. Waits for a slot, re-trying every `backoff`; false
    // when stopped before a slot was free. The checker's result otherwise.
    bool check(const WebsitePublicationCheck& request, std::chrono::milliseconds backoff,
               StopToken stop = {});

    int active() const;
    int limit() const { return limit_; }

private:
    Checker checker_;
    int limit_;
    mutable std::mutex lock_;
    std::condition_variable_any freed_;
    int active_ = 0;
};

} // namespace veltra
