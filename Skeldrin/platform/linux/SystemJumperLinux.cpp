// Linux: the terminal multiplexer or terminal is asked to show the session's pane, then its window is
// raised through the X11 window manager. Every value was checked by linux_jump::resolve; programs get
// argument lists, never a shell.
#include "Skeldrin/platform/JumpScripts.h"
#include "Skeldrin/platform/SystemJumper.h"
#include "Skeldrin/platform/linux/X11Windows.h"
#include "TrackerCore/LinuxJumpTarget.h"
#include "TrackerCore/ProcessInspector.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QFile>
#include <QLoggingCategory>
#include <QProcess>
#include <QTimer>

Q_LOGGING_CATEGORY(lcJumpLinux, "app.skeldrin.jump")

namespace skeldrin {
namespace {

using namespace linux_jump;

constexpr int commandTimeoutMs = 2000;
constexpr int deepLinkDelayMs = 600;

struct Result {
    int exitCode = -1;
    QString output;
    QString errors;
};

// Runs a command to its end, at most a moment; throws when it cannot be started or does not finish.
Result run(const std::vector<std::string>& command, const QString& missingHint,
           const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    QStringList arguments;
    for (std::size_t i = 1; i < command.size(); ++i)
        arguments << QString::fromStdString(command[i]);
    const QString program = QString::fromStdString(command.front());
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    if (!process.waitForStarted(commandTimeoutMs))
        throw std::runtime_error(
            QStringLiteral("Couldn't run %1: %2").arg(program, missingHint).toStdString());
    if (!process.waitForFinished(commandTimeoutMs)) {
        process.kill();
        process.waitForFinished(commandTimeoutMs);
        throw std::runtime_error(QStringLiteral("%1 didn't answer in time.").arg(program).toStdString());
    }
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromLocal8Bit(process.readAllStandardOutput()).trimmed(),
            QString::fromLocal8Bit(process.readAllStandardError()).trimmed()};
}

void succeed(const Result& result, const QString& what)
{
    if (result.exitCode != 0)
        throw std::runtime_error(
            (result.errors.isEmpty() ? what : QStringLiteral("%1 (%2)").arg(what, result.errors))
                .toStdString());
}

// The process and its ancestors, nearest first.
std::vector<std::int32_t> lineage(std::int32_t pid)
{
    std::vector<std::int32_t> pids;
    for (int depth = 0; depth < 64 && pid > 1; ++depth) {
        pids.push_back(pid);
        const auto record = ProcessInspector::lookup(pid);
        if (!record) break;
        pid = record->parentPid;
    }
    return pids;
}

// The window a process shows in: $WINDOWID it was started with, else the nearest ancestor's window.
std::optional<std::uint32_t> windowOfProcess(std::int32_t pid)
{
    if (const auto environment = ProcessInspector::startingEnvironment(pid)) {
        if (const auto it = environment->find("WINDOWID"); it != environment->end()) {
            bool ok = false;
            const uint id = QString::fromStdString(it->second).toUInt(&ok);
            if (ok && id != 0) return id;
        }
    }
    return x11::windowOfProcesses(lineage(pid));
}

// Raising the window is the second half of a jump that has already worked; without X11 it is skipped.
void raiseQuietly(const std::optional<std::uint32_t>& window)
{
    if (!window) return;
    try {
        x11::activate(*window);
    } catch (const std::exception& error) {
        qCWarning(lcJumpLinux, "raising window %u: %s", *window, error.what());
    }
}

void jumpTo(const TmuxPane& target)
{
    const auto commands = tmuxCommands(target);
    const QString pane = QString::fromStdString(target.pane);
    for (std::size_t i = 0; i < 2; ++i)
        succeed(run(commands[i], QStringLiteral("install tmux.")),
                QStringLiteral("tmux couldn't show pane %1; has it been closed?").arg(pane));
    // Only a client that is attached can be switched; a detached session still has its pane selected.
    run(commands[2], QStringLiteral("install tmux."));
    if (!x11::available()) return;
    const Result clients =
        run({"tmux", "-S", target.socket, "list-clients", "-t", target.pane, "-F", "#{client_pid}"},
            QStringLiteral("install tmux."));
    for (const QString& line : clients.output.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        bool ok = false;
        const int pid = line.toInt(&ok);
        if (!ok) continue;
        if (const auto window = windowOfProcess(pid)) return raiseQuietly(window);
    }
}

void jumpTo(const KittyWindow& target)
{
    succeed(run(kittyCommand(target), QStringLiteral("install kitty's command, or put it on PATH.")),
            QStringLiteral("kitty didn't focus its window %1. Turn on remote control in kitty.conf "
                           "(allow_remote_control yes, and listen_on unix:/tmp/kitty) and restart kitty.")
                .arg(QString::fromStdString(target.id)));
}

void jumpTo(const WeztermPane& target)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (target.socket)
        environment.insert(QStringLiteral("WEZTERM_UNIX_SOCKET"), QString::fromStdString(*target.socket));
    succeed(run(weztermCommand(target), QStringLiteral("install WezTerm's command, or put it on PATH."),
                environment),
            QStringLiteral("WezTerm couldn't show pane %1; has it been closed?")
                .arg(QString::fromStdString(target.pane)));
}

