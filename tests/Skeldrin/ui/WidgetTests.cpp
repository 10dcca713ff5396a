#include "../AppFixture.h"
#include "Skeldrin/model/Palette.h"
#include "Skeldrin/model/Placement.h"
#include "Skeldrin/ui/HoverBar.h"
#include "Skeldrin/ui/StatusDot.h"
#include "Skeldrin/ui/WidgetPanel.h"
#include "Skeldrin/ui/WidgetView.h"

#include <QApplication>
#include <QImage>
#include <QMenu>
#include <QMouseEvent>
#include <QtTest>

using namespace skeldrin;
using namespace skeldrin::test;

namespace {

// The widget on a 1440 × 900 screen (Qt's y runs down from its top), with the pointer and the clock in hand.
struct Widget : AppFixture {
    QPointF pointer;
    qint64 milliseconds = 0;
    std::unique_ptr<WidgetPanel> panel;

    WidgetPanel& makePanel()
    {
        WidgetPanel::Environment env;
        env.screens = [] {
            return QList<WidgetPanel::Screen>{{QRect(0, 0, 1440, 900), QRect(0, 0, 1440, 900)}};
        };
        env.pointer = [this] { return pointer; };
        env.milliseconds = [this] { return milliseconds; };
        panel.reset(); // one panel at a time
        panel =
            std::make_unique<WidgetPanel>(*model, updates, settings, WidgetPanel::Callbacks{}, nullptr, env);
        return *panel;
    }
    WidgetView& view() { return *static_cast<WidgetView*>(panel->widget()); }
    QPointF onScreen(QPointF local) const { return QPointF(panel->widget()->geometry().topLeft()) + local; }
    void mouse(QEvent::Type type, QPointF global, Qt::MouseButtons buttons)
    {
        const QPointF local = global - QPointF(panel->widget()->geometry().topLeft());
        QMouseEvent event(type, local, local, global, Qt::LeftButton, buttons, Qt::NoModifier);
        QApplication::sendEvent(panel->widget(), &event);
    }
};

} // namespace

class WidgetTests : public QObject {
    Q_OBJECT
  private Q_SLOTS:
    void visibilityFollowsTheRule_data()
    {
        QTest::addColumn<bool>("sessions");
        QTest::addColumn<QVariant>("visibleSetting");
        QTest::addColumn<bool>("connected");
        QTest::addColumn<bool>("shown");
        QTest::newRow("empty, not connected: offers to connect") << false << QVariant() << false << true;
        QTest::newRow("empty, connected: nothing to show") << false << QVariant() << true << false;
        QTest::newRow("empty, not connected, hidden by the user")
            << false << QVariant(false) << false << false;
        QTest::newRow("sessions") << true << QVariant() << true << true;
        QTest::newRow("sessions, hidden by the user") << true << QVariant(false) << true << false;
        QTest::newRow("sessions, shown by the user") << true << QVariant(true) << false << true;
    }
    void visibilityFollowsTheRule()
    {
        QFETCH(bool, sessions);
        QFETCH(QVariant, visibleSetting);
        QFETCH(bool, connected);
        QFETCH(bool, shown);
        Widget w;
        if (visibleSetting.isValid()) w.set("widget.visible", visibleSetting);
        if (connected) w.model->connectClaudeCode();
        w.model->refreshHookState();
        if (sessions) w.put("a", Phase::running);
        w.makePanel().refreshVisibility();
        QCOMPARE(w.panel->isShown(), shown);
        w.set("widget.visible", false); // turning the setting off always hides it
        QVERIFY(!w.panel->isShown());
    }

    void firstSessionExpandsACompactWidget()
    {
        Widget w;
        w.makePanel();
        w.set("widget.compact", true);
        w.put("a", Phase::running);
        QVERIFY(!w.setting("widget.compact"));
        w.set("widget.compact", true); // later sessions leave the user's choice alone
        w.put("b", Phase::running);
        QVERIFY(w.setting("widget.compact"));
    }

