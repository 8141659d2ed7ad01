#pragma once

#include "ReleaseNotifications.h"

#include <QDBusConnection>
#include <QHash>
#include <QObject>
#include <memory>
#include <utility>

namespace veltra::studio {

// Notifications through the desktop's notification service (org.freedesktop.Notifications on
// the session bus). There is no permission to ask for: a running service counts as authorized,
// a missing one as switched off.
class FreedesktopNotificationCenter final : public QObject, public UserNotificationCenter {
    Q_OBJECT
public:
    // Nothing when this process has no session bus.
    static std::unique_ptr<FreedesktopNotificationCenter> make();
    explicit FreedesktopNotificationCenter(QDBusConnection bus);

    void authorizationStatus(std::function<void(NotificationAuthorization)> reply) override;
    void requestAuthorization(
        std::function<void(std::optional<NotificationAuthorization>)> reply) override;
    void add(const UserNotificationRequest& request,
             std::function<void(bool delivered)> done) override;

private Q_SLOTS:
    void actionInvoked(uint id, const QString& action);
    void notificationClosed(uint id, uint reason);

private:
    QDBusConnection bus_;
    // The service's notification id → the release it announces.
    QHash<uint, std::pair<QString, QString>> shown_;
};

} // namespace veltra::studio