void jumpTo(const KonsoleSession& target)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        throw std::runtime_error("Konsole can't be reached: there is no D-Bus session bus.");
    if (target.window) {
        QDBusMessage call = QDBusMessage::createMethodCall(
            QString::fromStdString(target.service), QStringLiteral("/Windows/%1").arg(*target.window),
            QStringLiteral("org.kde.konsole.Window"), QStringLiteral("setCurrentSession"));
        call << target.session;
        const QDBusMessage reply = bus.call(call, QDBus::Block, commandTimeoutMs);
        if (reply.type() == QDBusMessage::ErrorMessage)
            throw std::runtime_error(
                QStringLiteral("Konsole couldn't show this session; has its tab been closed? (%1)")
                    .arg(reply.errorMessage())
                    .toStdString());
    }
    if (x11::available()) raiseQuietly(target.x11Window);
}

void jumpTo(const EditorFolder& target)
{
    const QString program = QString::fromStdString(target.executable);
    if (!QProcess::startDetached(program, {QString::fromStdString(target.folder)}))
        throw std::runtime_error(
            QStringLiteral("Couldn't run %1: install the editor's command line "
                           "(in the editor: \"Shell Command: Install '%1' command in PATH\").")
                .arg(program)
                .toStdString());
    if (!target.url) return;
    // The editor needs a moment to show the folder before it can take the link.
    beginDeferredJump();
    QTimer::singleShot(deepLinkDelayMs, [url = QString::fromStdString(*target.url)] {
        if (!QProcess::startDetached(QStringLiteral("xdg-open"), {url}))
            qCWarning(lcJumpLinux, "opening %s failed: xdg-open could not be run", qUtf8Printable(url));
        endDeferredJump();
    });
}

void jumpTo(const X11Window& target, const Session& session)
{
    if (target.window) return x11::activate(*target.window);
    // Without a display the process's window cannot be looked for: the place is simply unknown.
    if (!x11::available()) throw JumpError::unknownOrigin();
    if (!session.process || !ProcessInspector::isAlive(*session.process))
        throw std::runtime_error("This session's process has ended, so there is no window to bring forward.");
    const auto window = x11::windowOfProcesses(lineage(session.process->pid));
    if (!window) throw JumpError::unknownOrigin();
    x11::activate(*window);
}

class LinuxJumper final : public Jumper {
  public:
    void jump(const Session& session) override
    {
        const std::optional<Target> target = resolve(session);
        if (!target) throw JumpError::unknownOrigin();
        std::visit(
            [&](const auto& place) {
                using Place = std::decay_t<decltype(place)>;
                if constexpr (std::is_same_v<Place, X11Window>)
                    jumpTo(place, session);
                else
                    jumpTo(place);
            },
            *target);
    }
};

} // namespace

std::unique_ptr<Jumper> makeSystemJumper()
{
    return std::make_unique<LinuxJumper>();
}

} // namespace skeldrin
