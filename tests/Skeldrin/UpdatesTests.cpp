// Drives the updater against a real HTTP server on the loopback address and a fake installed executable.
#include "Skeldrin/model/Updates.h"
#include "Skeldrin/platform/UpdateInstaller.h"
#include "support/LoopbackHttpServer.h"
#include "support/TestProcesses.h"

#include <QtTest>

#include <memory>

using namespace skeldrin;
using skeldrin::test::LoopbackHttpServer;
using Response = LoopbackHttpServer::Response;
using Ending = Response::Ending;
using namespace std::chrono_literals;

Q_DECLARE_METATYPE(std::optional<QString>)
Q_DECLARE_METATYPE(Response)

namespace {

constexpr int kWaitMs = 20000;
const QUrl kPage(QStringLiteral("https://s.example/S.dmg"));

Response ok(const QByteArray& body, Ending ending = Ending::complete)
{
    return Response{200, body, {}, ending};
}

Response manifest(const QString& latest, const std::optional<QUrl>& linuxPackage = {})
{
    QJsonObject object{{"latest", latest}, {"url", kPage.toString()}};
    if (linuxPackage) object.insert("linuxPackage", linuxPackage->toString());
    return ok(QJsonDocument(object).toJson());
}

// A site to check, and a record of what the updater hands to the desktop and whether it relaunched or quit.
struct World {
    LoopbackHttpServer server;
    QTemporaryDir dir;
    QList<QUrl> opened;
    QStringList launches;
    std::optional<QString> launchError;
    int quits = 0;

    QString path(const QString& relative) const { return dir.filePath(relative); }

