#include "Skeldrin/platform/Notifications.h"

#include <QLoggingCategory>
#include <QPointer>

#import <UserNotifications/UserNotifications.h>

Q_LOGGING_CATEGORY(lcNotifications, "app.skeldrin.notifications")

// Hands clicks on our notifications back to the C++ side, on the main thread.
@interface SkeldrinNotificationDelegate : NSObject <UNUserNotificationCenterDelegate> {
@public
    QPointer<skeldrin::Notifications> owner;
}
@end

@implementation SkeldrinNotificationDelegate
- (void)userNotificationCenter:(UNUserNotificationCenter*)center
    willPresentNotification:(UNNotification*)notification
      withCompletionHandler:(void (^)(UNNotificationPresentationOptions))completionHandler
{
    // Shown even while the app is frontmost: the menu bar app is always "active".
    completionHandler(UNNotificationPresentationOptionBanner | UNNotificationPresentationOptionSound);
}

- (void)userNotificationCenter:(UNUserNotificationCenter*)center
    didReceiveNotificationResponse:(UNNotificationResponse*)response
             withCompletionHandler:(void (^)(void))completionHandler
{
    const QString key = QString::fromNSString(response.notification.request.identifier);
    const bool clicked = [response.actionIdentifier isEqualToString:UNNotificationDefaultActionIdentifier];
    QPointer<skeldrin::Notifications> target = owner;
    dispatch_async(dispatch_get_main_queue(), ^{
      if (!target) return;
      if (clicked) Q_EMIT target->activated(key);
      Q_EMIT target->closed(key);
    });
    completionHandler();
}
@end

namespace skeldrin {

class UserNotifications : public Notifications {
public:
    UserNotifications()
    {
        delegate_ = [[SkeldrinNotificationDelegate alloc] init];
        delegate_->owner = this;
        UNUserNotificationCenter.currentNotificationCenter.delegate = delegate_;
    }
    ~UserNotifications() override
    {
        UNUserNotificationCenter.currentNotificationCenter.delegate = nil;
    }

    void notify(const QString& key, const QString& title, const QString& body, Urgency urgency) override
    {
        UNMutableNotificationContent* content = [[UNMutableNotificationContent alloc] init];
        content.title = title.toNSString();
        content.body = body.toNSString();
        content.threadIdentifier = @"sessions";
        if (urgency != Urgency::low) content.sound = UNNotificationSound.defaultSound;
        if (@available(macOS 12.0, *))
            content.interruptionLevel =
                urgency == Urgency::low ? UNNotificationInterruptionLevelPassive : UNNotificationInterruptionLevelActive;
        // The same identifier replaces the session's earlier notification.
        UNNotificationRequest* request = [UNNotificationRequest requestWithIdentifier:key.toNSString()
                                                                              content:content
                                                                              trigger:nil];
        [UNUserNotificationCenter.currentNotificationCenter
            addNotificationRequest:request
             withCompletionHandler:^(NSError* error) {
               if (error)
                   qCWarning(lcNotifications, "showing a notification failed: %s",
                             error.localizedDescription.UTF8String);
             }];
    }

    void withdraw(const QString& key) override
    {
        NSArray<NSString*>* ids = @[ key.toNSString() ];
        auto* center = UNUserNotificationCenter.currentNotificationCenter;
        [center removePendingNotificationRequestsWithIdentifiers:ids];
        [center removeDeliveredNotificationsWithIdentifiers:ids];
    }

    void requestAuthorisation() override
    {
        // macOS asks the user only the first time; later calls report the earlier answer.
        [UNUserNotificationCenter.currentNotificationCenter
            requestAuthorizationWithOptions:(UNAuthorizationOptionAlert | UNAuthorizationOptionSound)
                          completionHandler:^(BOOL granted, NSError* error) {
                            if (error || !granted)
                                qCWarning(lcNotifications, "notifications are not allowed%s%s",
                                          error ? ": " : "", error ? error.localizedDescription.UTF8String : "");
                          }];
    }

private:
    // Compiled with ARC: this keeps the delegate alive, which the centre only holds weakly.
    SkeldrinNotificationDelegate* delegate_ = nil;
};

std::unique_ptr<Notifications> makeSystemNotifications() { return std::make_unique<UserNotifications>(); }

} // namespace skeldrin
