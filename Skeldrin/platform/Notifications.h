#pragma once
#include <QObject>
#include <QString>
#include <memory>

namespace skeldrin {

// The desktop's notification service. One notification per key (a session id): showing a key again
// replaces what that key showed before.
class Notifications : public QObject {
    Q_OBJECT
  public:
    enum class Urgency { low, normal, critical };

    using QObject::QObject;

    virtual void notify(const QString& key, const QString& title, const QString& body, Urgency urgency) = 0;
    virtual void withdraw(const QString& key) = 0;
    // Called when the user turns notifications on (macOS asks for permission then).
    virtual void requestAuthorisation() {}

  Q_SIGNALS:
    // The user clicked the notification shown under key.
    void activated(const QString& key);
    // The notification under key is gone (dismissed, expired or withdrawn).
    void closed(const QString& key);
};

// The platform's notification service.
std::unique_ptr<Notifications> makeSystemNotifications();

} // namespace skeldrin
