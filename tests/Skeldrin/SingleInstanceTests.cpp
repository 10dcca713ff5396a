#include "tests/support/TestProcesses.h"

#include <QtTest>
#include <csignal>

// Two real `skeldrin` processes against one home: the second start hands over and leaves.
class SingleInstanceTests : public QObject {
    Q_OBJECT

    skeldrin::test::TempHome home;

    std::unique_ptr<QProcess> start()
    {
        auto process = std::make_unique<QProcess>();
        process->setProcessEnvironment(home.environment()); // offscreen, as this test runs
        process->start(SKELDRIN_BIN_DIR "/skeldrin", {});
        if (!process->waitForStarted()) qFatal("skeldrin did not start");
        return process;
    }

    bool locked() const { return !QDir(home.path("run")).entryList({"skeldrin-*.lock"}).isEmpty(); }

    // A second start leaves at once with status 0, and the running one shows its widget.
    void expectHandOver(QProcess& running)
    {
        home.setSetting("widget.visible", false);
        auto second = start();
        QVERIFY(second->waitForFinished(20000));
        QCOMPARE(second->exitStatus(), QProcess::NormalExit);
        QCOMPARE(second->exitCode(), 0);
        QCOMPARE(running.state(), QProcess::Running);
        QTRY_COMPARE_WITH_TIMEOUT(home.setting("widget.visible").toString(), "true", 20000);
    }

  private Q_SLOTS:
    void secondStartHandsOverAndAStaleSocketIsTakenOver()
    {
        auto first = start();
        QTRY_VERIFY_WITH_TIMEOUT(locked(), 20000);
        expectHandOver(*first);

        // A crash leaves the lock file and the socket behind; the next start takes them over.
        ::kill(pid_t(first->processId()), SIGKILL);
        QVERIFY(first->waitForFinished());
        QVERIFY(locked());
        auto next = start();
        QVERIFY(!next->waitForFinished(1500)); // it runs instead of handing over to no one
        expectHandOver(*next);
        next->terminate();
        QVERIFY(next->waitForFinished());
    }
};

QTEST_GUILESS_MAIN(SingleInstanceTests)
#include "SingleInstanceTests.moc"