    void dragSnapsAndSavesClickJumps_data()
    {
        QTest::addColumn<QPointF>("move");
        QTest::addColumn<QString>("saved"); // the placement's anchors; empty: a click, nothing saved
        QTest::newRow("3 points is a click") << QPointF(3, 0) << "";
        QTest::newRow("39 points off the right edge snaps back") << QPointF(-39, 0) << "max center";
        QTest::newRow("free in the middle") << QPointF(-400, 0) << "center center";
        QTest::newRow("past the bottom") << QPointF(-400, 1000) << "center min";
    }
    void dragSnapsAndSavesClickJumps()
    {
        QFETCH(QPointF, move);
        QFETCH(QString, saved);
        Widget w;
        w.put("a", Phase::running);
        w.makePanel().refreshVisibility();
        const QRect before = w.panel->widget()->geometry();
        QCOMPARE(before.right() + 1, 1432); // by default 8 points in from the right edge
        const QPointF start = w.onScreen(w.view().rows().front().frame.center());
        w.mouse(QEvent::MouseButtonPress, start, Qt::LeftButton);
        w.mouse(QEvent::MouseMove, start + move / 2, Qt::LeftButton);
        w.mouse(QEvent::MouseMove, start + move, Qt::LeftButton);
        w.mouse(QEvent::MouseButtonRelease, start + move, Qt::NoButton);
        QCOMPARE(w.jumper.jumped.empty(), !saved.isEmpty());
        const QByteArray json = w.settings.value(QStringLiteral("widget.placement")).toByteArray();
        if (saved.isEmpty()) {
            QVERIFY(json.isEmpty());
            QCOMPARE(w.panel->widget()->geometry(), before);
            return;
        }
        const auto placement = Placement::fromJson(json, {YUpRect{0, 0, 1440, 900}});
        QVERIFY2(placement, json.constData());
        const QStringList anchors = saved.split(' ');
        QVERIFY(
            json.contains("\"x\":\"" + anchors[0].toLatin1() + "\",\"y\":\"" + anchors[1].toLatin1() + "\""));
        // The widget settles where the placement says, and a new panel starts there.
        const QRectF exact = toQt(placement->frame(QSizeF(before.size()), {0, 0, 1440, 900}), 900);
        const QRect end(qRound(exact.x()), qRound(exact.y()), before.width(), before.height());
        QTRY_COMPARE(w.panel->widget()->geometry(), end);
        w.makePanel().refreshVisibility();
        QCOMPARE(w.panel->widget()->geometry(), end);
    }

    void pointingShowsTheBarUntilThePointerLingersOutside()
    {
        Widget w;
        w.put("a", [](Session& s) {
            s.phase = Phase::running;
            s.lastPrompt = "Fix the build";
        });
        w.put("b", Phase::idle);
        w.makePanel().refreshVisibility();
        auto& bar = *static_cast<HoverBar*>(w.panel->bar());
        QCOMPARE(bar.details(),
                 (QStringList{"Skeldrin", "2 sessions", "Point at a session to see what it's doing"}));
        const auto& row = w.view().rows().back();
        w.pointer = w.onScreen(row.frame.center());
        w.mouse(QEvent::MouseMove, w.pointer, Qt::NoButton);
        QVERIFY(w.panel->isBarShown());
        QCOMPARE(bar.details().size(), 4);
        QCOMPARE(bar.details().last(), row.entry.session.lastPrompt ? QStringLiteral("Fix the build")
                                                                    : QStringLiteral("No prompt yet"));
        // The bar sits 6 points from the widget, on the side with more room.
        const QRect wf = w.panel->widget()->geometry(), bf = w.panel->bar()->geometry();
        QVERIFY(bf.top() == wf.bottom() + 1 + 6 || bf.bottom() + 1 + 6 == wf.top());
        w.pointer = QPointF(10, 10);
        w.panel->checkPointer();
        w.milliseconds += 200;
        w.panel->checkPointer();
        QVERIFY(w.panel->isBarShown());
        w.milliseconds += 50;
        w.panel->checkPointer();
        QVERIFY(!w.panel->isBarShown());
    }

