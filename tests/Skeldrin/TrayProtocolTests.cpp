// The tray item as a desktop panel sees it: a private D-Bus session bus, a StatusNotifierWatcher written
// here, an X server for the app, and the real `skeldrin` process registering its item and menu.
#include <QDBusAbstractAdaptor>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusReply>
#include <QDBusVariant>
#include <QImage>
#include <QProcess>
#include <QSettings>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include "tests/support/TestFiles.h"

namespace {

constexpr char watcherService[] = "org.kde.StatusNotifierWatcher";

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

struct MenuNode {
    int id = 0;
    QVariantMap properties;
    std::vector<MenuNode> children;
};

MenuNode readNode(const QDBusArgument& argument)
{
    MenuNode node;
    argument.beginStructure();
    argument >> node.id;
    argument >> node.properties;
    argument.beginArray();
    while (!argument.atEnd()) {
        QDBusVariant child;
        argument >> child;
        node.children.push_back(readNode(child.variant().value<QDBusArgument>()));
    }
    argument.endArray();
    argument.endStructure();
    return node;
}

} // namespace

class TrayProtocolTests : public QObject {
    Q_OBJECT

    QTemporaryDir home;
    QProcess bus, xserver, app;
    QString busAddress;
    std::unique_ptr<QDBusConnection> connection;
    Watcher watcher;

    QString item() const { return watcher.registered.value(0); }
    QVariant itemProperty(const char* name)
    {
        const QString service = item().section(QLatin1Char('/'), 0, 0);
        QDBusMessage get = QDBusMessage::createMethodCall(service, QStringLiteral("/StatusNotifierItem"),
                                                          QStringLiteral("org.freedesktop.DBus.Properties"),
                                                          QStringLiteral("Get"));
        get << QStringLiteral("org.kde.StatusNotifierItem") << QString::fromLatin1(name);
        const QDBusMessage reply = connection->call(get);
        if (reply.type() != QDBusMessage::ReplyMessage) return {};
        return reply.arguments().value(0).value<QDBusVariant>().variant();
    }
    QString settingsValue(const QString& key) const
    {
        return QSettings(home.filePath(QStringLiteral("config/Skeldrin/Skeldrin.conf")), QSettings::IniFormat)
            .value(key)
            .toString();
    }

