#include "Skeldrin/model/SessionsModel.h"
#include "Skeldrin/platform/Platform.h"
#include "TrackerCore/Files.h"
#include "TrackerCore/ProcessInspector.h"
#include "tests/Skeldrin/AppFixture.h"

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

Date realNow()
{
    return time_point_cast<microseconds>(system_clock::now());
}

class TestClock : public Clock {
  public:
    Date now() const override { return realNow() + offset; }
    microseconds offset{0};
};

class TestProcesses : public ProcessTable {
  public:
    bool isAlive(const ProcessRef& p) const override
    {
        return alive.count(p.pid) && alive.at(p.pid) == p.startTime;
    }
    std::optional<std::string> executablePath(std::int32_t pid) const override
    {
        if (!alive.count(pid)) return std::nullopt;
        return "/opt/claude/" + std::to_string(pid) + "/claude";
    }
    std::map<std::int32_t, double> alive;
};

class FailingJumper : public test::RecordingJumper {
  public:
    void jump(const Session& s) override
    {
        RecordingJumper::jump(s);
        if (failWith) throw std::runtime_error(*failWith);
    }
    std::optional<std::string> failWith;
};

struct PendingHeadline {
    Headliner::Request request;
    std::function<void(Headliner::Outcome)> done;
};

// A transcript line: a background Bash command started at `at`.
std::string backgroundRun(const std::string& id, Date at, const std::string& command)
{
    return R"({"type":"assistant","timestamp":")" + formatIso8601(at) +
           R"(","message":{"content":[{"type":"tool_use","id":")" + id +
           R"(","name":"Bash","input":{"command":")" + command +
           R"(","run_in_background":true}}]}})"
           "\n";
}

// Everything one test works on, fresh for each test.
struct World {
    QTemporaryDir temp;
    fs::path root = temp.path().toStdString();
    fs::path sessionsDir = root / "sessions", claudeSettings = root / "claude/settings.json";
    SessionStore store{sessionsDir};
    TestClock clock;
    TestProcesses processes;
    FailingJumper jumper;
    test::RecordingAlerts alerts;
    AppSettings settings{temp.filePath("settings.ini")};
    std::vector<PendingHeadline> headlines;
    std::optional<QString> locatedClaude = QStringLiteral("/usr/bin/claude");
    Date base = realNow(); // one instant per test, so that equal ages mean equal start times
};

} // namespace

class SessionsModelTests : public QObject {
    Q_OBJECT

    std::unique_ptr<World> w;

    std::unique_ptr<SessionsModel> makeModel(bool headlines = false)
    {
        SessionsModel::Dependencies deps;
        deps.clock = &w->clock;
        deps.processes = &w->processes;
        deps.jumper = &w->jumper;
        deps.alerts = &w->alerts;
        deps.settings = &w->settings;
        deps.hookExecutable = w->root / "app/skeldrin-hook";
        deps.claudeSettings = w->claudeSettings;
        deps.cycleMilliseconds = 3600 * 1000; // tests drive the cycle themselves
        if (headlines) {
            deps.headlineWriter = [this](const Headliner::Request& r, const QStringList&, QObject*,
                                         auto done) {
                w->headlines.push_back({r, std::move(done)});
            };
            deps.claudeLocator = [this](const QStringList&, QObject*, auto found) {
                found(w->locatedClaude);
            };
        }
        auto model = std::make_unique<SessionsModel>(w->store, std::move(deps));
        model->reload();
        return model;
    }

    void put(const std::string& id, int startedSecondsAgo, const std::function<void(Session&)>& edit = {})
    {
        Session s(id, "claude", "/work/" + id, {}, std::nullopt, w->base - seconds(startedSecondsAgo));
        if (edit) edit(s);
        w->store.update(id, [&](const auto&) { return std::optional(s); });
    }
    void change(const std::string& id, const std::function<void(Session&)>& edit)
    {
        w->store.update(id, [&](std::optional<Session> s) {
            edit(*s);
            return s;
        });
    }
    std::optional<Session> read(const std::string& id)
    {
        const auto bytes = files::readWholeFile(w->sessionsDir / (id + ".json"));
        return bytes ? std::optional(decodeSession(*bytes)) : std::nullopt;
    }
    fs::path writeTranscript(const std::string& content)
    {
        std::ofstream(w->root / "t.jsonl") << content;
        return w->root / "t.jsonl";
    }
    static std::string ids(const std::vector<ListedSession>& rows)
    {
        std::string out;
        for (const auto& r : rows)
            out += (out.empty() ? "" : " ") + r.id();
        return out;
    }

  private Q_SLOTS:
    void init() { w = std::make_unique<World>(); }

