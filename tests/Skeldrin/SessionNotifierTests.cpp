// Notifications end to end: the real skeldrin-hook writes sessions into a temporary home, the live model
// reads them, and the notifier talks to a stand-in notification service on a private session bus.
#include "Skeldrin/model/SessionNotifier.h"
#include "Skeldrin/model/SessionsModel.h"
#include "Skeldrin/platform/Notifications.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QProcess>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QtTest>

using namespace skeldrin;

namespace {

const QString kHook = QStringLiteral(SKELDRIN_BIN_DIR "/skeldrin-hook");
const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");

// Records what is asked of it, as a desktop's notification server would receive it.
class StandInService : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
  public:
    struct Shown {
        uint id;
        uint replaces;
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
        shown.push_back(
            {id, replaces, summary, body, actions, hints.value(QStringLiteral("urgency")).toInt()});
        return id;
    }
    void CloseNotification(uint id) { closed.push_back(id); }
    QStringList GetCapabilities() { return {QStringLiteral("actions"), QStringLiteral("body")}; }
};

class TestClock : public Clock {
  public:
    Date now() const override { return at; }
    Date at{};
};

class RecordingJumper : public ImmediateJumper {
  public:
    void jump(const Session& s) override { jumped.push_back(s.id); }
    std::vector<std::string> jumped;
};

} // namespace

class SessionNotifierTests : public QObject {
    Q_OBJECT

    QTemporaryFile config_;
    QProcess bus_;
    QString busAddress_;
    std::unique_ptr<QTemporaryDir> home_;
    std::unique_ptr<StandInService> service_;
    std::unique_ptr<AppSettings> settings_;
    RecordingJumper jumper_;
    TestClock clock_;
    std::unique_ptr<SessionsModel> model_;
    std::unique_ptr<Notifications> delivery_;
    std::unique_ptr<SessionNotifier> notifier_;

    QDBusConnection serviceBus() const { return QDBusConnection(QStringLiteral("stand-in")); }

    void hook(const QString& event, const QString& id, const QString& extra = {})
    {
        QProcess process;
        QProcessEnvironment env;
        env.insert(QStringLiteral("HOME"), home_->path());
        env.insert(QStringLiteral("XDG_DATA_HOME"), home_->filePath(QStringLiteral("data")));
        env.insert(QStringLiteral("PATH"), QStringLiteral("/usr/bin:/bin"));
        env.insert(QStringLiteral("TERM_PROGRAM"), QStringLiteral("ghostty"));
        process.setProcessEnvironment(env);
        process.start(kHook, {});
        QVERIFY(process.waitForStarted());
        process.write(QStringLiteral(R"({"hook_event_name":"%1","session_id":"%2","cwd":"/work/%2"%3})")
                          .arg(event, id, extra)
                          .toUtf8());
        process.closeWriteChannel();
        QVERIFY(process.waitForFinished());
        QCOMPARE(process.exitCode(), 0);
    }
    void askApproval(const QString& id, const QString& command)
    {
        hook(QStringLiteral("PermissionRequest"), id,
             QStringLiteral(R"(,"tool_name":"Bash","tool_input":{"command":"%1"})").arg(command));
    }
    void startNotifier()
    {
        SessionsModel::Dependencies deps;
        deps.jumper = &jumper_;
        deps.settings = settings_.get();
        deps.cycleMilliseconds = 3600 * 1000; // the tests reload themselves
        model_ = std::make_unique<SessionsModel>(
            SessionStore(home_->filePath(QStringLiteral("data/Skeldrin/sessions")).toStdString()),
            std::move(deps));
        model_->start();
        delivery_ = makeSystemNotifications();
        notifier_ = std::make_unique<SessionNotifier>(*model_, *settings_, *delivery_, &clock_);
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
        const auto isMarker = [](const StandInService::Shown& s) {
            return s.summary == QStringLiteral("marker");
        };
        delivery_->notify(QStringLiteral("marker"), QStringLiteral("marker"), {},
                          Notifications::Urgency::low);
        QTRY_VERIFY(std::any_of(service_->shown.begin(), service_->shown.end(), isMarker));
        std::erase_if(service_->shown, isMarker);
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
        bus_.start(QStringLiteral("dbus-daemon"),
                   {QStringLiteral("--config-file=") + config_.fileName(), QStringLiteral("--nofork"),
                    QStringLiteral("--print-address")});
        if (!bus_.waitForStarted()) QSKIP("dbus-daemon is not installed");
        QTRY_VERIFY(bus_.canReadLine());
        busAddress_ = QString::fromUtf8(bus_.readLine()).trimmed();
        qputenv("DBUS_SESSION_BUS_ADDRESS", busAddress_.toUtf8());
        QVERIFY(QDBusConnection::sessionBus().isConnected());
        QVERIFY(QDBusConnection::connectToBus(busAddress_, QStringLiteral("stand-in")).isConnected());
    }
    void cleanupTestCase()
    {
        QDBusConnection::disconnectFromBus(QStringLiteral("stand-in"));
        bus_.terminate();
        bus_.waitForFinished();
    }
    void init()
    {
        home_ = std::make_unique<QTemporaryDir>();
        settings_ = std::make_unique<AppSettings>(home_->filePath(QStringLiteral("settings.ini")));
        jumper_ = {};
        service_ = std::make_unique<StandInService>();
        QVERIFY(serviceBus().registerObject(kPath, service_.get(), QDBusConnection::ExportAllSlots));
        QVERIFY(serviceBus().registerService(kService));
    }
    void cleanup()
    {
        notifier_.reset();
        delivery_.reset();
        model_.reset();
        serviceBus().unregisterService(kService);
        serviceBus().unregisterObject(kPath);
        service_.reset();
    }

