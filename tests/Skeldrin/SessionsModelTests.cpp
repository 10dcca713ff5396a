#include "Skeldrin/model/SessionsModel.h"
#include "Skeldrin/platform/Platform.h"
#include "TrackerCore/Files.h"
#include "TrackerCore/ProcessInspector.h"
#include "tests/Skeldrin/AppFixture.h"
#include "tests/support/TestFiles.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>
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

// A transcript line: a background Bash command started at `at`.
std::string backgroundRun(const std::string& id, Date at, const std::string& command)
{
    return R"({"type":"assistant","timestamp":")" + formatIso8601(at) +
           R"(","message":{"content":[{"type":"tool_use","id":")" + id +
           R"(","name":"Bash","input":{"command":")" + command + R"(","run_in_background":true}}]}})" + "\n";
}

// Everything one test works on, fresh for each test; processes are asked of the system.
struct World : test::AppFixture {
    TestClock clock;
    std::vector<std::pair<Headliner::Request, std::function<void(Headliner::Outcome)>>> headlines;
    std::optional<QString> locatedClaude = QStringLiteral("/usr/bin/claude");
    Date base = realNow(); // one instant per test, so that equal ages mean equal start times

    World()
        : AppFixture(nullptr, [this](SessionsModel::Dependencies& deps) {
            deps.clock = &clock;
            deps.headlineWriter = [this](const Headliner::Request& r, const QStringList&, QObject*,
                                         auto done) {
                headlines.push_back({r, std::move(done)});
            };
            deps.claudeLocator = [this](const QStringList&, QObject*, auto found) { found(locatedClaude); };
        })
    {
    }
};

} // namespace

class SessionsModelTests : public QObject {
    Q_OBJECT

    std::unique_ptr<World> w;

    SessionsModel& loaded()
    {
        w->model->reload();
        return *w->model;
    }

    void put(const std::string& id, int startedSecondsAgo, const std::function<void(Session&)>& edit = {})
    {
        Session s(id, "claude", "/work/" + id, {}, std::nullopt, w->base - seconds(startedSecondsAgo));
        if (edit) edit(s);
        w->store.update(id, [&](const auto&) { return std::optional(s); });
    }
    std::optional<Session> read(const std::string& id)
    {
        const auto bytes = files::readWholeFile(w->sessionsDir / (id + ".json"));
        return bytes ? std::optional(decodeSession(*bytes)) : std::nullopt;
    }
    std::string transcript(const std::string& name, const std::string& content)
    {
        const fs::path file = w->sessionsDir.parent_path() / name;
        test::writeText(file, content);
        return file.string();
    }
    static QString ids(const std::vector<ListedSession>& rows)
    {
        QStringList out;
        for (const auto& r : rows)
            out << QString::fromStdString(r.id());
        return out.join(' ');
    }

  private Q_SLOTS:
    void init() { w = std::make_unique<World>(); }

    void reloadSortsPublishesOnlyChangesAndFollowsTheDirectory()
    {
        for (const auto& [id, age] : {std::pair{"b", 10}, {"a", 10}, {"c", 20}})
            put(id, age);
        auto& model = loaded();
        QSignalSpy changed(&model, &SessionsModel::storedChanged);
        QCOMPARE(model.stored()[0].id + model.stored()[1].id + model.stored()[2].id,
                 "cab"); // by age, then id
        test::writeText(w->sessionsDir / "a.json", encodeSession(*read("a")));
        model.reload();
        QCOMPARE(changed.count(), 0);

        model.start();
        test::writeText(w->sessionsDir / "broken.json", "{ not json");
        put("d", 1); // seen through the directory watch, not the (hour-long) timer
        QTRY_COMPARE(model.stored().size(), std::size_t(4));
        QCOMPARE(changed.count(), 1);
        fs::remove_all(w->sessionsDir);
        model.refreshCycle();
        QCOMPARE(model.stored().size(), std::size_t(4)); // the last list stays
    }

