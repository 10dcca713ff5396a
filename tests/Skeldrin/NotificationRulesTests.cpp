// Which changes of the session list notify, without any desktop service.
#include "Skeldrin/model/SessionNotifier.h"

#include <QtTest>

using namespace skeldrin;
using Role = ListedSession::Role;

namespace {

struct Row {
    Status status = Status::running;
    Role role = Role::main;
    std::optional<std::string> entrypoint = {};
    bool waitingOnRuns = false;
};

ListedSession listed(const std::string& id, const Row& row, const std::string& waitingFor = "Bash: npm test")
{
    Origin origin;
    origin.entrypoint = row.entrypoint;
    origin.termProgram = "ghostty";
    Session s(id, "claude", "/work/" + id, origin, std::nullopt, Date{});
    s.waitingFor = waitingFor;
    s.lastPrompt = "fix the build";
    return {s, row.role, row.waitingOnRuns ? Shade::waitingOnRuns() : Shade::of(row.status), 0, false};
}

// Rules on their own clock: `at` gives a list once; a call gives it twice, a window apart, and returns both.
struct Fed {
    NotificationRules rules;
    Date now{};
    NotificationRules::Step step;

    NotificationRules::Step operator()(const std::vector<ListedSession>& list, bool finishedOn = false)
    {
        step = {};
        at(list, finishedOn);
        now += NotificationRules::window;
        at(list, finishedOn);
        return step;
    }
    void at(const std::vector<ListedSession>& list, bool finishedOn)
    {
        const auto next = rules.next(
            list, true, finishedOn, [](const Session& s) { return "name of " + s.id; }, now);
        step.show.insert(step.show.end(), next.show.begin(), next.show.end());
        step.withdraw.insert(step.withdraw.end(), next.withdraw.begin(), next.withdraw.end());
    }
};

std::string keys(const NotificationRules::Step& step)
{
    std::string out;
    for (const auto& shown : step.show)
        out += (out.empty() ? "" : " ") + shown.key;
    return out;
}

} // namespace

Q_DECLARE_METATYPE(Row)

class NotificationRulesTests : public QObject {
    Q_OBJECT

  private Q_SLOTS:
    void transitions_data()
    {
        QTest::addColumn<Row>("before");
        QTest::addColumn<Row>("after");
        QTest::addColumn<bool>("finishedOn");
        QTest::addColumn<QString>("body"); // empty: no notification

        const Row running{Status::running}, waiting{Status::waiting}, ready{Status::ready};
        const QString asked = "Bash: npm test · Ghostty";
        // clang-format off
        QTest::newRow("running to waiting") << running << waiting << false << asked;
        QTest::newRow("waiting to several approvals is the same wait") << waiting << Row{Status::multiStepWaiting} << false << "";
        QTest::newRow("finished, setting off") << running << ready << false << "";
        QTest::newRow("finished, setting on") << running << ready << true << "Finished: fix the build · Ghostty";
        QTest::newRow("answered to ready is not a finish") << waiting << ready << true << "";
        QTest::newRow("still waiting on its runs") << running << Row{Status::ready, Role::main, {}, true} << true << "";
        QTest::newRow("child run") << Row{Status::running, Role::child} << Row{Status::waiting, Role::child} << false << "";
        QTest::newRow("headless") << Row{Status::running, Role::main, "sdk-py"} << Row{Status::waiting, Role::main, "sdk-py"} << false << "";
        // clang-format on
    }
    void transitions()
    {
        QFETCH(Row, before);
        QFETCH(Row, after);
        QFETCH(bool, finishedOn);
        QFETCH(QString, body);

        Fed rules;
        rules({listed("s", before)}, finishedOn);
        const auto step = rules({listed("s", after)}, finishedOn);
        QCOMPARE(step.show.size(), std::size_t(body.isEmpty() ? 0 : 1));
        if (body.isEmpty()) return;
        QCOMPARE(QString::fromStdString(step.show[0].title + " | " + step.show[0].body),
                 "name of s | " + body);
        QCOMPARE(keys(rules({listed("s", after)}, finishedOn)), std::string()); // not again while it stays so
    }

