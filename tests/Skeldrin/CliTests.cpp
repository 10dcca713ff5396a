// The command line end to end: the real skeldrin-hook writes sessions into a temporary home, the real
// skeldrin reads them back. The table for people is also checked in process, for colour and width.
#include "Skeldrin/cli/Cli.h"
#include "TrackerCore/Text.h"
#include "tests/Skeldrin/AppFixture.h"
#include "tests/support/TestProcesses.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QtTest>

#include <csignal>
#include <memory>

using namespace skeldrin;
using namespace skeldrin::test;

namespace {

const QString kSkeldrin = QStringLiteral(SKELDRIN_BIN_DIR "/skeldrin");
const QString kHook = QStringLiteral(SKELDRIN_BIN_DIR "/skeldrin-hook");
constexpr int kTimeoutMs = 30000;

QByteArray payload(const QString& name, const QString& id, const QString& extra = {})
{
    return QStringLiteral(R"({"hook_event_name":"%1","session_id":"%2","cwd":"/work/alpha"%3})")
        .arg(name, id, extra)
        .toUtf8();
}

// The row's fields, "field=value|field=value", with null as "null".
void compareFields(const QJsonObject& status, const QString& id, const QString& fields)
{
    QJsonObject row;
    for (const auto value : status["sessions"].toArray())
        if (value.toObject()["id"] == id) row = value.toObject();
    for (const QString& expected : fields.split('|')) {
        const QString field = expected.section('=', 0, 0);
        const QString seen = row[field].isNull() ? "null" : row[field].toString();
        QCOMPARE(id + ": " + field + '=' + seen, id + ": " + expected);
    }
}

} // namespace

class CliTests : public QObject {
    Q_OBJECT

    std::unique_ptr<TempHome> home_;

