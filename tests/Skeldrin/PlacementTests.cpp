#include "Skeldrin/model/Placement.h"

#include <QtTest>

using namespace skeldrin;
using Anchor = Placement::Anchor;

Q_DECLARE_METATYPE(skeldrin::YUpRect)
Q_DECLARE_METATYPE(skeldrin::Placement)

namespace {
// A 1440 × 900 visible frame; its inner frame runs from 8 to 1432 and from 8 to 892.
const YUpRect kVisible{0, 0, 1440, 900};
} // namespace

class PlacementTests : public QObject {
    Q_OBJECT
  private Q_SLOTS:
    void releasedFrameSnapsAndAnchors_data()
    {
        QTest::addColumn<YUpRect>("released");
        QTest::addColumn<YUpRect>("snapped");
        QTest::addColumn<int>("anchorX");
        QTest::addColumn<int>("anchorY");
        // 200 wide: right edge at 1393 is 39 points from the inner right edge.
        QTest::newRow("39 from right") << YUpRect{1193, 400, 200, 100} << YUpRect{1232, 400, 200, 100}
                                       << int(Anchor::Max) << int(Anchor::Center);
        QTest::newRow("40 from right stays") << YUpRect{1192, 400, 200, 100} << YUpRect{1192, 400, 200, 100}
                                             << int(Anchor::Center) << int(Anchor::Center);
        QTest::newRow("near bottom-left corner")
            << YUpRect{30, 20, 200, 100} << YUpRect{8, 8, 200, 100} << int(Anchor::Min) << int(Anchor::Min);
        QTest::newRow("near top") << YUpRect{600, 760, 200, 100} << YUpRect{600, 792, 200, 100}
                                  << int(Anchor::Center) << int(Anchor::Max);
    }
    void releasedFrameSnapsAndAnchors()
    {
        QFETCH(YUpRect, released);
        QFETCH(YUpRect, snapped);
        QFETCH(int, anchorX);
        QFETCH(int, anchorY);
        const YUpRect target = Placement::snap(released, kVisible);
        QCOMPARE(target, snapped);
        const Placement p = Placement::describing(target, kVisible);
        QCOMPARE(int(p.x), anchorX);
        QCOMPARE(int(p.y), anchorY);
        // Described and rebuilt at the same size, the frame does not move.
        QCOMPARE(p.frame(QSizeF(target.width, target.height), kVisible), target);
    }

    void magnetPullsSoftly_data()
    {
        QTest::addColumn<double>("fromLeft");
        QTest::addColumn<double>("expectedFromLeft");
        QTest::newRow("past the edge") << -5.0 << 0.0;
        QTest::newRow("at the edge") << 0.0 << 0.0;
        QTest::newRow("10") << 10.0 << 1.5625;
        QTest::newRow("20") << 20.0 << 10.0;
        QTest::newRow("40, free") << 40.0 << 40.0;
        QTest::newRow("300, free") << 300.0 << 300.0;
    }
    void magnetPullsSoftly()
    {
        QFETCH(double, fromLeft);
        QFETCH(double, expectedFromLeft);
        const double innerLeft = 8;
        const YUpRect pulled = Placement::magnet({innerLeft + fromLeft, 400, 200, 100}, kVisible);
        QCOMPARE(pulled.x - innerLeft, expectedFromLeft);
        QCOMPARE(pulled.y, 400.0);
        QCOMPARE(pulled.width, 200.0);
        // The right edge mirrors the left.
        const double innerRight = 1432;
        const YUpRect mirrored = Placement::magnet({innerRight - fromLeft - 200, 400, 200, 100}, kVisible);
        QCOMPARE(innerRight - mirrored.maxX(), expectedFromLeft);
    }

    void hoverZoneCoversTheGap_data()
    {
        QTest::addColumn<QPointF>("point");
        QTest::addColumn<bool>("inside");
        // Widget at x 1132–1432, y 350–550; bar below it at x 1032–1432, y 304–344 (6 points gap).
        QTest::newRow("in the widget") << QPointF(1200, 500) << true;
        QTest::newRow("in the bar, left of the widget") << QPointF(1050, 320) << true;
        QTest::newRow("diagonal through the gap") << QPointF(1140, 347) << true;
        QTest::newRow("gap beside the widget") << QPointF(1100, 347) << false;
        QTest::newRow("2 points outside the widget") << QPointF(1434, 500) << true;
        QTest::newRow("3 points outside the widget") << QPointF(1435, 500) << false;
    }
    void hoverZoneCoversTheGap()
    {
        QFETCH(QPointF, point);
        QFETCH(bool, inside);
        QCOMPARE(Placement::hoverZone({1132, 350, 300, 200}, {1032, 304, 400, 40}, point), inside);
    }

