#include "Skeldrin/platform/JumpScripts.h"

#include <QtTest>

using skeldrin::JumpError;

class JumpScriptsTests : public QObject {
    Q_OBJECT
  private Q_SLOTS:
    void scriptsNameTheDevice()
    {
        QCOMPARE(skeldrin::itermScript("/dev/ttys003"),
                 std::string(R"(tell application id "com.googlecode.iterm2"
    repeat with w in windows
        repeat with t in tabs of w
            repeat with s in sessions of t
                if tty of s is "/dev/ttys003" then
                    select w
                    tell t to select
                    tell s to select
                    activate
                    return true
                end if
            end repeat
        end repeat
    end repeat
end tell
return false)"));
        QCOMPARE(skeldrin::terminalScript("/dev/ttys003"),
                 std::string(R"(tell application id "com.apple.Terminal"
    repeat with w in windows
        repeat with t in tabs of w
            if tty of t is "/dev/ttys003" then
                if miniaturized of w then set miniaturized of w to false
                set selected of t to true
                set index of w to 1
                activate
                return true
            end if
        end repeat
    end repeat
end tell
return false)"));
    }

    void ttyCheck_data()
    {
        QTest::addColumn<QString>("tty");
        QTest::addColumn<bool>("valid");
        QTest::newRow("mac pty") << "/dev/ttys003" << true;
        QTest::newRow("console") << "/dev/tty1" << true;
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
        if (valid) {
            QCOMPARE(skeldrin::checkedTTY(text), text);
            return;
        }
        try {
            skeldrin::checkedTTY(text);
            QFAIL("accepted");
        } catch (const JumpError& error) {
            QCOMPARE(error.kind(), JumpError::Kind::invalidTTY);
            QCOMPARE(std::string(error.what()), "Unexpected terminal device: " + text);
        }
    }

    void errorTexts()
    {
        QCOMPARE(std::string(JumpError::appNotFound("com.example.gone").what()),
                 std::string("The app that started this session (com.example.gone) isn't installed."));
        QCOMPARE(
            std::string(JumpError::script("Not authorized to send Apple events to Terminal.", -1743).what()),
            std::string("Allow Skeldrin to control your terminal in System Settings → Privacy & Security → "
                        "Automation. (Not authorized to send Apple events to Terminal.)"));
        QCOMPARE(std::string(JumpError::script("Syntax error", -2740).what()), std::string("Syntax error"));
        QCOMPARE(std::string(JumpError::unknownOrigin().what()),
                 std::string("This session didn't say where it was started, so there's nothing to open."));
    }
};

QTEST_GUILESS_MAIN(JumpScriptsTests)
#include "JumpScriptsTests.moc"
