// The tray item as a desktop panel sees it: a private D-Bus session bus, a StatusNotifierWatcher written
// here, an X server for the app, and the real `skeldrin` process registering its item and menu.
#include "tests/support/TestProcesses.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QStandardPaths>
#include <QtTest>

using skeldrin::test::TempHome;

namespace {

// Just enough of a panel's watcher for an item to register with it.
class Watcher : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ items)
  public:
    bool hostRegistered() const { return true; }
    int protocolVersion() const { return 0; }
    QStringList items() const { return registered; }
    QStringList registered;

  public Q_SLOTS:
    void RegisterStatusNotifierItem(const QString& service, const QDBusMessage& message)
    {
        // An item may name itself by its bus name or by its object path.
        registered << (service.startsWith(QLatin1Char('/')) ? message.service() + service : service);
        Q_EMIT StatusNotifierItemRegistered(registered.last());
    }
    void RegisterStatusNotifierHost(const QString&) {}

  Q_SIGNALS:
    void StatusNotifierItemRegistered(const QString& service);
    void StatusNotifierHostRegistered();
};

QVariant plain(const QVariant& value);

// A D-Bus value as plain Qt values: structures and arrays as lists, dictionaries as maps.
QVariant plain(const QDBusArgument& argument)
{
    QVariantList list;
    switch (argument.currentType()) {
    case QDBusArgument::StructureType:
        argument.beginStructure();
        while (!argument.atEnd())
            list << plain(argument);
        argument.endStructure();
        return list;
    case QDBusArgument::ArrayType:
        if (argument.currentSignature() == QLatin1String("ay")) return qdbus_cast<QByteArray>(argument);
        argument.beginArray();
        while (!argument.atEnd())
            list << plain(argument);
        argument.endArray();
        return list;
    case QDBusArgument::MapType: {
        QVariantMap map;
        argument.beginMap();
        while (!argument.atEnd()) {
            argument.beginMapEntry();
            const QString key = plain(argument).toString();
            map[key] = plain(argument);
            argument.endMapEntry();
        }
        argument.endMap();
        return map;
    }
    default:
        return plain(argument.asVariant());
    }
}

QVariant plain(const QVariant& value)
{
    if (value.userType() == qMetaTypeId<QDBusVariant>()) return plain(value.value<QDBusVariant>().variant());
    if (value.userType() == qMetaTypeId<QDBusArgument>()) return plain(value.value<QDBusArgument>());
    return value;
}

} // namespace

class TrayProtocolTests : public QObject {
    Q_OBJECT

    TempHome home;
    QProcess bus, xserver, app;
    std::unique_ptr<QDBusConnection> connection;
    Watcher watcher;

    QString service() const { return watcher.registered.value(0).section(QLatin1Char('/'), 0, 0); }
    QVariant itemProperty(const char* name)
    {
        QDBusMessage get = QDBusMessage::createMethodCall(service(), QStringLiteral("/StatusNotifierItem"),
                                                          QStringLiteral("org.freedesktop.DBus.Properties"),
                                                          QStringLiteral("Get"));
        get << QStringLiteral("org.kde.StatusNotifierItem") << QString::fromLatin1(name);
        return plain(connection->call(get).arguments().value(0));
    }

