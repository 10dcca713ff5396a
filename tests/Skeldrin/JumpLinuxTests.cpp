// Jumping end to end on Linux: the real skeldrin-hook records where it runs, the real `skeldrin jump`
// brings that place forward, checked with the terminals' own tools.
#include <QDBusConnection>
#include <QDeadlineTimer>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

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

struct Outcome {
    int exitCode = -1;
    QString out, err;
};

} // namespace

class JumpLinuxTests : public QObject {
    Q_OBJECT

  private:
    std::unique_ptr<QTemporaryDir> home_;
    std::vector<std::unique_ptr<QProcess>> background_;

    QString path(const QString& relative) const { return home_->filePath(relative); }

    QProcessEnvironment environment() const
    {
        QProcessEnvironment env;
        env.insert(QStringLiteral("HOME"), home_->path());
        env.insert(QStringLiteral("XDG_DATA_HOME"), path(QStringLiteral("data")));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), path(QStringLiteral("config")));
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home_->path());
        env.insert(QStringLiteral("PATH"), path(QStringLiteral("bin")) + QStringLiteral(":/usr/bin:/bin"));
        return env;
    }

    Outcome run(const QString& program, const QStringList& arguments, const QProcessEnvironment& env,
                const QByteArray& input = {}) const
    {
        QProcess process;
        process.setProcessEnvironment(env);
        process.start(program, arguments);
        if (!process.waitForStarted(kTimeoutMs)) return {};
        process.write(input);
        process.closeWriteChannel();
        if (!process.waitForFinished(kTimeoutMs)) {
            process.kill();
            process.waitForFinished();
            return {};
        }
        return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
                QString::fromUtf8(process.readAllStandardOutput()).trimmed(),
                QString::fromUtf8(process.readAllStandardError()).trimmed()};
    }

    Outcome jump(const QString& id, const QProcessEnvironment& env) const
    {
        return run(kBin + QStringLiteral("/skeldrin"), {QStringLiteral("jump"), id}, env);
    }

    static QByteArray payload(const QString& id)
    {
        return QStringLiteral(R"({"hook_event_name":"SessionStart","session_id":"%1","cwd":"/work/alpha"})")
            .arg(id)
            .toUtf8();
    }

    // A shell line that runs the hook for id; the pane or terminal it runs in is what gets recorded.
    QString hookLine(const QString& id) const
    {
        QFile file(path(id + QStringLiteral(".json")));
        file.open(QIODevice::WriteOnly);
        file.write(payload(id));
        file.close();
        return QStringLiteral("%1/skeldrin-hook < %2; sleep 600").arg(kBin, file.fileName());
    }

    bool waitForSession(const QString& id) const
    {
        QDeadlineTimer deadline(kTimeoutMs);
        while (!deadline.hasExpired()) {
            if (QDir(path(QStringLiteral("data"))).exists()) {
                QDirIterator it(path(QStringLiteral("data")), QDirIterator::Subdirectories);
                while (it.hasNext())
                    if (it.next().endsWith(id + QStringLiteral(".json"))) return true;
            }
            QThread::msleep(50);
        }
        return false;
    }

    QProcess* startBackground(const QString& program, const QStringList& arguments,
                              const QProcessEnvironment& env)
    {
        auto process = std::make_unique<QProcess>();
        process->setProcessEnvironment(env);
        process->setStandardErrorFile(QProcess::nullDevice());
        process->start(program, arguments);
        background_.push_back(std::move(process));
        return background_.back().get();
    }

    void standIn(const QString& name)
    {
        QFile script(path(QStringLiteral("bin/") + name));
        QVERIFY(script.open(QIODevice::WriteOnly));
        script.write(QStringLiteral("#!/bin/sh\nprintf '%s\\n' \"$@\" > %1/%2.args\n")
                         .arg(home_->path(), name)
                         .toUtf8());
        script.close();
        script.setPermissions(script.permissions() | QFileDevice::ExeOwner);
    }

    QStringList argumentsSeenBy(const QString& name) const
    {
        QFile file(path(name + QStringLiteral(".args")));
        if (!file.open(QIODevice::ReadOnly)) return {};
        return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

    void recordWith(const QString& id, const QMap<QString, QString>& variables)
    {
        QProcessEnvironment env = environment();
        for (auto it = variables.begin(); it != variables.end(); ++it)
            env.insert(it.key(), it.value());
        QCOMPARE(run(kBin + QStringLiteral("/skeldrin-hook"), {}, env, payload(id)).exitCode, 0);
    }

  private Q_SLOTS:
    void init()
    {
        home_ = std::make_unique<QTemporaryDir>();
        QVERIFY(home_->isValid());
        QVERIFY(QDir(home_->path()).mkpath(QStringLiteral("bin")));
    }

    void cleanup()
    {
        // Clients before the display they are on.
        for (auto it = background_.rbegin(); it != background_.rend(); ++it) {
            (*it)->kill();
            (*it)->waitForFinished();
        }
        background_.clear();
    }

    void tmuxSelectsExactlyTheHooksPane()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("tmux")).isEmpty()) QSKIP("tmux is not installed");
        const QString socket = path(QStringLiteral("tmux.sock"));
        const QProcessEnvironment env = environment();
        auto tmux = [&](QStringList arguments) {
            arguments.prepend(socket);
            arguments.prepend(QStringLiteral("-S"));
            return run(QStringLiteral("tmux"), arguments, env);
        };
        QCOMPARE(tmux({QStringLiteral("-f"), QStringLiteral("/dev/null"), QStringLiteral("new-session"),
                       QStringLiteral("-d"), QStringLiteral("-s"), QStringLiteral("work")})
                     .exitCode,
                 0);
        tmux({QStringLiteral("new-window"), QStringLiteral("-t"), QStringLiteral("work")});
        const Outcome hooked =
            tmux({QStringLiteral("split-window"), QStringLiteral("-P"), QStringLiteral("-F"),
                  QStringLiteral("#{pane_id}"), hookLine(QStringLiteral("tmux-one"))});
        QCOMPARE(hooked.exitCode, 0);
        tmux({QStringLiteral("split-window")});
        tmux({QStringLiteral("new-window"), QStringLiteral("-t"), QStringLiteral("work")});
        QVERIFY(waitForSession(QStringLiteral("tmux-one")));
        QVERIFY(tmux({QStringLiteral("display"), QStringLiteral("-p"), QStringLiteral("#{pane_id}")}).out !=
                hooked.out);

        const Outcome jumped = jump(QStringLiteral("tmux-one"), env);
        QCOMPARE(jumped.err, QString());
        QCOMPARE(jumped.exitCode, 0);
        QCOMPARE(tmux({QStringLiteral("display"), QStringLiteral("-p"), QStringLiteral("#{pane_id}")}).out,
                 hooked.out);
        tmux({QStringLiteral("kill-server")});
    }

    void terminalsAreAskedThroughTheirOwnCommands()
    {
        standIn(QStringLiteral("kitty"));
        standIn(QStringLiteral("wezterm"));
        recordWith(QStringLiteral("in-kitty"),
                   {{QStringLiteral("KITTY_WINDOW_ID"), QStringLiteral("7")},
                    {QStringLiteral("KITTY_LISTEN_ON"), QStringLiteral("unix:@kitty-main")}});
        recordWith(QStringLiteral("in-wezterm"), {{QStringLiteral("WEZTERM_PANE"), QStringLiteral("12")}});
        QCOMPARE(jump(QStringLiteral("in-kitty"), environment()).exitCode, 0);
        QCOMPARE(argumentsSeenBy(QStringLiteral("kitty")),
                 QStringList({"@", "--to", "unix:@kitty-main", "focus-window", "--match", "id:7"}));
        QCOMPARE(jump(QStringLiteral("in-wezterm"), environment()).exitCode, 0);
        QCOMPARE(argumentsSeenBy(QStringLiteral("wezterm")),
                 QStringList({"cli", "activate-pane", "--pane-id", "12"}));
    }

    void editorsOpenTheFolderThenTheSessionsLink()
    {
        standIn(QStringLiteral("cursor"));
        standIn(QStringLiteral("xdg-open"));
        // The session runs under an editor whose executable is named cursor: a copy of the shell here.
        QVERIFY(QDir(home_->path()).mkpath(QStringLiteral("host")));
        const QString host = path(QStringLiteral("host/cursor"));
        QVERIFY(QFile::copy(QStringLiteral("/bin/sh"), host));
        QProcessEnvironment env = environment();
        env.insert(QStringLiteral("CLAUDE_CODE_ENTRYPOINT"), QStringLiteral("claude-vscode"));
        QCOMPARE(run(host,
                     {QStringLiteral("-c"), hookLine(QStringLiteral("in-editor"))
                                                .replace(QLatin1String("sleep 600"), QLatin1String(":"))},
                     env)
                     .exitCode,
                 0);

        QCOMPARE(jump(QStringLiteral("in-editor"), environment()).err, QString());
        QDeadlineTimer deadline(kTimeoutMs);
        while (argumentsSeenBy(QStringLiteral("xdg-open")).isEmpty() && !deadline.hasExpired())
            QThread::msleep(20);
        QCOMPARE(argumentsSeenBy(QStringLiteral("cursor")), QStringList{QStringLiteral("/work/alpha")});
        QCOMPARE(argumentsSeenBy(QStringLiteral("xdg-open")),
                 QStringList{QStringLiteral("cursor://anthropic.claude-code/open?session=in-editor")});
    }

    void konsoleIsAskedOverDBus()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")).isEmpty())
            QSKIP("dbus-daemon is not installed");
        QProcess* daemon = startBackground(
            QStringLiteral("dbus-daemon"),
            {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address=1")},
            environment());
        QTRY_VERIFY_WITH_TIMEOUT(daemon->canReadLine(), kTimeoutMs);
        const QString address = QString::fromUtf8(daemon->readLine()).trimmed();
        QDBusConnection bus = QDBusConnection::connectToBus(address, QStringLiteral("konsole-stand-in"));
        QVERIFY(bus.isConnected());
        KonsoleWindow window;
        QVERIFY(bus.registerObject(QStringLiteral("/Windows/2"), &window, QDBusConnection::ExportAllSlots));
        QVERIFY(bus.registerService(QStringLiteral("org.kde.konsole-4242")));

        QProcessEnvironment env = environment();
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), address);
        QProcessEnvironment inKonsole = env;
        inKonsole.insert(QStringLiteral("KONSOLE_DBUS_SERVICE"), QStringLiteral("org.kde.konsole-4242"));
        inKonsole.insert(QStringLiteral("KONSOLE_DBUS_SESSION"), QStringLiteral("/Sessions/5"));
        inKonsole.insert(QStringLiteral("KONSOLE_DBUS_WINDOW"), QStringLiteral("/Windows/2"));
        QCOMPARE(
            run(kBin + QStringLiteral("/skeldrin-hook"), {}, inKonsole, payload(QStringLiteral("in-konsole")))
                .exitCode,
            0);

        // The stand-in answers from this event loop, so the jump runs alongside it.
        QProcess jumping;
        jumping.setProcessEnvironment(env);
        jumping.start(kBin + QStringLiteral("/skeldrin"),
                      {QStringLiteral("jump"), QStringLiteral("in-konsole")});
        QTRY_VERIFY_WITH_TIMEOUT(jumping.state() == QProcess::NotRunning, kTimeoutMs);
        QCOMPARE(jumping.readAllStandardError(), QByteArray());
        QCOMPARE(jumping.exitCode(), 0);
        QCOMPARE(window.shown, 5);
        QDBusConnection::disconnectFromBus(QStringLiteral("konsole-stand-in"));
    }

    void badPlacesAreErrorsNotCommands()
    {
        standIn(QStringLiteral("kitty"));
        recordWith(QStringLiteral("hostile"),
                   {{QStringLiteral("KITTY_WINDOW_ID"), QStringLiteral("7 --all")}});
        recordWith(QStringLiteral("no-remote"), {{QStringLiteral("KITTY_WINDOW_ID"), QStringLiteral("3")}});
        recordWith(QStringLiteral("nowhere"), {});
        const Outcome hostile = jump(QStringLiteral("hostile"), environment());
        QCOMPARE(hostile.exitCode, 1);
        QCOMPARE(hostile.err,
                 QStringLiteral("skeldrin: This session recorded an unexpected kitty window: 7 --all"));
        QVERIFY(argumentsSeenBy(QStringLiteral("kitty")).isEmpty());

        QFile::remove(path(QStringLiteral("bin/kitty")));
        QProcessEnvironment bare = environment();
        bare.insert(QStringLiteral("PATH"), path(QStringLiteral("bin"))); // no kitty even if the machine has one
        const Outcome missing = jump(QStringLiteral("no-remote"), bare);
        QCOMPARE(missing.exitCode, 1);
        QVERIFY2(missing.err.contains(QStringLiteral("Couldn't run kitty")), qPrintable(missing.err));

        const Outcome nowhere = jump(QStringLiteral("nowhere"), environment());
        QCOMPARE(nowhere.exitCode, 1);
        QCOMPARE(nowhere.err,
                 QStringLiteral(
                     "skeldrin: This session didn't say where it was started, so there's nothing to open."));
        QCOMPARE(jump(QStringLiteral("never-seen"), environment()).exitCode, 1);
    }

    void x11TerminalWindowsComeForwardEvenWhenMinimized()
    {
        for (const char* tool : {"Xvfb", "openbox", "xterm", "xdotool"})
            if (QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty())
                QSKIP(qPrintable(QStringLiteral("%1 is not installed").arg(QLatin1String(tool))));
        QProcessEnvironment env = environment();
        QProcess* server =
            startBackground(QStringLiteral("Xvfb"),
                            {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"),
                             QStringLiteral("0"), QStringLiteral("1024x768x24"), QStringLiteral("-nolisten"),
                             QStringLiteral("tcp")},
                            env);
        QByteArray number;
        QDeadlineTimer deadline(kTimeoutMs);
        while (!number.contains('\n') && !deadline.hasExpired()) {
            server->waitForReadyRead(100);
            number += server->readAllStandardOutput();
        }
        QVERIFY2(number.contains('\n'), "Xvfb did not start");
        env.insert(QStringLiteral("DISPLAY"), QStringLiteral(":") + QString::fromLatin1(number.trimmed()));
        startBackground(QStringLiteral("openbox"), {}, env);
        auto xdotool = [&](const QStringList& arguments) {
            return run(QStringLiteral("xdotool"), arguments, env);
        };
        auto activeTitle = [&] {
            return xdotool({QStringLiteral("getactivewindow"), QStringLiteral("getwindowname")}).out;
        };
        auto waitForTitle = [&](const QString& title) {
            QDeadlineTimer until(kTimeoutMs);
            while (!until.hasExpired() && activeTitle() != title)
                QThread::msleep(50);
            return activeTitle();
        };
        // Made active by xdotool, retried: a window just mapped may not be managed yet.
        auto bringForward = [&](const QString& title) {
            QDeadlineTimer until(kTimeoutMs);
            while (!until.hasExpired() && activeTitle() != title) {
                const QStringList windows =
                    xdotool({QStringLiteral("search"), QStringLiteral("--onlyvisible"),
                             QStringLiteral("--name"), QLatin1Char('^') + title + QLatin1Char('$')})
                        .out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
                for (const QString& window : windows)
                    xdotool({QStringLiteral("windowactivate"), window});
                QThread::msleep(100);
            }
            return activeTitle();
        };
        // The window manager is ready once it has announced itself on the root window.
        QDeadlineTimer managed(kTimeoutMs);
        while (!managed.hasExpired() &&
               !run(QStringLiteral("xprop"),
                    {QStringLiteral("-root"), QStringLiteral("_NET_SUPPORTING_WM_CHECK")}, env)
                    .out.contains(QLatin1String("window id")))
            QThread::msleep(50);
        startBackground(QStringLiteral("xterm"),
                        {QStringLiteral("-title"), QStringLiteral("hooked"), QStringLiteral("-e"),
                         QStringLiteral("sh"), QStringLiteral("-c"), hookLine(QStringLiteral("in-xterm"))},
                        env);
        QVERIFY(waitForSession(QStringLiteral("in-xterm")));
        startBackground(QStringLiteral("xterm"),
                        {QStringLiteral("-title"), QStringLiteral("other"), QStringLiteral("-e"),
                         QStringLiteral("sleep"), QStringLiteral("600")},
                        env);
        QCOMPARE(bringForward(QStringLiteral("other")), QStringLiteral("other"));

        QCOMPARE(jump(QStringLiteral("in-xterm"), env).err, QString());
        QCOMPARE(waitForTitle(QStringLiteral("hooked")), QStringLiteral("hooked"));

        const QString hooked = xdotool({QStringLiteral("getactivewindow")}).out;
        xdotool({QStringLiteral("windowminimize"), QStringLiteral("--sync"), hooked});
        QCOMPARE(waitForTitle(QStringLiteral("other")), QStringLiteral("other"));
        QCOMPARE(jump(QStringLiteral("in-xterm"), env).exitCode, 0);
        QCOMPARE(waitForTitle(QStringLiteral("hooked")), QStringLiteral("hooked"));

        // A tmux pane: the terminal showing the attached client comes forward too.
        const QString socket = path(QStringLiteral("tmux.sock"));
        QCOMPARE(
            run(QStringLiteral("tmux"),
                {QStringLiteral("-S"), socket, QStringLiteral("-f"), QStringLiteral("/dev/null"),
                 QStringLiteral("new-session"), QStringLiteral("-d"), hookLine(QStringLiteral("in-tmux"))},
                env)
                .exitCode,
            0);
        QVERIFY(waitForSession(QStringLiteral("in-tmux")));
        startBackground(QStringLiteral("xterm"),
                        {QStringLiteral("-title"), QStringLiteral("tmuxed"), QStringLiteral("-e"),
                         QStringLiteral("tmux"), QStringLiteral("-S"), socket, QStringLiteral("attach")},
                        env);
        QCOMPARE(bringForward(QStringLiteral("tmuxed")), QStringLiteral("tmuxed"));
        QCOMPARE(bringForward(QStringLiteral("other")), QStringLiteral("other"));
        QCOMPARE(jump(QStringLiteral("in-tmux"), env).err, QString());
        QCOMPARE(waitForTitle(QStringLiteral("tmuxed")), QStringLiteral("tmuxed"));
        run(QStringLiteral("tmux"), {QStringLiteral("-S"), socket, QStringLiteral("kill-server")}, env);
    }
};

QTEST_GUILESS_MAIN(JumpLinuxTests)
#include "JumpLinuxTests.moc"
