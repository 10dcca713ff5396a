// Jumping end to end on Linux: the real skeldrin-hook records where it runs, the real `skeldrin jump`
// brings that place forward, checked with the terminals' own tools.
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

const auto words = [](const QString& line) { return line.simplified().split(' ', Qt::SkipEmptyParts); };

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
    static QString output(const QString& program, const QStringList& arguments,
                          const QProcessEnvironment& env)
    {
        return QString::fromUtf8(runToEnd(program, arguments, env, {}, kTimeoutMs).out).trimmed();
    }
    // The exit code of `skeldrin jump` and what it said.
    static std::pair<int, QString> jump(const QString& id, const QProcessEnvironment& env)
    {
        const Ran ran = runToEnd(kBin + "/skeldrin", {"jump", id}, env, {}, kTimeoutMs);
        return {ran.exitCode, QString::fromUtf8(ran.err).trimmed()};
    }

    // A shell line that runs the hook for id; the pane or terminal it runs in is what gets recorded.
    QString hookLine(const QString& id, const QString& then = "sleep 600") const
    {
        return QStringLiteral(
                   R"(echo '{"hook_event_name":"SessionStart","session_id":"%1","cwd":"/work/alpha"}' | )"
                   "%2/skeldrin-hook; %3")
            .arg(id, kBin, then);
    }
    // Records a session from a hook run by shell with these extra variables ("NAME=value").
    void recordWith(const QString& id, const QStringList& variables, const QString& shell = "/bin/sh")
    {
        QProcessEnvironment env = environment();
        for (const QString& variable : variables)
            env.insert(variable.section(QLatin1Char('='), 0, 0), variable.section(QLatin1Char('='), 1));
        QCOMPARE(runToEnd(shell, {"-c", hookLine(id, ":")}, env).exitCode, 0);
    }
    QString sessionPath(const QString& id) const { return path("data/Skeldrin/sessions/" + id + ".json"); }

    // A process stopped when the test ends.
    QProcess& background(const QProcessEnvironment& env, const QString& program = {},
                         const QStringList& arguments = {})
    {
        background_.push_back(std::make_unique<QProcess>());
        background_.back()->setProcessEnvironment(env);
        background_.back()->setStandardErrorFile(QProcess::nullDevice());
        if (!program.isEmpty()) background_.back()->start(program, arguments);
        return *background_.back();
    }

    // What a stand-in on the test's PATH was called with: its name, then its arguments.
    QString seenBy(const QString& name) const
    {
        return QString::fromUtf8(readBytes(path(name + ".args"))).simplified();
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
        // Clients before the display they are on; a tmux server left by a failed check too.
        if (QFile::exists(path("tmux.sock")))
            runToEnd("tmux", {"-S", path("tmux.sock"), "kill-server"}, environment());
        for (auto it = background_.rbegin(); it != background_.rend(); ++it)
            stopAll({it->get()});
        background_.clear();
    }

    void placesAreAskedThroughTheirOwnCommandsOrRefused_data()
    {
        QTest::addColumn<QStringList>("variables"); // what the hook ran with
        QTest::addColumn<QString>("host");          // the shell the hook ran under; empty: sh
        QTest::addColumn<QStringList>("seen"); // stand-ins on PATH, as each was called; they hang if it fails
        QTest::addColumn<QString>("error");    // what `skeldrin jump` says; empty: it worked
        QTest::newRow("kitty") << QStringList{"KITTY_WINDOW_ID=7", "KITTY_LISTEN_ON=unix:@k"} << ""
                               << QStringList{"kitty @ --to unix:@k focus-window --match id:7"} << "";
        // Under an editor whose executable is named cursor: the folder, then the session's link.
        QTest::newRow("editor") << QStringList{"CLAUDE_CODE_ENTRYPOINT=claude-vscode"} << "cursor"
                                << QStringList{"cursor /work/alpha",
                                               "xdg-open cursor://anthropic.claude-code/open?session=s"}
                                << "";
        QTest::newRow("program missing")
            << QStringList{"KITTY_WINDOW_ID=3"} << "" << QStringList() << "Couldn't run kitty";
        QTest::newRow("program hangs")
            << QStringList{"TMUX=/tmp/t,1,0", "TMUX_PANE=%3"} << "" << QStringList{"tmux"}
            << "Couldn't open alpha: tmux didn't answer in time.";
        QTest::newRow("nowhere") << QStringList{"NOTHING=here"} << "" << QStringList()
                                 << "Couldn't open alpha: This session didn't say where it was started, so "
                                    "there's nothing to open.";
    }
    void placesAreAskedThroughTheirOwnCommandsOrRefused()
    {
        QFETCH(QStringList, variables);
        QFETCH(QString, host);
        QFETCH(QStringList, seen);
        QFETCH(QString, error);
        for (const QString& call : seen) {
            const QString name = call.section(' ', 0, 0);
            QVERIFY(writeScript(
                path("bin/" + name),
                error.isEmpty() ? QStringLiteral("echo %1 \"$@\" > %2.args").arg(name, path(name)).toUtf8()
                                : "exec /bin/sleep 60"));
        }
        if (!host.isEmpty())
            QVERIFY(QDir().mkpath(path("host")) && QFile::copy("/bin/sh", path("host/" + host)));
        recordWith("s", variables, host.isEmpty() ? "/bin/sh" : path("host/" + host));

        // Only the test's own programs: a missing one is not found elsewhere.
        const auto [exitCode, said] = jump("s", environment(QString()));
        QCOMPARE(exitCode, error.isEmpty() ? 0 : 1);
        QVERIFY2(error.isEmpty() ? said.isEmpty() : said.contains(error), qPrintable(said));
        // The editor's link is opened after the jump has answered.
        for (const QString& call : error.isEmpty() ? seen : QStringList())
            QTRY_COMPARE_WITH_TIMEOUT(seenBy(call.section(' ', 0, 0)), call, kTimeoutMs);
        // As in the app, a session that was jumped to has been seen; one that could not be opened has not.
        QCOMPARE(readBytes(sessionPath("s")).contains("\"seenAt\""), error.isEmpty());
    }

    void konsoleIsAskedOverDBus()
    {
        if (QStandardPaths::findExecutable("dbus-daemon").isEmpty()) QSKIP("dbus-daemon is not installed");
        const QString address = startSessionBus(background(environment()));
        QVERIFY(!address.isEmpty());
        QDBusConnection bus = QDBusConnection::connectToBus(address, "konsole-stand-in");
        KonsoleWindow window;
        QVERIFY(bus.registerObject("/Windows/2", &window, QDBusConnection::ExportAllSlots) &&
                bus.registerService("org.kde.konsole-4242"));
        recordWith("in-konsole",
                   {"DBUS_SESSION_BUS_ADDRESS=" + address, "KONSOLE_DBUS_SERVICE=org.kde.konsole-4242",
                    "KONSOLE_DBUS_SESSION=/Sessions/5", "KONSOLE_DBUS_WINDOW=/Windows/2"});

        // The stand-in answers from this event loop, so the jump runs alongside it.
        QProcessEnvironment env = environment();
        env.insert("DBUS_SESSION_BUS_ADDRESS", address);
        QProcess& jumping = background(env, kBin + "/skeldrin", {"jump", "in-konsole"});
        QTRY_VERIFY_WITH_TIMEOUT(jumping.state() == QProcess::NotRunning, kTimeoutMs);
        QCOMPARE(jumping.exitCode(), 0);
        QCOMPARE(window.shown, 5);
        QDBusConnection::disconnectFromBus("konsole-stand-in");
    }

    void terminalWindowsAndTmuxPanesComeForwardEvenWhenMinimized()
    {
        for (const QString tool : {"Xvfb", "openbox", "xterm", "xdotool", "tmux"})
            if (QStandardPaths::findExecutable(tool).isEmpty()) QSKIP(qPrintable(tool + " is not installed"));
        QProcessEnvironment env = environment();
        const QString display = startXvfb(background(env));
        QVERIFY2(!display.isEmpty(), "Xvfb did not start");
        env.insert("DISPLAY", display);
        background(env, "openbox");
        const auto xdotool = [&](const QStringList& arguments) { return output("xdotool", arguments, env); };
        const auto activeTitle = [&] { return xdotool(words("getactivewindow getwindowname")); };
        // Waits for title to be active; with force, makes it so by xdotool, retried: a window just mapped
        // may not be managed yet.
        const auto bringForward = [&](const QString& title, bool force = false) {
            for (QDeadlineTimer until(kTimeoutMs); !until.hasExpired() && activeTitle() != title;
                 QThread::msleep(100))
                for (const QString& window :
                     force ? words(xdotool(words("search --onlyvisible --name") << '^' + title + '$'))
                           : QStringList())
                    xdotool({"windowactivate", window});
            return activeTitle();
        };
        const auto xterm = [&](const QString& title, const QStringList& command) {
            background(env, "xterm", QStringList{"-title", title, "-e"} + command);
        };
        xterm("hooked", {"sh", "-c", hookLine("in-xterm")});
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(sessionPath("in-xterm")), kTimeoutMs);
        xterm("other", words("sleep 600"));
        QCOMPARE(bringForward("other", true), "other");
        xdotool(words("search --name ^hooked$ windowminimize --sync"));

        QCOMPARE(jump("in-xterm", env).second, QString());
        QCOMPARE(bringForward("hooked"), "hooked");

        // A tmux pane among others: exactly that pane is selected, and the terminal showing the attached
        // client comes forward too.
        const QStringList socket{"-S", path("tmux.sock")};
        const auto tmux = [&](const QStringList& arguments) {
            return output("tmux", socket + arguments, env);
        };
        tmux(words("-f /dev/null new-session -d -s work"));
        const QString hooked = tmux(words("split-window -P -F #{pane_id}") << hookLine("in-tmux"));
        tmux(words("split-window"));
        tmux(words("new-window -t work"));
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(sessionPath("in-tmux")), kTimeoutMs);
        xterm("tmuxed", QStringList{"tmux"} + socket + words("attach"));
        QCOMPARE(bringForward("tmuxed", true), "tmuxed");
        QCOMPARE(bringForward("other", true), "other");
        QCOMPARE(jump("in-tmux", env).second, QString());
        QCOMPARE(bringForward("tmuxed"), "tmuxed");
        QCOMPARE(tmux(words("display -p #{pane_id}")), hooked);
    }
};

QTEST_GUILESS_MAIN(JumpLinuxTests)
#include "JumpLinuxTests.moc"
