// The tray item as a desktop panel sees it: a private D-Bus session bus, a StatusNotifierWatcher written
// here, an X server for the app, and the real `skeldrin` process registering its item and menu.
#include "tests/support/TestProcesses.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QtTest>

using namespace skeldrin::test;

namespace {

// Just enough of a panel's watcher for an item to register with it.
class Watcher : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)
  public:
    bool hostRegistered() const { return true; }
    QString item; // the registering connection's bus name

  public Q_SLOTS:
    void RegisterStatusNotifierItem(const QString&, const QDBusMessage& message) { item = message.service(); }
    void RegisterStatusNotifierHost(const QString&) {}
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
    void cleanupTestCase() { stopAll({&app, &xserver, &bus}); }

    void menuIsExportedAndShowWidgetFlips()
    {
        const QString address = startSessionBus(bus), display = startXvfb(xserver);
        if (address.isEmpty() || display.isEmpty())
            QSKIP("needs Xvfb and dbus-daemon (scripts/install-deps --test)");
        QDBusConnection panel = QDBusConnection::connectToBus(address, "panel");
        QVERIFY(panel.registerObject("/StatusNotifierWatcher", &watcher,
                                     QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties));
        QVERIFY(panel.registerService("org.kde.StatusNotifierWatcher"));

        // A session waiting for an approval, recorded through the real hook.
        QProcessEnvironment env = home.environment();
        env.insert("TERM_PROGRAM", "iTerm.app");
        QCOMPARE(runToEnd(SKELDRIN_BIN_DIR "/skeldrin-hook", {}, env,
                          R"({"hook_event_name":"PermissionRequest","session_id":"s1","cwd":"/src/parser"})")
                     .exitCode,
                 0);
        env.remove("QT_QPA_PLATFORM");
        env.remove("WAYLAND_DISPLAY");
        env.insert("DISPLAY", display);
        env.insert("DBUS_SESSION_BUS_ADDRESS", address);
        app.setProcessEnvironment(env);
        app.setProcessChannelMode(QProcess::ForwardedChannels);
        app.start(SKELDRIN_BIN_DIR "/skeldrin", {});
        QTRY_VERIFY_WITH_TIMEOUT(!watcher.item.isEmpty(), 30000);

        QDBusInterface trayItem(watcher.item, "/StatusNotifierItem", "org.kde.StatusNotifierItem", panel);
        QDBusInterface menu(watcher.item, trayItem.property("Menu").value<QDBusObjectPath>().path(),
                            "com.canonical.dbusmenu", panel);
        menu.call("AboutToShow", 0);
        const QDBusMessage layout = menu.call("GetLayout", 0, -1, QStringList());
        QCOMPARE(layout.type(), QDBusMessage::ReplyMessage);
        MenuItem root, item;
        layout.arguments().value(1).value<QDBusArgument>() >> root;
        QStringList labels;
        QMap<QString, int> ids;
        for (const QVariant& child : root.children) {
            child.value<QDBusArgument>() >> item;
            labels << item.properties.value("label", "---").toString().remove('&');
            ids[labels.last()] = item.id;
        }
        QCOMPARE(labels.join('|'),
                 "parser  ·  iTerm|---|Show Widget|Compact Widget|---|Settings…|Quit Skeldrin");
        menu.call("Event", ids["Show Widget"], "clicked", QVariant::fromValue(QDBusVariant(0)), 0u);
        QTRY_COMPARE_WITH_TIMEOUT(home.setting("widget.visible").toString(), "false", 20000);
    }
};

QTEST_GUILESS_MAIN(TrayProtocolTests)
#include "TrayProtocolTests.moc"
