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

    void onlyTerminalDevicesAreAccepted()
    {
        for (const std::string tty : {"/dev/ttys003", "/dev/tty1", "/dev/ttyaz"})
            QCOMPARE(skeldrin::checkedTTY(tty), tty);
        for (const std::string tty :
             {"/dev/ttys0\"03", "/dev/pts/3", "/dev/tty", "/dev/ttyS0", "/dev/ttys003\n"}) {
            try {
                skeldrin::checkedTTY(tty);
                QFAIL(tty.c_str());
            } catch (const JumpError& error) {
                QCOMPARE(error.kind(), JumpError::Kind::invalidTTY);
                QCOMPARE(std::string(error.what()), "Unexpected terminal device: " + tty);
            }
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
