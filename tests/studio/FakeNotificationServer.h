#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <vector>

namespace veltra::studio {

// A desktop notification server of the test's own, exported on a private session bus.
class FakeNotificationServer final : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    struct Shown {
        QString appName;
        QString summary;
        QString body;
        QStringList actions;
    };
    std::vector<Shown> shown;

public Q_SLOTS:
    uint Notify(const QString& appName, uint /*replacesID*/, const QString& /*icon*/,
                const QString& summary, const QString& body, const QStringList& actions,
                const QVariantMap& /*hints*/, int /*timeout*/) {
        shown.push_back({appName, summary, body, actions});
        return static_cast<uint>(shown.size()) + 40;
    }
    QString GetServerInformation(QString& vendor, QString& version, QString& specVersion) {
        vendor = QStringLiteral("Veltra tests");
        version = QStringLiteral("1");
        specVersion = QStringLiteral("1.2");
        return QStringLiteral("fake");
    }

Q_SIGNALS:
    void ActionInvoked(uint id, const QString& actionKey);
    void NotificationClosed(uint id, uint reason);
};

} // namespace veltra::studio
