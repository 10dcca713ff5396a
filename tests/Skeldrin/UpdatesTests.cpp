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

Response ok(const QByteArray& body)
{
    return Response{200, body, {}, Ending::complete};
}

Response manifest(const QString& latest, const std::optional<QUrl>& linuxPackage = {})
{
    QJsonObject object{{"latest", latest}, {"url", kPage.toString()}};
    if (linuxPackage) object.insert("linuxPackage", linuxPackage->toString());
    return ok(QJsonDocument(object).toJson());
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
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
        deps.currentVersion = QStringLiteral("1.0.0");
        deps.installedCopy = path(QStringLiteral("skeldrin"));
        deps.downloadFolder = path(QStringLiteral("cache/updates"));
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
    void withoutAPackageOpensThePage_data();
    void withoutAPackageOpensThePage();
    void relaunchWaitsForInstalledVersion_data();
    void relaunchWaitsForInstalledVersion();
};

void UpdatesTests::versionOrder_data()
{
    QTest::addColumn<QString>("a");
    QTest::addColumn<QString>("b");
    QTest::addColumn<bool>("older"); // isOlder(a, b); never isOlder(b, a)
    const struct {
        const char *name, *a, *b;
        bool older;
    } rows[] = {
        {"numeric, not textual", "1.2", "1.10", true},
        {"missing pieces are 0", "1.2", "1.2.0", false},
        {"first difference decides", "2.0.9", "2.1", true},
        {"equal", "1.4.2", "1.4.2", false},
        {"empty text is 0", "", "0.0.1", true},
        {"only a dot", ".", "0", false},
        {"empty pieces dropped", "1..2", "1.2", false},
        {"prefix makes the piece 0", "v1.2", "0.2", false},
        {"suffix makes the piece 0", "1.2-beta", "1.1", true},
        {"overflow counts as 0", "99999999999999999999", "1", true},
        {"largest 64-bit piece", "9223372036854775806", "9223372036854775807", true},
        {"signed pieces", "-1", "0", true},
        {"space is not a number", " 3", "1", true},
    };
    for (const auto& r : rows)
        QTest::newRow(r.name) << QString(r.a) << QString(r.b) << r.older;
}

void UpdatesTests::versionOrder()
{
    QFETCH(QString, a);
    QFETCH(QString, b);
    QFETCH(bool, older);
    QCOMPARE(AppVersion::isOlder(a, b), older);
    QVERIFY(!AppVersion::isOlder(b, a));
}

void UpdatesTests::manifestDecoding_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("linuxPackage"); // when it decodes; "" for none
    QTest::addColumn<QString>("error");        // when it does not
    const QByteArray head = R"({"latest":"1.4.2","url":"https://s.example/S.dmg")";
    const struct {
        const char* name;
        QByteArray json;
        const char *linuxPackage, *error;
    } rows[] = {
        {"required keys only", head + "}", "", ""},
        {"with a Linux package", head + R"(,"linuxPackage":"https://s.example/s.deb","notes":"ignored"})",
         "https://s.example/s.deb", ""},
        {"null Linux package", head + R"(,"linuxPackage":null})", "", ""},
        {"not JSON", "<html>", "", "is not JSON"},
        {"array", "[]", "", "is not a JSON object"},
        {"no latest", R"({"url":"https://s.example/S.dmg"})", "", "has no \"latest\""},
        {"no url", R"({"latest":"1.4.2"})", "", "has no \"url\""},
        {"numeric version", R"({"latest":1.4,"url":"https://s.example/S.dmg"})", "",
         "\"latest\" that is not a text"},
        {"ftp url", R"({"latest":"1.4.2","url":"ftp://s.example/S.dmg"})", "",
         "\"url\" that is not a web address"},
        {"relative url", R"({"latest":"1.4.2","url":"S.dmg"})", "", "\"url\" that is not a web address"},
        {"file package", head + R"(,"linuxPackage":"file:///etc/passwd"})", "",
         "\"linuxPackage\" that is not a web address"},
    };
    for (const auto& r : rows)
        QTest::newRow(r.name) << r.json << QString(r.linuxPackage) << QString(r.error);
}

void UpdatesTests::manifestDecoding()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, linuxPackage);
    QFETCH(QString, error);
    try {
        const UpdateManifest manifest = UpdateManifest::decode(json);
        QVERIFY2(error.isEmpty(), "decoded a bad manifest");
        QCOMPARE(manifest.latest, QStringLiteral("1.4.2"));
        QCOMPARE(manifest.url, kPage);
        QCOMPARE(manifest.linuxPackage.value_or(QUrl()), QUrl(linuxPackage));
    } catch (const std::runtime_error& failure) {
        QVERIFY2(!error.isEmpty() && QString::fromUtf8(failure.what()).contains(error), failure.what());
    }
}

