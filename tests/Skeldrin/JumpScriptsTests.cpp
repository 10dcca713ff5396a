#include "Skeldrin/platform/JumpScripts.h"

#include <QtTest>

using skeldrin::JumpError;

class JumpScriptsTests : public QObject {
    Q_OBJECT
  private Q_SLOTS:
    void scriptsLookForTheDeviceInTheirApp()
    {
        const std::string iterm = skeldrin::itermScript("/dev/ttys003");
        const std::string terminal = skeldrin::terminalScript("/dev/ttys003");
        QVERIFY(iterm.starts_with("tell application id \"com.googlecode.iterm2\"\n"));
        QVERIFY(terminal.starts_with("tell application id \"com.apple.Terminal\"\n"));
        QVERIFY(iterm.find("if tty of s is \"/dev/ttys003\" then\n") != std::string::npos);
        QVERIFY(terminal.find("if tty of t is \"/dev/ttys003\" then\n") != std::string::npos);
    }

    void ttyCheck_data()
    {
        QTest::addColumn<QString>("tty");
        QTest::addColumn<bool>("valid");
        QTest::newRow("mac pty") << "/dev/ttys003" << true;
        QTest::newRow("console") << "/dev/tty1" << true;
        QTest::newRow("letters a to z") << "/dev/ttyaz" << true;
        QTest::newRow("quote") << "/dev/ttys0\"03" << false;
        QTest::newRow("space") << "/dev/ttys 03" << false;
        QTest::newRow("linux pts") << "/dev/pts/3" << false;
        QTest::newRow("bare prefix") << "/dev/tty" << false;
        QTest::newRow("upper case") << "/dev/ttyS0" << false;
        QTest::newRow("trailing newline") << "/dev/ttys003\n" << false;
    }
    void ttyCheck()
    {
        QFETCH(QString, tty);
        QFETCH(bool, valid);
        const std::string text = tty.toStdString();
        try {
            QCOMPARE(skeldrin::checkedTTY(text), text);
            QVERIFY(valid);
        } catch (const JumpError& error) {
            QVERIFY(!valid);
            QCOMPARE(error.kind(), JumpError::Kind::invalidTTY);
            QCOMPARE(std::string(error.what()), "Unexpected terminal device: " + text);
        }
    }

    void errorTexts()
    {
        QCOMPARE(std::string(JumpError::appNotFound("com.example.gone").what()),
                 "The app that started this session (com.example.gone) isn't installed.");
        QCOMPARE(
            std::string(JumpError::script("Not authorized to send Apple events to Terminal.", -1743).what()),
            "Allow Skeldrin to control your terminal in System Settings → Privacy & Security → Automation. "
            "(Not authorized to send Apple events to Terminal.)");
        QCOMPARE(std::string(JumpError::script("Syntax error", -2740).what()), "Syntax error");
    }
};

QTEST_GUILESS_MAIN(JumpScriptsTests)
#include "JumpScriptsTests.moc"
