// Jumping end to end on Linux: the real skeldrin-hook records where it runs, the real `skeldrin jump`
// brings that place forward, checked with the terminals' own tools.
#include "Skeldrin/platform/SystemJumper.h"
#include "tests/support/TestFiles.h"
#include "tests/support/TestProcesses.h"

#include <QDBusConnection>
#include <QDeadlineTimer>
#include <QStandardPaths>
#include <QtTest>

#include <memory>

using namespace skeldrin::test;

namespace {

// Stands in for a Konsole window on a private bus, remembering the session it was asked to show.
class KonsoleWindow : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.konsole.Window")
  public:
    int shown = -1;
  public Q_SLOTS:
    void setCurrentSession(int session) { shown = session; }
};

const QString kBin = QStringLiteral(SKELDRIN_BIN_DIR);
constexpr int kTimeoutMs = 20000;

QStringList words(const QString& line)
{
    return line.simplified().split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

} // namespace

class JumpLinuxTests : public QObject {
    Q_OBJECT

    std::unique_ptr<TempHome> home_;
    std::vector<std::unique_ptr<QProcess>> background_;

    QString path(const QString& relative) const { return home_->path(relative); }
    QProcessEnvironment environment(const QString& searchPath = ":/usr/bin:/bin") const
    {
        return bareEnvironment(*home_, path("bin") + searchPath);
    }

    // The exit code and the trimmed error output of a program run to its end.
    static std::pair<int, QString> run(const QString& program, const QStringList& arguments,
                                       const QProcessEnvironment& env, const QByteArray& input = {})
    {
        const Ran ran = runToEnd(program, arguments, env, input, kTimeoutMs);
        return {ran.exitCode, QString::fromUtf8(ran.err).trimmed()};
    }
    static QString output(const QString& program, const QStringList& arguments,
                          const QProcessEnvironment& env)
    {
        return QString::fromUtf8(runToEnd(program, arguments, env, {}, kTimeoutMs).out).trimmed();
    }
    std::pair<int, QString> jump(const QString& id, const QProcessEnvironment& env) const
    {
        return run(kBin + "/skeldrin", {"jump", id}, env);
    }

    static QByteArray payload(const QString& id)
    {
        return QStringLiteral(R"({"hook_event_name":"SessionStart","session_id":"%1","cwd":"/work/alpha"})")
            .arg(id)
            .toUtf8();
    }
    // Records a session from a hook run with these extra variables ("NAME=value").
    void recordWith(const QString& id, const QStringList& variables)
    {
        QProcessEnvironment env = environment();
        for (const QString& variable : variables)
            env.insert(variable.section(QLatin1Char('='), 0, 0), variable.section(QLatin1Char('='), 1));
        QCOMPARE(run(kBin + "/skeldrin-hook", {}, env, payload(id)).first, 0);
    }
    // A shell line that runs the hook for id; the pane or terminal it runs in is what gets recorded.
    QString hookLine(const QString& id, const QString& then = "sleep 600") const
    {
        QFile file(path(id + ".json"));
        if (file.open(QIODevice::WriteOnly)) file.write(payload(id));
        return QStringLiteral("%1/skeldrin-hook < %2; %3").arg(kBin, file.fileName(), then);
    }
    QString sessionPath(const QString& id) const { return path("data/Skeldrin/sessions/" + id + ".json"); }
    bool seen(const QString& id) const
    {
        return readText(sessionPath(id).toStdString()).find("\"seenAt\"") != std::string::npos;
    }

    // A process stopped when the test ends.
    QProcess& background(const QProcessEnvironment& env)
    {
        background_.push_back(std::make_unique<QProcess>());
        background_.back()->setProcessEnvironment(env);
        background_.back()->setStandardErrorFile(QProcess::nullDevice());
        return *background_.back();
    }
    void startBackground(const QString& program, const QStringList& arguments, const QProcessEnvironment& env)
    {
        background(env).start(program, arguments);
    }

    // A program on the test's PATH that records its arguments, one a line.
    void standIn(const QString& name)
    {
        QVERIFY(writeScript(path("bin/" + name),
                            QStringLiteral("printf '%s\\n' \"$@\" > %1.args").arg(path(name)).toUtf8()));
    }
    QStringList argumentsSeenBy(const QString& name) const
    {
        return QString::fromStdString(readText(path(name + ".args").toStdString()))
            .split('\n', Qt::SkipEmptyParts);
    }

  private Q_SLOTS:
    void init()
    {
        home_ = std::make_unique<TempHome>();
        QVERIFY(home_->dir.isValid());
        QVERIFY(QDir().mkpath(path("bin")));
    }

    void cleanup()
    {
        // Clients before the display they are on.
        for (auto it = background_.rbegin(); it != background_.rend(); ++it)
            stopAll({it->get()});
        background_.clear();
    }