    void rowsPaintTheirSizesAndColours_data()
    {
        QTest::addColumn<bool>("compact");
        QTest::addColumn<int>("width");
        QTest::newRow("regular") << false << 260 + 2 * 8 + 2 * 10;
        QTest::newRow("compact") << true << 260 + 2 * 4 + 2 * 4;
    }
    void rowsPaintTheirSizesAndColours()
    {
        QFETCH(bool, compact);
        QFETCH(int, width);
        Widget w;
        w.put("a", Phase::running);
        w.put("b", Phase::idle);
        w.set("widget.compact", compact);
        Palette::setColor(Status::running, QColor(QStringLiteral("#FF00FF")), w.settings);
        w.makePanel();
        WidgetView& v = w.view();
        QCOMPARE(v.sizeHint().width(), width);
        QCOMPARE(v.rows().size(), std::size_t(2));
        QImage image(v.sizeHint(), QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        v.render(&image);
        for (const auto& row : v.rows()) {
            QCOMPARE(row.frame.width(), 260.0);
            QCOMPARE(image.pixelColor(row.dot.toPoint()).rgb(),
                     Palette::color(row.entry.shade, w.settings).rgb());
            // Text is drawn to the right of the dot.
            bool text = false;
            for (int x = int(row.dot.x()) + 10; x < int(row.frame.right()) && !text; ++x)
                for (int y = int(row.frame.top()); y < int(row.frame.bottom()) && !text; ++y)
                    text = image.pixelColor(x, y).lightness() > 200;
            QVERIFY(text);
        }
        // The second session is set apart by a dash under the dots; the rest of the gap stays clear.
        const QRectF dash = v.rows().back().spacer;
        QVERIFY(!dash.isEmpty());
        const QPoint onDash = dash.topLeft().toPoint() + QPoint(2, 0);
        QVERIFY(image.pixelColor(onDash).lightness() >
                image.pixelColor(onDash + QPoint(20, 0)).lightness() + 10);
    }

    void ringsAnimateOnlyWhileSomethingWaits()
    {
        Widget w;
        w.put("a", Phase::running);
        w.makePanel().refreshVisibility();
        QVERIFY(!w.view().animating());
        w.put("a", Phase::running, {}, 1);
        QVERIFY(w.view().animating());
        // Hidden, the ring stops; shown again while it still waits, it resumes.
        w.set("widget.visible", false);
        QVERIFY(!w.view().animating());
        w.set("widget.visible", true);
        QVERIFY(w.view().animating());
        w.put("a", Phase::idle);
        QVERIFY(!w.view().animating());
        QVERIFY(!PingClock::shared().running()); // no timer left behind
    }

    void chevronFoldsRunsAndSaysSo()
    {
        Widget w;
        w.put("a", Phase::idle);
        w.put("b", Phase::running, "a");
        w.makePanel();
        WidgetView& view = w.view();
        const auto chevron = [&] { return view.rows().front().toggle.center(); };
        QCOMPARE(view.rows().size(), std::size_t(2));
        QCOMPARE(view.helpTextAt(chevron()), QStringLiteral("Hide background runs"));
        view.clickAt(chevron());
        QCOMPARE(view.rows().size(), std::size_t(1));
        QCOMPARE(view.helpTextAt(chevron()), QStringLiteral("Show background runs"));
        QCOMPARE(view.helpTextAt(view.rows().front().frame.center()), QString());
        QVERIFY(w.jumper.jumped.empty());
    }

    void noticeAndMenusSayWhatTheyDo()
    {
        Widget w;
        w.makePanel();
        // No sessions and no hooks: the card offers to connect.
        QCOMPARE(w.view().noticeTitle(), QStringLiteral("Connect Claude Code"));
        QCOMPARE(WidgetView::updateTitle(w.updates, "2.1"), QStringLiteral("Update to 2.1"));
        bool extended = false;
        w.panel->setCardMenuExtension([&](QMenu& menu) {
            extended = true;
            QCOMPARE(menu.actions().size(), 4); // Compact, Settings…, divider, Quit
        });
        QMenu menu;
        w.view().fillCardMenu(menu);
        QVERIFY(extended);
        menu.actions().front()->trigger();
        QVERIFY(w.setting("widget.compact"));
    }
};

QTEST_MAIN(WidgetTests)
#include "WidgetTests.moc"
