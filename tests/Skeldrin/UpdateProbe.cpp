// The updater in a process of its own, for tests that kill it: UpdateProbe <site> <folder> checks the site,
// downloads into <folder>/cache/updates and hands the file over by appending its path to <folder>/opened.
// UpdateProbe relaunch <folder> only starts <folder>/skeldrin as an update does.
#include "Skeldrin/model/Updates.h"
#include "Skeldrin/platform/UpdateInstaller.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

using namespace skeldrin;

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 3) return 2;
    const QDir folder(QString::fromLocal8Bit(argv[2]));
    const auto finish = [](bool ok) { QCoreApplication::exit(ok ? 0 : 3); };

    if (QLatin1String(argv[1]) == QLatin1String("relaunch")) {
        platform::launchInstalledCopy(folder.filePath(QStringLiteral("skeldrin")), &app,
                                      [&](std::optional<QString> error) { finish(!error); });
        return app.exec();
    }

    Updates::Dependencies deps;
    deps.baseAddress = QString::fromLocal8Bit(argv[1]);
    deps.currentVersion = QStringLiteral("1.0.0");
    deps.installedCopy = folder.filePath(QStringLiteral("skeldrin"));
    deps.downloadFolder = folder.filePath(QStringLiteral("cache/updates"));
    deps.open = [&](const QUrl& file, QString*) {
        QFile opened(folder.filePath(QStringLiteral("opened")));
        return opened.open(QIODevice::Append) && opened.write(file.toLocalFile().toUtf8() + '\n') > 0;
    };
    deps.readInstalledVersion = platform::readInstalledVersion;

    Updates updates(deps);
    QObject::connect(&updates, &Updates::checkFinished, &updates, [&] {
        updates.install();
        if (!updates.downloading()) finish(false);
    });
    QObject::connect(&updates, &Updates::downloadingChanged, &updates, [&] {
        if (!updates.downloading()) finish(updates.awaitingInstall());
    });
    updates.check();
    return app.exec();
}
