#include "Skeldrin/model/Headliner.h"

#include "Skeldrin/platform/Platform.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QMetaObject>
#include <QObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTextBoundaryFinder>
#include <QTimer>

#include <utility>

namespace skeldrin {

namespace {

Q_LOGGING_CATEGORY(lcHeadliner, "app.skeldrin.headliner")

// How long a child asked to terminate after its timeout gets before it is killed.
constexpr std::chrono::milliseconds kTerminateGrace = std::chrono::seconds(2);

constexpr int kMaxCharacters = 48;

const QString kSystemPrompt = QStringLiteral(
    "You name coding sessions for a tiny status widget. Reply with only a headline of 2 to 5 words in "
    "sentence case that says what the work is about now, judged mostly by the latest prompt. If the latest "
    "prompt just continues the same work (like \"ok do it\", \"yes\" or \"continue\"), reply with the previous "
    "headline exactly, word for word. No quotes, no trailing period.");

// Quoting and markdown leftovers models like to wrap a one-line answer in.
const QString kWrappers = QStringLiteral("\"'`\u201C\u201D\u2018\u2019*#");

bool isLineBreak(QChar c)
{
    const char16_t u = c.unicode();
    return (u >= 0x0A && u <= 0x0D) || u == 0x85 || u == 0x2028 || u == 0x2029;
}

QStringList nonEmptyLines(const QString& text)
{
    QStringList lines;
    qsizetype start = 0;
    for (qsizetype i = 0; i <= text.size(); ++i) {
        if (i == text.size() || isLineBreak(text.at(i))) {
            if (i > start) lines.append(text.mid(start, i - start));
            start = i + 1;
        }
    }
    return lines;
}

// A regular file (after following links) that we may execute; directories with the x bit do not count.
bool isExecutableFile(const QString& path)
{
    if (path.isEmpty()) return false;
    const QFileInfo info(path);
    return info.isFile() && info.isExecutable();
}

// The first `characters` user-perceived characters, or nullopt when the text is not longer than that.
std::optional<QString> characterPrefixIfLonger(const QString& text, int characters)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype end = 0;
    for (int counted = 0; counted < characters; ++counted) {
        end = finder.toNextBoundary();
        if (end < 0 || end >= text.size()) return std::nullopt;
    }
    return text.left(end);
}

template <typename Result>
void deliverLater(QObject* context, std::function<void(Result)> done, Result result)
{
    // Queued on the context: dropped by Qt if the context is gone before the event loop gets to it.
    QMetaObject::invokeMethod(
        context, [done = std::move(done), result = std::move(result)]() mutable { done(std::move(result)); },
        Qt::QueuedConnection);
}

struct Reply {
    bool isError = false;
    std::optional<QString> result;
};

std::optional<Reply> decodeReply(const QByteArray& output)
{
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(output, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) return std::nullopt;
    const QJsonObject object = document.object();
    const QJsonValue isError = object.value(QLatin1String("is_error"));
    if (!isError.isBool()) return std::nullopt;
    Reply reply;
    reply.isError = isError.toBool();
    const QJsonValue result = object.value(QLatin1String("result"));
    if (result.isString()) {
        reply.result = result.toString();
    } else if (!result.isUndefined() && !result.isNull()) {
        return std::nullopt;
    }
    return reply;
}

Headliner::Outcome outcomeOf(const Headliner::RunResult& run)
{
    using Failure = Headliner::Failure;
    if (run.launchError) return Failure{Failure::Kind::launchFailed, *run.launchError};
    const std::optional<Reply> reply = decodeReply(run.output);
    if (!reply) {
        // A stopped or crashed child leaves partial output; its status says more than the bytes do.
        return Failure{Failure::Kind::claudeFailed, run.exitStatus == 0
                                                        ? QStringLiteral("unexpected output")
                                                        : QStringLiteral("exit status %1").arg(run.exitStatus)};
    }
    if (!reply->isError) {
        if (std::optional<QString> headline = Headliner::tidy(reply->result)) return *std::move(headline);
    }
    return Failure{Failure::Kind::claudeFailed, reply->result.value_or(QStringLiteral("no reply"))};
}

// One child process. Owned by the caller's context, so it goes when the context goes.
class ChildRun final : public QObject {
public:
    ChildRun(QObject* context, std::function<void(Headliner::RunResult)> done)
        : QObject(context), context_(context), done_(std::move(done))
    {
    }

