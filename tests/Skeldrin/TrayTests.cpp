#include "AppFixture.h"
#include "Skeldrin/model/Palette.h"
#include "Skeldrin/ui/MenuBarIcon.h"
#include "Skeldrin/ui/StatusBarController.h"
#include "Skeldrin/ui/TrayMenu.h"
#include "Skeldrin/ui/WidgetPanel.h"

#include <QMenu>
#include <QSystemTrayIcon>
#include <QtTest>

using namespace skeldrin;
using namespace skeldrin::test;
using Action = TrayMenuItem::Action;
Q_DECLARE_METATYPE(skeldrin::Status)

namespace {

QString titles(const std::vector<TrayMenuItem>& items)
{
    QStringList out;
    for (const auto& item : items)
        out << (item.action == Action::separator ? QStringLiteral("---") : item.title);
    return out.join(QLatin1Char('|'));
}

const TrayMenuItem& itemTitled(const std::vector<TrayMenuItem>& items, const QString& title)
{
    for (const auto& item : items)
        if (item.title == title) return item;
    qFatal("no menu item %s", qPrintable(title));
}

// Where the badge and the notch sit on the 17 × 18 point canvas, y down, drawn at 4 pixels a point.
constexpr int pixelsPerPoint = 4;
constexpr int side = 18 * pixelsPerPoint;
QPoint at(double x, double y)
{
    return {int((side - 17 * pixelsPerPoint) / 2 + x * pixelsPerPoint), int(y * pixelsPerPoint)};
}
const QPoint badgeCentre = at(13.64, 9.8);
const QPoint notchRing = at(13.64, 9.8 - 3.25); // inside the notch, outside the badge, on the artwork's edge

} // namespace

class TrayTests : public QObject {
    Q_OBJECT
  private Q_SLOTS:
    void menuWithoutSessions_data()
    {
        QTest::addColumn<bool>("required");
        QTest::addColumn<bool>("downloading");
        QTest::addColumn<bool>("awaiting");
        QTest::addColumn<QString>("first");
        const QString rest = QStringLiteral(
            "No Claude Code sessions|---|Show Widget|Compact Widget|---|Settings…|Quit Skeldrin");
        QTest::newRow("up to date") << false << false << false << rest;
        QTest::newRow("update pending")
            << true << false << false << QStringLiteral("Update to 1.4.2…|") + rest;
        QTest::newRow("downloading") << true << true << false << QStringLiteral("Update to 1.4.2…|") + rest;
        QTest::newRow("awaiting install")
            << true << false << true << QStringLiteral("Drag Skeldrin to Applications…|") + rest;
    }
    void menuWithoutSessions()
    {
        QFETCH(bool, required);
        QFETCH(bool, downloading);
        QFETCH(bool, awaiting);
        QFETCH(QString, first);
        AppFixture app;
        std::optional<UpdateManifest> manifest;
        if (required)
            manifest = UpdateManifest{QStringLiteral("1.4.2"), QUrl(QStringLiteral("https://x/S.dmg")), {}};
        app.updates.set(manifest, downloading, awaiting);

        const auto items = trayMenuItems(*app.model, app.updates, app.settings);
        QCOMPARE(titles(items), first);
        QVERIFY(!itemTitled(items, QStringLiteral("No Claude Code sessions")).enabled);
        if (required) QCOMPARE(items.front().action, Action::installUpdate);
    }

    void sessionRows()
    {
        AppFixture app;
        app.put("a-iterm", [](Session& s) {
            s.origin.termProgram = "iTerm.app";
            s.pendingApprovals = 1;
            s.lastPrompt = "Fix the parser";
        });
        app.put("b-child", [](Session& s) {
            s.parentId = "a-iterm";
            s.phase = Phase::running;
        });
        app.put("c-sdk", [](Session& s) { s.origin.entrypoint = "sdk-ts"; });
        app.put("d-seen", [](Session& s) { s.seenAt = s.startedAt; });
        Palette::setColor(Status::waiting, QColor(1, 2, 3), app.settings);

        const auto items = trayMenuItems(*app.model, app.updates, app.settings);
        const auto& iterm = items[0];
        QCOMPARE(iterm.title, QStringLiteral("a-iterm  ·  iTerm"));
        QCOMPARE(iterm.action, Action::jump);
        QCOMPARE(iterm.argument, QStringLiteral("a-iterm"));
        QCOMPARE(iterm.dot, std::optional(QColor(1, 2, 3)));
        QVERIFY(!iterm.hollow);
        QCOMPARE(iterm.tooltip, QStringLiteral("Fix the parser"));

        const auto& child = items[1];
        QCOMPARE(child.title, QStringLiteral("b-child"));
        QCOMPARE(child.indentation, 1);
        QVERIFY(!child.enabled);
        QCOMPARE(child.action, Action::none);
        QCOMPARE(child.dot, std::optional(QColor(0x0A, 0x84, 0xFF)));
        QVERIFY(child.tooltip.isEmpty());

        const auto& seen = items[2];
        QCOMPARE(seen.title, QStringLiteral("d-seen  ·  Terminal"));
        QVERIFY(seen.hollow);
        QVERIFY(seen.enabled);

        const auto& detached = items[3];
        QCOMPARE(detached.title, QStringLiteral("c-sdk  ·  Background"));
        QVERIFY(!detached.enabled);
        QVERIFY(detached.hollow);
        QCOMPARE(items[4].action, Action::separator);
    }