    Updates::Dependencies dependencies(const std::optional<QString>& base = {})
    {
        Updates::Dependencies deps;
        deps.baseAddress = base.value_or(server.url().toString());
        deps.currentVersion = "1.0.0";
        deps.installedCopy = path("skeldrin");
        deps.downloadFolder = path("cache/updates");
        deps.open = [this](const QUrl& url, QString*) {
            opened.append(url);
            return true;
        };
        deps.readInstalledVersion = platform::readInstalledVersion;
        deps.launch = [this](const QString& copy, QObject*,
                             std::function<void(std::optional<QString>)> done) {
            launches.append(copy);
            done(launchError);
        };
        deps.quit = [this] { ++quits; };
        deps.installPoll = 20ms;
        return deps;
    }
};

// Each older than the next: numbers, not text; the first difference decides; empty, a suffix and an
// overflow count as 0.
const std::pair<const char*, const char*> kVersionsInOrder[] = {
    {"1.2", "1.10"}, {"2.0.9", "2.1"}, {"", "0.0.1"}, {"1.2-beta", "1.1"}, {"99999999999999999999", "1"}};

// Keys it does not know are left alone.
const char* const kGoodManifest =
    R"({"latest":"1.4.2","url":"https://s.example/S.dmg","linuxPackage":"https://s.example/s.deb","x":1})";
const std::pair<const char*, const char*> kBadManifests[] = {
    {"[]", "is not a JSON object"},
    {R"({"url":"https://s.example/S.dmg"})", "has no \"latest\""},
    {R"({"latest":1.4,"url":"https://s.example/S.dmg"})", "\"latest\" that is not a text"},
    {R"({"latest":"1.4.2","url":"ftp://s.example/S.dmg"})", "\"url\" that is not a web address"},
    {R"({"latest":"1.4.2","url":"https://s.example/S.dmg","linuxPackage":"file:///etc/passwd"})",
     "\"linuxPackage\" that is not a web address"},
};

void checkOnce(Updates& updates)
{
    QSignalSpy finished(&updates, &Updates::checkFinished);
    updates.check();
    if (finished.isEmpty()) QVERIFY(finished.wait(kWaitMs));
}

} // namespace

class UpdatesTests : public QObject {
    Q_OBJECT
  private Q_SLOTS:
    void versionsCompareAndManifestsDecodeOrSayWhatIsWrong()
    {
        for (const auto& [older, newer] : kVersionsInOrder)
            QVERIFY2(AppVersion::isOlder(older, newer) && !AppVersion::isOlder(newer, older), older);
        QVERIFY(!AppVersion::isOlder("1.2", "1.2.0") && !AppVersion::isOlder("1.2.0", "1.2")); // missing is 0

        const UpdateManifest manifest = UpdateManifest::decode(kGoodManifest);
        QCOMPARE(QStringList({manifest.latest, manifest.url.toString(), manifest.linuxPackage->toString()}),
                 QStringList({"1.4.2", kPage.toString(), "https://s.example/s.deb"}));
        for (const auto& [json, error] : kBadManifests) {
            try {
                UpdateManifest::decode(json);
                QFAIL(json);
            } catch (const std::runtime_error& failure) {
                QVERIFY2(QString::fromUtf8(failure.what()).contains(error), failure.what());
            }
        }
    }

    void checkOutcome_data()
    {
        QTest::addColumn<Response>("answer");
        QTest::addColumn<QString>("expectedLog");
        QTest::addColumn<QString>("stillOffered"); // the pending version after the second check, "" for none
        // The first check always offers 2.0.0; the second answers as below.
        // clang-format off
        QTest::newRow("newer") << manifest("3.0.0") << "" << "3.0.0";
        QTest::newRow("same as pending") << manifest("2.0.0") << "" << "2.0.0";
        QTest::newRow("same as running clears") << manifest("1.0.0") << "" << "";
        QTest::newRow("404 keeps") << Response{404, "gone"} << "^version check answered 404$" << "2.0.0";
        QTest::newRow("garbage keeps") << ok("\x01\x02 not json") << "^version check failed: .*is not JSON" << "2.0.0";
        QTest::newRow("10 MB keeps") << ok(QByteArray(10 << 20, ' ') + manifest("3.0.0").body) << "^version check failed: .*larger than 64 KiB" << "2.0.0";
        QTest::newRow("silent server keeps") << ok({}, Ending::silent) << "^version check failed: " << "2.0.0";
        QTest::newRow("redirect to plain http elsewhere is refused") << LoopbackHttpServer::redirect(QUrl(QStringLiteral("http://updates.example/version.json"))) << "^version check failed: refused the redirect to http://updates.example/version.json$" << "2.0.0";
        // clang-format on
    }
    void checkOutcome()
    {
        QFETCH(Response, answer);
        QFETCH(QString, expectedLog);
        QFETCH(QString, stillOffered);

        World world;
        Updates::Dependencies deps =
            world.dependencies(world.server.url("/first").toString().replace("127.0.0.1", "LocalHost"));
        // Short only where the wait is the point: a loaded machine may take a while to send 10 MB.
        deps.checkTimeout = answer.ending == Ending::silent ? 300ms : std::chrono::milliseconds(kWaitMs);
        Updates updates(deps);
        world.server.serve("/first/version.json", manifest("2.0.0"));
        checkOnce(updates);
        QCOMPARE(updates.required().value_or(UpdateManifest{}).latest, QStringLiteral("2.0.0"));

        // The second site is reached through a redirect from the first, which must be followed on loopback.
        world.server.serve("/first/version.json",
                           LoopbackHttpServer::redirect(world.server.url("/second/version.json")));
        world.server.serve("/second/version.json", answer);
        QSignalSpy changed(&updates, &Updates::requiredChanged);
        if (!expectedLog.isEmpty()) QTest::ignoreMessage(QtWarningMsg, QRegularExpression(expectedLog));
        checkOnce(updates);
        QCOMPARE(updates.required().value_or(UpdateManifest{}).latest, stillOffered);
        QCOMPARE(changed.count(), stillOffered == QLatin1String("2.0.0") ? 0 : 1);
    }

    void onlyHttpsOrThisMachineIsAskedAndAgainLater()
    {
        World world;
        world.server.serve("/site/version.json", manifest("2.0.0"));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^refusing the update"));
        for (const QString& base : {QString(), QStringLiteral("http://updates.example/")}) {
            Updates updates(world.dependencies(base));
            checkOnce(updates);
            QVERIFY(!updates.required());
        }
        qputenv("SKELDRIN_UPDATE_URL", world.server.url("/site").toEncoded());
        Updates fromEnvironment;
        qunsetenv("SKELDRIN_UPDATE_URL");
        checkOnce(fromEnvironment);
        QVERIFY(fromEnvironment.required());
        QCOMPARE(world.server.requests(), QStringList{"/site/version.json"});

        Updates::Dependencies deps = world.dependencies(world.server.url("/site").toString());
        deps.checkInterval = 50ms;
        Updates periodic(deps);
        periodic.start(); // at once, and again
        QTRY_VERIFY_WITH_TIMEOUT(world.server.requests().size() >= 3, kWaitMs);
    }

    void installOpensThePackageOrElseThePage_data()
    {
        QTest::addColumn<bool>("offersPackage");
        QTest::addColumn<Response>("answer");
        QTest::addColumn<QString>("expectedLog"); // empty: the package downloads
        QTest::addColumn<std::optional<QString>>("launchError");
        const std::optional<QString> works;
        // clang-format off
        QTest::newRow("downloads") << true << ok(QByteArray(300 * 1024, 'p')) << "" << works;
        QTest::newRow("downloads, relaunch fails") << true << ok("package") << "" << std::optional<QString>("the copy is damaged");
        QTest::newRow("no Linux package") << false << Response{} << "" << works;
        QTest::newRow("404") << true << Response{404, "gone"} << "^update download failed: the server answered 404$" << works;
        QTest::newRow("closed mid-download") << true << ok(QByteArray(64 * 1024, 'p'), Ending::cutShort) << "^update download failed: " << works;
        // clang-format on
    }
    void installOpensThePackageOrElseThePage()
    {
        QFETCH(bool, offersPackage);
        QFETCH(Response, answer);
        QFETCH(QString, expectedLog);
        QFETCH(std::optional<QString>, launchError);
        const bool downloads = offersPackage && expectedLog.isEmpty();

        World world;
        world.launchError = launchError;
        Updates updates(world.dependencies());
        world.server.serve("/version.json",
                           manifest("2.0.0", offersPackage ? std::optional(world.server.url("/s.deb?sig=1"))
                                                           : std::nullopt));
        world.server.serve("/s.deb", answer);
        updates.install(); // nothing offered yet: nothing happens
        checkOnce(updates);

        // An earlier download of the same name is replaced only by a whole one.
        const QString file = world.path("cache/updates/s.deb");
        QVERIFY(test::writeBytes(file, "earlier"));
        if (!expectedLog.isEmpty()) QTest::ignoreMessage(QtWarningMsg, QRegularExpression(expectedLog));
        updates.install();
        if (updates.downloading()) updates.install(); // while downloading: nothing more
        QTRY_VERIFY_WITH_TIMEOUT(!updates.downloading(), kWaitMs);
        QCOMPARE(updates.awaitingInstall(), downloads);
        QCOMPARE(world.opened, QList<QUrl>{downloads ? QUrl::fromLocalFile(file) : kPage});
        QCOMPARE(test::readBytes(file), downloads ? answer.body : QByteArray("earlier"));
        QCOMPARE(QDir(world.path("cache/updates")).entryList(QDir::Files | QDir::Hidden),
                 QStringList{"s.deb"});
        if (!downloads) return;
        updates.install(); // once downloaded, opened again without a new download
        QCOMPARE(world.server.requests().count("/s.deb"), 1);
        QCOMPARE(world.opened.size(), 2);

        // The installed copy answers `--version` from a file, counting the questions: while it is the old
        // one, no relaunch however often it is asked.
        const QString version = world.path("version"), asked = world.path("asked");
        QVERIFY(test::writeBytes(version, "1.0.0"));
        QVERIFY(test::writeScript(
            world.path("skeldrin"),
            QStringLiteral("echo >> '%1'\necho \"skeldrin $(cat '%2')\"").arg(asked, version).toUtf8()));
        QTRY_VERIFY_WITH_TIMEOUT(test::readBytes(asked).count('\n') >= 2, kWaitMs);
        QVERIFY(world.launches.isEmpty());
        if (launchError)
            QTest::ignoreMessage(QtWarningMsg, "couldn't open the updated app: the copy is damaged");
        QVERIFY(test::writeBytes(version, "2.0.0\n"));
        QTRY_COMPARE_WITH_TIMEOUT(world.launches, QStringList{world.path("skeldrin")}, kWaitMs);
        QCOMPARE(world.quits, launchError ? 0 : 1);
    }
};

QTEST_GUILESS_MAIN(UpdatesTests)
#include "UpdatesTests.moc"