    void approvalNotifiesOnceAndAnswerWithdraws()
    {
        hook(QStringLiteral("SessionStart"), QStringLiteral("deploy"),
             QStringLiteral(R"(,"session_title":"Deploy")"));
        hook(QStringLiteral("UserPromptSubmit"), QStringLiteral("deploy"),
             QStringLiteral(R"(,"prompt":"ship")"));
        askApproval(QStringLiteral("old"), QStringLiteral("ls")); // already waiting at start-up
        startNotifier();

        askApproval(QStringLiteral("deploy"), QStringLiteral("npm test"));
        model_->reload();
        model_->reload();
        passWindow();
        settle();
        QCOMPARE(service_->shown.size(), std::size_t(1));
        const auto shown = service_->shown[0];
        QCOMPARE(shown.summary, QStringLiteral("Deploy"));
        QCOMPARE(shown.body, QStringLiteral("Bash: npm test · Ghostty"));
        QVERIFY(shown.actions.contains(QStringLiteral("default")));
        QCOMPARE(shown.urgency, 1);

        // A click on it brings that session forward.
        QVERIFY(serviceBus().send(QDBusMessage::createSignal(kPath, kService, QStringLiteral("ActionInvoked"))
                                  << shown.id << QStringLiteral("default")));
        QTRY_COMPARE(jumper_.jumped, std::vector<std::string>{"deploy"});

        hook(QStringLiteral("PostToolUse"), QStringLiteral("deploy"),
             QStringLiteral(R"(,"tool_name":"Bash","tool_input":{"command":"npm test"})"));
        model_->reload();
        passWindow();
        QTRY_COMPARE(service_->closed, std::vector<uint>{shown.id});
        settle();
        QCOMPARE(service_->shown.size(), std::size_t(1));
    }

    void tenAtOnceGiveTen()
    {
        startNotifier();
        for (int i = 0; i < 10; ++i)
            askApproval(QStringLiteral("s%1").arg(i), QStringLiteral("make"));
        model_->reload();
        passWindow();
        settle();
        QCOMPARE(service_->shown.size(), std::size_t(10));
        std::set<QString> titles;
        for (const auto& shown : service_->shown)
            titles.insert(shown.summary);
        QCOMPARE(titles.size(), std::size_t(10));
    }

    void settingsChooseWhatNotifies()
    {
        settings_->setValue(SessionNotifier::waitingKey, false);
        settings_->setValue(SessionNotifier::finishedKey, true);
        hook(QStringLiteral("UserPromptSubmit"), QStringLiteral("quiet"),
             QStringLiteral(R"(,"prompt":"fix it")"));
        startNotifier();
        askApproval(QStringLiteral("quiet"), QStringLiteral("make"));
        model_->reload();
        hook(QStringLiteral("PostToolUse"), QStringLiteral("quiet"),
             QStringLiteral(R"(,"tool_name":"Bash","tool_input":{"command":"make"})"));
        model_->reload();
        hook(QStringLiteral("Stop"), QStringLiteral("quiet"));
        model_->reload();
        passWindow();
        settle();
        QCOMPARE(service_->shown.size(), std::size_t(1));
        QCOMPARE(service_->shown[0].body, QStringLiteral("Finished: fix it · Ghostty"));
        QCOMPARE(service_->shown[0].urgency, 0);

        // Switched off, what it showed goes at once.
        settings_->setValue(SessionNotifier::finishedKey, false);
        QTRY_COMPARE(service_->closed, std::vector<uint>{service_->shown[0].id});
    }

    void anAbsentServiceIsLoggedOnce()
    {
        serviceBus().unregisterService(kService);
        static QStringList warnings;
        const QtMessageHandler previous = qInstallMessageHandler(
            [](QtMsgType type, const QMessageLogContext& context, const QString& text) {
                if (type == QtWarningMsg && QLatin1String(context.category) == "app.skeldrin.notifications")
                    warnings << text;
            });
        startNotifier();
        for (int i = 0; i < 3; ++i)
            askApproval(QStringLiteral("s%1").arg(i), QStringLiteral("make"));
        model_->reload();
        passWindow();
        QTRY_VERIFY(!warnings.isEmpty());
        // The other answers have come back once a call made after them has.
        QDBusConnection::sessionBus().call(QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
            QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetId")));
        QCoreApplication::processEvents();
        qInstallMessageHandler(previous);
        QCOMPARE(warnings.size(), 1);
        QVERIFY2(warnings[0].contains(kService), qPrintable(warnings[0]));
    }
};

QTEST_GUILESS_MAIN(SessionNotifierTests)
#include "SessionNotifierTests.moc"
