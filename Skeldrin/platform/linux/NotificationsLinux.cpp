#include "Skeldrin/platform/Notifications.h"

#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QLoggingCategory>
#include <QMap>
#include <QSet>

Q_LOGGING_CATEGORY(lcNotifications, "app.skeldrin.notifications")

namespace skeldrin {

namespace {

const QString service = QStringLiteral("org.freedesktop.Notifications");
const QString path = QStringLiteral("/org/freedesktop/Notifications");

// The freedesktop notification service on the session bus (GNOME, KDE, Xfce, dunst, mako).
class FreedesktopNotifications : public Notifications {
    Q_OBJECT
  public:
    FreedesktopNotifications()
    {
        auto bus = QDBusConnection::sessionBus();
        bus.connect(service, path, service, QStringLiteral("ActionInvoked"), this,
                    SLOT(onActionInvoked(uint, QString)));
        bus.connect(service, path, service, QStringLiteral("NotificationClosed"), this,
                    SLOT(onClosed(uint, uint)));
    }

    void notify(const QString& key, const QString& title, const QString& body, Urgency urgency) override
    {
        const uint replaces = ids_.value(key, 0);
        QVariantMap hints{{QStringLiteral("urgency"), QVariant::fromValue(static_cast<uchar>(urgency))},
                          {QStringLiteral("desktop-entry"), QStringLiteral("app.skeldrin.Skeldrin")}};
        QDBusMessage call = QDBusMessage::createMethodCall(service, path, service, QStringLiteral("Notify"));
        call << QStringLiteral("Skeldrin") << replaces << QStringLiteral("app.skeldrin.Skeldrin") << title << body
             << QStringList{QStringLiteral("default"), QStringLiteral("Open")} << hints << -1;
        auto* watcher = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call), this);
        connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, key](QDBusPendingCallWatcher* w) {
            w->deleteLater();
            QDBusPendingReply<uint> reply = *w;
            if (reply.isError()) {
                if (!warned_)
                    qCWarning(lcNotifications, "desktop notifications are unavailable: %s",
                              qUtf8Printable(reply.error().message()));
                warned_ = true;
                return;
            }
            warned_ = false;
            // A withdrawal asked for while the call was on its way wins.
            if (withdrawn_.remove(key)) {
                close(reply.value());
                return;
            }
            ids_[key] = reply.value();
        });
        withdrawn_.remove(key);
    }

    void withdraw(const QString& key) override
    {
        if (!ids_.contains(key)) {
            withdrawn_.insert(key);
            return;
        }
        close(ids_.take(key));
    }

  public Q_SLOTS:
    void onActionInvoked(uint id, const QString& action)
    {
        const QString key = ids_.key(id);
        if (key.isEmpty() || action != QStringLiteral("default")) return;
        Q_EMIT activated(key);
    }

    void onClosed(uint id, uint)
    {
        const QString key = ids_.key(id);
        if (key.isEmpty()) return;
        ids_.remove(key);
        Q_EMIT closed(key);
    }

  private:
    void close(uint id)
    {
        QDBusMessage call =
            QDBusMessage::createMethodCall(service, path, service, QStringLiteral("CloseNotification"));
        call << id;
        QDBusConnection::sessionBus().asyncCall(call);
    }

    QMap<QString, uint> ids_;
    QSet<QString> withdrawn_;
    bool warned_ = false;
};

} // namespace

std::unique_ptr<Notifications> makeSystemNotifications()
{
    return std::make_unique<FreedesktopNotifications>();
}

} // namespace skeldrin

#include "NotificationsLinux.moc"
