#include <QDir>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>
#include <csignal>

// Two real `skeldrin` processes against one home: the second start hands over and leaves.
class SingleInstanceTests : public QObject {
    Q_OBJECT

    QTemporaryDir home;

    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), home.path());
        env.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(QStringLiteral("data")));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), home.filePath(QStringLiteral("run")));
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        env.insert(QStringLiteral("SKELDRIN_UPDATE_URL"), QString()); // no update check: no network
        return env;
    }

    std::unique_ptr<QProcess> start()
    {
        auto process = std::make_unique<QProcess>();
        process->setProcessEnvironment(environment());
        process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process->start(QStringLiteral(SKELDRIN_BIN_DIR "/skeldrin"), {});
        if (!process->waitForStarted()) qFatal("skeldrin did not start");
        return process;
    }

    bool locked() const
    {
        return !QDir(home.filePath(QStringLiteral("run")))
                    .entryList({QStringLiteral("skeldrin-*.lock")}, QDir::Files)
                    .isEmpty();
    }

    QVariant widgetVisible() const
    {
        QSettings settings(home.filePath(QStringLiteral("config/Skeldrin/Skeldrin.conf")),
                           QSettings::IniFormat);
        return settings.value(QStringLiteral("widget.visible"));
    }

    void setWidgetHidden()
    {
        QSettings settings(home.filePath(QStringLiteral("config/Skeldrin/Skeldrin.conf")),
                           QSettings::IniFormat);
        settings.setValue(QStringLiteral("widget.visible"), false);
    }

    // A second start must leave at once with status 0, and the first one then shows its widget.
    void expectHandOver(QProcess& running)
    {
        setWidgetHidden();
        auto second = start();
        QVERIFY(second->waitForFinished(20000));
        QCOMPARE(second->exitStatus(), QProcess::NormalExit);
        QCOMPARE(second->exitCode(), 0);
        QCOMPARE(running.state(), QProcess::Running);
        QTRY_COMPARE_WITH_TIMEOUT(widgetVisible().toString(), QStringLiteral("true"), 20000);
    }

  private Q_SLOTS:
    void secondStartHandsOverAndAStaleSocketIsTakenOver()
    {
        QDir().mkpath(home.filePath(QStringLiteral("run")));
        QFile::setPermissions(home.filePath(QStringLiteral("run")),
                              QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
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
