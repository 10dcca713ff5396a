// The updater in a process of its own, for tests that kill it: UpdateProbe <site> <folder> <step>. Checks the
// site, downloads into <folder>/cache/updates and hands the file over by appending it to <folder>/opened;
// step "renamed" then dies (SIGKILL), "installer" first starts <folder>/installer on it. Step "relaunch" only
// starts <folder>/skeldrin as an update does.
#include "Skeldrin/model/Updates.h"
#include "Skeldrin/platform/UpdateInstaller.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <csignal>

using namespace skeldrin;

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 4) return 2;
    const QString folder = QString::fromLocal8Bit(argv[2]), step = QString::fromLocal8Bit(argv[3]);

    if (step == QLatin1String("relaunch")) {
        platform::launchInstalledCopy(
            QDir(folder).filePath(QStringLiteral("skeldrin")), &app,
            [](std::optional<QString> error) { QCoreApplication::exit(error ? 6 : 0); });
        return app.exec();
    }

    Updates::Dependencies deps;
    deps.baseAddress = QString::fromLocal8Bit(argv[1]);
    deps.currentVersion = QStringLiteral("1.0.0");
    deps.installedCopy = QDir(folder).filePath(QStringLiteral("skeldrin"));
    deps.downloadFolder = QDir(folder).filePath(QStringLiteral("cache/updates"));
    deps.open = [&](const QUrl& file, QString*) {
        QFile opened(QDir(folder).filePath(QStringLiteral("opened")));
        if (!opened.open(QIODevice::Append)) return false;
        opened.write(file.toLocalFile().toUtf8() + '\n');
        opened.close();
        if (step == QLatin1String("installer"))
            QProcess::startDetached(QDir(folder).filePath(QStringLiteral("installer")), {file.toLocalFile()});
        if (step == QLatin1String("renamed") || step == QLatin1String("installer")) std::raise(SIGKILL);
        return true;
    };
    deps.readInstalledVersion = platform::readInstalledVersion;
    deps.launch = [](const QString&, QObject*, std::function<void(std::optional<QString>)> done) {
        done({});
    };
    deps.quit = [] {};

    Updates updates(deps);
    QObject::connect(&updates, &Updates::checkFinished, &updates, [&] {
        if (!updates.required()) return QCoreApplication::exit(3);
        updates.install();
        if (!updates.downloading()) QCoreApplication::exit(4);
    });
    QObject::connect(&updates, &Updates::downloadingChanged, &updates, [&] {
        if (!updates.downloading()) QCoreApplication::exit(updates.awaitingInstall() ? 0 : 5);
    });
    updates.check();
    return app.exec();
}
