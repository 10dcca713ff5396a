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
#include <QDBusPendingCallWatcher>
#include <QFile>
#include <QLoggingCategory>
#include <QProcess>
#include <QTimer>

#include <functional>
#include <utility>

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

std::exception_ptr failure(const QString& text)
{
    return std::make_exception_ptr(std::runtime_error(text.toStdString()));
}

// One jump under way. Its programs run one after another, each started when the one before has ended,
// so the GUI thread never waits on a program; a program that hangs is killed after a moment.
class Job : public QObject {
  public:
    using Then = std::function<void(const Result&)>;

    Job(Jumper::Done done, QObject* parent)
        : QObject(parent)
        , done_(std::move(done))
    {
    }

    // Runs command, then hands its result to then, a step of the job.
    void run(const std::vector<std::string>& command, const QString& missingHint, Then then,
             const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment())
    {
        auto* process = new QProcess(this);
        auto* limit = new QTimer(process);
        limit->setSingleShot(true);
        const QString program = QString::fromStdString(command.front());
        QStringList arguments;
        for (std::size_t i = 1; i < command.size(); ++i)
            arguments << QString::fromStdString(command[i]);
        connect(limit, &QTimer::timeout, process, &QProcess::kill);
        connect(process, &QProcess::errorOccurred, this,
                [this, process, program, missingHint](QProcess::ProcessError error) {
                    // Other errors end in finished, which reports them.
                    if (error != QProcess::FailedToStart) return;
                    process->deleteLater();
                    finish(failure(QStringLiteral("Couldn't run %1: %2").arg(program, missingHint)));
                });
        connect(process, &QProcess::finished, this,
                [this, process, limit, program, then = std::move(then)](int exitCode,
                                                                        QProcess::ExitStatus status) {
                    process->deleteLater();
                    if (!limit->isActive())
                        return finish(failure(QStringLiteral("%1 didn't answer in time.").arg(program)));
                    limit->stop();
                    const Result result{status == QProcess::NormalExit ? exitCode : -1,
                                        QString::fromLocal8Bit(process->readAllStandardOutput()).trimmed(),
                                        QString::fromLocal8Bit(process->readAllStandardError()).trimmed()};
                    step([&] { then(result); });
                });
        process->setProcessEnvironment(environment);
        process->start(program, arguments);
        limit->start(commandTimeoutMs);
    }

    // Does work now; what it throws ends the job with that error.
    void step(const std::function<void()>& work)
    {
        try {
            work();
        } catch (...) {
            finish(std::current_exception());
        }
    }

    void finish(std::exception_ptr error = nullptr)
    {
        if (!done_) return;
        const Jumper::Done done = std::exchange(done_, nullptr);
        deleteLater();
        done(error);
    }

  private:
    Jumper::Done done_;
};

void succeed(const Result& result, const QString& what)
{
    if (result.exitCode == 0) return;
    // The last line says why; kitty, for one, prints a whole Python traceback before it.
    const QString why = result.errors.section(QLatin1Char('\n'), -1).trimmed();
    throw std::runtime_error((why.isEmpty() ? what : QStringLiteral("%1 (%2)").arg(what, why)).toStdString());
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

// The terminal showing an attached client of the pane's session comes forward with it.
void raiseTmuxClient(Job& job, const TmuxPane& target)
{
    if (!x11::available()) return job.finish();
    job.run({"tmux", "-S", target.socket, "list-clients", "-t", target.pane, "-F", "#{client_pid}"},
            QStringLiteral("install tmux."), [&job](const Result& clients) {
                for (const QString& line : clients.output.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
                    bool ok = false;
                    const int pid = line.toInt(&ok);
                    if (!ok) continue;
                    if (const auto window = windowOfProcess(pid)) {
                        raiseQuietly(window);
                        break;
                    }
                }
                job.finish();
            });
}

void jumpTo(Job& job, const TmuxPane& target)
{
    const auto commands = tmuxCommands(target);
    const QString hint = QStringLiteral("install tmux.");
    const QString gone = QStringLiteral("tmux couldn't show pane %1; has it been closed?")
                             .arg(QString::fromStdString(target.pane));
    job.run(commands[0], hint, [&job, target, commands, hint, gone](const Result& window) {
        succeed(window, gone);
        job.run(commands[1], hint, [&job, target, commands, hint, gone](const Result& pane) {
            succeed(pane, gone);
            // Only a client that is attached can be switched; a detached session still has its pane selected.
            job.run(commands[2], hint, [&job, target](const Result&) { raiseTmuxClient(job, target); });
        });
    });
}

void jumpTo(Job& job, const KittyWindow& target)
{
    const QString refused =
        QStringLiteral("kitty didn't focus its window %1. Turn on remote control in kitty.conf "
                       "(allow_remote_control yes, and listen_on unix:/tmp/kitty) and restart kitty.")
            .arg(QString::fromStdString(target.id));
    job.run(kittyCommand(target), QStringLiteral("install kitty's command, or put it on PATH."),
            [&job, refused](const Result& result) {
                succeed(result, refused);
                job.finish();
            });
}

void jumpTo(Job& job, const WeztermPane& target)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (target.socket)
        environment.insert(QStringLiteral("WEZTERM_UNIX_SOCKET"), QString::fromStdString(*target.socket));
    const QString gone = QStringLiteral("WezTerm couldn't show pane %1; has it been closed?")
                             .arg(QString::fromStdString(target.pane));
    job.run(
        weztermCommand(target), QStringLiteral("install WezTerm's command, or put it on PATH."),
        [&job, gone](const Result& result) {
            succeed(result, gone);
            job.finish();
        },
        environment);
}

