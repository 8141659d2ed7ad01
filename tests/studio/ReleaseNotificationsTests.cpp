// The notification view model's rules, on the core's fake-clock queue, against a notification
// centre whose answers the test releases one at a time (the system's answers are asynchronous).

#include "ReleaseNotifications.h"
#include "TestSupport.h"
#include "core/support/ManualClockQueue.h"

#include <deque>

#include <gtest/gtest.h>

namespace veltra::studio {
namespace {

class FakeCenter final : public UserNotificationCenter {
public:
    NotificationAuthorization status = NotificationAuthorization::authorized;
    std::optional<NotificationAuthorization> requestAnswer = NotificationAuthorization::authorized;
    bool deliver = true;
    std::vector<UserNotificationRequest> added;
    int settingsOpened = 0;

    void authorizationStatus(std::function<void(NotificationAuthorization)> reply) override {
        replies_.push_back([this, reply] { reply(status); });
    }
    void requestAuthorization(
        std::function<void(std::optional<NotificationAuthorization>)> reply) override {
        replies_.push_back([this, reply] { reply(requestAnswer); });
    }
    void add(const UserNotificationRequest& request, std::function<void(bool)> done) override {
        added.push_back(request);
        replies_.push_back([this, done] { done(deliver); });
    }
    void openSettings() override { ++settingsOpened; }

    // Answers everything asked so far.
    void answer() {
        while (!replies_.empty()) {
            auto reply = std::move(replies_.front());
            replies_.pop_front();
            reply();
        }
    }

private:
    std::deque<std::function<void()>> replies_;
};

class ReleaseNotificationsTest : public ::testing::Test {
protected:
    ReleaseNotificationsTest() {
        settings.setValue(QLatin1String("releaseNotificationsEnabled"), true);
    }

    std::unique_ptr<ReleaseNotificationsViewModel> make(UserNotificationCenter* with) {
        return std::make_unique<ReleaseNotificationsViewModel>(queue, notifications, settings, with,
                                                               [this] { return active; });
    }

    // Lets every answer and every hop back to the main queue happen.
    void settle() {
        for (int i = 0; i < 10; ++i) {
            center.answer();
            queue.runPending();
        }
    }

    ReleaseNotificationEvent event(ReleaseNotificationEvent::Outcome outcome,
                                   std::string version = "2.1") const {
        return {profile, "release-7", "Acme", std::move(version), outcome};
    }

    void announce(const ReleaseNotificationEvent& e) {
        notifications.post(std::string(ReleaseNotificationEvent::notificationName), e);
        queue.runPending();
    }

