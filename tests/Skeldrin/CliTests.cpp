// The command line end to end: the real skeldrin-hook writes sessions into a temporary home, the real
// skeldrin reads them back. The table for people is also checked in process, where colour and terminal
// width can be chosen.
#include "Skeldrin/cli/Cli.h"
#include "Skeldrin/cli/Watch.h"
#include "TrackerCore/HookInstaller.h"
#include "TrackerCore/Text.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <memory>

using namespace skeldrin;

namespace {

const QString kBin = QStringLiteral(SKELDRIN_BIN_DIR);
const QString kSkeldrin = kBin + QStringLiteral("/skeldrin");
const QString kHook = kBin + QStringLiteral("/skeldrin-hook");
constexpr int kTimeoutMs = 30000;

struct Outcome {
    int exitCode = -1;
    QByteArray out, err;
};

QByteArray payload(const QString& name, const QString& id, const QString& extra = {})
{
    return QStringLiteral(R"({"hook_event_name":"%1","session_id":"%2","cwd":"/work/alpha"%3})")
        .arg(name, id, extra)
        .toUtf8();
}

QJsonObject rowOf(const QJsonObject& status, const QString& id)
{
    for (const auto value : status[QStringLiteral("sessions")].toArray())
        if (value.toObject()[QStringLiteral("id")].toString() == id) return value.toObject();
    return {};
}

QStringList idsOf(const QJsonObject& status)
{
    QStringList ids;
    for (const auto value : status[QStringLiteral("sessions")].toArray())
        ids << value.toObject()[QStringLiteral("id")].toString();
    return ids;
}

QString withoutEscapes(QString text)
{
    static const QRegularExpression escape(QStringLiteral("\x1b\\[[0-9;]*m"));
    return text.remove(escape);
}

} // namespace

class CliTests : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> home_;
    std::vector<std::unique_ptr<QProcess>> standIns_;

    QString path(const QString& relative) const { return home_->filePath(relative); }

    QProcessEnvironment environment() const
    {
        QProcessEnvironment env;
        env.insert(QStringLiteral("HOME"), home_->path());
        env.insert(QStringLiteral("XDG_DATA_HOME"), path(QStringLiteral("data")));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), path(QStringLiteral("config")));
        env.insert(QStringLiteral("PATH"), QStringLiteral("/usr/bin:/bin"));
        env.insert(QStringLiteral("TERM_PROGRAM"), QStringLiteral("iTerm.app"));
        return env;
    }

    // Runs an executable to its end, or gives up after the timeout (exit code -1).
    Outcome run(const QString& program, const QStringList& arguments, const QByteArray& input = {},
                const QProcessEnvironment& env = {}) const
    {
        QProcess process;
        process.setProcessEnvironment(env.isEmpty() ? environment() : env);
        process.start(program, arguments);
        if (!process.waitForStarted(kTimeoutMs)) return {};
        process.write(input);
        process.closeWriteChannel();
        if (!process.waitForFinished(kTimeoutMs)) {
            process.kill();
            process.waitForFinished();
            return {};
        }
        if (process.exitStatus() != QProcess::NormalExit) return {};
        return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
    }

    Outcome skeldrin(const QStringList& arguments) const { return run(kSkeldrin, arguments); }

    void hook(const QByteArray& input, const QProcessEnvironment& env = {}) const
    {
        const Outcome outcome = run(kHook, {}, input, env);
        QCOMPARE(outcome.exitCode, 0);
        QCOMPARE(outcome.err, QByteArray());
    }

    // A stand-in Claude Code process started from inside the given session.
    qint64 standIn(const QString& parentSessionId)
    {
        auto process = std::make_unique<QProcess>();
        QProcessEnvironment env;
        env.insert(QStringLiteral("CLAUDE_CODE_SESSION_ID"), parentSessionId);
        process->setProcessEnvironment(env);
        process->start(QStringLiteral("/bin/sleep"), {QStringLiteral("120")});
        if (!process->waitForStarted(kTimeoutMs)) return 0;
        const qint64 pid = process->processId();
        standIns_.push_back(std::move(process));
        return pid;
    }

    QProcessEnvironment withClaudePid(qint64 pid) const
    {
        QProcessEnvironment env = environment();
        env.insert(QStringLiteral("CLAUDE_PID"), QString::number(pid));
        return env;
    }

    QJsonObject statusJson() const
    {
        const Outcome outcome = skeldrin({QStringLiteral("status"), QStringLiteral("--json")});
        if (outcome.exitCode != 0) return {};
        return QJsonDocument::fromJson(outcome.out).object();
    }

    SessionStore store() const
    {
        return SessionStore(path(QStringLiteral("data/Skeldrin/sessions")).toStdString());
    }

    QString settingsFile() const { return path(QStringLiteral(".claude/settings.json")); }

    static bool waitForOutput(QProcess& process, QByteArray& seen, const QByteArray& wanted)
    {
        const QDeadlineTimer deadline(kTimeoutMs);
        while (!seen.contains(wanted)) {
            if (deadline.hasExpired() || process.state() != QProcess::Running) return false;
            process.waitForReadyRead(static_cast<int>(std::max<qint64>(1, deadline.remainingTime())));
            seen += process.readAllStandardOutput();
        }
        return true;
    }