void UpdatesTests::checkOutcome_data()
{
    QTest::addColumn<Response>("answer");
    QTest::addColumn<QString>("expectedLog");
    QTest::addColumn<QString>("stillOffered"); // the pending version after the second check, "" for none

    // The first check always offers 2.0.0; the second answers as below.
    const QByteArray newer = manifest("3.0.0").body;
    const struct {
        const char* name;
        Response answer;
        const char *log, *offered;
    } rows[] = {
        {"newer", manifest("3.0.0"), "", "3.0.0"},
        {"same version as the pending one", manifest("2.0.0"), "", "2.0.0"},
        {"same as running clears", manifest("1.0.0"), "", ""},
        {"older clears", manifest("0.9"), "", ""},
        {"404 keeps", {404, "gone", {}, Ending::complete}, "^version check answered 404$", "2.0.0"},
        {"500 keeps", {500, "", {}, Ending::complete}, "^version check answered 500$", "2.0.0"},
        {"garbage keeps", ok("\x01\x02 not json"), "^version check failed: .*is not JSON", "2.0.0"},
        {"bad url keeps", ok(R"({"latest":"3.0","url":"mailto:a@s.example"})"),
         "^version check failed: .*\"url\" that is not a web address", "2.0.0"},
        {"10 MB keeps", ok(QByteArray(10 << 20, ' ') + newer), "^version check failed: .*larger than 64 KiB",
         "2.0.0"},
        {"silent server keeps", {200, {}, {}, Ending::silent}, "^version check failed: ", "2.0.0"},
        {"cut short keeps", {200, newer, {}, Ending::cutShort}, "^version check failed: ", "2.0.0"},
        {"redirect to plain http elsewhere is refused",
         LoopbackHttpServer::redirect(QUrl(QStringLiteral("http://updates.example/version.json"))),
         "^version check failed: refused the redirect to http://updates.example/version.json$", "2.0.0"},
    };
    for (const auto& r : rows)
        QTest::newRow(r.name) << r.answer << QString(r.log) << QString(r.offered);
}

void UpdatesTests::checkOutcome()
{
    QFETCH(Response, answer);
    QFETCH(QString, expectedLog);
    QFETCH(QString, stillOffered);

    World world;
    Updates::Dependencies deps = world.dependencies(world.server.url(QStringLiteral("/first/")).toString());
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

    QCOMPARE(world.server.requests().last(), QStringLiteral("/second/version.json"));
    QCOMPARE(updates.required().value_or(UpdateManifest{}).latest, stillOffered);
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
    QTest::newRow("loopback, without trailing slash") << "http://127.0.0.1:PORT/site" << false << true;
    QTest::newRow("localhost by name") << "http://LocalHost:PORT/site/" << false << true;
    QTest::newRow("from the environment") << "http://127.0.0.1:PORT/site/" << true << true;
}

void UpdatesTests::addresses()
{
    QFETCH(QString, base);
    QFETCH(bool, fromEnvironment);
    QFETCH(bool, fetches);

    World world;
    base.replace(QLatin1String("PORT"), QString::number(world.server.url().port()));
    world.server.serve("/site/version.json", manifest("2.0.0"));
    if (!base.isEmpty() && !fetches)
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^refusing the update"));

    std::unique_ptr<Updates> updates;
    if (fromEnvironment) {
        qputenv("SKELDRIN_UPDATE_URL", base.toUtf8());
        updates = std::make_unique<Updates>();
        qunsetenv("SKELDRIN_UPDATE_URL");
    } else {
        updates = std::make_unique<Updates>(world.dependencies(base));
    }
    checkOnce(*updates);
    QCOMPARE(world.server.requests(), fetches ? QStringList{"/site/version.json"} : QStringList{});
    QCOMPARE(updates->required().has_value(), fetches);
}

void UpdatesTests::startChecksAtOnceAndAgain()
{
    World world;
    Updates::Dependencies deps = world.dependencies();
    deps.checkInterval = 50ms;
    Updates updates(deps);
    world.server.serve("/version.json", manifest("1.0.0"));
    updates.start();
    QTRY_VERIFY_WITH_TIMEOUT(world.server.requests().size() >= 1, kWaitMs);
    // A later round finds the release made in between.
    world.server.serve("/version.json", manifest("2.0.0"));
    QTRY_VERIFY_WITH_TIMEOUT(updates.required().has_value(), kWaitMs);
}

void UpdatesTests::downloadOpensPackageOnceAndReopens()
{
    World world;
    Updates updates(world.dependencies());
    const QByteArray package(300 * 1024, 'p');
    world.server.serve("/version.json",
                       manifest("2.0.0", world.server.url("/files/skeldrin_2.0.0_amd64.deb?sig=1")));
    world.server.serve("/files/skeldrin_2.0.0_amd64.deb", ok(package));
    checkOnce(updates);

    QSignalSpy downloading(&updates, &Updates::downloadingChanged);
    updates.install();
    QVERIFY(updates.downloading());
    updates.install(); // while downloading: nothing more
    QTRY_VERIFY_WITH_TIMEOUT(updates.awaitingInstall(), kWaitMs);
    QVERIFY(!updates.downloading());
    QCOMPARE(downloading.count(), 2);

    const QUrl file = QUrl::fromLocalFile(world.path("cache/updates/skeldrin_2.0.0_amd64.deb"));
    QCOMPARE(world.opened, QList<QUrl>{file});
    QCOMPARE(readAll(file.toLocalFile()), package);
    QCOMPARE(QDir(world.path("cache/updates")).entryList(QDir::Files | QDir::Hidden),
             QStringList{"skeldrin_2.0.0_amd64.deb"});

    updates.install();
    QCOMPARE(world.opened, (QList<QUrl>{file, file}));
    QCOMPARE(world.server.requests().count("/files/skeldrin_2.0.0_amd64.deb"), 1);
    QVERIFY(!updates.downloading());
}

