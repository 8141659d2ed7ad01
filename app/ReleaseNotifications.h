#pragma once

#include "core/publishing/ReleaseNotificationEvent.h"
#include "core/support/MainQueue.h"
#include "core/support/NotificationCenter.h"

#include <QObject>
#include <QSettings>
#include <QString>
#include <functional>
#include <optional>
#include <set>
#include <string>

namespace veltra::studio {

enum class NotificationAuthorization { notDetermined, denied, authorized };

struct UserNotificationRequest {
    QString identifier;
    QString title;
    QString body;
    QString profileID;
    QString releaseID;
};

// The system's user-notification service. Replies may arrive on any thread.
class UserNotificationCenter {
public:
    virtual ~UserNotificationCenter() = default;
    virtual void authorizationStatus(std::function<void(NotificationAuthorization)> reply) = 0;
    // nullopt: the request itself failed.
    virtual void
    requestAuthorization(std::function<void(std::optional<NotificationAuthorization>)> reply) = 0;
    virtual void add(const UserNotificationRequest& request,
                     std::function<void(bool delivered)> done) = 0;
    // Opens the system's notification settings, where there are any.
    virtual void openSettings() {}
    // Set by the view model: the user chose a delivered notification.
    std::function<void(const QString& profileID, const QString& releaseID)> onOpen;
};

// The in-process notification that asks the window to show one release's result; its payload.
struct OpenReleaseRequest {
    static constexpr std::string_view notificationName = "VeltraOpenReleaseNotification";
    Uuid profileID;
    std::string releaseID;
};

// Announces each release outcome once, through the system, while the Studio is in the
// background; owns the user's switch and its permission messages. Lives on the main queue.
class ReleaseNotificationsViewModel final : public QObject {
    Q_OBJECT
public:
    static constexpr const char* enabledKey = "releaseNotificationsEnabled";
    static constexpr const char* deliveredKey = "deliveredReleaseNotifications";
    static const QString switchText;
    static const QString footnoteText;
    static const QString deniedMessage;
    static const QString failedMessage;
    static const QString unavailableMessage;

    // `center` may be null: this process cannot post notifications.
    ReleaseNotificationsViewModel(MainQueue& queue, NotificationCenter& notifications,
                                  QSettings& defaults, UserNotificationCenter* center,
                                  std::function<bool()> applicationIsActive);
    ~ReleaseNotificationsViewModel() override;

    bool isEnabled() const { return isEnabled_; }
    bool isRequestingPermission() const { return isRequestingPermission_; }
    const std::optional<QString>& permissionMessage() const { return permissionMessage_; }
    const std::set<std::string>& pendingIDs() const { return pendingIDs_; }
    bool hasCenter() const { return center_ != nullptr; }

    // Switching on asks the system for permission first.
    void setEnabled(bool enabled);
    void openNotificationSettings();

    // The notification's title and body for an event.
    static std::pair<QString, QString> content(const ReleaseNotificationEvent& event);
    // Called for each "VeltraReleaseNotificationEvent"; public for tests.
    void receive(const ReleaseNotificationEvent& event);

Q_SIGNALS:
    void changed();

private:
    bool delivered(const std::string& identifier) const;
    void markDelivered(const std::string& identifier);

    MainQueue& queue_;
    NotificationCenter& notifications_;
    bool isEnabled_ = false;
    bool isRequestingPermission_ = false;
    std::optional<QString> permissionMessage_;
    QSettings& defaults_;
    UserNotificationCenter* center_;
    std::function<bool()> applicationIsActive_;
    NotificationCenter::Registration observer_;
    std::set<std::string> pendingIDs_;
    std::shared_ptr<int> lifetime_ = std::make_shared<int>(0);
};

} // namespace veltra::studio
