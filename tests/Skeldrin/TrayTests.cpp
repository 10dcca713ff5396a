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

namespace {

// Where the badge and the notch sit on the 17 × 18 point canvas, y down, drawn at 4 pixels a point.
constexpr int side = 18 * 4;
QPoint at(double x, double y)
{
    return {int((side - 17 * 4) / 2 + x * 4), int(y * 4)};
}
const QPoint badgeCentre = at(13.64, 9.8);
const QPoint notchRing = at(13.64, 9.8 - 3.25); // inside the notch, outside the badge, on the artwork's edge

// One line per item: its title, then what sets it apart from an enabled, plain top-level entry.
QStringList menu(const std::vector<TrayMenuItem>& items)
{
    QStringList out;
    for (const auto& i : items) {
        QString line = i.action == Action::separator ? QStringLiteral("---") : i.title;
        if (i.action == Action::jump) line += " >" + i.argument;
        if (!i.enabled && i.action != Action::separator) line += " disabled";
        if (i.checked) line += " checked";
        if (i.hollow) line += " hollow";
        if (i.indentation) line += QStringLiteral(" indent %1").arg(i.indentation);
        if (i.dot) line += " " + i.dot->name();
        if (!i.tooltip.isEmpty()) line += " \"" + i.tooltip + '"';
        out << line;
    }
    return out;
}

// The tray and the widget over a temporary model, counting the settings and quit callbacks.
struct Tray : AppFixture {
    int settingsOpened = 0, quits = 0;
    WidgetPanel widget{*model, updates, settings, {}};
    StatusBarController::Callbacks counting{[this] { ++settingsOpened; }, [this] { ++quits; }};
    StatusBarController tray{*model, updates, widget, settings, MenuBarIcon::artwork(), counting};

    std::vector<TrayMenuItem> items() { return trayMenuItems(*model, updates, settings); }
    TrayMenuItem item(const QString& title)
    {
        for (const auto& item : items())
            if (item.title == title) return item;
        qFatal("no menu item %s", qPrintable(title));
    }
};

} // namespace

class TrayTests : public QObject {
    Q_OBJECT
  private Q_SLOTS:
    void menuWithoutSessionsOffersTheUpdate()
    {
        for (const auto& [required, awaiting, first] : {std::tuple{false, false, ""},
                                                        {true, false, "Update to 1.4.2…|"},
                                                        {true, true, "Drag Skeldrin to Applications…|"}}) {
            AppFixture app;
            app.updates.set(required ? std::optional(UpdateManifest{"1.4.2", QUrl("https://x/S.dmg"), {}})
                                     : std::nullopt,
                            false, awaiting);
            const auto items = trayMenuItems(*app.model, app.updates, app.settings);
            QCOMPARE(menu(items).join('|'), first + QStringLiteral("No Claude Code sessions disabled|---|"
                                                                   "Show Widget checked|Compact Widget|---|"
                                                                   "Settings…|Quit Skeldrin"));
            QCOMPARE(items.front().action == Action::installUpdate, required);
        }
    }

    void sessionRows()
    {
        AppFixture app;
        app.put("a-iterm", [](Session& s) {
            s.origin.termProgram = "iTerm.app";
            s.pendingApprovals = 1;
            s.lastPrompt = "Fix the parser";
        });
        app.put("b-child", Phase::running, "a-iterm");
        app.put("c-sdk", [](Session& s) { s.origin.entrypoint = "sdk-ts"; });
        app.put("d-seen", [](Session& s) { s.seenAt = s.startedAt; });
        app.put("e-parent");
        app.put("f-run", Phase::running, "e-parent");
        Palette::setColor(Status::waiting, QColor(1, 2, 3), app.settings);

        QCOMPARE(
            menu(trayMenuItems(*app.model, app.updates, app.settings)).mid(0, 7),
            (QStringList{"a-iterm  ·  iTerm >a-iterm #010203 \"Fix the parser\"",
                         "b-child disabled indent 1 #0a84ff", "d-seen  ·  Terminal >d-seen hollow #30d158",
                         "e-parent  ·  Terminal >e-parent #8e8e93", // waiting on its runs
                         "f-run disabled indent 1 #0a84ff", "c-sdk  ·  Background disabled hollow #30d158",
                         "---"}));
    }