    testing::TempDir dir;
    QSettings settings{QString::fromStdString((dir / "defaults.ini").string()),
                       QSettings::IniFormat};
    ManualClockQueue queue;
    NotificationCenter notifications{queue};
    FakeCenter center;
    bool active = false;
    Uuid profile = Uuid::random();
};

TEST_F(ReleaseNotificationsTest, EachOutcomeHasItsTitleAndBody) {
    using Outcome = ReleaseNotificationEvent::Outcome;
    const auto live = ReleaseNotificationsViewModel::content(event(Outcome::live));
    EXPECT_EQ(live.first, QStringLiteral("Website live"));
    EXPECT_EQ(live.second, QStringLiteral("Acme v2.1 is live. Feed and download verified."));
    const auto attention = ReleaseNotificationsViewModel::content(event(Outcome::needsAttention));
    EXPECT_EQ(attention.first, QStringLiteral("Website needs attention"));
    EXPECT_EQ(attention.second,
              QStringLiteral("Acme v2.1 was uploaded, but publication is unconfirmed. Open Veltra "
                             "to check the deployment."));
    const auto failed = ReleaseNotificationsViewModel::content(event(Outcome::failed, ""));
    EXPECT_EQ(failed.first, QStringLiteral("Release needs attention"));
    EXPECT_EQ(failed.second, QStringLiteral("Acme encountered a release problem. Open Veltra to "
                                            "review the result and logs."));
}

TEST_F(ReleaseNotificationsTest, PostsOnceInTheBackgroundWithTheReleaseIdentities) {
    auto model = make(&center);
    const auto e = event(ReleaseNotificationEvent::Outcome::live);
    announce(e);
    announce(e); // the same event again before the first is answered
    EXPECT_EQ(model->pendingIDs(), (std::set<std::string>{e.identifier()}));
    settle();
    ASSERT_EQ(center.added.size(), 1U);
    const auto& request = center.added.front();
    EXPECT_EQ(request.identifier, QString::fromStdString(profile.string() + "-release-7-live"));
    EXPECT_EQ(request.profileID, QString::fromStdString(profile.string()));
    EXPECT_EQ(request.releaseID, QStringLiteral("release-7"));
    EXPECT_TRUE(model->pendingIDs().empty());
    EXPECT_EQ(settings.value(QLatin1String("deliveredReleaseNotifications")).toStringList(),
              QStringList{request.identifier});

    // Delivered is remembered across restarts; another outcome of the release is news.
    model.reset();
    const auto restarted = make(&center);
    announce(e);
    announce(event(ReleaseNotificationEvent::Outcome::needsAttention));
    settle();
    ASSERT_EQ(center.added.size(), 2U);
    EXPECT_EQ(center.added.back().title, QStringLiteral("Website needs attention"));
}

TEST_F(ReleaseNotificationsTest, NothingIsPostedWhenOffUnauthorizedOrInFront) {
    const auto e = event(ReleaseNotificationEvent::Outcome::failed);
    settings.setValue(QLatin1String("releaseNotificationsEnabled"), false);
    {
        const auto model = make(&center);
        announce(e);
        settle();
        EXPECT_TRUE(center.added.empty());
    }
    settings.setValue(QLatin1String("releaseNotificationsEnabled"), true);
    {
        center.status = NotificationAuthorization::denied;
        const auto model = make(&center);
        announce(e);
        settle();
        EXPECT_TRUE(center.added.empty());
        EXPECT_TRUE(model->pendingIDs().empty());
    }
    center.status = NotificationAuthorization::authorized;
    active = true;
    const auto model = make(&center);
    announce(e);
    settle();
    EXPECT_TRUE(center.added.empty());
    // A dropped foreground event is not recorded: it may still be announced in the background.
    active = false;
    announce(e);
    settle();
    EXPECT_EQ(center.added.size(), 1U);
}

TEST_F(ReleaseNotificationsTest, AFailedDeliveryIsNotRecordedAsDelivered) {
    center.deliver = false;
    const auto model = make(&center);
    const auto e = event(ReleaseNotificationEvent::Outcome::live);
    announce(e);
    settle();
    EXPECT_EQ(center.added.size(), 1U);
    EXPECT_FALSE(settings.contains(QLatin1String("deliveredReleaseNotifications")));
    center.deliver = true;
    announce(e);
    settle();
    EXPECT_EQ(center.added.size(), 2U);
}

TEST_F(ReleaseNotificationsTest, SwitchingOnAsksForPermissionAndSaysWhyItStaysOff) {
    settings.clear();
    auto model = make(&center);
    EXPECT_FALSE(model->isEnabled());

    model->setEnabled(true);
    EXPECT_TRUE(model->isRequestingPermission());
    settle();
    EXPECT_FALSE(model->isRequestingPermission());
    EXPECT_TRUE(model->isEnabled());
    EXPECT_FALSE(model->permissionMessage());
    EXPECT_TRUE(settings.value(QLatin1String("releaseNotificationsEnabled")).toBool());

    model->setEnabled(false);
    EXPECT_FALSE(settings.value(QLatin1String("releaseNotificationsEnabled")).toBool());

    center.requestAnswer = NotificationAuthorization::denied;
    model->setEnabled(true);
    settle();
    EXPECT_FALSE(model->isEnabled());
    EXPECT_EQ(model->permissionMessage(), ReleaseNotificationsViewModel::deniedMessage);
    model->openNotificationSettings();
    EXPECT_EQ(center.settingsOpened, 1);

    center.requestAnswer = std::nullopt;
    model->setEnabled(true);
    settle();
    EXPECT_EQ(model->permissionMessage(),
              QStringLiteral("Could not enable notifications. Try again."));

    const auto withoutCenter = make(nullptr);
    withoutCenter->setEnabled(true);
    EXPECT_FALSE(withoutCenter->isEnabled());
    EXPECT_EQ(withoutCenter->permissionMessage(),
              QStringLiteral("Notifications require the installed Veltra app."));
}

TEST_F(ReleaseNotificationsTest, OpeningANotificationAsksTheWindowForThatRelease) {
    const auto model = make(&center);
    std::optional<OpenReleaseRequest> opened;
    const auto observer = notifications.addObserver(
        std::string(OpenReleaseRequest::notificationName), [&](const Notification& note) {
            opened = std::any_cast<OpenReleaseRequest>(note.payload);
        });
    center.onOpen(QString::fromStdString(profile.string()), QStringLiteral("release-7"));
    queue.runPending();
    queue.runPending();
    ASSERT_TRUE(opened);
    EXPECT_EQ(opened->profileID, profile);
    EXPECT_EQ(opened->releaseID, "release-7");
}

} // namespace
} // namespace veltra::studio
