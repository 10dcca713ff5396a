#include "AppFixture.h"
#include "Skeldrin/model/Palette.h"
#include "Skeldrin/platform/LoginItem.h"
#include "Skeldrin/ui/AppDelegate.h"
#include "Skeldrin/ui/SettingsView.h"
#include "tests/support/TestFiles.h"

#include <QColorDialog>
#include <QApplication>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QtTest>

using namespace skeldrin;
using namespace skeldrin::test;

extern "C" void skeldrin_fail(const char* rule);

namespace {

template <typename T = Switch> T& child(SettingsView& view, const char* name)
{
    auto* found = view.findChild<T*>(QLatin1String(name));
    if (!found) qFatal("no %s", name);
    return *found;
}

} // namespace

class SettingsViewTests : public QObject {
    Q_OBJECT

    QTemporaryDir config;

  private Q_SLOTS:
    void initTestCase()
    {
        // The autostart entry goes under $XDG_CONFIG_HOME: a temporary one, never the user's.
        qputenv("XDG_CONFIG_HOME", config.path().toUtf8());
        QStandardPaths::setTestModeEnabled(false);
    }

    void colorPanelPlacement_data()
    {
        QTest::addColumn<QRectF>("window");
        QTest::addColumn<QPointF>("origin");
        // A 1440 × 900 screen whose visible part starts under a 25 point bar; the panel is 220 × 300.
        QTest::newRow("room on the right") << QRectF(400, 200, 300, 400) << QPointF(712, 200);
        QTest::newRow("near the right edge: on the left") << QRectF(1100, 200, 300, 400) << QPointF(868, 200);
        QTest::newRow("exactly fits on the right") << QRectF(908, 200, 300, 400) << QPointF(1220, 200);
        QTest::newRow("near the bottom: pushed up") << QRectF(400, 700, 300, 150) << QPointF(712, 600);
        QTest::newRow("above the visible top: pushed down") << QRectF(400, 0, 300, 150) << QPointF(712, 25);
        QTest::newRow("no room on either side: at the left edge")
            << QRectF(100, 200, 1250, 400) << QPointF(0, 200);
    }
    void colorPanelPlacement()
    {
        QFETCH(QRectF, window);
        QFETCH(QPointF, origin);
        QCOMPARE(colorPanelOrigin(window, QSizeF(220, 300), QRectF(0, 25, 1440, 875)), origin);
    }

    void claudeCodeSwitchEditsTheSettingsFile()
    {
        AppFixture app;
        std::filesystem::create_directories(app.claudeSettings.parent_path());
        writeText(app.claudeSettings, R"({"model": "opus"})");
        SettingsView view(*app.model, app.settings);
        Switch& connected = child(view, "claudeCode");
        QVERIFY(!connected.isChecked());
        connected.click();
        QVERIFY(connected.isChecked());
        QCOMPARE(app.model->hookState(), HookInstaller::State::installed);
        const std::string installed = readText(app.claudeSettings);
        QVERIFY(installed.find("skeldrin-hook") != std::string::npos);
        QVERIFY(installed.find("\"opus\"") != std::string::npos); // the user's own settings stay
        connected.click();
        QVERIFY(!connected.isChecked());
        QVERIFY(readText(app.claudeSettings).find("skeldrin-hook") == std::string::npos);
    }

