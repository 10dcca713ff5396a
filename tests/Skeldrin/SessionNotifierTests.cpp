// Notifications end to end: the real skeldrin-hook writes sessions into a temporary home, the live model
// reads them, and the notifier talks to a stand-in notification service on a private session bus.
#include "Skeldrin/model/SessionNotifier.h"
#include "Skeldrin/model/SessionsModel.h"
#include "Skeldrin/platform/Notifications.h"
#include "tests/Skeldrin/AppFixture.h"
#include "tests/support/TestProcesses.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QTemporaryFile>
#include <QtTest>

using namespace skeldrin;
using namespace skeldrin::test;

namespace {

const QString kHook = QStringLiteral(SKELDRIN_BIN_DIR "/skeldrin-hook");
const QString kService = "org.freedesktop.Notifications";
const QString kPath = "/org/freedesktop/Notifications";

// Records what is asked of it, as a desktop's notification server would receive it.
class StandInService : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
  public:
    struct Shown {
        uint id;
        QString summary, body;
        QStringList actions;
        int urgency;
    };
    std::vector<Shown> shown;
    std::vector<uint> closed;
    uint lastId = 0;

  public Q_SLOTS:
    uint Notify(const QString&, uint replaces, const QString&, const QString& summary, const QString& body,
                const QStringList& actions, const QVariantMap& hints, int)
    {
        const uint id = replaces ? replaces : ++lastId;
        shown.push_back({id, summary, body, actions, hints.value("urgency").toInt()});
        return id;
    }
    void CloseNotification(uint id) { closed.push_back(id); }
};

class TestClock : public Clock {
  public:
    Date now() const override { return at; }
    Date at{};
};

} // namespace

class SessionNotifierTests : public QObject {
    Q_OBJECT

    QTemporaryFile config_;
    QProcess bus_;
    TempHome home_;
    StandInService service_;
    AppSettings settings_{home_.path("settings.ini")};
    RecordingJumper jumper_;
    TestClock clock_;
    std::unique_ptr<SessionsModel> model_;
    std::unique_ptr<Notifications> delivery_;
    std::unique_ptr<SessionNotifier> notifier_;

    QDBusConnection serviceBus() const { return QDBusConnection("stand-in"); }

    void hook(const QString& event, const QString& id, const QString& extra = {})
    {
        QProcessEnvironment env = bareEnvironment(home_, "/usr/bin:/bin");
        env.insert("TERM_PROGRAM", "ghostty");
        const QString payload = R"({"hook_event_name":"%1","session_id":"%2","cwd":"/work/%2"%3})";
        QCOMPARE(runToEnd(kHook, {}, env, payload.arg(event, id, extra).toUtf8()).exitCode, 0);
    }
    void askApproval(const QString& id, const QString& command)
    {
        hook("PermissionRequest", id,
             QStringLiteral(R"(,"tool_name":"Bash","tool_input":{"command":"%1"})").arg(command));
    }
    void startNotifier()
    {
        SessionsModel::Dependencies deps;
        deps.jumper = &jumper_;
        deps.settings = &settings_;
        deps.cycleMilliseconds = 3600 * 1000; // the tests reload themselves
        model_ = std::make_unique<SessionsModel>(
            SessionStore(home_.path("data/Skeldrin/sessions").toStdString()), std::move(deps));
        model_->start();
        delivery_ = makeSystemNotifications();
        notifier_ = std::make_unique<SessionNotifier>(*model_, settings_, *delivery_, &clock_);
    }
    // What was held back for a moment is delivered.
    void passWindow()
    {
        clock_.at += NotificationRules::window;
        notifier_->update();
    }
    // A marker notification: once it has arrived, everything asked before it has arrived too.
    void settle()
    {
        // Sent at low urgency, as a finish is.
        const auto isMarker = [](const StandInService::Shown& s) {
            return s.summary == "marker" && !s.urgency;
        };
        delivery_->notify("marker", "marker", {}, Notifications::Urgency::low);
        QTRY_VERIFY(std::any_of(service_.shown.begin(), service_.shown.end(), isMarker));
        std::erase_if(service_.shown, isMarker);
    }