    ~ChildRun() override
    {
        if (process_ == nullptr || process_->state() == QProcess::NotRunning) return;
        // The context is going away: nobody wants the result, but the child must not outlive us, and
        // waiting for it here would block the caller's thread. Reap it from the event loop instead.
        process_->disconnect(this);
        process_->setParent(nullptr);
        QObject::connect(process_, &QProcess::finished, process_, &QObject::deleteLater);
        process_->kill();
    }

    ChildRun(const ChildRun&) = delete;
    ChildRun& operator=(const ChildRun&) = delete;

    void start(const QString& executable, const QStringList& arguments, std::chrono::milliseconds timeout)
    {
        process_ = new QProcess(this);
        process_->setProgram(executable);
        process_->setArguments(arguments);
        process_->setWorkingDirectory(QDir::tempPath());

        // The child finds its own helpers first, as it would when started from its install folder.
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        const QString inherited = environment.value(QStringLiteral("PATH"));
        const QString directory = QFileInfo(executable).absolutePath();
        environment.insert(QStringLiteral("PATH"),
                           inherited.isEmpty() ? directory : directory + QLatin1Char(':') + inherited);
        process_->setProcessEnvironment(environment);
        process_->setStandardInputFile(QProcess::nullDevice());
        process_->setStandardErrorFile(QProcess::nullDevice());

        // Read as it arrives so a chatty child never stalls on a full pipe.
        connect(process_, &QProcess::readyReadStandardOutput, this,
                [this] { output_ += process_->readAllStandardOutput(); });
        connect(process_, &QProcess::finished, this, [this](int exitCode, QProcess::ExitStatus exitStatus) {
            output_ += process_->readAllStandardOutput();
            // On a crash Qt reports the signal number as the exit code.
            const int status = exitStatus == QProcess::NormalExit ? exitCode : 128 + exitCode;
            finish(Headliner::RunResult{std::move(output_), status, std::nullopt});
        });
        connect(process_, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
            // Other errors are followed by `finished`.
            if (error == QProcess::FailedToStart)
                finish(Headliner::RunResult{{}, 0, process_->errorString()});
        });

        deadline_.setSingleShot(true);
        deadline_.setInterval(timeout);
        connect(&deadline_, &QTimer::timeout, this, [this] {
            qCWarning(lcHeadliner, "%s did not finish in %lld ms; stopping it", qUtf8Printable(process_->program()),
                      static_cast<long long>(deadline_.intervalAsDuration().count()));
            process_->terminate();
            grace_.start();
        });
        grace_.setSingleShot(true);
        grace_.setInterval(kTerminateGrace);
        connect(&grace_, &QTimer::timeout, this, [this] { process_->kill(); });

        process_->start(QIODevice::ReadOnly);
        if (!finished_) deadline_.start();
    }

private:
    void finish(Headliner::RunResult result)
    {
        if (finished_) return;
        finished_ = true;
        deadline_.stop();
        grace_.stop();
        deliverLater(context_, std::move(done_), std::move(result));
        deleteLater();
    }

    QObject* context_;
    std::function<void(Headliner::RunResult)> done_;
    QProcess* process_ = nullptr;
    QByteArray output_;
    QTimer deadline_;
    QTimer grace_;
    bool finished_ = false;
};

} // namespace

QString Headliner::Failure::description() const
{
    switch (kind) {
    case Kind::claudeNotFound:
        return QStringLiteral("Couldn't find Claude Code on ") + platform::thisMachine() + QLatin1Char('.');
    case Kind::claudeFailed:
        return QStringLiteral("Claude Code couldn't write a headline: ") + text;
    case Kind::launchFailed:
        return text;
    }
    return text;
}

QStringList Headliner::installedPaths()
{
    const QString home = QDir::homePath();
    return {
        home + QStringLiteral("/.local/bin/claude"),
        home + QStringLiteral("/.claude/local/claude"),
        QStringLiteral("/opt/homebrew/bin/claude"),
        QStringLiteral("/usr/local/bin/claude"),
    };
}

