// Drives the updater against a real HTTP server on the loopback address and a fake installed executable.
#include "Skeldrin/model/Updates.h"
#include "Skeldrin/platform/UpdateInstaller.h"
#include "support/LoopbackHttpServer.h"

#include <QtTest>

#include <memory>

using namespace skeldrin;
using skeldrin::test::LoopbackHttpServer;
using Response = LoopbackHttpServer::Response;
using namespace std::chrono_literals;

Q_DECLARE_METATYPE(std::optional<QString>)
Q_DECLARE_METATYPE(Response)

namespace {

constexpr int kWaitMs = 20000;

QByteArray manifestJson(const QString& latest, const QUrl& url, const std::optional<QUrl>& linuxPackage = {})
{
    QJsonObject object{{"latest", latest}, {"url", url.toString()}};
    if (linuxPackage) object.insert("linuxPackage", linuxPackage->toString());
    return QJsonDocument(object).toJson();
}

Response ok(const QByteArray& body)
{
    return Response{200, body, {}, Response::Ending::complete};
}

QStringList filesIn(const QString& folder)
{
    return QDir(folder).entryList(QDir::Files | QDir::Hidden);
}

void writeExecutable(const QString& path, const QByteArray& script)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(script);
    file.close();
    QVERIFY(file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
}

// Records what the updater hands to the desktop and whether it relaunched or quit.
struct World {
    QTemporaryDir dir;
    QList<QUrl> opened;
    bool openSucceeds = true;
    QStringList launches;
    std::optional<QString> launchError;
    int quits = 0;