    // A failure to read or write Claude Code's settings reaches the user in the app's real alert, the
    // switch snaps back, and the user's file stays as it was.
    void claudeSettingsFailureIsShown_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QByteArray>("fail"); // a system call that fails while writing
        QTest::addColumn<QString>("reason");
        QTest::newRow("unreadable") << QByteArray("{ not json") << QByteArray() << "valid JSON";
        QTest::newRow("disk full") << QByteArray(R"({"model": "opus"})") << QByteArray("write:28")
                                   << "No space left on device";
        QTest::newRow("I/O error on rename")
            << QByteArray(R"({"model": "opus"})") << QByteArray("rename:5") << "Input/output error";
    }
    void claudeSettingsFailureIsShown()
    {
        QFETCH(QByteArray, content);
        QFETCH(QByteArray, fail);
        QFETCH(QString, reason);
        MessageBoxAlerts alerts;
        AppFixture app(&alerts);
        std::filesystem::create_directories(app.claudeSettings.parent_path());
        writeText(app.claudeSettings, content.toStdString());
        SettingsView view(*app.model, app.settings);

        QStringList shown; // read off the message box, which is then dismissed
        QTimer dismiss;
        connect(&dismiss, &QTimer::timeout, this, [&] {
            if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
                shown << box->text() + " | " + box->informativeText();
                box->accept();
            }
        });
        dismiss.start(10);
        skeldrin_fail(fail.isEmpty() ? nullptr : fail.constData());
        child(view, "claudeCode").click();
        skeldrin_fail(nullptr);

        QVERIFY(!child(view, "claudeCode").isChecked());
        QCOMPARE(shown.size(), 1);
        QVERIFY2(shown.front().startsWith(QStringLiteral("Couldn't update Claude Code settings | ")),
                 qPrintable(shown.front()));
        QVERIFY2(shown.front().contains(reason), qPrintable(shown.front()));
        QCOMPARE(QByteArray::fromStdString(readText(app.claudeSettings)), content);
    }

        void switchesWriteAndFollowTheirKeys()
    {
        AppFixture app;
        SettingsView view(*app.model, app.settings);
        // Each switch starts from its default, writes its key, and follows it when set elsewhere (the tray
        // menu).
        for (const auto& [name, key, byDefault] :
             {std::tuple{"compact", "widget.compact", false},
              {"notifications.waiting", "notifications.waiting", true},
              {"notifications.finished", "notifications.finished", false}}) {
            Switch& toggle = child(view, name);
            QCOMPARE(toggle.isChecked(), byDefault);
            toggle.click();
            QCOMPARE(app.setting(key), !byDefault);
            app.set(key, byDefault);
            QCOMPARE(toggle.isChecked(), byDefault);
        }
        child(view, "headlines").click();
        QVERIFY(app.model->headlinesEnabled());
        app.model->setHeadlinesEnabled(false);
        QVERIFY(!child(view, "headlines").isChecked());
        QVERIFY(child<QLabel>(view, "headlineError").isHidden());
    }

    void colourRowsAndReset()
    {
        AppFixture app;
        SettingsView view(*app.model, app.settings);
        child<QPushButton>(view, "color.waiting").click();
        QColorDialog* panel = view.colorPanel();
        QVERIFY(panel);
        QVERIFY(!panel->isModal());
        QVERIFY(!panel->testOption(QColorDialog::ShowAlphaChannel));
        QCOMPARE(panel->currentColor(), QColor(0xFF, 0xD6, 0x0A));
        panel->setCurrentColor(QColor(0x12, 0x34, 0x56));
        QCOMPARE(app.settings.value(QStringLiteral("color.waiting")).toString(), QStringLiteral("#123456"));

        child<QPushButton>(view, "color.ready").click();
        QCOMPARE(view.colorPanel(), panel); // one panel, reused
        panel->setCurrentColor(QColor(0x65, 0x43, 0x21));
        QCOMPARE(app.settings.value(QStringLiteral("color.ready")).toString(), QStringLiteral("#654321"));
        QVERIFY(!app.settings.contains(QStringLiteral("color.running")));

        child<QPushButton>(view, "reset").click();
        for (Status s : allStatuses)
            QVERIFY(!app.settings.contains(Palette::key(s)));
    }

    void openAtLoginWritesTheAutostartEntry_data()
    {
        QTest::addColumn<bool>("blocked"); // a file where the autostart folder goes
        QTest::newRow("writable") << false;
        QTest::newRow("a file in the way") << true;
    }
    void openAtLoginWritesTheAutostartEntry()
    {
        QFETCH(bool, blocked);
        const QString autostart = config.filePath(QStringLiteral("autostart"));
        const QString entry = autostart + QStringLiteral("/skeldrin.desktop");
        QDir(autostart).removeRecursively();
        if (blocked) writeText(autostart.toStdString(), "not a folder");
        AppFixture app;
        SettingsView view(*app.model, app.settings);
        Switch& login = child(view, "openAtLogin");
        const QLabel& error = child<QLabel>(view, "loginError");
        QVERIFY(!login.isChecked());
        QVERIFY(error.isHidden());
        login.click();
        if (blocked) {
            QFile::remove(autostart);
            QVERIFY(!login.isChecked()); // snapped back to what is really there
            QVERIFY(!error.isHidden());
            QVERIFY(error.text().startsWith(QStringLiteral("Couldn't ")));
            QVERIFY(error.text().contains(autostart));
            return;
        }
        QVERIFY(login.isChecked());
        QVERIFY(LoginItem::isEnabled());
        const QString text = QString::fromStdString(readText(entry.toStdString()));
        QVERIFY(text.startsWith(QStringLiteral("[Desktop Entry]\n")));
        QVERIFY(text.contains(QStringLiteral("Exec=\"") + QCoreApplication::applicationFilePath() +
                              QLatin1Char('"')));
        login.click();
        QVERIFY(!login.isChecked());
        QVERIFY(!QFile::exists(entry));
    }
};

QTEST_MAIN(SettingsViewTests)
#include "SettingsViewTests.moc"