void jumpTo(Job& job, const KonsoleSession& target)
{
    const auto raise = [&job, target] {
        if (x11::available()) raiseQuietly(target.x11Window);
        job.finish();
    };
    if (!target.window) return raise();
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        throw std::runtime_error("Konsole can't be reached: there is no D-Bus session bus.");
    QDBusMessage call = QDBusMessage::createMethodCall(
        QString::fromStdString(target.service), QStringLiteral("/Windows/%1").arg(*target.window),
        QStringLiteral("org.kde.konsole.Window"), QStringLiteral("setCurrentSession"));
    call << target.session;
    auto* reply = new QDBusPendingCallWatcher(bus.asyncCall(call, commandTimeoutMs), &job);
    QObject::connect(
        reply, &QDBusPendingCallWatcher::finished, &job, [&job, raise](QDBusPendingCallWatcher* done) {
            done->deleteLater();
            if (done->isError())
                return job.finish(failure(
                    QStringLiteral("Konsole couldn't show this session; has its tab been closed? (%1)")
                        .arg(done->error().message())));
            raise();
        });
}

void jumpTo(Job& job, const EditorFolder& target)
{
    const QString program = QString::fromStdString(target.executable);
    if (!QProcess::startDetached(program, {QString::fromStdString(target.folder)}))
        throw std::runtime_error(
            QStringLiteral("Couldn't run %1: install the editor's command line "
                           "(in the editor: \"Shell Command: Install '%1' command in PATH\").")
                .arg(program)
                .toStdString());
    job.finish();
    if (!target.url) return;
    // The editor needs a moment to show the folder before it can take the link.
    beginDeferredJump();
    QTimer::singleShot(deepLinkDelayMs, [url = QString::fromStdString(*target.url)] {
        if (!QProcess::startDetached(QStringLiteral("xdg-open"), {url}))
            qCWarning(lcJumpLinux, "opening %s failed: xdg-open could not be run", qUtf8Printable(url));
        endDeferredJump();
    });
}

void jumpTo(Job& job, const X11Window& target, const Session& session)
{
    if (target.window) {
        x11::activate(*target.window);
        return job.finish();
    }
    // Without a display the process's window cannot be looked for: the place is simply unknown.
    if (!x11::available()) throw JumpError::unknownOrigin();
    if (!session.process || !ProcessInspector::isAlive(*session.process))
        throw std::runtime_error("This session's process has ended, so there is no window to bring forward.");
    const auto window = x11::windowOfProcesses(lineage(session.process->pid));
    if (!window) throw JumpError::unknownOrigin();
    x11::activate(*window);
    job.finish();
}

class LinuxJumper final : public Jumper {
  public:
    void start(const Session& session, Done done) override
    {
        auto* job = new Job(std::move(done), &jobs_);
        job->step([&] {
            const std::optional<Target> target = resolve(session);
            if (!target) throw JumpError::unknownOrigin();
            std::visit(
                [&](const auto& place) {
                    using Place = std::decay_t<decltype(place)>;
                    if constexpr (std::is_same_v<Place, X11Window>)
                        jumpTo(*job, place, session);
                    else
                        jumpTo(*job, place);
                },
                *target);
        });
    }

  private:
    // Parent of the jobs under way: they end with the jumper.
    QObject jobs_;
};

} // namespace

std::unique_ptr<Jumper> makeSystemJumper()
{
    return std::make_unique<LinuxJumper>();
}

} // namespace skeldrin