    void reloadSortsAndPublishesOnlyChanges()
    {
        put("b", 10);
        put("a", 10);
        put("c", 20);
        auto model = makeModel();
        QSignalSpy changed(model.get(), &SessionsModel::storedChanged);
        std::string order;
        for (const auto& s : model->stored())
            order += s.id;
        QCOMPARE(order, std::string("cab")); // oldest first, equal starts by id

        const std::string same = encodeSession(*read("a")); // the same content again
        std::ofstream(w->sessionsDir / "a.json") << same;
        model->reload();
        QCOMPARE(changed.count(), 0);

        std::ofstream(w->sessionsDir / "broken.json") << "{ not json";
        put("d", 1);
        model->reload();
        QCOMPARE(changed.count(), 1);
        QCOMPARE(model->stored().size(), std::size_t(4));
    }

    void watchReloadsAndSurvivesTheDirectoryGoing()
    {
        put("a", 5);
        auto model = makeModel();
        model->start();
        put("b", 4); // seen through the directory watch, not the (hour-long) timer
        QTRY_COMPARE(model->stored().size(), std::size_t(2));

        fs::remove_all(w->sessionsDir);
        model->refreshCycle();
        QCOMPARE(model->stored().size(), std::size_t(2)); // the last list stays

        put("c", 3); // the hook recreates the directory, and the watch is back
        put("d", 2);
        QTRY_COMPARE(model->stored().size(), std::size_t(2));
    }

    void transcriptsGiveTitlesRunsAndInterrupts()
    {
        const auto transcript = writeTranscript(
            R"({"type":"custom-title","customTitle":"Ship it"})"
            "\n" +
            backgroundRun("old", realNow() - hours(5), "sleep 1") +
            backgroundRun("t1", realNow() - seconds(30), "npm run dev") +
            R"({"type":"user","message":{"content":[{"type":"tool_result","tool_use_id":"t1",)"
            R"("content":"Command running in background with ID: b1. timeout 600000ms"}]}})");
        put("s", 60, [&](Session& s) {
            s.transcriptPath = transcript.string();
            s.process = ProcessRef{77, secondsSince1970(realNow() - hours(1))};
        });
        w->processes.alive[77] = read("s")->process->startTime;
        auto model = makeModel();
        model->readTranscripts();
        QCOMPARE(model->backgroundTasks().at("s").size(),
                 std::size_t(1)); // not the one from before the process

        const auto rows = model->list();
        QCOMPARE(ids(rows), std::string("s task-t1"));
        QVERIFY(rows[0].shade == Shade::waitingOnRuns());
        QCOMPARE(model->displayName(rows[0].session), std::string("Ship it"));
        QCOMPARE(*model->parentName(rows[1].session), std::string("Ship it"));
        model->toggleRuns(rows[0]);
        QCOMPARE(ids(model->list()), std::string("s"));

        // The run expires 10 minutes after it started, on a tick, with no file change.
        w->clock.offset = minutes(11);
        model->refreshCycle();
        QVERIFY(model->list()[0].shade == Shade::of(Status::ready));
    }

