#include "FreedesktopNotificationCenter.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QStringList>
#include <QVariantMap>

namespace veltra::studio {

namespace {

const QString service = QStringLiteral("org.freedesktop.Notifications");
const QString path = QStringLiteral("/org/freedesktop/Notifications");
const QString interface = QStringLiteral("org.freedesktop.Notifications");
const QString openAction = QStringLiteral("default");

} // namespace

std::unique_ptr<FreedesktopNotificationCenter> FreedesktopNotificationCenter::make() {
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        return nullptr;
    }
    return std::make_unique<FreedesktopNotificationCenter>(bus);
}

FreedesktopNotificationCenter::FreedesktopNotificationCenter(QDBusConnection bus)
    : bus_(std::move(bus)) {
    bus_.connect(service, path, interface, QStringLiteral("ActionInvoked"), this,
                 SLOT(actionInvoked(uint, QString)));
    bus_.connect(service, path, interface, QStringLiteral("NotificationClosed"), this,
                 SLOT(notificationClosed(uint, uint)));
}

void FreedesktopNotificationCenter::authorizationStatus(
    std::function<void(NotificationAuthorization)> reply) {
    // Asking the server who it is also starts an activatable one.
    auto call = bus_.asyncCall(QDBusMessage::createMethodCall(
        service, path, interface, QStringLiteral("GetServerInformation")));
    auto* watcher = new QDBusPendingCallWatcher(call, this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [reply = std::move(reply)](QDBusPendingCallWatcher* finished) {
                finished->deleteLater();
                reply(finished->isError() ? NotificationAuthorization::denied
                                          : NotificationAuthorization::authorized);
            });
}

void FreedesktopNotificationCenter::requestAuthorization(
    std::function<void(std::optional<NotificationAuthorization>)> reply) {
    authorizationStatus(
        [reply = std::move(reply)](NotificationAuthorization status) { reply(status); });
}

void FreedesktopNotificationCenter::add(const UserNotificationRequest& request,
                                        std::function<void(bool delivered)> done) {
    auto message =
        QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("Notify"));
    QVariantMap hints;
    hints.insert(QStringLiteral("desktop-entry"), QStringLiteral("veltra-studio"));
    hints.insert(QStringLiteral("category"), QStringLiteral("transfer.complete"));
    message << QStringLiteral("Veltra") << uint{0} << QString() << request.title << request.body
            << QStringList{openAction, QStringLiteral("Show Release")} << hints << int{-1};
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(message), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, request, done = std::move(done)](QDBusPendingCallWatcher* finished) {
                finished->deleteLater();
                const QDBusPendingReply<uint> reply = *finished;
                if (reply.isError()) {
                    done(false);
                    return;
                }
                shown_.insert(reply.value(), {request.profileID, request.releaseID});
                done(true);
            });
}

void FreedesktopNotificationCenter::actionInvoked(uint id, const QString& action) {
    const auto found = shown_.constFind(id);
    if (found == shown_.constEnd() || action != openAction || !onOpen) {
        return;
    }
    onOpen(found->first, found->second);
}

void FreedesktopNotificationCenter::notificationClosed(uint id, uint /*reason*/) {
    shown_.remove(id);
}

} // namespace veltra::studio
