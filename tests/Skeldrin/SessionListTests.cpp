#include "Skeldrin/model/SessionList.h"

#include <QtTest>

using namespace skeldrin;

namespace {

Session make(const std::string& id, std::optional<std::string> parent = std::nullopt,
             Status status = Status::ready, std::optional<std::string> entrypoint = std::nullopt)
{
    Session s(id, "claude", "/w/" + id, {}, std::nullopt, Date{});
    s.parentId = std::move(parent);
    s.origin.entrypoint = std::move(entrypoint);
    if (status == Status::running) s.phase = Phase::running;
    if (status == Status::waiting) s.pendingApprovals = 1;
    return s;
}

std::string describe(const std::vector<ListedSession>& rows)
{
    std::string out;
    for (const auto& r : rows)
        out += (out.empty() ? "" : " ") + r.id() + ":" + std::string(rawValue(r.role)).substr(0, 1);
    return out;
}

} // namespace

class SessionListTests : public QObject {
    Q_OBJECT
  private Q_SLOTS:
    void ordersParentsBeforeChildrenAndDetachedLast()
    {
        const auto rows = SessionList::arrange(
            {make("orphan", "gone"), make("b1", "b"), make("a"), make("a1", "a"), make("a11", "a1"),
             make("sdk", {}, Status::ready, "sdk-ts"), make("b"),
             make("late", {}, Status::ready, "cli-sdk-x"), // contains sdk- but does not begin with it
             make("sdkkid", "a", Status::ready, "sdk-py")},
            {});
        QCOMPARE(describe(rows), std::string("a:m a1:c a11:c sdkkid:c b:m b1:c late:m orphan:d sdk:d"));
    }

    void shadesCountsFoldingAndDismissingFollowTheChildren()
    {
        std::vector<Session> input{make("p"),
                                   make("k1", "p"),
                                   make("k2", "p", Status::waiting),
                                   make("g", "k1"),
                                   make("q", {}, Status::waiting),
                                   make("k", "q", Status::running),
                                   make("s")};
        input[2].dismissedAt = input[6].seenAt = input[5].seenAt = Date{};
        auto rows = SessionList::arrange(input, {"p"});
        QCOMPARE(describe(rows), std::string("p:m q:m k:c s:m"));
        QVERIFY(rows[0].runsFolded &&
                rows[0].shade == Shade::waitingOnRuns());     // a dismissed busy child counts
        QCOMPARE(rows[0].runCount, 1);                        // for the shade, not the count
        QVERIFY(rows[1].shade == Shade::of(Status::waiting)); // only a ready parent waits on runs
        QVERIFY(rows[3].seen() && !rows[2].seen());           // seen only while ready

        input[0].dismissedAt = Date{}; // with its descendants
        QCOMPARE(describe(SessionList::arrange(input, {})), std::string("q:m k:c s:m"));
    }
};

QTEST_GUILESS_MAIN(SessionListTests)
#include "SessionListTests.moc"