    void frameKeepsTheAnchoredEdgeAndTheBarSitsSixPointsAway_data()
    {
        QTest::addColumn<Placement>("placement");
        QTest::addColumn<QSizeF>("size");
        QTest::addColumn<YUpRect>("widget");
        QTest::addColumn<YUpRect>("bar"); // 400 × 40
        QTest::newRow("right edge, upper half: bar below, right-aligned")
            << Placement{Anchor::Max, Anchor::Center, {1432, 600}} << QSizeF(300, 200)
            << YUpRect{1132, 500, 300, 200} << YUpRect{1032, 454, 400, 40};
        QTest::newRow("bottom-left: bar above, left-aligned")
            << Placement{Anchor::Min, Anchor::Min, {8, 8}} << QSizeF(300, 200) << YUpRect{8, 8, 300, 200}
            << YUpRect{8, 214, 400, 40};
        QTest::newRow("top, centred: bar clamped below")
            << Placement{Anchor::Center, Anchor::Max, {700, 892}} << QSizeF(300, 200)
            << YUpRect{550, 692, 300, 200} << YUpRect{500, 646, 400, 40};
        QTest::newRow("lower half near the top of a tall widget: bar above, clamped inside")
            << Placement{Anchor::Min, Anchor::Center, {8, 300}} << QSizeF(300, 400)
            << YUpRect{8, 100, 300, 400} << YUpRect{8, 506, 400, 40};
        // An odd height puts the exact frame on a half point; on whole pixels it must not drop below the
        // middle and flip the bar above.
        QTest::newRow("exactly centred, odd height: bar below")
            << Placement{Anchor::Max, Anchor::Center, {1432, 450}} << QSizeF(300, 301)
            << YUpRect{1132, 300, 300, 301} << YUpRect{1032, 254, 400, 40};
        // A point too close to the edge for the grown size is held inside the inner frame.
        QTest::newRow("clamped") << Placement{Anchor::Center, Anchor::Center, {1420, 20}} << QSizeF(300, 200)
                                 << YUpRect{1132, 8, 300, 200} << YUpRect{1032, 214, 400, 40};
    }
    void frameKeepsTheAnchoredEdgeAndTheBarSitsSixPointsAway()
    {
        QFETCH(Placement, placement);
        QFETCH(QSizeF, size);
        QFETCH(YUpRect, widget);
        QFETCH(YUpRect, bar);
        QCOMPARE(placement.frame(size, kVisible), widget);
        QCOMPARE(placement.barFrame(QSizeF(400, 40), widget, kVisible), bar);
    }

    void persistsExactlyAndDropsOffScreen_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("on screen") << QByteArray(R"({"x":"max","y":"center","point":[1432,450]})") << true;
        QTest::newRow("on the second screen")
            << QByteArray(R"({"x":"min","y":"max","point":[1500,892]})") << true;
        QTest::newRow("on a detached screen")
            << QByteArray(R"({"x":"max","y":"center","point":[4000,450]})") << false;
        QTest::newRow("unknown anchor")
            << QByteArray(R"({"x":"left","y":"center","point":[1432,450]})") << false;
        QTest::newRow("point not a pair")
            << QByteArray(R"({"x":"max","y":"center","point":[1432]})") << false;
        QTest::newRow("not json") << QByteArray("{x") << false;
        QTest::newRow("empty") << QByteArray() << false;
    }
    void persistsExactlyAndDropsOffScreen()
    {
        QFETCH(QByteArray, json);
        QFETCH(bool, accepted);
        const auto p = Placement::fromJson(json, {kVisible, YUpRect{1440, 0, 1920, 1080}});
        QCOMPARE(p.has_value(), accepted);
        if (p) QCOMPARE(p->toJson(), json);
    }

    void convertsToQtCoordinates()
    {
        // A widget at the top-left of a 900-high primary screen sits at Qt's y = 0.
        const QRectF qt = toQt({8, 692, 300, 200}, 900);
        QCOMPARE(qt, QRectF(8, 8, 300, 200));
        QCOMPARE(fromQt(qt, 900), (YUpRect{8, 692, 300, 200}));
        QCOMPARE(flipPoint(QPointF(10, 100), 900), QPointF(10, 800));
    }
};

QTEST_GUILESS_MAIN(PlacementTests)
#include "PlacementTests.moc"
