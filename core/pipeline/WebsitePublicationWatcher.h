#pragma once

#include "core/publishing/ReleaseNotificationEvent.h"
#include "core/publishing/WebsitePublicationProbe.h"
#include "core/support/MainQueue.h"
#include "core/support/NotificationCenter.h"
#include "core/support/Uuid.h"

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace veltra {

class ProfileStore;

// How often a pending release is checked, and when checking gives up.
struct WebsiteWatchTiming {
    std::chrono::milliseconds interval{std::chrono::seconds(20)};
    std::chrono::milliseconds timeLimit{std::chrono::minutes(15)};
    // How long a check waits before trying again for one of the probe's slots.
    std::chrono::milliseconds backoff{std::chrono::milliseconds(500)};
};

// Checks pending releases until the live site serves them, or until a time limit turns them
// into needsAttention. Each outcome is written into the release's manifest through the profile
// store and announced as a ReleaseNotificationEvent. Checks run on worker threads; the store
// and the notifications are touched only on the main queue.
class WebsitePublicationWatcher {
public:
    WebsitePublicationWatcher(MainQueue& queue, ProfileStore& store,
                              NotificationCenter& notifications,
                              WebsitePublicationProbe& probe = WebsitePublicationProbe::shared(),
                              WebsiteWatchTiming timing = {});
    WebsitePublicationWatcher(const WebsitePublicationWatcher&) = delete;
    WebsitePublicationWatcher& operator=(const WebsitePublicationWatcher&) = delete;
    // Stops every watch and waits for their threads.
    ~WebsitePublicationWatcher();

    // Starts watching the release whose monitoringReleaseID is `releaseID` (main queue only).
    // False when there is no such release or it carries no publication.
    bool watch(const Uuid& profileID, const std::string& releaseID);

    // Called on the main queue after each check with the state it left.
    std::function<void(const std::string& releaseID, WebsitePublicationState)> onCheck;
    // Called on the main queue when a watch ends (live or needsAttention).
    std::function<void(const std::string& releaseID, WebsitePublicationState)> onFinish;

    // How many watches are running (main queue).
    std::size_t running() const { return running_; }

private:
    void record(const Uuid& profileID, const std::string& releaseID, bool matched, bool final);

    MainQueue& queue_;
    ProfileStore& store_;
    NotificationCenter& notifications_;
    WebsitePublicationProbe& probe_;
    WebsiteWatchTiming timing_;
    std::size_t running_ = 0;
    // Work a worker posted is dropped once the watcher is gone.
    std::shared_ptr<int> lifetime_ = std::make_shared<int>(0);
    std::mutex lock_;
    std::list<JThread> workers_;
};

} // namespace veltra