    void parentWaitingOnRunsIsGrey()
    {
        AppFixture app;
        app.put("p");
        app.put("k", [](Session& s) {
            s.parentId = "p";
            s.phase = Phase::running;
        });
        QCOMPARE(trayMenuItems(*app.model, app.updates, app.settings).front().dot,
                 std::optional(Palette::waitingOnRuns()));
    }

    void switchesReadAndFlipTheirKeys()
    {
        AppFixture app;
        app.put("one");
        WidgetPanel widget(*app.model, app.updates, app.settings, {});
        widget.refreshVisibility();
        QVERIFY(widget.isShown());
        StatusBarController tray(*app.model, app.updates, widget, app.settings, MenuBarIcon::artwork(), {});
        auto items = trayMenuItems(*app.model, app.updates, app.settings);
        QVERIFY(itemTitled(items, QStringLiteral("Show Widget")).checked);     // default on
        QVERIFY(!itemTitled(items, QStringLiteral("Compact Widget")).checked); // default off

        tray.perform(itemTitled(items, QStringLiteral("Show Widget")));
        tray.perform(itemTitled(items, QStringLiteral("Compact Widget")));
        QCOMPARE(app.settings.value(QStringLiteral("widget.visible")).toBool(), false);
        QCOMPARE(app.settings.value(QStringLiteral("widget.compact")).toBool(), true);
        QVERIFY(!widget.isShown()); // hidden at once, not at the next cycle

        items = trayMenuItems(*app.model, app.updates, app.settings);
        QVERIFY(!itemTitled(items, QStringLiteral("Show Widget")).checked);
        tray.perform(itemTitled(items, QStringLiteral("Show Widget")));
        QCOMPARE(app.settings.value(QStringLiteral("widget.visible")).toBool(), true);
        QVERIFY(widget.isShown());
    }

    void actionsReachTheirTargets()
    {
        AppFixture app;
        app.put("one");
        WidgetPanel widget(*app.model, app.updates, app.settings, {});
        int settingsOpened = 0, quits = 0;
        StatusBarController tray(*app.model, app.updates, widget, app.settings, MenuBarIcon::artwork(),
                                 {[&] { ++settingsOpened; }, [&] { ++quits; }});
        const auto items = trayMenuItems(*app.model, app.updates, app.settings);
        tray.perform(items.front());
        TrayMenuItem gone = items.front();
        gone.argument = QStringLiteral("no-such-session");
        tray.perform(gone);
        QCOMPARE(app.jumper.jumped, std::vector<std::string>{"one"});
        tray.perform(itemTitled(items, QStringLiteral("Settings…")));
        tray.perform(itemTitled(items, QStringLiteral("Quit Skeldrin")));
        QCOMPARE(settingsOpened, 1);
        QCOMPARE(quits, 1);
    }

