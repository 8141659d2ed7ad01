#pragma once

#include "Background.h"
#include "QtMainQueue.h"
#include "QtSystemSounds.h"
#include "ReleaseNotifications.h"
#include "core/pipeline/PipelineManager.h"
#include "core/pipeline/WebsitePublicationWatcher.h"
#include "core/profile/ProfileStore.h"
#include "core/support/Telemetry.h"

#include <QObject>
#include <QSettings>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>

namespace veltra::studio {

// What the Studio's views bind to: the core's store, pipeline and website watcher on the Qt
// main queue, their changes as Qt signals, and the per-release choices that are not part of a
// profile (version, build, notes). No release logic lives here.
class StudioModel final : public QObject, private PipelineObserver {
    Q_OBJECT
public:
    struct Options {
        std::filesystem::path profilesFile = ProfileStore::defaultPath();
        // The user-defaults store; the platform's when empty.
        QString settingsFile{};
        // How often and how long a pushed release is checked on the live site.
        WebsiteWatchTiming watchTiming{};
        bool withNotifications = true;
        // Where the telemetry setting and queue are (~/.veltra).
        std::filesystem::path telemetryFolder = TelemetrySettings::defaultFolder();
    };

    explicit StudioModel(Options options, QObject* parent = nullptr);
    ~StudioModel() override;

    QtMainQueue& queue() { return queue_; }
    NotificationCenter& notifications() { return notifications_; }
    ProfileStore& store() { return *store_; }
    PipelineManager& pipeline() { return *pipeline_; }
    WebsitePublicationWatcher& watcher() { return *watcher_; }
    ReleaseNotificationsViewModel& releaseNotifications() { return *releaseNotifications_; }
    Background& background() { return background_; }
    QSettings& settings() { return *settings_; }

    // Applies `change` to a copy of the selected profile and saves it through the store.
    // Returns the error message when the change is refused.
    std::optional<std::string> edit(const std::function<void(ProjectProfile&)>& change);

    // This release's choices, kept per profile while the Studio runs.
    struct ReleaseChoices {
        std::string version;
        std::string build;
        std::string notes;
        // Who the feed offers the release to, and how.
        feedControls::Typed offer;
    };
    ReleaseChoices& choices(const Uuid& profileID) { return choices_[profileID.string()]; }

    // Starts a release of the selected profile with its choices; the error when it cannot start.
    std::optional<std::string> startRelease();
    // Checks one recorded release on the live site now.
    void checkWebsite(const Uuid& profileID, const std::string& releaseID);

    // Read anew each time: the command line may have changed it meanwhile.
    TelemetrySettings telemetrySettings() const { return TelemetrySettings(telemetryFolder_); }
    void setTelemetryEnabled(bool enabled);
    // Records studio_opened (when telemetry is on) and sends what is queued.
    void opened();

Q_SIGNALS:
    void profilesChanged();
    void stepsUpdated();
    void logsArrived(const std::vector<veltra::ReleaseLogEntry>& batch);
    void runStarted();
    void runEnded();
    void websiteChecked(const QString& releaseID);
    // The user opened a release's notification: show that release.
    void openRelease(const QString& profileID, const QString& releaseID);

private:
    void stepsChanged(const PipelineManager&) override;
    void logsPublished(const std::vector<ReleaseLogEntry>& batch) override;
    void runFinished(const PipelineManager&) override;
    void record(const std::string& event, Json properties);
    // One round at a time, in the background; a request during a round starts another after it.
    void sendTelemetry();

    QtMainQueue queue_;
    NotificationCenter notifications_;
    std::unique_ptr<QSettings> settings_;
    std::unique_ptr<ProfileStore> store_;
    QtSystemSounds sounds_;
    std::unique_ptr<WebsitePublicationWatcher> watcher_;
    std::unique_ptr<PipelineManager> pipeline_;
    std::unique_ptr<UserNotificationCenter> center_;
    std::unique_ptr<ReleaseNotificationsViewModel> releaseNotifications_;
    NotificationCenter::Registration openObserver_;
    std::map<std::string, ReleaseChoices> choices_;
    std::filesystem::path telemetryFolder_;
    std::optional<ReleaseRequest> runningRequest_;
    bool sending_ = false;
    bool sendAgain_ = false;
    Background background_;
};

} // namespace veltra::studio
