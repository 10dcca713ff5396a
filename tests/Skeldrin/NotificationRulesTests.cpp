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

std::string nameOf(const Session& s)
{
    return "name of " + s.id;
}

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

        const auto main = [](Status s) { return Row{s}; };
        QTest::newRow("running to waiting")
            << main(Status::running) << main(Status::waiting) << false << "Bash: npm test · Ghostty";
        QTest::newRow("ready to several approvals")
            << main(Status::ready) << main(Status::multiStepWaiting) << false << "Bash: npm test · Ghostty";
        QTest::newRow("waiting to several approvals is the same wait")
            << main(Status::waiting) << main(Status::multiStepWaiting) << false << "";
        QTest::newRow("finished, setting off") << main(Status::running) << main(Status::ready) << false << "";
        QTest::newRow("finished, setting on")
            << main(Status::running) << main(Status::ready) << true << "Finished: fix the build · Ghostty";
        QTest::newRow("answered to ready is not a finish")
            << main(Status::waiting) << main(Status::ready) << true << "";
        QTest::newRow("still waiting on its runs")
            << main(Status::running) << Row{Status::ready, ListedSession::Role::main, std::nullopt, true}
            << true << "";
        QTest::newRow("child run") << Row{Status::running, ListedSession::Role::child}
                                   << Row{Status::waiting, ListedSession::Role::child} << false << "";
        QTest::newRow("detached run") << Row{Status::running, ListedSession::Role::detached}
                                      << Row{Status::waiting, ListedSession::Role::detached} << false << "";
        QTest::newRow("headless") << Row{Status::running, ListedSession::Role::main, "sdk-py"}
                                  << Row{Status::waiting, ListedSession::Role::main, "sdk-py"} << false << "";
    }

    void transitions()
    {
        QFETCH(Row, before);
        QFETCH(Row, after);
        QFETCH(bool, finishedOn);
        QFETCH(QString, body);

        NotificationRules rules;
        QVERIFY(rules.next({}, true, finishedOn, nameOf).show.empty());
        rules.next({listed("s", before)}, true, finishedOn, nameOf);
        const auto step = rules.next({listed("s", after)}, true, finishedOn, nameOf);
        if (body.isEmpty()) {
            QCOMPARE(keys(step), std::string());
            return;
        }
        QCOMPARE(step.show.size(), std::size_t(1));
        QCOMPARE(step.show[0].title, std::string("name of s"));
        QCOMPARE(QString::fromStdString(step.show[0].body), body);
        // Shown once, not again while it stays so.
        QCOMPARE(keys(rules.next({listed("s", after)}, true, finishedOn, nameOf)), std::string());
    }

    void whatWasSoAtStartNeverNotifies()
    {
        NotificationRules rules;
        QCOMPARE(keys(rules.next({listed("a", {Status::waiting})}, true, true, nameOf)), std::string());
        QCOMPARE(keys(rules.next({listed("a", {Status::waiting})}, true, true, nameOf)), std::string());
        // A session that appears later already waiting does notify; one appearing ready does not.
        const auto step = rules.next(
            {listed("a", {Status::waiting}), listed("b", {Status::waiting}), listed("c", {Status::ready})},
            true, true, nameOf);
        QCOMPARE(keys(step), std::string("b"));
    }

    void withdrawsWhenNoLongerSo()
    {
        NotificationRules rules;
        rules.next({}, true, true, nameOf);
        rules.next({listed("run", {}), listed("gone", {}), listed("closed", {})}, true, true, nameOf);
        const std::vector<ListedSession> waiting{listed("run", {Status::waiting}),
                                                 listed("gone", {Status::waiting}),
                                                 listed("closed", {Status::waiting})};
        QCOMPARE(keys(rules.next(waiting, true, true, nameOf)), std::string("run gone closed"));
        rules.forget("closed"); // the user closed it: nothing left to withdraw
        const auto step = rules.next({listed("run", {Status::running}), listed("closed", {Status::running})},
                                     true, true, nameOf);
        QCOMPARE(step.withdraw, (std::vector<std::string>{"gone", "run"}));
        QVERIFY(step.show.empty());
    }

    void manyAtOnceAreCapped()
    {
        for (const int count : {NotificationRules::cap, NotificationRules::cap + 3}) {
            NotificationRules rules;
            std::vector<ListedSession> running, waiting;
            for (int i = 0; i < count; ++i) {
                running.push_back(
                    listed(QStringLiteral("s%1").arg(i, 2, 10, QLatin1Char('0')).toStdString(), {}));
                waiting.push_back(running.back());
                waiting.back().shade = Shade::of(Status::waiting);
            }
            rules.next(running, true, false, nameOf);
            const auto step = rules.next(waiting, true, false, nameOf);
            QCOMPARE(step.show.size(), std::size_t(NotificationRules::cap));
            if (count == NotificationRules::cap) {
                QCOMPARE(step.show.back().key, std::string("s09"));
            } else {
                QCOMPARE(step.show.back().key, NotificationRules::summaryKey);
                QCOMPARE(step.show.back().body, std::string("and 4 more sessions"));
                QVERIFY(!rules.isShown("s12"));
            }
        }
    }
};

QTEST_GUILESS_MAIN(NotificationRulesTests)
#include "NotificationRulesTests.moc"
