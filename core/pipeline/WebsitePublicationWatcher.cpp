#include "WebsitePublicationWatcher.h"

#include "core/process/TransientRetry.h"
#include "core/profile/ProfileStore.h"
#include "core/support/VeltraError.h"

namespace veltra {
namespace {

const ReleaseManifest* releaseIn(const ProjectProfile& profile, const std::string& releaseID) {
    if (!profile.recentReleases) {
        return nullptr;
    }
    for (const auto& manifest : *profile.recentReleases) {
        if (manifest.monitoringReleaseID == releaseID) {
            return &manifest;
        }
    }
    return nullptr;
}

} // namespace

WebsitePublicationWatcher::WebsitePublicationWatcher(MainQueue& queue, ProfileStore& store,
                                                     NotificationCenter& notifications,
                                                     WebsitePublicationProbe& probe,
                                                     WebsiteWatchTiming timing)
    : queue_(queue), store_(store), notifications_(notifications), probe_(probe), timing_(timing) {}

WebsitePublicationWatcher::~WebsitePublicationWatcher() {
    std::list<JThread> workers;
    {
        const std::lock_guard guard(lock_);
        workers.swap(workers_);
    }
    for (auto& worker : workers) {
        worker.request_stop();
    }
    // jthreads join as they go.
}

bool WebsitePublicationWatcher::watch(const Uuid& profileID, const std::string& releaseID) {
    const auto* profile = store_.find(profileID);
    const auto* manifest = profile != nullptr ? releaseIn(*profile, releaseID) : nullptr;
    if (manifest == nullptr || !manifest->websitePublication) {
        return false;
    }
    const WebsitePublicationCheck request{*manifest->websitePublication, manifest->version,
                                          manifest->buildNumber};
    ++running_;
    store_.setWebsiteCheckActive(releaseID, true);
    const std::lock_guard guard(lock_);
    workers_.emplace_back([this, request, profileID, releaseID,
                           alive = std::weak_ptr<int>(lifetime_)](StopToken stop) {
        const auto deadline = std::chrono::steady_clock::now() + timing_.timeLimit;
        while (!stop.stop_requested()) {
            bool matched = false;
            try {
                matched = probe_.check(request, timing_.backoff, stop);
            } catch (const CancellationError&) {
                return;
            }
            if (stop.stop_requested()) {
                return;
            }
            const bool outOfTime = std::chrono::steady_clock::now() >= deadline;
            queue_.post([this, alive, profileID, releaseID, matched, outOfTime] {
                if (!alive.expired()) {
                    record(profileID, releaseID, matched, matched || outOfTime);
                }
            });
            if (matched || outOfTime) {
                return;
            }
            waitUnlessStopped(timing_.interval, stop);
        }
    });
    return true;
}

void WebsitePublicationWatcher::record(const Uuid& profileID, const std::string& releaseID,
                                       bool matched, bool final) {
    const auto* stored = store_.find(profileID);
    if (stored == nullptr) {
        return;
    }
    auto profile = *stored;
    ReleaseManifest* manifest = nullptr;
    if (profile.recentReleases) {
        for (auto& candidate : *profile.recentReleases) {
            if (candidate.monitoringReleaseID == releaseID) {
                manifest = &candidate;
            }
        }
    }
    if (manifest == nullptr || !manifest->websitePublication) {
        return;
    }
    auto& publication = *manifest->websitePublication;
    publication.lastCheckedAt = Date::now();
    if (matched) {
        publication.state = WebsitePublicationState::live;
    } else if (final) {
        publication.state = WebsitePublicationState::needsAttention;
    }
    const auto state = publication.state;
    const ReleaseNotificationEvent event{profileID, releaseID, manifest->appName, manifest->version,
                                         matched
                                             ? ReleaseNotificationEvent::Outcome::live
                                             : ReleaseNotificationEvent::Outcome::needsAttention};
    store_.update(profile);
    if (onCheck) {
        onCheck(releaseID, state);
    }
    if (final) {
        --running_;
        store_.setWebsiteCheckActive(releaseID, false);
        notifications_.post(std::string(ReleaseNotificationEvent::notificationName), event);
        if (onFinish) {
            onFinish(releaseID, state);
        }
    }
}

} // namespace veltra
