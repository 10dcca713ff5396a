#include "Skeldrin/model/SessionsModel.h"
#include "TrackerCore/Files.h"
#include "TrackerCore/ProcessInspector.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>
#include <csignal>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

using namespace skeldrin;
namespace fs = std::filesystem;
using namespace std::chrono;

namespace {

Date realNow() { return time_point_cast<microseconds>(system_clock::now()); }

class TestClock : public Clock {
public:
    Date now() const override { return realNow() + offset; }
    microseconds offset{0};
};

class TestProcesses : public ProcessTable {
public:
    bool isAlive(const ProcessRef& p) const override { return alive.count(p.pid) && alive.at(p.pid) == p.startTime; }
    std::optional<std::string> executablePath(std::int32_t pid) const override
    {
        if (!alive.count(pid)) return std::nullopt;
        return "/opt/claude/" + std::to_string(pid) + "/claude";
    }
    std::map<std::int32_t, double> alive;
};

class TestJumper : public ImmediateJumper {
public:
    void jump(const Session& s) override
    {
        jumped.push_back(s.id);
        if (failWith) throw std::runtime_error(*failWith);
    }
    std::vector<std::string> jumped;
    std::optional<std::string> failWith;
};

class TestAlerts : public Alerts {
public:
    void showError(const QString& title, const QString& text) override { shown << title + " | " + text; }
    QStringList shown;
};

struct PendingHeadline {
    Headliner::Request request;
    std::function<void(Headliner::Outcome)> done;
};

} // namespace

class SessionsModelTests : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> temp;
    fs::path sessionsDir, claudeSettings;
    std::unique_ptr<SessionStore> store;
    TestClock clock;
    TestProcesses processes;
    TestJumper jumper;
    TestAlerts alerts;
    std::unique_ptr<AppSettings> settings;
    std::vector<PendingHeadline> headlineRequests;
    std::optional<QString> locatedClaude;

    std::unique_ptr<SessionsModel> makeModel(bool headlines = false)
    {
        SessionsModel::Dependencies deps;
        deps.clock = &clock;
        deps.processes = &processes;
        deps.jumper = &jumper;
        deps.alerts = &alerts;
        deps.settings = settings.get();
        deps.hookExecutable = fs::path(temp->path().toStdString()) / "app/skeldrin-hook";
        deps.claudeSettings = claudeSettings;
        deps.cycleMilliseconds = 3600 * 1000; // tests drive the cycle themselves
        if (headlines) {
            deps.headlineWriter = [this](const Headliner::Request& r, const QStringList&, QObject*,
                                         std::function<void(Headliner::Outcome)> done) {
                headlineRequests.push_back({r, std::move(done)});
            };
            deps.claudeLocator = [this](const QStringList&, QObject*, std::function<void(std::optional<QString>)> d) {
                d(locatedClaude);
            };
        }
        return std::make_unique<SessionsModel>(*store, std::move(deps));
    }

    Date base; // one instant per test, so that equal ages mean equal start times

    Session put(const std::string& id, int startedSecondsAgo, std::function<void(Session&)> edit = {})
    {
        Session s(id, "claude", "/work/" + id, {}, std::nullopt, base - seconds(startedSecondsAgo));
        if (edit) edit(s);
        store->update(id, [&](const auto&) { return std::optional(s); });
        return *store->loadAll().sessions.begin();
    }
    std::optional<Session> read(const std::string& id)
    {
        const auto bytes = files::readWholeFile(sessionsDir / (id + ".json"));
        if (!bytes) return std::nullopt;
        return decodeSession(*bytes);
    }
    fs::path writeTranscript(const std::string& name, const std::string& content)
    {
        const auto path = fs::path(temp->path().toStdString()) / name;
        std::ofstream(path) << content;
        return path;
    }
    static std::string ids(const std::vector<ListedSession>& rows)
    {
        std::string out;
        for (const auto& r : rows) out += (out.empty() ? "" : " ") + r.id();
        return out;
    }

