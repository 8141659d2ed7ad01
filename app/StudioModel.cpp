#include "StudioModel.h"

#include "core/pipeline/TelemetryEvents.h"
#include "core/pipeline/TelemetrySender.h"
#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"

#include <QGuiApplication>
#include <charconv>

#ifndef __APPLE__
#include "FreedesktopNotificationCenter.h"
#endif

namespace veltra::studio {

#ifdef __APPLE__
std::unique_ptr<UserNotificationCenter> makeAppleNotificationCenter();
#endif

namespace {

std::unique_ptr<UserNotificationCenter> makeSystemNotificationCenter() {
#ifdef __APPLE__
    return makeAppleNotificationCenter();
#else
    return FreedesktopNotificationCenter::make();
#endif
}

} // namespace

StudioModel::StudioModel(Options options, QObject* parent)
    : QObject(parent), notifications_(queue_), telemetryFolder_(options.telemetryFolder) {
    settings_ = options.settingsFile.isEmpty()
                    ? std::make_unique<QSettings>()
                    : std::make_unique<QSettings>(options.settingsFile, QSettings::IniFormat);
    store_ = std::make_unique<ProfileStore>(queue_, notifications_, options.profilesFile);
    store_->setChangeObserver([this] { Q_EMIT profilesChanged(); });
    watcher_ = std::make_unique<WebsitePublicationWatcher>(
        queue_, *store_, notifications_, WebsitePublicationProbe::shared(), options.watchTiming);
    watcher_->onCheck = [this](const std::string& releaseID, WebsitePublicationState) {
        Q_EMIT websiteChecked(qs(releaseID));
    };
    pipeline_ = std::make_unique<PipelineManager>(queue_, notifications_, &sounds_);
    pipeline_->watcher = watcher_.get();
    pipeline_->setObserver(this);
    if (options.withNotifications) {
        center_ = makeSystemNotificationCenter();
    }
    releaseNotifications_ = std::make_unique<ReleaseNotificationsViewModel>(
        queue_, notifications_, *settings_, center_.get(),
        [] { return QGuiApplication::applicationState() == Qt::ApplicationActive; });
    openObserver_ = notifications_.addObserver(
        std::string(OpenReleaseRequest::notificationName), [this](const Notification& note) {
            if (const auto* request = std::any_cast<OpenReleaseRequest>(&note.payload)) {
                Q_EMIT openRelease(qs(request->profileID.string()), qs(request->releaseID));
            }
        });
}

StudioModel::~StudioModel() {
    // The run's worker posts to the queue and the store; it goes first.
    pipeline_.reset();
    watcher_.reset();
    store_->flush();
}

std::optional<std::string> StudioModel::edit(const std::function<void(ProjectProfile&)>& change) {
    const auto* selected = store_->selectedProfile();
    if (selected == nullptr) {
        return "Select a profile first.";
    }
    auto profile = *selected;
    try {
        change(profile);
    } catch (const std::exception& error) {
        return error.what();
    }
    if (profile != *selected) {
        store_->update(profile);
    }
    return std::nullopt;
}

std::optional<std::string> StudioModel::startRelease() {
    const auto* profile = store_->selectedProfile();
    if (profile == nullptr) {
        return "Select a profile first.";
    }
    if (pipeline_->isRunning()) {
        return "A release is already running.";
    }
    ReleaseRequest request;
    request.profile = *profile;
    if (profile->sourceProjectPath && profile->sourceProjectPath->ends_with(".app")) {
        request.appPath = expandTilde(*profile->sourceProjectPath);
    }
    const auto& chosen = choices(profile->id);
    if (!chosen.version.empty()) {
        request.version = chosen.version;
    }
    if (!chosen.build.empty()) {
        std::int64_t build = 0;
        const auto* end = chosen.build.data() + chosen.build.size();
        const auto [stop, error] = std::from_chars(chosen.build.data(), end, build);
        if (error != std::errc() || stop != end || build < 1) {
            return "The build number must be a whole number of 1 or more.";
        }
        request.build = build;
    }
    if (!chosen.notes.empty()) {
        request.notes = chosen.notes;
    }
    const auto controls = feedControls::fromTyped(chosen.offer);
    if (!controls) {
        return controls.error();
    }
    request.feedControls = *controls;
    runningRequest_ = request;
    record("release_started", TelemetryEvents::releaseStarted(request));
    pipeline_->run(std::move(request));
    Q_EMIT runStarted();
    return std::nullopt;
}

void StudioModel::checkWebsite(const Uuid& profileID, const std::string& releaseID) {
    watcher_->watch(profileID, releaseID);
}

void StudioModel::stepsChanged(const PipelineManager&) {
    Q_EMIT stepsUpdated();
}

void StudioModel::logsPublished(const std::vector<ReleaseLogEntry>& batch) {
    Q_EMIT logsArrived(batch);
}

void StudioModel::runFinished(const PipelineManager&) {
    if (runningRequest_) {
        record("release_finished", TelemetryEvents::releaseFinished(*pipeline_, *runningRequest_));
        runningRequest_.reset();
        sendTelemetry();
    }
    Q_EMIT runEnded();
}

void StudioModel::setTelemetryEnabled(bool enabled) {
    auto settings = telemetrySettings();
    settings.markAsked();
    if (enabled) {
        settings.enable();
    } else {
        settings.disable();
    }
}

void StudioModel::opened() {
    record("studio_opened", Json::object());
    sendTelemetry();
}

void StudioModel::record(const std::string& event, Json properties) {
    const auto settings = telemetrySettings();
    TelemetryEvents::record(TelemetryEvents::source(VELTRA_VERSION, true, settings), event,
                            std::move(properties), settings);
}

void StudioModel::sendTelemetry() {
    const auto settings = telemetrySettings();
    if (!settings.active() || !settings.endpoint()) {
        return;
    }
    if (sending_) {
        sendAgain_ = true;
        return;
    }
    sending_ = true;
    background_.run<TelemetrySendResult>(
        this,
        [settings](StopToken stop) {
            return TelemetrySender(settings).send(std::chrono::seconds(30), false, stop);
        },
        [this](TelemetrySendResult) {
            sending_ = false;
            if (std::exchange(sendAgain_, false)) {
                sendTelemetry();
            }
        });
}

} // namespace veltra::studio
