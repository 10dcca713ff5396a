#include "AppFixture.h"
#include "Skeldrin/model/Palette.h"
#include "Skeldrin/platform/LoginItem.h"
#include "Skeldrin/ui/AppDelegate.h"
#include "Skeldrin/ui/SettingsView.h"
#include "tests/support/TestFiles.h"

#include <QApplication>
#include <QColorDialog>
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

    void colorPanelSitsBesideTheWindowOnScreen()
    {
        // A 1440 × 900 screen whose visible part starts under a 25 point bar; the panel is 220 × 300.
        const std::pair<QRectF, QPointF> cases[] = {
            {{908, 200, 300, 400}, {1220, 200}}, // exactly fits on the right
            {{1100, 700, 300, 150}, {868, 600}}, // else on the left; pushed up from the bottom
        };
        for (const auto& [window, origin] : cases)
            QCOMPARE(colorPanelOrigin(window, QSizeF(220, 300), QRectF(0, 25, 1440, 875)), origin);
    }

    // On, the switch writes the hook beside the user's own settings; off, it takes it out. When the file
    // cannot be read or written, the app's real alert says why, the switch snaps back and the file stays.
    void claudeCodeSwitchEditsTheSettingsFileOrSaysWhyNot_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QByteArray>("fail"); // a system call that fails while writing
        QTest::addColumn<QString>("reason");  // in the alert; empty: it worked
        QTest::newRow("works") << QByteArray(R"({"model": "opus"})") << QByteArray() << "";
        QTest::newRow("unreadable") << QByteArray("{ not json") << QByteArray() << "valid JSON";
        QTest::newRow("disk full") << QByteArray(R"({"model": "opus"})") << QByteArray("write:28")
                                   << "No space left on device";
    }
    void claudeCodeSwitchEditsTheSettingsFileOrSaysWhyNot()
    {
        QFETCH(QByteArray, content);
        QFETCH(QByteArray, fail);
        QFETCH(QString, reason);
        MessageBoxAlerts alerts;
        AppFixture app(&alerts);
        std::filesystem::create_directories(app.claudeSettings.parent_path());
        writeText(app.claudeSettings, content.toStdString());
        SettingsView view(*app.model, app.settings);
        Switch& connected = child(view, "claudeCode");

        QStringList shown; // read off the message box, which is then dismissed
        QTimer dismiss;
        connect(&dismiss, &QTimer::timeout, this, [&] {
            if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
                shown << box->text() + " | " + box->informativeText();
                box->accept();
            }
        });
        dismiss.start(10);
        QVERIFY(!connected.isChecked());
        skeldrin_fail(fail.isEmpty() ? nullptr : fail.constData());
        connected.click();
        skeldrin_fail(nullptr);
        if (!reason.isEmpty()) {
            QVERIFY(!connected.isChecked());
            QCOMPARE(shown.size(), 1);
            QVERIFY2(shown.front().startsWith(QStringLiteral("Couldn't update Claude Code settings | ")) &&
                         shown.front().contains(reason),
                     qPrintable(shown.front()));
            QCOMPARE(QByteArray::fromStdString(readText(app.claudeSettings)), content);
            return;
        }
        QVERIFY(connected.isChecked());
        QCOMPARE(app.model->hookState(), HookInstaller::State::installed);
        const QByteArray installed = QByteArray::fromStdString(readText(app.claudeSettings));
        QVERIFY(installed.contains("skeldrin-hook") && installed.contains("\"opus\""));
        connected.click();
        QVERIFY(!connected.isChecked() && shown.isEmpty());
        QVERIFY(readText(app.claudeSettings).find("skeldrin-hook") == std::string::npos);
    }

    void switchesColoursAndLoginWriteWhatTheySay()
    {
        const QString autostart = config.filePath(QStringLiteral("autostart"));
        writeText(autostart.toStdString(), "not a folder"); // a file where the folder goes
        AppFixture app;
        SettingsView view(*app.model, app.settings);
        // Each switch starts from its default, writes its key, and follows it when the tray menu sets it.
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

        child<QPushButton>(view, "color.waiting").click();
        QColorDialog* panel = view.colorPanel();
        QVERIFY(panel && !panel->isModal() && !panel->testOption(QColorDialog::ShowAlphaChannel));
        QCOMPARE(panel->currentColor(), QColor(0xFF, 0xD6, 0x0A));
        panel->setCurrentColor(QColor(0x12, 0x34, 0x56));
        QCOMPARE(app.settings.value("color.waiting").toString(), "#123456");

        child<QPushButton>(view, "color.ready").click();
        QCOMPARE(view.colorPanel(), panel); // one panel, reused
        panel->setCurrentColor(QColor(0x65, 0x43, 0x21));
        QCOMPARE(app.settings.value("color.ready").toString(), "#654321");

        child<QPushButton>(view, "reset").click();
        for (Status s : allStatuses)
            QVERIFY(!app.settings.contains(Palette::key(s)));

        Switch& login = child(view, "openAtLogin");
        const QLabel& error = child<QLabel>(view, "loginError");
        QVERIFY(!login.isChecked() && error.isHidden());
        login.click();
        QVERIFY(!login.isChecked() && !error.isHidden()); // snapped back to what is really there
        QVERIFY2(error.text().startsWith(QStringLiteral("Couldn't ")) && error.text().contains(autostart),
                 qPrintable(error.text()));

        QFile::remove(autostart);
        login.click();
        QVERIFY(login.isChecked() && LoginItem::isEnabled());
        const QString entry = autostart + QStringLiteral("/skeldrin.desktop");
        const QString text = QString::fromStdString(readText(entry.toStdString()));
        QVERIFY(text.startsWith(QStringLiteral("[Desktop Entry]\n")));
        QVERIFY(text.contains(QStringLiteral("Exec=\"") + QCoreApplication::applicationFilePath() + '"'));
        login.click();
        QVERIFY(!login.isChecked());
        QVERIFY(!QFile::exists(entry));
    }
};

QTEST_MAIN(SettingsViewTests)
#include "SettingsViewTests.moc"