  private Q_SLOTS:
    void initTestCase()
    {
        // No service directories: an installed notification daemon must not be started on demand.
        QVERIFY(config_.open());
        config_.write("<busconfig><type>session</type><listen>unix:tmpdir=/tmp</listen>"
                      "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                      "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>");
        config_.close();
        const QString busAddress = startAndReadFirstLine(
            bus_, "dbus-daemon", {"--config-file=" + config_.fileName(), "--nofork", "--print-address"});
        if (busAddress.isEmpty()) QSKIP("dbus-daemon is not installed");
        qputenv("DBUS_SESSION_BUS_ADDRESS", busAddress.toUtf8());
        QVERIFY(QDBusConnection::sessionBus().isConnected());
        QVERIFY(QDBusConnection::connectToBus(busAddress, "stand-in").isConnected());
        QVERIFY(serviceBus().registerObject(kPath, &service_, QDBusConnection::ExportAllSlots));
        QVERIFY(serviceBus().registerService(kService));
    }
    void cleanupTestCase()
    {
        notifier_.reset();
        delivery_.reset();
        model_.reset();
        QDBusConnection::disconnectFromBus("stand-in");
        stopAll({&bus_});
    }

    void notifiesThroughTheDesktopServiceEndToEnd()
    {
        hook("SessionStart", "deploy", R"(,"session_title":"Deploy")");
        startNotifier();

        askApproval("deploy", "npm test");
        askApproval("other", "make");
        model_->reload();
        passWindow();
        settle();
        QCOMPARE(service_.shown.size(), std::size_t(2)); // each on its own: none replaces another
        QVERIFY(service_.shown[0].id != service_.shown[1].id);
        const auto shown = service_.shown[0].summary == "Deploy" ? service_.shown[0] : service_.shown[1];
        QCOMPARE(shown.body, "Bash: npm test · Ghostty");
        QVERIFY(shown.actions.contains("default") && shown.urgency == 1);

        QVERIFY(serviceBus().send(QDBusMessage::createSignal(kPath, kService, "ActionInvoked")
                                  << shown.id << "default"));
        QTRY_COMPARE(jumper_.jumped, std::vector<std::string>{"deploy"});

        // Turning waits off withdraws what they showed.
        settings_.setValue(SessionNotifier::waitingKey, false);
        QTRY_COMPARE(service_.closed.size(), std::size_t(2));
        QVERIFY(std::find(service_.closed.begin(), service_.closed.end(), shown.id) != service_.closed.end());
        settings_.setValue(SessionNotifier::waitingKey, true);

        // Without a notification service, one warning however many notifications fail.
        serviceBus().unregisterService(kService);
        static QStringList warnings;
        const QtMessageHandler previous = qInstallMessageHandler(
            [](QtMsgType type, const QMessageLogContext& context, const QString& text) {
                if (type == QtWarningMsg && QLatin1String(context.category) == "app.skeldrin.notifications")
                    warnings << text;
            });
        askApproval("s1", "make");
        askApproval("s2", "make");
        model_->reload();
        passWindow();
        QTRY_VERIFY(!warnings.isEmpty()); // the answers come back in their own time
        // The other answer has come back once a call made after it has.
        QDBusConnection::sessionBus().call(QDBusMessage::createMethodCall(
            "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId"));
        QCoreApplication::processEvents();
        qInstallMessageHandler(previous);
        QCOMPARE(warnings.size(), 1);
        QVERIFY2(warnings[0].startsWith("desktop notifications are unavailable: ") &&
                     warnings[0].contains(kService),
                 qPrintable(warnings[0]));
    }
};

QTEST_GUILESS_MAIN(SessionNotifierTests)
#include "SessionNotifierTests.moc"