    void placesAreAskedThroughTheirOwnCommandsOrRefused_data()
    {
        QTest::addColumn<QStringList>("variables"); // what the hook ran with; empty row: never recorded
        QTest::addColumn<QString>("program");       // the stand-in on PATH; none when it is missing
        QTest::addColumn<QStringList>("arguments"); // what the program was asked
        QTest::addColumn<QString>("error");         // what `skeldrin jump` says; empty: it worked

        QTest::newRow("kitty") << QStringList{"KITTY_WINDOW_ID=7", "KITTY_LISTEN_ON=unix:@kitty-main"}
                               << "kitty" << words("@ --to unix:@kitty-main focus-window --match id:7") << "";
        QTest::newRow("wezterm") << QStringList{"WEZTERM_PANE=12"} << "wezterm"
                                 << words("cli activate-pane --pane-id 12") << "";
        QTest::newRow("hostile window id")
            << QStringList{"KITTY_WINDOW_ID=7 --all"} << "kitty" << QStringList()
            << "Couldn't open alpha: This session recorded an unexpected kitty window: 7 --all";
        QTest::newRow("program missing")
            << QStringList{"KITTY_WINDOW_ID=3"} << "" << QStringList() << "Couldn't run kitty";
        QTest::newRow("nowhere") << QStringList{"NOTHING=here"} << "kitty" << QStringList()
                                 << "Couldn't open alpha: This session didn't say where it was started, so "
                                    "there's nothing to open.";
        QTest::newRow("never seen") << QStringList() << "kitty" << QStringList() << "skeldrin: no session s";
    }

    void placesAreAskedThroughTheirOwnCommandsOrRefused()
    {
        QFETCH(QStringList, variables);
        QFETCH(QString, program);
        QFETCH(QStringList, arguments);
        QFETCH(QString, error);
        if (!program.isEmpty()) standIn(program);
        if (!variables.isEmpty()) recordWith("s", variables);

        // Only the test's own programs: a missing one is not found elsewhere.
        const auto [exitCode, said] = jump("s", environment(QString()));
        QCOMPARE(exitCode, error.isEmpty() ? 0 : 1);
        QVERIFY2(error.isEmpty() ? said.isEmpty() : said.contains(error), qPrintable(said));
        if (!program.isEmpty()) QCOMPARE(argumentsSeenBy(program), arguments);
        // As in the app, a session that was jumped to has been seen; one that could not be opened has not.
        QCOMPARE(seen("s"), error.isEmpty());
    }

    void editorsOpenTheFolderThenTheSessionsLink()
    {
        standIn("cursor");
        standIn("xdg-open");
        // The session runs under an editor whose executable is named cursor: a copy of the shell here.
        const QString host = path("host/cursor");
        QVERIFY(QDir().mkpath(path("host")) && QFile::copy("/bin/sh", host));
        QProcessEnvironment env = environment();
        env.insert("CLAUDE_CODE_ENTRYPOINT", "claude-vscode");
        QCOMPARE(run(host, {"-c", hookLine("in-editor", ":")}, env).first, 0);

        QCOMPARE(jump("in-editor", environment()).second, QString());
        QTRY_VERIFY_WITH_TIMEOUT(!argumentsSeenBy("xdg-open").isEmpty(), kTimeoutMs);
        QCOMPARE(argumentsSeenBy("cursor"), QStringList{"/work/alpha"});
        QCOMPARE(argumentsSeenBy("xdg-open"),
                 QStringList{"cursor://anthropic.claude-code/open?session=in-editor"});
    }

    void konsoleIsAskedOverDBus()
    {
        if (QStandardPaths::findExecutable("dbus-daemon").isEmpty()) QSKIP("dbus-daemon is not installed");
        const QString address = startSessionBus(background(environment()));
        QVERIFY(!address.isEmpty());
        QDBusConnection bus = QDBusConnection::connectToBus(address, "konsole-stand-in");
        KonsoleWindow window;
        QVERIFY(bus.registerObject("/Windows/2", &window, QDBusConnection::ExportAllSlots));
        QVERIFY(bus.registerService("org.kde.konsole-4242"));

        QProcessEnvironment env = environment();
        env.insert("DBUS_SESSION_BUS_ADDRESS", address);
        recordWith("in-konsole",
                   {"DBUS_SESSION_BUS_ADDRESS=" + address, "KONSOLE_DBUS_SERVICE=org.kde.konsole-4242",
                    "KONSOLE_DBUS_SESSION=/Sessions/5", "KONSOLE_DBUS_WINDOW=/Windows/2"});

        // The stand-in answers from this event loop, so the jump runs alongside it.
        QProcess jumping;
        jumping.setProcessEnvironment(env);
        jumping.start(kBin + "/skeldrin", {"jump", "in-konsole"});
        QTRY_VERIFY_WITH_TIMEOUT(jumping.state() == QProcess::NotRunning, kTimeoutMs);
        QCOMPARE(jumping.readAllStandardError(), QByteArray());
        QCOMPARE(jumping.exitCode(), 0);
        QCOMPARE(window.shown, 5);
        QDBusConnection::disconnectFromBus("konsole-stand-in");
    }

