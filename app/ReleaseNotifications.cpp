#include "ReleaseNotifications.h"

#include "Background.h"

#include <QStringList>

namespace veltra::studio {

namespace {

// The delivered identifiers kept across restarts; older ones go first once there are more.
constexpr qsizetype deliveredLimit = 1000;

} // namespace

const QString ReleaseNotificationsViewModel::switchText =
    QStringLiteral("Notify me when the website is live or a release needs attention");
const QString ReleaseNotificationsViewModel::footnoteText =
    QStringLiteral("Notifications appear while Veltra is in the background. This preference "
                   "applies to future releases.");
#ifdef __APPLE__
const QString ReleaseNotificationsViewModel::deniedMessage =
    QStringLiteral("macOS has notifications for Veltra turned off, so it cannot tell you when a "
                   "release is live. Turn them on in System Settings > Notifications > Veltra.");
#else
const QString ReleaseNotificationsViewModel::deniedMessage =
    QStringLiteral("Notifications are off on this desktop: no notification service answers. "
                   "Enable one in your desktop's settings.");
#endif
const QString ReleaseNotificationsViewModel::failedMessage =
    QStringLiteral("Could not enable notifications. Try again.");
const QString ReleaseNotificationsViewModel::unavailableMessage =
    QStringLiteral("Notifications require the installed Veltra app.");

ReleaseNotificationsViewModel::ReleaseNotificationsViewModel(
    MainQueue& queue, NotificationCenter& notifications, QSettings& defaults,
    UserNotificationCenter* center, std::function<bool()> applicationIsActive)
    : queue_(queue), notifications_(notifications), defaults_(defaults), center_(center),
      applicationIsActive_(std::move(applicationIsActive)) {
    isEnabled_ = defaults_.value(QLatin1String(enabledKey), false).toBool();
    observer_ = notifications_.addObserver(
        std::string(ReleaseNotificationEvent::notificationName), [this](const Notification& note) {
            if (const auto* event = std::any_cast<ReleaseNotificationEvent>(&note.payload)) {
                receive(*event);
            }
        });
    if (center_ != nullptr) {
        center_->onOpen = [this, alive = std::weak_ptr<int>(lifetime_)](const QString& profile,
                                                                        const QString& release) {
            queue_.post([this, alive, profile, release] {
                if (alive.expired()) {
                    return;
                }
                const auto id = Uuid::parse(str(profile));
                if (id) {
                    notifications_.post(std::string(OpenReleaseRequest::notificationName),
                                        OpenReleaseRequest{*id, str(release)});
                }
            });
        };
    }
}

ReleaseNotificationsViewModel::~ReleaseNotificationsViewModel() {
    if (center_ != nullptr) {
        center_->onOpen = nullptr;
    }
}

void ReleaseNotificationsViewModel::setEnabled(bool enabled) {
    if (!enabled) {
        isEnabled_ = false;
        permissionMessage_.reset();
        defaults_.setValue(QLatin1String(enabledKey), false);
        Q_EMIT changed();
        return;
    }
    if (center_ == nullptr) {
        isEnabled_ = false;
        permissionMessage_ = unavailableMessage;
        Q_EMIT changed();
        return;
    }
    if (isRequestingPermission_) {
        return;
    }
    isRequestingPermission_ = true;
    permissionMessage_.reset();
    Q_EMIT changed();
    // The centre may answer after this is gone; the queue outlives both.
    center_->requestAuthorization([this, &queue = queue_, alive = std::weak_ptr<int>(lifetime_)](
                                      std::optional<NotificationAuthorization> answer) {
        queue.post([this, alive, answer] {
            if (alive.expired()) {
                return;
            }
            isRequestingPermission_ = false;
            isEnabled_ = answer == NotificationAuthorization::authorized;
            if (!answer) {
                permissionMessage_ = failedMessage;
            } else if (!isEnabled_) {
                permissionMessage_ = deniedMessage;
            }
            defaults_.setValue(QLatin1String(enabledKey), isEnabled_);
            Q_EMIT changed();
        });
    });
}

void ReleaseNotificationsViewModel::openNotificationSettings() {
    if (center_ != nullptr) {
        center_->openSettings();
    }
}

std::pair<QString, QString>
ReleaseNotificationsViewModel::content(const ReleaseNotificationEvent& event) {
    auto name = qs(event.appName);
    if (!event.version.empty()) {
        name += QStringLiteral(" v") + qs(event.version);
    }
    switch (event.outcome) {
    case ReleaseNotificationEvent::Outcome::live:
        return {QStringLiteral("Website live"),
                name + QStringLiteral(" is live. Feed and download verified.")};
    case ReleaseNotificationEvent::Outcome::needsAttention:
        return {QStringLiteral("Website needs attention"),
                name + QStringLiteral(" was uploaded, but publication is unconfirmed. Open Veltra "
                                      "to check the deployment.")};
    case ReleaseNotificationEvent::Outcome::failed:
        break;
    }
    return {QStringLiteral("Release needs attention"),
            name + QStringLiteral(" encountered a release problem. Open Veltra to review the "
                                  "result and logs.")};
}

void ReleaseNotificationsViewModel::receive(const ReleaseNotificationEvent& event) {
    const auto identifier = event.identifier();
    if (!isEnabled_ || center_ == nullptr || delivered(identifier) ||
        pendingIDs_.contains(identifier)) {
        return;
    }
    pendingIDs_.insert(identifier);
    const auto alive = std::weak_ptr<int>(lifetime_);
    // Each step may answer on another thread; every answer comes back to the main queue.
    const auto drop = [this, identifier] { pendingIDs_.erase(identifier); };
    center_->authorizationStatus([this, &queue = queue_, alive, event, identifier,
                                  drop](NotificationAuthorization status) {
        queue.post([this, alive, event, identifier, drop, status] {
            if (alive.expired()) {
                return;
            }
            // A notification is for the background case; a dropped foreground event is not
            // recorded, it was simply not needed.
            if (status != NotificationAuthorization::authorized || applicationIsActive_()) {
                drop();
                return;
            }
            const auto [title, body] = content(event);
            const UserNotificationRequest request{
                qs(identifier), title, body, qs(event.profileID.string()), qs(event.releaseID)};
            center_->add(request, [this, &queue = queue_, alive, identifier, drop](bool posted) {
                queue.post([this, alive, identifier, drop, posted] {
                    if (alive.expired()) {
                        return;
                    }
                    if (posted) {
                        markDelivered(identifier);
                    }
                    drop();
                });
            });
        });
    });
}

bool ReleaseNotificationsViewModel::delivered(const std::string& identifier) const {
    return defaults_.value(QLatin1String(deliveredKey)).toStringList().contains(qs(identifier));
}

void ReleaseNotificationsViewModel::markDelivered(const std::string& identifier) {
    auto list = defaults_.value(QLatin1String(deliveredKey)).toStringList();
    list.append(qs(identifier));
    if (list.size() > deliveredLimit) {
        list.remove(0, list.size() - deliveredLimit);
    }
    defaults_.setValue(QLatin1String(deliveredKey), list);
}

} // namespace veltra::studio
