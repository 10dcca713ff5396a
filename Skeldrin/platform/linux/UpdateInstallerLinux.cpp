// Linux: the manifest's "linuxPackage" is handed to the desktop's package installer; the installed copy is
// this executable, and its version is what `--version` prints.
#include "Skeldrin/platform/UpdateInstaller.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QDir>
#include <QPointer>
#include <QProcess>
#include <QStandardPaths>
#include <QTimer>

#include <unistd.h>

namespace skeldrin::platform {

namespace {

// `skeldrin --version` answers at once; a copy that hangs is not the one we are waiting for.
constexpr int kVersionTimeoutMs = 5000;
// How long the new copy waits for this one to be gone (single instance) before it starts anyway.
constexpr int kHandOverSeconds = 10;

} // namespace

std::optional<QUrl> updatePackage(const UpdateManifest& manifest)
{
    return manifest.linuxPackage;
}

QString updateFileName(const QUrl& package)
{
    // Keep the extension (.deb, .rpm, …) that tells the desktop how to open it; nothing that names a path.
    QString name = package.fileName();
    for (QChar& c : name)
        if (!(c.isLetterOrNumber() && c.unicode() < 0x80) && c != u'.' && c != u'-' && c != u'_' && c != u'+')
            c = u'_';
    if (name.isEmpty() || name.startsWith(u'.')) name.prepend(QStringLiteral("skeldrin-update"));
    return name;
}

QString updateDownloadFolder()
{
    return QDir(QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation))
        .filePath(QStringLiteral("skeldrin/updates"));
}

// Asked once at start-up: after a package replaces the file, /proc/self/exe names it "... (deleted)".
QString installedCopy()
{
    return QCoreApplication::applicationFilePath();
}

bool openWithSystem(const QUrl& fileOrPage, QString* error)
{
    if (QDesktopServices::openUrl(fileOrPage)) return true;
    if (error) *error = QStringLiteral("no application opens %1").arg(fileOrPage.toDisplayString());
    return false;
}

void readInstalledVersion(const QString& installedCopy, QObject* context,
                          std::function<void(std::optional<QString>)> done)
{
    auto* process = new QProcess(context);
    process->setProcessChannelMode(QProcess::SeparateChannels);
    process->setStandardInputFile(QProcess::nullDevice());
    auto finish = [process, done = std::move(done)](std::optional<QString> version) {
        process->disconnect();
        process->deleteLater();
        done(std::move(version));
    };
    QObject::connect(process, &QProcess::errorOccurred, process, [finish](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart) finish(std::nullopt);
    });
    QObject::connect(process, &QProcess::finished, process,
                     [process, finish](int code, QProcess::ExitStatus status) {
                         // "skeldrin 1.4.2": the last word of the first line.
                         const QString firstLine =
                             QString::fromUtf8(process->readAllStandardOutput()).section(u'\n', 0, 0);
                         const QString version = firstLine.trimmed().section(u' ', -1);
                         if (status != QProcess::NormalExit || code != 0 || version.isEmpty())
                             finish(std::nullopt);
                         else
                             finish(version);
                     });
    QTimer::singleShot(kVersionTimeoutMs, process, [process] { process->kill(); });
    process->start(installedCopy, {QStringLiteral("--version")});
}

void launchInstalledCopy(const QString& installedCopy, QObject* context,
                         std::function<void(std::optional<QString>)> done)
{
    // The new copy would find this one running and hand over to it, so a small shell waits for this process
    // to end before it starts the new copy. Arguments go as a list; nothing is interpolated into the script.
    const QStringList arguments = {
        QStringLiteral("-c"),
        QStringLiteral(
            "i=0; while kill -0 \"$1\" 2>/dev/null && [ $i -lt %1 ]; do sleep 0.1; i=$((i+1)); done; "
            "exec \"$2\"")
            .arg(kHandOverSeconds * 10),
        QStringLiteral("skeldrin-relaunch"), QString::number(::getpid()), installedCopy};
    qint64 pid = 0;
    const bool started =
        QProcess::startDetached(QStringLiteral("/bin/sh"), arguments, QDir::homePath(), &pid);
    QPointer<QObject> guard(context);
    QTimer::singleShot(0, context, [guard, started, installedCopy, done = std::move(done)] {
        if (!guard) return;
        done(started ? std::nullopt : std::optional(QStringLiteral("couldn't start %1").arg(installedCopy)));
    });
}

} // namespace skeldrin::platform