    void iconMenuActionsSwitchesAndKeysFollowTheModel()
    {
        Tray app;
        // The badge sits in a notch punched out of the artwork.
        const QImage plain = MenuBarIcon::image(MenuBarIcon::artwork(), Qt::white, std::nullopt, side);
        QVERIFY(qAlpha(plain.pixel(notchRing)) > 200); // the artwork's edge runs there
        QCOMPARE(QColor(plain.pixel(badgeCentre)), QColor(Qt::white));
        QCOMPARE(
            qAlpha(MenuBarIcon::image(MenuBarIcon::artwork(), Qt::white, Qt::red, side).pixel(notchRing)), 0);
        const auto toolTip = [&] { return app.tray.trayIcon().toolTip(); };
        const auto badge = [&] {
            return QColor(app.tray.trayIcon().icon().pixmap(side).toImage().pixel(badgeCentre));
        };
        QCOMPARE(toolTip(), "Skeldrin — nothing needs you");
        app.put("s", Phase::running);
        QCOMPARE(toolTip(), "Skeldrin — Running");
        app.put("s", Phase::idle, {}, 2);
        QCOMPARE(toolTip(), "Skeldrin — Needs several approvals");
        QCOMPARE(badge(), QColor(0xFF, 0x45, 0x3A));
        Palette::setColor(Status::multiStepWaiting, QColor(0x11, 0x22, 0x33), app.settings);
        QCOMPARE(badge(), QColor(0x11, 0x22, 0x33));

        app.put("s", [](Session& s) { s.lastPrompt = "Say hello"; }); // the same session, no longer waiting
        app.widget.refreshVisibility();
        QVERIFY(app.widget.isShown());
        QVERIFY(app.item("Show Widget").checked && !app.item("Compact Widget").checked);
        app.tray.perform(app.item("Show Widget"));
        app.tray.perform(app.item("Compact Widget"));
        QVERIFY(!app.setting("widget.visible") && app.setting("widget.compact"));
        QVERIFY(!app.widget.isShown()); // hidden at once, not at the next cycle
        app.tray.perform(app.item("Show Widget"));
        QVERIFY(app.setting("widget.visible") && app.widget.isShown());

        TrayMenuItem gone = app.items().front();
        app.tray.perform(gone);
        gone.argument = QStringLiteral("no-such-session");
        app.tray.perform(gone);
        QCOMPARE(app.jumper.jumped, std::vector<std::string>{"s"});

        QMenu* menu = app.tray.trayIcon().contextMenu();
        Q_EMIT menu->aboutToShow();
        const auto actions = menu->actions();
        QCOMPARE(actions[0]->text() + " | " + actions[0]->toolTip(), "s  ·  Terminal | Say hello");
        QVERIFY(!actions[0]->icon().isNull() && actions[1]->isSeparator());
        QVERIFY(actions[2]->isCheckable() && actions[2]->isChecked());

        // Without a tray the same entries go under the widget's card menu.
        QMenu card;
        card.addAction(QStringLiteral("Own entry"));
        app.tray.appendMenu(card);
        QCOMPARE(card.actions().size(), 1 + 1 + 7);
        card.actions().last()->trigger();
        card.actions()[card.actions().size() - 2]->trigger();
        QVERIFY(app.quits == 1 && app.settingsOpened == 1);
        // The key equivalents work in the card menu too; the letter alone is not one.
        QTest::keyClick(&card, Qt::Key_Q, Qt::ControlModifier);
        QTest::keyClick(&card, Qt::Key_Q);
        QCOMPARE(app.quits, 2);
    }
};

QTEST_MAIN(TrayTests)
#include "TrayTests.moc"
