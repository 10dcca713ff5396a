#pragma once
// Asks Claude Code, run once as a non-interactive child process, for a short headline of a session.
#include <QByteArray>
#include <QString>
#include <QStringList>

#include <chrono>
#include <functional>
#include <optional>
#include <variant>

class QObject;

namespace skeldrin {

// Stateless. Every asynchronous call runs on the Qt event loop of the calling thread (QProcess signals,
// no extra threads, no blocking waits) and must be made on the thread of `context`. `done` is called
// exactly once, later, on that thread, never inside the call itself; if `context` is destroyed first it
// is never called, and any child process still running is killed and reaped without blocking.
class Headliner {
public:
    struct Request {
        QString project;                 // the project folder's name
        std::optional<QString> title;    // the session's current title
        std::optional<QString> previous; // the session's current headline
        QString prompt;                  // the latest prompt
        bool operator==(const Request&) const = default;
    };

    struct Failure {
        enum class Kind { claudeNotFound, claudeFailed, launchFailed };
        Kind kind;
        // claudeFailed: the text shown after the prefix; launchFailed: the platform's error text.
        QString text;
        QString description() const;
        bool operator==(const Failure&) const = default;
    };

    using Outcome = std::variant<QString, Failure>; // the tidied headline, or why not

    struct RunResult {
        QByteArray output;
        // The exit code; a child ended by a signal reports 128 + the signal number, as shells do.
        int exitStatus = 0;
        std::optional<QString> launchError; // set when the child never started; then the rest is empty
    };

    // The fixed places Claude Code installs itself, most specific first.
    static QStringList installedPaths();

    static QString message(const Request& request);
    static std::optional<QString> tidy(const std::optional<QString>& reply);
    static QStringList arguments(const QString& message);

    // Runs `executable` in the temporary directory with its own directory first on PATH, stdin and
    // stderr on the null device, and collects stdout. A child still running after `timeout` is asked
    // to terminate and killed if it does not go.
    static void run(const QString& executable, const QStringList& arguments, QObject* context,
                    std::function<void(RunResult)> done,
                    std::chrono::milliseconds timeout = std::chrono::seconds(60));

    // The installed paths first, then the login shell's `command -v claude`, then the executables of
    // running Claude Code processes named "claude".
    static void locateClaude(const QStringList& running, const QStringList& installed, const QString& shell,
                             QObject* context, std::function<void(std::optional<QString>)> done);

    // `timeout` bounds the headline request itself; the shell lookup keeps the default.
    static void write(const Request& request, const QStringList& running, QObject* context,
                      std::function<void(Outcome)> done,
                      std::chrono::milliseconds timeout = std::chrono::seconds(60));

    // $SHELL, or "/bin/zsh" when it is not set.
    static QString userShell();
};

} // namespace skeldrin