    void aHungProgramIsKilledWhileTheEventLoopTurns()
    {
        QVERIFY(writeScript(path("bin/tmux"), "exec sleep 60"));
        const QByteArray searchPath = qgetenv("PATH");
        qputenv("PATH", path("bin").toUtf8() + ':' + searchPath);
        skeldrin::Origin origin;
        origin.tmuxSocket = path("tmux.sock").toStdString();
        origin.tmuxPane = "%3";
        const skeldrin::Session session("hung", "claude", "/work/alpha", origin, std::nullopt, {});

        int ticks = 0;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, [&] { ++ticks; });
        ticker.start(10);
        std::optional<QString> error;
        const auto jumper = skeldrin::makeSystemJumper();
        jumper->start(session, [&](std::exception_ptr failure) {
            try {
                error = QString();
                if (failure) std::rethrow_exception(failure);
            } catch (const std::exception& e) {
                error = QString::fromUtf8(e.what());
            }
        });
        QVERIFY(!error); // still waiting on tmux
        QTRY_VERIFY_WITH_TIMEOUT(error.has_value(), kTimeoutMs);
        qputenv("PATH", searchPath);
        QVERIFY(ticks > 0);
        QCOMPARE(*error, QStringLiteral("tmux didn't answer in time."));
    }

    void terminalWindowsAndTmuxPanesComeForwardEvenWhenMinimized()
    {
        for (const char* tool : {"Xvfb", "openbox", "xterm", "xdotool"})
            if (QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty())
                QSKIP(qPrintable(QStringLiteral("%1 is not installed").arg(QLatin1String(tool))));
        QProcessEnvironment env = environment();
        const QString display = startXvfb(background(env));
        QVERIFY2(!display.isEmpty(), "Xvfb did not start");
        env.insert("DISPLAY", display);
        startBackground("openbox", {}, env);
        const auto xdotool = [&](const QStringList& arguments) { return output("xdotool", arguments, env); };
        const auto activeTitle = [&] { return xdotool(words("getactivewindow getwindowname")); };
        const auto waitForTitle = [&](const QString& title) {
            QDeadlineTimer until(kTimeoutMs);
            while (!until.hasExpired() && activeTitle() != title)
                QThread::msleep(50);
            return activeTitle();
        };
        // Made active by xdotool, retried: a window just mapped may not be managed yet.
        const auto bringForward = [&](const QString& title) {
            QDeadlineTimer until(kTimeoutMs);
            while (!until.hasExpired() && activeTitle() != title) {
                for (const QString& window : words(xdotool(words("search --onlyvisible --name")
                                                           << QLatin1Char('^') + title + QLatin1Char('$'))))
                    xdotool({"windowactivate", window});
                QThread::msleep(100);
            }
            return activeTitle();
        };
        const auto xterm = [&](const QString& title, const QStringList& command) {
            startBackground("xterm", QStringList{"-title", title, "-e"} + command, env);
        };
        // The window manager is ready once it has announced itself on the root window.
        for (QDeadlineTimer managed(kTimeoutMs);
             !managed.hasExpired() && !output("xprop", words("-root _NET_SUPPORTING_WM_CHECK"), env)
                                           .contains(QLatin1String("window id"));)
            QThread::msleep(50);
        xterm("hooked", {"sh", "-c", hookLine("in-xterm")});
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(sessionPath("in-xterm")), kTimeoutMs);
        xterm("other", words("sleep 600"));
        QCOMPARE(bringForward("other"), "other");

        QCOMPARE(jump("in-xterm", env).second, QString());
        QCOMPARE(waitForTitle("hooked"), "hooked");
        xdotool(words("windowminimize --sync") << xdotool(words("getactivewindow")));
        QCOMPARE(waitForTitle("other"), "other");
        QCOMPARE(jump("in-xterm", env).first, 0);
        QCOMPARE(waitForTitle("hooked"), "hooked");

        // A tmux pane among others: exactly that pane is selected, and the terminal showing the attached
        // client comes forward too.
        const QStringList socket{"-S", path("tmux.sock")};
        const auto tmux = [&](const QStringList& arguments) {
            return output("tmux", socket + arguments, env);
        };
        QCOMPARE(run("tmux", socket + words("-f /dev/null new-session -d -s work"), env).first, 0);
        tmux(words("new-window -t work"));
        const QString hooked = tmux(words("split-window -P -F #{pane_id}") << hookLine("in-tmux"));
        QVERIFY(!hooked.isEmpty());
        tmux(words("split-window"));
        tmux(words("new-window -t work"));
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(sessionPath("in-tmux")), kTimeoutMs);
        xterm("tmuxed", QStringList{"tmux"} + socket + words("attach"));
        QCOMPARE(bringForward("tmuxed"), "tmuxed");
        QVERIFY(tmux(words("display -p #{pane_id}")) != hooked);
        QCOMPARE(bringForward("other"), "other");
        QCOMPARE(jump("in-tmux", env).second, QString());
        QCOMPARE(waitForTitle("tmuxed"), "tmuxed");
        QCOMPARE(tmux(words("display -p #{pane_id}")), hooked);
        tmux(words("kill-server"));
    }
};

QTEST_GUILESS_MAIN(JumpLinuxTests)
#include "JumpLinuxTests.moc"
