// Release notifications through macOS's user notification centre. Built on macOS only.

#include "ReleaseNotifications.h"

#import <AppKit/AppKit.h>
#import <UserNotifications/UserNotifications.h>

#include <memory>

@interface VeltraNotificationDelegate : NSObject <UNUserNotificationCenterDelegate>
@property(nonatomic, assign) veltra::studio::UserNotificationCenter* owner;
@end

@implementation VeltraNotificationDelegate
- (void)userNotificationCenter:(UNUserNotificationCenter*)center
    didReceiveNotificationResponse:(UNNotificationResponse*)response
             withCompletionHandler:(void (^)(void))completionHandler {
    NSDictionary* info = response.notification.request.content.userInfo;
    NSString* profile = info[@"profileID"];
    NSString* release = info[@"releaseID"];
    auto* owner = self.owner;
    if (owner != nullptr && owner->onOpen && profile != nil && release != nil) {
        [NSApp activateIgnoringOtherApps:YES];
        owner->onOpen(QString::fromNSString(profile), QString::fromNSString(release));
    }
    completionHandler();
}
@end

namespace veltra::studio {

namespace {

NotificationAuthorization authorization(UNAuthorizationStatus status) {
    switch (status) {
    case UNAuthorizationStatusAuthorized:
    case UNAuthorizationStatusProvisional:
        return NotificationAuthorization::authorized;
    case UNAuthorizationStatusNotDetermined:
        return NotificationAuthorization::notDetermined;
    default:
        return NotificationAuthorization::denied;
    }
}

class AppleNotificationCenter final : public UserNotificationCenter {
public:
    AppleNotificationCenter() {
        delegate_ = [[VeltraNotificationDelegate alloc] init];
        delegate_.owner = this;
        UNUserNotificationCenter.currentNotificationCenter.delegate = delegate_;
    }
    ~AppleNotificationCenter() override {
        delegate_.owner = nullptr;
        UNUserNotificationCenter.currentNotificationCenter.delegate = nil;
    }

    void authorizationStatus(std::function<void(NotificationAuthorization)> reply) override {
        [UNUserNotificationCenter.currentNotificationCenter
            getNotificationSettingsWithCompletionHandler:^(UNNotificationSettings* settings) {
              reply(authorization(settings.authorizationStatus));
            }];
    }

    void requestAuthorization(
        std::function<void(std::optional<NotificationAuthorization>)> reply) override {
        [UNUserNotificationCenter.currentNotificationCenter
            requestAuthorizationWithOptions:(UNAuthorizationOptionAlert |
                                             UNAuthorizationOptionSound)
                          completionHandler:^(BOOL granted, NSError* error) {
                            // A permission the user refused comes back as this error, not
                            // as a plain "no": it is a refusal, not a failure to ask.
                            if (error != nil && [error.domain isEqualToString:UNErrorDomain] &&
                                error.code == UNErrorCodeNotificationsNotAllowed) {
                                reply(NotificationAuthorization::denied);
                            } else if (error != nil) {
                                reply(std::nullopt);
                            } else {
                                reply(granted ? NotificationAuthorization::authorized
                                              : NotificationAuthorization::denied);
                            }
                          }];
    }

    void add(const UserNotificationRequest& request,
             std::function<void(bool delivered)> done) override {
        UNMutableNotificationContent* content = [[UNMutableNotificationContent alloc] init];
        content.title = request.title.toNSString();
        content.body = request.body.toNSString();
        content.sound = UNNotificationSound.defaultSound;
        content.userInfo = @{
            @"profileID" : request.profileID.toNSString(),
            @"releaseID" : request.releaseID.toNSString()
        };
        UNNotificationRequest* note =
            [UNNotificationRequest requestWithIdentifier:request.identifier.toNSString()
                                                 content:content
                                                 trigger:nil];
        [UNUserNotificationCenter.currentNotificationCenter
            addNotificationRequest:note
             withCompletionHandler:^(NSError* error) {
               done(error == nil);
             }];
    }

    void openSettings() override {
        NSURL* url = [NSURL
            URLWithString:@"x-apple.systempreferences:com.apple.Notifications-Settings.extension"];
        [NSWorkspace.sharedWorkspace openURL:url];
    }

private:
    VeltraNotificationDelegate* delegate_;
};

} // namespace

std::unique_ptr<UserNotificationCenter> makeAppleNotificationCenter() {
    // The notification centre serves bundled applications only; a bare executable has none.
    if (NSBundle.mainBundle.bundleIdentifier == nil) {
        return nullptr;
    }
    return std::make_unique<AppleNotificationCenter>();
}

} // namespace veltra::studio
