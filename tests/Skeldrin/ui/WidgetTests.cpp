#include "../AppFixture.h"
#include "Skeldrin/model/Palette.h"
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
        const QRect screen(0, 0, 1440, 900);
        env.screens = [screen] { return QList<WidgetPanel::Screen>{{screen, screen}}; };
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
    void clickJumpsDragMovesAndIsSaved()
    {
        Widget w;
        w.put("a", Phase::running);
        w.makePanel().refreshVisibility();
        const QRect start = w.panel->widget()->geometry();
        QCOMPARE(start.right() + 1, 1432); // by default 8 points in from the right edge
        const auto drag = [&](QPointF move) {
            const QPointF from = w.onScreen(w.view().rows().front().frame.center());
            w.mouse(QEvent::MouseButtonPress, from, Qt::LeftButton);
            w.mouse(QEvent::MouseMove, from + move / 2, Qt::LeftButton);
            w.mouse(QEvent::MouseMove, from + move, Qt::LeftButton);
            w.mouse(QEvent::MouseButtonRelease, from + move, Qt::NoButton);
        };
        drag({3, 0}); // within the threshold: a click
        QCOMPARE(w.jumper.jumped, std::vector<std::string>{"a"});
        QVERIFY(!w.settings.contains("widget.placement") && w.panel->widget()->geometry() == start);

        drag({-400, 0});
        QCOMPARE(w.jumper.jumped.size(), std::size_t(1));
        const QByteArray json = w.settings.value("widget.placement").toByteArray();
        QVERIFY2(json.startsWith(R"({"x":"center","y":"center")"), json.constData());
        QTRY_COMPARE(w.panel->widget()->geometry(), start.translated(-400, 0));
        w.makePanel().refreshVisibility(); // a new panel starts there
        QCOMPARE(w.panel->widget()->geometry(), start.translated(-400, 0));
    }

    void pointingShowsTheBarUntilThePointerLingersOutside()
    {
        Widget w;
        for (const char* id : {"a", "b"})
            w.put(id, [](Session& s) { s.lastPrompt = "Fix the build"; });
        w.makePanel().refreshVisibility();
        auto& bar = *static_cast<HoverBar*>(w.panel->bar());
        QCOMPARE(bar.details(),
                 (QStringList{"Skeldrin", "2 sessions", "Point at a session to see what it's doing"}));
        w.pointer = w.onScreen(w.view().rows().back().frame.center());
        w.mouse(QEvent::MouseMove, w.pointer, Qt::NoButton);
        QVERIFY(w.panel->isBarShown());
        QCOMPARE(bar.details().mid(3), QStringList{"Fix the build"});
        w.pointer = QPointF(10, 10);
        w.panel->checkPointer();
        QVERIFY(w.panel->isBarShown()); // until the pointer has lingered outside
        w.milliseconds += 250;
        w.panel->checkPointer();
        QVERIFY(!w.panel->isBarShown());
    }

    void rowsPaintTheirColoursAndRingsAnimateOnlyWhileSomethingWaits()
    {
        Widget w;
        w.put("a", Phase::running);
        w.put("b", Phase::idle);
        Palette::setColor(Status::running, QColor(QStringLiteral("#FF00FF")), w.settings);
        w.makePanel().refreshVisibility();
        WidgetView& v = w.view();
        QCOMPARE(v.rows().size(), std::size_t(2));
        QImage image(v.sizeHint(), QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        v.render(&image);
        for (const auto& row : v.rows())
            QCOMPARE(image.pixelColor(row.dot.toPoint()).rgb(),
                     Palette::color(row.entry.shade, w.settings).rgb());
        // The second session is set apart by a dash under the dots; the rest of the gap stays clear.
        const QPoint onDash = v.rows().back().spacer.topLeft().toPoint() + QPoint(2, 0);
        QVERIFY(image.pixelColor(onDash).lightness() >
                image.pixelColor(onDash + QPoint(20, 0)).lightness() + 10);

        QVERIFY(!v.animating());
        w.put("a", Phase::running, {}, 1);
        QVERIFY(v.animating());
        // Hidden, the ring stops; shown again while it still waits, it resumes.
        w.set("widget.visible", false);
        QVERIFY(!v.animating());
        w.set("widget.visible", true);
        QVERIFY(v.animating());
        w.put("a", Phase::idle);
        QVERIFY(!v.animating());
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
        QCOMPARE(view.helpTextAt(chevron()), "Hide background runs");
        view.clickAt(chevron());
        QCOMPARE(view.rows().size(), std::size_t(1));
        QCOMPARE(view.helpTextAt(chevron()), "Show background runs");
        QVERIFY(view.helpTextAt(view.rows().front().frame.center()).isEmpty() && w.jumper.jumped.empty());
    }

    void showsWhatThereIsAndFollowsItsSettings()
    {
        Widget w;
        w.makePanel().refreshVisibility();
        QVERIFY(w.panel->isShown()); // no sessions and no hooks: it offers to connect
        QCOMPARE(w.view().noticeTitle(), "Connect Claude Code");
        int extended = 0;
        w.panel->setCardMenuExtension([&](QMenu& menu) { extended = int(menu.actions().size()); });
        QMenu menu;
        w.view().fillCardMenu(menu);
        QCOMPARE(extended, 4); // after Compact, Settings…, a divider and Quit
        menu.actions().front()->trigger();
        QVERIFY(w.setting("widget.compact"));

        w.model->connectClaudeCode();
        w.model->refreshHookState();
        w.panel->refreshVisibility();
        QVERIFY(!w.panel->isShown()); // connected and empty: nothing to show
        w.put("a", Phase::running);
        w.panel->refreshVisibility();
        QVERIFY(w.panel->isShown());
        QVERIFY(!w.setting("widget.compact")); // the first session expands it
        w.set("widget.compact", true);         // later sessions leave the user's choice alone
        w.put("b", Phase::running);
        QVERIFY(w.setting("widget.compact"));

        w.set("widget.visible", false);
        QVERIFY(!w.panel->isShown());
        w.makePanel().refreshVisibility();
        QVERIFY(!w.panel->isShown());
    }
};

QTEST_MAIN(WidgetTests)
#include "WidgetTests.moc"