    void notifiesWhatBecameSoSinceStartAndWithdrawsWhenNoLongerSo()
    {
        Fed rules;
        const auto as = [](Status status, const std::vector<std::string>& ids) {
            std::vector<ListedSession> list{listed("a", {Status::waiting})}; // waiting from the start on
            for (const std::string& id : ids)
                list.push_back(listed(id, {status}));
            return list;
        };
        QCOMPARE(keys(rules(as(Status::waiting, {}), true)), std::string());
        rules(as(Status::running, {"run", "gone", "closed"}), true);
        // Sessions that appear waiting notify; one appearing ready does not.
        std::vector<ListedSession> list = as(Status::waiting, {"b", "run", "gone", "closed"});
        list.push_back(listed("c", {Status::ready}));
        QCOMPARE(keys(rules(list, true)), std::string("b closed gone run"));
        rules.rules.forget("closed"); // the user closed it: nothing left to withdraw
        const auto step = rules(as(Status::running, {"b", "run", "closed"}), true);
        QCOMPARE(step.withdraw, (std::vector<std::string>{"b", "gone", "run"}));
        QVERIFY(step.show.empty());
    }

    void changesWithinTheWindowMakeOne_data()
    {
        QTest::addColumn<bool>("shownBefore");   // a notification of an earlier wait is on screen
        QTest::addColumn<QStringList>("states"); // given within one window: "running" or what it waits for
        QTest::addColumn<QString>("shown");      // what the one notification says; empty: none
        // clang-format off
        QTest::newRow("flapping wait") << false << QStringList{"Bash: ls", "running", "Bash: npm test"} << "Bash: npm test · Ghostty";
        QTest::newRow("answered at once") << false << QStringList{"Bash: ls", "running"} << "";
        QTest::newRow("answered and asked again") << true << QStringList{"running", "Bash: npm test"} << "Bash: npm test · Ghostty";
        // clang-format on
    }
    void changesWithinTheWindowMakeOne()
    {
        QFETCH(bool, shownBefore);
        QFETCH(QStringList, states);
        const auto as = [](const QString& state) {
            return state == "running" ? listed("s", {}) : listed("s", {Status::waiting}, state.toStdString());
        };
        Fed rules;
        rules({as("running")});
        if (shownBefore) QCOMPARE(rules({as("Bash: make")}).show.size(), std::size_t(1));
        rules.step = {};
        for (const QString& state : states) {
            rules.at({as(state)}, false);
            rules.now += std::chrono::milliseconds(NotificationRules::window) / (states.size() + 1);
        }
        rules.now += NotificationRules::window;
        rules.at({as(states.back())}, false);
        QTEST(rules.step.show.empty() ? QString() : QString::fromStdString(rules.step.show[0].body), "shown");
        QVERIFY(rules.step.show.size() <= 1 && rules.step.withdraw.empty());
    }

    void manyAtOnceAreCapped()
    {
        for (const int count : {NotificationRules::cap, NotificationRules::cap + 3}) {
            Fed rules;
            std::vector<ListedSession> running, waiting;
            for (int i = 0; i < count; ++i) {
                const std::string id = QStringLiteral("s%1").arg(i, 2, 10, QLatin1Char('0')).toStdString();
                running.push_back(listed(id, {}));
                waiting.push_back(listed(id, {Status::waiting}));
            }
            rules(running);
            const auto step = rules(waiting);
            QCOMPARE(step.show.size(), std::size_t(NotificationRules::cap));
            QCOMPARE(step.show.back().body,
                     std::string(count == NotificationRules::cap ? "Bash: npm test · Ghostty"
                                                                 : "and 4 more sessions"));
            QCOMPARE(rules.rules.isShown("s12"), false);
        }
    }
};

QTEST_GUILESS_MAIN(NotificationRulesTests)
#include "NotificationRulesTests.moc"