private Q_SLOTS:
    void init()
    {
        temp = std::make_unique<QTemporaryDir>();
        sessionsDir = fs::path(temp->path().toStdString()) / "sessions";
        claudeSettings = fs::path(temp->path().toStdString()) / "claude/settings.json";
        store = std::make_unique<SessionStore>(sessionsDir);
        clock.offset = microseconds{0};
        processes.alive.clear();
        jumper = TestJumper{};
        alerts.shown.clear();
        settings = std::make_unique<AppSettings>(temp->filePath("settings.ini"));
        base = realNow();
        headlineRequests.clear();
        locatedClaude = QStringLiteral("/usr/bin/claude");
    }

    void reloadSortsAndPublishesOnlyChanges()
    {
        put("b", 10);
        put("a", 10);
        put("c", 20);
        auto model = makeModel();
        QSignalSpy changed(model.get(), &SessionsModel::storedChanged);
        model->reload();
        QCOMPARE(changed.count(), 1);
        std::string order;
        for (const auto& s : model->stored()) order += s.id;
        QCOMPARE(order, std::string("cab")); // oldest first, equal starts by id

        // Rewriting a file with the same content changes nothing.
        const auto same = *read("a");
        std::ofstream(sessionsDir / "a.json") << encodeSession(same);
        model->reload();
        QCOMPARE(changed.count(), 1);

        std::ofstream(sessionsDir / "broken.json") << "{ not json";
        put("d", 1);
        model->reload();
        QCOMPARE(changed.count(), 2);
        QCOMPARE(model->stored().size(), std::size_t(4));

        // Later, when every file has settled, reloads that find nothing new keep the list as it is.
        clock.offset = minutes(5);
        model->reload();
        model->reload();
        model->refreshCycle();
        QCOMPARE(model->stored().size(), std::size_t(4));
        QCOMPARE(changed.count(), 2);
    }

    void watchReloadsAndSurvivesTheDirectoryGoing()
    {
        put("a", 5);
        auto model = makeModel();
        model->start();
        QCOMPARE(model->stored().size(), std::size_t(1));

        put("b", 4); // seen through the directory watch, not the (hour-long) timer
        QTRY_COMPARE(model->stored().size(), std::size_t(2));

        fs::remove_all(sessionsDir);
        model->refreshCycle();
        QCOMPARE(model->stored().size(), std::size_t(2)); // the last list stays

        put("c", 3); // the hook recreates the directory
        model->refreshCycle();
        QCOMPARE(model->stored().size(), std::size_t(1));
        put("d", 2); // and the watch is back
        QTRY_COMPARE(model->stored().size(), std::size_t(2));
    }

    void transcriptsGiveTitlesRunsAndInterrupts()
    {
        const std::string started = formatIso8601(realNow() - seconds(30));
        const std::string older = formatIso8601(realNow() - hours(5));
        const auto transcript = writeTranscript(
            "t.jsonl",
            R"({"type":"custom-title","customTitle":"Ship it"})" "\n"
            R"({"type":"assistant","timestamp":")" + older +
                R"(","message":{"content":[{"type":"tool_use","id":"old","name":"Bash","input":{"command":"sleep 1","run_in_background":true}}]}})" "\n"
            R"({"type":"assistant","timestamp":")" + started +
                R"(","message":{"content":[{"type":"tool_use","id":"t1","name":"Bash","input":{"command":"npm run dev","run_in_background":true}}]}})" "\n"
            R"({"type":"user","message":{"content":[{"type":"tool_result","tool_use_id":"t1","content":"Command running in background with ID: b1. timeout 600000ms"}]}})" "\n");
        put("s", 60, [&](Session& s) {
            s.transcriptPath = transcript.string();
            s.process = ProcessRef{77, secondsSince1970(realNow() - hours(1))};
        });
        processes.alive[77] = read("s")->process->startTime;
        auto model = makeModel();
        model->reload();
        model->readTranscripts();
        QCOMPARE(model->transcriptTitles().at("s"), std::string("Ship it"));
        const auto& tasks = model->backgroundTasks().at("s");
        QCOMPARE(tasks.size(), std::size_t(1)); // the task from before this process started is not shown
        QCOMPARE(tasks[0].title, std::string("npm run dev"));

        const auto rows = model->list();
        QCOMPARE(ids(rows), std::string("s task-t1"));
        QVERIFY(rows[0].shade == Shade::waitingOnRuns());
        QCOMPARE(rows[0].runCount, 1);
        QCOMPARE(rows[1].role, ListedSession::Role::child);
        QCOMPARE(model->displayName(rows[0].session), std::string("Ship it"));
        QCOMPARE(*model->parentName(rows[1].session), std::string("Ship it"));

        model->toggleRuns(rows[0]);
        QCOMPARE(ids(model->list()), std::string("s"));
        QVERIFY(model->list()[0].runsFolded);

        // The run expires 10 minutes after it started, on a tick, with no file change.
        clock.offset = minutes(11);
        model->refreshCycle();
        QVERIFY(model->backgroundTasks().at("s").empty());
        QVERIFY(model->list()[0].shade == Shade::of(Status::ready));
    }

    void interruptsNewerThanTheLastChangeEndTheTurn()
    {
        const std::string stamp = formatIso8601(realNow() + seconds(5));
        const auto transcript = writeTranscript(
            "i.jsonl", R"({"type":"user","timestamp":")" + stamp +
                           R"(","message":{"content":"[Request interrupted by user for tool use]"}})" "\n");
        put("run", 60, [&](Session& s) {
            s.transcriptPath = transcript.string();
            s.phase = Phase::running;
        });
        put("old", 60, [&](Session& s) {
            s.transcriptPath = transcript.string();
            s.phase = Phase::running;
            s.changedAt = realNow() + seconds(10); // changed after the interrupt
        });
        auto model = makeModel();
        model->reload();
        model->readTranscripts();
        QCOMPARE(read("run")->status(), Status::ready);
        QCOMPARE(read("run")->changedAt, *parseIso8601(stamp));
        QCOMPARE(read("old")->status(), Status::running);
    }

    void unchangedTranscriptsAreNotReadAgain()
    {
        const auto transcript = writeTranscript("u.jsonl", R"({"type":"ai-title","aiTitle":"First"})" "\n");
        const auto old = fs::last_write_time(transcript) - hours(1);
        fs::last_write_time(transcript, old);
        put("s", 60, [&](Session& s) { s.transcriptPath = transcript.string(); });
        auto model = makeModel();
        model->reload();
        model->readTranscripts();
        QCOMPARE(model->transcriptTitles().at("s"), std::string("First"));

        std::ofstream(transcript) << R"({"type":"ai-title","aiTitle":"Second"})" "\n";
        fs::last_write_time(transcript, old); // same time: taken as unchanged
        model->readTranscripts();
        QCOMPARE(model->transcriptTitles().at("s"), std::string("First"));
        fs::last_write_time(transcript, old + minutes(1));
        model->readTranscripts();
        QCOMPARE(model->transcriptTitles().at("s"), std::string("Second"));

        fs::remove(transcript); // a vanished transcript keeps what was known
        model->readTranscripts();
        QCOMPARE(model->transcriptTitles().at("s"), std::string("Second"));
    }

    void deadProcessesEndOrRemoveTheirSessions()
    {
        put("cli", 30, [](Session& s) { s.process = ProcessRef{10, 1.0}; });
        put("vscode", 20, [](Session& s) {
            s.process = ProcessRef{11, 1.0};
            s.origin.entrypoint = "claude-vscode";
            s.phase = Phase::running;
        });
        put("alive", 10, [](Session& s) { s.process = ProcessRef{12, 2.0}; });
        put("noprocess", 5);
        processes.alive[12] = 2.0;
        processes.alive[10] = 1.5; // the pid now belongs to another process
        auto model = makeModel();
        model->reload();
        model->refreshCycle();
        QVERIFY(!read("cli"));
        const auto ended = read("vscode");
        QVERIFY(ended && ended->endedAt && !ended->process);
        QCOMPARE(ended->phase, Phase::idle);
        QVERIFY(read("alive") && read("noprocess"));
        QCOMPARE(model->stored().size(), std::size_t(3));
        QCOMPARE(model->runningClaudes(), QStringList{"/opt/claude/12/claude"});
    }

    void jumpingMarksSeenOrDeletesAndReportsFailures()
    {
        put("ready", 30);
        put("waiting", 20, [](Session& s) { s.pendingApprovals = 1; });
        put("ended", 10, [](Session& s) { s.endedAt = realNow(); });
        auto model = makeModel();
        model->reload();
        const auto rows = model->list();
        for (const auto& row : rows) model->jump(row);
        QVERIFY(read("ready")->seenAt);
        QVERIFY(!read("waiting")->seenAt);
        QVERIFY(!read("ended"));
        QCOMPARE(jumper.jumped.size(), std::size_t(3));
        QVERIFY(model->list()[0].seen());
        QCOMPARE(model->mostUrgent(), std::optional(Status::waiting));

        jumper.failWith = "The app that started this session (com.x) isn't installed.";
        put("other", 5, [](Session& s) { s.title = "Other work"; });
        model->reload();
        model->jump(model->list().back());
        QCOMPARE(alerts.shown,
                 QStringList{"Couldn't open Other work | The app that started this session (com.x) isn't installed."});
        QVERIFY(!read("other")->seenAt);
    }

    void dismissingHidesLiveSessionsAndDeletesEndedOnes()
    {
        put("live", 20);
        put("ended", 10, [](Session& s) { s.endedAt = realNow(); });
        auto model = makeModel();
        model->reload();
        model->dismiss(*read("live"));
        model->dismiss(*read("ended"));
        QVERIFY(read("live")->dismissedAt);
        QVERIFY(!read("ended"));
        QVERIFY(model->list().empty());
        QCOMPARE(model->mostUrgent(), std::optional<Status>());

        fs::create_directories(sessionsDir / "odd.json"); // cannot be read as a file
        Session odd("odd", "claude", "/w/odd", {}, std::nullopt, realNow());
        model->dismiss(odd);
        QCOMPARE(alerts.shown.size(), 1);
        QVERIFY(alerts.shown[0].startsWith("Couldn't remove odd | "));
    }

    void mostUrgentSumsUpMainRows()
    {
        put("run", 30, [](Session& s) { s.phase = Phase::running; });
        put("wait", 20, [](Session& s) { s.pendingApprovals = 1; });
        put("kid", 10, [](Session& s) {
            s.parentId = "run";
            s.pendingApprovals = 2;
        });
        auto model = makeModel();
        model->reload();
        QCOMPARE(model->mostUrgent(), std::optional(Status::waiting)); // children never count

        store->remove("wait");
        store->remove("kid");
        store->update("run", [](const std::optional<Session>& s) {
            Session n = *s;
            n.phase = Phase::idle;
            n.seenAt = realNow();
            return std::optional(n);
        });
        model->reload();
        QCOMPARE(model->mostUrgent(), std::optional(Status::ready));
    }

    void connectingAndDisconnectingClaudeCode()
    {
        fs::create_directories(claudeSettings.parent_path());
        std::ofstream(claudeSettings) << R"({"model":"opus","hooks":{"Stop":[{"hooks":[{"type":"command","command":"say done"}]}]}})";
        auto model = makeModel();
        QSignalSpy changed(model.get(), &SessionsModel::hookStateChanged);
        model->refreshHookState();
        QCOMPARE(model->hookState(), HookInstaller::State::notInstalled);
        model->connectClaudeCode();
        QCOMPARE(model->hookState(), HookInstaller::State::installed);
        QCOMPARE(changed.count(), 1);
        const std::string written = files::readWholeFile(claudeSettings).value();
        QVERIFY(written.find("app/skeldrin-hook'") != std::string::npos);
        QVERIFY(written.find("say done") != std::string::npos);
        model->disconnectClaudeCode();
        QCOMPARE(model->hookState(), HookInstaller::State::notInstalled);
        QVERIFY(files::readWholeFile(claudeSettings).value().find("skeldrin-hook") == std::string::npos);
        QVERIFY(alerts.shown.isEmpty());

        std::ofstream(claudeSettings) << "[1, 2]";
        model->connectClaudeCode();
        QCOMPARE(alerts.shown.size(), 1);
        QVERIFY(alerts.shown[0].startsWith("Couldn't update Claude Code settings | "));
        QCOMPARE(files::readWholeFile(claudeSettings).value(), std::string("[1, 2]"));
        QCOMPARE(model->hookState(), HookInstaller::State::notInstalled);
    }

    void headlinesRunTwoAtATimeAndRememberFailures()
    {
        for (const char* id : {"h1", "h2", "h3"})
            put(id, 30, [](Session& s) { s.lastPrompt = "make the parser faster please"; });
        auto model = makeModel(true);
        model->setHeadlinesEnabled(true);
        QVERIFY(settings->boolValue("headlines.enabled", false));
        model->reload();
        QCOMPARE(headlineRequests.size(), std::size_t(2));
        QCOMPARE(headlineRequests[0].request.project, QStringLiteral("h1"));
        QCOMPARE(headlineRequests[0].request.prompt, QStringLiteral("make the parser faster please"));

        headlineRequests[0].done(QStringLiteral("Faster parser"));
        QCOMPARE(read("h1")->headline, std::optional<std::string>("Faster parser"));
        QCOMPARE(read("h1")->headlinePrompt, read("h1")->lastPrompt);
        headlineRequests[1].done(Headliner::Failure{Headliner::Failure::Kind::claudeFailed, "exit status 2"});
        QCOMPARE(*model->headlineError(), QStringLiteral("Claude Code couldn't write a headline: exit status 2"));
        model->reload(); // h1's new headline: the third request starts, the failed one is not retried
        QCOMPARE(headlineRequests.size(), std::size_t(3));
        QCOMPARE(headlineRequests[2].request.project, QStringLiteral("h3"));
        QCOMPARE(model->displayName(*read("h1")), std::string("Faster parser"));

        // A short follow-up keeps the headline; a longer prompt replaces it.
        store->update("h1", [](const std::optional<Session>& s) {
            Session n = *s;
            n.lastPrompt = "yes";
            return std::optional(n);
        });
        model->reload();
        QCOMPARE(headlineRequests.size(), std::size_t(3));
        store->update("h1", [](const std::optional<Session>& s) {
            Session n = *s;
            n.lastPrompt = "now add the json output";
            return std::optional(n);
        });
        model->reload();
        QCOMPARE(headlineRequests.size(), std::size_t(4));
        QCOMPARE(*headlineRequests[3].request.previous, QStringLiteral("Faster parser"));

        // Switching off and on forgets the failure.
        model->setHeadlinesEnabled(false);
        QVERIFY(!model->headlineError());
        QCOMPARE(model->displayName(*read("h1")), std::string("h1"));
        headlineRequests[2].done(QStringLiteral("Third"));
        headlineRequests[3].done(QStringLiteral("Json output"));
        model->setHeadlinesEnabled(true);
        QCOMPARE(headlineRequests.back().request.project, QStringLiteral("h2"));
    }

    void systemProcessTableFollowsARealProcess()
    {
        const auto table = makeSystemProcessTable();
        const pid_t child = fork();
        if (child == 0) {
            pause();
            _exit(0);
        }
        const auto ref = ProcessInspector::ref(child);
        QVERIFY(ref);
        QVERIFY(table->isAlive(*ref));
        QVERIFY(table->isAlive(*ref)); // now answered by its pidfd
        QVERIFY(!table->isAlive(ProcessRef{ref->pid, ref->startTime + 1})); // same pid, another process
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        QVERIFY(!table->isAlive(*ref));
        QVERIFY(!table->isAlive(*ref));
    }

    void missingClaudeIsReportedWhenHeadlinesAreOn()
    {
        locatedClaude.reset();
        auto model = makeModel(true);
        model->setHeadlinesEnabled(true);
        QCOMPARE(model->headlineError()->toStdString().rfind("Couldn't find Claude Code on ", 0), 0u);
    }
};

QTEST_GUILESS_MAIN(SessionsModelTests)
#include "SessionsModelTests.moc"