  private Q_SLOTS:
    void initTestCase()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("Xvfb")).isEmpty() ||
            QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")).isEmpty())
            QSKIP("needs Xvfb and dbus-daemon (scripts/install-deps --test)");

        bus.start(QStringLiteral("dbus-daemon"), {QStringLiteral("--session"), QStringLiteral("--nofork"),
                                                  QStringLiteral("--print-address")});
        QVERIFY(bus.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(bus.canReadLine(), 10000);
        busAddress = QString::fromUtf8(bus.readLine()).trimmed();
        connection = std::make_unique<QDBusConnection>(
            QDBusConnection::connectToBus(busAddress, QStringLiteral("panel")));
        QVERIFY(connection->isConnected());
        QVERIFY(connection->registerObject(QStringLiteral("/StatusNotifierWatcher"), &watcher,
                                           QDBusConnection::ExportAllSlots |
                                               QDBusConnection::ExportAllProperties |
                                               QDBusConnection::ExportAllSignals));
        QVERIFY(connection->registerService(QLatin1String(watcherService)));

        // -displayfd: the server picks a free display and writes its number on that descriptor.
        xserver.setProcessChannelMode(QProcess::SeparateChannels);
        xserver.start(QStringLiteral("Xvfb"),
                      {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"),
                       QStringLiteral("0"), QStringLiteral("1280x800x24"), QStringLiteral("-nolisten"),
                       QStringLiteral("tcp")});
        QVERIFY(xserver.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(xserver.canReadLine(), 20000);
        const QString display = QLatin1Char(':') + QString::fromUtf8(xserver.readLine()).trimmed();

        // A session waiting for an approval, recorded through the real hook.
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), home.path());
        env.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(QStringLiteral("data")));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home.filePath(QStringLiteral("run")));
        QDir().mkpath(home.filePath(QStringLiteral("run")));
        QFile::setPermissions(home.filePath(QStringLiteral("run")),
                              QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
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
        env.insert(QStringLiteral("SKELDRIN_UPDATE_URL"), QString()); // no update check: no network
        app.setProcessEnvironment(env);
        app.setProcessChannelMode(QProcess::ForwardedChannels);
        app.start(QStringLiteral(SKELDRIN_BIN_DIR "/skeldrin"), {});
        QVERIFY(app.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(!watcher.registered.isEmpty(), 30000);
    }

    void cleanupTestCase()
    {
        for (QProcess* process : {&app, &xserver, &bus}) {
            if (process->state() == QProcess::NotRunning) continue;
            process->terminate();
            if (!process->waitForFinished(5000)) process->kill();
            process->waitForFinished();
        }
    }

    void itemShowsTheMostUrgentStatus()
    {
        QCOMPARE(itemProperty("Status").toString(), QStringLiteral("Active"));
        const QDBusArgument toolTip = itemProperty("ToolTip").value<QDBusArgument>();
        QString iconName, title, text;
        toolTip.beginStructure();
        toolTip >> iconName;
        toolTip.beginArray();
        while (!toolTip.atEnd()) {
            toolTip.beginStructure();
            int w, h;
            QByteArray bytes;
            toolTip >> w >> h >> bytes;
            toolTip.endStructure();
        }
        toolTip.endArray();
        toolTip >> title >> text;
        toolTip.endStructure();
        QCOMPARE(title + text, QStringLiteral("Skeldrin — Needs approval"));

        // The largest icon offered, in network byte order ARGB; the badge is the default yellow.
        const QDBusArgument pixmaps = itemProperty("IconPixmap").value<QDBusArgument>();
        QImage largest;
        pixmaps.beginArray();
        while (!pixmaps.atEnd()) {
            int w, h;
            QByteArray bytes;
            pixmaps.beginStructure();
            pixmaps >> w >> h >> bytes;
            pixmaps.endStructure();
            if (w > largest.width() && bytes.size() == w * h * 4) {
                QImage image(w, h, QImage::Format_ARGB32);
                for (int y = 0; y < h; ++y)
                    for (int x = 0; x < w; ++x) {
                        const auto* p = reinterpret_cast<const uchar*>(bytes.constData()) + (y * w + x) * 4;
                        image.setPixel(x, y, qRgba(p[1], p[2], p[3], p[0]));
                    }
                largest = image;
            }
        }
        pixmaps.endArray();
        QVERIFY(largest.width() >= 22);
        const qreal scale = largest.width() / 18.0;
        const QPoint badge(int((largest.width() - 17 * scale) / 2 + 13.64 * scale), int(9.8 * scale));
        QCOMPARE(QColor(largest.pixel(badge)), QColor(0xFF, 0xD6, 0x0A));
    }

    void menuIsExportedAndShowWidgetFlips()
    {
        const QString service = item().section(QLatin1Char('/'), 0, 0);
        const QString menuPath = itemProperty("Menu").value<QDBusObjectPath>().path();
        QVERIFY(!menuPath.isEmpty());
        QDBusInterface menu(service, menuPath, QStringLiteral("com.canonical.dbusmenu"), *connection);
        menu.call(QStringLiteral("AboutToShow"), 0);
        const QDBusMessage layout =
            menu.call(QStringLiteral("GetLayout"), 0, -1,
                      QStringList{QStringLiteral("label"), QStringLiteral("enabled"),
                                  QStringLiteral("toggle-state"), QStringLiteral("type")});
        QCOMPARE(layout.type(), QDBusMessage::ReplyMessage);
        const MenuNode root = readNode(layout.arguments().value(1).value<QDBusArgument>());

        QStringList labels;
        int showWidget = -1;
        for (const MenuNode& child : root.children) {
            const QString text =
                child.properties.value(QStringLiteral("type")).toString() == QLatin1String("separator")
                    ? QStringLiteral("---")
                    : child.properties.value(QStringLiteral("label")).toString().remove(QLatin1Char('&'));
            labels << text;
            if (text == QLatin1String("Show Widget")) {
                showWidget = child.id;
                QCOMPARE(child.properties.value(QStringLiteral("toggle-state")).toInt(), 1);
            }
        }
        QCOMPARE(
            labels.join(QLatin1Char('|')),
            QStringLiteral("parser  ·  iTerm|---|Show Widget|Compact Widget|---|Settings…|Quit Skeldrin"));

        menu.call(QStringLiteral("Event"), showWidget, QStringLiteral("clicked"),
                  QVariant::fromValue(QDBusVariant(QVariant(0))), 0u);
        QTRY_COMPARE_WITH_TIMEOUT(settingsValue(QStringLiteral("widget.visible")), QStringLiteral("false"),
                                  20000);
    }
};

QTEST_GUILESS_MAIN(TrayProtocolTests)
#include "TrayProtocolTests.moc"