    void menuIsBuiltFromTheItems()
    {
        AppFixture app;
        app.put("one", [](Session& s) { s.lastPrompt = "Say hello"; });
        WidgetPanel widget(*app.model, app.updates, app.settings, {});
        StatusBarController tray(*app.model, app.updates, widget, app.settings, MenuBarIcon::artwork(), {});
        QMenu* menu = tray.trayIcon().contextMenu();
        Q_EMIT menu->aboutToShow();
        const auto actions = menu->actions();
        QCOMPARE(actions.size(), 7);
        QCOMPARE(actions[0]->text(), QStringLiteral("one  ·  Terminal"));
        QCOMPARE(actions[0]->toolTip(), QStringLiteral("Say hello"));
        QVERIFY(!actions[0]->icon().isNull());
        QVERIFY(actions[1]->isSeparator());
        QVERIFY(actions[2]->isCheckable() && actions[2]->isChecked());

        // Without a tray the same entries go under the widget's card menu.
        QMenu card;
        card.addAction(QStringLiteral("Own entry"));
        tray.appendMenu(card);
        QCOMPARE(card.actions().size(), 1 + 1 + 7);
        int quits = 0, settingsOpened = 0;
        StatusBarController quitting(*app.model, app.updates, widget, app.settings, MenuBarIcon::artwork(),
                                     {[&] { ++settingsOpened; }, [&] { ++quits; }});
        QMenu other;
        quitting.appendMenu(other);
        other.actions().last()->trigger();
        QCOMPARE(quits, 1);
        // The key equivalents work while either menu is open.
        QMenu* own = quitting.trayIcon().contextMenu();
        Q_EMIT own->aboutToShow();
        QTest::keyClick(own, Qt::Key_Comma, Qt::ControlModifier);
        QTest::keyClick(&other, Qt::Key_Q, Qt::ControlModifier);
        QTest::keyClick(own, Qt::Key_Q); // the letter alone is not the equivalent
        QCOMPARE(settingsOpened, 1);
        QCOMPARE(quits, 2);
    }

    void iconCarriesNotchAndBadge_data()
    {
        QTest::addColumn<Status>("status");
        for (Status s : allStatuses)
            QTest::newRow(label(s).data()) << s;
    }
    void iconCarriesNotchAndBadge()
    {
        QFETCH(Status, status);
        AppFixture app;
        const QColor colour = Palette::color(status, app.settings);
        const QImage plain = MenuBarIcon::image(MenuBarIcon::artwork(), Qt::white, std::nullopt, side);
        const QImage badged = MenuBarIcon::image(MenuBarIcon::artwork(), Qt::white, colour, side);
        QCOMPARE(plain.size(), QSize(side, side));
        QVERIFY(qAlpha(plain.pixel(notchRing)) > 200);                 // the artwork's edge runs there
        QCOMPARE(qAlpha(badged.pixel(notchRing)), 0);                  // punched out
        QCOMPARE(QColor(plain.pixel(badgeCentre)), QColor(Qt::white)); // the glyph, no badge
        QCOMPARE(QColor(badged.pixel(badgeCentre)), colour);
    }

    void trayFollowsTheModelAndTheColours()
    {
        AppFixture app;
        WidgetPanel widget(*app.model, app.updates, app.settings, {});
        StatusBarController tray(*app.model, app.updates, widget, app.settings, MenuBarIcon::artwork(), {});
        const auto badge = [&] {
            return QColor(tray.trayIcon().icon().pixmap(side).toImage().pixel(badgeCentre));
        };
        QCOMPARE(tray.trayIcon().toolTip(), QStringLiteral("Skeldrin — nothing needs you"));

        app.put("s", [](Session& s) { s.pendingApprovals = 2; });
        QCOMPARE(tray.trayIcon().toolTip(), QStringLiteral("Skeldrin — Needs several approvals"));
        QCOMPARE(badge(), QColor(0xFF, 0x45, 0x3A));

        Palette::setColor(Status::multiStepWaiting, QColor(0x11, 0x22, 0x33), app.settings);
        QCOMPARE(badge(), QColor(0x11, 0x22, 0x33));
        Palette::reset(app.settings);
        QCOMPARE(badge(), QColor(0xFF, 0x45, 0x3A));
    }

    void toolTipNamesTheMostUrgentStatus_data()
    {
        QTest::addColumn<int>("approvals");
        QTest::addColumn<bool>("running");
        QTest::addColumn<QString>("text");
        QTest::newRow("running") << 0 << true << QStringLiteral("Skeldrin — Running");
        QTest::newRow("ready") << 0 << false << QStringLiteral("Skeldrin — Ready");
        QTest::newRow("waiting") << 1 << false << QStringLiteral("Skeldrin — Needs approval");
        QTest::newRow("several") << 2 << false << QStringLiteral("Skeldrin — Needs several approvals");
    }
    void toolTipNamesTheMostUrgentStatus()
    {
        QFETCH(int, approvals);
        QFETCH(bool, running);
        QFETCH(QString, text);
        AppFixture app;
        app.put("s", [&](Session& s) {
            s.pendingApprovals = approvals;
            s.phase = running ? Phase::running : Phase::idle;
        });
        QCOMPARE(trayToolTip(*app.model), text);
    }
};

QTEST_MAIN(TrayTests)
#include "TrayTests.moc"
