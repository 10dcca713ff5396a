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
  public:
    bool hostRegistered() const { return true; }
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
};

// A menu item as dbusmenu lays it out: id, properties, children.
struct MenuItem {
    int id = 0;
    QVariantMap properties;
    QVariantList children;
};
const QDBusArgument& operator>>(const QDBusArgument& argument, MenuItem& item)
{
    argument.beginStructure();
    argument >> item.id >> item.properties >> item.children;
    argument.endStructure();
    return argument;
}

} // namespace

class TrayProtocolTests : public QObject {
    Q_OBJECT

    TempHome home;
    QProcess bus, xserver, app;
    Watcher watcher;

  private Q_SLOTS:
    void cleanupTestCase() { skeldrin::test::stopAll({&app, &xserver, &bus}); }

    void itemAndMenuAreExportedAndShowWidgetFlips()
    {
        if (QStandardPaths::findExecutable("Xvfb").isEmpty() ||
            QStandardPaths::findExecutable("dbus-daemon").isEmpty())
            QSKIP("needs Xvfb and dbus-daemon (scripts/install-deps --test)");
        const QString busAddress = skeldrin::test::startSessionBus(bus);
        const QString display = skeldrin::test::startXvfb(xserver);
        QVERIFY(!busAddress.isEmpty() && !display.isEmpty());
        QDBusConnection panel = QDBusConnection::connectToBus(busAddress, "panel");
        QVERIFY(panel.registerObject("/StatusNotifierWatcher", &watcher,
                                     QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties |
                                         QDBusConnection::ExportAllSignals));
        QVERIFY(panel.registerService("org.kde.StatusNotifierWatcher"));

        // A session waiting for an approval, recorded through the real hook.
        QProcessEnvironment env = home.environment();
        env.insert("TERM_PROGRAM", "iTerm.app");
        QCOMPARE(
            skeldrin::test::runToEnd(
                SKELDRIN_BIN_DIR "/skeldrin-hook", {}, env,
                R"({"hook_event_name":"PermissionRequest","session_id":"s1","cwd":"/src/parser","tool_name":"Bash"})")
                .exitCode,
            0);
        env.remove("QT_QPA_PLATFORM");
        env.remove("WAYLAND_DISPLAY");
        env.insert("DISPLAY", display);
        env.insert("DBUS_SESSION_BUS_ADDRESS", busAddress);
        app.setProcessEnvironment(env);
        app.setProcessChannelMode(QProcess::ForwardedChannels);
        app.start(SKELDRIN_BIN_DIR "/skeldrin", {});
        QTRY_VERIFY_WITH_TIMEOUT(!watcher.registered.isEmpty(), 30000);

        const QString service = watcher.registered.value(0).section('/', 0, 0);
        QDBusInterface trayItem(service, "/StatusNotifierItem", "org.kde.StatusNotifierItem", panel);
        QDBusInterface menu(service, trayItem.property("Menu").value<QDBusObjectPath>().path(),
                            "com.canonical.dbusmenu", panel);
        menu.call("AboutToShow", 0);
        const QDBusMessage layout = menu.call("GetLayout", 0, -1, QStringList());
        QCOMPARE(layout.type(), QDBusMessage::ReplyMessage);

        MenuItem root;
        layout.arguments().value(1).value<QDBusArgument>() >> root;
        QStringList labels;
        int showWidget = -1;
        for (const QVariant& child : root.children) {
            MenuItem item;
            child.value<QDBusArgument>() >> item;
            const QVariantMap& properties = item.properties;
            labels << (properties.value("type") == "separator"
                           ? "---"
                           : properties.value("label").toString().remove('&'));
            if (labels.last() != "Show Widget") continue;
            showWidget = item.id;
            QCOMPARE(properties.value("toggle-state").toInt(), 1);
        }
        QCOMPARE(labels.join('|'),
                 "parser  ·  iTerm|---|Show Widget|Compact Widget|---|Settings…|Quit Skeldrin");
        menu.call("Event", showWidget, "clicked", QVariant::fromValue(QDBusVariant(QVariant(0))), 0u);
        QTRY_COMPARE_WITH_TIMEOUT(home.setting("widget.visible").toString(), "false", 20000);
        QDBusConnection::disconnectFromBus("panel");
    }
};

QTEST_GUILESS_MAIN(TrayProtocolTests)
#include "TrayProtocolTests.moc"