void UpdatesTests::withoutAPackageOpensThePage_data()
{
    QTest::addColumn<bool>("offersPackage");
    QTest::addColumn<Response>("answer");
    QTest::addColumn<QString>("expectedLog");

    QTest::newRow("no Linux package") << false << Response{} << "";
    QTest::newRow("404") << true << Response{404, "gone", {}, Ending::complete}
                         << "^update download failed: the server answered 404$";
    QTest::newRow("closed mid-download")
        << true << Response{200, QByteArray(64 * 1024, 'p'), {}, Ending::cutShort}
        << "^update download failed: ";
    QTest::newRow("redirect to plain http elsewhere")
        << true << LoopbackHttpServer::redirect(QUrl("http://mirror.example/s.deb"))
        << "^update download failed: refused the redirect to http://mirror.example/s.deb$";
}

void UpdatesTests::withoutAPackageOpensThePage()
{
    QFETCH(bool, offersPackage);
    QFETCH(Response, answer);
    QFETCH(QString, expectedLog);

    World world;
    Updates updates(world.dependencies());
    world.server.serve(
        "/version.json",
        manifest("2.0.0", offersPackage ? std::optional(world.server.url("/s.deb")) : std::nullopt));
    world.server.serve("/s.deb", answer);
    updates.install(); // nothing offered yet: nothing happens
    checkOnce(updates);

    // An earlier download of the same name must survive a failed one.
    QVERIFY(writeFile(world.path("cache/updates/s.deb"), "earlier"));
    QSignalSpy downloading(&updates, &Updates::downloadingChanged);
    if (!expectedLog.isEmpty()) QTest::ignoreMessage(QtWarningMsg, QRegularExpression(expectedLog));
    updates.install();
    QTRY_VERIFY_WITH_TIMEOUT(!updates.downloading(), kWaitMs);
    QCOMPARE(downloading.count(), offersPackage ? 2 : 0);
    QCOMPARE(world.server.requests().contains("/s.deb"), offersPackage);
    QCOMPARE(world.opened, QList<QUrl>{kPage});
    QVERIFY(!updates.awaitingInstall());
    QVERIFY(!updates.downloadedFile());
    QVERIFY(updates.required());
    QCOMPARE(QDir(world.path("cache/updates")).entryList(QDir::Files | QDir::Hidden), QStringList{"s.deb"});
    QCOMPARE(readAll(world.path("cache/updates/s.deb")), QByteArray("earlier"));
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

    World world;
    world.launchError = launchError;
    Updates updates(world.dependencies());
    world.server.serve("/version.json", manifest("2.0.0", world.server.url("/s.deb")));
    world.server.serve("/s.deb", ok("package"));

    // The installed copy answers `--version` from a file the test changes, and counts how often it was asked.
    const QString versionFile = world.path("installed-version"), asked = world.path("asked");
    QVERIFY(
        test::writeScript(world.path("skeldrin"),
                          QStringLiteral("echo >> '%1'\n[ -f '%2' ] || exit 1\necho \"skeldrin $(cat '%2')\"")
                              .arg(asked, versionFile)
                              .toUtf8()));
    auto timesAsked = [&] { return readAll(asked).count('\n'); };

    checkOnce(updates);
    updates.install();
    QTRY_VERIFY_WITH_TIMEOUT(updates.awaitingInstall(), kWaitMs);

    // Not installed yet, then still the old copy: no relaunch however often it is asked.
    QTRY_VERIFY_WITH_TIMEOUT(timesAsked() >= 3, kWaitMs);
    QVERIFY(writeFile(versionFile, "1.0.0"));
    const qsizetype before = timesAsked();
    QTRY_VERIFY_WITH_TIMEOUT(timesAsked() >= before + 3, kWaitMs);
    QVERIFY(world.launches.isEmpty());

    if (launchError) QTest::ignoreMessage(QtWarningMsg, "couldn't open the updated app: the copy is damaged");
    QVERIFY(writeFile(versionFile, "2.0.0\n"));
    QTRY_COMPARE_WITH_TIMEOUT(world.launches, QStringList{world.path("skeldrin")}, kWaitMs);
    QCOMPARE(world.quits, launchError ? 0 : 1);

    // The watch ends with the relaunch: the installed copy is not asked again.
    const qsizetype after = timesAsked();
    QTest::qWait(200);
    QCOMPARE(timesAsked(), after);
    QCOMPARE(world.launches.size(), 1);
}

QTEST_GUILESS_MAIN(UpdatesTests)
#include "UpdatesTests.moc"
