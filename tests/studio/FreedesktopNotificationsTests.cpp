// The desktop notification backend against a notification server on a private session bus
// (the test runs under dbus-run-session); the server is this test's own object, registered
// on a second connection as org.freedesktop.Notifications.

#include "FakeNotificationServer.h"
#include "FreedesktopNotificationCenter.h"
#include "StudioModel.h"
#include "StudioTestSupport.h"
#include "TestSupport.h"
#include "core/demo/DemoSandbox.h"

#include <QDBusConnection>
#include <QGuiApplication>

#include <gtest/gtest.h>

namespace veltra::studio {

namespace {

using testing::waitFor;

class FreedesktopNotifications : public ::testing::Test {
protected:
    void SetUp() override {
        if (!QDBusConnection::sessionBus().isConnected()) {
            GTEST_SKIP() << "no session bus; ctest runs this under dbus-run-session";
        }
    }

    void startServer() {
        server = QDBusConnection::connectToBus(QDBusConnection::SessionBus,
                                               QStringLiteral("fake-notification-server"));
        ASSERT_TRUE(server.registerObject(QStringLiteral("/org/freedesktop/Notifications"), &fake,
                                          QDBusConnection::ExportAllSlots |
                                              QDBusConnection::ExportAllSignals));
        ASSERT_TRUE(server.registerService(QStringLiteral("org.freedesktop.Notifications")));
    }

    void TearDown() override {
        if (server.isConnected()) {
            server.unregisterService(QStringLiteral("org.freedesktop.Notifications"));
            server.unregisterObject(QStringLiteral("/org/freedesktop/Notifications"));
            QDBusConnection::disconnectFromBus(QStringLiteral("fake-notification-server"));
        }
    }

    FakeNotificationServer fake;
    QDBusConnection server{QStringLiteral("none")};
};

TEST_F(FreedesktopNotifications, WithoutAServiceNotificationsCountAsSwitchedOff) {
    const auto center = FreedesktopNotificationCenter::make();
    ASSERT_TRUE(center);
    std::optional<NotificationAuthorization> status;
    center->authorizationStatus([&](NotificationAuthorization answer) { status = answer; });
    ASSERT_TRUE(waitFor([&] { return status.has_value(); }));
    EXPECT_EQ(*status, NotificationAuthorization::denied);
}

TEST_F(FreedesktopNotifications, PostsThroughTheServiceAndReportsWhichReleaseWasOpened) {
    startServer();
    const auto center = FreedesktopNotificationCenter::make();
    ASSERT_TRUE(center);
    std::optional<std::optional<NotificationAuthorization>> permission;
    center->requestAuthorization([&](auto answer) { permission = answer; });
    ASSERT_TRUE(waitFor([&] { return permission.has_value(); }));
    EXPECT_EQ(*permission, NotificationAuthorization::authorized);

    std::optional<bool> delivered;
    center->add({QStringLiteral("P-r1-live"), QStringLiteral("Website live"),
                 QStringLiteral("Acme v2 is live. Feed and download verified."),
                 QStringLiteral("P"), QStringLiteral("r1")},
                [&](bool ok) { delivered = ok; });
    ASSERT_TRUE(waitFor([&] { return delivered.has_value(); }));
    EXPECT_TRUE(*delivered);
    ASSERT_EQ(fake.shown.size(), 1U);
    EXPECT_EQ(fake.shown[0].appName, QStringLiteral("Veltra"));
    EXPECT_EQ(fake.shown[0].summary, QStringLiteral("Website live"));
    EXPECT_EQ(fake.shown[0].body, QStringLiteral("Acme v2 is live. Feed and download verified."));
    EXPECT_EQ(fake.shown[0].actions.front(), QStringLiteral("default"));

    std::optional<std::pair<QString, QString>> opened;
    center->onOpen = [&](const QString& profile, const QString& release) {
        opened = {profile, release};
    };
    // Another notification's action, then ours.
    Q_EMIT fake.ActionInvoked(7, QStringLiteral("default"));
    Q_EMIT fake.ActionInvoked(41, QStringLiteral("default"));
    ASSERT_TRUE(waitFor([&] { return opened.has_value(); }));
    EXPECT_EQ(opened->first, QStringLiteral("P"));
    EXPECT_EQ(opened->second, QStringLiteral("r1"));

    // Once closed, the notification is forgotten.
    opened.reset();
    Q_EMIT fake.NotificationClosed(41, 2);
    Q_EMIT fake.ActionInvoked(41, QStringLiteral("default"));
    std::optional<bool> second;
    center->add({QStringLiteral("P-r2-live"), QStringLiteral("t"), QStringLiteral("b"),
                 QStringLiteral("P"), QStringLiteral("r2")},
                [&](bool ok) { second = ok; });
    ASSERT_TRUE(waitFor([&] { return second.has_value(); }));
    EXPECT_FALSE(opened.has_value());
}

// The whole road: a release of the demo sandbox goes live while the Studio is in the background,
// and the desktop's notification service is asked once to say so.
class StudioInTheBackground : public FreedesktopNotifications {
protected:
    testing::TempDir dir;
    testing::ScopedEnvironment path{"PATH", std::string(VELTRA_TOOLS_DIR) + ":" +
                                                (std::getenv("PATH") ? std::getenv("PATH") : "")};
    testing::ScopedEnvironment toolPath{"VELTRA_TOOL_PATH", VELTRA_TOOLS_DIR};
};

TEST_F(StudioInTheBackground, ALiveReleaseIsAnnouncedOnce) {
    startServer();
    ASSERT_NE(QGuiApplication::applicationState(), Qt::ApplicationActive);
    DemoSandbox sandbox(dir / "sandbox",
                        std::filesystem::path(VELTRA_SOURCE_DIR) / "share/demo/Sample");
    StudioModel::Options options;
    options.profilesFile = dir / "profiles.json";
    options.settingsFile = QString::fromStdString((dir / "studio.ini").string());
    options.watchTiming = {std::chrono::milliseconds(100), std::chrono::seconds(120),
                           std::chrono::milliseconds(50)};
    StudioModel model(options);
    ASSERT_TRUE(model.releaseNotifications().hasCenter());
    model.releaseNotifications().setEnabled(true);
    ASSERT_TRUE(waitFor([&] { return !model.releaseNotifications().isRequestingPermission(); }));
    ASSERT_TRUE(model.releaseNotifications().isEnabled());

    model.store().add(sandbox.profile());
    model.store().select(sandbox.profile().id);
    ASSERT_EQ(model.startRelease(), std::nullopt);
    ASSERT_TRUE(waitFor([&] { return !fake.shown.empty(); }));
    EXPECT_EQ(model.pipeline().errorMessage(), std::nullopt);
    EXPECT_EQ(fake.shown[0].summary, QStringLiteral("Website live"));
    EXPECT_EQ(fake.shown[0].body,
              QStringLiteral("Sample v1.0 is live. Feed and download verified."));
    // Asked again (a second check of the same release), nothing new is shown.
    const auto release =
        *model.store().selectedProfile()->recentReleases->front().monitoringReleaseID;
    model.checkWebsite(sandbox.profile().id, release);
    ASSERT_TRUE(waitFor([&] { return model.watcher().running() == 0; }));
    EXPECT_EQ(fake.shown.size(), 1U);
}

} // namespace
} // namespace veltra::studio