QString Headliner::message(const Request& request)
{
    QStringList lines{QStringLiteral("Project folder: ") + request.project};
    if (request.title) lines.append(QStringLiteral("Current title: ") + *request.title);
    if (request.previous) lines.append(QStringLiteral("Previous headline: ") + *request.previous);
    lines.append(QStringLiteral("Latest prompt: ") + request.prompt);
    return lines.join(QLatin1Char('\n'));
}

std::optional<QString> Headliner::tidy(const std::optional<QString>& reply)
{
    const QStringList lines = nonEmptyLines(reply.value_or(QString()).trimmed());
    QString text = lines.isEmpty() ? QString() : lines.first();

    const auto isWrapper = [](QChar c) { return c.isSpace() || kWrappers.contains(c); };
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && isWrapper(text.at(begin))) ++begin;
    while (end > begin && isWrapper(text.at(end - 1))) --end;
    text = text.mid(begin, end - begin);

    while (text.endsWith(QLatin1Char('.'))) text.chop(1);

    if (std::optional<QString> prefix = characterPrefixIfLonger(text, kMaxCharacters)) {
        const qsizetype space = prefix->lastIndexOf(QLatin1Char(' '));
        text = space >= 0 ? prefix->left(space) : *prefix;
    }

    if (text.isEmpty()) return std::nullopt;
    return text;
}

QStringList Headliner::arguments(const QString& message)
{
    return {
        QStringLiteral("-p"),
        message,
        QStringLiteral("--safe-mode"),
        QStringLiteral("--model"),
        QStringLiteral("haiku"),
        QStringLiteral("--max-turns"),
        QStringLiteral("1"),
        QStringLiteral("--tools"),
        QString(QLatin1String("")), // no tools at all
        QStringLiteral("--no-session-persistence"),
        QStringLiteral("--output-format"),
        QStringLiteral("json"),
        QStringLiteral("--system-prompt"),
        kSystemPrompt,
    };
}

void Headliner::run(const QString& executable, const QStringList& arguments, QObject* context,
                    std::function<void(RunResult)> done, std::chrono::milliseconds timeout)
{
    auto* child = new ChildRun(context, std::move(done));
    child->start(executable, arguments, timeout);
}

void Headliner::locateClaude(const QStringList& running, const QStringList& installed, const QString& shell,
                             QObject* context, std::function<void(std::optional<QString>)> done)
{
    for (const QString& path : installed) {
        if (isExecutableFile(path)) {
            deliverLater<std::optional<QString>>(context, std::move(done), path);
            return;
        }
    }
    // A login shell sees the PATH the user set up for terminals, which the app did not inherit.
    const QStringList shellArguments{QStringLiteral("-l"), QStringLiteral("-c"), QStringLiteral("command -v claude")};
    run(shell, shellArguments, context, [running, done = std::move(done)](RunResult result) {
        if (!result.launchError && result.exitStatus == 0) {
            const QStringList lines = nonEmptyLines(QString::fromUtf8(result.output));
            if (!lines.isEmpty() && isExecutableFile(lines.last())) {
                done(lines.last());
                return;
            }
        }
        for (const QString& executable : running) {
            if (QFileInfo(executable).fileName() == QLatin1String("claude") && isExecutableFile(executable)) {
                done(executable);
                return;
            }
        }
        done(std::nullopt);
    });
}

void Headliner::write(const Request& request, const QStringList& running, QObject* context,
                      std::function<void(Outcome)> done, std::chrono::milliseconds timeout)
{
    locateClaude(running, installedPaths(), userShell(), context,
                 [text = message(request), context, done = std::move(done), timeout](std::optional<QString> claude) {
                     if (!claude) {
                         done(Failure{Failure::Kind::claudeNotFound, {}});
                         return;
                     }
                     run(*claude, arguments(text), context,
                         [done](RunResult result) { done(outcomeOf(result)); }, timeout);
                 });
}

QString Headliner::userShell()
{
    if (!qEnvironmentVariableIsSet("SHELL")) return QStringLiteral("/bin/zsh");
    return qEnvironmentVariable("SHELL");
}

} // namespace skeldrin
