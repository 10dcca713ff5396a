#include "Skeldrin/model/Placement.h"

#include <QtTest>

using namespace skeldrin;
using Anchor = Placement::Anchor;

namespace {
// A 1440 × 900 visible frame; its inner frame runs from 8 to 1432 and from 8 to 892.
const YUpRect kVisible{0, 0, 1440, 900};
} // namespace

class PlacementTests : public QObject {
    Q_OBJECT
  private Q_SLOTS:
    void releasedFrameSnapsAndAnchors()
    {
        const struct {
            YUpRect released, snapped;
            Anchor x, y;
        } cases[] = {
            // 200 wide: released 39 points from the inner right edge it snaps to it; at 40 it stays.
            {{1193, 400, 200, 100}, {1232, 400, 200, 100}, Anchor::Max, Anchor::Center},
            {{1192, 400, 200, 100}, {1192, 400, 200, 100}, Anchor::Center, Anchor::Center},
            {{30, 20, 200, 100}, {8, 8, 200, 100}, Anchor::Min, Anchor::Min},
        };
        for (const auto& c : cases) {
            const YUpRect target = Placement::snap(c.released, kVisible);
            QCOMPARE(target, c.snapped);
            const Placement p = Placement::describing(target, kVisible);
            QVERIFY(p.x == c.x && p.y == c.y);
            // Described and rebuilt at the same size, the frame does not move.
            QCOMPARE(p.frame(QSizeF(target.width, target.height), kVisible), target);
        }
    }

    void magnetPullsSoftlyOnBothEdges()
    {
        // Distance from the inner edge before and after the pull: past it, inside its reach, at its reach.
        for (const auto& [from, pulled] : {std::pair{-5.0, 0.0}, {10.0, 1.5625}, {40.0, 40.0}}) {
            const YUpRect left = Placement::magnet({8 + from, 400, 200, 100}, kVisible);
            QCOMPARE(left.x - 8, pulled);
            QCOMPARE(left.y, 400.0);
            QCOMPARE(1432 - Placement::magnet({1432 - from - 200, 400, 200, 100}, kVisible).maxX(), pulled);
        }
    }

    void hoverZoneCoversTheGap()
    {
        // Widget at x 1132–1432, y 350–550; bar below it at x 1032–1432, y 304–344.
        const auto inside = [](double x, double y) {
            return Placement::hoverZone({1132, 350, 300, 200}, {1032, 304, 400, 40}, {x, y});
        };
        QVERIFY(inside(1434, 500) && !inside(1435, 500)); // up to 2 points outside the widget
        QVERIFY(inside(1140, 347) && !inside(1100, 347)); // in the gap between the two, not beside it
    }

    void frameKeepsTheAnchoredEdgeAndTheBarSitsSixPointsAway()
    {
        const struct {
            Placement placement;
            QSizeF size;
            YUpRect widget, bar; // the bar is 400 × 40
        } cases[] = {
            // clang-format off
            // Right edge, upper half: bar below, right-aligned.
            {{Anchor::Max, Anchor::Center, {1432, 600}}, {300, 200}, {1132, 500, 300, 200}, {1032, 454, 400, 40}},
            // Bottom-left: bar above, left-aligned.
            {{Anchor::Min, Anchor::Min, {8, 8}}, {300, 200}, {8, 8, 300, 200}, {8, 214, 400, 40}},
            // Exactly centred at an odd height: on whole pixels it must not drop below the middle and flip
            // the bar above.
            {{Anchor::Max, Anchor::Center, {1432, 450}}, {300, 301}, {1132, 300, 300, 301}, {1032, 254, 400, 40}},
            // A point too close to the edge for the size is held inside the inner frame.
            {{Anchor::Center, Anchor::Center, {1420, 20}}, {300, 200}, {1132, 8, 300, 200}, {1032, 214, 400, 40}},
            // clang-format on
        };
        for (const auto& c : cases) {
            QCOMPARE(c.placement.frame(c.size, kVisible), c.widget);
            QCOMPARE(c.placement.barFrame(QSizeF(400, 40), c.widget, kVisible), c.bar);
        }
    }

    void persistsExactlyAndDropsOffScreen()
    {
        const QList<YUpRect> screens{kVisible, YUpRect{1440, 0, 1920, 1080}};
        for (const QByteArray json : {R"({"x":"max","y":"center","point":[1432,450]})",
                                      R"({"x":"min","y":"max","point":[1500,892]})"}) // on the second screen
            QCOMPARE(Placement::fromJson(json, screens).value().toJson(), json);
        for (const char* json : {R"({"x":"max","y":"center","point":[4000,450]})", // on a detached screen
                                 R"({"x":"left","y":"center","point":[1432,450]})", "{x"})
            QVERIFY2(!Placement::fromJson(json, screens), json);
    }
};

QTEST_GUILESS_MAIN(PlacementTests)
#include "PlacementTests.moc"
