#include "Skeldrin/model/AppSettings.h"
#include "Skeldrin/model/Palette.h"
#include "Skeldrin/model/Placement.h"
#include "Skeldrin/model/SessionsModel.h"
#include "Skeldrin/model/Updates.h"
#include "Skeldrin/ui/HoverBar.h"
#include "Skeldrin/ui/StatusDot.h"
#include "Skeldrin/ui/WidgetPanel.h"
#include "Skeldrin/ui/WidgetView.h"
#include <QMenu>

#include <QApplication>
#include <QImage>
#include <QMouseEvent>
#include <QTemporaryDir>
#include <QtTest>

using namespace skeldrin;
namespace fs = std::filesystem;
using namespace std::chrono;

namespace {

class RecordingJumper : public ImmediateJumper {
  public:
    void jump(const Session& s) override { jumped.push_back(s.id); }
    std::vector<std::string> jumped;
};

class NoProcesses : public ProcessTable {
  public:
    bool isAlive(const ProcessRef&) const override { return false; }
    std::optional<std::string> executablePath(std::int32_t) const override { return std::nullopt; }
};

// A 1440 × 900 screen; Qt's y runs down from its top.
const QRect kScreen(0, 0, 1440, 900);

} // namespace

class WidgetTests : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> temp;
    std::unique_ptr<SessionStore> store;
    std::unique_ptr<AppSettings> settings;
    std::unique_ptr<Updates> updates;
    std::unique_ptr<SessionsModel> model;
    std::unique_ptr<WidgetPanel> panel;
    RecordingJumper jumper;
    NoProcesses processes;
    QPointF pointer;
    qint64 milliseconds = 0;

    void put(const std::string& id, Phase phase, std::optional<std::string> prompt = std::nullopt,
             int pendingApprovals = 0, std::optional<std::string> parent = std::nullopt)
    {
        Session s(id, "claude", "/work/" + id, {}, std::nullopt,
                  time_point_cast<microseconds>(system_clock::now()));
        s.phase = phase;
        s.lastPrompt = std::move(prompt);
        s.pendingApprovals = pendingApprovals;
        s.parentId = std::move(parent);
        store->update(id, [&](const auto&) { return std::optional(s); });
    }
    void makePanel()
    {
        WidgetPanel::Environment env;
        env.screens = [] { return QList<WidgetPanel::Screen>{{kScreen, kScreen}}; };
        env.pointer = [this] { return pointer; };
        env.milliseconds = [this] { return milliseconds; };
        panel = std::make_unique<WidgetPanel>(*model, *updates, *settings, WidgetPanel::Callbacks{}, nullptr,
                                              env);
    }
    WidgetView& view() { return *static_cast<WidgetView*>(panel->widget()); }
    void mouse(QEvent::Type type, QPointF global, Qt::MouseButtons buttons)
    {
        QWidget* w = panel->widget();
        const QPointF local = global - QPointF(w->geometry().topLeft());
        QMouseEvent event(type, local, local, global, Qt::LeftButton, buttons, Qt::NoModifier);
        QApplication::sendEvent(w, &event);
    }

  private Q_SLOTS:
    void init()
    {
        temp = std::make_unique<QTemporaryDir>();
        const fs::path root = temp->path().toStdString();
        store = std::make_unique<SessionStore>(root / "sessions");
        settings = std::make_unique<AppSettings>(temp->filePath("settings.ini"));
        updates = std::make_unique<Updates>(Updates::Dependencies{});
        SessionsModel::Dependencies deps;
        deps.jumper = &jumper;
        deps.processes = &processes;
        deps.settings = settings.get();
        deps.hookExecutable = root / "app/skeldrin-hook";
        deps.claudeSettings = root / "claude/settings.json";
        deps.cycleMilliseconds = 3600 * 1000;
        model = std::make_unique<SessionsModel>(*store, std::move(deps));
        jumper.jumped.clear();
        pointer = {};
        milliseconds = 0;
    }
    void cleanup()
    {
        panel.reset();
        model.reset();
    }

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
        if (visibleSetting.isValid()) settings->setValue(QStringLiteral("widget.visible"), visibleSetting);
        if (connected) model->connectClaudeCode();
        model->refreshHookState();
        if (sessions) put("a", Phase::running);
        model->reload();
        makePanel();
        panel->refreshVisibility();
        QCOMPARE(panel->isShown(), shown);
        // Turning the setting off always hides it.
        settings->setValue(QStringLiteral("widget.visible"), false);
        QVERIFY(!panel->isShown());
    }

    void firstSessionExpandsACompactWidget()
    {
        makePanel();
        settings->setValue(QStringLiteral("widget.compact"), true);
        put("a", Phase::running);
        model->reload();
        QCOMPARE(settings->boolValue(QStringLiteral("widget.compact"), true), false);
        // Later sessions leave the user's choice alone.
        settings->setValue(QStringLiteral("widget.compact"), true);
        put("b", Phase::running);
        model->reload();
        QCOMPARE(settings->boolValue(QStringLiteral("widget.compact"), false), true);
    }

    void dragSnapsAndSavesClickJumps_data()
    {
        QTest::addColumn<QPointF>("move");
        QTest::addColumn<bool>("jumps");
        QTest::addColumn<QString>("saved"); // the placement's anchors, empty: nothing saved
        QTest::newRow("3 points is a click") << QPointF(3, 0) << true << "";
        QTest::newRow("39 points off the right edge snaps back") << QPointF(-39, 0) << false << "max center";
        QTest::newRow("free in the middle") << QPointF(-400, 0) << false << "center center";
        QTest::newRow("past the bottom") << QPointF(-400, 1000) << false << "center min";
    }
    void dragSnapsAndSavesClickJumps()
    {
        QFETCH(QPointF, move);
        QFETCH(bool, jumps);
        QFETCH(QString, saved);
        put("a", Phase::running);
        model->reload();
        makePanel();
        panel->refreshVisibility();
        const QRect before = panel->widget()->geometry();
        // The default spot: right edge 8 points in from the screen's, vertically centred.
        QCOMPARE(before.right() + 1, 1432);
        const QPointF start = QPointF(before.topLeft()) + view().rows().front().frame.center();
        mouse(QEvent::MouseButtonPress, start, Qt::LeftButton);
        mouse(QEvent::MouseMove, start + move / 2, Qt::LeftButton);
        mouse(QEvent::MouseMove, start + move, Qt::LeftButton);
        mouse(QEvent::MouseButtonRelease, start + move, Qt::NoButton);
        QCOMPARE(!jumper.jumped.empty(), jumps);
        const QByteArray json = settings->value(QStringLiteral("widget.placement")).toByteArray();
        if (saved.isEmpty()) {
            QVERIFY(json.isEmpty());
            QCOMPARE(panel->widget()->geometry(), before);
            return;
        }
        const auto placement = Placement::fromJson(json, {YUpRect{0, 0, 1440, 900}});
        QVERIFY2(placement, json.constData());
        const QStringList anchors = saved.split(' ');
        QCOMPARE(json.contains("\"x\":\"" + anchors[0].toLatin1() + "\""), true);
        QCOMPARE(json.contains("\"y\":\"" + anchors[1].toLatin1() + "\""), true);
        // The widget settles where the placement says, and a new panel starts there.
        const QRectF exact = toQt(placement->frame(QSizeF(before.size()), {0, 0, 1440, 900}), 900);
        const QRect end(qRound(exact.x()), qRound(exact.y()), before.width(), before.height());
        QTRY_COMPARE(panel->widget()->geometry(), end);
        panel.reset();
        makePanel();
        panel->refreshVisibility();
        QCOMPARE(panel->widget()->geometry(), end);
    }

    void pointingShowsTheBarUntilThePointerLingersOutside()
    {
        put("a", Phase::running, "Fix the build");
        put("b", Phase::idle);
        model->reload();
        makePanel();
        panel->refreshVisibility();
        auto& bar = *static_cast<HoverBar*>(panel->bar());
        QCOMPARE(bar.details(),
                 (QStringList{"Skeldrin", "2 sessions", "Point at a session to see what it's doing"}));
        const auto& row = view().rows().back();
        pointer = QPointF(panel->widget()->geometry().topLeft()) + row.frame.center();
        mouse(QEvent::MouseMove, pointer, Qt::NoButton);
        QVERIFY(panel->isBarShown());
        QCOMPARE(bar.details().size(), 4);
        QCOMPARE(bar.details().last(), row.entry.session.lastPrompt ? QStringLiteral("Fix the build")
                                                                    : QStringLiteral("No prompt yet"));
        // The bar sits 6 points from the widget, on the side with more room.
        const QRect w = panel->widget()->geometry(), b = panel->bar()->geometry();
        QVERIFY(b.top() == w.bottom() + 1 + 6 || b.bottom() + 1 + 6 == w.top());
        pointer = QPointF(10, 10);
        panel->checkPointer();
        milliseconds += 200;
        panel->checkPointer();
        QVERIFY(panel->isBarShown());
        milliseconds += 50;
        panel->checkPointer();
        QVERIFY(!panel->isBarShown());
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
        put("a", Phase::running);
        put("b", Phase::idle);
        model->reload();
        settings->setValue(QStringLiteral("widget.compact"), compact);
        Palette::setColor(Status::running, QColor(QStringLiteral("#FF00FF")), *settings);
        makePanel();
        WidgetView& v = view();
        QCOMPARE(v.sizeHint().width(), width);
        QCOMPARE(v.rows().size(), std::size_t(2));
        QImage image(v.sizeHint(), QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        v.render(&image);
        for (const auto& row : v.rows()) {
            QCOMPARE(row.frame.width(), 260.0);
            const QColor painted = image.pixelColor(row.dot.toPoint());
            QCOMPARE(painted.rgb(), Palette::color(row.entry.shade, *settings).rgb());
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
        put("a", Phase::running);
        model->reload();
        makePanel();
        panel->refreshVisibility();
        QVERIFY(!view().animating());
        put("a", Phase::running, std::nullopt, 1);
        model->reload();
        QVERIFY(view().animating());
        // Hidden, the ring stops; shown again while it still waits, it resumes.
        settings->setValue(QStringLiteral("widget.visible"), false);
        QVERIFY(!view().animating());
        settings->setValue(QStringLiteral("widget.visible"), true);
        QVERIFY(view().animating());
        put("a", Phase::idle);
        model->reload();
        QVERIFY(!view().animating());
        QVERIFY(!PingClock::shared().running()); // no timer left behind
    }

    void chevronFoldsRunsAndSaysSo()
    {
        put("a", Phase::idle);
        put("b", Phase::running, std::nullopt, 0, "a");
        model->reload();
        makePanel();
        const auto chevron = [&] { return view().rows().front().toggle.center(); };
        QCOMPARE(view().rows().size(), std::size_t(2));
        QCOMPARE(view().helpTextAt(chevron()), QStringLiteral("Hide background runs"));
        view().clickAt(chevron());
        QCOMPARE(view().rows().size(), std::size_t(1));
        QCOMPARE(view().helpTextAt(chevron()), QStringLiteral("Show background runs"));
        QCOMPARE(view().helpTextAt(view().rows().front().frame.center()), QString());
        QVERIFY(jumper.jumped.empty());
    }

    void noticeAndMenusSayWhatTheyDo()
    {
        makePanel();
        // No sessions and no hooks: the card offers to connect.
        QCOMPARE(view().noticeTitle(), QStringLiteral("Connect Claude Code"));
        QCOMPARE(WidgetView::updateTitle(*updates, "2.1"), QStringLiteral("Update to 2.1"));
        bool extended = false;
        panel->setCardMenuExtension([&](QMenu& menu) {
            extended = true;
            QCOMPARE(menu.actions().size(), 4); // Compact, Settings…, divider, Quit
        });
        QMenu menu;
        view().fillCardMenu(menu);
        QVERIFY(extended);
        menu.actions().front()->trigger();
        QCOMPARE(settings->boolValue(QStringLiteral("widget.compact"), false), true);
    }
};

QTEST_MAIN(WidgetTests)
#include "WidgetTests.moc"