private Q_SLOTS:
    void init()
    {
        home_ = std::make_unique<QTemporaryDir>();
        QVERIFY(home_->isValid());
    }

    void cleanup()
    {
        for (auto& process : standIns_) {
            process->kill();
            process->waitForFinished();
        }
        standIns_.clear();
        home_.reset();
    }

    void statusListsSessionsWithTheirRolesShadesAndNames()
    {
        hook(payload(QStringLiteral("UserPromptSubmit"), QStringLiteral("main-run"),
                   QStringLiteral(R"(,"prompt":"fix the build")")));
        hook(payload(QStringLiteral("SessionStart"), QStringLiteral("main-wait"),
                   QStringLiteral(R"(,"session_title":"Deploy")")));
        hook(payload(QStringLiteral("PermissionRequest"), QStringLiteral("main-wait"),
                   QStringLiteral(R"(,"tool_name":"Bash","tool_input":{"command":"ls"})")));
        const qint64 childClaude = standIn(QStringLiteral("main-wait"));
        QVERIFY(childClaude > 0);
        hook(payload(QStringLiteral("Stop"), QStringLiteral("child")), withClaudePid(childClaude));

        // A ready session whose transcript shows a background task still running, and its own title.
        const QString transcript = path(QStringLiteral("bg.jsonl"));
        {
            QFile file(transcript);
            QVERIFY(file.open(QIODevice::WriteOnly));
            const QString now = QString::fromStdString(formatIso8601(SystemClock().now()));
            file.write(R"({"type":"custom-title","customTitle":"Ship it"})"
                       "\n");
            file.write(QStringLiteral(R"({"type":"assistant","timestamp":"%1","message":{"content":[)"
                                      R"({"type":"tool_use","id":"toolu_docs","name":"Bash","input":)"
                                      R"({"description":"Build the docs","command":"make docs",)"
                                      R"("run_in_background":true}}]}})")
                           .arg(now)
                           .toUtf8() +
                       "\n");
        }
        hook(payload(QStringLiteral("Stop"), QStringLiteral("bg-parent"),
                   QStringLiteral(R"(,"transcript_path":"%1")").arg(transcript)));
        const qint64 orphanClaude = standIn(QStringLiteral("gone-parent"));
        QVERIFY(orphanClaude > 0);
        hook(payload(QStringLiteral("Stop"), QStringLiteral("orphan")), withClaudePid(orphanClaude));

        QJsonObject status = statusJson();
        QCOMPARE(idsOf(status),
                 (QStringList{"main-run", "main-wait", "child", "bg-parent", "task-toolu_docs", "orphan"}));
        QCOMPARE(status["mostUrgent"].toString(), QStringLiteral("waiting"));

        const QJsonObject run = rowOf(status, "main-run");
        QCOMPARE(run["role"].toString(), QStringLiteral("main"));
        QCOMPARE(run["shade"].toString(), QStringLiteral("running"));
        QCOMPARE(run["name"].toString(), QStringLiteral("alpha"));
        QCOMPARE(run["app"].toString(), QStringLiteral("iTerm"));
        QCOMPARE(run["place"].toString(), QStringLiteral("iTerm"));
        QCOMPARE(run["lastPrompt"].toString(), QStringLiteral("fix the build"));
        QVERIFY(run["endedAt"].isNull());
        QVERIFY(parseIso8601(run["changedAt"].toString().toStdString()));
        QVERIFY(run["changedAt"].toString().endsWith(QLatin1Char('Z')));

        const QJsonObject wait = rowOf(status, "main-wait");
        QCOMPARE(wait["shade"].toString(), QStringLiteral("waiting"));
        QCOMPARE(wait["name"].toString(), QStringLiteral("Deploy"));
        QCOMPARE(wait["runCount"].toInt(), 1);
        QVERIFY(wait["lastPrompt"].isNull());

        const QJsonObject child = rowOf(status, "child");
        QCOMPARE(child["role"].toString(), QStringLiteral("child"));
        QCOMPARE(child["shade"].toString(), QStringLiteral("ready"));
        QCOMPARE(child["seen"].toBool(), false);
        QCOMPARE(child["place"].toString(), QStringLiteral("Run by Deploy"));

        const QJsonObject parent = rowOf(status, "bg-parent");
        QCOMPARE(parent["shade"].toString(), QStringLiteral("waitingOnRuns"));
        QCOMPARE(parent["name"].toString(), QStringLiteral("Ship it"));
        QCOMPARE(parent["runCount"].toInt(), 1);
        QCOMPARE(parent["runsFolded"].toBool(), false);
        const QJsonObject task = rowOf(status, "task-toolu_docs");
        QCOMPARE(task["role"].toString(), QStringLiteral("child"));
        QCOMPARE(task["shade"].toString(), QStringLiteral("running"));
        QCOMPARE(task["name"].toString(), QStringLiteral("Build the docs"));
        QCOMPARE(task["place"].toString(), QStringLiteral("Run by Ship it"));

        const QJsonObject orphan = rowOf(status, "orphan");
        QCOMPARE(orphan["role"].toString(), QStringLiteral("detached"));
        QCOMPARE(orphan["place"].toString(), QStringLiteral("Background job"));

        // A second approval in the same turn.
        hook(payload(QStringLiteral("PermissionRequest"), QStringLiteral("main-wait"),
                   QStringLiteral(R"(,"tool_name":"Bash","tool_input":{"command":"rm -r build"})")));
        status = statusJson();
        QCOMPARE(rowOf(status, "main-wait")["shade"].toString(), QStringLiteral("multiStepWaiting"));
        QCOMPARE(status["mostUrgent"].toString(), QStringLiteral("multiStepWaiting"));

        // The same list for people: words, places, indentation, and no colour into a pipe.
        const Outcome text = skeldrin({QStringLiteral("status")});
        QCOMPARE(text.exitCode, 0);
        const QString out = QString::fromUtf8(text.out);
        QVERIFY2(out.startsWith(QStringLiteral("6 sessions · most urgent: Needs several approvals")),
                 qPrintable(out));
        for (const char* word : {"Running", "Needs several approvals", "Ready", "Waiting on background work",
                                 "Run by Deploy", "Background job", "fix the build"})
            QVERIFY2(out.contains(QLatin1String(word)), word);
        QVERIFY(!out.contains(QLatin1Char('\x1b')));
        const QStringList lines = out.split(QLatin1Char('\n'));
        const auto lineWith = [&](const QString& needle) {
            for (const QString& line : lines)
                if (line.contains(needle)) return line;
            return QString();
        };
        QCOMPARE(lineWith("Run by Deploy").indexOf("Ready"), 0);
        QCOMPARE(lineWith("Deploy").indexOf("Deploy") + 2, lineWith("Run by Deploy").indexOf("alpha"));
    }

    void namesFollowTheHeadlineSettingAndEndedSessionsSaySo()
    {
        const Date now = SystemClock().now();
        Session titled("titled", "claude", "/work/beta", Origin{}, std::nullopt, now);
        titled.title = "Login work";
        titled.headline = "Fix login";
        titled.lastPrompt = "make login work";
        titled.headlinePrompt = titled.lastPrompt;
        titled.seenAt = now;
        const Date later = now + std::chrono::seconds{1};
        Session ended("ended", "claude", "/work/gamma", Origin{}, std::nullopt, later);
        ended.origin.entrypoint = "claude-vscode";
        ended.endedAt = parseIso8601("2025-02-03T04:05:06.789Z");
        ended.seenAt = now;
        for (const Session& session : {titled, ended})
            store().update(session.id, [&](const std::optional<Session>&) { return session; });

        QJsonObject status = statusJson();
        QCOMPARE(idsOf(status), (QStringList{"titled", "ended"}));
        QCOMPARE(status["mostUrgent"].toString(), QStringLiteral("ready"));
        QJsonObject row = rowOf(status, "titled");
        QCOMPARE(row["name"].toString(), QStringLiteral("Login work"));
        QCOMPARE(row["seen"].toBool(), true);
        QCOMPARE(row["app"].toString(), QStringLiteral("Terminal"));
        QCOMPARE(row["changedAt"].toString(), QString::fromStdString(formatIso8601(now)));
        QCOMPARE(rowOf(status, "ended")["endedAt"].toString(), QStringLiteral("2025-02-03T04:05:06.789Z"));
        QCOMPARE(rowOf(status, "ended")["name"].toString(), QStringLiteral("gamma"));

        {
            QSettings settings(path(QStringLiteral("config/Skeldrin/Skeldrin.conf")), QSettings::IniFormat);
            settings.setValue(QStringLiteral("headlines.enabled"), true);
        }
        status = statusJson();
        QCOMPARE(rowOf(status, "titled")["name"].toString(), QStringLiteral("Fix login"));

        const QString out = QString::fromUtf8(skeldrin({QStringLiteral("status")}).out);
        QVERIFY2(out.contains(QRegularExpression(QStringLiteral("\nEnded +gamma"))), qPrintable(out));
        QVERIFY2(out.contains(QStringLiteral("isn't connected")), qPrintable(out));
    }

    void emptyListSaysSo()
    {
        const Outcome outcome = skeldrin({QStringLiteral("status")});
        QCOMPARE(outcome.exitCode, 0);
        QVERIFY(outcome.out.startsWith("No sessions.\n"));
        const QJsonObject status = statusJson();
        QVERIFY(status["mostUrgent"].isNull());
        QVERIFY(status["sessions"].toArray().isEmpty());
    }

    void tableFitsTheTerminalAndColoursOnlyTheStatusWord()
    {
        const Date now = SystemClock().now();
        const auto put = [&](Session session) {
            store().update(session.id, [&](const std::optional<Session>&) { return session; });
        };
        Session parent("p", "claude", "/work/parser", Origin{}, std::nullopt, now - std::chrono::minutes(5));
        parent.title = "Parent title";
        parent.phase = Phase::running;
        parent.lastPrompt = "please refactor the whole parser so that it reads lines lazily and stops early";
        put(parent);
        Session child("c", "claude", "/work/parser", Origin{}, std::nullopt, now - std::chrono::minutes(4));
        child.title = "Child\x1b]0;evil\x07";
        child.parentId = "p";
        child.lastPrompt = "short";
        put(child);

        AppSettings settings(path(QStringLiteral("settings.ini")));
        SessionsModel::Dependencies dependencies;
        dependencies.settings = &settings;
        dependencies.claudeSettings = path(QStringLiteral("claude.json")).toStdString();
        SessionsModel model(store(), dependencies);
        model.reload();

        const std::string colored = cli::statusTable(model, now, {true, 60});
        const QStringList lines = withoutEscapes(QString::fromStdString(colored)).split(QLatin1Char('\n'));
        for (const QString& line : lines.mid(1))
            QVERIFY2(text::characterCount(line.toStdString()) <= 60, qPrintable(line));
        QVERIFY(colored.find("\x1b[34mRunning\x1b[0m ") != std::string::npos);
        QVERIFY(colored.find("\x07") == std::string::npos);
        QVERIFY(lines[2].endsWith(QStringLiteral("…")));
        QVERIFY(lines[2].contains(QStringLiteral("5m")));
        QCOMPARE(lines[2].indexOf("Parent title") + 2, lines[3].indexOf("Child"));
        QCOMPARE(lines[2].indexOf("Terminal"), lines[3].indexOf("Run by Parent title"));

        const std::string plain = cli::statusTable(model, now, {false, std::nullopt});
        QVERIFY(plain.find('\x1b') == std::string::npos);
        QVERIFY(plain.find(*parent.lastPrompt) != std::string::npos);
    }

    void elapsedTimes()
    {
        const Date now = SystemClock().now();
        const auto ago = [&](int seconds) { return cli::elapsed(now - std::chrono::seconds(seconds), now); };
        QCOMPARE(ago(59), std::string("now"));
        QCOMPARE(ago(60), std::string("1m"));
        QCOMPARE(ago(3599), std::string("59m"));
        QCOMPARE(ago(3600), std::string("1h"));
        QCOMPARE(ago(86400 * 2 + 5), std::string("2d"));
    }

    void transcriptReportsWhatTheTailSays()
    {
        const Outcome outcome = skeldrin({QStringLiteral("transcript"),
                                          QStringLiteral(SKELDRIN_FIXTURES "/cli/transcript.jsonl"),
                                          QStringLiteral("--json")});
        QCOMPARE(outcome.exitCode, 0);
        const QJsonObject tail = QJsonDocument::fromJson(outcome.out).object();
        QCOMPARE(tail["title"].toString(), QStringLiteral("Release checklist"));
        QCOMPARE(tail["interruptedAt"].toString(), QStringLiteral("2025-03-01T10:05:00.250Z"));
        const QJsonArray tasks = tail["runningBackgroundTasks"].toArray();
        QCOMPARE(tasks.size(), 2);
        // Long expired by now, and still listed: the reader's result as it is.
        QCOMPARE(tasks[0].toObject(), (QJsonObject{{"id", "toolu_bg1"},
                                                   {"startedAt", "2025-03-01T10:00:00.000Z"},
                                                   {"title", "npm run dev"},
                                                   {"expiresAt", "2025-03-01T10:05:00.000Z"}}));
        QCOMPARE(tasks[1].toObject(), (QJsonObject{{"id", "toolu_mon"},
                                                   {"startedAt", "2025-03-01T10:02:00.500Z"},
                                                   {"title", "Watch the deploy"},
                                                   {"expiresAt", QJsonValue::Null}}));

        const Outcome missing = skeldrin({QStringLiteral("transcript"), path(QStringLiteral("none.jsonl"))});
        QCOMPARE(missing.exitCode, 1);
        QCOMPARE(missing.out, QByteArray());
        QCOMPARE(missing.err.count('\n'), 1);
        QVERIFY(missing.err.contains("none.jsonl"));
    }

    void connectAndDisconnectEditOnlyTheirOwnHooks()
    {
        QVERIFY(QDir().mkpath(path(QStringLiteral(".claude"))));
        {
            QFile file(settingsFile());
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(R"({"model":"opus","hooks":{"Stop":[{"hooks":[{"type":"command",)"
                       R"("command":"notify-send done"}]}]}})");
        }
        QCOMPARE(skeldrin({QStringLiteral("hooks")}).out, QByteArray("notInstalled\n"));

        const Outcome connected = skeldrin({QStringLiteral("connect")});
        QCOMPARE(connected.exitCode, 0);
        QVERIFY(connected.out.contains("installed"));
        QVERIFY(connected.out.contains(settingsFile().toUtf8()));
        QCOMPARE(skeldrin({QStringLiteral("hooks")}).out, QByteArray("installed\n"));

        const auto readSettings = [&] {
            QFile file(settingsFile());
            if (!file.open(QIODevice::ReadOnly)) return QJsonObject();
            return QJsonDocument::fromJson(file.readAll()).object();
        };
        const std::string command =
            HookInstaller::command(QFileInfo(kHook).canonicalFilePath().toStdString());
        QJsonObject settings = readSettings();
        QCOMPARE(settings["model"].toString(), QStringLiteral("opus"));
        QJsonObject hooks = settings["hooks"].toObject();
        QCOMPARE(hooks.size(), 11);
        for (const auto& row : HookInstaller::events()) {
            const QJsonArray groups = hooks[QString::fromUtf8(row.event.data(), row.event.size())].toArray();
            QVERIFY(!groups.isEmpty());
            const QJsonObject entry = groups.last().toObject()["hooks"].toArray().first().toObject();
            QCOMPARE(entry["command"].toString().toStdString(), command);
        }
        QCOMPARE(hooks["Stop"].toArray().size(), 2);

        const Outcome disconnected = skeldrin({QStringLiteral("disconnect")});
        QCOMPARE(disconnected.exitCode, 0);
        QVERIFY(disconnected.out.contains("notInstalled"));
        settings = readSettings();
        hooks = settings["hooks"].toObject();
        QVERIFY(!QJsonDocument(settings).toJson().contains("skeldrin-hook"));
        const QJsonArray kept = hooks["Stop"].toArray().first().toObject()["hooks"].toArray();
        QCOMPARE(kept.first().toObject()["command"].toString(), QStringLiteral("notify-send done"));
        QCOMPARE(skeldrin({QStringLiteral("hooks")}).out, QByteArray("notInstalled\n"));
    }

    void connectLeavesASettingsFileItCannotReadAlone()
    {
        QVERIFY(QDir().mkpath(path(QStringLiteral(".claude"))));
        const QByteArray array = "[\"not\", \"an object\"]\n";
        {
            QFile file(settingsFile());
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(array);
        }
        const Outcome outcome = skeldrin({QStringLiteral("connect")});
        QCOMPARE(outcome.exitCode, 1);
        QVERIFY(outcome.err.startsWith("Couldn't update Claude Code settings: "));
        QFile file(settingsFile());
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), array);
        QCOMPARE(QDir(path(QStringLiteral(".claude"))).entryList(QDir::Files), QStringList{"settings.json"});
    }

    void usage()
    {
        const Outcome help = skeldrin({QStringLiteral("--help")}); // with no arguments it is the app
        QCOMPARE(help.exitCode, 0);
        QVERIFY(help.out.contains("Usage: skeldrin"));
        QCOMPARE(skeldrin({QStringLiteral("--version")}).out, QByteArray("skeldrin " SKELDRIN_VERSION "\n"));
        for (const QStringList& wrong : {QStringList{"frobnicate"}, QStringList{"status", "--verbose"},
                                         QStringList{"transcript"}, QStringList{"hooks", "--json"},
                                         QStringList{"--nope"}, QStringList{"status", "extra"}}) {
            const Outcome outcome = skeldrin(wrong);
            QCOMPARE(outcome.exitCode, 2);
            QCOMPARE(outcome.out, QByteArray());
            QVERIFY(outcome.err.contains("Usage: skeldrin"));
        }
    }

    void watchDrawsOnceForAPassOfChanges()
    {
        AppSettings settings(path(QStringLiteral("settings.ini")));
        SessionsModel::Dependencies dependencies;
        dependencies.settings = &settings;
        dependencies.claudeSettings = path(QStringLiteral("claude.json")).toStdString();
        dependencies.cycleMilliseconds = 3600 * 1000; // only the changes below, no timer cycles
        SessionsModel model(store(), dependencies);

        int drawings = 0;
        const auto render = [&] {
            if (++drawings == 1) {
                QTimer::singleShot(0, &model, [&model] {
                    Q_EMIT model.storedChanged();
                    Q_EMIT model.backgroundTasksChanged();
                    Q_EMIT model.transcriptTitlesChanged();
                });
            } else {
                QTimer::singleShot(0, [] { std::raise(SIGINT); });
            }
            return std::string();
        };
        QCOMPARE(cli::watch(model, render, false), 0);
        QCOMPARE(drawings, 2);
    }

    void watchRedrawsOnChangeAndStopsOnSignals()
    {
        for (const int signal : {SIGINT, SIGTERM}) {
            std::filesystem::remove_all(store().directory()); // each round starts with no sessions
            QProcess watch;
            watch.setProcessEnvironment(environment());
            watch.start(kSkeldrin, {QStringLiteral("watch")});
            QVERIFY(watch.waitForStarted(kTimeoutMs));
            QByteArray seen;
            QVERIFY2(waitForOutput(watch, seen, "No sessions."), seen.constData());

            const QString id = QStringLiteral("watched-%1").arg(signal);
            hook(payload(QStringLiteral("SessionStart"), id,
                         QStringLiteral(R"(,"session_title":"Title %1")").arg(id)));
            QVERIFY2(waitForOutput(watch, seen, "Title " + id.toUtf8()), seen.constData());

            ::kill(static_cast<pid_t>(watch.processId()), signal);
            QVERIFY(watch.waitForFinished(kTimeoutMs));
            QCOMPARE(watch.exitStatus(), QProcess::NormalExit);
            QCOMPARE(watch.exitCode(), 0);
        }
    }
};

QTEST_GUILESS_MAIN(CliTests)
#include "CliTests.moc"