    void interruptsNewerThanTheLastChangeEndTheTurn()
    {
        const std::string stamp = formatIso8601(realNow() + seconds(5));
        const auto transcript =
            writeTranscript(R"({"type":"user","timestamp":")" + stamp +
                            R"(","message":{"content":"[Request interrupted by user for tool use]"}})");
        for (const char* id : {"run", "old"})
            put(id, 60, [&](Session& s) {
                s.transcriptPath = transcript.string();
                s.phase = Phase::running;
            });
        change("old",
               [](Session& s) { s.changedAt = realNow() + seconds(10); }); // changed after the interrupt
        makeModel()->readTranscripts();
        QCOMPARE(read("run")->status(), Status::ready);
        QCOMPARE(read("run")->changedAt, *parseIso8601(stamp));
        QCOMPARE(read("old")->status(), Status::running);
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
        w->processes.alive = {{12, 2.0}, {10, 1.5}}; // pid 10 now belongs to another process
        auto model = makeModel();
        model->refreshCycle();
        QVERIFY(!read("cli"));
        const auto ended = read("vscode");
        QVERIFY(ended && ended->endedAt && !ended->process && ended->phase == Phase::idle);
        QCOMPARE(model->stored().size(), std::size_t(3));
        QCOMPARE(model->runningClaudes(), QStringList{"/opt/claude/12/claude"});
    }

    void jumpingAndDismissingMarkSeenHideOrDelete()
    {
        put("ready", 30);
        put("waiting", 20, [](Session& s) { s.pendingApprovals = 1; });
        put("ended", 10, [](Session& s) { s.endedAt = realNow(); });
        put("kid", 5, [](Session& s) {
            s.parentId = "waiting";
            s.phase = Phase::running;
        });
        auto model = makeModel();
        for (const auto& row : model->list())
            model->jump(row);
        QVERIFY(read("ready")->seenAt);
        QVERIFY(!read("waiting")->seenAt);
        QVERIFY(!read("ended"));
        QCOMPARE(w->jumper.jumped.size(), std::size_t(4));

        model->dismiss(*read("waiting"));
        QVERIFY(read("waiting")->dismissedAt);
        QCOMPARE(model->mostUrgent(), std::optional(Status::ready)); // children never count

        w->jumper.failWith = "The app that started this session (com.x) isn't installed.";
        put("other", 1, [](Session& s) { s.title = "Other work"; });
        model->reload();
        model->jump(model->list().back());
        QCOMPARE(w->alerts.shown, QStringList{"Couldn't open Other work | "
                                              "The app that started this session (com.x) isn't installed."});
        QVERIFY(!read("other")->seenAt);

        fs::create_directories(w->sessionsDir / "odd.json"); // cannot be read as a file
        model->dismiss(Session("odd", "claude", "/w/odd", {}, std::nullopt, realNow()));
        QVERIFY(w->alerts.shown.last().startsWith("Couldn't remove odd | "));
    }

    void connectingAndDisconnectingClaudeCode()
    {
        fs::create_directories(w->claudeSettings.parent_path());
        std::ofstream(w->claudeSettings)
            << R"({"model":"opus","hooks":{"Stop":[{"hooks":[{"type":"command","command":"say done"}]}]}})";
        auto model = makeModel();
        QSignalSpy changed(model.get(), &SessionsModel::hookStateChanged);
        model->refreshHookState();
        QCOMPARE(model->hookState(), HookInstaller::State::notInstalled);
        model->connectClaudeCode();
        QCOMPARE(model->hookState(), HookInstaller::State::installed);
        QCOMPARE(changed.count(), 1);
        const std::string written = files::readWholeFile(w->claudeSettings).value();
        QVERIFY(written.find("app/skeldrin-hook'") != std::string::npos);
        QVERIFY(written.find("say done") != std::string::npos);
        model->disconnectClaudeCode();
        QCOMPARE(model->hookState(), HookInstaller::State::notInstalled);
        QVERIFY(files::readWholeFile(w->claudeSettings).value().find("skeldrin-hook") == std::string::npos);

        std::ofstream(w->claudeSettings) << "[1, 2]";
        model->connectClaudeCode();
        QCOMPARE(w->alerts.shown.size(), 1);
        QVERIFY(w->alerts.shown[0].startsWith("Couldn't update Claude Code settings | "));
        QCOMPARE(files::readWholeFile(w->claudeSettings).value(), std::string("[1, 2]"));
    }

    void headlinesRunTwoAtATimeAndRememberFailures()
    {
        for (const char* id : {"h1", "h2", "h3"})
            put(id, 30, [](Session& s) { s.lastPrompt = "make the parser faster please"; });
        auto model = makeModel(true);
        auto& requests = w->headlines;
        model->setHeadlinesEnabled(true);
        QVERIFY(w->settings.boolValue("headlines.enabled", false));
        QCOMPARE(requests.size(), std::size_t(2));
        QCOMPARE(requests[0].request.prompt, QStringLiteral("make the parser faster please"));

        requests[0].done(QStringLiteral("Faster parser"));
        QCOMPARE(read("h1")->headlinePrompt, read("h1")->lastPrompt);
        requests[1].done(Headliner::Failure{Headliner::Failure::Kind::claudeFailed, "exit status 2"});
        QCOMPARE(*model->headlineError(),
                 QStringLiteral("Claude Code couldn't write a headline: exit status 2"));
        model->reload(); // the third request starts, the failed one is not retried
        QCOMPARE(requests.size(), std::size_t(3));
        QCOMPARE(requests[2].request.project, QStringLiteral("h3"));
        QCOMPARE(model->displayName(*read("h1")), std::string("Faster parser"));

        // A short follow-up keeps the headline; a longer prompt replaces it.
        change("h1", [](Session& s) { s.lastPrompt = "yes"; });
        model->reload();
        QCOMPARE(requests.size(), std::size_t(3));
        change("h1", [](Session& s) { s.lastPrompt = "now add the json output"; });
        model->reload();
        QCOMPARE(*requests.at(3).request.previous, QStringLiteral("Faster parser"));

        // Switching off and on forgets the failure.
        model->setHeadlinesEnabled(false);
        QCOMPARE(model->displayName(*read("h1")), std::string("h1"));
        requests[2].done(QStringLiteral("Third"));
        requests[3].done(QStringLiteral("Json output"));
        w->locatedClaude.reset();
        model->setHeadlinesEnabled(true);
        QCOMPARE(requests.back().request.project, QStringLiteral("h2"));
        QCOMPARE(*model->headlineError(), "Couldn't find Claude Code on " + platform::thisMachine() + ".");
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
        QVERIFY(ref && table->isAlive(*ref));
        QVERIFY(table->isAlive(*ref));                                      // now answered by its pidfd
        QVERIFY(!table->isAlive(ProcessRef{ref->pid, ref->startTime + 1})); // same pid, another process
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        QVERIFY(!table->isAlive(*ref));
    }
};

QTEST_GUILESS_MAIN(SessionsModelTests)
#include "SessionsModelTests.moc"
