// Which changes of the session list notify, without any desktop service.
#include "Skeldrin/model/SessionNotifier.h"

#include <QtTest>

using namespace skeldrin;

namespace {

struct Row {
    Row(Status s = Status::running, ListedSession::Role r = ListedSession::Role::main,
        std::optional<std::string> e = std::nullopt, bool runs = false)
        : status(s)
        , role(r)
        , entrypoint(std::move(e))
        , waitingOnRuns(runs)
    {
    }
    Status status;
    ListedSession::Role role;
    std::optional<std::string> entrypoint;
    bool waitingOnRuns;
};

ListedSession listed(const std::string& id, const Row& row)
{
    Origin origin;
    origin.entrypoint = row.entrypoint;
    origin.termProgram = "ghostty";
    Session s(id, "claude", "/work/" + id, origin, std::nullopt, Date{});
    s.waitingFor = "Bash: npm test";
    s.lastPrompt = "fix the build";
    return {s, row.role, row.waitingOnRuns ? Shade::waitingOnRuns() : Shade::of(row.status), 0, false};
}

void append(NotificationRules::Step& to, const NotificationRules::Step& from)
{
    to.show.insert(to.show.end(), from.show.begin(), from.show.end());
    to.withdraw.insert(to.withdraw.end(), from.withdraw.begin(), from.withdraw.end());
}

// Rules fed on a clock of their own: each list is given once and again when its window has passed,
// and what both deliver is returned.
struct Fed {
    NotificationRules rules;
    Date now{};
    bool waitingOn = true;

    NotificationRules::Step operator()(const std::vector<ListedSession>& list, bool finishedOn)
    {
        NotificationRules::Step step = at(list, finishedOn);
        now += NotificationRules::window;
        append(step, at(list, finishedOn));
        return step;
    }
    NotificationRules::Step at(const std::vector<ListedSession>& list, bool finishedOn)
    {
        return rules.next(
            list, waitingOn, finishedOn, [](const Session& s) { return "name of " + s.id; }, now);
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

        using Role = ListedSession::Role;
        const Row running{Status::running}, waiting{Status::waiting}, ready{Status::ready};
        const QString asked = "Bash: npm test · Ghostty";
        QTest::newRow("running to waiting") << running << waiting << false << asked;
        QTest::newRow("ready to several approvals")
            << ready << Row{Status::multiStepWaiting} << false << asked;
        QTest::newRow("waiting to several approvals is the same wait")
            << waiting << Row{Status::multiStepWaiting} << false << "";
        QTest::newRow("finished, setting off") << running << ready << false << "";
        QTest::newRow("finished, setting on")
            << running << ready << true << "Finished: fix the build · Ghostty";
        QTest::newRow("answered to ready is not a finish") << waiting << ready << true << "";
        QTest::newRow("still waiting on its runs")
            << running << Row{Status::ready, Role::main, {}, true} << true << "";
        QTest::newRow("child run") << Row{Status::running, Role::child} << Row{Status::waiting, Role::child}
                                   << false << "";
        QTest::newRow("detached run")
            << Row{Status::running, Role::detached} << Row{Status::waiting, Role::detached} << false << "";
        QTest::newRow("headless") << Row{Status::running, Role::main, "sdk-py"}
                                  << Row{Status::waiting, Role::main, "sdk-py"} << false << "";
    }

    void transitions()
    {
        QFETCH(Row, before);
        QFETCH(Row, after);
        QFETCH(bool, finishedOn);
        QFETCH(QString, body);

        Fed rules;
        QVERIFY(rules({}, finishedOn).show.empty());
        rules({listed("s", before)}, finishedOn);
        const auto step = rules({listed("s", after)}, finishedOn);
        if (body.isEmpty()) {
            QCOMPARE(keys(step), std::string());
            return;
        }
        QCOMPARE(step.show.size(), std::size_t(1));
        QCOMPARE(step.show[0].title, std::string("name of s"));
        QCOMPARE(QString::fromStdString(step.show[0].body), body);
        // Shown once, not again while it stays so.
        QCOMPARE(keys(rules({listed("s", after)}, finishedOn)), std::string());
    }

    void notifiesWhatBecameSoSinceStartAndWithdrawsWhenNoLongerSo()
    {
        Fed rules;
        // "a" waits from the start on.
        const auto as = [](Status status, const std::vector<std::string>& ids) {
            std::vector<ListedSession> list{listed("a", {Status::waiting})};
            for (const std::string& id : ids)
                list.push_back(listed(id, {status}));
            return list;
        };
        QCOMPARE(keys(rules(as(Status::waiting, {}), true)), std::string());
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
        QTest::addColumn<bool>("withdrawn");

        QTest::newRow("flapping wait") << false << QStringList{"Bash: ls", "running", "Bash: npm test"}
                                       << "Bash: npm test · Ghostty" << false;
        QTest::newRow("answered at once") << false << QStringList{"Bash: ls", "running"} << "" << false;
        QTest::newRow("answered and asked again")
            << true << QStringList{"running", "Bash: npm test"} << "Bash: npm test · Ghostty" << false;
        QTest::newRow("answered") << true << QStringList{"running"} << "" << true;
    }

    void changesWithinTheWindowMakeOne()
    {
        QFETCH(bool, shownBefore);
        QFETCH(QStringList, states);
        QFETCH(QString, shown);
        QFETCH(bool, withdrawn);
        const auto as = [](const QString& state) {
            if (state == QStringLiteral("running")) return listed("s", {});
            ListedSession row = listed("s", {Status::waiting});
            row.session.waitingFor = state.toStdString();
            return row;
        };

        Fed rules;
        rules({as(QStringLiteral("running"))}, false);
        if (shownBefore)
            QCOMPARE(rules({as(QStringLiteral("Bash: make"))}, false).show.size(), std::size_t(1));
        NotificationRules::Step step;
        for (const QString& state : states) {
            append(step, rules.at({as(state)}, false));
            rules.now += std::chrono::milliseconds(NotificationRules::window) / (states.size() + 1);
        }
        rules.now += NotificationRules::window;
        append(step, rules.at({as(states.back())}, false));
        QCOMPARE(step.show.size(), std::size_t(shown.isEmpty() ? 0 : 1));
        if (!shown.isEmpty()) QCOMPARE(QString::fromStdString(step.show[0].body), shown);
        QCOMPARE(step.withdraw.size(), std::size_t(withdrawn ? 1 : 0));
    }

    void manyAtOnceAreCapped()
    {
        for (const int count : {NotificationRules::cap, NotificationRules::cap + 3}) {
            Fed rules;
            std::vector<ListedSession> running, waiting;
            for (int i = 0; i < count; ++i) {
                running.push_back(
                    listed(QStringLiteral("s%1").arg(i, 2, 10, QLatin1Char('0')).toStdString(), {}));
                waiting.push_back(running.back());
                waiting.back().shade = Shade::of(Status::waiting);
            }
            rules(running, false);
            const auto step = rules(waiting, false);
            QCOMPARE(step.show.size(), std::size_t(NotificationRules::cap));
            if (count == NotificationRules::cap) {
                QCOMPARE(step.show.back().key, std::string("s09"));
            } else {
                QCOMPARE(step.show.back().key, NotificationRules::summaryKey);
                QCOMPARE(step.show.back().body, std::string("and 4 more sessions"));
                QVERIFY(!rules.rules.isShown("s12"));
            }
        }
    }
};

QTEST_GUILESS_MAIN(NotificationRulesTests)
#include "NotificationRulesTests.moc"
