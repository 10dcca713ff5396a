// The updater killed (SIGKILL) at each step in a real process of its own: while the package is half
// downloaded, once it is renamed into place, and once the installer has started. The next start must take
// no half file for whole, and the installed app is never touched by any of it.
#include "support/LoopbackHttpServer.h"
#include "support/TestProcesses.h"

#include <QtTest>

#include <filesystem>

using skeldrin::test::LoopbackHttpServer;
using skeldrin::test::readBytes;
using Response = LoopbackHttpServer::Response;

namespace {

constexpr int kWaitMs = 20000;

// Whether the process holds an open file of at least 64 KiB under `folder`.
bool writesUnder(qint64 pid, const QString& folder)
{
    namespace fs = std::filesystem;
    std::error_code error;
    for (const auto& fd : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error))
        if (fs::read_symlink(fd.path(), error).string().starts_with(folder.toStdString()) &&
            fs::file_size(fd.path(), error) >= 64 * 1024 && !error)
            return true;
    return false;
}

} // namespace

class UpdateInterruptionTests : public QObject {
    Q_OBJECT
  private Q_SLOTS:
    void killedAtEachStep_data()
    {
        QTest::addColumn<QString>("step");
        QTest::newRow("download half done") << "download";
        QTest::newRow("renamed into place") << "renamed";
        QTest::newRow("installer started") << "installer";
    }
    void killedAtEachStep()
    {
        QFETCH(QString, step);
        QTemporaryDir dir;
        QVERIFY(skeldrin::test::writeScript(dir.filePath("skeldrin"), "echo skeldrin 1.0.0"));
        const QByteArray installed = readBytes(dir.filePath("skeldrin"));
        QVERIFY(skeldrin::test::writeScript(dir.filePath("installer"), "echo \"$1\" > \"$0.ran\""));
        const QByteArray package = QByteArray(256 * 1024, 'p') + "end of the package";

        LoopbackHttpServer server;
        const QJsonObject manifest{{"latest", "2.0.0"},
                                   {"url", "https://s.example/d"},
                                   {"linuxPackage", server.url("/s.deb").toString()}};
        server.serve("/version.json", Response{200, QJsonDocument(manifest).toJson()});
        const bool stall = step == QLatin1String("download");
        server.serve("/s.deb",
                     stall ? Response{200, package.left(package.size() / 2), {}, Response::Ending::stalled}
                           : Response{200, package});

        const QString folder = dir.filePath("cache/updates"), final = folder + "/s.deb";
        QProcess probe;
        probe.start(SKELDRIN_UPDATE_PROBE, {server.url().toString(), dir.path(), step});
        QVERIFY(probe.waitForStarted(kWaitMs));
        if (stall) {
            // Half the package is on disk, in a file that has no name in the folder yet.
            QTRY_VERIFY_WITH_TIMEOUT(writesUnder(probe.processId(), folder), kWaitMs);
            QCOMPARE(QDir(folder).entryList(QDir::Files | QDir::Hidden), QStringList());
            probe.kill();
        }
        // Waiting through the event loop: the server runs on it.
        QTRY_COMPARE_WITH_TIMEOUT(probe.state(), QProcess::NotRunning, kWaitMs);
        QCOMPARE(probe.exitStatus(), QProcess::CrashExit);
        QCOMPARE(readBytes(final), stall ? QByteArray() : package);
        if (step == QLatin1String("installer"))
            QTRY_COMPARE_WITH_TIMEOUT(readBytes(dir.filePath("installer.ran")), final.toUtf8() + '\n',
                                      kWaitMs);

        // The next start downloads the whole package again and hands over only that.
        server.serve("/s.deb", Response{200, package});
        QFile::remove(dir.filePath("opened"));
        QProcess next;
        next.start(SKELDRIN_UPDATE_PROBE, {server.url().toString(), dir.path(), "none"});
        QTRY_COMPARE_WITH_TIMEOUT(next.state(), QProcess::NotRunning, kWaitMs);
        QCOMPARE(next.exitCode(), 0);
        QCOMPARE(server.requests().count("/s.deb"), 2);
        QCOMPARE(readBytes(dir.filePath("opened")), final.toUtf8() + '\n');
        QCOMPARE(readBytes(final), package);
        QCOMPARE(readBytes(dir.filePath("skeldrin")), installed);
    }

    void relaunchStartsTheInstalledCopyOnceThisOneHasEnded()
    {
        // The copy records whether the process that relaunched it (its pid in a file) was still there.
        QTemporaryDir dir;
        QVERIFY(skeldrin::test::writeScript(
            dir.filePath("skeldrin"),
            "kill -0 \"$(cat \"$0.pid\")\" 2>/dev/null && echo running > \"$0.ran\" "
            "|| echo \"$# arguments\" > \"$0.ran\""));
        QProcess probe;
        probe.start(SKELDRIN_UPDATE_PROBE, {QString(), dir.path(), "relaunch"});
        QVERIFY(probe.waitForStarted(kWaitMs));
        QFile pid(dir.filePath("skeldrin.pid"));
        QVERIFY(pid.open(QIODevice::WriteOnly) && pid.write(QByteArray::number(probe.processId())) > 0);
        pid.close();
        QVERIFY(probe.waitForFinished(kWaitMs));
        QCOMPARE(probe.exitCode(), 0);
        QTRY_COMPARE_WITH_TIMEOUT(readBytes(dir.filePath("skeldrin.ran")), QByteArray("0 arguments\n"),
                                  kWaitMs);
    }
};

QTEST_GUILESS_MAIN(UpdateInterruptionTests)
#include "UpdateInterruptionTests.moc"