    QString path(const QString& relative) const { return home_->path(relative); }
    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = bareEnvironment(*home_, "/usr/bin:/bin");
        env.insert("TERM_PROGRAM", "iTerm.app");
        return env;
    }

    Ran skeldrin(const QStringList& arguments) const
    {
        return runToEnd(kSkeldrin, arguments, environment(), {}, kTimeoutMs);
    }
    void hook(const QByteArray& input) const
    {
        const Ran ran = runToEnd(kHook, {}, environment(), input, kTimeoutMs);
        QCOMPARE(ran.exitCode, 0);
        QCOMPARE(ran.err, QByteArray());
    }
    QJsonObject statusJson() const
    {
        const Ran ran = skeldrin({"status", "--json"});
        return ran.exitCode == 0 ? QJsonDocument::fromJson(ran.out).object() : QJsonObject();
    }
    QString settingsFile() const { return path(".claude/settings.json"); }

  private Q_SLOTS:
    void init() { home_ = std::make_unique<TempHome>(); }

    void statusShowsWhatTheHookWrote()
    {
        QVERIFY(skeldrin({"status"}).out.startsWith("No sessions.\n"));
        hook(payload("UserPromptSubmit", "main-run", R"(,"prompt":"fix the build")"));
        hook(payload("SessionStart", "main-wait", R"(,"session_title":"Deploy")"));
        hook(payload("PermissionRequest", "main-wait",
                     R"(,"tool_name":"Bash","tool_input":{"command":"ls"})"));

        QJsonObject status = statusJson();
        QCOMPARE(status["mostUrgent"].toString(), "waiting");
        compareFields(
            status, "main-run",
            "role=main|shade=running|name=alpha|app=iTerm|place=iTerm|lastPrompt=fix the build|endedAt=null");
        compareFields(status, "main-wait", "shade=waiting|name=Deploy|lastPrompt=null");

        // A second approval in the same turn; an ended session named by its headline once the setting is on.
        hook(payload("PermissionRequest", "main-wait",
                     R"(,"tool_name":"Bash","tool_input":{"command":"rm -r build"})"));
        Session s("titled", "claude", "/work/gamma", Origin{}, std::nullopt, SystemClock().now());
        s.headline = "Fix login";
        s.headlinePrompt = s.lastPrompt = "make login work";
        s.endedAt = parseIso8601("2025-02-03T04:05:06.789Z");
        SessionStore(path("data/Skeldrin/sessions").toStdString())
            .update(s.id, [&](const std::optional<Session>&) { return s; });
        home_->setSetting("headlines.enabled", true);
        status = statusJson();
        QCOMPARE(status["mostUrgent"].toString(), "multiStepWaiting");
        compareFields(status, "main-wait", "shade=multiStepWaiting");
        compareFields(status, "titled", "name=Fix login|app=Terminal|endedAt=2025-02-03T04:05:06.789Z");

        // The same list for people, with no colour into a pipe.
        const QString out = QString::fromUtf8(skeldrin({"status"}).out);
        const QRegularExpression shape(
            "^3 sessions · most urgent: Needs several approvals · Claude Code isn't "
            "connected.*\nRunning .*fix the build\n.*\nEnded +Fix login",
            QRegularExpression::DotMatchesEverythingOption);
        QVERIFY2(shape.match(out).hasMatch() && !out.contains('\x1b'), qPrintable(out));
    }

    void tableFitsTheTerminalAndColoursOnlyTheStatusWord()
    {
        AppFixture app;
        const Date now = SystemClock().now();
        app.put("p", [&](Session& s) {
            s.changedAt = now - std::chrono::minutes(5);
            s.title = "Parent title";
            s.phase = Phase::running;
            s.lastPrompt = "please refactor the whole parser so that it reads lines lazily and stops early";
        });
        app.put("c", [&](Session& s) {
            s.changedAt = now - std::chrono::minutes(4);
            s.title = "Child\x1b]0;evil\x07";
            s.parentId = "p";
            s.lastPrompt = "short";
        });
        app.put("d", [&](Session& s) { s.origin.entrypoint = "sdk-ts"; });

        const QString colored = QString::fromStdString(cli::statusTable(*app.model, now, {true, 60}));
        const QStringList lines = QString(colored).remove(QRegularExpression("\x1b\\[[0-9;]*m")).split('\n');
        for (const QString& line : lines.mid(1))
            QVERIFY2(text::characterCount(line.toStdString()) <= 60, qPrintable(line));
        QVERIFY(colored.contains("\x1b[34mRunning\x1b[0m ") && !colored.contains('\x07'));
        QVERIFY(lines[2].endsWith("…") && lines[2].contains("5m"));
        QCOMPARE(lines[2].indexOf("Parent title") + 2, lines[3].indexOf("Child"));
        QCOMPARE(lines[2].indexOf("Terminal"), lines[3].indexOf("Run by Parent title"));

        const QString plain =
            QString::fromStdString(cli::statusTable(*app.model, now, {false, std::nullopt}));
        QVERIFY(plain.contains("stops early") && plain.contains("Background job"));

        const auto ago = [&](int seconds) {
            return QString::fromStdString(cli::elapsed(now - std::chrono::seconds(seconds), now));
        };
        QCOMPARE(QStringList({ago(59), ago(60), ago(3600), ago(86400 * 2 + 5)}),
                 QStringList({"now", "1m", "1h", "2d"}));
    }

    void transcriptHelpVersionAndUsageErrors()
    {
        const Ran tail = skeldrin({"transcript", SKELDRIN_FIXTURES "/cli/transcript.jsonl", "--json"});
        QCOMPARE(tail.exitCode, 0);
        // Long expired by now, and still listed: the reader's result as it is.
        QCOMPARE(
            QJsonDocument::fromJson(tail.out).toJson(QJsonDocument::Compact),
            R"({"interruptedAt":"2025-03-01T10:05:00.250Z","runningBackgroundTasks":[{"expiresAt":)"
            R"("2025-03-01T10:05:00.000Z","id":"toolu_bg1","startedAt":"2025-03-01T10:00:00.000Z","title":)"
            R"("npm run dev"},{"expiresAt":null,"id":"toolu_mon","startedAt":"2025-03-01T10:02:00.500Z",)"
            R"("title":"Watch the deploy"}],"title":"Release checklist"})");

        const Ran missing = skeldrin({"transcript", path("none.jsonl")});
        QCOMPARE(missing.exitCode, 1);
        QVERIFY(missing.out.isEmpty() && missing.err.contains("none.jsonl"));

        QVERIFY(skeldrin({"--help"}).out.contains("Usage: skeldrin")); // with no arguments it is the app
        QCOMPARE(skeldrin({"--version"}).out, "skeldrin " SKELDRIN_VERSION "\n");
        for (const QStringList& wrong : {QStringList{"frobnicate"}, QStringList{"transcript"},
                                         QStringList{"hooks", "--json"}, QStringList{"status", "extra"}}) {
            const Ran ran = skeldrin(wrong);
            QCOMPARE(ran.exitCode, 2);
            QVERIFY(ran.out.isEmpty() && ran.err.contains("Usage: skeldrin"));
        }
    }

    void connectAndDisconnectEditOnlyTheirOwnHooks()
    {
        // A settings file it cannot read is left alone, with nothing beside it.
        const QByteArray array = "[\"not\", \"an object\"]\n";
        QVERIFY(writeBytes(settingsFile(), array));
        QVERIFY(skeldrin({"connect"}).err.startsWith("Couldn't update Claude Code settings: "));
        QCOMPARE(readBytes(settingsFile()), array);
        QCOMPARE(QDir(path(".claude")).entryList(QDir::Files), QStringList{"settings.json"});

        QVERIFY(writeBytes(settingsFile(), R"({"model":"opus","hooks":{"Stop":[{"hooks":[{"type":"command",)"
                                           R"("command":"notify-send done"}]}]}})"));
        const auto settings = [&] {
            return QJsonValue(QJsonDocument::fromJson(readBytes(settingsFile())).object());
        };
        QVERIFY(skeldrin({"connect"}).out.contains(settingsFile().toUtf8()));
        QCOMPARE(skeldrin({"hooks"}).out, "installed\n");
        QCOMPARE(settings()["model"].toString(), "opus");
        QCOMPARE(settings()["hooks"]["Stop"][1]["hooks"][0]["command"].toString(),
                 "'" + QFileInfo(kHook).canonicalFilePath() + "'");

        QCOMPARE(skeldrin({"disconnect"}).exitCode, 0);
        QCOMPARE(skeldrin({"hooks"}).out, "notInstalled\n");
        QVERIFY(!QJsonDocument(settings().toObject()).toJson().contains("skeldrin-hook"));
        QCOMPARE(settings()["hooks"]["Stop"][0]["hooks"][0]["command"].toString(), "notify-send done");
    }

    void watchRedrawsOnChangeAndStopsOnInterrupt()
    {
        QProcess watch;
        watch.setProcessEnvironment(environment());
        watch.start(kSkeldrin, {"watch"});
        QVERIFY(watch.waitForStarted(kTimeoutMs));
        QByteArray seen;
        const auto shows = [&](const char* wanted) {
            return QTest::qWaitFor([&] { return (seen += watch.readAllStandardOutput()).contains(wanted); },
                                   kTimeoutMs);
        };
        QVERIFY2(shows("No sessions."), seen.constData());
        hook(payload("SessionStart", "watched", R"(,"session_title":"Watched title")"));
        QVERIFY2(shows("Watched title"), seen.constData());

        ::kill(static_cast<pid_t>(watch.processId()), SIGINT);
        QVERIFY(watch.waitForFinished(kTimeoutMs));
        QCOMPARE(watch.exitStatus(), QProcess::NormalExit);
        QCOMPARE(watch.exitCode(), 0);
    }
};

QTEST_GUILESS_MAIN(CliTests)
#include "CliTests.moc"
