// The updater killed (SIGKILL) in a real process of its own while the package is half downloaded: the next
// start must take no half file for whole, and the installed app is never touched.
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
    void killedMidDownloadTheNextStartDownloadsItWhole()
    {
        QTemporaryDir dir;
        QVERIFY(skeldrin::test::writeScript(dir.filePath("skeldrin"), "echo skeldrin 1.0.0"));
        const QByteArray installed = readBytes(dir.filePath("skeldrin"));
        const QByteArray package = QByteArray(256 * 1024, 'p') + "end of the package";

        LoopbackHttpServer server;
        const QJsonObject manifest{{"latest", "2.0.0"},
                                   {"url", "https://s.example/d"},
                                   {"linuxPackage", server.url("/s.deb").toString()}};
        server.serve("/version.json", Response{200, QJsonDocument(manifest).toJson()});
        server.serve("/s.deb",
                     Response{200, package.left(package.size() / 2), {}, Response::Ending::stalled});

        const QString folder = dir.filePath("cache/updates"), final = folder + "/s.deb";
        QProcess probe;
        probe.start(SKELDRIN_UPDATE_PROBE, {server.url().toString(), dir.path()});
        // Half the package is on disk, in a file that has no name in the folder yet.
        QTRY_VERIFY_WITH_TIMEOUT(writesUnder(probe.processId(), folder), kWaitMs);
        QCOMPARE(QDir(folder).entryList(QDir::Files | QDir::Hidden), QStringList());
        probe.kill();
        QVERIFY(probe.waitForFinished(kWaitMs));

        server.serve("/s.deb", Response{200, package});
        QProcess next; // waited for through the event loop, which the server needs
        next.start(SKELDRIN_UPDATE_PROBE, {server.url().toString(), dir.path()});
        QTRY_COMPARE_WITH_TIMEOUT(next.state(), QProcess::NotRunning, kWaitMs);
        QCOMPARE(next.exitCode(), 0);
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
        probe.start(SKELDRIN_UPDATE_PROBE, {"relaunch", dir.path()});
        QVERIFY(probe.waitForStarted(kWaitMs));
        QVERIFY(
            skeldrin::test::writeBytes(dir.filePath("skeldrin.pid"), QByteArray::number(probe.processId())));
        QVERIFY(probe.waitForFinished(kWaitMs));
        QCOMPARE(probe.exitCode(), 0);
        QTRY_COMPARE_WITH_TIMEOUT(readBytes(dir.filePath("skeldrin.ran")), QByteArray("0 arguments\n"),
                                  kWaitMs);
    }
};

QTEST_GUILESS_MAIN(UpdateInterruptionTests)
#include "UpdateInterruptionTests.moc"