    Updates::Dependencies dependencies(const QString& base, const QString& current = QStringLiteral("1.0.0"))
    {
        Updates::Dependencies deps;
        deps.baseAddress = base;
        deps.currentVersion = current;
        deps.installedCopy = dir.filePath(QStringLiteral("skeldrin"));
        deps.downloadFolder = dir.filePath(QStringLiteral("cache/updates"));
        deps.open = [this](const QUrl& url, QString* error) {
            opened.append(url);
            if (!openSucceeds) *error = QStringLiteral("nothing opens it");
            return openSucceeds;
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
    void versionOrder_data();
    void versionOrder();
    void manifestDecoding_data();
    void manifestDecoding();
    void checkOutcome_data();
    void checkOutcome();
    void addresses_data();
    void addresses();
    void startChecksAtOnceAndAgain();
    void downloadOpensPackageOnceAndReopens();
    void downloadFailureOpensPage_data();
    void downloadFailureOpensPage();
    void withoutLinuxPackageOpensPage();
    void relaunchWaitsForInstalledVersion_data();
    void relaunchWaitsForInstalledVersion();
    void linuxRelaunchStartsInstalledCopy();
};

void UpdatesTests::versionOrder_data()
{
    QTest::addColumn<QString>("a");
    QTest::addColumn<QString>("b");
    QTest::addColumn<bool>("older");
    QTest::addColumn<bool>("newer"); // isOlder(b, a)

    QTest::newRow("numeric, not textual") << "1.2"
                                          << "1.10" << true << false;
    QTest::newRow("missing pieces are 0") << "1.2"
                                          << "1.2.0" << false << false;
    QTest::newRow("first difference decides") << "2.0.9"
                                              << "2.1" << true << false;
    QTest::newRow("equal") << "1.4.2"
                           << "1.4.2" << false << false;
    QTest::newRow("empty text is 0") << ""
                                     << "0.0.1" << true << false;
    QTest::newRow("only a dot") << "."
                                << "0" << false << false;
    QTest::newRow("empty pieces dropped") << "1..2"
                                          << "1.2" << false << false;
    QTest::newRow("prefix makes the piece 0") << "v1.2"
                                              << "0.2" << false << false;
    QTest::newRow("suffix makes the piece 0") << "1.2-beta"
                                              << "1.1" << true << false;
    QTest::newRow("overflow counts as 0") << "99999999999999999999"
                                          << "1" << true << false;
    QTest::newRow("largest 64-bit piece") << "9223372036854775807"
                                          << "9223372036854775806" << false << true;
    QTest::newRow("signed pieces") << "-1"
                                   << "0" << true << false;
    QTest::newRow("space is not a number") << " 3"
                                           << "1" << true << false;
}

void UpdatesTests::versionOrder()
{
    QFETCH(QString, a);
    QFETCH(QString, b);
    QFETCH(bool, older);
    QFETCH(bool, newer);
    QCOMPARE(AppVersion::isOlder(a, b), older);
    QCOMPARE(AppVersion::isOlder(b, a), newer);
}

void UpdatesTests::manifestDecoding_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<std::optional<QString>>("linuxPackage"); // when it decodes
    QTest::addColumn<QString>("error");                       // when it does not

    const std::optional<QString> none;
    QTest::newRow("required keys only")
        << QByteArray(R"({"latest":"1.4.2","url":"https://s.example/S.dmg"})") << none << QString();
    QTest::newRow("with a Linux package")
        << QByteArray(
               R"({"latest":"1.4.2","url":"https://s.example/S.dmg","linuxPackage":"https://s.example/s.deb",
                          "notes":"ignored"})")
        << std::optional<QString>("https://s.example/s.deb") << QString();
    QTest::newRow("null Linux package")
        << QByteArray(R"({"latest":"1.4.2","url":"https://s.example/S.dmg","linuxPackage":null})") << none
        << QString();
    QTest::newRow("not JSON") << QByteArray("<html>") << none << "is not JSON";
    QTest::newRow("array") << QByteArray("[]") << none << "is not a JSON object";
    QTest::newRow("no latest") << QByteArray(R"({"url":"https://s.example/S.dmg"})") << none
                               << "has no \"latest\"";
    QTest::newRow("no url") << QByteArray(R"({"latest":"1.4.2"})") << none << "has no \"url\"";
    QTest::newRow("numeric version") << QByteArray(R"({"latest":1.4,"url":"https://s.example/S.dmg"})")
                                     << none << "\"latest\" that is not a text";
    QTest::newRow("ftp url") << QByteArray(R"({"latest":"1.4.2","url":"ftp://s.example/S.dmg"})") << none
                             << "\"url\" that is not a web address";
    QTest::newRow("relative url") << QByteArray(R"({"latest":"1.4.2","url":"S.dmg"})") << none
                                  << "\"url\" that is not a web address";
    QTest::newRow("file package")
        << QByteArray(
               R"({"latest":"1.4.2","url":"https://s.example/S.dmg","linuxPackage":"file:///etc/passwd"})")
        << none << "\"linuxPackage\" that is not a web address";
}

void UpdatesTests::manifestDecoding()
{
    QFETCH(QByteArray, json);
    QFETCH(std::optional<QString>, linuxPackage);
    QFETCH(QString, error);
    try {
        const UpdateManifest manifest = UpdateManifest::decode(json);
        QVERIFY2(error.isEmpty(), "decoded a bad manifest");
        QCOMPARE(manifest.latest, QStringLiteral("1.4.2"));
        QCOMPARE(manifest.url, QUrl(QStringLiteral("https://s.example/S.dmg")));
        QCOMPARE(manifest.linuxPackage.has_value(), linuxPackage.has_value());
        if (linuxPackage) QCOMPARE(*manifest.linuxPackage, QUrl(*linuxPackage));
    } catch (const std::runtime_error& failure) {
        QVERIFY2(!error.isEmpty(), failure.what());
        QVERIFY2(QString::fromUtf8(failure.what()).contains(error), failure.what());
    }
}

void UpdatesTests::checkOutcome_data()
{
    QTest::addColumn<Response>("answer");
    QTest::addColumn<QString>("expectedLog");
    QTest::addColumn<QString>("stillOffered"); // the pending version after the second check, "" for none

    // The first check always offers 2.0.0; the second answers as below.
    const QUrl page(QStringLiteral("https://s.example/S.dmg"));
    QTest::newRow("newer") << ok(manifestJson("3.0.0", page)) << QString() << "3.0.0";
    QTest::newRow("same version as the pending one")
        << ok(manifestJson("2.0.0", page)) << QString() << "2.0.0";
    QTest::newRow("same as running clears") << ok(manifestJson("1.0.0", page)) << QString() << "";
    QTest::newRow("older clears") << ok(manifestJson("0.9", page)) << QString() << "";
    QTest::newRow("404 keeps") << Response{404, "gone", {}, Response::Ending::complete}
                               << "^version check answered 404$"
                               << "2.0.0";
    QTest::newRow("500 keeps") << Response{500, "", {}, Response::Ending::complete}
                               << "^version check answered 500$"
                               << "2.0.0";
    QTest::newRow("garbage keeps") << ok("\x01\x02 not json") << "^version check failed: .*is not JSON"
                                   << "2.0.0";
    QTest::newRow("bad url keeps") << ok(R"({"latest":"3.0","url":"mailto:a@s.example"})")
                                   << "^version check failed: .*\"url\" that is not a web address"
                                   << "2.0.0";
    QTest::newRow("10 MB keeps") << ok(QByteArray(10 << 20, ' ') + manifestJson("3.0.0", page))
                                 << "^version check failed: .*larger than 64 KiB"
                                 << "2.0.0";
    QTest::newRow("silent server keeps")
        << Response{200, {}, {}, Response::Ending::silent} << "^version check failed: "
        << "2.0.0";
    QTest::newRow("cut short keeps") << Response{200,
                                                 manifestJson("3.0.0", page),
                                                 {},
                                                 Response::Ending::cutShort}
                                     << "^version check failed: "
                                     << "2.0.0";
    QTest::newRow("redirect to plain http elsewhere is refused")
        << LoopbackHttpServer::redirect(QUrl(QStringLiteral("http://updates.example/version.json")))
        << "^version check failed: refused the redirect to http://updates.example/version.json$"
        << "2.0.0";
}

void UpdatesTests::checkOutcome()
{
    QFETCH(Response, answer);
    QFETCH(QString, expectedLog);
    QFETCH(QString, stillOffered);

    LoopbackHttpServer server;
    QVERIFY(server.listening());
    World world;
    Updates::Dependencies deps = world.dependencies(server.url(QStringLiteral("/first/")).toString());
    // Short only where the wait is the point: a loaded machine may take a while to send 10 MB.
    deps.checkTimeout =
        answer.ending == Response::Ending::silent ? 300ms : std::chrono::milliseconds(kWaitMs);
    Updates updates(deps);
    server.serve("/first/version.json", ok(manifestJson("2.0.0", QUrl("https://s.example/S.dmg"))));
    checkOnce(updates);
    QVERIFY(updates.required());
    QCOMPARE(updates.required()->latest, QStringLiteral("2.0.0"));

    // The second site is reached through a redirect from the first, which must be followed on loopback.
    server.serve("/first/version.json", LoopbackHttpServer::redirect(server.url("/second/version.json")));
    server.serve("/second/version.json", answer);
    QSignalSpy changed(&updates, &Updates::requiredChanged);
    if (!expectedLog.isEmpty()) QTest::ignoreMessage(QtWarningMsg, QRegularExpression(expectedLog));
    checkOnce(updates);

    QCOMPARE(server.requests().last(), QStringLiteral("/second/version.json"));
    QCOMPARE(updates.required() ? updates.required()->latest : QString(), stillOffered);
    QCOMPARE(changed.count(), stillOffered == QLatin1String("2.0.0") ? 0 : 1);
}

void UpdatesTests::addresses_data()
{
    QTest::addColumn<QString>("base");
    QTest::addColumn<bool>("fromEnvironment");
    QTest::addColumn<bool>("fetches");

    QTest::newRow("no address") << "" << false << false;
    QTest::newRow("plain http elsewhere") << "http://updates.example/" << false << false;
    QTest::newRow("not a web address") << "ftp://127.0.0.1/" << false << false;
    QTest::newRow("loopback, without trailing slash") << "LOCAL/site" << false << true;
    QTest::newRow("from the environment") << "LOCAL/site/" << true << true;
}

void UpdatesTests::addresses()
{
    QFETCH(QString, base);
    QFETCH(bool, fromEnvironment);
    QFETCH(bool, fetches);

    LoopbackHttpServer server;
    base.replace(QLatin1String("LOCAL"), server.url().toString().chopped(1));
    server.serve("/site/version.json", ok(manifestJson("2.0.0", QUrl("https://s.example/S.dmg"))));
    if (!base.isEmpty() && !fetches)
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^refusing the update"));

    World world;
    std::unique_ptr<Updates> updates;
    if (fromEnvironment) {
        qputenv("SKELDRIN_UPDATE_URL", base.toUtf8());
        updates = std::make_unique<Updates>();
        qunsetenv("SKELDRIN_UPDATE_URL");
    } else {
        updates = std::make_unique<Updates>(world.dependencies(base));
    }
    checkOnce(*updates);
    QCOMPARE(server.requests(), fetches ? QStringList{"/site/version.json"} : QStringList{});
    QCOMPARE(updates->required().has_value(), fetches);
}

void UpdatesTests::startChecksAtOnceAndAgain()
{
    LoopbackHttpServer server;
    World world;
    Updates::Dependencies deps = world.dependencies(server.url().toString());
    deps.checkInterval = 50ms;
    Updates updates(deps);
    server.serve("/version.json", ok(manifestJson("1.0.0", QUrl("https://s.example/d"))));
    updates.start();
    QTRY_VERIFY_WITH_TIMEOUT(server.requests().size() >= 1, kWaitMs);
    // A later round finds the release made in between.
    server.serve("/version.json", ok(manifestJson("2.0.0", QUrl("https://s.example/d"))));
    QTRY_VERIFY_WITH_TIMEOUT(updates.required().has_value(), kWaitMs);
}

void UpdatesTests::downloadOpensPackageOnceAndReopens()
{
    LoopbackHttpServer server;
    World world;
    Updates updates(world.dependencies(server.url().toString()));
    const QByteArray package(300 * 1024, 'p');
    server.serve("/version.json", ok(manifestJson("2.0.0", QUrl("https://s.example/S.dmg"),
                                                  server.url("/files/skeldrin_2.0.0_amd64.deb?sig=1"))));
    server.serve("/files/skeldrin_2.0.0_amd64.deb", ok(package));
    checkOnce(updates);

    QSignalSpy downloading(&updates, &Updates::downloadingChanged);
    updates.install();
    QVERIFY(updates.downloading());
    updates.install(); // while downloading: nothing more
    QTRY_VERIFY_WITH_TIMEOUT(updates.awaitingInstall(), kWaitMs);
    QVERIFY(!updates.downloading());
    QCOMPARE(downloading.count(), 2);

    const QString file = world.dir.filePath("cache/updates/skeldrin_2.0.0_amd64.deb");
    QCOMPARE(world.opened, QList<QUrl>{QUrl::fromLocalFile(file)});
    QFile saved(file);
    QVERIFY(saved.open(QIODevice::ReadOnly));
    QCOMPARE(saved.readAll(), package);
    QCOMPARE(filesIn(world.dir.filePath("cache/updates")), QStringList{"skeldrin_2.0.0_amd64.deb"});

    updates.install();
    QCOMPARE(world.opened, (QList<QUrl>{QUrl::fromLocalFile(file), QUrl::fromLocalFile(file)}));
    QCOMPARE(server.requests().count("/files/skeldrin_2.0.0_amd64.deb"), 1);
    QVERIFY(!updates.downloading());
}

void UpdatesTests::downloadFailureOpensPage_data()
{
    QTest::addColumn<Response>("answer");
    QTest::addColumn<QString>("expectedLog");

    QTest::newRow("404") << Response{404, "gone", {}, Response::Ending::complete}
                         << "^update download failed: the server answered 404$";
    QTest::newRow("closed mid-download")
        << Response{200, QByteArray(64 * 1024, 'p'), {}, Response::Ending::cutShort}
        << "^update download failed: ";
    QTest::newRow("redirect to plain http elsewhere")
        << LoopbackHttpServer::redirect(QUrl("http://mirror.example/s.deb"))
        << "^update download failed: refused the redirect to http://mirror.example/s.deb$";
}

void UpdatesTests::downloadFailureOpensPage()
{
    QFETCH(Response, answer);
    QFETCH(QString, expectedLog);

    LoopbackHttpServer server;
    World world;
    Updates updates(world.dependencies(server.url().toString()));
    const QUrl page("https://s.example/download");
    server.serve("/version.json", ok(manifestJson("2.0.0", page, server.url("/s.deb"))));
    server.serve("/s.deb", answer);
    checkOnce(updates);

    // An earlier download of the same name must survive a failed one.
    const QString folder = world.dir.filePath("cache/updates");
    QVERIFY(QDir().mkpath(folder));
    QFile earlier(folder + "/s.deb");
    QVERIFY(earlier.open(QIODevice::WriteOnly));
    earlier.write("earlier");
    earlier.close();

    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(expectedLog));
    updates.install();
    QTRY_VERIFY_WITH_TIMEOUT(!updates.downloading(), kWaitMs);
    QCOMPARE(world.opened, QList<QUrl>{page});
    QVERIFY(!updates.awaitingInstall());
    QVERIFY(!updates.downloadedFile());
    QVERIFY(updates.required());
    QCOMPARE(filesIn(folder), QStringList{"s.deb"});
    QVERIFY(earlier.open(QIODevice::ReadOnly));
    QCOMPARE(earlier.readAll(), QByteArray("earlier"));
}

void UpdatesTests::withoutLinuxPackageOpensPage()
{
    LoopbackHttpServer server;
    World world;
    Updates updates(world.dependencies(server.url().toString()));
    server.serve("/version.json", ok(manifestJson("2.0.0", QUrl("https://s.example/download"))));

    updates.install(); // nothing offered yet: nothing happens
    QVERIFY(world.opened.isEmpty());
    checkOnce(updates);
    QSignalSpy downloading(&updates, &Updates::downloadingChanged);
    updates.install();
    QCOMPARE(world.opened, QList<QUrl>{QUrl("https://s.example/download")});
    QCOMPARE(downloading.count(), 0);
    QCOMPARE(server.requests(), QStringList{"/version.json"});
}

void UpdatesTests::relaunchWaitsForInstalledVersion_data()
{
    QTest::addColumn<std::optional<QString>>("launchError");
    QTest::newRow("relaunch works") << std::optional<QString>();
    QTest::newRow("relaunch fails") << std::optional<QString>("the copy is damaged");
}

void UpdatesTests::relaunchWaitsForInstalledVersion()
{
    QFETCH(std::optional<QString>, launchError);

    LoopbackHttpServer server;
    World world;
    world.launchError = launchError;
    Updates updates(world.dependencies(server.url().toString()));
    server.serve("/version.json",
                 ok(manifestJson("2.0.0", QUrl("https://s.example/d"), server.url("/s.deb"))));
    server.serve("/s.deb", ok("package"));

    // The installed copy answers `--version` from a file the test changes, and counts how often it was asked.
    const QString versionFile = world.dir.filePath("installed-version");
    const QString asked = world.dir.filePath("asked");
    writeExecutable(
        world.dir.filePath("skeldrin"),
        QStringLiteral("#!/bin/sh\necho >> '%1'\n[ -f '%2' ] || exit 1\necho \"skeldrin $(cat '%2')\"\n")
            .arg(asked, versionFile)
            .toUtf8());
    auto timesAsked = [&] {
        QFile file(asked);
        return file.open(QIODevice::ReadOnly) ? file.readAll().count('\n') : 0;
    };
    auto setInstalled = [&](const QByteArray& version) {
        QFile file(versionFile);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(version);
    };

    checkOnce(updates);
    updates.install();
    QTRY_VERIFY_WITH_TIMEOUT(updates.awaitingInstall(), kWaitMs);

    // Not installed yet, then still the old copy: no relaunch however often it is asked.
    QTRY_VERIFY_WITH_TIMEOUT(timesAsked() >= 3, kWaitMs);
    setInstalled("1.0.0");
    const qsizetype before = timesAsked();
    QTRY_VERIFY_WITH_TIMEOUT(timesAsked() >= before + 3, kWaitMs);
    QVERIFY(world.launches.isEmpty());

    if (launchError) QTest::ignoreMessage(QtWarningMsg, "couldn't open the updated app: the copy is damaged");
    setInstalled("2.0.0\n");
    QTRY_COMPARE_WITH_TIMEOUT(world.launches.size(), 1, kWaitMs);
    QCOMPARE(world.launches.first(), world.dir.filePath("skeldrin"));
    QCOMPARE(world.quits, launchError ? 0 : 1);

    // The watch ends with the relaunch: the installed copy is not asked again.
    const qsizetype after = timesAsked();
    QTest::qWait(200);
    QCOMPARE(timesAsked(), after);
    QCOMPARE(world.launches.size(), 1);
}

void UpdatesTests::linuxRelaunchStartsInstalledCopy()
{
    // The hand-over waits for this process to end, up to its limit, and then starts the copy anyway.
    QTemporaryDir dir;
    const QString started = dir.filePath("started");
    writeExecutable(dir.filePath("skeldrin"),
                    QStringLiteral("#!/bin/sh\necho \"$#\" > '%1'\n").arg(started).toUtf8());
    std::optional<std::optional<QString>> outcome;
    QObject context;
    platform::launchInstalledCopy(dir.filePath("skeldrin"), &context,
                                  [&](std::optional<QString> error) { outcome = error; });
    QTRY_VERIFY_WITH_TIMEOUT(outcome.has_value(), kWaitMs);
    QCOMPARE(*outcome, std::optional<QString>());
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(started), kWaitMs);
    QFile file(started);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("0\n"));
}

QTEST_GUILESS_MAIN(UpdatesTests)
#include "UpdatesTests.moc"