    void transcriptsGiveTitlesRunsAndInterrupts()
    {
        const auto self = ProcessInspector::ref(getpid());
        const auto path =
            transcript("t.jsonl", R"({"type":"custom-title","customTitle":"Ship it"})"
                                  "\n" +
                                      backgroundRun("old", realNow() - hours(5), "sleep 1") +
                                      backgroundRun("t1", realNow() + seconds(2), "make") +
                                      R"({"type":"user","message":{"content":[{"type":"tool_result",)"
                                      R"("tool_use_id":"t1","content":"Command running in background )"
                                      R"(with ID: b1. timeout 600000ms"}]}})");
        put("s", 60, [&](Session& s) {
            s.transcriptPath = path;
            s.process = self;
        });
        // An interrupt ends the turn of a session that has not changed since.
        const std::string stamp = formatIso8601(realNow() + seconds(5));
        const auto interrupted = transcript("u.jsonl", R"({"type":"user","timestamp":")" + stamp +
                                                           R"(","message":{"content":"[Request interrupted )"
                                                           R"(by user for tool use]"}})");
        for (const char* id : {"run", "old"})
            put(id, 30, [&](Session& s) {
                s.transcriptPath = interrupted;
                s.phase = Phase::running;
                if (s.id == "old") s.changedAt = realNow() + seconds(10);
            });
        auto& model = loaded();
        model.readTranscripts();
        QCOMPARE(read("run")->changedAt, *parseIso8601(stamp));
        QCOMPARE(read("run")->status(), Status::ready);
        QCOMPARE(read("old")->status(), Status::running);

        const auto rows = model.list();
        QCOMPARE(ids(rows), "s task-t1 old run"); // not the task from before this process started
        QVERIFY(rows[0].shade == Shade::waitingOnRuns());
        QCOMPARE(*model.parentName(rows[1].session), std::string("Ship it"));
        model.toggleRuns(rows[0]);
        QCOMPARE(ids(model.list()), "s old run");

        // The run expires 10 minutes after it started, on a tick, with no file change.
        w->clock.offset = minutes(11);
        model.refreshCycle();
        QVERIFY(model.list()[0].shade == Shade::of(Status::ready));
    }

    void deadProcessesEndOrRemoveTheirSessions()
    {
        QProcess child; // killed with the test, whatever happens
        child.start("sleep", {"60"});
        QVERIFY(child.waitForStarted());
        const auto self = ProcessInspector::ref(getpid()), doomed = ProcessInspector::ref(child.processId());
        QVERIFY(self && doomed);
        put("vscode", 20, [&](Session& s) {
            s.process = doomed;
            s.origin.entrypoint = "claude-vscode";
            s.phase = Phase::running;
        });
        put("reused", 15, [&](Session& s) { s.process = ProcessRef{self->pid, self->startTime + 1}; });
        put("alive", 10, [&](Session& s) { s.process = self; });
        auto& model = loaded();
        model.refreshCycle(); // the child is alive: from now on it is watched
        QVERIFY(read("vscode")->process && !read("reused"));
        child.kill();
        QVERIFY(child.waitForFinished());
        model.refreshCycle();
        const auto ended = read("vscode");
        QVERIFY(ended && ended->endedAt && !ended->process && ended->phase == Phase::idle);
        QCOMPARE(model.runningClaudes(), QStringList{QCoreApplication::applicationFilePath()});
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
        auto& model = loaded();
        for (const auto& row : model.list())
            model.jump(row);
        QCOMPARE(w->jumper.jumped.size(), std::size_t(4));
        QVERIFY(read("ready")->seenAt && !read("waiting")->seenAt && !read("ended"));

        model.dismiss(*read("waiting"));
        QVERIFY(read("waiting")->dismissedAt);
        QCOMPARE(model.mostUrgent(), std::optional(Status::ready)); // children never count

        w->jumper.failWith = "The app is gone.";
        model.jump(model.list()[0]);
        QCOMPARE(w->alerts.shown, QStringList{"Couldn't open ready | The app is gone."});

        fs::create_directories(w->sessionsDir / "odd.json"); // cannot be read as a file
        model.dismiss(Session("odd", "claude", "/w/odd", {}, std::nullopt, realNow()));
        QVERIFY(w->alerts.shown.last().startsWith("Couldn't remove odd | "));
    }

    void headlinesRunTwoAtATimeAndRememberFailures()
    {
        for (const char* id : {"h1", "h2", "h3"})
            put(id, 30, [](Session& s) { s.lastPrompt = "make the parser faster please"; });
        auto& model = loaded();
        auto& requests = w->headlines;
        model.setHeadlinesEnabled(true);
        QVERIFY(w->settings.boolValue("headlines.enabled", false));
        QCOMPARE(requests.size(), std::size_t(2));
        QCOMPARE(requests[0].first.prompt, QStringLiteral("make the parser faster please"));

        requests[0].second(QStringLiteral("Faster parser"));
        requests[1].second(Headliner::Failure{Headliner::Failure::Kind::claudeFailed, "exit status 2"});
        QCOMPARE(*model.headlineError(),
                 QStringLiteral("Claude Code couldn't write a headline: exit status 2"));
        model.reload(); // the third request starts, the failed one is not retried
        QCOMPARE(requests.size(), std::size_t(3));
        QCOMPARE(requests[2].first.project, QStringLiteral("h3"));
        QCOMPARE(model.displayName(*read("h1")), std::string("Faster parser"));

        // A short follow-up keeps the headline; a longer prompt replaces it.
        const auto prompt = [&](const char* text) {
            w->store.update("h1", [&](std::optional<Session> s) {
                s->lastPrompt = text;
                return s;
            });
        };
        prompt("yes");
        model.reload();
        QCOMPARE(requests.size(), std::size_t(3));
        prompt("now add the json output");
        model.reload();
        QCOMPARE(*requests.at(3).first.previous, QStringLiteral("Faster parser"));

        // Switching off and on forgets the failure.
        model.setHeadlinesEnabled(false);
        QCOMPARE(model.displayName(*read("h1")), std::string("h1"));
        requests[2].second(QStringLiteral("Third"));
        requests[3].second(QStringLiteral("Json output"));
        w->locatedClaude.reset();
        model.setHeadlinesEnabled(true);
        QCOMPARE(requests.back().first.project, QStringLiteral("h2"));
        QCOMPARE(*model.headlineError(), "Couldn't find Claude Code on " + platform::thisMachine() + ".");
    }
};

QTEST_GUILESS_MAIN(SessionsModelTests)
#include "SessionsModelTests.moc"