  private Q_SLOTS:
    void initTestCase()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("Xvfb")).isEmpty() ||
            QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")).isEmpty())
            QSKIP("needs Xvfb and dbus-daemon (scripts/install-deps --test)");
        const QString busAddress = skeldrin::test::startSessionBus(bus);
        const QString display = skeldrin::test::startXvfb(xserver);
        QVERIFY(!busAddress.isEmpty() && !display.isEmpty());
        connection = std::make_unique<QDBusConnection>(
            QDBusConnection::connectToBus(busAddress, QStringLiteral("panel")));
        QVERIFY(connection->registerObject(QStringLiteral("/StatusNotifierWatcher"), &watcher,
                                           QDBusConnection::ExportAllSlots |
                                               QDBusConnection::ExportAllProperties |
                                               QDBusConnection::ExportAllSignals));
        QVERIFY(connection->registerService(QStringLiteral("org.kde.StatusNotifierWatcher")));

        // A session waiting for an approval, recorded through the real hook.
        QProcessEnvironment env = home.environment();
        env.insert(QStringLiteral("TERM_PROGRAM"), QStringLiteral("iTerm.app"));
        for (
            const char* payload :
            {R"({"hook_event_name":"UserPromptSubmit","session_id":"s1","cwd":"/src/parser","prompt":"Stream it"})",
             R"({"hook_event_name":"PermissionRequest","session_id":"s1","cwd":"/src/parser","tool_name":"Bash"})"}) {
            QProcess hook;
            hook.setProcessEnvironment(env);
            hook.start(QStringLiteral(SKELDRIN_BIN_DIR "/skeldrin-hook"), {});
            hook.write(payload);
            hook.closeWriteChannel();
            QVERIFY(hook.waitForFinished());
        }

        env.remove(QStringLiteral("QT_QPA_PLATFORM"));
        env.remove(QStringLiteral("WAYLAND_DISPLAY"));
        env.insert(QStringLiteral("DISPLAY"), display);
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), busAddress);
        app.setProcessEnvironment(env);
        app.setProcessChannelMode(QProcess::ForwardedChannels);
        app.start(QStringLiteral(SKELDRIN_BIN_DIR "/skeldrin"), {});
        QVERIFY(app.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(!watcher.registered.isEmpty(), 30000);
    }

    void cleanupTestCase() { skeldrin::test::stopAll({&app, &xserver, &bus}); }

    void itemShowsTheMostUrgentStatus()
    {
        QCOMPARE(itemProperty("Status").toString(), QStringLiteral("Active"));
        const QVariantList toolTip = itemProperty("ToolTip").toList(); // icon name, pixmaps, title, text
        QCOMPARE(toolTip.value(2).toString() + toolTip.value(3).toString(),
                 QStringLiteral("Skeldrin — Needs approval"));

        // The largest icon offered, in network byte order ARGB; the badge is the default yellow.
        int width = 0;
        QByteArray pixels;
        for (const QVariant& pixmap : itemProperty("IconPixmap").toList()) {
            const int w = pixmap.toList().value(0).toInt(), h = pixmap.toList().value(1).toInt();
            const QByteArray bytes = pixmap.toList().value(2).toByteArray();
            if (w > width && bytes.size() == w * h * 4) std::tie(width, pixels) = std::tie(w, bytes);
        }
        QVERIFY(width >= 22);
        const qreal scale = width / 18.0;
        const int x = int((width - 17 * scale) / 2 + 13.64 * scale), y = int(9.8 * scale);
        const auto* argb = reinterpret_cast<const uchar*>(pixels.constData()) + (y * width + x) * 4;
        QCOMPARE(QColor(argb[1], argb[2], argb[3], argb[0]), QColor(0xFF, 0xD6, 0x0A));
    }

    void menuIsExportedAndShowWidgetFlips()
    {
        const QString menuPath = itemProperty("Menu").value<QDBusObjectPath>().path();
        QVERIFY(!menuPath.isEmpty());
        QDBusInterface menu(service(), menuPath, QStringLiteral("com.canonical.dbusmenu"), *connection);
        menu.call(QStringLiteral("AboutToShow"), 0);
        const QDBusMessage layout = menu.call(QStringLiteral("GetLayout"), 0, -1, QStringList());
        QCOMPARE(layout.type(), QDBusMessage::ReplyMessage);

        // Each item: id, properties, children.
        QStringList labels;
        int showWidget = -1;
        for (const QVariant& item : plain(layout.arguments().value(1)).toList().value(2).toList()) {
            const QVariantMap properties = item.toList().value(1).toMap();
            const QString label =
                properties.value(QStringLiteral("type")) == QLatin1String("separator")
                    ? QStringLiteral("---")
                    : properties.value(QStringLiteral("label")).toString().remove(QLatin1Char('&'));
            labels << label;
            if (label != QLatin1String("Show Widget")) continue;
            showWidget = item.toList().value(0).toInt();
            QCOMPARE(properties.value(QStringLiteral("toggle-state")).toInt(), 1);
        }
        QCOMPARE(
            labels.join(QLatin1Char('|')),
            QStringLiteral("parser  ·  iTerm|---|Show Widget|Compact Widget|---|Settings…|Quit Skeldrin"));

        menu.call(QStringLiteral("Event"), showWidget, QStringLiteral("clicked"),
                  QVariant::fromValue(QDBusVariant(QVariant(0))), 0u);
        QTRY_COMPARE_WITH_TIMEOUT(home.setting(QStringLiteral("widget.visible")).toString(),
                                  QStringLiteral("false"), 20000);
    }
};

QTEST_GUILESS_MAIN(TrayProtocolTests)
#include "TrayProtocolTests.moc"
